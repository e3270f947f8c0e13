// Worker threads that are stopped through an event and terminated when they do not stop in
// time, and a worker that handles queued events one at a time in arrival order.
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
    // Sets the stop event and waits up to `seconds` for run() to return, then terminates the
    // thread (exit code 0xFFFFFFFF). 0 terminates at once. Called from the thread itself, it
    // only sets the stop event. Any thread; serialised with start().
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
