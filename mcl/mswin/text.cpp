#include "mcl/mswin/text.h"

#include <windows.h>

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

}  // namespace mcl::mswin
