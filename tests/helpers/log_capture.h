// Points g_log at a fresh file for the life of the object, so a test can read the lines the
// code under test wrote.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "app/log.h"

namespace nv_test {

class log_capture {
public:
    log_capture() {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path_ = ::testing::TempDir() + "nv_capture_" + (info != nullptr ? info->name() : "log") + ".log";
        log_.open(path_.c_str(), true);
        saved_ = g_log;
        g_log = &log_;
    }
    ~log_capture() {
        g_log = saved_;
        log_.close();
        std::remove(path_.c_str());
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::string text() const {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream s;
        s << in.rdbuf();
        return s.str();
    }
    bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }
    size_t count(const std::string& needle) const {
        const std::string t = text();
        size_t n = 0;
        for (size_t at = t.find(needle); at != std::string::npos; at = t.find(needle, at + 1)) ++n;
        return n;
    }

private:
    std::string path_;
    log_file log_;
    log_file* saved_ = nullptr;
};

}  // namespace nv_test
