// Which paths the service acts on as SYSTEM when a request names them: a local drive path
// ("X:\..."), and none of the folders that belong to the system or to every user.
//
// Refused, with the reason:
//   "not a local path"           anything but "X:\...": UNC ("\\host\share"), "\\?\", "\\.\",
//                                pipes, relative paths, "X:name", streams ("name:s"), wildcards,
//                                a drive that is a network drive
//   "a parent folder component"  a ".." component (or one of dots and spaces only)
//   "a device name"              a component that names a DOS device (CON, NUL, COM1, LPT1...)
//   "a drive root"               "X:\" itself
//   "a system folder"            the Windows folder, the system folders and everything under them
//   "a program root folder"      the Program Files folders and the ProgramData folder themselves
//   "a user profile folder"      the folder of the profiles and each profile folder itself (every
//                                folder directly in it, and every profile the system lists)
// The path is compared without case after "/" became "\", empty and "." components went and each
// component lost its trailing dots and spaces (as Windows itself reads it), and again as the
// existing part of it resolves (links followed, short names made long) with the rest appended.
// The system's folders come from the system (GetSystemWindowsDirectory, GetSystemDirectory, the
// known folders, the profile list), never from names written here. Any thread.
#pragma once

#include <string>

namespace mcl::mswin {

// Empty when `path` may be acted on as SYSTEM; otherwise the reason. A narrow path is ANSI.
std::string refused_path_reason(const std::string& path);
std::string refused_path_reason(const std::wstring& path);

// refused_path_reason, and when refused one log line as from `fn` naming `request`, the path
// (control characters shown as '?') and the reason. True when refused.
bool path_refused(const char* fn, const char* request, const std::string& path);
bool path_refused(const char* fn, const char* request, const std::wstring& path);

}  // namespace mcl::mswin
