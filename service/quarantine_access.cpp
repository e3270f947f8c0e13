#include "service/quarantine_access.h"

#include "app/log.h"
#include "mcl/mswin/service.h"

std::string lower_ascii(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

full_access_sids::~full_access_sids() {
    for (PSID sid : sids_) LocalFree(sid);
}

bool full_access_sids::build(const char* fn, const char* target, const std::vector<std::string>& services) {
    PSID own = nullptr;
    if (!mcl::mswin::service::get_sid(mcl::mswin::service::default_name, &own)) {
        NV_LOG(fn, "Unable to get halvern service's SID.");
        return false;
    }
    sids_.push_back(own);
    for (const std::string& name : services) {
        PSID sid = nullptr;
        if (!mcl::mswin::service::get_sid(name.c_str(), &sid)) {
            NV_LOG(fn, "Unable configure the full access service %s, failed to get service's sid for: %s\n", target,
                   name.c_str());
            continue;
        }
        sids_.push_back(sid);
    }
    return true;
}
