#include "mcl/encoding.h"

#include <cstdio>

namespace mcl {

namespace {

void write_le(binary_t& out, uint64_t value, uint32_t width) {
    unsigned char bytes[8];
    for (uint32_t i = 0; i < width; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    out.append(bytes, width);
}

bool read_le(uint64_t& value, uint32_t width, const binary_t& in, uint32_t& pos) {
    if (static_cast<uint64_t>(pos) + width > in.size()) return false;
    uint64_t v = 0;
    for (uint32_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(in.data()[pos + i]) << (8 * i);
    value = v;
    pos += width;
    return true;
}

}  // namespace

void write_byte(binary_t& out, uint8_t value) { out.append(&value, 1); }
void write_u32(binary_t& out, uint32_t value) { write_le(out, value, 4); }
void write_u64(binary_t& out, uint64_t value) { write_le(out, value, 8); }

void write_string(binary_t& out, const std::string& value) {
    out.append(reinterpret_cast<const unsigned char*>(value.c_str()), static_cast<uint32_t>(value.size()) + 1);
}

void write_string(binary_t& out, const char* value) { write_string(out, std::string(value == nullptr ? "" : value)); }

void write_wstring(binary_t& out, const std::wstring& value) {
    // UTF-16 code units, whatever the width of wchar_t on this platform.
    binary_t units;
    for (wchar_t c : value) write_le(units, static_cast<uint16_t>(c), 2);
    write_le(units, 0, 2);
    out.append(units);
}

void write_string_list(binary_t& out, const std::vector<std::string>& values) {
    write_list(out, values, [](binary_t& o, const std::string& s) { write_string(o, s); });
}

void write_status(binary_t& out, bool ok, const std::string& message) {
    write_byte(out, ok ? 1 : 0);
    write_string(out, message);
}

bool read_byte(uint8_t& value, const binary_t& in, uint32_t& pos) {
    uint64_t v = 0;
    if (!read_le(v, 1, in, pos)) return false;
    value = static_cast<uint8_t>(v);
    return true;
}

bool read_bool(bool& value, const binary_t& in, uint32_t& pos) {
    uint8_t b = 0;
    if (!read_byte(b, in, pos)) return false;
    value = b != 0;
    return true;
}

bool read_u32(uint32_t& value, const binary_t& in, uint32_t& pos) {
    uint64_t v = 0;
    if (!read_le(v, 4, in, pos)) return false;
    value = static_cast<uint32_t>(v);
    return true;
}

bool read_u64(uint64_t& value, const binary_t& in, uint32_t& pos) { return read_le(value, 8, in, pos); }

bool read_string(std::string& value, const binary_t& in, uint32_t& pos) {
    if (pos >= in.size()) return false;
    const unsigned char* begin = in.data() + pos;
    const void* end = memchr(begin, 0, in.size() - pos);
    if (end == nullptr) return false;
    const size_t length = static_cast<size_t>(static_cast<const unsigned char*>(end) - begin);
    value.assign(reinterpret_cast<const char*>(begin), length);
    pos += static_cast<uint32_t>(length) + 1;
    return true;
}

bool read_wstring(std::wstring& value, const binary_t& in, uint32_t& pos) {
    if (pos >= in.size()) return false;
    std::wstring text;
    for (uint64_t at = pos; at + 2 <= in.size(); at += 2) {
        const uint16_t unit = static_cast<uint16_t>(in.data()[at] | (in.data()[at + 1] << 8));
        if (unit == 0) {
            value = std::move(text);
            pos = static_cast<uint32_t>(at + 2);
            return true;
        }
        text.push_back(static_cast<wchar_t>(unit));
    }
    return false;
}

bool read_string_list(std::vector<std::string>& values, const binary_t& in, uint32_t& pos) {
    return read_list(values, in, pos, [](std::string& s, const binary_t& b, uint32_t& p) { return read_string(s, b, p); });
}

bool read_status(bool& ok, std::string& message, const binary_t& in, uint32_t& pos) {
    return read_bool(ok, in, pos) && read_string(message, in, pos);
}

string_t to_hex(const binary_t& bytes) {
    string_t text;
    for (uint32_t i = 0; i < bytes.size(); ++i) {
        char pair[3];
        snprintf(pair, sizeof(pair), "%02X", bytes.data()[i]);
        text.append(pair);
    }
    return text;
}

}  // namespace mcl
