// Protected services: their DACL, their persisted entries, their images (through the process
// rules) and the requests that protect, unprotect and list them; self-protection at start-up.
#include <windows.h>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "service/helper_service.h"
#include "service/object_security.h"

namespace {

using mcl::mswin::security_descriptor;
using mcl::mswin::sid;
using mcl::mswin::unique_heap;

constexpr DWORD service_full_access = 0x101F01FF;
// Query configuration, query status, enumerate dependents, interrogate, read control.
constexpr DWORD service_other_access = 0x2008D;

// Systems without service SID types refuse the setting with one of these; the service's DACL
// still protects it there, so the step counts as done (said once per process).
bool set_sid_type_or_unsupported(const std::string& name) {
    if (mcl::mswin::service::set_sid_type(name.c_str())) return true;
    const DWORD err = GetLastError();
    if (err != ERROR_INVALID_LEVEL && err != ERROR_INVALID_PARAMETER) return false;
    static bool said = false;
    if (!said) {
        said = true;
        NV_LOG("chelperservice::protectService",
               "This system has no service SID types (%d): service DACLs apply without them", static_cast<int>(err));
    }
    return true;
}

}  // namespace

std::wstring chelperservice::service_image_path(const std::string& name) {
    mcl::binary_t config;
    const std::wstring wname = mcl::mswin::widen(name);
    if (!mcl::mswin::service::query_config(wname.c_str(), config) || config.size() < sizeof(QUERY_SERVICE_CONFIGW))
        return {};
    const auto* record = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(config.data());
    if (record->lpBinaryPathName == nullptr) return {};
    std::wstring path = record->lpBinaryPathName;
    const size_t last_quote = path.rfind(L'"');
    if (last_quote != std::wstring::npos) path.resize(last_quote + 1);
    std::wstring out;
    for (wchar_t c : path)
        if (c != L'"') out += c;
    return out;
}

bool chelperservice::protectService(const std::string& name, const sid& ownSid, service_record& record) {
    constexpr const char* fn = "chelperservice::protectService";
    NV_LOG(fn, "Trying to protect service (%s)\n", name.c_str());
    if (!service_protection_enabled_) {
        NV_LOG(fn, "Service protection function is disabled\n");
        return false;
    }
    sid service_sid;
    if (!mcl::mswin::service::get_sid(name.c_str(), service_sid)) {
        NV_LOG(fn, "Unable to get service's sid\n");
        return false;
    }
    std::vector<sid> sids{ownSid};
    if (ownSid != service_sid) sids.push_back(service_sid);

    object_security& security = object_security::current();
    security_descriptor descriptor;
    const DWORD err = security.get_service_dacl(name, descriptor);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "GetNamedSecurityInfo failed(%s, %d)\n", name.c_str(), static_cast<int>(err));
        return false;
    }
    PACL raw_new = nullptr;
    if (!mcl::mswin::service::update_dacl_with_selected_full_access_sids(descriptor.dacl(), sids, 0, service_full_access,
                                                                        service_other_access, &raw_new)) {
        NV_LOG(fn, "Failed to build new dacl\n");
        return false;
    }
    unique_heap new_dacl(raw_new);
    if (!set_sid_type_or_unsupported(name) || !security.set_service_dacl(name, raw_new)) return false;

    security_descriptor applied;
    if (security.get_service_dacl(name, applied) == ERROR_SUCCESS) (void)applied.to_sddl(DACL_SECURITY_INFORMATION, record.sddl);
    const std::string sid_text = service_sid.to_string();
    if (!sid_text.empty()) record.sid = sid_text;
    const std::wstring image = service_image_path(name);
    if (!image.empty()) {
        record.imagePath = image;
        NV_LOG(fn, "Get service %s image path %ls", name.c_str(), image.c_str());
    }
    if (!record.name.empty()) (void)mcl::mswin::reg::write_dword(protected_services_key, record.name.c_str(), 1);
    const std::string image_utf8 = mcl::mswin::to_utf8(record.imagePath);
    if (!image_utf8.empty()) (void)mcl::mswin::reg::write_dword(protected_processes_key, image_utf8.c_str(), 1);

    DWORD state = 0;
    const bool queried = mcl::mswin::service::query_state(name.c_str(), state);
    if (!queried || (state != SERVICE_STOPPED && state != SERVICE_STOP_PENDING)) enforce_add(name);
    return true;
}

bool chelperservice::unprotectService(const service_record& record) {
    NV_LOG("chelperservice::unprotectService", "Trying to unprotect service (%s)\n", record.name.c_str());
    enforce_remove(record.name);
    if (!record.name.empty()) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_services_key, record.name.c_str());
    const std::string image_utf8 = mcl::mswin::to_utf8(record.imagePath);
    if (!image_utf8.empty()) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_processes_key, image_utf8.c_str());
    return object_security::current().set_service_sddl(record.name, default_service_sddl);
}

bool chelperservice::apply_service_image(const std::wstring& image, bool protect, const sid& ownSid, bool logFailure) {
    constexpr const char* fn = "chelperservice::handle_protect_services";
    auto it = protected_processes_.find(image);
    if (!protect) {
        process_record temporary{image, image_folder_of(image)};
        const process_record& record = it != protected_processes_.end() ? it->second : temporary;
        if (!unprotectProcess(record, /*force=*/true)) {
            if (logFailure) NV_LOG(fn, "Failed to unprotect process: %ls", image.c_str());
            return false;
        }
        if (it != protected_processes_.end()) protected_processes_.erase(it);
        NV_LOG(fn, "Process %ls has been unprotected.", image.c_str());
        return true;
    }
    if (it != protected_processes_.end()) return true;
    process_record record{image, std::wstring()};
    if (!protectProcess(image, ownSid, record)) {
        if (logFailure) NV_LOG(fn, "Failed to protect process: %ls", image.c_str());
        return false;
    }
    protected_processes_[image] = record;
    NV_LOG(fn, "Process %ls has been protected.", image.c_str());
    return true;
}

