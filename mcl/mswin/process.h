// What several parts look up about processes and the system: a process's image path and the
// system directory. Any thread.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

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

// Why process `pid` must never be terminated: "critical to the system" (IsProcessCritical, where
// the system has it), "a protected process" (where the system can tell), or "a system process"
// (its image, `image` when not empty, else as read from the process, is lsass, csrss, wininit,
// winlogon, services or smss). Empty when none holds or the process cannot be asked.
std::string critical_process_reason(DWORD pid, const std::string& image);
// The names of the running Win32 services whose process is `pid`; empty when none or the service
// manager cannot be asked.
std::vector<std::string> services_in_process(DWORD pid);


}  // namespace mcl::mswin
