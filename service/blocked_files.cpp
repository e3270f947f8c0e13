// Blocked files: a file's DACL replaced so that only chosen services reach it, plus the driver's
// blocking rule, until it is unblocked. The DACL a file had before is written to the registry
// before the file's DACL changes, so an unblock after a restart still gives it back.
#include <windows.h>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "service/helper_service.h"
#include "service/object_security.h"
#include "service/quarantine_access.h"

namespace {

using mcl::mswin::unique_reg_key;

constexpr const char* already_quarantined = "The file has already been quarantined.";

// The file's DACL as SDDL text; empty when it cannot be read.
std::string current_sddl(const std::wstring& path) {
    mcl::mswin::security_descriptor descriptor;
    if (object_security::current().get_file_dacl(path, descriptor) != ERROR_SUCCESS) return {};
    return descriptor.dacl_sddl();
}

}  // namespace

void chelperservice::loadBlockedFiles() {
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

bool chelperservice::blockFileAccess(const std::string& path, const std::vector<std::string>& services) {
    constexpr const char* fn = "chelperservice::blockFileAccess";
    if (path.empty()) return false;
    killProcessByPath(path);
    std::vector<mcl::mswin::sid> sids;
    if (!full_access_service_sids(fn, "for the blocked file", services, sids)) return false;
    const std::wstring wide = mcl::mswin::widen(path);
    // The old DACL goes to the registry before the file's DACL changes (a block of an already
    // blocked file keeps the first one).
    const bool recorded_before = blocked_files_.count(path) != 0;
    if (!recorded_before) (void)mcl::mswin::reg::write_string(blocked_files_key, path.c_str(), current_sddl(wide));
    std::string previous;
    if (!setPathPermissions(wide, sids, &previous, /*denyOthers=*/true)) {
        if (!recorded_before) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, blocked_files_key, path.c_str());
        return false;
    }
    {
        driver_port port = openDriverPort();
        if (port) drvProtectFolder(port.get(), wide, /*remove=*/false, /*block=*/true);
    }
    if (!recorded_before) {
        blocked_files_.emplace(path, previous);
        (void)mcl::mswin::reg::write_string(blocked_files_key, path.c_str(), previous);
    }
    return true;
}

bool chelperservice::unblockFileAccess(const std::string& path) {
    if (path.empty()) return false;
    const std::wstring wide = mcl::mswin::widen(path);
    {
        driver_port port = openDriverPort();
        if (port) drvProtectFolder(port.get(), wide, /*remove=*/true, /*block=*/true);
    }
    auto it = blocked_files_.find(path);
    if (it != blocked_files_.end()) {
        const bool restored = !it->second.empty() && restorePathPermissions(wide, it->second.c_str());
        blocked_files_.erase(it);
        (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, blocked_files_key, path.c_str());
        if (restored) return true;
    }
    const size_t slash = path.rfind('\\');
    if (slash != std::string::npos && setQuarantineFilePermissions(path, path.substr(0, slash))) return true;
    return restorePathPermissions(wide, default_folder_sddl);
}

void chelperservice::block_file_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    std::string path;
    if (!read_lowered_path(payload, path)) {
        mcl::write_status(payload, false, "");
    } else if (is_quarantined_file(path)) {
        mcl::write_status(payload, true, already_quarantined);
    } else {
        mcl::write_status(payload, blockFileAccess(path, {}), "");
    }
}

void chelperservice::unblock_file_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    std::string path;
    if (!read_lowered_path(payload, path)) {
        mcl::write_status(payload, false, "");
    } else if (is_quarantined_file(path)) {
        mcl::write_status(payload, false, already_quarantined);
    } else {
        mcl::write_status(payload, unblockFileAccess(path), "");
    }
}

void chelperservice::block_files_access(mcl::ipc_connection*, mcl::binary_t& payload) {
    uint32_t action = 0;
    std::vector<std::string> services, paths;
    uint32_t pos = 0;
    const bool decoded = mcl::read_u32(action, payload, pos) && mcl::read_string_list(services, payload, pos) &&
                         mcl::read_string_list(paths, payload, pos);
    payload.clear();
    if (!decoded) {
        mcl::write_status(payload, false, "");
        return;
    }
    std::string failed;
    for (const std::string& raw : paths) {
        const std::string path = mcl::mswin::lower_case(raw);
        bool ok = true;
        if (action == 0) {
            if (!is_quarantined_file(path)) ok = blockFileAccess(path, services);
        } else {
            ok = !is_quarantined_file(path) && unblockFileAccess(path);
        }
        if (!ok) failed += path + ";";
    }
    mcl::write_status(payload, true, failed);
}

void chelperservice::is_file_access_blocked(mcl::ipc_connection*, mcl::binary_t& payload) {
    std::string path;
    if (!read_lowered_path(payload, path)) {
        mcl::write_status(payload, false, "");
        return;
    }
    mcl::write_status(payload, true, blocked_files_.count(path) != 0 ? "yes" : "no");
}
