// Protected process images and their folders: the image rule and the folder rule in the driver,
// and the folder's DACL.
#include <windows.h>

#include "mcl/log.h"
#include "mcl/mswin/path_policy.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"
#include "protocol/driver_protocol.h"
#include "service/folder_security.h"
#include "service/object_security.h"
#include "service/process_protection.h"

namespace {

using mcl::mswin::security_descriptor;
using mcl::mswin::sid;

constexpr size_t max_image_path = MAX_PATH;

// The driver and the folder rewrite need a folder below a drive root: "X:\name...".
bool is_protectable_folder(const std::wstring& folder) {
    return folder.size() > 3 && folder.size() <= max_image_path && mcl::mswin::has_drive_prefix(folder);
}

}  // namespace

std::wstring process_protection::image_folder_of(const std::wstring& imagePath) {
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

bool process_protection::protectProcess(const std::wstring& imagePath, const sid& ownSid, process_record& record) {
    constexpr const char* fn = "chelperservice::protectProcess";
    NV_LOG(fn, "Trying to protect process (%ls)\n", imagePath.c_str());
    if (!enabled_) {
        NV_LOG(fn, "Process protection function is disabled\n");
        return false;
    }
    std::wstring folder = image_folder_of(imagePath);
    if (imagePath.size() > max_image_path || !is_protectable_folder(folder)) {
        NV_LOG(fn, "Process image refused: it needs a folder below a drive root (X:\\folder), at most %d characters (%ls)",
               static_cast<int>(max_image_path), imagePath.c_str());
        return false;
    }
    // A folder the system or every user shares (the Windows folder of a service hosted there, a
    // Program Files root) is never rewritten nor reset: the image alone is protected.
    const std::string refusal = mcl::mswin::refused_path_reason(folder);
    if (!refusal.empty()) {
        mcl::mswin::unique_kernel_handle port = driver_.open_port();
        if (!port) return false;
        driver_.send_image_rule(port.get(), imagePath, /*remove=*/false);
        NV_LOG(fn, "Process %ls protected without its folder, %ls is %s", imagePath.c_str(), folder.c_str(),
               refusal.c_str());
        record.folder.clear();
        return true;
    }
    bool existing = false;
    folder_record target{std::string(), folder, 0};
    for (const auto& entry : protected_folders_) {
        if (_wcsicmp(entry.second.folder.c_str(), folder.c_str()) == 0) {
            folder = entry.second.folder;
            target = entry.second;
            existing = true;
            break;
        }
    }
    record.folder = folder;

    const std::vector<sid> sids = sharers_.folder_sids(folder, ownSid);

    mcl::mswin::unique_kernel_handle port = driver_.open_port();
    if (!port) return false;
    driver_.send_image_rule(port.get(), imagePath, /*remove=*/false);
    if (existing) driver_.enable_feature(port.get(), vqr::code::feature_folder_protection, false);
    (void)folder_security::setPathPermissions(folder, sids, nullptr, /*denyOthers=*/false);

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
    driver_.enable_feature(port.get(), vqr::code::feature_folder_protection, true);
    driver_.send_folder_rule(port.get(), folder, /*remove=*/false, /*block=*/false);
    ++target.refCount;
    mcl::scoped_lock guard(lock_);
    protected_folders_[folder] = target;
    return true;
}

bool process_protection::unprotectProcess(const process_record& record, bool force) {
    constexpr const char* fn = "chelperservice::unprotectProcess";
    NV_LOG(fn, "Trying to unprotect process (%ls)\n", record.imagePath.c_str());
    mcl::mswin::unique_kernel_handle port = driver_.open_port();
    if (!port) {
        if (!force) return false;
        // Never a folder the image was protected without (nor one it would have been).
        if (record.folder.empty() || !mcl::mswin::refused_path_reason(record.folder).empty()) return true;
        NV_LOG(fn, "Failed to connect driver,  reset the folder permissions (%ls)\n", record.folder.c_str());
        (void)folder_security::restorePathPermissions(record.folder, folder_security::default_folder_sddl);
        forget_folder(record.folder);
        return true;
    }
    driver_.send_image_rule(port.get(), record.imagePath, /*remove=*/true);
    auto it = protected_folders_.find(record.folder);
    if (it == protected_folders_.end()) return true;
    if (it->second.refCount > 1) {
        mcl::scoped_lock guard(lock_);
        --it->second.refCount;
        return true;
    }
    driver_.send_folder_rule(port.get(), record.folder, /*remove=*/true, /*block=*/false);
    (void)folder_security::restorePathPermissions(record.folder, folder_security::default_folder_sddl);
    forget_folder(record.folder);
    return true;
}

bool process_protection::handle_protect_processes(const std::vector<process_rule>& rules) {
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
        if (mcl::stop_requested()) {
            NV_LOG(fn, "Process %ls and the processes after it are left as they are: the service is stopping.",
                   rule.imagePath.c_str());
            return false;
        }
        auto it = protected_processes_.find(rule.imagePath);
        if (!rule.protect) {
            if (it == protected_processes_.end()) continue;
            if (!unprotectProcess(it->second, /*force=*/false)) {
                result = false;
                continue;
            }
            NV_LOG(fn, "Process %ls has been unprotected.", rule.imagePath.c_str());
            unlist_process(rule.imagePath);
        } else if (it == protected_processes_.end()) {
            if (mcl::mswin::path_refused(fn, "protect processes", rule.imagePath)) {
                result = false;
                continue;
            }
            process_record record{rule.imagePath, std::wstring()};
            if (!protectProcess(rule.imagePath, own, record)) {
                result = false;
                continue;
            }
            list_process(record);
            NV_LOG(fn, "Process %ls has been protected.", rule.imagePath.c_str());
        }
    }
    return result;
}

