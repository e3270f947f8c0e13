// Protected process images and their folders: the image rule and the folder rule in the driver,
// the folder's DACL, and the requests that protect, unprotect and list images.
#include <windows.h>

#include <shlwapi.h>


#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "service/helper_service.h"
#include "service/object_security.h"

namespace {

using mcl::mswin::security_descriptor;
using mcl::mswin::sid;
using mcl::mswin::unique_heap;

constexpr DWORD folder_ace_flags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
constexpr DWORD folder_full_access = 0x101F01FF;
constexpr DWORD folder_other_access = 0xA01200A9;  // read and execute
constexpr size_t max_image_path = MAX_PATH;

// The driver and the folder rewrite need a folder below a drive root: "X:\name...".
bool is_protectable_folder(const std::wstring& folder) {
    return folder.size() > 3 && folder.size() <= max_image_path && mcl::mswin::has_drive_prefix(folder);
}

}  // namespace

std::wstring chelperservice::image_folder_of(const std::wstring& imagePath) {
    std::wstring s = imagePath.substr(0, max_image_path);
    const size_t drive = s.find(L":\\");
    if (drive != std::wstring::npos && drive > 0) {
        s = s.substr(drive - 1);
    } else if (!s.empty() && s[0] == L'"') {
        const size_t close = s.find(L'"', 1);
        s = s.substr(1, close == std::wstring::npos ? std::wstring::npos : close - 1);
    }
    const size_t last = s.rfind(L'\\');
    if (last != std::wstring::npos) s.resize(last);
    return s;
}

std::vector<sid> chelperservice::folder_sids(const std::wstring& folder, const sid& ownSid) {
    std::vector<sid> sids{ownSid};
    for (const auto& entry : protected_services_) {
        const service_record& svc = entry.second;
        if (svc.name == mcl::mswin::service::default_name || svc.imagePath.empty()) continue;
        if (StrStrIW(svc.imagePath.c_str(), folder.c_str()) == nullptr) continue;
        sid service_sid;
        if (!mcl::mswin::service::get_sid(svc.name.c_str(), service_sid) || service_sid == ownSid) continue;
        sids.push_back(service_sid);
    }
    return sids;
}

bool chelperservice::protectProcess(const std::wstring& imagePath, const sid& ownSid, process_record& record) {
    constexpr const char* fn = "chelperservice::protectProcess";
    NV_LOG(fn, "Trying to protect process (%ls)\n", imagePath.c_str());
    if (!process_protection_enabled_) {
        NV_LOG(fn, "Process protection function is disabled\n");
        return false;
    }
    std::wstring folder = image_folder_of(imagePath);
    if (imagePath.size() > max_image_path || !is_protectable_folder(folder)) {
        NV_LOG(fn, "Process image refused: it needs a folder below a drive root (X:\\folder), at most %d characters (%ls)",
               static_cast<int>(max_image_path), imagePath.c_str());
        return false;
    }
    folder_record* existing = nullptr;
    for (auto& entry : protected_folders_) {
        if (_wcsicmp(entry.second.folder.c_str(), folder.c_str()) == 0) {
            folder = entry.second.folder;
            existing = &entry.second;
            break;
        }
    }
    record.folder = folder;
    folder_record fresh{std::string(), folder, 0};
    folder_record& target = existing != nullptr ? *existing : fresh;

    const std::vector<sid> sids = folder_sids(folder, ownSid);

    driver_port port = openDriverPort();
    if (!port) return false;
    drvProtectProcess(port.get(), imagePath, /*remove=*/false);
    if (existing != nullptr) drvEnableFeature(port.get(), vqr::code::feature_folder_protection, false);
    (void)setPathPermissions(folder, sids, nullptr, /*denyOthers=*/false);

    security_descriptor descriptor;
    const DWORD err = object_security::current().get_file_dacl(folder, descriptor);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "GetNamedSecurityInfoW failed(%ls, %d)\n", folder.c_str(), static_cast<int>(err));
    } else {
        if (!descriptor.to_sddl(DACL_SECURITY_INFORMATION, target.sddl)) {
            NV_LOG(fn, "ConvertSecurityDescriptorToStringSecurityDescriptor failed on path %ls (%d)\n", folder.c_str(),
                   static_cast<int>(GetLastError()));
        }
    }
    drvEnableFeature(port.get(), vqr::code::feature_folder_protection, true);
    drvProtectFolder(port.get(), folder, /*remove=*/false, /*block=*/false);
    if (++target.refCount == 1) protected_folders_[folder] = target;
    return true;
}

