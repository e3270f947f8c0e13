// Little-endian loads and stores of fixed-width integers in byte arrays: the one place the
// archive format, the driver messages and the archive reader take them from.
#pragma once

#include <cstdint>

namespace mcl {

inline uint32_t load_u32_le(const unsigned char* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}
inline void store_u32_le(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline uint64_t load_u64_le(const unsigned char* p) {
    return uint64_t{load_u32_le(p)} | (uint64_t{load_u32_le(p + 4)} << 32);
}
inline void store_u64_le(unsigned char* p, uint64_t v) {
    store_u32_le(p, static_cast<uint32_t>(v));
    store_u32_le(p + 4, static_cast<uint32_t>(v >> 32));
}

}  // namespace mcl
