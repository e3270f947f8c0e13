// The protection service: one object per process that runs the whole service life in main().
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "mcl/buffer.h"
#include "mcl/ipc/peer.h"
#include "mcl/mswin/service.h"
#include "mcl/mutex.h"
#include "mcl/singleton.h"
#include "service/emergency_options.h"

// The service is the listening IPC peer under its service name; requests reach
// helper_msg_handler on the peer's event thread.
class chelperservice : public mcl::mswin::service,
                       public mcl::ipc_peer,
                       public mcl::singleton_ptr<chelperservice> {
public:
    static constexpr const char* service_version = "3.0.45.1";
    static constexpr uint32_t ipc_protocol_version = 5;
    static constexpr uint32_t packed_service_version = 196653;  // 3.0.45: major << 16 | minor << 8 | patch
    static constexpr const char* instance_mutex_name = "Global\\NORVALE_ClientHelper_Service_Running";
    static constexpr const char* default_folder_sddl =
        "D:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;"
        "SDGXGWGR;;;AU)";

    // The request dispatcher. The IPC peer calls it on its event thread, one message at a time.
    class helper_msg_handler : public mcl::ipc_msg_handler {
    public:
        explicit helper_msg_handler(chelperservice* owner) : owner_(owner) {}
        // Handles one message; `payload` holds the request and, on return, the reply (left as it
        // was by operations that write none). 0 for a null connection, else 1.
        int operator()(mcl::ipc_connection* conn, uint32_t msg_id, mcl::binary_t& payload) override;

    private:
        chelperservice* owner_;
    };

    // The whole service life: single instance, emergency options, start-up, listening until the
    // stop event, shutdown. Runs on the service thread (or the console's main thread).
    void main(int argc, char** argv) override;
    // The accept loop: one listening pipe pair always waits for the next client; serves until
    // the stop event is set, then resets it and closes every connection. Service thread.
    void listen() override;
    // Switches service, process/folder and registry protection on or off.
    void setProtectionEnabled(bool on);

    helper_msg_handler& msg_handler() { return handler_; }
    bool protection_enabled() const {
        return service_protection_enabled_ && process_protection_enabled_ && regkey_protection_enabled_;
    }

    // Request handlers, called through the dispatcher's table on the IPC event thread. Each reads
    // its request from `payload` and overwrites it with its reply (or leaves it as it was).
    void disconnect_client(mcl::ipc_connection* conn, mcl::binary_t& payload);
    void stop_service(mcl::ipc_connection* conn, mcl::binary_t& payload);
    void protocol_compatible(mcl::ipc_connection* conn, mcl::binary_t& payload);
    void service_version_query(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Driver command port: senders, switches and their requests (service/driver_port.cpp).

    // IRP-denied notifications: receiver, subscriptions and their requests (service/irp_notifications.cpp).

    // Process images and their folders (service/process_protection.cpp).

    // Services (service/service_protection.cpp).

    // Enforcement and service control (service/service_enforcement.cpp).

    // Registry keys (service/regkey_protection.cpp).

    // Quarantine containers, files and blocked files (service/quarantine_handlers.cpp).

private:
    friend class mcl::singleton_ptr<chelperservice>;
    chelperservice();

    // Start-up and shutdown steps whose work belongs to the driver link, the protection
    // managers and the quarantine; each says in the log what it did (service/pending_steps.cpp
    // until those land).
    void startDriver();
    void logDriverVersion();
    void startEnforcement();
    void stopEnforcement();
    void skipFirstServiceManagerOpen();
    void enableDriverFeatures(bool on);
    void enableIrpNotifications(bool on);
    void stopIrpReceiver();
    void protectSelf(bool on);
    void loadPersistedRules();
    void unprotectServiceByName(const std::string& name);
    void restoreFolder(const std::wstring& path);
    void unprotectOwnRegKeys();
    void restoreProtectedRegKeys();
    void restoreProtectedFolders();

    void handleEmergencyStart(const emergency_start& start);
    void shutdown();

    helper_msg_handler handler_;
    mcl::mutex instance_mutex_;
    bool service_protection_enabled_ = true;
    bool process_protection_enabled_ = true;
    bool regkey_protection_enabled_ = true;

    // Driver command port state.

    // IRP-denied notification state.

    // Process and folder protection state.

    // Service protection state.

    // Enforcement state.

    // Registry key protection state.

    // Quarantine state.
};
