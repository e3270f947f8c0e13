// What a quarantine may take and where a restore may write: the checks that keep both from
// following a junction or a symbolic link that replaced a folder, before or during the work.
#pragma once

#include <windows.h>

#include <string>

#include "mcl/file.h"
#include "mcl/mswin/unique_handle.h"
#include "quarantine/file_archive.h"

// The attributes of a path (GetFileAttributesA); a test passes its own.
using file_attributes_fn = DWORD (*)(const char* path);

// The final path of an open file or folder (GetFinalPathNameByHandleW, "\\?\C:\..."); a test
// passes its own to show what a link swapped in would report.
using final_path_fn = bool (*)(HANDLE handle, std::wstring& path);

// True when `target` is a local "X:\..." path without "." or ".." components, every folder on
// the way to it exists and none of them, nor the file itself, is a reparse point (junction,
// symbolic link, mount point). Any thread.
bool restore_target_is_safe(const std::string& target, file_attributes_fn attributes = nullptr);

// A file to quarantine, opened once and used through that handle only: its DACL is read and
// written, its content archived and the file deleted through it, so that a folder swapped for a
// link meanwhile changes nothing outside. One quarantine, on the thread that runs it.
class quarantine_source {
public:
    explicit quarantine_source(final_path_fn final_path = nullptr);

    // Opens `path` without following a link, for reading, its DACL and deleting, sharing no
    // delete. Refused (logged) when the path fails restore_target_is_safe, when the file is a
    // folder, a reparse point or has other names (hard links), or when its final path is not
    // the one asked for. False leaves nothing open.
    bool open(const std::string& path);
    // After a false open(): whether the file was refused for what it or its path is, rather than
    // not opened at all.
    bool refused() const { return refused_; }
    HANDLE get() const { return file_.get(); }
    // A stream reading the file from its start, on a handle of its own; null when none can be made.
    mcl::unique_file stream() const;
    // Deletes the file through the held handle, its read-only attribute cleared first, provided
    // the path still names this file. False (logged): the file stays, its attributes as they were.
    bool remove();

private:
    bool still_named() const;

    final_path_fn final_path_;
    mcl::mswin::unique_kernel_handle file_;
    std::string path_;
    bool refused_ = false;
};

// The folder a restore writes into, held from the check to the rename. open() checks the
// target's path, then opens its folder once without following a link and without delete
// sharing, so that nobody can rename, remove or replace the folder (or one above it) while the
// restore writes; the folder must not be a reparse point and its final path must be the folder
// the target names. create() makes the temporary as a new file relative to the held folder
// (never an existing file or a link) and holds it without write sharing until the restore is over; confirm() checks that its
// final path lies in the held folder; place() renames it through its handle to the target or,
// when something is there, to the first free "name (restored).ext", "name (restored 2).ext",
// ... beside it, never replacing a file; discard() deletes it through its handle. Each refusal
// is logged. One restore, on the thread that runs it.
class restore_folder : public restore_destination {
public:
    explicit restore_folder(final_path_fn final_path = nullptr);
    bool open(const std::string& target) override;
    mcl::unique_file create(const std::string& temp) override;
    bool confirm(const std::string& temp) override;
    bool place(const std::string& temp, const std::string& target, std::string& placed) override;
    void discard(const std::string& temp) override;

private:
    final_path_fn final_path_;
    mcl::mswin::unique_kernel_handle folder_;
    mcl::mswin::unique_kernel_handle temp_;
    std::wstring folder_path_;  // final path of the held folder, without a trailing backslash
};

// The name a restored file takes when `attempt` names are taken: the name itself (attempt 0),
// then "name (restored).ext", "name (restored 2).ext", ... for a file name "name.ext".
std::string restored_name(const std::string& name, unsigned attempt);
