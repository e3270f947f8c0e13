#include "quarantine/restore_target.h"

#include <fcntl.h>
#include <io.h>
#include <winternl.h>

#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/text.h"

namespace {

constexpr const char* fn = "chelperservice::restore_quarantine_files";
constexpr const char* add_fn = "chelperservice::add_quarantine_files";

DWORD system_attributes(const char* path) { return GetFileAttributesA(path); }

bool system_final_path(HANDLE handle, std::wstring& path) {
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = GetFinalPathNameByHandleW(handle, &buffer[0], static_cast<DWORD>(buffer.size()),
                                                  FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (n == 0) return false;
        if (n < buffer.size()) {
            path.assign(buffer.c_str(), n);
            return true;
        }
        buffer.resize(n + 1);
    }
}

bool is_drive_path(const std::string& path) { return path.size() > 3 && mcl::mswin::has_drive_prefix(path); }

bool same_path(const std::wstring& a, const std::wstring& b) {
    return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                /*bIgnoreCase=*/TRUE) == CSTR_EQUAL;
}

std::wstring without_trailing_slash(std::wstring path) {
    if (!path.empty() && path.back() == L'\\') path.pop_back();
    return path;
}

// The long form of a folder path as "\\?\X:\...", how a final path names it; links are not
// resolved here, so a folder that is a link keeps its own name.
std::wstring expected_final_path(const std::string& folder) {
    const std::wstring wide = mcl::mswin::widen(folder);
    std::wstring full(MAX_PATH, L'\0');
    DWORD n = GetLongPathNameW(wide.c_str(), &full[0], static_cast<DWORD>(full.size()));
    if (n >= full.size()) {
        full.resize(n + 1);
        n = GetLongPathNameW(wide.c_str(), &full[0], static_cast<DWORD>(full.size()));
    }
    full = (n == 0 || n >= full.size()) ? wide : full.substr(0, n);
    return L"\\\\?\\" + without_trailing_slash(full);
}

// A C stream on a duplicate of `handle` (closing the stream leaves `handle` open); both share
// the file position.
mcl::unique_file stream_of(HANDLE handle, int flags, const char* mode) {
    HANDLE duplicate = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &duplicate, 0, FALSE,
                         DUPLICATE_SAME_ACCESS))
        return nullptr;
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(duplicate), flags | _O_BINARY);
    if (fd == -1) {
        CloseHandle(duplicate);
        return nullptr;
    }
    FILE* stream = _fdopen(fd, mode);
    if (stream == nullptr) _close(fd);
    return mcl::unique_file(stream);
}

// Creates `name` as a new file in the open folder `folder` (NtCreateFile relative to it), so that
// no path is resolved again: neither the folder's nor a link planted at the name. The file is
// opened for reading, writing and deleting, shared for reading only. The Win32 code.
DWORD create_new_in(HANDLE folder, const std::wstring& name, mcl::mswin::unique_kernel_handle& file) {
    using create_fn = NTSTATUS(NTAPI*)(PHANDLE, ACCESS_MASK, POBJECT_ATTRIBUTES, PIO_STATUS_BLOCK, PLARGE_INTEGER,
                                       ULONG, ULONG, ULONG, ULONG, PVOID, ULONG);
    using status_fn = ULONG(NTAPI*)(NTSTATUS);
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll == nullptr) return GetLastError();
    const auto create = reinterpret_cast<create_fn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "NtCreateFile")));
    const auto win32_code =
        reinterpret_cast<status_fn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlNtStatusToDosError")));
    if (create == nullptr || win32_code == nullptr) return ERROR_PROC_NOT_FOUND;
    UNICODE_STRING text{};
    text.Buffer = const_cast<wchar_t*>(name.c_str());
    text.Length = text.MaximumLength = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, folder, nullptr);
    IO_STATUS_BLOCK io{};
    HANDLE raw = nullptr;
    const NTSTATUS status =
        create(&raw, GENERIC_READ | GENERIC_WRITE | DELETE | SYNCHRONIZE, &attributes, &io, /*AllocationSize=*/nullptr,
               FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_CREATE,
               FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT | FILE_OPEN_REPARSE_POINT, /*EaBuffer=*/nullptr, 0);
    if (status < 0) return win32_code(status);
    file.reset(raw);
    return ERROR_SUCCESS;
}

