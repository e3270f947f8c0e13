// Payload encodings: a payload is its fields in order, with no tags, lengths or alignment.
//
//   byte    1 byte          u32 / u64   4 / 8 bytes, little-endian
//   string  ANSI bytes + 00  wstring    UTF-16LE units + 00 00
//   list    u32 count, then count elements in place
//   status  byte result (1 ok, 0 failure), then a string message
//
// Writers append to a binary_t. Readers take the target, the payload and a cursor; they start
// at the cursor, advance it over what they consumed and return false, without looking past
// the payload, when a field is incomplete. Fields read before a failing one stay stored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mcl/buffer.h"

namespace mcl {

void write_byte(binary_t& out, uint8_t value);
void write_u32(binary_t& out, uint32_t value);
void write_u64(binary_t& out, uint64_t value);
void write_string(binary_t& out, const std::string& value);
void write_string(binary_t& out, const char* value);
void write_wstring(binary_t& out, const std::wstring& value);
void write_string_list(binary_t& out, const std::vector<std::string>& values);
void write_status(binary_t& out, bool ok, const std::string& message);

template <typename T, typename Writer>
void write_list(binary_t& out, const std::vector<T>& values, Writer write_element) {
    write_u32(out, static_cast<uint32_t>(values.size()));
    for (const T& v : values) write_element(out, v);
}

[[nodiscard]] bool read_byte(uint8_t& value, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_bool(bool& value, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_u32(uint32_t& value, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_u64(uint64_t& value, const binary_t& in, uint32_t& pos);
// A string whose terminator does not lie inside the payload fails.
[[nodiscard]] bool read_string(std::string& value, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_wstring(std::wstring& value, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_string_list(std::vector<std::string>& values, const binary_t& in, uint32_t& pos);
[[nodiscard]] bool read_status(bool& ok, std::string& message, const binary_t& in, uint32_t& pos);

// Most elements a list may announce. Every element takes at least one payload byte but may cost
// tens of bytes decoded (a std::string is 32), so the count is what bounds the decoded size.
constexpr uint32_t max_list_elements = 65536;

// Reads a u32 count and then that many elements with `read_element(T&, in, pos)`. A count above
// max_list_elements fails at once; the count never reserves more than the payload could hold.
template <typename T, typename Reader>
[[nodiscard]] bool read_list(std::vector<T>& values, const binary_t& in, uint32_t& pos, Reader read_element) {
    values.clear();
    uint32_t count = 0;
    if (!read_u32(count, in, pos) || count > max_list_elements) return false;
    const uint32_t remaining = in.size() - pos;
    values.reserve(count < remaining ? count : remaining);
    for (uint32_t i = 0; i < count; ++i) {
        T element{};
        if (!read_element(element, in, pos)) return false;
        values.push_back(std::move(element));
    }
    return true;
}

}  // namespace mcl
