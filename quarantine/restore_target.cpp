#include "quarantine/restore_target.h"

#include "mcl/log.h"
#include "mcl/mswin/text.h"

namespace {

constexpr const char* fn = "chelperservice::restore_quarantine_files";

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

bool restore_folder::confirm(const std::string& temp) {
    // No write sharing: what was checked is what the rename puts in place.
    temp_.reset(CreateFileW(mcl::mswin::widen(temp).c_str(), GENERIC_READ,
                            FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT,
                            nullptr));
    std::wstring path;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool read = temp_ && GetFileInformationByHandle(temp_.get(), &info) && final_path_(temp_.get(), path);
    const size_t slash = path.rfind(L'\\');
    if (!folder_ || !read || (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ||
        slash == std::wstring::npos || !same_path(path.substr(0, slash), folder_path_)) {
        NV_LOG(fn, "Restore refused, %s is not in the folder that was checked; the archive is kept.", temp.c_str());
        temp_.reset();
        return false;
    }
    return true;
}
