// JSON text written by hand, shared by the tools that print JSON (halvernctl, the driver
// simulator and driver_ctl): their documents are small and flat, and a library would be more
// code than the output. Plain C++, so it also builds natively.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace json_text {

// Appends code point `cp` as UTF-8.
inline void append_utf8(std::string& out, uint32_t cp) {
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

// UTF-16 units (one per wchar_t) to UTF-8; a lone surrogate becomes U+FFFD.
inline std::string utf16_to_utf8(const std::wstring& text) {
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

// Appends `utf8` as a quoted JSON string.
inline void append_string(std::string& out, const std::string& utf8) {
    out.push_back('"');
    for (const char c : utf8) {
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

inline void append_string(std::string& out, const std::wstring& text) { append_string(out, utf16_to_utf8(text)); }

}  // namespace json_text
