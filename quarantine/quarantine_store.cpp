// Quarantine containers: created, locked down and put under the driver's blocking rule, removed
// once emptied, and read back at start-up.
#include "quarantine/quarantine_store.h"

#include <aclapi.h>

#include "mcl/log.h"
#include "mcl/mswin/path_policy.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "mcl/thread.h"
#include "quarantine/archive_codec.h"

namespace {

// The folder form the driver and the folder security take: no trailing backslash.
std::wstring folder_of(const std::string& container) {
    std::string folder = container;
    if (folder.size() > 3 && folder.back() == '\\') folder.pop_back();
    return mcl::mswin::widen(folder);
}

// The folder the service has just made, checked through a handle of its own: a folder, no link of
// any kind on its way (its final path is the one asked for) and not one of the system's places,
// owned by Administrators (set when it is not theirs or the system's). Logged when it is not so.
bool made_folder_is_sound(const char* fn, const std::string& folder) {
    const std::wstring wide = mcl::mswin::widen(folder);
    mcl::mswin::unique_kernel_handle handle(CreateFileW(
        wide.c_str(), READ_CONTROL | WRITE_OWNER | FILE_READ_ATTRIBUTES,
        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    BY_HANDLE_FILE_INFORMATION info{};
    if (!handle || !GetFileInformationByHandle(handle.get(), &info)) {
        NV_LOG(fn, "The quarantine container folder cannot be opened: %s, error: %d", folder.c_str(),
               static_cast<int>(GetLastError()));
        return false;
    }
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 || (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        NV_LOG(fn, "The quarantine container folder is a link or no folder: %s", folder.c_str());
        return false;
    }
    wchar_t final_path[MAX_PATH + 8];
    const DWORD n = GetFinalPathNameByHandleW(handle.get(), final_path, MAX_PATH + 8, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    std::wstring resolved = n > 0 && n < MAX_PATH + 8 ? std::wstring(final_path, n) : std::wstring();
    if (resolved.compare(0, 4, L"\\\\?\\") == 0) resolved.erase(0, 4);
    if (CompareStringOrdinal(resolved.c_str(), static_cast<int>(resolved.size()), wide.c_str(),
                             static_cast<int>(wide.size()), TRUE) != CSTR_EQUAL) {
        NV_LOG(fn, "The quarantine container folder is reached through a link: %s -> %ls", folder.c_str(),
               resolved.c_str());
        return false;
    }
    PSID owner = nullptr;
    PSECURITY_DESCRIPTOR raw = nullptr;
    DWORD err = GetSecurityInfo(handle.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, &owner, nullptr, nullptr,
                                nullptr, &raw);
    mcl::mswin::unique_local<PSECURITY_DESCRIPTOR> descriptor(raw);
    if (err == ERROR_SUCCESS && owner != nullptr &&
        (IsWellKnownSid(owner, WinLocalSystemSid) || IsWellKnownSid(owner, WinBuiltinAdministratorsSid)))
        return true;
    BYTE admins[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(admins);
    if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &size)) {
        err = GetLastError();
    } else {
        err = SetSecurityInfo(handle.get(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION, admins, nullptr, nullptr, nullptr);
    }
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "The quarantine container folder cannot be given to Administrators: %s, error: %d", folder.c_str(),
               static_cast<int>(err));
        return false;
    }
    return true;
}

}  // namespace

quarantine_store::quarantine_store(quarantine_driver& driver, quarantine_security& security, file_users& users)
    : driver_(driver), security_(security), users_(users) {
    set_archive_cancel_check(&mcl::stop_requested);
}


std::string quarantine_store::normalise_container(std::string path) {
    if (path.empty() || path.back() != '\\') path += '\\';
    return mcl::mswin::lower_case(std::move(path));
}

bool quarantine_store::is_container_path(const std::string& path) {
    if (path.size() < 5 || path.size() > MAX_PATH) return false;
    if (!mcl::mswin::has_drive_prefix(path) || path[0] < 'a') return false;  // a lower-case drive letter
    if (path.find('/') != std::string::npos || path.find("\\\\") != std::string::npos) return false;
    return path.find("\\.\\") == std::string::npos && path.find("\\..\\") == std::string::npos;
}

bool quarantine_store::is_directory(const std::string& path) {
    const DWORD attrs = GetFileAttributesA(path.c_str());
    return attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
           (attrs & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
}

bool quarantine_store::full_access_service_sids(const char* fn, const char* target,
                                                const std::vector<std::string>& services,
                                                std::vector<mcl::mswin::sid>& sids) {
    sids.clear();
    mcl::mswin::sid own;
    if (!mcl::mswin::service::get_sid(mcl::mswin::service::default_name, own)) {
        NV_LOG(fn, "Unable to get halvern service's SID.");
        return false;
    }
    sids.push_back(own);
    for (const std::string& name : services) {
        mcl::mswin::sid one;
        if (!mcl::mswin::service::get_sid(name.c_str(), one)) {
            NV_LOG(fn, "Unable configure the full access service %s, failed to get service's sid for: %s\n", target,
                   name.c_str());
            continue;
        }
        sids.push_back(one);
    }
    return true;
}

void quarantine_store::send_blocking_rule(const std::wstring& path, bool remove, HANDLE port) {
    mcl::mswin::unique_kernel_handle own_port;
    if (port == nullptr) {
        own_port = driver_.open_port();
        port = own_port.get();
    }
    if (port != nullptr) driver_.send_folder_rule(port, path, remove, /*block=*/true);
}

bool quarantine_store::createQuarantineContainer(const std::string& path, const std::vector<std::string>& services) {
    constexpr const char* fn = "chelperservice::createQuarantineContainer";
    // A container is a folder this call makes: one that exists already (whoever made it may still
    // own it, or it is a link) is refused. Its parents may exist.
    std::string folder_path = path;
    if (folder_path.size() > 3 && folder_path.back() == '\\') folder_path.pop_back();
    if (GetFileAttributesA(folder_path.c_str()) != INVALID_FILE_ATTRIBUTES) {
        NV_LOG(fn, "The quarantine container path exists already and is not a container: %s", path.c_str());
        return false;
    }
    if (!createPath(folder_path.substr(0, folder_path.rfind('\\')))) return false;
    if (!CreateDirectoryA(folder_path.c_str(), nullptr)) {
        NV_LOG(fn, "CreateDirectory failed on %s with error: %d", folder_path.c_str(), static_cast<int>(GetLastError()));
        return false;
    }
    if (!made_folder_is_sound(fn, folder_path)) {
        (void)RemoveDirectoryA(folder_path.c_str());
        return false;
    }
    std::vector<mcl::mswin::sid> sids;
    if (!full_access_service_sids(fn, "to the quarantine container", services, sids)) return false;
    const std::wstring folder = folder_of(path);
    (void)security_.restorePathPermissions(folder, security_.default_folder_sddl());
    if (!security_.setPathPermissions(folder, sids, nullptr, /*denyOthers=*/true)) return false;
    send_blocking_rule(folder, /*remove=*/false);
    {
        mcl::scoped_lock guard(tables_lock_);
        quarantine_containers_.insert(path);
    }
    (void)mcl::mswin::reg::write_dword(quarantine_containers_key, path.c_str(), 1);
    (void)mcl::mswin::reg::write_dword(protected_folders_key, path.c_str(), 1);
    return true;
}

bool quarantine_store::removeQuarantineContainer(const std::string& path, uint32_t action) {
    constexpr const char* fn = "chelperservice::removeQuarantineContainer";
    std::vector<std::string> archives;
    list_quarantine_files(path, archives);
    bool emptied = false;
    if (action == 1) {
        emptied = remove_quarantine_files(path, archives);
    } else if (action == 2) {
        emptied = restore_quarantine_files(path, archives);
    } else {
        NV_LOG(fn, "Unable to remove quarantine container <%s>, invalid action", path.c_str());
        return false;
    }
    if (!emptied) return false;
    // The folder goes first: one that stays (a file held open, a file that is no archive) keeps
    // its rule, its DACL and its registration, and the request fails.
    if (!RemoveDirectoryA(path.c_str())) {
        const DWORD err = GetLastError();
        if (err != ERROR_FILE_NOT_FOUND && err != ERROR_PATH_NOT_FOUND) {
            NV_LOG(fn, "Unable to remove quarantine container folder <%s>, error: %d", path.c_str(), static_cast<int>(err));
            return false;
        }
    }
    send_blocking_rule(folder_of(path), /*remove=*/true);
    {
        mcl::scoped_lock guard(tables_lock_);
        quarantine_containers_.erase(path);
    }
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, quarantine_containers_key, path.c_str());
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_folders_key, path.c_str());
    return true;
}

