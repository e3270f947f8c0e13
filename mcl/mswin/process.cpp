#include "mcl/mswin/process.h"

#include <cstring>
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

namespace {

// The processes every Windows session depends on, by image name (without ".exe").
bool is_system_process_image(const std::string& image) {
    const size_t slash = image.find_last_of("\\/");
    std::string name = slash == std::string::npos ? image : image.substr(slash + 1);
    if (name.size() > 4 && _stricmp(name.c_str() + name.size() - 4, ".exe") == 0) name.resize(name.size() - 4);
    for (const char* system : {"lsass", "csrss", "wininit", "winlogon", "services", "smss"})
        if (_stricmp(name.c_str(), system) == 0) return true;
    return false;
}

// Systems before Windows 8.1 have no IsProcessCritical, before Windows 8 no protection level:
// both are looked up where the system has them.
using is_process_critical_fn = BOOL(WINAPI*)(HANDLE, PBOOL);
using get_process_information_fn = BOOL(WINAPI*)(HANDLE, int, LPVOID, DWORD);
constexpr int process_protection_level_info = 7;  // PROCESS_INFORMATION_CLASS ProcessProtectionLevelInfo
constexpr DWORD protection_level_none = 0xFFFFFFFE;

template <typename Fn>
Fn kernel32_function(const char* name) {
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    return kernel32 == nullptr ? nullptr : reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(kernel32, name)));
}

}  // namespace

std::string critical_process_reason(DWORD pid, const std::string& image) {
    unique_kernel_handle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    if (process) {
        if (auto is_critical = kernel32_function<is_process_critical_fn>("IsProcessCritical")) {
            BOOL critical = FALSE;
            if (is_critical(process.get(), &critical) && critical) return "critical to the system";
        }
        if (auto get_information = kernel32_function<get_process_information_fn>("GetProcessInformation")) {
            DWORD level = protection_level_none;
            if (get_information(process.get(), process_protection_level_info, &level, sizeof(level)) &&
                level != protection_level_none)
                return "a protected process";
        }
    }
    std::string path = image;
    if (path.empty() && process) (void)query_process_image(process.get(), path);
    return !path.empty() && is_system_process_image(path) ? "a system process" : std::string();
}

std::vector<std::string> services_in_process(DWORD pid) {
    std::vector<std::string> names;
    unique_sc_handle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ENUMERATE_SERVICE));
    if (!manager) return names;
    std::vector<BYTE> buffer;
    DWORD needed = 0, count = 0, resume = 0;
    for (;;) {
        const BOOL ok = EnumServicesStatusExA(manager.get(), SC_ENUM_PROCESS_INFO, SERVICE_WIN32, SERVICE_ACTIVE,
                                              buffer.empty() ? nullptr : buffer.data(), static_cast<DWORD>(buffer.size()),
                                              &needed, &count, &resume, nullptr);
        const DWORD err = ok ? ERROR_SUCCESS : GetLastError();
        if (!ok && err != ERROR_MORE_DATA) return names;
        const auto* entries = reinterpret_cast<const ENUM_SERVICE_STATUS_PROCESSA*>(buffer.data());
        for (DWORD i = 0; i < count; ++i)
            if (entries[i].ServiceStatusProcess.dwProcessId == pid) names.push_back(entries[i].lpServiceName);
        if (ok) return names;
        buffer.assign(needed + sizeof(ENUM_SERVICE_STATUS_PROCESSA), 0);
    }
}

}  // namespace mcl::mswin
