// The debug log's call-site side: NV_LOG formats one entry and hands it to the sink that the
// program registered (app/log.h: the log file). Code at every layer logs through this header
// without knowing where the entries go.
//
// Any thread may log. The sink is registered once, before any thread that logs exists, and is
// never changed afterwards.
#pragma once

#if defined(__MINGW32__) && defined(__MINGW_PRINTF_FORMAT)
// MinGW's C++ runtime formats with its own C99 printf (%zu, %llu), so check against that.
#define NV_PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(__MINGW_PRINTF_FORMAT, fmt_index, first_arg)))
#elif defined(__GNUC__)
#define NV_PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define NV_PRINTF_FORMAT(fmt_index, first_arg)
#endif

namespace mcl {

// Where formatted entries go.
//   ready: whether an entry would be written now; log_at formats nothing while it is false.
//   write: writes one entry (text without a line end).
struct log_sink {
    bool (*ready)();
    void (*write)(const char* text);
};

// Registers the process's sink (a pointer to an object that lives as long as the process).
void set_log_sink(const log_sink* sink);

constexpr int log_text_capacity = 2048;  // the formatting buffer: longer text is cut

// Formats "[function:line] - " and the message into a 2048-byte buffer (longer text is cut)
// and writes it to the registered sink. Does nothing while no sink is registered or the sink is
// not ready.
void log_at(const char* function, int line, const char* format, ...) NV_PRINTF_FORMAT(3, 4);

}  // namespace mcl

// The call-site pattern: NV_LOG("chelperservice::main", "Service Version: %s", version);
#define NV_LOG(function, ...) ::mcl::log_at(function, __LINE__, __VA_ARGS__)
