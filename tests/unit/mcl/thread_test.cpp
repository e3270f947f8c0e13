#include "mcl/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "mcl/event.h"
#include "mcl/mutex.h"
#include "mcl/ordered_pool.h"
#include "mcl/share_ptr.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

class stubborn_thread : public mcl::thread {
public:
    ~stubborn_thread() override { stop(0); }
    DWORD run() override {
        started = true;
        for (;;) Sleep(50);  // ignores its stop event
    }
    std::atomic<bool> started{false};
};

// Long work that waits through its stop is joined: quarantine_test.sh and protection_test.sh stop
// the service during such work and find no thread terminated.
TEST(Thread, OnlyAThreadIgnoringItsStopIsTerminated) {
    nv_test::log_capture log;
    stubborn_thread t;
    ASSERT_TRUE(t.start());
    while (!t.started) Sleep(5);
    t.stop(1);
    EXPECT_FALSE(t.is_running());
    EXPECT_EQ(0xFFFFFFFFu, t.last_exit_code());
    EXPECT_EQ(1u, log.count("] - Thread ")) << log.text();
    EXPECT_EQ(1u, log.count(" did not end within 1 seconds of its stop, terminated"));
}

struct numbered { int value = 0; };

class recording_thread : public mcl::event_thread<numbered> {
public:
    ~recording_thread() override { stop(10); }
    int handle_event(numbered& e) override {
        mcl::scoped_lock guard(seen_lock);
        seen.push_back(e.value);
        return 0;
    }
    // What was handled, once at least `n` events were (or five seconds went by).
    std::vector<int> snapshot(size_t n = 0) {
        for (int i = 0;; ++i, Sleep(10)) {
            mcl::scoped_lock guard(seen_lock);
            if (seen.size() >= n || i == 500) return seen;
        }
    }
    mcl::lock seen_lock;
    std::vector<int> seen;
};

TEST(EventThread, HandlesEventsInPostingOrder) {
    recording_thread t;
    ASSERT_TRUE(t.start());
    std::atomic<bool> go{false};
    auto poster = [&](int base) {
        while (!go) Sleep(0);
        for (int i = 0; i < 50; ++i) t.post_event({base + i});
    };
    std::thread a(poster, 0), b(poster, 1000);
    go = true;
    a.join();
    b.join();
    const std::vector<int> seen = t.snapshot(100);
    ASSERT_EQ(100u, seen.size());
    // Each poster's events keep their order.
    int last[2] = {-1, 999};
    for (int v : seen) EXPECT_EQ(++last[v >= 1000], v);
}

// The client library stops its peer at close and starts it again at the next connect: nothing
// queued for the old connection is handled then.
TEST(EventThread, StopClearsTheQueue) {
    recording_thread t;
    for (int v : {1, 2}) t.post_event({v});  // queued before the thread runs
    t.stop(1);
    ASSERT_TRUE(t.start());
    t.post_event({3});
    EXPECT_EQ(std::vector<int>{3}, t.snapshot(1));
}

struct counted : mcl::share_obj {
    explicit counted(std::atomic<int>* d) : deleted(d) {}
    ~counted() override { ++*deleted; }
    std::atomic<int>* deleted;
};

TEST(SharePtr, ExactlyOneReleaserDeletes) {
    std::atomic<int> deleted{0};
    for (int round = 0; round < 20; ++round) {
        mcl::share_ptr<counted> p(new counted(&deleted));
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([copy = p] {
                for (int k = 0; k < 1000; ++k) mcl::share_ptr<counted>(copy).reset();
            });
        p.reset();
        for (auto& th : threads) th.join();
    }
    EXPECT_EQ(20, deleted.load());
}

TEST(Mutex, CreateOfANameAnotherProcessOwnsGivesMinus2ThenOpenWorksAndAnAbandonedOneFailsOnce) {
    nv_test::log_capture log;
    const std::string name = nv_test::unique_name("Global\\nv_mutex");
    const std::string ready_name = nv_test::unique_name("Global\\nv_ready");
    mcl::event ready;
    ASSERT_EQ(0, ready.create(ready_name.c_str()));
    // Held for 2 s from the moment the helper sets the ready event.
    nv_test::child holder =
        nv_test::start("\"" + nv_test::bin_dir() + "nv_test_helper.exe\" hold-mutex " + name + " 2000 " + ready_name);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready.get(), 10000));

    mcl::mutex m;
    EXPECT_EQ(-2, m.create(name.c_str(), nullptr));
    EXPECT_EQ(-3, m.acquire(0));
    EXPECT_EQ(-3, m.release());
    ASSERT_EQ(0, m.open(name.c_str()));

    // Held elsewhere: a 100 ms acquire times out with its line.
    EXPECT_EQ(-1, m.acquire(100));
    EXPECT_TRUE(log.contains("[mcl::mutex::acquire:"));
    EXPECT_TRUE(log.contains("] - Time-out when accquiring the mutex"));

    // Once the holder lets go, acquire succeeds; release is 0, held or not.
    EXPECT_EQ(0, m.acquire(10000));
    EXPECT_EQ(0, m.release());
    EXPECT_EQ(0, m.release());
    EXPECT_EQ(0u, holder.wait());

    // A named mutex is owned by a thread: one that ends holding it abandons it, a plain failure.
    std::thread([&] {
        const mcl::mswin::unique_kernel_handle held(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(held.get(), 5000));
    }).join();
    EXPECT_EQ(-1, m.acquire(5000));
    EXPECT_EQ(0, m.acquire(1000));  // not abandoned any more
    EXPECT_EQ(0, m.release());
}

}  // namespace

