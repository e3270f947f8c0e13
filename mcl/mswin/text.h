// Text as the Windows calls take it: the system's ANSI code page or UTF-8, made wide, and wide
// text made UTF-8.
#pragma once

#include <string>

namespace mcl::mswin {

// The ANSI text as UTF-16; empty when the text is empty or cannot be converted.
std::wstring widen(const std::string& text);
// UTF-8 text as UTF-16, and UTF-16 text as UTF-8; empty when empty or not convertible.
std::wstring from_utf8(const std::string& text);
std::string to_utf8(const std::wstring& text);

// A to Z lowered and nothing else (what the C locale's tolower does), narrow or wide: names
// compared without case that must not change with the user's code page.
std::string lower_case(std::string text);
std::wstring lower_case(std::wstring text);
// Wide text lowered by the C runtime's towlower, as device paths are matched.
std::wstring lower_case_towlower(std::wstring text);

// Whether the path starts with a drive: an ASCII letter, a colon and a backslash ("X:\...").
template <typename Char>
bool has_drive_prefix(const std::basic_string<Char>& path) {
    const Char c = path.size() >= 3 ? path[0] : Char('?');
    const bool letter = (c >= Char('A') && c <= Char('Z')) || (c >= Char('a') && c <= Char('z'));
    return letter && path[1] == Char(':') && path[2] == Char('\\');
}

}  // namespace mcl::mswin
