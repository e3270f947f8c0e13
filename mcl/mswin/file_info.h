// What the system can tell about a file: description and version from its version resource
// (or the shell's display name), its icons, size and times.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

struct file_info {
    std::string path;
    std::string description;
    std::string version;
    HICON large_icon = nullptr;  // owned; destroyed with the record
    HICON small_icon = nullptr;
    uint64_t size = UINT64_MAX;  // all bits set when it cannot be read
    FILETIME creation_time{};
    FILETIME last_access_time{};
    FILETIME last_write_time{};
    bool valid = false;

    file_info() = default;
    // Reads everything it can about `file_path`; a null path gives an empty, invalid record.
    explicit file_info(const char* file_path);
    file_info(const file_info&) = delete;
    file_info& operator=(const file_info&) = delete;
    ~file_info();
};
