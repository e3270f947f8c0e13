#include "mcl/mutex.h"

#include <gtest/gtest.h>

#include <string>

#include "mcl/event.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

// Starts the helper holding `name` for `hold_ms` and returns once it holds it.
nv_test::child hold_elsewhere(const std::string& name, int hold_ms, const char* verb = "hold-mutex") {
    const std::string ready_name = nv_test::unique_name("Global\\nv_ready");
    mcl::event ready;
    EXPECT_EQ(0, ready.create(ready_name.c_str()));
    std::string args = std::string(verb) + " " + name + " ";
    if (std::string(verb) == "hold-mutex") args += std::to_string(hold_ms) + " ";
    nv_test::child c = nv_test::start("\"" + nv_test::bin_dir() + "nv_test_helper.exe\" " + args + ready_name);
    EXPECT_NE(nullptr, c.process);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(ready.get(), 10000));
    return c;
}

TEST(Mutex, CreateOfANameAnotherProcessOwnsGivesMinus2ThenOpenWorks) {
    nv_test::log_capture log;
    const std::string name = nv_test::unique_name("Global\\nv_mutex");
    nv_test::child holder = hold_elsewhere(name, 2000);

    mcl::mutex m;
    EXPECT_EQ(-2, m.create(name.c_str(), nullptr));
    EXPECT_FALSE(m.has_handle());
    EXPECT_EQ(-3, m.acquire(0));
    EXPECT_EQ(-3, m.release());
    ASSERT_EQ(0, m.open(name.c_str()));
    EXPECT_EQ(0, m.open(name.c_str()));
    EXPECT_TRUE(log.contains("] - Mutex has already be opened"));
    EXPECT_EQ(-2, m.create(name.c_str(), nullptr));
    EXPECT_TRUE(log.contains("] - Re-create mutex is not supported, the mutex has already been created"));

    // Held elsewhere: a 100 ms acquire times out with its line.
    EXPECT_EQ(-1, m.acquire(100));
    EXPECT_TRUE(log.contains("[mcl::mutex::acquire:"));
    EXPECT_TRUE(log.contains("] - Time-out when accquiring the mutex"));

    // Once the holder lets go, acquire succeeds; twice is still 0, and release is 0.
    EXPECT_EQ(0, m.acquire(10000));
    EXPECT_EQ(0, m.acquire(0));
    EXPECT_TRUE(m.acquired());
    EXPECT_EQ(0, m.release());
    EXPECT_EQ(0, m.release());
    EXPECT_EQ(0u, holder.wait());
}

TEST(Mutex, AnAbandonedMutexIsAPlainFailure) {
    const std::string name = nv_test::unique_name("Global\\nv_abandon");
    nv_test::child holder = hold_elsewhere(name, 0, "abandon-mutex");
    mcl::mutex m;
    ASSERT_EQ(0, m.open(name.c_str()));
    EXPECT_EQ(0u, holder.wait());
    EXPECT_EQ(-1, m.acquire(5000));
    EXPECT_FALSE(m.acquired());
    EXPECT_EQ(0, m.acquire(1000));  // not abandoned any more
    EXPECT_EQ(0, m.release());
}

}  // namespace
