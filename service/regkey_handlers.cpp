// The registry key requests and steps of the service, answered by its key protection.
#include "mcl/log.h"
#include "service/helper_service.h"
#include "service/regkey_protection.h"

bool chelperservice::protect_reg_keys(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protect_reg_keys_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG("chelperservice::protect_reg_keys", "Malformed request: %d bytes do not hold the announced reg key entries",
               static_cast<int>(payload.size()));
        return false;
    }
    std::string not_applied;
    const bool ok = reg_keys_.handle_protect_reg_keys(request.entries, &not_applied);
    protocol::reply_with(payload, protocol::status(ok, not_applied));
    return true;
}

bool chelperservice::get_protected_reg_keys(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protected_reg_keys_reply reply;
    for (const auto& item : reg_keys_.protected_reg_keys()) {
        const reg_key_record& r = item.second;
        if (r.path.empty()) continue;
        protocol::protected_reg_key_info info;
        info.valid = true;
        info.original_sddl = r.original_dacl;
        info.current_sddl = r.current_dacl;
        info.root = regkey::widen_root(r.root);
        info.path = r.path;
        info.owner = r.owner;
        info.services = r.services;
        reply.keys.push_back(std::move(info));
    }
    protocol::reply_with(payload, reply);
    return true;
}

bool chelperservice::handle_protect_reg_keys(const std::vector<reg_key_entry>& entries) {
    return reg_keys_.handle_protect_reg_keys(entries);
}

bool chelperservice::protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist) {
    return reg_keys_.protectRegKey(entry, record, persist);
}

bool chelperservice::unprotectRegKey(const reg_key_record& record) { return reg_keys_.unprotectRegKey(record); }

void chelperservice::restoreAllRegKeys() { reg_keys_.restoreAllRegKeys(); }

void chelperservice::loadProtectedRegKeys() { reg_keys_.loadProtectedRegKeys(); }

void chelperservice::unprotectOwnRegKeys() { reg_keys_.unprotectOwnRegKeys(); }
