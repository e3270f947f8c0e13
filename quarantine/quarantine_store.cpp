// Quarantine containers: created, locked down and put under the driver's blocking rule, removed
// once emptied, and read back at start-up.
#include "quarantine/quarantine_store.h"

#include <aclapi.h>

#include "mcl/log.h"
#include "mcl/mswin/path_policy.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"

namespace {

// The folder form the driver and the folder security take: no trailing backslash.
std::wstring folder_of(const std::string& container) {
    std::string folder = container;
    if (folder.size() > 3 && folder.back() == '\\') folder.pop_back();
    return mcl::mswin::widen(folder);
}

}  // namespace

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
    return attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_DIRECTORY) != 0;
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

void quarantine_store::send_blocking_rule(const std::wstring& path, bool remove) {
    mcl::mswin::unique_kernel_handle port = driver_.open_port();
    if (port) driver_.send_folder_rule(port.get(), path, remove, /*block=*/true);
}

bool quarantine_store::createQuarantineContainer(const std::string& path, const std::vector<std::string>& services) {
    constexpr const char* fn = "chelperservice::createQuarantineContainer";
    if (!createPath(path)) return false;
    if (!is_directory(path)) {
        NV_LOG(fn, "The quarantine container path is not a folder: %s", path.c_str());
        return false;
    }
    std::vector<mcl::mswin::sid> sids;
    if (!full_access_service_sids(fn, "to the quarantine container", services, sids)) return false;
    const std::wstring folder = folder_of(path);
    (void)security_.restorePathPermissions(folder, security_.default_folder_sddl());
    if (!security_.setPathPermissions(folder, sids, nullptr, /*denyOthers=*/true)) return false;
    send_blocking_rule(folder, /*remove=*/false);
    quarantine_containers_.insert(path);
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
    quarantine_containers_.erase(path);
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, quarantine_containers_key, path.c_str());
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_folders_key, path.c_str());
    return true;
}

void quarantine_store::loadqQuarantineContainers() {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    quarantine_containers_.clear();
    std::vector<std::string> names;
    (void)mcl::mswin::reg::list_values(quarantine_containers_key, names);
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
        send_blocking_rule(folder_of(name), /*remove=*/false);
        quarantine_containers_.insert(name);
        (void)mcl::mswin::reg::write_dword(protected_folders_key, name.c_str(), 1);
        if (is_directory(name)) remove_archive_leftovers(name);
    }
    loadBlockedFiles();
    NV_LOG(fn, "Quarantine containers loaded: %d, blocked files: %d", static_cast<int>(quarantine_containers_.size()),
           static_cast<int>(blocked_files_.size()));
}
