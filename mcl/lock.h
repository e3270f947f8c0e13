// Locks: the two-operation lock interface, a critical-section lock and the scoped guard.
#pragma once

#include <windows.h>

namespace mcl {

class lock_interface {
public:
    virtual ~lock_interface() = default;
    virtual void lock() {}
    virtual void unlock() {}
};

// A critical section: recursive for the owning thread. Known as mcl::lock (below); the class
// itself needs another name because C++ does not let a member share its class's name.
class critical_section : public lock_interface {
public:
    critical_section() { InitializeCriticalSection(&cs_); }
    ~critical_section() override { DeleteCriticalSection(&cs_); }
    critical_section(const critical_section&) = delete;
    critical_section& operator=(const critical_section&) = delete;

    void lock() override { EnterCriticalSection(&cs_); }
    void unlock() override { LeaveCriticalSection(&cs_); }
    // Takes the lock only if that needs no wait.
    bool try_lock() { return TryEnterCriticalSection(&cs_) != FALSE; }

private:
    CRITICAL_SECTION cs_;
};

using lock = critical_section;

// Holds a lock for the lifetime of the guard, also when an exception passes.
class scoped_lock {
public:
    explicit scoped_lock(lock_interface& l) : lock_(&l) { lock_->lock(); }
    ~scoped_lock() { lock_->unlock(); }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    lock_interface* lock_;
};

}  // namespace mcl
