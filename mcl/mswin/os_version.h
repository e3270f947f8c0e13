// The one test of the running Windows version.
#pragma once

#include <windows.h>

namespace mcl::mswin {

// True when the running Windows is `major`.`minor` or later (6.0 Vista, 6.2 Windows 8).
inline bool is_windows_at_least(DWORD major, DWORD minor) {
    OSVERSIONINFOEXW want{};
    want.dwOSVersionInfoSize = sizeof(want);
    want.dwMajorVersion = major;
    want.dwMinorVersion = minor;
    DWORDLONG mask = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&want, VER_MAJORVERSION | VER_MINORVERSION, mask) != FALSE;
}

}  // namespace mcl::mswin
