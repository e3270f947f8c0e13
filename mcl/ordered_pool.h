// Work that runs beside the thread that hands it in, in an order its callers can rely on. Each
// job names the objects it touches (its keys): jobs that share a key run one after another in
// the order they were submitted, jobs with no key in common run side by side. A job runs on one
// of the pool's worker threads, or, for work that must stay on the thread that owns its data,
// is handed back to that owner thread once its turn has come. A key also stands for every key
// that extends it after a '|': "service" meets "service|spooler", which does not meet
// "service|spool".
//
// Threads: submit and conflicts from the one owner thread (the order of submits is the order of
// jobs); the workers; the hand-off, which runs its work wherever the owner puts it. start and
// stop from any one thread at a time. Bounded: at most max_jobs jobs queued or running, at most
// max_per_first_key of them with the same first key (one caller cannot fill the pool).
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "mcl/event.h"
#include "mcl/lock.h"
#include "mcl/thread.h"

namespace mcl {

class ordered_pool {
public:
    enum class place { worker, owner };
    // Called once: with true to do the work (on its place), with false when the job will never
    // run because the pool stopped first (on the thread that stops it).
    using job_fn = std::function<void(bool run)>;
    // Runs `work` on the owner thread, later; work not run is simply dropped.
    using hand_off_fn = std::function<void(std::function<void()> work)>;

    ordered_pool(uint32_t workers, uint32_t max_jobs, uint32_t max_per_first_key, hand_off_fn hand_off);
    ordered_pool(const ordered_pool&) = delete;
    ordered_pool& operator=(const ordered_pool&) = delete;
    ~ordered_pool();

    bool start();
    // Whether a job queued or running holds any of `keys`: work on those objects must queue.
    bool conflicts(const std::vector<std::string>& keys);
    enum class refusal { none, full, caller_full, stopped };
    // Queues a job behind every earlier one that shares a key with it. Refused, and not
    // queued, when a bound is reached or the pool is stopped.
    refusal submit(std::vector<std::string> keys, place where, job_fn fn);
    // Jobs queued or running.
    size_t size();
    // Refuses further jobs, asks the running ones to give up (their thread's stop event:
    // mcl::stop_requested), waits up to `seconds` for the workers, then calls every job that
    // never started with false.
    void stop(uint32_t seconds);

    static constexpr uint32_t default_workers = 4;

private:
    struct job {
        uint64_t id = 0;
        std::vector<std::string> keys;
        place where = place::worker;
        job_fn fn;
        bool started = false;
    };
    using job_list = std::list<job>;

    class worker : public thread {
    public:
        explicit worker(ordered_pool* pool) : pool_(pool) {}
        ~worker() override { thread::stop(1); }
        DWORD run() override;

    private:
        ordered_pool* pool_;
    };

    // Whether no job before `it` shares a key with it. Lock held.
    bool turn_locked(job_list::iterator it);
    // Marks the owner jobs whose turn has come as started and moves their calls to `due`;
    // wakes the workers. Lock held.
    void release_locked(std::vector<std::function<void()>>& due);
    // The next worker job whose turn has come, marked started; false when there is none.
    bool take(job_fn& fn, uint64_t& id);
    void finish(uint64_t id);
    void hand_off(std::vector<std::function<void()>>& due);

    hand_off_fn hand_off_;
    const uint32_t max_jobs_;
    const uint32_t max_per_first_key_;
    lock lock_;
    event work_;  // manual reset: set when a worker job may have become due
    job_list jobs_;
    uint64_t next_id_ = 1;
    bool stopped_ = true;
    std::vector<std::unique_ptr<worker>> workers_;
};

}  // namespace mcl