std::set<std::string> quarantine_store::containers() const {
    mcl::scoped_lock guard(tables_lock_);
    return quarantine_containers_;
}

bool quarantine_store::has_container(const std::string& path) const {
    mcl::scoped_lock guard(tables_lock_);
    return quarantine_containers_.count(path) != 0;
}

bool quarantine_store::is_blocked(const std::string& path) const {
    mcl::scoped_lock guard(tables_lock_);
    return blocked_files_.count(path) != 0;
}

void quarantine_store::loadqQuarantineContainers() {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    quarantine_containers_.clear();
    std::vector<std::string> names;
    (void)mcl::mswin::reg::list_values(quarantine_containers_key, names);
    const mcl::mswin::unique_kernel_handle port = driver_.open_port();  // one connection for every rule
    for (const std::string& name : names) {
        // Only what a create request would have accepted.
        if (!is_container_path(name)) {
            NV_LOG(fn, "Persisted quarantine container (%d characters) is not a container path, skipped",
                   static_cast<int>(name.size()));
            continue;
        }
        const std::string refusal = mcl::mswin::refused_path_reason(name);
        if (!refusal.empty()) {
            NV_LOG(fn, "Persisted quarantine container %s is %s, skipped", name.c_str(), refusal.c_str());
            continue;
        }
        NV_LOG(fn, "Read quarantine containers: %s", name.c_str());
        send_blocking_rule(folder_of(name), /*remove=*/false, port.get());
        quarantine_containers_.insert(name);
        (void)mcl::mswin::reg::write_dword(protected_folders_key, name.c_str(), 1);
        if (is_directory(name)) remove_archive_leftovers(name);
    }
    give_back_sources_in_progress();
    loadBlockedFiles();
    NV_LOG(fn, "Quarantine containers loaded: %d, blocked files: %d", static_cast<int>(quarantine_containers_.size()),
           static_cast<int>(blocked_files_.size()));
}
