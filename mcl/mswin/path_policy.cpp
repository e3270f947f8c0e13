// Which paths the service acts on as SYSTEM: the form a request's path must have and the
// system's folders it must not be.
#include "mcl/mswin/path_policy.h"

#include <windows.h>

#include <knownfolders.h>
#include <shlobj.h>

#include <cwchar>
#include <iterator>
#include <type_traits>
#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {
namespace {

constexpr const char* not_local = "not a local path";
constexpr const char* parent_component = "a parent folder component";
constexpr const char* device_name = "a device name";
constexpr const char* drive_root = "a drive root";
constexpr const char* system_folder = "a system folder";
constexpr const char* program_root = "a program root folder";
constexpr const char* profile_folder = "a user profile folder";

constexpr const wchar_t* profile_list_key = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";

// Equal ignoring case as the file system compares names.
bool same_text(const wchar_t* a, const wchar_t* b, size_t n) {
    return n == 0 || CompareStringOrdinal(a, static_cast<int>(n), b, static_cast<int>(n), TRUE) == CSTR_EQUAL;
}
bool same_path(const std::wstring& a, const std::wstring& b) {
    return a.size() == b.size() && same_text(a.c_str(), b.c_str(), a.size());
}
// `path` is `folder` or below it (both normalised).
bool within(const std::wstring& path, const std::wstring& folder) {
    if (folder.empty() || path.size() < folder.size() || !same_text(path.c_str(), folder.c_str(), folder.size()))
        return false;
    return path.size() == folder.size() || folder.back() == L'\\' || path[folder.size()] == L'\\';
}
std::wstring parent_of(const std::wstring& path) {
    const size_t slash = path.rfind(L'\\');
    if (slash == std::wstring::npos) return {};
    return path.substr(0, slash == 2 ? 3 : slash);  // "x:\" keeps its backslash
}

// The name part of a component before its first dot, without trailing spaces, names a device
// ("nul", "com1.txt", "aux .log").
bool is_device_name(const std::wstring& component) {
    std::wstring base = component.substr(0, component.find(L'.'));
    while (!base.empty() && base.back() == L' ') base.pop_back();
    base = lower_case(base);
    static const wchar_t* const plain[] = {L"con", L"prn", L"aux", L"nul", L"conin$", L"conout$", L"clock$"};
    for (const wchar_t* name : plain)
        if (base == name) return true;
    if (base.size() == 4 && (base.compare(0, 3, L"com") == 0 || base.compare(0, 3, L"lpt") == 0)) {
        const wchar_t d = base[3];
        return (d >= L'0' && d <= L'9') || d == L'\u00b9' || d == L'\u00b2' || d == L'\u00b3';
    }
    return false;
}

// The path as Windows reads it, "x:\a\b" (the drive's own case kept), into `out`; null, or the
// reason it cannot be a local path.
const char* normalise(const std::wstring& path, std::wstring& out) {
    std::wstring p = path;
    for (wchar_t& c : p)
        if (c == L'/') c = L'\\';
    if (!has_drive_prefix(p)) return not_local;
    for (size_t i = 0; i < p.size(); ++i) {
        const wchar_t c = p[i];
        if (c < 0x20 || wcschr(L"\"*<>?|", c) != nullptr || (c == L':' && i != 1)) return not_local;
    }
    out = p.substr(0, 3);
    size_t at = 3;
    while (at <= p.size()) {
        size_t end = p.find(L'\\', at);
        if (end == std::wstring::npos) end = p.size();
        std::wstring component = p.substr(at, end - at);
        at = end + 1;
        if (component.empty() || component == L".") continue;
        while (!component.empty() && (component.back() == L'.' || component.back() == L' ')) component.pop_back();
        if (component.empty()) return parent_component;
        if (is_device_name(component)) return device_name;
        if (out.size() > 3) out += L'\\';
        out += component;
    }
    return nullptr;
}

// What the existing part of a normalised path resolves to (links followed, long names), with the
// part that does not exist yet appended; `path` itself when nothing of it can be opened. Null, or
// "not a local path" when it resolves to something else than a drive path.
const char* resolve(const std::wstring& path, std::wstring& out) {
    out = path;
    std::wstring existing = path, tail;
    for (;;) {
        unique_kernel_handle handle(CreateFileW(existing.c_str(), /*access=*/0,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
        if (handle) {
            std::vector<wchar_t> buffer(MAX_PATH + 1);
            DWORD n = GetFinalPathNameByHandleW(handle.get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                                FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
            if (n >= buffer.size()) {
                buffer.resize(n + 1);
                n = GetFinalPathNameByHandleW(handle.get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                              FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
            }
            if (n == 0 || n >= buffer.size()) return nullptr;  // nothing learnt: the lexical form stands
            std::wstring final_path(buffer.data(), n);
            if (final_path.compare(0, 4, L"\\\\?\\") == 0) final_path.erase(0, 4);
            std::wstring normalised;
            if (normalise(final_path + tail, normalised) != nullptr) return not_local;
            out = normalised;
            return nullptr;
        }
        const std::wstring parent = parent_of(existing);
        if (parent.empty() || parent == existing) return nullptr;
        tail = existing.substr(parent.size() == 3 ? 2 : parent.size()) + tail;
        existing = parent;
    }
}

// A folder as the system names it, normalised (and resolved as well when that differs).
void add_folder(std::vector<std::wstring>& folders, const std::wstring& folder) {
    std::wstring normalised, resolved;
    if (folder.empty() || normalise(folder, normalised) != nullptr) return;
    folders.push_back(normalised);
    if (resolve(normalised, resolved) == nullptr && !same_path(resolved, normalised)) folders.push_back(resolved);
}
void add_known_folder(std::vector<std::wstring>& folders, REFKNOWNFOLDERID id) {
    PWSTR path = nullptr;
    if (SUCCEEDED(SHGetKnownFolderPath(id, KF_FLAG_DONT_VERIFY, nullptr, &path)) && path != nullptr) add_folder(folders, path);
    CoTaskMemFree(path);
}
template <typename Get>
void add_directory(std::vector<std::wstring>& folders, Get get) {
    wchar_t buffer[MAX_PATH + 1];
    const UINT n = get(buffer, MAX_PATH + 1);
    if (n > 0 && n <= MAX_PATH) add_folder(folders, std::wstring(buffer, n));
}

std::wstring expanded(const std::wstring& text) {
    std::vector<wchar_t> buffer(32768);
    const DWORD n = ExpandEnvironmentStringsW(text.c_str(), buffer.data(), static_cast<DWORD>(buffer.size()));
    return n == 0 || n > buffer.size() ? std::wstring() : std::wstring(buffer.data());
}
// A string value of `key` (REG_SZ or REG_EXPAND_SZ, expanded); empty when missing.
std::wstring string_value(HKEY key, const wchar_t* name) {
    std::vector<wchar_t> buffer(32768);
    DWORD type = 0, size = static_cast<DWORD>((buffer.size() - 1) * sizeof(wchar_t));
    if (RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &size) != ERROR_SUCCESS ||
        (type != REG_SZ && type != REG_EXPAND_SZ))
        return {};
    buffer[size / sizeof(wchar_t)] = 0;
    return type == REG_EXPAND_SZ ? expanded(buffer.data()) : std::wstring(buffer.data());
}

// The folders that do not change while the system runs; read once.
struct system_places {
    std::vector<std::wstring> system;     // refused with everything under them
    std::vector<std::wstring> programs;   // refused themselves
    std::vector<std::wstring> profiles;   // the folder of the profiles: itself and its children
};

system_places read_places() {
    system_places places;
    add_directory(places.system, GetSystemWindowsDirectoryW);
    add_directory(places.system, GetWindowsDirectoryW);
    add_directory(places.system, GetSystemDirectoryW);
    add_directory(places.system, GetSystemWow64DirectoryW);
    add_known_folder(places.programs, FOLDERID_ProgramFiles);
    add_known_folder(places.programs, FOLDERID_ProgramFilesX86);
#if defined(_WIN64)
    add_known_folder(places.programs, FOLDERID_ProgramFilesX64);
#endif
    add_known_folder(places.programs, FOLDERID_ProgramData);
    // A 32-bit process has no known folder for the native Program Files: the system's own record.
    unique_reg_key current;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion", 0,
                      KEY_READ | KEY_WOW64_64KEY, current.put()) == ERROR_SUCCESS) {
        for (const wchar_t* name : {L"ProgramFilesDir", L"ProgramFilesDir (x86)", L"ProgramW6432Dir"})
            add_folder(places.programs, string_value(current.get(), name));
    }
    add_known_folder(places.profiles, FOLDERID_UserProfiles);
    unique_reg_key key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, profile_list_key, 0, KEY_READ, key.put()) == ERROR_SUCCESS)
        add_folder(places.profiles, string_value(key.get(), L"ProfilesDirectory"));
    return places;
}

