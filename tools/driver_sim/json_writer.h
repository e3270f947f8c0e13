// The simulator's JSON spellings: the shared JSON text helpers, and bytes as hexadecimal.
#pragma once

#include <cstdint>
#include <string>

#include "tools/json_text.h"

namespace vqr::sim {

using json_text::utf16_to_utf8;
// Appends `text` (UTF-8, or UTF-16 as wchar_t) as a quoted JSON string.
inline void append_json_string(std::string& out, const std::string& text) { json_text::append_string(out, text); }
inline void append_json_string(std::string& out, const std::wstring& text) { json_text::append_string(out, text); }

// Lower-case hexadecimal of `size` bytes.
inline std::string hex_bytes(const uint8_t* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * size);
    for (size_t i = 0; i < size; ++i) {
        out.push_back(digits[data[i] >> 4]);
        out.push_back(digits[data[i] & 0xF]);
    }
    return out;
}

}  // namespace vqr::sim
