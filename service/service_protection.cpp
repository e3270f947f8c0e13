// Protected services: their DACL, their persisted entries and the table of them.
#include <windows.h>

#include <shlwapi.h>

#include <cstring>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "service/object_security.h"
#include "service/service_protection.h"

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

std::wstring service_protection::service_image_path(const std::string& name) {
    mcl::binary_t config;
    const std::wstring wname = mcl::mswin::widen(name);
    if (!mcl::mswin::service::query_config(wname.c_str(), config)) return {};
    return image_path_of(config);
}

std::wstring service_protection::image_path_of(const mcl::binary_t& config) {
    if (config.size() < sizeof(QUERY_SERVICE_CONFIGW)) return {};
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

bool service_protection::protectService(const std::string& name, const sid& ownSid, service_record& record,
                                       bool* unrecorded, const std::wstring* known_image) {
    constexpr const char* fn = "chelperservice::protectService";
    NV_LOG(fn, "Trying to protect service (%s)\n", name.c_str());
    if (!enabled_) {
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

    // The records go first: a kill after the DACL write leaves a service that the next start
    // protects again from its record, and whose original DACL an unprotect gives back. An
    // original recorded by an earlier protect is the one from before that protect: kept. When a
    // record cannot be written (the key refused) nothing changes: what this call wrote goes again.
    std::string original;
    const bool had_original = recorded_original_dacl(name, original);
    const bool wrote_original =
        !had_original && descriptor.to_sddl(DACL_SECURITY_INFORMATION, original) &&
        mcl::mswin::reg::write_string(protected_services_key, original_dacl_value(name).c_str(), original);
    uint32_t listed = 0;
    const bool had_record = mcl::mswin::reg::read_dword(protected_services_key, name.c_str(), listed);
    const bool wrote_record = !had_record && mcl::mswin::reg::write_dword(protected_services_key, name.c_str(), 1);
    const auto take_back = [&] {
        if (wrote_record) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_services_key, name.c_str());
        if (wrote_original)
            (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_services_key, original_dacl_value(name).c_str());
    };
    if ((!had_original && !wrote_original) || (!had_record && !wrote_record)) {
        NV_LOG(fn, "Original dacl of service %s could not be recorded, the dacl is left as it is", name.c_str());
        take_back();
        if (unrecorded != nullptr) *unrecorded = true;
        return false;
    }
    // A DACL already in place (a restart protecting from its records) is not written again.
    const bool in_place = descriptor.dacl_equals(raw_new);
    if (!set_sid_type_or_unsupported(name) || (!in_place && !security.set_service_dacl(name, raw_new))) {
        take_back();  // nothing changed
        return false;
    }

    security_descriptor applied;
    if (in_place) {
        (void)descriptor.to_sddl(DACL_SECURITY_INFORMATION, record.sddl);
    } else if (security.get_service_dacl(name, applied) == ERROR_SUCCESS) {
        (void)applied.to_sddl(DACL_SECURITY_INFORMATION, record.sddl);
    }
    const std::string sid_text = service_sid.to_string();
    if (!sid_text.empty()) record.sid = sid_text;
    const std::wstring image = known_image != nullptr ? *known_image : service_image_path(name);
    if (!image.empty()) {
        record.imagePath = image;
        NV_LOG(fn, "Get service %s image path %ls", name.c_str(), image.c_str());
    }
    const std::string image_utf8 = mcl::mswin::to_utf8(record.imagePath);
    if (!image_utf8.empty()) (void)mcl::mswin::reg::write_dword(protected_processes_key, image_utf8.c_str(), 1);

    DWORD state = 0;
    const bool queried = mcl::mswin::service::query_state(name.c_str(), state);
    if (!queried || (state != SERVICE_STOPPED && state != SERVICE_STOP_PENDING)) enforcement_.add(name);
    return true;
}

bool service_protection::unprotectService(const service_record& record) {
    NV_LOG("chelperservice::unprotectService", "Trying to unprotect service (%s)\n", record.name.c_str());
    // The DACL from before the first protect when it was recorded (the default service DACL for
    // a service protected before originals were kept); the records go only once it is back.
    std::string original;
    const bool recorded = !record.name.empty() && recorded_original_dacl(record.name, original);
    if (!object_security::current().set_service_sddl(record.name, recorded ? original.c_str() : default_service_sddl))
        return false;
    enforcement_.remove(record.name);
    if (!record.name.empty()) {
        (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_services_key, record.name.c_str());
        if (recorded) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_services_key,
                                          original_dacl_value(record.name).c_str());
    }
    const std::string image_utf8 = mcl::mswin::to_utf8(record.imagePath);
    if (!image_utf8.empty()) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, protected_processes_key, image_utf8.c_str());
    return true;
}

bool service_protection::recorded_original_dacl(const std::string& name, std::string& sddl) {
    return mcl::mswin::reg::read_string(protected_services_key, original_dacl_value(name).c_str(), sddl) &&
           !sddl.empty();
}

std::vector<sid> service_protection::folder_sids(const std::wstring& folder, const sid& ownSid) {
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

bool service_protection::apply_rule(const service_rule& rule, const sid& ownSid, std::wstring& image,
                                    std::string* not_applied, const std::wstring* known_image) {
    constexpr const char* fn = "chelperservice::handle_protect_services";
    auto it = protected_services_.find(rule.name);
    if (!rule.protectService && it != protected_services_.end()) {
        if (!unprotectService(it->second)) {
            NV_LOG(fn, "Failed to unprotect service: %s", rule.name.c_str());
            return false;
        }
        image = it->second.imagePath;
        {
            mcl::scoped_lock guard(lock_);
            protected_services_.erase(it);
        }
        NV_LOG(fn, "Service %s has been unprotected.", rule.name.c_str());
    } else if (rule.protectService && it == protected_services_.end()) {
        service_record record;
        record.name = rule.name;
        bool unrecorded = false;
        if (!protectService(rule.name, ownSid, record, &unrecorded, known_image)) {
            NV_LOG(fn, "Failed to protect service: %s", rule.name.c_str());
            if (unrecorded && not_applied != nullptr) {
                if (!not_applied->empty()) not_applied->push_back(' ');
                *not_applied += "Service " + rule.name + " was not protected: its original DACL could not be recorded.";
            }
            return false;
        }
        image = record.imagePath;
        {
            mcl::scoped_lock guard(lock_);
            protected_services_[rule.name] = record;
        }
        NV_LOG(fn, "Service %s has been protected.", rule.name.c_str());
    }
    return true;
}

std::vector<std::wstring> service_protection::images() const {
    std::vector<std::wstring> out;
    for (const auto& entry : protected_services_)
        if (!entry.second.imagePath.empty()) out.push_back(entry.second.imagePath);
    return out;
}

bool service_protection::unprotect_all() {
    constexpr const char* fn = "chelperservice::handle_protect_services";
    bool result = true;
    for (const auto& entry : protected_services_) {
        if (!unprotectService(entry.second)) {
            result = false;
        } else {
            NV_LOG(fn, "Service %s has been unprotected.", entry.first.c_str());
        }
    }
    mcl::scoped_lock guard(lock_);
    protected_services_.clear();
    return result;
}

std::map<std::string, service_protection::service_record> service_protection::services() const {
    mcl::scoped_lock guard(lock_);
    return protected_services_;
}
