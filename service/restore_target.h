// Where a restore may write: the check that keeps a restore from following a junction or a
// symbolic link that replaced a folder after the file was quarantined.
#pragma once

#include <windows.h>

#include <string>

// The attributes of a path (GetFileAttributesA); a test passes its own.
using file_attributes_fn = DWORD (*)(const char* path);

// True when `target` is a local "X:\..." path without "." or ".." components, every folder on
// the way to it exists and none of them, nor the file itself, is a reparse point (junction,
// symbolic link, mount point). Any thread.
bool restore_target_is_safe(const std::string& target, file_attributes_fn attributes = nullptr);
