#include "app/log.h"

#include <cstring>
#include <ctime>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <sys/stat.h>
#endif

log_file* g_log = nullptr;

namespace {

// NV_LOG writes to g_log once the program has set it. Registered while this file's statics are
// initialised: whatever can set g_log links this file, so no log can open without the sink.
bool log_ready() { return g_log != nullptr; }
void log_write(const char* text) {
    log_file* log = g_log;
    if (log != nullptr) log->write(text);
}
const mcl::log_sink g_log_sink = {&log_ready, &log_write};
const bool g_log_sink_registered = (mcl::set_log_sink(&g_log_sink), true);

struct local_time {
    int year, month, day, hour, minute, second;
};

local_time now_local() {
#if defined(_WIN32)
    SYSTEMTIME st;
    GetLocalTime(&st);
    return {st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond};
#else
    time_t t = time(nullptr);
    struct tm tm_now;
    localtime_r(&t, &tm_now);
    return {tm_now.tm_year + 1900, tm_now.tm_mon + 1, tm_now.tm_mday,
            tm_now.tm_hour, tm_now.tm_min, tm_now.tm_sec};
#endif
}

// Opens the log denying nothing to other processes: mode "w+t" (create or empty) when truncate is
// set, else "a+t" (create or append). The service and console runs of the program append to the one
// file at once, each through its own open file. The C runtime's append mode seeks to the end and
// then writes, so two processes can write over each other's entries; through a handle that may
// only append (no FILE_WRITE_DATA) the system puts each write at the end in one piece.
FILE* open_shared(const char* path, bool truncate) {
#if defined(_WIN32)
    const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    if (truncate) {
        HANDLE emptied = CreateFileA(path, GENERIC_WRITE, share, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (emptied == INVALID_HANDLE_VALUE) return nullptr;
        CloseHandle(emptied);
    }
    HANDLE file = CreateFileA(path, FILE_GENERIC_READ | FILE_APPEND_DATA, share, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return nullptr;
    // The descriptor owns the handle from here; the stream owns the descriptor.
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(file), _O_APPEND | _O_TEXT);
    if (fd == -1) {
        CloseHandle(file);
        return nullptr;
    }
    FILE* stream = _fdopen(fd, "a+t");
    if (stream == nullptr) _close(fd);
    return stream;
#else
    return fopen(path, truncate ? "w+t" : "a+t");
#endif
}

}  // namespace

log_file& the_log() {
    static log_file instance;
    return instance;
}

log_file::~log_file() { close(); }

void log_file::close() {
    std::lock_guard<std::mutex> guard(lock_);
    close_locked();
}

void log_file::close_locked() {
    if (stream_ != nullptr) {
        fclose(stream_);
        stream_ = nullptr;
    }
}

bool log_file::open(const char* path, bool truncate) {
    std::lock_guard<std::mutex> guard(lock_);
    return open_locked(path, truncate);
}

bool log_file::open_locked(const char* path, bool truncate) {
    if (path == nullptr || strlen(path) > max_path) return false;
    path_ = path;
    close_locked();
    stream_ = open_shared(path, truncate);
    if (stream_ == nullptr) return false;
    const local_time t = now_local();
    fprintf(stream_, "\n===========================%04d/%02d/%02d %02d:%02d:%02d=========================\n",
            t.year, t.month, t.day, t.hour, t.minute, t.second);
    fflush(stream_);
    return true;
}

bool log_file::write(const char* text) {
    std::lock_guard<std::mutex> guard(lock_);
    if (stream_ == nullptr) return false;
    const local_time t = now_local();
    const int written = fprintf(stream_, "%04d/%02d/%02d %02d:%02d:%02d, %s\n", t.year, t.month, t.day,
                                t.hour, t.minute, t.second, text);
    fflush(stream_);
    if (past_limit()) roll();
    return written > 0;
}

bool log_file::past_limit() const {
    // The file's own size: another process appending to it counts too.
#if defined(_WIN32)
    LARGE_INTEGER size{};
    const HANDLE file = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream_)));
    return file != INVALID_HANDLE_VALUE && GetFileSizeEx(file, &size) &&
           static_cast<uint64_t>(size.QuadPart) > size_limit;
#else
    struct stat st;
    return fstat(fileno(stream_), &st) == 0 && static_cast<uint64_t>(st.st_size) > size_limit;
#endif
}

void log_file::roll() {
    const std::string path = path_;
    const std::string previous = previous_path();
    close_locked();
    // Renamed when it can be; otherwise emptied, so that the log stays bounded either way.
#if defined(_WIN32)
    (void)MoveFileExA(path.c_str(), previous.c_str(), MOVEFILE_REPLACE_EXISTING);
#else
    (void)rename(path.c_str(), previous.c_str());
#endif
    (void)open_locked(path.c_str(), /*truncate=*/true);
}

bool log_needs_truncate(const char* path) {
#if defined(_WIN32)
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (!GetFileAttributesExA(path, GetFileExInfoStandard, &data)) return true;
    if (data.nFileSizeHigh != 0) return true;
    return data.nFileSizeLow > log_file::size_limit;
#else
    struct stat st;
    if (stat(path, &st) != 0) return true;
    return static_cast<uint64_t>(st.st_size) > log_file::size_limit;
#endif
}
