// The core's driver steps: the protection switches at start-up and shutdown, the master switch
// and the driver protection requests. The link itself is service/driver_link.cpp.
#include "service/helper_service.h"

void chelperservice::loadTrustedOpenApps() { driver_link::loadTrustedOpenApps(); }

void chelperservice::skipFirstServiceManagerOpen() {
    const driver_port port = openDriverPort();
    if (port) drvSkipProcessFirstSvcMgrOpen(port.get());
}

void chelperservice::enableDriverFeatures(bool on) {
    const driver_port port = openDriverPort();
    if (port) drvEnableProtectionFeatures(port.get(), on, on);
}

void chelperservice::setProtectionEnabled(bool on) {
    if (service_protection_enabled_ == on && process_protection_enabled_ == on && regkey_protection_enabled_ == on)
        return;
    service_protection_enabled_ = on;
    process_protection_enabled_ = on;
    regkey_protection_enabled_ = on;
    enableDriverFeatures(on);
    if (on) {
        startEnforcement();
        return;
    }
    // Every protected service with its image rule, then every image and folder rule; registry-key
    // rules stay (only feature 11 went off with the others).
    (void)handle_protect_services({service_rule{false, false, ""}});
    (void)handle_protect_processes({process_rule{false, L""}});
    stopEnforcement();
}

void chelperservice::setDriverProtection(bool on) {
    const driver_port port = openDriverPort();
    if (port) drvEnableProtectionFeatures(port.get(), on, regkey_protection_enabled_);
}

bool chelperservice::disable_driver_protection(mcl::ipc_connection*, mcl::binary_t& payload) {
    setDriverProtection(/*on=*/false);
    protocol::reply_with(payload, protocol::status(true));
    return true;
}

bool chelperservice::enable_driver_protection(mcl::ipc_connection*, mcl::binary_t& payload) {
    setDriverProtection(/*on=*/true);
    protocol::reply_with(payload, protocol::status(true));
    return true;
}

bool chelperservice::set_protection_enabled(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::protection_switch_request request;
    if (!protocol::decode(payload, request)) return false;
    setProtectionEnabled(request.on);
    protocol::reply_with(payload, protocol::status(true));
    return true;
}
