#include "mcl/mswin/process.h"

#include <cwctype>
#include <vector>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

bool query_process_image(HANDLE process, std::string& image, DWORD capacity) {
    std::vector<char> path(capacity, 0);
    DWORD size = capacity;
    if (!QueryFullProcessImageNameA(process, 0, path.data(), &size)) return false;
    image.assign(path.data(), size);
    return true;
}

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

namespace {

template <typename Char>
std::basic_string<Char> lower_ascii(std::basic_string<Char> text) {
    for (Char& c : text)
        if (c >= Char('A') && c <= Char('Z')) c = static_cast<Char>(c - Char('A') + Char('a'));
    return text;
}

}  // namespace

std::string lower_case(std::string text) { return lower_ascii(std::move(text)); }
std::wstring lower_case(std::wstring text) { return lower_ascii(std::move(text)); }

std::wstring lower_case_towlower(std::wstring text) {
    for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(c));
    return text;
}

}  // namespace mcl::mswin
