// The service protection requests and steps of the service: the rule lists drive the service
// protection and, for each service's image, the process protection; self-protection and the
// persisted services at start-up.
#include <windows.h>

#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "mcl/thread.h"
#include "service/helper_service.h"

using mcl::mswin::sid;

bool chelperservice::handle_protect_services(const std::vector<service_rule>& rules, std::string* not_applied,
                                             const std::map<std::string, std::wstring>* known_images) {
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
        const std::vector<std::wstring> images = services_.images();
        if (!all.protectService && !services_.unprotect_all()) result = false;
        for (const std::wstring& image : images)
            if (!processes_.apply_service_image(image, all.protectProcess, own, /*logFailure=*/false)) result = false;
        return result;
    }
    for (const service_rule& rule : rules) {
        if (rule.name.empty()) continue;
        if (mcl::stop_requested()) {
            NV_LOG(fn, "Service %s and the services after it are left as they are: the service is stopping.",
                   rule.name.c_str());
            return false;
        }
        std::wstring image;
        const std::wstring* known_image = nullptr;
        if (known_images != nullptr) {
            const auto known = known_images->find(rule.name);
            if (known != known_images->end()) known_image = &known->second;
        }
        if (!services_.apply_rule(rule, own, image, not_applied, known_image)) result = false;
        if (!image.empty() && !processes_.apply_service_image(image, rule.protectProcess, own, /*logFailure=*/true))
            result = false;
    }
    return result;
}

bool chelperservice::unprotectService(const service_record& record) { return services_.unprotectService(record); }

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
    std::vector<std::string> automatic;  // enforced once protected
    std::map<std::string, std::wstring> images;
    for (const std::string& name : names) {
        if (name.find('\\') != std::string::npos) continue;  // a service's original DACL, not a service
        NV_LOG(fn, "Read protected service: %s", name.c_str());
        // One read of the configuration: whether it is installed, how it starts, and (for the
        // protect) its image.
        mcl::binary_t config;
        if (!mcl::mswin::service::query_config(mcl::mswin::widen(name).c_str(), config)) continue;
        rules.push_back(service_rule{true, true, name});
        NV_LOG(fn, "Loading protected service: %s", name.c_str());
        if (name != mcl::mswin::service::default_name && config.size() >= sizeof(QUERY_SERVICE_CONFIGW) &&
            reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(config.data())->dwStartType < SERVICE_DEMAND_START)
            automatic.push_back(name);
        images[name] = service_protection::image_path_of(config);
    }
    if (rules.empty()) return;
    (void)handle_protect_services(rules, nullptr, &images);
    for (const std::string& name : automatic) {
        NV_LOG(fn, "Enforce service %s...", name.c_str());
        enforcement_.add(name);
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
    std::string not_applied;
    const bool ok = handle_protect_services(request.rules, &not_applied);
    protocol::reply_with(payload, protocol::status(ok, not_applied));
    return true;
}

bool chelperservice::query_protected_services(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protected_services_reply reply;
    const process_protection::tables tables = processes_.snapshot();
    for (const auto& entry : services_.services()) {
        if (entry.first.empty()) continue;
        const service_record& svc = entry.second;
        const process_record* process = nullptr;
        const folder_record* folder = nullptr;
        if (!svc.imagePath.empty()) {
            auto p = tables.processes.find(svc.imagePath);
            if (p != tables.processes.end()) {
                process = &p->second;
                auto f = tables.folders.find(process->folder);
                if (f != tables.folders.end()) folder = &f->second;
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
