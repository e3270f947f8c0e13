// A few helpers that write JSON text by hand: the simulator's state and journal are small and
// flat, and a library would be more code than the output.
#pragma once

#include <cstdint>
#include <string>

namespace vqr::sim {

// UTF-16 units (one per wchar_t) to UTF-8; a lone surrogate becomes U+FFFD.
std::string utf16_to_utf8(const std::wstring& text);
// Appends `text` (UTF-8) as a quoted JSON string.
void append_json_string(std::string& out, const std::string& text);
void append_json_string(std::string& out, const std::wstring& text);
// Lower-case hexadecimal of `size` bytes.
std::string hex_bytes(const uint8_t* data, size_t size);

}  // namespace vqr::sim
