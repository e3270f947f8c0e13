#include "tools/driver_sim/json_writer.h"

#include <cstdio>

namespace vqr::sim {

namespace {

void append_utf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | cp >> 6));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | cp >> 12));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | cp >> 18));
        out.push_back(static_cast<char>(0x80 | (cp >> 12 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

}  // namespace

std::string utf16_to_utf8(const std::wstring& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const uint32_t unit = static_cast<uint16_t>(text[i]);
        if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < text.size()) {
            const uint32_t low = static_cast<uint16_t>(text[i + 1]);
            if (low >= 0xDC00 && low < 0xE000) {
                append_utf8(out, 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00));
                ++i;
                continue;
            }
        }
        append_utf8(out, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
    }
    return out;
}

void append_json_string(std::string& out, const std::string& text) {
    out.push_back('"');
    for (const char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char esc[8];
                    snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned>(c));
                    out += esc;
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
}

void append_json_string(std::string& out, const std::wstring& text) {
    append_json_string(out, utf16_to_utf8(text));
}

std::string hex_bytes(const uint8_t* data, size_t size) {
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