const system_places& places() {
    static const system_places read = read_places();
    return read;
}

// Each profile folder the system lists (profiles may live outside the folder of the profiles).
// Read per question: a profile appears when a user first logs on.
bool is_listed_profile(const std::wstring& path) {
    unique_reg_key list;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, profile_list_key, 0, KEY_READ, list.put()) != ERROR_SUCCESS) return false;
    wchar_t name[256];
    for (DWORD index = 0;; ++index) {
        DWORD size = static_cast<DWORD>(std::size(name));
        const LONG rc = RegEnumKeyExW(list.get(), index, name, &size, nullptr, nullptr, nullptr, nullptr);
        if (rc == ERROR_NO_MORE_ITEMS) return false;
        if (rc != ERROR_SUCCESS) continue;
        unique_reg_key profile;
        if (RegOpenKeyExW(list.get(), name, 0, KEY_READ, profile.put()) != ERROR_SUCCESS) continue;
        std::wstring folder;
        if (normalise(string_value(profile.get(), L"ProfileImagePath"), folder) == nullptr && same_path(folder, path))
            return true;
    }
}

// The reason a normalised path is one of the system's places; null when it is none.
const char* place_reason(const std::wstring& path) {
    if (path.size() <= 3) return drive_root;
    const system_places& known = places();
    // A folder that holds one of them is refused as well: what is done to a folder may go
    // through its tree.
    for (const std::wstring& folder : known.system)
        if (within(path, folder) || within(folder, path)) return system_folder;
    for (const std::wstring& folder : known.programs)
        if (within(folder, path)) return program_root;
    for (const std::wstring& folder : known.profiles)
        if (within(folder, path) || same_path(parent_of(path), folder)) return profile_folder;
    if (is_listed_profile(path)) return profile_folder;
    return nullptr;
}

}  // namespace

