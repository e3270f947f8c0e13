// Lets a test read the log lines written while it runs.
//
// The first capture of a process points g_log at one log file that stays open until the process
// ends (library threads that outlive a test may still write to it); each capture reads what was
// appended since it was made.
#pragma once

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "app/log.h"

namespace nv_test {

// A file's bytes from `offset` on (empty when it cannot be read).
inline std::string file_text(const std::string& path, std::streamoff offset = 0) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(offset);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

// The path of the process's capture log, once a capture has made it.
inline std::atomic<const std::string*>& capture_log_path() {
    static std::atomic<const std::string*> path{nullptr};
    return path;
}

// The last `bytes` of what every capture of this process saw (empty before the first capture).
inline std::string captured_log_tail(size_t bytes) {
    const std::string* path = capture_log_path().load();
    if (path == nullptr) return {};
    const std::string text = file_text(*path);
    return text.size() > bytes ? text.substr(text.size() - bytes) : text;
}

class log_capture {
public:
    log_capture() : path_(shared_log().path()) {
        std::ifstream in(path_, std::ios::binary | std::ios::ate);
        start_ = in ? static_cast<std::streamoff>(in.tellg()) : 0;
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    std::string text() const { return file_text(path_, start_); }
    bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }
    size_t count(const std::string& needle) const { return count_of(text(), needle); }

private:
    // Never destroyed: a thread may log at any moment until the process ends.
    static log_file& shared_log() {
        static log_file* const log = [] {
            auto* opened = new log_file;
            const std::string path =
                ::testing::TempDir() + "nv_capture_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                "_" + std::to_string(reinterpret_cast<uintptr_t>(opened)) + ".log";
            opened->open(path.c_str(), /*truncate=*/true);
            g_log = opened;
            capture_log_path() = new std::string(path);
            return opened;
        }();
        return *log;
    }

    std::string path_;
    std::streamoff start_ = 0;
};

}  // namespace nv_test
