#include "mcl/mswin/process.h"

#include <vector>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

namespace {

BOOL query_full_name(HANDLE process, char* path, DWORD* size) { return QueryFullProcessImageNameA(process, 0, path, size); }
BOOL query_full_name(HANDLE process, wchar_t* path, DWORD* size) { return QueryFullProcessImageNameW(process, 0, path, size); }

template <typename Char>
bool query_image(HANDLE process, std::basic_string<Char>& image, DWORD capacity) {
    std::vector<Char> path(capacity, 0);
    DWORD size = capacity;
    if (!query_full_name(process, path.data(), &size)) return false;
    image.assign(path.data(), size);
    return true;
}

}  // namespace

bool query_process_image(HANDLE process, std::string& image, DWORD capacity) { return query_image(process, image, capacity); }
bool query_process_image(HANDLE process, std::wstring& image, DWORD capacity) { return query_image(process, image, capacity); }

std::string process_image(DWORD pid, DWORD capacity) {
    unique_kernel_handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    std::string image;
    if (process && !query_process_image(process.get(), image, capacity)) image.clear();
    return image;
}

namespace {

UINT get_system_directory(char* buffer, UINT size) { return GetSystemDirectoryA(buffer, size); }
UINT get_system_directory(wchar_t* buffer, UINT size) { return GetSystemDirectoryW(buffer, size); }

template <typename Char>
bool read_system_directory(std::basic_string<Char>& directory) {
    Char buffer[MAX_PATH + 1] = {};
    const UINT n = get_system_directory(buffer, MAX_PATH);
    if (n == 0) return false;
    if (n >= MAX_PATH) {
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return false;
    }
    directory.assign(buffer, n);
    return true;
}

}  // namespace

bool system_directory(std::string& directory) { return read_system_directory(directory); }
bool system_directory(std::wstring& directory) { return read_system_directory(directory); }

}  // namespace mcl::mswin