// The request workers' ordering: what shares a key (or a key and its "|" extension) runs in the
// order submitted, the rest side by side; work for the owner thread is handed off only when its
// turn has come; the bounds refuse; a stop ends running work and tells queued work it never ran.
TEST(OrderedPool, OrdersBySharedKeysOnlyAndStopsWithinItsBound) {
    std::vector<std::function<void()>> handed;
    mcl::lock handed_lock;
    mcl::ordered_pool pool(3, 5, 3, [&](std::function<void()> work) {
        mcl::scoped_lock guard(handed_lock);
        handed.push_back(std::move(work));
    });
    const auto handed_count = [&] {
        mcl::scoped_lock guard(handed_lock);
        return handed.size();
    };
    ASSERT_TRUE(pool.start());
    mcl::event release, release_last;
    ASSERT_TRUE(release.create_unnamed() && release_last.create_unnamed());
    std::string order;
    mcl::lock order_lock;
    std::atomic<int> waiting{0};
    const auto noted = [&] {
        mcl::scoped_lock guard(order_lock);
        return order;
    };
    const auto until = [](const std::function<bool()>& done) { for (int i = 0; i < 500 && !done(); ++i) Sleep(10); };
    using place = mcl::ordered_pool::place;
    using refusal = mcl::ordered_pool::refusal;
    const auto job = [&](std::string what, HANDLE wait) {
        return [&, what, wait](bool run) {
            if (run && wait != nullptr) {
                ++waiting;
                (void)mcl::wait_unless_stopped(wait, 10000);
            }
            mcl::scoped_lock guard(order_lock);
            order += what + (run ? " " : "-never ");
        };
    };
    EXPECT_EQ(refusal::none, pool.submit({"a", "service"}, place::worker, job("held", release.get())));
    EXPECT_EQ(refusal::none, pool.submit({"b", "service|spooler"}, place::worker, job("behind", nullptr)));
    EXPECT_EQ(refusal::none, pool.submit({"a", "file|x"}, place::owner, job("owner", nullptr)));
    EXPECT_EQ(refusal::none, pool.submit({"c", "services"}, place::worker, job("beside", nullptr)));
    EXPECT_TRUE(pool.conflicts({"service|x"}));
    EXPECT_FALSE(pool.conflicts({"servic", "x|d"}));
    until([&] { return pool.size() == 3; });
    EXPECT_EQ("beside ", noted());
    EXPECT_EQ(0u, handed_count());
    EXPECT_EQ(refusal::none, pool.submit({"a"}, place::worker, job("third", nullptr)));
    EXPECT_EQ(refusal::caller_full, pool.submit({"a"}, place::worker, job("x", nullptr)));
    EXPECT_EQ(refusal::none, pool.submit({"d"}, place::worker, job("last", release_last.get())));
    EXPECT_EQ(refusal::full, pool.submit({"e"}, place::worker, job("x", nullptr)));

    release.set();
    until([&] { return noted() == "beside held behind " && handed_count() == 1; });
    ASSERT_EQ(1u, handed_count());
    handed.front()();
    until([&] { return pool.size() == 1; });
    release_last.set();
    until([&] { return pool.size() == 0; });
    EXPECT_EQ("beside held behind owner third last ", noted());

    // Stopped: the running job gives up at once (its own wait is 10 s; one still running after the
    // stop's second is terminated and notes nothing), the queued one is told it never ran.
    release.reset();
    EXPECT_EQ(refusal::none, pool.submit({"g"}, place::worker, job("stopped", release.get())));
    EXPECT_EQ(refusal::none, pool.submit({"g"}, place::worker, job("queued", nullptr)));
    until([&] { return waiting == 3; });
    pool.stop(1);
    EXPECT_EQ("beside held behind owner third last stopped queued-never ", noted());
    EXPECT_EQ(refusal::stopped, pool.submit({"h"}, place::worker, job("x", nullptr)));
}
