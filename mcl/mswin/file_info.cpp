#include "mcl/mswin/file_info.h"

#include <shellapi.h>

#include <cstdio>
#include <vector>

#include "mcl/mswin/unique_handle.h"

namespace {

// The first translation's string, falling back to US English with the Windows code page.
std::string version_string(const std::vector<char>& block, const char* name) {
    struct translation {
        WORD language;
        WORD code_page;
    };
    translation* translations = nullptr;
    UINT length = 0;
    char query[128];
    if (VerQueryValueA(block.data(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translations), &length) &&
        length >= sizeof(translation)) {
        snprintf(query, sizeof(query), "\\StringFileInfo\\%04x%04x\\%s", translations[0].language,
                 translations[0].code_page, name);
        char* value = nullptr;
        UINT value_length = 0;
        if (VerQueryValueA(block.data(), query, reinterpret_cast<void**>(&value), &value_length) && value_length > 0)
            return value;
    }
    snprintf(query, sizeof(query), "\\StringFileInfo\\040904E4\\%s", name);
    char* value = nullptr;
    UINT value_length = 0;
    if (VerQueryValueA(block.data(), query, reinterpret_cast<void**>(&value), &value_length) && value_length > 0)
        return value;
    return {};
}

}  // namespace

file_info::file_info(const char* file_path) {
    if (file_path == nullptr) return;
    path = file_path;

    DWORD handle = 0;
    const DWORD block_size = GetFileVersionInfoSizeA(file_path, &handle);
    if (block_size > 0) {
        std::vector<char> block(block_size);
        if (GetFileVersionInfoA(file_path, 0, block_size, block.data())) {
            description = version_string(block, "FileDescription");
            version = version_string(block, "FileVersion");
            valid = true;
        }
    }

    SHFILEINFOA shell{};
    if (SHGetFileInfoA(file_path, 0, &shell, sizeof(shell), SHGFI_ICON | SHGFI_LARGEICON)) large_icon = shell.hIcon;
    shell = SHFILEINFOA{};
    if (SHGetFileInfoA(file_path, 0, &shell, sizeof(shell), SHGFI_ICON | SHGFI_SMALLICON | SHGFI_DISPLAYNAME)) {
        small_icon = shell.hIcon;
        if (description.empty()) description = shell.szDisplayName;
    }
    if (large_icon == nullptr || small_icon == nullptr) {
        if (large_icon != nullptr) DestroyIcon(large_icon);
        if (small_icon != nullptr) DestroyIcon(small_icon);
        large_icon = small_icon = nullptr;
        ExtractIconExA(file_path, 0, &large_icon, &small_icon, 1);
    }
    if (large_icon != nullptr || small_icon != nullptr) valid = true;

    mcl::mswin::unique_kernel_handle file(
        CreateFileA(file_path, 0, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return;
    valid = true;
    LARGE_INTEGER file_size;
    if (GetFileSizeEx(file.get(), &file_size)) size = static_cast<uint64_t>(file_size.QuadPart);
    GetFileTime(file.get(), &creation_time, &last_access_time, &last_write_time);
}

file_info::~file_info() {
    if (large_icon != nullptr) DestroyIcon(large_icon);
    if (small_icon != nullptr) DestroyIcon(small_icon);
}
