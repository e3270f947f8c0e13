// Worker threads that are stopped through an event, and a worker that handles queued events one
// at a time in arrival order. A thread's stop event also asks the work running on it to give up:
// long loops poll stop_requested() or wait with the helpers below between their steps, so that
// a stopped thread ends within a second and is joined. Terminating a thread that does not end in
// time is the last resort, for one stuck in a system call, and is logged.
#pragma once

#include <windows.h>

#include <cstdint>
#include <deque>
#include <exception>
#include <utility>

#include "mcl/event.h"
#include "mcl/lock.h"

namespace mcl {
// Writes the one line for an exception that a thread entry or an event handler caught.
void log_thread_exception(const char* function, const char* what);
}

namespace mcl {

// Whether the thread calling it has been asked to stop: its mcl::thread's stop event, or the event
// of a stop_scope, is set. False on other threads. Any thread; cheap enough for every step of a loop.
bool stop_requested();
// Sleeps up to `ms`; false, at once, when the calling thread is asked to stop before or meanwhile.
bool sleep_unless_stopped(DWORD ms);
enum class stop_wait { signalled, timed_out, stopped, failed };
// Waits up to `ms` for `handle`, giving up when the calling thread is asked to stop first.
stop_wait wait_unless_stopped(HANDLE handle, DWORD ms);

// Makes `stop` the calling thread's stop event for its lifetime (the previous one after): work
// on a thread that is not an mcl::thread can be asked to stop too.
class stop_scope {
public:
    explicit stop_scope(HANDLE stop);
    stop_scope(const stop_scope&) = delete;
    stop_scope& operator=(const stop_scope&) = delete;
    ~stop_scope();

private:
    HANDLE previous_;
};

class thread {
public:
    // The stop event is created set, so a thread that never started reads as stopped.
    thread();
    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;
    // Stops the thread (10 seconds). A derived class whose run() uses its own members must
    // call stop() in its own destructor, before those members go.
    virtual ~thread();

    // Starts run() on a new thread unless one is running. Any thread.
    virtual bool start();
    // Sets the stop event and waits up to `seconds` for run() to return; only a thread still
    // running then is terminated (exit code 0xFFFFFFFF), with a log line. 0 terminates at once.
    // Called from the thread itself, it only sets the stop event. Any thread; serialised with
    // start().
    virtual void stop(uint32_t seconds);
    // The thread body; must return when the stop event is set.
    virtual DWORD run() { return 0; }

    HANDLE stop_event() const { return stop_event_.get(); }
    bool is_running();
    // Exit code of the last thread that ran to its end (or was terminated).
    DWORD last_exit_code() const { return last_exit_code_; }

private:
    static DWORD WINAPI entry(void* self);

    mcl::lock thread_lock_;
    HANDLE handle_ = nullptr;
    DWORD thread_id_ = 0;
    DWORD last_exit_code_ = 0;
    event stop_event_;
};

// Handles events of type T, posted from any thread, one at a time on its own thread.
template <typename T>
class event_thread : public thread {
public:
    event_thread() { work_event_.create_unnamed(); }
    ~event_thread() override { event_thread::stop(10); }

    void stop(uint32_t seconds) override {
        thread::stop(seconds);
        clear_queue();
    }

    // Queues a copy of the event and wakes the thread. Any thread.
    void post_event(T e) {
        scoped_lock guard(queue_lock_);
        queue_.push_back(std::move(e));
        work_event_.set();
    }

    virtual void clear_queue() {
        std::deque<T> old;
        {
            scoped_lock guard(queue_lock_);
            old.swap(queue_);
            work_event_.reset();
        }
    }

    DWORD run() override {
        HANDLE handles[2] = {stop_event(), work_event_.get()};
        for (;;) {
            const DWORD r = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
            if (r == WAIT_OBJECT_0) return 0;
            if (r == WAIT_OBJECT_0 + 1) {
                work_event_.reset();
                process_queue();
            } else if (r == WAIT_FAILED) {
                Sleep(10);  // never spin on a broken wait
            }
        }
    }

protected:
    // Handles queued events in order until the queue is empty or a handler returns a
    // negative result, which leaves the rest for the next wake-up. Event thread only.
    virtual void process_queue() {
        for (;;) {
            T e;
            {
                scoped_lock guard(queue_lock_);
                if (queue_.empty()) return;
                e = std::move(queue_.front());
                queue_.pop_front();
            }
            int result = 0;
            // A failing event (an allocation failure included) is dropped; the thread goes on.
            try {
                result = handle_event(e);
            } catch (const std::exception& ex) {
                log_thread_exception("mcl::event_thread::process_queue", ex.what());
            } catch (...) {
                log_thread_exception("mcl::event_thread::process_queue", "unknown");
            }
            if (result < 0) return;
        }
    }
    virtual int handle_event(T&) { return 0; }

private:
    event work_event_;
    std::deque<T> queue_;
    mcl::lock queue_lock_;
};

}  // namespace mcl
