// Who may change what the service protects, holds or runs: LocalSystem, members of the local
// Administrators group (a deny-only membership does not count), and the product's own programs,
// whose images lie in the service's program folder or in a folder the service protects. Asked
// once per state-changing request, of the client process behind the connection. Any thread.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

enum class caller_verdict { local_system, administrator, product_program, refused };

// The verdict for the process `process` (a handle with query rights; null when the client could
// not be opened, which is refused). `trusted_folders` are folder paths without a trailing
// backslash.
caller_verdict judge_caller(HANDLE process, const std::vector<std::wstring>& trusted_folders);

// Whether `image` (a full path) lies in `folder` or below it, compared without regard to case.
bool image_in_folder(const std::wstring& image, const std::wstring& folder);

// The folder of this process's own executable, without a trailing backslash (empty when unknown).
const std::wstring& own_program_folder();
