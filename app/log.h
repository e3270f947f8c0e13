// The process-wide debug log: one plain-text file beside the executable.
//
// The program entry opens it once, on the main thread, before any other thread exists, and
// then sets g_log; NV_LOG (mcl/log.h) writes here from then on. Any thread may log afterwards;
// every entry is written with one formatted write and one flush, under the log's lock. A file
// that grows past 16 MiB while the process runs is renamed to the previous log (replacing the
// one before) and a fresh file started, so the log never holds more than twice the limit.
#pragma once

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "mcl/log.h"

class log_file {
public:
    static constexpr size_t max_path = 260;
    static constexpr uint64_t size_limit = 0x1000000;  // 16 MiB: a larger file starts afresh

    log_file() = default;
    log_file(const log_file&) = delete;
    log_file& operator=(const log_file&) = delete;
    ~log_file();

    // Opens (truncate: "w+t", else "a+t") with sharing that denies nothing, and writes the
    // start header. On Windows the file is written through a handle that may only append, so
    // entries of several processes logging at once never overwrite one another. False for a
    // null path, a path over 260 characters or a failed open.
    bool open(const char* path, bool truncate);
    // Writes one entry with the local date and time; false when no file is open. Past the size
    // limit, the file becomes previous_path() and a new one is opened with its header.
    bool write(const char* text);
    void close();

    bool is_open() const { return stream_ != nullptr; }
    const std::string& path() const { return path_; }
    // Where the log's previous file goes: the path with ".1" appended.
    std::string previous_path() const { return path_ + ".1"; }

private:
    bool open_locked(const char* path, bool truncate);
    void close_locked();
    bool past_limit() const;
    void roll();

    std::mutex lock_;       // one entry, or a roll, at a time
    FILE* stream_ = nullptr;
    std::string path_;
};

// Null until the program entry has called open; then the one instance, whether or not the
// open succeeded. Never cleared.
extern log_file* g_log;

// The one log instance of the process.
log_file& the_log();

// Whether a log at `path` should be emptied rather than appended to: missing, unreadable or
// larger than 16 MiB.
bool log_needs_truncate(const char* path);
