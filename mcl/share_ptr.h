// Intrusive reference counting for objects shared between threads (IPC connections).
#pragma once

#include <cstdint>
#include <utility>

#include "mcl/lock.h"

namespace mcl {

// Base of counted objects. The count starts at 0; the first share_ptr takes it to 1 and the
// release that brings it back to 0 deletes the object. Deleting an object that still has
// references is logged.
class share_obj {
public:
    share_obj() = default;
    share_obj(const share_obj&) = delete;
    share_obj& operator=(const share_obj&) = delete;
    virtual ~share_obj();

    void add_ref();
    // Returns true when this release took the count to 0 (the caller then deletes).
    bool release_ref();
    uint32_t ref_count();

private:
    uint32_t refs_ = 0;
    mcl::lock count_lock_;
};

template <typename T>
class share_ptr {
public:
    share_ptr() = default;
    share_ptr(T* p) : p_(p) {  // NOLINT: wrapping a new object is the common case
        if (p_ != nullptr) p_->add_ref();
    }
    share_ptr(const share_ptr& other) : share_ptr(other.p_) {}
    share_ptr(share_ptr&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    share_ptr& operator=(const share_ptr& other) {
        share_ptr(other).swap(*this);
        return *this;
    }
    share_ptr& operator=(share_ptr&& other) noexcept {
        share_ptr(std::move(other)).swap(*this);
        return *this;
    }
    virtual ~share_ptr() { reset(); }

    void reset() {
        T* p = std::exchange(p_, nullptr);
        if (p != nullptr && p->release_ref()) delete p;
    }
    void swap(share_ptr& other) noexcept { std::swap(p_, other.p_); }

    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    bool operator==(const share_ptr& other) const { return p_ == other.p_; }
    bool operator!=(const share_ptr& other) const { return p_ != other.p_; }
    bool operator<(const share_ptr& other) const { return p_ < other.p_; }

private:
    T* p_ = nullptr;
};

}  // namespace mcl