bool chelperservice::handle_protect_services(const std::vector<service_rule>& rules) {
    constexpr const char* fn = "chelperservice::handle_protect_services";
    if (rules.empty()) {
        NV_LOG(fn, "No service set to (un)protect.");
        return true;
    }
    sid own;
    if (!mcl::mswin::service::get_sid(mcl::mswin::service::default_name, own)) {
        NV_LOG(fn, "Unable to get halvern service's SID.");
        return true;
    }
    bool result = true;
    if (rules.front().name.empty()) {
        const service_rule& all = rules.front();
        std::vector<std::wstring> images;
        for (const auto& entry : protected_services_)
            if (!entry.second.imagePath.empty()) images.push_back(entry.second.imagePath);
        if (!all.protectService) {
            for (const auto& entry : protected_services_) {
                if (!unprotectService(entry.second)) {
                    result = false;
                } else {
                    NV_LOG(fn, "Service %s has been unprotected.", entry.first.c_str());
                }
            }
            protected_services_.clear();
        }
        for (const std::wstring& image : images)
            if (!apply_service_image(image, all.protectProcess, own, /*logFailure=*/false)) result = false;
        return result;
    }
    for (const service_rule& rule : rules) {
        if (rule.name.empty()) continue;
        std::wstring image;
        auto it = protected_services_.find(rule.name);
        if (!rule.protectService && it != protected_services_.end()) {
            if (!unprotectService(it->second)) {
                NV_LOG(fn, "Failed to unprotect service: %s", rule.name.c_str());
                result = false;
            } else {
                image = it->second.imagePath;
                protected_services_.erase(it);
                NV_LOG(fn, "Service %s has been unprotected.", rule.name.c_str());
            }
        } else if (rule.protectService && it == protected_services_.end()) {
            service_record record;
            record.name = rule.name;
            if (!protectService(rule.name, own, record)) {
                NV_LOG(fn, "Failed to protect service: %s", rule.name.c_str());
                result = false;
            } else {
                image = record.imagePath;
                protected_services_[rule.name] = record;
                NV_LOG(fn, "Service %s has been protected.", rule.name.c_str());
            }
        }
        if (!image.empty() && !apply_service_image(image, rule.protectProcess, own, /*logFailure=*/true))
            result = false;
    }
    return result;
}

void chelperservice::protectSelf(bool on) {
    NV_LOG("chelperservice::protectSelf", "handle_protect_services %s %s", mcl::mswin::service::default_name,
           on ? "on" : "off");
    (void)handle_protect_services({service_rule{on, on, mcl::mswin::service::default_name}});
}

void chelperservice::loadProtectedService() {
    constexpr const char* fn = "chelperservice::loadProtectedService";
    std::vector<std::string> names;
    (void)mcl::mswin::reg::list_values(protected_services_key, names);
    std::vector<service_rule> rules;
    for (const std::string& name : names) {
        NV_LOG(fn, "Read protected service: %s", name.c_str());
        if (!mcl::mswin::service::is_service_installed(name.c_str())) continue;
        rules.push_back(service_rule{true, true, name});
        NV_LOG(fn, "Loading protected service: %s", name.c_str());
    }
    if (rules.empty()) return;
    (void)handle_protect_services(rules);
    for (const service_rule& rule : rules) {
        if (rule.name == mcl::mswin::service::default_name) continue;
        mcl::binary_t config;
        if (!mcl::mswin::service::query_config(rule.name.c_str(), config) || config.size() < sizeof(QUERY_SERVICE_CONFIGA))
            continue;
        if (reinterpret_cast<const QUERY_SERVICE_CONFIGA*>(config.data())->dwStartType >= SERVICE_DEMAND_START) continue;
        NV_LOG(fn, "Enforce service %s...", rule.name.c_str());
        enforce_add(rule.name);
    }
}

void chelperservice::unprotectServiceByName(const std::string& name) {
    service_record record;
    record.name = name;
    (void)unprotectService(record);
}

bool chelperservice::protect_services(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::protect_services";
    protocol::protect_services_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG(fn, "Malformed service rule list (%d bytes): nothing applied", static_cast<int>(payload.size()));
        return false;
    }
    if (!request.rules.empty()) NV_LOG(fn, "protect service %s", request.rules.front().name.c_str());
    const bool ok = handle_protect_services(request.rules);
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}

bool chelperservice::query_protected_services(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protected_services_reply reply;
    for (const auto& entry : protected_services_) {
        if (entry.first.empty()) continue;
        const service_record& svc = entry.second;
        const process_record* process = nullptr;
        const folder_record* folder = nullptr;
        if (!svc.imagePath.empty()) {
            auto p = protected_processes_.find(svc.imagePath);
            if (p != protected_processes_.end()) {
                process = &p->second;
                auto f = protected_folders_.find(process->folder);
                if (f != protected_folders_.end()) folder = &f->second;
            }
        }
        protocol::protected_service_info info;
        info.valid = true;
        info.process_protected = process != nullptr;
        info.service_sddl = svc.sddl;
        info.folder_sddl = folder != nullptr ? folder->sddl : std::string();
        info.name = svc.name;
        info.sid = svc.sid;
        info.image_path = svc.imagePath;
        info.folder = process != nullptr ? process->folder : std::wstring();
        reply.services.push_back(std::move(info));
    }
    protocol::reply_with(payload, reply);
    return true;
}
