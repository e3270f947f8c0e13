#include "mcl/ordered_pool.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace mcl {

namespace {

// `whole` is `part` or extends it after a '|'.
bool covers(const std::string& part, const std::string& whole) {
    return whole.size() >= part.size() && whole.compare(0, part.size(), part) == 0 &&
           (whole.size() == part.size() || whole[part.size()] == '|');
}

bool share_a_key(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    for (const std::string& x : a)
        for (const std::string& y : b)
            if (covers(x, y) || covers(y, x)) return true;
    return false;
}

// A job's failure never reaches the thread that runs it: it is logged and the job counts as done.
void run_guarded(const std::function<void(bool)>& fn, bool run) {
    try {
        fn(run);
    } catch (const std::exception& e) {
        log_thread_exception("mcl::ordered_pool", e.what());
    } catch (...) {
        log_thread_exception("mcl::ordered_pool", "unknown");
    }
}

}  // namespace

ordered_pool::ordered_pool(uint32_t workers, uint32_t max_jobs, uint32_t max_per_first_key, hand_off_fn hand_off)
    : hand_off_(std::move(hand_off)), max_jobs_(max_jobs), max_per_first_key_(max_per_first_key) {
    work_.create_unnamed();
    for (uint32_t i = 0; i < workers; ++i) workers_.emplace_back(new worker(this));
}

ordered_pool::~ordered_pool() { stop(1); }

bool ordered_pool::start() {
    {
        scoped_lock guard(lock_);
        stopped_ = false;
    }
    bool ok = true;
    for (auto& w : workers_) ok = w->start() && ok;
    return ok;
}

bool ordered_pool::conflicts(const std::vector<std::string>& keys) {
    scoped_lock guard(lock_);
    for (const job& j : jobs_)
        if (share_a_key(j.keys, keys)) return true;
    return false;
}

ordered_pool::refusal ordered_pool::submit(std::vector<std::string> keys, place where, job_fn fn) {
    std::vector<std::function<void()>> due;
    {
        scoped_lock guard(lock_);
        if (stopped_) return refusal::stopped;
        if (jobs_.size() >= max_jobs_) return refusal::full;
        if (!keys.empty()) {
            const auto same_caller = std::count_if(jobs_.begin(), jobs_.end(), [&](const job& j) {
                return !j.keys.empty() && j.keys.front() == keys.front();
            });
            if (static_cast<uint32_t>(same_caller) >= max_per_first_key_) return refusal::caller_full;
        }
        job j;
        j.id = next_id_++;
        j.keys = std::move(keys);
        j.where = where;
        j.fn = std::move(fn);
        jobs_.push_back(std::move(j));
        release_locked(due);
    }
    hand_off(due);
    return refusal::none;
}

size_t ordered_pool::size() {
    scoped_lock guard(lock_);
    return jobs_.size();
}

void ordered_pool::stop(uint32_t seconds) {
    {
        scoped_lock guard(lock_);
        stopped_ = true;
    }
    // Every worker is asked first, so that their work gives up side by side.
    for (auto& w : workers_) SetEvent(w->stop_event());
    for (auto& w : workers_) w->stop(seconds);
    job_list never_ran;
    {
        scoped_lock guard(lock_);
        for (auto it = jobs_.begin(); it != jobs_.end();) {
            auto next = std::next(it);
            if (!it->started) never_ran.splice(never_ran.end(), jobs_, it);
            it = next;
        }
    }
    for (job& j : never_ran) run_guarded(j.fn, false);
}

bool ordered_pool::turn_locked(job_list::iterator it) {
    for (auto earlier = jobs_.begin(); earlier != it; ++earlier)
        if (share_a_key(earlier->keys, it->keys)) return false;
    return true;
}

void ordered_pool::release_locked(std::vector<std::function<void()>>& due) {
    bool worker_due = false;
    for (auto it = jobs_.begin(); it != jobs_.end(); ++it) {
        if (it->started || !turn_locked(it)) continue;
        if (it->where == place::worker) {
            worker_due = true;
            continue;
        }
        it->started = true;
        const uint64_t id = it->id;
        job_fn fn = it->fn;
        due.push_back([this, id, fn] {
            run_guarded(fn, true);
            finish(id);
        });
    }
    if (worker_due) work_.set();
}

bool ordered_pool::take(job_fn& fn, uint64_t& id) {
    scoped_lock guard(lock_);
    if (stopped_) return false;
    for (auto it = jobs_.begin(); it != jobs_.end(); ++it) {
        if (it->started || it->where != place::worker || !turn_locked(it)) continue;
        it->started = true;
        fn = it->fn;
        id = it->id;
        return true;
    }
    work_.reset();
    return false;
}

void ordered_pool::finish(uint64_t id) {
    std::vector<std::function<void()>> due;
    {
        scoped_lock guard(lock_);
        jobs_.remove_if([id](const job& j) { return j.id == id; });
        release_locked(due);
    }
    hand_off(due);
}

void ordered_pool::hand_off(std::vector<std::function<void()>>& due) {
    for (auto& work : due) {
        try {
            hand_off_(std::move(work));
        } catch (const std::exception& e) {
            log_thread_exception("mcl::ordered_pool::hand_off", e.what());
        } catch (...) {
            log_thread_exception("mcl::ordered_pool::hand_off", "unknown");
        }
    }
}

DWORD ordered_pool::worker::run() {
    HANDLE handles[2] = {stop_event(), pool_->work_.get()};
    for (;;) {
        if (stop_requested()) return 0;
        job_fn fn;
        uint64_t id = 0;
        if (pool_->take(fn, id)) {
            run_guarded(fn, true);
            pool_->finish(id);
            continue;
        }
        const DWORD r = WaitForMultipleObjects(2, handles, FALSE, INFINITE);
        if (r == WAIT_OBJECT_0) return 0;
        if (r == WAIT_FAILED) Sleep(10);  // never spin on a broken wait
    }
}

}  // namespace mcl
