// The main of every GoogleTest executable: GoogleTest's own, plus a watchdog that turns a case
// that hangs into a failure that names it.
//
// A hung executable is otherwise killed by ctest's time-out with nothing to show: under Wine its
// output dies with it. Here stdout is unbuffered, and a case still running after
// NV_TEST_CASE_SECONDS (default 240, under every ctest time-out here) prints its name and the
// tail of the log it captured, then ends the process with exit code 124.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#endif

#include "tests/helpers/log_capture.h"

namespace {

class watchdog : public ::testing::EmptyTestEventListener {
    using clock = std::chrono::steady_clock;

public:
    explicit watchdog(std::chrono::seconds limit) : limit_(limit), thread_([this] { watch(); }) {}
    ~watchdog() override {
        {
            std::lock_guard<std::mutex> guard(lock_);
            done_ = true;
        }
        stopped_.notify_all();
        thread_.join();
    }

    void OnTestStart(const ::testing::TestInfo& info) override {
        std::lock_guard<std::mutex> guard(lock_);
        current_ = std::string(info.test_suite_name()) + "." + info.name();
        deadline_ = clock::now() + limit_;
    }
    void OnTestEnd(const ::testing::TestInfo&) override {
        std::lock_guard<std::mutex> guard(lock_);
        deadline_ = clock::time_point::max();
    }

private:
    void watch() {
        std::unique_lock<std::mutex> guard(lock_);
        while (!stopped_.wait_for(guard, std::chrono::seconds(1), [this] { return done_; }))
            if (clock::now() >= deadline_) report_and_end(current_);
    }

    void report_and_end(const std::string& test) const {
        std::fprintf(stderr, "\n[ WATCHDOG ] %s still running after %lld s: ended\n", test.c_str(),
                     static_cast<long long>(limit_.count()));
        const std::string log = nv_test::captured_log_tail(8192);
        if (!log.empty()) std::fprintf(stderr, "[ WATCHDOG ] the captured log ends:\n%s\n", log.c_str());
        std::fflush(nullptr);
#ifdef _WIN32
        // Not ExitProcess: the hung threads may hold the locks that process exit takes.
        TerminateProcess(GetCurrentProcess(), 124);
#endif
        std::_Exit(124);
    }

    const std::chrono::seconds limit_;
    std::mutex lock_;
    std::condition_variable stopped_;
    std::string current_;
    clock::time_point deadline_ = clock::time_point::max();
    bool done_ = false;
    std::thread thread_;
};

std::chrono::seconds case_limit() {
    const char* text = std::getenv("NV_TEST_CASE_SECONDS");
    const long seconds = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    return std::chrono::seconds(seconds > 0 ? seconds : 240);
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    ::testing::InitGoogleTest(&argc, argv);
    // Appended last: it sees a case start after the printer has named it.
    ::testing::UnitTest::GetInstance()->listeners().Append(new watchdog(case_limit()));
    return RUN_ALL_TESTS();
}
