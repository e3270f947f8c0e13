// What several parts look up about processes and the system: a process's image path and the
// system directory. Any thread.
#pragma once

#include <windows.h>

#include <string>

namespace mcl::mswin {

// The Win32 path of the image of a process opened with PROCESS_QUERY_LIMITED_INFORMATION
// (QueryFullProcessImageName into `capacity` characters), narrow or wide. False with
// GetLastError().
[[nodiscard]] bool query_process_image(HANDLE process, std::string& image, DWORD capacity = MAX_PATH);
[[nodiscard]] bool query_process_image(HANDLE process, std::wstring& image, DWORD capacity = MAX_PATH);
// The same for a process id; empty when the process is gone, not ours to query or its path is
// longer than the capacity.
std::string process_image(DWORD pid, DWORD capacity = MAX_PATH);

// GetSystemDirectory without a trailing backslash, as it returns it. False (GetLastError() set,
// ERROR_BUFFER_OVERFLOW for a path of MAX_PATH characters or more) when it cannot be read.
[[nodiscard]] bool system_directory(std::string& directory);
[[nodiscard]] bool system_directory(std::wstring& directory);


}  // namespace mcl::mswin
