#include "service/quarantine_access.h"

#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"

bool full_access_service_sids(const char* fn, const char* target, const std::vector<std::string>& services,
                              std::vector<mcl::mswin::sid>& sids) {
    sids.clear();
    mcl::mswin::sid own;
    if (!mcl::mswin::service::get_sid(mcl::mswin::service::default_name, own)) {
        NV_LOG(fn, "Unable to get halvern service's SID.");
        return false;
    }
    sids.push_back(own);
    for (const std::string& name : services) {
        mcl::mswin::sid one;
        if (!mcl::mswin::service::get_sid(name.c_str(), one)) {
            NV_LOG(fn, "Unable configure the full access service %s, failed to get service's sid for: %s\n", target,
                   name.c_str());
            continue;
        }
        sids.push_back(one);
    }
    return true;
}
