// The process protection requests and steps of the service, answered by its process protection.
#include "mcl/log.h"
#include "service/folder_security.h"
#include "service/helper_service.h"

bool chelperservice::handle_protect_processes(const std::vector<process_rule>& rules) {
    return processes_.handle_protect_processes(rules);
}

void chelperservice::restoreProtectedFolders() { processes_.restoreProtectedFolders(); }

bool chelperservice::setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                                        std::string* originalSddl, bool denyOthers) {
    return folder_security::setPathPermissions(path, sids, originalSddl, denyOthers);
}

bool chelperservice::restorePathPermissions(const std::wstring& path, const char* sddl) {
    return folder_security::restorePathPermissions(path, sddl);
}

void chelperservice::restoreFolder(const std::wstring& path) { (void)restorePathPermissions(path, default_folder_sddl); }

bool chelperservice::protect_processes(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protect_processes_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG("chelperservice::protect_processes", "Malformed process rule list (%d bytes): nothing applied",
               static_cast<int>(payload.size()));
        return false;
    }
    const bool ok = handle_protect_processes(request.rules);
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}

bool chelperservice::query_protected_processes(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protected_processes_reply reply;
    const process_protection::tables tables = processes_.snapshot();
    for (const auto& entry : tables.processes) {
        if (entry.first.empty()) continue;
        auto folder = tables.folders.find(entry.second.folder);
        protocol::protected_process_info info;
        info.valid = true;
        info.folder_sddl = folder == tables.folders.end() ? std::string() : folder->second.sddl;
        info.image_path = entry.second.imagePath;
        info.folder = entry.second.folder;
        reply.processes.push_back(std::move(info));
    }
    protocol::reply_with(payload, reply);
    return true;
}
