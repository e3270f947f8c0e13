// Files, archives and the archive key for the quarantine archive tests, built without the
// product's own helpers where a test checks the product against them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mcl/endian.h"

namespace nv_test {

using bytes = std::vector<unsigned char>;

inline bytes read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_file(const std::filesystem::path& path, const bytes& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

inline bytes random_bytes(size_t n, uint32_t stream) {
    std::mt19937 gen(stream);
    bytes out(n);
    for (auto& b : out) b = static_cast<unsigned char>(gen());
    return out;
}

// Text-like content that LZ4 shrinks a lot.
inline bytes compressible_bytes(size_t n) {
    bytes out(n);
    const char* words = "quarantine archive block chunk frame ";
    const size_t len = 37;
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(words[(i + i / 4096) % len]);
    return out;
}

inline uint32_t u32_at(const bytes& b, size_t at) { return mcl::load_u32_le(b.data() + at); }
inline void set_u32_at(bytes& b, size_t at, uint32_t v) { mcl::store_u32_le(b.data() + at, v); }

// The archive key and chain from the pass phrase: P = phrase and its zero byte, H = "%02X" of
// P; key = first 32 bytes of P + H, chain = first 32 bytes of H + P.
inline void archive_key_and_chain(bytes& key, bytes& chain) {
    const char phrase[] = "Kq7#Zt2!vBn9&Lx";
    const bytes p(phrase, phrase + sizeof(phrase));
    std::string h;
    char two[3];
    for (unsigned char c : p) {
        snprintf(two, sizeof(two), "%02X", c);
        h += two;
    }
    bytes hb(h.begin(), h.end());
    hb.push_back(0);
    key = p;
    key.insert(key.end(), hb.begin(), hb.end());
    chain = hb;
    chain.insert(chain.end(), p.begin(), p.end());
    key.resize(32);
    chain.resize(32);
}

// A fresh empty directory for one test.
inline std::filesystem::path fresh_dir(const std::string& name) {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::filesystem::path dir = std::filesystem::path(::testing::TempDir()) /
                                ("nv_qua_" + std::string(info != nullptr ? info->name() : "x") + "_" + name);
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

inline std::vector<std::string> list_dir(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace nv_test
