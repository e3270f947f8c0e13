#include "mcl/thread.h"

#include <exception>

#include "mcl/log.h"

namespace mcl {

void log_thread_exception(const char* function, const char* what) {
    NV_LOG(function, "Thread %lu: an exception ended the work at hand: %s", static_cast<unsigned long>(GetCurrentThreadId()),
           what);
}

thread::thread() {
    stop_event_.create_unnamed(/*manual_reset=*/true, /*initially_set=*/true);
}

thread::~thread() {
    thread::stop(10);
}

DWORD WINAPI thread::entry(void* self) {
    // The last line of defence: an exception ends this thread, never the process.
    try {
        return static_cast<thread*>(self)->run();
    } catch (const std::exception& e) {
        log_thread_exception("mcl::thread::entry", e.what());
    } catch (...) {
        log_thread_exception("mcl::thread::entry", "unknown");
    }
    return 0xFFFFFFFE;
}

bool thread::start() {
    scoped_lock guard(thread_lock_);
    if (handle_ != nullptr) return true;
    stop_event_.reset();
    handle_ = CreateThread(nullptr, 0, &thread::entry, this, 0, &thread_id_);
    if (handle_ == nullptr) {
        stop_event_.set();
        return false;
    }
    return true;
}

bool thread::is_running() {
    scoped_lock guard(thread_lock_);
    if (handle_ == nullptr) return false;
    DWORD code = 0;
    return GetExitCodeThread(handle_, &code) && code == STILL_ACTIVE;
}

void thread::stop(uint32_t seconds) {
    scoped_lock guard(thread_lock_);
    if (handle_ == nullptr) return;
    stop_event_.set();
    if (GetCurrentThreadId() == thread_id_) return;  // run() leaves on its own; the handle stays for a later stop

    // Waits in 10 ms steps, but wakes as soon as the thread ends.
    for (uint64_t step = 0; step < static_cast<uint64_t>(seconds) * 100; ++step) {
        if (WaitForSingleObjectEx(handle_, 10, TRUE) == WAIT_OBJECT_0) break;
    }
    DWORD code = 0;
    if (GetExitCodeThread(handle_, &code) && code == STILL_ACTIVE) {
        TerminateThread(handle_, 0xFFFFFFFF);
        WaitForSingleObject(handle_, 1000);
        code = 0xFFFFFFFF;
    }
    last_exit_code_ = code;
    CloseHandle(handle_);
    handle_ = nullptr;
    thread_id_ = 0;
}

}  // namespace mcl
