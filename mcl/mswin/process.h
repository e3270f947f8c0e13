// Facts about processes and the system that several parts look up: a process's image path and
// the system directory. Any thread.
#pragma once

#include <windows.h>

#include <string>

namespace mcl::mswin {

// The Win32 path of the image of a process opened with PROCESS_QUERY_LIMITED_INFORMATION
// (QueryFullProcessImageNameA into `capacity` characters). False with GetLastError().
[[nodiscard]] bool query_process_image(HANDLE process, std::string& image, DWORD capacity = MAX_PATH);
// The same for a process id; empty when the process is gone, not ours to query or its path is
// longer than the capacity.
std::string process_image(DWORD pid, DWORD capacity = MAX_PATH);

// GetSystemDirectory without a trailing backslash, as it returns it. False (GetLastError() set,
// ERROR_BUFFER_OVERFLOW for a path of MAX_PATH characters or more) when it cannot be read.
[[nodiscard]] bool system_directory(std::string& directory);
[[nodiscard]] bool system_directory(std::wstring& directory);

// A to Z lowered and nothing else (what the C locale's tolower does), narrow or wide: names
// compared without case that must not change with the user's code page.
std::string lower_case(std::string text);
std::wstring lower_case(std::wstring text);
// Wide text lowered by the C runtime's towlower, as device paths are matched.
std::wstring lower_case_towlower(std::wstring text);

}  // namespace mcl::mswin
