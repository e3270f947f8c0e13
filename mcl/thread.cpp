#include "mcl/thread.h"

#include <exception>

#include "mcl/log.h"

namespace mcl {

void log_thread_exception(const char* function, const char* what) {
    NV_LOG(function, "Thread %lu: an exception ended the work at hand: %s", static_cast<unsigned long>(GetCurrentThreadId()),
           what);
}

namespace {

// The stop event of the calling thread: its mcl::thread's, or a stop_scope's.
thread_local HANDLE t_stop_event = nullptr;

}  // namespace

bool stop_requested() { return t_stop_event != nullptr && WaitForSingleObject(t_stop_event, 0) == WAIT_OBJECT_0; }

stop_wait wait_unless_stopped(HANDLE handle, DWORD ms) {
    // The handle to wait for (if any) first, then the stop event (if any).
    HANDLE handles[2];
    DWORD count = 0;
    if (handle != nullptr) handles[count++] = handle;
    if (t_stop_event != nullptr) handles[count++] = t_stop_event;
    if (count == 0) {
        Sleep(ms);
        return stop_wait::timed_out;
    }
    const DWORD r = WaitForMultipleObjects(count, handles, FALSE, ms);
    if (r == WAIT_TIMEOUT) return stop_wait::timed_out;
    if (r >= WAIT_OBJECT_0 + count) return stop_wait::failed;
    return handles[r - WAIT_OBJECT_0] == handle ? stop_wait::signalled : stop_wait::stopped;
}

bool sleep_unless_stopped(DWORD ms) { return wait_unless_stopped(nullptr, ms) == stop_wait::timed_out; }

stop_scope::stop_scope(HANDLE stop) : previous_(t_stop_event) { t_stop_event = stop; }

stop_scope::~stop_scope() { t_stop_event = previous_; }

thread::thread() {
    stop_event_.create_unnamed(/*manual_reset=*/true, /*initially_set=*/true);
}

thread::~thread() {
    thread::stop(10);
}

DWORD WINAPI thread::entry(void* self) {
    // The last line of defence: an exception ends this thread, never the process.
    thread* me = static_cast<thread*>(self);
    t_stop_event = me->stop_event();
    try {
        return me->run();
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
        NV_LOG("mcl::thread::stop", "Thread %lu did not end within %u seconds of its stop, terminated",
               static_cast<unsigned long>(thread_id_), static_cast<unsigned>(seconds));
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
