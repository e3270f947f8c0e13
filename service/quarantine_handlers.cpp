// Quarantine containers and the quarantine requests: create, remove and list containers, the
// files action, listings and the is-quarantined query, and the start-up reload.
#include <windows.h>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "service/helper_service.h"
#include "service/quarantine_access.h"
#include "service/quarantine_files.h"

namespace {

std::string normalise_container(std::string path) {
    if (path.empty() || path.back() != '\\') path += '\\';
    return mcl::mswin::lower_case(std::move(path));
}

// The folder form the driver and the folder security take: no trailing backslash.
std::wstring folder_of(const std::string& container) {
    std::string folder = container;
    if (folder.size() > 3 && folder.back() == '\\') folder.pop_back();
    return mcl::mswin::widen(folder);
}

// A container is a folder below a drive root, "x:\name\...", short enough for the driver and
// for the archive names inside it, without "." or ".." components.
bool is_container_path(const std::string& path) {
    if (path.size() < 5 || path.size() > MAX_PATH) return false;
    if (!mcl::mswin::has_drive_prefix(path) || path[0] < 'a') return false;  // a lower-case drive letter
    if (path.find('/') != std::string::npos || path.find("\\\\") != std::string::npos) return false;
    return path.find("\\.\\") == std::string::npos && path.find("\\..\\") == std::string::npos;
}

bool is_directory(const std::string& path) {
    const DWORD attrs = GetFileAttributesA(path.c_str());
    return attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

bool chelperservice::createQuarantineContainer(const std::string& path, const std::vector<std::string>& services) {
    constexpr const char* fn = "chelperservice::createQuarantineContainer";
    if (!createPath(path)) return false;
    if (!is_directory(path)) {
        NV_LOG(fn, "The quarantine container path is not a folder: %s", path.c_str());
        return false;
    }
    std::vector<mcl::mswin::sid> sids;
    if (!full_access_service_sids(fn, "to the quarantine container", services, sids)) return false;
    const std::wstring folder = folder_of(path);
    (void)restorePathPermissions(folder, default_folder_sddl);
    if (!setPathPermissions(folder, sids, nullptr, /*denyOthers=*/true)) return false;
    {
        driver_port port = openDriverPort();
        if (port) drvProtectFolder(port.get(), folder, /*remove=*/false, /*block=*/true);
    }
    quarantine_containers_.insert(path);
    (void)mcl::mswin::reg::write_dword(quarantine_containers_key, path.c_str(), 1);
    (void)mcl::mswin::reg::write_dword(protected_folders_key, path.c_str(), 1);
    return true;
}

bool chelperservice::removeQuarantineContainer(const std::string& path, uint32_t action) {
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
    const std::wstring folder = folder_of(path);
    {
        driver_port port = openDriverPort();
        if (port) drvProtectFolder(port.get(), folder, /*remove=*/true, /*block=*/true);
    }
    (void)restorePathPermissions(folder, default_folder_sddl);
    if (!RemoveDirectoryA(path.c_str())) {
        NV_LOG(fn, "Unable to remove quarantine container folder <%s>, error: %d", path.c_str(),
               static_cast<int>(GetLastError()));
    }
    quarantine_containers_.erase(path);
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, quarantine_containers_key, path.c_str());
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_folders_key, path.c_str());
    return true;
}

void chelperservice::loadqQuarantineContainers() {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    quarantine_containers_.clear();
    std::vector<std::string> names;
    (void)mcl::mswin::reg::list_values(quarantine_containers_key, names);  // names over 255 characters are skipped
    for (const std::string& name : names) {
        NV_LOG(fn, "Read quarantine containers: %s", name.c_str());
        {
            driver_port port = openDriverPort();
            if (port) drvProtectFolder(port.get(), folder_of(name), /*remove=*/false, /*block=*/true);
        }
        quarantine_containers_.insert(name);
        (void)mcl::mswin::reg::write_dword(protected_folders_key, name.c_str(), 1);
        if (is_directory(name)) remove_archive_leftovers(name);
    }
    loadBlockedFiles();
    NV_LOG(fn, "Quarantine containers loaded: %d, blocked files: %d", static_cast<int>(quarantine_containers_.size()),
           static_cast<int>(blocked_files_.size()));
}

bool chelperservice::create_quarantine_container(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::create_quarantine_container";
    protocol::create_container_request request;
    if (!protocol::decode(payload, request)) return false;
    if (request.path.empty()) {
        NV_LOG(fn, "Failed to create quarantine container, invalid path.");
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    const std::string path = normalise_container(request.path);
    if (quarantine_containers_.count(path) != 0) {
        protocol::reply_with(payload, protocol::status(true));
        return true;
    }
    if (!is_container_path(path) || !createQuarantineContainer(path, request.services)) {
        NV_LOG(fn, "Failed to create quarantine container path.");
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    protocol::reply_with(payload, protocol::status(true));
    return true;
}

bool chelperservice::quarantine_files(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::quarantine_files_request request;
    if (!protocol::decode(payload, request)) return false;
    const std::string container = normalise_container(request.container);
    if (quarantine_containers_.count(container) == 0 || !is_directory(container)) {
        protocol::reply_with(payload, protocol::status(false, "Invalid quarantine container."));
        return true;
    }
    std::string message;
    const bool ok = quarantine_files_action(request.action, container, request.paths, message);
    protocol::reply_with(payload, protocol::status(ok, message));
    return true;
}

bool chelperservice::remove_quarantine_container(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::remove_quarantine_container";
    protocol::remove_container_request request;
    if (!protocol::decode(payload, request)) return false;
    if (request.path.empty()) {
        NV_LOG(fn, "Failed to remove quarantine container, invalid path.");
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    const std::string path = normalise_container(request.path);
    if (quarantine_containers_.count(path) == 0) {
        protocol::reply_with(payload, protocol::status(false, "Invalid quarantine container."));
        return true;
    }
    if (request.action != 1 && request.action != 2) {
        protocol::reply_with(payload, protocol::status(false, "Invalid action."));
        return true;
    }
    protocol::reply_with(payload, protocol::status(removeQuarantineContainer(path, request.action)));
    return true;
}

bool chelperservice::get_quarantined_files(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    const std::string path = normalise_container(request.name);
    std::vector<std::string> archives;
    if (quarantine_containers_.count(path) != 0) list_quarantine_files(path, archives);
    protocol::quarantined_files_reply reply;
    for (const std::string& archive : archives) {
        protocol::quarantined_file file;
        file.archive_name = archive.substr(archive.rfind('\\') + 1);
        (void)read_quarantine_file_original_path(archive, file.recorded_path);
        reply.files.push_back(std::move(file));
    }
    protocol::reply_with(payload, reply);
    return true;
}

bool chelperservice::get_quarantine_containers(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::quarantine_containers_reply reply;
    reply.containers.assign(quarantine_containers_.begin(), quarantine_containers_.end());
    protocol::reply_with(payload, reply);
    return true;
}

bool chelperservice::is_file_quarantined(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    protocol::reply_with(payload, protocol::status(true, is_quarantined_file(mcl::mswin::lower_case(request.name)) ? "yes" : "no"));
    return true;
}
