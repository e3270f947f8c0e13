#include "mcl/mswin/text.h"

#include <windows.h>

namespace mcl::mswin {

std::wstring widen(const std::string& text) {
    const int n = MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, nullptr, 0);
    if (n <= 1) return std::wstring();
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.c_str(), -1, &wide[0], n);
    wide.resize(static_cast<size_t>(n) - 1);
    return wide;
}

}  // namespace mcl::mswin