// Marks an open file (opened with DELETE) for deletion when its last handle closes. The Win32 code.
DWORD delete_on_close(HANDLE file) {
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = TRUE;
    return SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition)) ? ERROR_SUCCESS
                                                                                                   : GetLastError();
}

// Renames an open file (opened with DELETE) to the full path `to`, never replacing what is there.
// The Win32 code.
DWORD rename_open_file(HANDLE file, const std::wstring& to) {
    const std::wstring name = L"\\??\\" + to;
    const size_t bytes = name.size() * sizeof(wchar_t);
    std::vector<unsigned char> buffer(sizeof(FILE_RENAME_INFO) + bytes);
    auto* info = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    info->ReplaceIfExists = FALSE;
    info->RootDirectory = nullptr;
    info->FileNameLength = static_cast<DWORD>(bytes);
    memcpy(info->FileName, name.c_str(), bytes);
    return SetFileInformationByHandle(file, FileRenameInfo, info, static_cast<DWORD>(buffer.size())) ? ERROR_SUCCESS
                                                                                                     : GetLastError();
}

bool same_file(const BY_HANDLE_FILE_INFORMATION& a, const BY_HANDLE_FILE_INFORMATION& b) {
    return a.dwVolumeSerialNumber == b.dwVolumeSerialNumber && a.nFileIndexHigh == b.nFileIndexHigh &&
           a.nFileIndexLow == b.nFileIndexLow;
}

}  // namespace

