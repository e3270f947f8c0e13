// Files and directories for the tests of restoring quarantine archives.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
