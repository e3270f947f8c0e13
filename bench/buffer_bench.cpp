// Appends 16 MiB in 4096-byte pieces to a binary_t and to a std::vector and prints both times.
//   buffer_bench [smoke]     smoke: 4 MiB, a quick check that the figures come out
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "mcl/buffer.h"

namespace {

template <typename F>
double best_ms(F f) {
    double best = 1e30;
    for (int round = 0; round < 5; ++round) {
        const auto start = std::chrono::steady_clock::now();
        f();
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
        if (took.count() < best) best = took.count();
    }
    return best;
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned mib = argc > 1 && strcmp(argv[1], "smoke") == 0 ? 4 : 16;
    const size_t total = mib * 1024 * 1024;
    constexpr size_t piece_size = 4096;
    std::vector<unsigned char> piece(piece_size, 0x5A);
    volatile size_t sink = 0;

    const double buffer_ms = best_ms([&] {
        mcl::binary_t b;
        for (size_t n = 0; n < total; n += piece_size) b.append(piece.data(), piece_size);
        sink = sink + b.size();
    });
    const double vector_ms = best_ms([&] {
        std::vector<unsigned char> v;
        for (size_t n = 0; n < total; n += piece_size) v.insert(v.end(), piece.begin(), piece.end());
        sink = sink + v.size();
    });
    printf("binary_t_append_%uMiB: %.2f ms\n", mib, buffer_ms);
    printf("std_vector_append_%uMiB: %.2f ms\n", mib, vector_ms);
    return sink == 0;
}
