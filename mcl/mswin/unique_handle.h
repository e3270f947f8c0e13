// One owner type for every kind of Windows handle, in the WIL manner: the traits name the
// invalid value and the close function. Valid means neither null nor INVALID_HANDLE_VALUE.
#pragma once

#include <windows.h>

#include <utility>

namespace mcl::mswin {

template <typename Traits>
class unique_handle {
public:
    using pointer = typename Traits::pointer;

    unique_handle() = default;
    explicit unique_handle(pointer h) : h_(h) {}
    unique_handle(const unique_handle&) = delete;
    unique_handle& operator=(const unique_handle&) = delete;
    unique_handle(unique_handle&& other) noexcept : h_(other.release()) {}
    unique_handle& operator=(unique_handle&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~unique_handle() { reset(); }

    bool valid() const { return Traits::valid(h_); }
    explicit operator bool() const { return valid(); }
    pointer get() const { return h_; }

    // Closes the current handle, keeping GetLastError() as it was.
    void reset(pointer h = Traits::invalid()) {
        if (Traits::valid(h_)) {
            const DWORD saved = GetLastError();
            Traits::close(h_);
            SetLastError(saved);
        }
        h_ = h;
    }
    pointer release() { return std::exchange(h_, Traits::invalid()); }
    // For out-parameters: closes what is held and returns the address of the slot.
    pointer* put() {
        reset();
        return &h_;
    }

private:
    pointer h_ = Traits::invalid();
};

template <typename T, typename Close, Close close_fn>
struct simple_traits {
    using pointer = T;
    static pointer invalid() { return nullptr; }
    static bool valid(pointer h) {
        return h != nullptr && reinterpret_cast<void*>(h) != INVALID_HANDLE_VALUE;
    }
    static void close(pointer h) { close_fn(h); }
};

struct handle_traits : simple_traits<HANDLE, decltype(&CloseHandle), &CloseHandle> {};
struct reg_key_traits : simple_traits<HKEY, decltype(&RegCloseKey), &RegCloseKey> {};
struct sc_handle_traits : simple_traits<SC_HANDLE, decltype(&CloseServiceHandle), &CloseServiceHandle> {};
struct find_traits : simple_traits<HANDLE, decltype(&FindClose), &FindClose> {};
// LocalAlloc'd memory as the type the API hands out (PSID, char*, PSECURITY_DESCRIPTOR, PACL...),
// so that put() fits the out-parameter and get() needs no cast.
template <typename T>
struct local_traits {
    using pointer = T;
    static pointer invalid() { return nullptr; }
    static bool valid(pointer p) { return p != nullptr; }
    static void close(pointer p) { LocalFree(p); }
};
struct heap_traits {
    using pointer = void*;
    static pointer invalid() { return nullptr; }
    static bool valid(pointer p) { return p != nullptr; }
    static void close(pointer p) { HeapFree(GetProcessHeap(), 0, p); }
};

using unique_kernel_handle = unique_handle<handle_traits>;
using unique_reg_key = unique_handle<reg_key_traits>;
using unique_sc_handle = unique_handle<sc_handle_traits>;
using unique_find_handle = unique_handle<find_traits>;
template <typename T>
using unique_local = unique_handle<local_traits<T>>;
using unique_heap = unique_handle<heap_traits>;

}  // namespace mcl::mswin