std::string refused_path_reason(const std::wstring& path) {
    std::wstring normalised;
    if (const char* reason = normalise(path, normalised)) return reason;
    wchar_t root[] = {normalised[0], L':', L'\\', 0};
    if (GetDriveTypeW(root) == DRIVE_REMOTE) return not_local;
    if (const char* reason = place_reason(normalised)) return reason;
    std::wstring resolved;
    if (const char* reason = resolve(normalised, resolved)) return reason;
    if (same_path(resolved, normalised)) return {};
    const char* reason = place_reason(resolved);
    return reason != nullptr ? reason : std::string();
}

std::string refused_path_reason(const std::string& path) { return refused_path_reason(widen(path)); }

// A refused path as the log shows it: control characters (a line end would start a line of the
// caller's making) as '?'.
template <typename Char>
std::basic_string<Char> printable(std::basic_string<Char> path) {
    for (Char& c : path)
        if (static_cast<std::make_unsigned_t<Char>>(c) < 0x20) c = Char('?');
    return path;
}

bool path_refused(const char* fn, const char* request, const std::wstring& path) {
    const std::string reason = refused_path_reason(path);
    if (reason.empty()) return false;
    NV_LOG(fn, "Request \"%s\" refused for the path <%ls>: %s", request, printable(path).c_str(), reason.c_str());
    return true;
}

bool path_refused(const char* fn, const char* request, const std::string& path) {
    const std::string reason = refused_path_reason(widen(path));
    if (reason.empty()) return false;
    NV_LOG(fn, "Request \"%s\" refused for the path <%s>: %s", request, printable(path).c_str(), reason.c_str());
    return true;
}

}  // namespace mcl::mswin
