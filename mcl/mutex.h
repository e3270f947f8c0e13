// A named system mutex with the small result codes the callers test:
// 0 success, -1 failure, -2 name taken (create), -3 no handle (acquire, release).
#pragma once

#include <windows.h>

#include "mcl/lock.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl {

class mutex : public lock_interface {
public:
    mutex() = default;
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;
    // Releases the mutex if this object holds it and closes the handle.
    ~mutex() override;

    void lock() override { (void)acquire(INFINITE); }
    void unlock() override { (void)release(); }

    // Creates the named mutex, not owned. With `security` (used during the call only) the
    // mutex gets that descriptor; otherwise, with `inherit`, a NULL-DACL descriptor; without
    // either, default security. The handle is inheritable only when `inherit` says so. A name
    // that exists already (or may not be opened) gives -2 and leaves this object without a handle.
    [[nodiscard]] int create(const char* name, const bool* inherit, PSECURITY_DESCRIPTOR security = nullptr);
    [[nodiscard]] int open(const char* name);
    [[nodiscard]] int acquire(DWORD milliseconds);
    // Waits like acquire, for callers that wait in steps: a time-out gives 1 without a log line,
    // and a mutex whose owner ended without releasing it is taken over (0), for a mutex that
    // only orders its holders and guards nothing a dead one could have left half done.
    [[nodiscard]] int acquire_step(DWORD milliseconds);
    [[nodiscard]] int release();
    void close();

    bool has_handle() const { return handle_ != nullptr; }
    bool acquired() const { return acquired_; }

private:
    bool imported_ = false;
    bool acquired_ = false;
    HANDLE handle_ = nullptr;
    mswin::unique_local<PSECURITY_DESCRIPTOR> security_;
    SECURITY_ATTRIBUTES attributes_{};
};

}  // namespace mcl