bool restore_target_is_safe(const std::string& target, file_attributes_fn attributes) {
    if (attributes == nullptr) attributes = system_attributes;
    if (!is_drive_path(target) || target.find('/') != std::string::npos) return false;
    size_t start = 3;
    for (;;) {
        const size_t end = target.find('\\', start);
        const std::string part = target.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (part.empty() || part == "." || part == "..") return false;
        const std::string prefix = target.substr(0, end);
        const DWORD attrs = attributes(prefix.c_str());
        if (end == std::string::npos) {
            // The file itself may be missing; if it is there, it must not be a link either.
            return attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
        }
        if (attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
            (attrs & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            return false;
        start = end + 1;
    }
}

restore_folder::restore_folder(final_path_fn final_path)
    : final_path_(final_path != nullptr ? final_path : system_final_path) {}

bool restore_folder::open(const std::string& target) {
    if (!restore_target_is_safe(target)) {
        NV_LOG(fn, "Restore refused, the folder of %s is a link or not a local path; the archive is kept.",
               target.c_str());
        return false;
    }
    std::string folder = target.substr(0, target.rfind('\\'));
    if (folder.size() == 2) folder += '\\';  // a file at the drive root
    // No delete sharing: while this handle is open the folder cannot be renamed or removed, nor
    // can a folder above it, so the path keeps naming this very folder. Sharing binds only a
    // handle with data access, hence the read access.
    folder_.reset(CreateFileW(mcl::mswin::widen(folder).c_str(), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!folder_) {
        NV_LOG(fn, "Restore refused, unable to hold the folder of %s, error: %d; the archive is kept.", target.c_str(),
               static_cast<int>(GetLastError()));
        return false;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    std::wstring held;
    const bool read = GetFileInformationByHandle(folder_.get(), &info) && final_path_(folder_.get(), held);
    held = without_trailing_slash(held);
    if (!read || (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || !same_path(held, expected_final_path(folder))) {
        NV_LOG(fn, "Restore refused, the folder of %s is a link or not a local path; the archive is kept.",
               target.c_str());
        folder_.reset();
        return false;
    }
    folder_path_ = held;
    return true;
}

mcl::unique_file restore_folder::create(const std::string& temp) {
    // A new file only, in the held folder: an existing name, a planted hard link or a link among
    // them, is never opened, let alone truncated.
    const DWORD err =
        folder_ ? create_new_in(folder_.get(), mcl::mswin::widen(temp.substr(temp.rfind('\\') + 1)), temp_)
                : static_cast<DWORD>(ERROR_INVALID_HANDLE);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "Restore refused, unable to create %s, error: %d; the archive is kept.", temp.c_str(),
               static_cast<int>(err));
        return nullptr;
    }
    mcl::unique_file stream = stream_of(temp_.get(), _O_WRONLY, "wb");
    if (!stream) discard(temp);
    return stream;
}

bool restore_folder::confirm(const std::string& temp) {
    // The held handle, created without write sharing: what was checked is what goes in place.
    std::wstring path;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool read = temp_ && GetFileInformationByHandle(temp_.get(), &info) && final_path_(temp_.get(), path);
    const size_t slash = path.rfind(L'\\');
    if (!folder_ || !read || (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
        slash == std::wstring::npos || !same_path(path.substr(0, slash), folder_path_)) {
        NV_LOG(fn, "Restore refused, %s is not in the folder that was checked; the archive is kept.", temp.c_str());
        return false;
    }
    return true;
}

bool restore_folder::place(const std::string& temp, const std::string& target, std::string& placed) {
    const size_t slash = target.rfind('\\');
    const std::string folder = target.substr(0, slash + 1);
    const std::string name = target.substr(slash + 1);
    for (unsigned attempt = 0; attempt < 10000; ++attempt) {
        const std::string candidate_name = restored_name(name, attempt);
        const std::string candidate = folder + candidate_name;
        const std::wstring wide = mcl::mswin::widen(candidate);
        if (GetFileAttributesW(wide.c_str()) != INVALID_FILE_ATTRIBUTES) continue;
        const DWORD err = rename_open_file(temp_.get(), wide);
        if (err == ERROR_ALREADY_EXISTS || err == ERROR_FILE_EXISTS) continue;  // taken meanwhile
        if (err != ERROR_SUCCESS) {
            NV_LOG(fn, "Failed to rename <%s> to <%s>, error: %d; the archive is kept.", temp.c_str(), candidate.c_str(),
                   static_cast<int>(err));
            return false;
        }
        // Verified in place: the file the restore wrote now has the new name in the held folder.
        std::wstring now;
        if (!final_path_(temp_.get(), now) || !same_path(now, folder_path_ + L"\\" + mcl::mswin::widen(candidate_name))) {
            NV_LOG(fn, "Restore refused, %s is not where it was put; the archive is kept.", candidate.c_str());
            return false;
        }
        if (attempt != 0)
            NV_LOG(fn, "%s exists; the restored file is %s.", target.c_str(), candidate.c_str());
        temp_.reset();
        placed = candidate;
        return true;
    }
    NV_LOG(fn, "No free name beside %s; the archive is kept.", target.c_str());
    return false;
}

void restore_folder::discard(const std::string& temp) {
    if (!temp_) return;
    const DWORD err = delete_on_close(temp_.get());
    if (err != ERROR_SUCCESS)
        NV_LOG(fn, "Unable to remove %s, error: %d", temp.c_str(), static_cast<int>(err));
    temp_.reset();
}

std::string restored_name(const std::string& name, unsigned attempt) {
    if (attempt == 0) return name;
    const size_t dot = name.rfind('.');
    const size_t split = dot == std::string::npos || dot == 0 ? name.size() : dot;
    const std::string mark = attempt == 1 ? " (restored)" : " (restored " + std::to_string(attempt) + ")";
    return name.substr(0, split) + mark + name.substr(split);
}

quarantine_source::quarantine_source(final_path_fn final_path)
    : final_path_(final_path != nullptr ? final_path : system_final_path) {}

bool quarantine_source::open(const std::string& path) {
    path_ = path;
    refused_ = true;
    if (!restore_target_is_safe(path)) {
        NV_LOG(add_fn, "Quarantine refused, %s is not a local path, or a folder on its way is missing or a link; the file stays.",
               path.c_str());
        return false;
    }
    // Read sharing as before (a reader or writer elsewhere does not stop the quarantine), but no
    // delete sharing: nobody renames or deletes the file while it is archived.
    file_.reset(CreateFileW(mcl::mswin::widen(path).c_str(), GENERIC_READ | DELETE | READ_CONTROL | WRITE_DAC |
                                                                 FILE_WRITE_ATTRIBUTES,
                            FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                            FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN,
                            nullptr));
    if (!file_) {
        // The line the archive code wrote when it opened the source itself.
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to open the source file <%s>\n", path.c_str());
        refused_ = false;
        return false;
    }
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(file_.get(), &info) ||
        (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0 ||
        info.nNumberOfLinks != 1) {
        // A file with other names would keep the DACL the quarantine gives it under those names.
        NV_LOG(add_fn, "Quarantine refused, %s is a folder, a link or a file with other names; the file stays.",
               path.c_str());
        file_.reset();
        return false;
    }
    std::wstring final_path;
    if (!final_path_(file_.get(), final_path) || !same_path(final_path, expected_final_path(path))) {
        NV_LOG(add_fn, "Quarantine refused, the path of %s leads elsewhere (%ls); the file stays.", path.c_str(),
               final_path.c_str());
        file_.reset();
        return false;
    }
    refused_ = false;
    return true;
}

mcl::unique_file quarantine_source::stream() const { return stream_of(file_.get(), _O_RDONLY, "rb"); }

bool quarantine_source::still_named() const {
    if (!restore_target_is_safe(path_)) return false;
    mcl::mswin::unique_kernel_handle named(CreateFileW(mcl::mswin::widen(path_).c_str(), FILE_READ_ATTRIBUTES,
                                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                       OPEN_EXISTING,
                                                       FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS,
                                                       nullptr));
    BY_HANDLE_FILE_INFORMATION held{}, now{};
    return named && GetFileInformationByHandle(file_.get(), &held) && GetFileInformationByHandle(named.get(), &now) &&
           same_file(held, now);
}

bool quarantine_source::remove() {
    // The delete acts on the held file whatever the path names; the path is checked anyway, so
    // that no file system that deletes by name can be steered to another file.
    if (!still_named()) {
        NV_LOG(add_fn, "Failed to delete original file <%s>, its path no longer names the archived file; it stays.",
               path_.c_str());
        return false;
    }
    FILE_BASIC_INFO before{};
    if (!GetFileInformationByHandleEx(file_.get(), FileBasicInfo, &before, sizeof(before))) {
        NV_LOG(add_fn, "Failed to delete original file <%s>, error: %d; it stays.", path_.c_str(),
               static_cast<int>(GetLastError()));
        return false;
    }
    const bool read_only = (before.FileAttributes & FILE_ATTRIBUTE_READONLY) != 0;
    if (read_only) {
        // Zero times stay as they are: only the attributes change.
        FILE_BASIC_INFO writable{};
        writable.FileAttributes = before.FileAttributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY);
        if (writable.FileAttributes == 0) writable.FileAttributes = FILE_ATTRIBUTE_NORMAL;
        if (!SetFileInformationByHandle(file_.get(), FileBasicInfo, &writable, sizeof(writable))) {
            NV_LOG(add_fn, "Failed to delete original file <%s>, error: %d; it stays.", path_.c_str(),
                   static_cast<int>(GetLastError()));
            return false;
        }
    }
    const DWORD err = delete_on_close(file_.get());
    if (err != ERROR_SUCCESS) {
        if (read_only) {
            FILE_BASIC_INFO as_before{};
            as_before.FileAttributes = before.FileAttributes;
            (void)SetFileInformationByHandle(file_.get(), FileBasicInfo, &as_before, sizeof(as_before));
        }
        NV_LOG(add_fn, "Failed to delete original file <%s>, error: %d; it stays.", path_.c_str(),
               static_cast<int>(err));
        return false;
    }
    file_.reset();
    return true;
}
