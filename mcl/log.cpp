#include "mcl/log.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace mcl {

namespace {

// Set once, before any thread that logs exists (see the header); read without a lock.
const log_sink* g_sink = nullptr;

}  // namespace

void set_log_sink(const log_sink* sink) { g_sink = sink; }

void log_at(const char* function, int line, const char* format, ...) {
    const log_sink* sink = g_sink;
    if (sink == nullptr || !sink->ready()) return;
    char text[log_text_capacity];
    int prefix = snprintf(text, sizeof(text), "[%s:%d] - ", function, line);
    if (prefix < 0) return;
    if (static_cast<size_t>(prefix) < sizeof(text)) {
        va_list args;
        va_start(args, format);
        vsnprintf(text + prefix, sizeof(text) - static_cast<size_t>(prefix), format, args);
        va_end(args);
    }
    sink->write(text);
}

}  // namespace mcl
