#include "mcl/mswin/text.h"

#include <windows.h>

#include <cwctype>

namespace mcl::mswin {

namespace {

std::wstring to_wide(UINT code_page, const std::string& text) {
    const int n = MultiByteToWideChar(code_page, 0, text.c_str(), -1, nullptr, 0);
    if (n <= 1) return std::wstring();
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(code_page, 0, text.c_str(), -1, &wide[0], n);
    wide.resize(static_cast<size_t>(n) - 1);
    return wide;
}

}  // namespace

std::wstring widen(const std::string& text) { return to_wide(CP_ACP, text); }

std::wstring from_utf8(const std::string& text) { return to_wide(CP_UTF8, text); }

std::string to_utf8(const std::wstring& text) {
    if (text.empty()) return {};
    const int n = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    if (n <= 0) return {};
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
    return out;
}

namespace {

template <typename Char>
std::basic_string<Char> lower_ascii(std::basic_string<Char> text) {
    for (Char& c : text)
        if (c >= Char('A') && c <= Char('Z')) c = static_cast<Char>(c - Char('A') + Char('a'));
    return text;
}

}  // namespace

std::string lower_case(std::string text) { return lower_ascii(std::move(text)); }
std::wstring lower_case(std::wstring text) { return lower_ascii(std::move(text)); }

std::wstring lower_case_towlower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

}  // namespace mcl::mswin