void process_protection::stopProtectingProcess() {
    {
        mcl::mswin::unique_kernel_handle port = driver_.open_port();
        if (port) {
            driver_.send_image_rule(port.get(), std::wstring(), /*remove=*/true);
            driver_.send_folder_rule(port.get(), std::wstring(), /*remove=*/true, /*block=*/false);
        }
    }
    driver_.detach_all_volumes();
    restoreProtectedFolders();
    mcl::scoped_lock guard(lock_);
    protected_processes_.clear();
    protected_folders_.clear();
}

void process_protection::restoreProtectedFolders() {
    for (const auto& entry : protected_folders_) (void)folder_security::restorePathPermissions(entry.second.folder, folder_security::default_folder_sddl);
}

bool process_protection::apply_service_image(const std::wstring& image, bool protect, const sid& ownSid, bool logFailure) {
    constexpr const char* fn = "chelperservice::handle_protect_services";
    auto it = protected_processes_.find(image);
    if (!protect) {
        process_record temporary{image, image_folder_of(image)};
        const process_record& record = it != protected_processes_.end() ? it->second : temporary;
        if (!unprotectProcess(record, /*force=*/true)) {
            if (logFailure) NV_LOG(fn, "Failed to unprotect process: %ls", image.c_str());
            return false;
        }
        if (it != protected_processes_.end()) unlist_process(image);
        NV_LOG(fn, "Process %ls has been unprotected.", image.c_str());
        return true;
    }
    if (it != protected_processes_.end()) return true;
    process_record record{image, std::wstring()};
    if (!protectProcess(image, ownSid, record)) {
        if (logFailure) NV_LOG(fn, "Failed to protect process: %ls", image.c_str());
        return false;
    }
    list_process(record);
    NV_LOG(fn, "Process %ls has been protected.", image.c_str());
    return true;
}

void process_protection::forget_folder(const std::wstring& folder) {
    mcl::scoped_lock guard(lock_);
    protected_folders_.erase(folder);
}

void process_protection::list_process(const process_record& record) {
    mcl::scoped_lock guard(lock_);
    protected_processes_[record.imagePath] = record;
}

void process_protection::unlist_process(const std::wstring& imagePath) {
    mcl::scoped_lock guard(lock_);
    protected_processes_.erase(imagePath);
}

process_protection::tables process_protection::snapshot() const {
    mcl::scoped_lock guard(lock_);
    return tables{protected_processes_, protected_folders_};
}

std::vector<std::wstring> process_protection::folder_paths() const {
    mcl::scoped_lock guard(lock_);
    std::vector<std::wstring> paths;
    for (const auto& entry : protected_folders_) paths.push_back(entry.second.folder);
    return paths;
}
