// Where a restore may write: the checks that keep a restore from following a junction or a
// symbolic link that replaced a folder after the file was quarantined.
#pragma once

#include <windows.h>

#include <string>

#include "mcl/mswin/unique_handle.h"
#include "quarantine/file_archive.h"

// The attributes of a path (GetFileAttributesA); a test passes its own.
using file_attributes_fn = DWORD (*)(const char* path);

// True when `target` is a local "X:\..." path without "." or ".." components, every folder on
// the way to it exists and none of them, nor the file itself, is a reparse point (junction,
// symbolic link, mount point). Any thread.
bool restore_target_is_safe(const std::string& target, file_attributes_fn attributes = nullptr);

// The folder a restore writes into, held from the check to the rename. open() checks the
// target's path, then opens its folder once without following a link and without delete
// sharing, so that nobody can rename, remove or replace the folder (or one above it) while the
// restore writes; the folder must not be a reparse point and its final path must be the folder
// the target names. confirm() checks that the written temporary's final path lies in that
// folder, and keeps the temporary open without write sharing until the restore is over. Each
// refusal is logged. One restore, on the thread that runs it.
class restore_folder : public restore_destination {
public:
    // The final path of an open file or folder (GetFinalPathNameByHandleW, "\\?\C:\..."); a
    // test passes its own to show what a link swapped in would report.
    using final_path_fn = bool (*)(HANDLE handle, std::wstring& path);

    explicit restore_folder(final_path_fn final_path = nullptr);
    bool open(const std::string& target) override;
    bool confirm(const std::string& temp) override;

private:
    final_path_fn final_path_;
    mcl::mswin::unique_kernel_handle folder_;
    mcl::mswin::unique_kernel_handle temp_;
    std::wstring folder_path_;  // final path of the held folder, without a trailing backslash
};
