// Blocked files: a file's DACL replaced so that only chosen services reach it, plus the driver's
// blocking rule, until it is unblocked. The DACL a file had before is written to the registry
// before the file's DACL changes, so an unblock after a restart still gives it back.
#include <windows.h>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "quarantine/quarantine_store.h"

using mcl::mswin::unique_reg_key;

std::string quarantine_store::current_sddl(const std::wstring& path) {
    mcl::mswin::security_descriptor descriptor;
    if (security_.get_file_dacl(path, descriptor) != ERROR_SUCCESS) return {};
    return descriptor.dacl_sddl();
}

void quarantine_store::loadBlockedFiles() {
    constexpr const char* fn = "chelperservice::loadBlockedFiles";
    blocked_files_.clear();
    unique_reg_key key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, blocked_files_key, 0, KEY_READ, key.put()) != ERROR_SUCCESS) return;
    // Paths may be longer than the 255 characters the other lists allow: a name buffer of the
    // registry's own limit, and at most a descriptor's worth of data per value.
    std::vector<char> name(16384);
    std::vector<unsigned char> data(65536);
    for (DWORD index = 0;; ++index) {
        DWORD name_size = static_cast<DWORD>(name.size());
        DWORD data_size = static_cast<DWORD>(data.size() - 1);
        DWORD type = 0;
        const LONG rc = RegEnumValueA(key.get(), index, name.data(), &name_size, nullptr, &type, data.data(), &data_size);
        if (rc == ERROR_NO_MORE_ITEMS) break;
        if (rc != ERROR_SUCCESS || type != REG_SZ) continue;
        data[data_size] = 0;
        const std::string path(name.data(), name_size);
        blocked_files_[path] = reinterpret_cast<const char*>(data.data());
        NV_LOG(fn, "Read blocked file: %s", path.c_str());
    }
}

bool quarantine_store::blockFileAccess(const std::string& path, const std::vector<std::string>& services) {
    constexpr const char* fn = "chelperservice::blockFileAccess";
    if (path.empty()) return false;
    users_.kill_processes_of(path);
    std::vector<mcl::mswin::sid> sids;
    if (!full_access_service_sids(fn, "for the blocked file", services, sids)) return false;
    const std::wstring wide = mcl::mswin::widen(path);
    // The old DACL goes to the registry before the file's DACL changes (a block of an already
    // blocked file keeps the first one).
    const bool recorded_before = is_blocked(path);
    if (!recorded_before) (void)mcl::mswin::reg::write_string(blocked_files_key, path.c_str(), current_sddl(wide));
    std::string previous;
    if (!security_.setPathPermissions(wide, sids, &previous, /*denyOthers=*/true)) {
        if (!recorded_before) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, blocked_files_key, path.c_str());
        return false;
    }
    send_blocking_rule(wide, /*remove=*/false);
    if (!recorded_before) {
        {
            mcl::scoped_lock guard(tables_lock_);
            blocked_files_.emplace(path, previous);
        }
        (void)mcl::mswin::reg::write_string(blocked_files_key, path.c_str(), previous);
    }
    return true;
}

bool quarantine_store::unblockFileAccess(const std::string& path) {
    constexpr const char* fn = "chelperservice::unblockFileAccess";
    if (path.empty()) return false;
    // Only a file this service blocked gets a DACL back, the one it had before: giving any other
    // file its folder's DACL would turn folder-only rights (create files) into rights on the file.
    std::string saved;
    bool blocked = false;
    {
        mcl::scoped_lock guard(tables_lock_);
        const auto it = blocked_files_.find(path);
        if (it != blocked_files_.end()) saved = it->second;
        blocked = it != blocked_files_.end();
    }
    if (!blocked) {
        NV_LOG(fn, "Unblock refused, %s is not a blocked file; its DACL stays as it is.", path.c_str());
        return false;
    }
    const std::wstring wide = mcl::mswin::widen(path);
    send_blocking_rule(wide, /*remove=*/true);
    if (saved.empty() || !security_.restorePathPermissions(wide, saved.c_str())) {
        // Still blocked, with its saved DACL and its rule, so that a later unblock can finish.
        NV_LOG(fn, "Unable to give %s its DACL back; it stays blocked.", path.c_str());
        send_blocking_rule(wide, /*remove=*/false);
        return false;
    }
    {
        mcl::scoped_lock guard(tables_lock_);
        blocked_files_.erase(path);
    }
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, blocked_files_key, path.c_str());
    return true;
}
