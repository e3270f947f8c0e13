// The quarantine requests of the service: create, remove and list containers, the files action,
// listings, the is-quarantined query and the blocked-file requests, answered by the quarantine
// store; and what the store uses of the core.
#include <windows.h>

#include <cstring>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/path_policy.h"
#include "mcl/mswin/text.h"
#include "service/folder_security.h"
#include "service/helper_service.h"
#include "service/object_security.h"

namespace {

constexpr const char* already_quarantined = "The file has already been quarantined.";
constexpr const char* archive_suffix = ".QUA";

// `path` names a file directly in `container` (lower case, ending in a backslash), compared
// without case.
bool names_entry_of(const std::string& container, const std::string& path) {
    const std::string lower = mcl::mswin::lower_case(path);
    return lower.size() > container.size() && lower.compare(0, container.size(), container) == 0 &&
           lower.find('\\', container.size()) == std::string::npos;
}

// Remove and restore act only on the "*.QUA" archives the container lists: a file of another
// name, or one that is not there, is refused here with its log line.
bool is_listed_archive(const char* fn, const std::string& container, const std::vector<std::string>& archives,
                       const std::string& path) {
    // A path outside the container is the store's to refuse (it says so).
    if (!names_entry_of(container, path)) return true;
    for (const std::string& archive : archives)
        if (_stricmp(archive.c_str(), path.c_str()) == 0) return true;
    const size_t n = strlen(archive_suffix);
    const bool suffix = path.size() >= n && _stricmp(path.c_str() + path.size() - n, archive_suffix) == 0;
    NV_LOG(fn, "Request \"quarantine files\" refused for the path <%s>: %s", path.c_str(),
           suffix ? "not an archive the container holds" : "not a quarantine archive");
    return false;
}

}  // namespace

DWORD chelperservice::quarantine_services::get_file_dacl(const std::wstring& path,
                                                         mcl::mswin::security_descriptor& descriptor) {
    return object_security::current().get_file_dacl(path, descriptor);
}

DWORD chelperservice::quarantine_services::set_file_dacl(const std::wstring& path, PACL dacl, bool protect) {
    return object_security::current().set_file_dacl(path, dacl, protect);
}

DWORD chelperservice::quarantine_services::get_handle_dacl(HANDLE file, mcl::mswin::security_descriptor& descriptor) {
    return object_security::current().get_handle_dacl(file, descriptor);
}

DWORD chelperservice::quarantine_services::set_handle_dacl(HANDLE file, PACL dacl, bool protect) {
    return object_security::current().set_handle_dacl(file, dacl, protect);
}

bool chelperservice::quarantine_services::setPathPermissions(const std::wstring& path,
                                                             const std::vector<mcl::mswin::sid>& sids,
                                                             std::string* originalSddl, bool denyOthers) {
    return folder_security::setPathPermissions(path, sids, originalSddl, denyOthers);
}

bool chelperservice::quarantine_services::restorePathPermissions(const std::wstring& path, const char* sddl) {
    return folder_security::restorePathPermissions(path, sddl);
}

const char* chelperservice::quarantine_services::default_folder_sddl() { return folder_security::default_folder_sddl; }

void chelperservice::quarantine_services::kill_processes_of(const std::string& path) { killProcessByPath(path); }

bool chelperservice::createQuarantineContainer(const std::string& path, const std::vector<std::string>& services) {
    return quarantine_.createQuarantineContainer(path, services);
}

bool chelperservice::removeQuarantineContainer(const std::string& path, uint32_t action) {
    return quarantine_.removeQuarantineContainer(path, action);
}

bool chelperservice::add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                                          std::string& message) {
    return quarantine_.add_quarantine_files(container, files, message);
}

bool chelperservice::remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives) {
    return quarantine_.remove_quarantine_files(container, archives);
}

bool chelperservice::restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives) {
    return quarantine_.restore_quarantine_files(container, archives);
}

bool chelperservice::quarantine_files_action(uint32_t action, const std::string& container,
                                             const std::vector<std::string>& paths, std::string& message) {
    return quarantine_.quarantine_files_action(action, container, paths, message);
}

bool chelperservice::is_quarantined_file(const std::string& path) { return quarantine_.is_quarantined_file(path); }

bool chelperservice::blockFileAccess(const std::string& path, const std::vector<std::string>& services) {
    return quarantine_.blockFileAccess(path, services);
}

bool chelperservice::unblockFileAccess(const std::string& path) { return quarantine_.unblockFileAccess(path); }

void chelperservice::loadqQuarantineContainers() { quarantine_.loadqQuarantineContainers(); }

