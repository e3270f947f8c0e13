// The one test of the running Windows version.
#pragma once

#include <windows.h>

namespace mcl::mswin {

// True when the running Windows is `major`.`minor` (service pack 0) or later (6.0 Vista,
// 6.2 Windows 8, 6.3 Windows 8.1), as VerifyVersionInfoW answers it. From 8.1 on the answer
// depends on the program's manifest listing that system.
inline bool is_windows_at_least(DWORD major, DWORD minor) {
    OSVERSIONINFOEXW want{};
    want.dwOSVersionInfoSize = sizeof(want);
    want.dwMajorVersion = major;
    want.dwMinorVersion = minor;
    want.wServicePackMajor = 0;
    DWORDLONG mask = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    mask = VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&want, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

}  // namespace mcl::mswin
