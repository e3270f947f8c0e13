// The core's IRP notification steps and requests: feature 16 and the receiver at start-up and
// shutdown, and the subscribe and query requests, which decode, call the notifier and encode.
// The notifier itself is service/irp_notifier.cpp.
#include <windows.h>

#include <string>
#include <vector>

#include <aclapi.h>

#include "mcl/log.h"
#include "mcl/mswin/token.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "service/helper_service.h"

namespace {

// Whether the client process `process` may itself set the event `name`: the service signals a
// subscriber's event as SYSTEM, which must not let a client signal an event it could not. The
// event's owner, group and DACL are checked against the client's token. False, with GetLastError()
// set, when the event or the client's token cannot be read.
bool client_may_set_event(HANDLE process, const std::string& name) {
    mcl::mswin::unique_kernel_handle event(OpenEventA(READ_CONTROL, FALSE, name.c_str()));
    if (!event) return false;
    mcl::mswin::unique_local<PSECURITY_DESCRIPTOR> descriptor;
    const DWORD rc = GetSecurityInfo(event.get(), SE_KERNEL_OBJECT,
                                     OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                     nullptr, nullptr, nullptr, nullptr, descriptor.put());
    if (rc != ERROR_SUCCESS) {
        SetLastError(rc);
        return false;
    }
    const mcl::mswin::process_token token(process);
    if (!token.valid()) {
        SetLastError(token.error());
        return false;
    }
    constexpr DWORD event_query_state = 0x0001;  // EVENT_QUERY_STATE, which not every SDK header names
    static const GENERIC_MAPPING event_mapping = {STANDARD_RIGHTS_READ | event_query_state,
                                                  STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                                  STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS};
    SetLastError(ERROR_ACCESS_DENIED);
    return token.may_access(descriptor.get(), EVENT_MODIFY_STATE, event_mapping);
}

}  // namespace

// ---- start-up and shutdown

void chelperservice::enableIrpNotifications(bool on) {
    driver_port port = openDriverPort();
    if (!port) return;  // the driver is not there: no switch and no receiver
    drvEnableFeature(port.get(), vqr::code::feature_irp_notify, on);
    port.reset();
    if (on && !irp_.start())
        NV_LOG("chelperservice::enableIrpNotifications", "[IRP Notification]: Failed to start the receiver thread, error: %d",
               static_cast<int>(GetLastError()));
}

void chelperservice::stopIrpReceiver() { irp_.stop(1000); }

// ---- requests

void chelperservice::helper_msg_handler::connection_ended(mcl::ipc_connection* conn) {
    owner_->irp_.connection_ended(conn);
}

bool chelperservice::subscribe_irp_notification(mcl::ipc_connection* conn, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::subscribe_irp_notification";
    protocol::subscribe_request decoded;
    const irp::request_check check = protocol::decode(payload, decoded);
    bool result = false;
    if (check == irp::request_check::truncated) {
        NV_LOG(fn, "Subscription request of %u bytes is truncated, refused", static_cast<unsigned>(payload.size()));
    } else if (check == irp::request_check::oversized) {
        NV_LOG(fn, "Subscription request of %u bytes is oversized (at most %u bytes, names %u, path %u), refused",
               static_cast<unsigned>(payload.size()), static_cast<unsigned>(irp::max_subscribe_payload),
               static_cast<unsigned>(irp::max_name_bytes), static_cast<unsigned>(irp::max_path_bytes));
    } else if (!decoded.unsubscribe && !decoded.subscriber.empty() && !decoded.event_name.empty() &&
               !client_may_set_event(conn->client_process(), decoded.event_name)) {
        const DWORD err = GetLastError();
        NV_LOG(fn, "Subscription for <%s> refused: process %lu may not set event <%s>, error: %d", decoded.subscriber.c_str(),
               static_cast<unsigned long>(conn->client_process_id()), decoded.event_name.c_str(), static_cast<int>(err));
    } else {
        irp::subscribe_request request = irp::to_subscription(decoded);
        request.holder = conn;
        result = irp_.subscribe(std::move(request));
    }
    protocol::reply_with(payload, protocol::status(result));
    return true;
}

bool chelperservice::query_irp_notification_data(mcl::ipc_connection* conn, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::query_irp_notification_data";
    protocol::notification_query_request request;
    const irp::request_check check = protocol::decode(payload, request);
    const std::string& subscriber = request.subscriber;
    if (check == irp::request_check::oversized) {
        NV_LOG(fn, "Query of %u bytes is oversized (a subscriber name of at most %u bytes), refused",
               static_cast<unsigned>(payload.size()), static_cast<unsigned>(irp::max_name_bytes));
    } else if (check == irp::request_check::truncated && payload.size() != 0) {
        NV_LOG(fn, "Query of %u bytes is truncated, refused", static_cast<unsigned>(payload.size()));
    }
    std::vector<irp::record> records;
    if (check == irp::request_check::ok && !subscriber.empty()) records = irp_.collect(subscriber, conn);
    protocol::notifications_reply reply;
    for (const irp::record& r : records) {
        if (r.type != irp::type_irp_denied)
            NV_LOG(fn, "Unsupport IRP notification type %d for %s: %s", static_cast<int>(r.type), subscriber.c_str(),
                   r.file_path.c_str());
        reply.records.push_back(irp::to_notification(r));
    }
    protocol::reply_with(payload, reply);
    return true;
}