bool chelperservice::setPathPermissions(const std::wstring& path, const std::vector<sid>& sids,
                                        std::string* originalSddl, bool denyOthers) {
    constexpr const char* fn = "chelperservice::setPathPermissions";
    if (sids.empty()) return false;
    NV_LOG(fn, "Updating permissions of folder (%ls)\n", path.c_str());
    security_descriptor descriptor;
    const DWORD err = object_security::current().get_file_dacl(path, descriptor);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "GetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(err));
        return false;
    }
    if (originalSddl != nullptr) {
        if (!descriptor.to_sddl(DACL_SECURITY_INFORMATION, *originalSddl)) {
            NV_LOG(fn, "ConvertSecurityDescriptorToStringSecurityDescriptor failed on path %ls (%d)\n", path.c_str(),
                   static_cast<int>(GetLastError()));
            return false;
        }
        NV_LOG(fn, "folder %ls's original DACL SD String:\n%s", path.c_str(), originalSddl->c_str());
    }
    PACL raw_new = nullptr;
    if (!mcl::mswin::service::update_dacl_with_selected_full_access_sids(
            descriptor.dacl(), sids, folder_ace_flags, folder_full_access, denyOthers ? 0 : folder_other_access, &raw_new)) {
        NV_LOG(fn, "Failed to generate the new dacl\n");
        return false;
    }
    unique_heap new_dacl(raw_new);
    const DWORD set_err = object_security::current().set_file_dacl(path, raw_new, /*protect=*/true);
    if (set_err != ERROR_SUCCESS) {
        NV_LOG(fn, "SetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(set_err));
        return false;
    }
    return true;
}

bool chelperservice::restorePathPermissions(const std::wstring& path, const char* sddl) {
    constexpr const char* fn = "chelperservice::restorePathPermissions";
    NV_LOG(fn, "Restoring permissions of folder (%ls)\n", path.c_str());
    DWORD err = ERROR_SUCCESS;
    if (object_security::current().set_file_sddl(fn, path, sddl, err)) return true;
    if (err != ERROR_SUCCESS) NV_LOG(fn, "SetNamedSecurityInfoW failed(%ls, %d)\n", path.c_str(), static_cast<int>(err));
    return false;
}

bool chelperservice::unprotectProcess(const process_record& record, bool force) {
    constexpr const char* fn = "chelperservice::unprotectProcess";
    NV_LOG(fn, "Trying to unprotect process (%ls)\n", record.imagePath.c_str());
    driver_port port = openDriverPort();
    if (!port) {
        if (!force) return false;
        NV_LOG(fn, "Failed to connect driver,  reset the folder permissions (%ls)\n", record.folder.c_str());
        (void)restorePathPermissions(record.folder, default_folder_sddl);
        protected_folders_.erase(record.folder);
        return true;
    }
    drvProtectProcess(port.get(), record.imagePath, /*remove=*/true);
    auto it = protected_folders_.find(record.folder);
    if (it != protected_folders_.end() && --it->second.refCount == 0) {
        drvProtectFolder(port.get(), record.folder, /*remove=*/true, /*block=*/false);
        (void)restorePathPermissions(record.folder, default_folder_sddl);
        protected_folders_.erase(it);
    }
    return true;
}

bool chelperservice::handle_protect_processes(const std::vector<process_rule>& rules) {
    constexpr const char* fn = "chelperservice::handle_protect_processes";
    if (rules.empty()) {
        NV_LOG(fn, "No process set to (un)protect.");
        return true;
    }
    sid own;
    if (!mcl::mswin::service::get_sid(mcl::mswin::service::default_name, own)) {
        NV_LOG(fn, "Unable to get halvern service's SID.");
        return true;
    }
    if (rules.front().imagePath.empty()) {
        if (!rules.front().protect) stopProtectingProcess();
        return true;
    }
    bool result = true;
    for (const process_rule& rule : rules) {
        if (rule.imagePath.empty()) continue;
        auto it = protected_processes_.find(rule.imagePath);
        if (!rule.protect) {
            if (it == protected_processes_.end()) continue;
            if (!unprotectProcess(it->second, /*force=*/false)) {
                result = false;
                continue;
            }
            NV_LOG(fn, "Process %ls has been unprotected.", rule.imagePath.c_str());
            protected_processes_.erase(it);
        } else if (it == protected_processes_.end()) {
            process_record record{rule.imagePath, std::wstring()};
            if (!protectProcess(rule.imagePath, own, record)) {
                result = false;
                continue;
            }
            protected_processes_[rule.imagePath] = record;
            NV_LOG(fn, "Process %ls has been protected.", rule.imagePath.c_str());
        }
    }
    return result;
}

void chelperservice::stopProtectingProcess() {
    {
        driver_port port = openDriverPort();
        if (port) {
            drvProtectProcess(port.get(), std::wstring(), /*remove=*/true);
            drvProtectFolder(port.get(), std::wstring(), /*remove=*/true, /*block=*/false);
        }
    }
    detachAllVolumes();
    restoreProtectedFolders();
    protected_processes_.clear();
    protected_folders_.clear();
}

void chelperservice::restoreProtectedFolders() {
    for (const auto& entry : protected_folders_) (void)restorePathPermissions(entry.second.folder, default_folder_sddl);
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
    for (const auto& entry : protected_processes_) {
        if (entry.first.empty()) continue;
        auto folder = protected_folders_.find(entry.second.folder);
        protocol::protected_process_info info;
        info.valid = true;
        info.folder_sddl = folder == protected_folders_.end() ? std::string() : folder->second.sddl;
        info.image_path = entry.second.imagePath;
        info.folder = entry.second.folder;
        reply.processes.push_back(std::move(info));
    }
    protocol::reply_with(payload, reply);
    return true;
}