bool chelperservice::create_quarantine_container(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::create_quarantine_container";
    protocol::create_container_request request;
    if (!protocol::decode(payload, request)) return false;
    if (request.path.empty()) {
        NV_LOG(fn, "Failed to create quarantine container, invalid path.");
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    if (mcl::mswin::path_refused(fn, "create quarantine container", request.path)) {
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    const std::string path = quarantine_store::normalise_container(request.path);
    if (quarantine_.has_container(path)) {
        protocol::reply_with(payload, protocol::status(true));
        return true;
    }
    if (!quarantine_store::is_container_path(path) || !createQuarantineContainer(path, request.services)) {
        NV_LOG(fn, "Failed to create quarantine container path.");
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    protocol::reply_with(payload, protocol::status(true));
    return true;
}

bool chelperservice::quarantine_files(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::quarantine_files";
    protocol::quarantine_files_request request;
    if (!protocol::decode(payload, request)) return false;
    const std::string container = quarantine_store::normalise_container(request.container);
    if (mcl::mswin::path_refused(fn, "quarantine files", request.container) || !quarantine_.has_container(container) ||
        !quarantine_store::is_directory(container)) {
        protocol::reply_with(payload, protocol::status(false, "Invalid quarantine container."));
        return true;
    }
    std::string message;
    bool ok = true;
    if (request.action > 2) {
        ok = quarantine_files_action(request.action, container, request.paths, message);
        protocol::reply_with(payload, protocol::status(ok, message));
        return true;
    }
    // One path at a time: a refused one is skipped (its field empty) and fails the request, as a
    // source that cannot be archived does.
    std::vector<std::string> archives;
    if (request.action != 0) list_quarantine_files(container, archives);
    for (const std::string& path : request.paths) {
        std::string one;
        if (mcl::mswin::path_refused(fn, "quarantine files", path) ||
            (request.action != 0 && !is_listed_archive(fn, container, archives, path))) {
            ok = false;
            if (request.action == 0) message += ";";
            continue;
        }
        if (!quarantine_files_action(request.action, container, {path}, one)) ok = false;
        message += one;
    }
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
    if (mcl::mswin::path_refused(fn, "remove quarantine container", request.path)) {
        protocol::reply_with(payload, protocol::status(false, "Invalid path."));
        return true;
    }
    const std::string path = quarantine_store::normalise_container(request.path);
    if (!quarantine_.has_container(path)) {
        protocol::reply_with(payload, protocol::status(false, "Invalid quarantine container."));
        return true;
    }
    if (request.action != 1 && request.action != 2) {
        protocol::reply_with(payload, protocol::status(false, "Invalid action."));
        return true;
    }
    // Its archives are deleted or restored as SYSTEM: never through a link put in its place.
    if (GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES && !quarantine_store::is_directory(path)) {
        NV_LOG(fn, "The quarantine container is no longer a folder of its own: %s", path.c_str());
        protocol::reply_with(payload, protocol::status(false, "Invalid quarantine container."));
        return true;
    }
    protocol::reply_with(payload, protocol::status(removeQuarantineContainer(path, request.action)));
    return true;
}

bool chelperservice::get_quarantined_files(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    const std::string path = quarantine_store::normalise_container(request.name);
    std::vector<std::string> archives;
    if (quarantine_.has_container(path)) list_quarantine_files(path, archives);
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
    const std::set<std::string> containers = quarantine_.containers();
    reply.containers.assign(containers.begin(), containers.end());
    protocol::reply_with(payload, reply);
    return true;
}

bool chelperservice::is_file_quarantined(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    protocol::reply_with(payload, protocol::status(true, is_quarantined_file(mcl::mswin::lower_case(request.name)) ? "yes" : "no"));
    return true;
}

bool chelperservice::block_file_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    if (mcl::mswin::path_refused("chelperservice::block_file_access", "block file access", request.name)) return false;
    const std::string path = mcl::mswin::lower_case(request.name);
    if (is_quarantined_file(path)) {
        protocol::reply_with(payload, protocol::status(true, already_quarantined));
    } else {
        protocol::reply_with(payload, protocol::status(blockFileAccess(path, {})));
    }
    return true;
}

bool chelperservice::unblock_file_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    if (mcl::mswin::path_refused("chelperservice::unblock_file_access", "unblock file access", request.name)) return false;
    const std::string path = mcl::mswin::lower_case(request.name);
    if (is_quarantined_file(path)) {
        protocol::reply_with(payload, protocol::status(false, already_quarantined));
    } else {
        protocol::reply_with(payload, protocol::status(unblockFileAccess(path)));
    }
    return true;
}

bool chelperservice::block_files_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::block_files_request request;
    if (!protocol::decode(payload, request)) return false;
    std::string failed;
    for (const std::string& raw : request.paths) {
        const std::string path = mcl::mswin::lower_case(raw);
        bool ok = true;
        if (mcl::mswin::path_refused("chelperservice::block_files_access", "block files access", raw)) {
            ok = false;
        } else if (request.action == 0) {
            if (!is_quarantined_file(path)) ok = blockFileAccess(path, request.services);
        } else {
            ok = !is_quarantined_file(path) && unblockFileAccess(path);
        }
        if (!ok) failed += path + ";";
    }
    protocol::reply_with(payload, protocol::status(true, failed));
    return true;
}

bool chelperservice::is_file_access_blocked(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::name_request request;
    if (!protocol::decode(payload, request)) return false;
    const bool blocked = quarantine_.is_blocked(mcl::mswin::lower_case(request.name));
    protocol::reply_with(payload, protocol::status(true, blocked ? "yes" : "no"));
    return true;
}
