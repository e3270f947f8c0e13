// The benchmarks' clock: milliseconds from the performance counter.
#pragma once

#include <windows.h>

namespace nv_bench {

inline double now_ms() {
    static const LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return 1000.0 * static_cast<double>(t.QuadPart) / static_cast<double>(frequency.QuadPart);
}

}  // namespace nv_bench
