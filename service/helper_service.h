// The protection service: one object per process that runs the whole service life in main().
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/ipc/peer.h"
#include "mcl/lock.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/mutex.h"
#include "mcl/ordered_pool.h"
#include "mcl/singleton.h"
#include "mcl/thread.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "quarantine/quarantine_store.h"
#include "service/driver_link.h"
#include "service/emergency_options.h"
#include "service/folder_security.h"
#include "service/irp_notifier.h"
#include "service/process_protection.h"
#include "service/regkey_protection.h"
#include "service/service_enforcement.h"
#include "service/service_protection.h"

// The service is the listening IPC peer under its service name; requests reach
// helper_msg_handler on the peer's event thread, which runs the quick ones itself and gives the
// long ones (quarantine, blocked files, service start and stop, process, service and registry
// key rules, folder DACL resets) to request workers.
class chelperservice : public mcl::mswin::service,
                       public mcl::ipc_peer,
                       public mcl::singleton_ptr<chelperservice> {
public:
    static constexpr const char* instance_mutex_name = "Global\\NORVALE_ClientHelper_Service_Running";
    // Who may do what with the service's named objects. The system and administrators (the
    // owner) have every right. The stop and stopped events and the instance mutex are theirs
    // alone; ordinary users get what a client needs: waiting on and taking the connecting mutex,
    // setting the connected event, reading and writing the pipes and their attributes (never
    // FILE_CREATE_PIPE_INSTANCE, WRITE_DAC or WRITE_OWNER).
    static constexpr const char* stop_events_sddl = "O:BAG:SYD:P(A;;0x1f0003;;;SY)(A;;0x1f0003;;;BA)";
    static constexpr const char* instance_mutex_sddl = "O:BAG:SYD:P(A;;0x1f0001;;;SY)(A;;0x1f0001;;;BA)";
    static constexpr const char* connecting_mutex_sddl =
        "O:BAG:SYD:P(A;;0x1f0001;;;SY)(A;;0x1f0001;;;BA)(A;;0x100001;;;AU)(A;;0x100001;;;IU)";
    static constexpr const char* connected_event_sddl =
        "O:BAG:SYD:P(A;;0x1f0003;;;SY)(A;;0x1f0003;;;BA)(A;;0x100002;;;AU)(A;;0x100002;;;IU)";
    static constexpr const char* pipe_sddl =
        "O:BAG:SYD:P(A;;0x1f01ff;;;SY)(A;;0x1f01ff;;;BA)(A;;0x12019b;;;AU)(A;;0x12019b;;;IU)";
    static constexpr const char* default_folder_sddl = folder_security::default_folder_sddl;

    // The request dispatcher. The IPC peer calls it on its event thread, one message at a time;
    // it runs each request there or on a request worker (see requests_).
    class helper_msg_handler : public mcl::ipc_msg_handler {
    public:
        explicit helper_msg_handler(chelperservice* owner) : owner_(owner) {}
        // Handles one message; `payload` holds the request and, on return, the reply (left as it
        // was by operations that write none). 0 for a null connection, else 1.
        int operator()(mcl::ipc_connection* conn, uint32_t msg_id, mcl::binary_t& payload) override;
        // A client connection has gone: the IRP subscriptions it held start their way out.
        void connection_ended(mcl::ipc_connection* conn) override;

    private:
        chelperservice* owner_;
    };

    // The whole service life: single instance, emergency options, start-up, listening until the
    // stop event, shutdown. Runs on the service thread (or the console's main thread).
    void main(int argc, char** argv) override;
    // A named object made before the service is used only when the system or an administrator
    // owns it; anyone else's is logged, with its owner, and left alone.
    bool existing_object_trusted(const std::string& name, HANDLE existing) override;
    // The accept loop: one listening pipe pair always waits for the next client; serves until
    // the stop event is set, then resets it and closes every connection. Service thread.
    void listen() override;
    // Asks the request workers to give up what they run (a second at most), answers the
    // requests still waiting with their failure reply, then closes the peer.
    void close() override;
    // The master switch: sets the service, process/folder and registry protection switches
    // together and the driver's features 0, 6 and 11 with them; nothing when all three already
    // equal `on`. Off also lifts every service and process rule and stops the enforcement.
    // Service thread or a request worker (service/driver_handlers.cpp).
    void setProtectionEnabled(bool on);

    helper_msg_handler& msg_handler() { return handler_; }
    bool protection_enabled() const {
        return service_protection_enabled_ && process_protection_enabled_ && regkey_protection_enabled_;
    }

    // Whether the client behind `conn` may make a state-changing request now: LocalSystem, an
    // administrator, or an image in this program's folder or a protected folder. IPC event thread.
    bool caller_may_change_state(const mcl::ipc_connection& conn) const;

    // Request handlers, called through the dispatcher's table on the IPC event thread, or on a
    // request worker for the routes the table marks as long (quarantine, blocked files, service
    // start and stop, process, service and registry key rules, folder DACL resets). Each decodes
    // its request from `payload` and overwrites it with its reply (or leaves it as it was).
    // False: the request did not decode and nothing was answered; the dispatcher then answers
    // with the route's failure reply.
    bool disconnect_client(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool stop_service(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool protocol_compatible(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool service_version_query(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Driver command port: the senders, forwarded to the driver link (service/driver_link.h),
    // which keeps the attached volumes; the switches and their requests stay here
    // (service/driver_handlers.cpp).
    using driver_port = driver_link::driver_port;
    static HANDLE connectFilterDriver() { return driver_link::connectFilterDriver(); }
    static driver_port openDriverPort() { return driver_link::openDriverPort(); }
    static std::wstring driver_error_text(HRESULT hr) { return driver_link::driver_error_text(hr); }
    static void drvEnableFeature(HANDLE port, uint32_t feature, bool on) { driver_link::drvEnableFeature(port, feature, on); }
    static void drvEnableProtectionFeatures(HANDLE port, bool processes, bool registry) {
        driver_link::drvEnableProtectionFeatures(port, processes, registry);
    }
    static void drvSkipProcessFirstSvcMgrOpen(HANDLE port) { driver_link::drvSkipProcessFirstSvcMgrOpen(port); }
    static void drvSendCommand(HANDLE port, uint32_t code, const std::wstring& text) {
        driver_link::drvSendCommand(port, code, text);
    }
    static void drvProtectProcess(HANDLE port, const std::wstring& imagePath, bool remove) {
        driver_link::drvProtectProcess(port, imagePath, remove);
    }
    static void drvProtectRegKey(HANDLE port, const std::wstring& keyPath, bool remove) {
        driver_link::drvProtectRegKey(port, keyPath, remove);
    }
    void drvProtectFolder(HANDLE port, const std::wstring& path, bool remove, bool block) {
        link_.drvProtectFolder(port, path, remove, block);
    }
    static void detachFilter(const std::wstring& volume) { driver_link::detachFilter(volume); }
    void detachAllVolumes() { link_.detachAllVolumes(); }
    bool to_device_path(const std::wstring& path, bool attach, std::wstring& device) {
        return link_.to_device_path(path, attach, device);
    }
    static constexpr const char* driver_config_key = driver_link::driver_config_key;
    static constexpr const char* trusted_apps_key = driver_link::trusted_apps_key;
    static constexpr const char* svc_mgr_path_value = driver_link::svc_mgr_path_value;
    static void loadTrustedOpenApp(const std::string& path) { driver_link::loadTrustedOpenApp(path); }
    static void setSvcMgrPath2Driver(const std::string& path) { driver_link::setSvcMgrPath2Driver(path); }
    // Request handlers: 0x1000006 (features 0 and 6 off), 0x1000007 (on), feature 11 following
    // the registry protection switch, on the IPC event thread; 0x1000008 (byte on:
    // setProtectionEnabled) on a request worker.
    bool disable_driver_protection(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool enable_driver_protection(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool set_protection_enabled(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // IRP-denied notifications: the receiver and the tables belong to the notifier
    // (service/irp_notifier.h); the requests decode, call it and encode (service/irp_handlers.cpp).
    using irp_notification_receiver = irp_notifier::irp_notification_receiver;
    // The notifier itself: its clock and the receiver's message handling, for tests.
    irp_notifier& irp_notifications() { return irp_; }
    // 0x10000fa and 0x10000fb. IPC event thread.
    bool subscribe_irp_notification(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool query_irp_notification_data(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Process images and their folders: the requests and steps, forwarded to the process
    // protection, which owns both tables (service/process_handlers.cpp).
    using process_record = process_protection::process_record;
    using folder_record = process_protection::folder_record;
    using process_rule = protocol::process_rule;
    bool handle_protect_processes(const std::vector<process_rule>& rules);
    // The folder DACL steps (service/folder_security.h), also for quarantine and blocked files.
    static bool setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                                   std::string* originalSddl, bool denyOthers);
    static bool restorePathPermissions(const std::wstring& path, const char* sddl);
    bool protect_processes(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool query_protected_processes(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Services: the requests and steps, with the service protection owning the table
    // (service/service_handlers.cpp).
    using service_record = service_protection::service_record;
    using service_rule = protocol::service_rule;
    static constexpr const char* protected_services_key = service_protection::protected_services_key;
    static constexpr const char* protected_processes_key = service_protection::protected_processes_key;
    static constexpr const char* default_service_sddl = service_protection::default_service_sddl;
    static std::wstring service_image_path(const std::string& name) {
        return service_protection::service_image_path(name);
    }
    bool unprotectService(const service_record& record);
    // Applies a rule list: each service through the service protection, then its image through
    // the process protection; an empty first name means every service. What was left undone for
    // want of a record is said in `not_applied`. `known_images`: service name -> image path from a
    // configuration just read (start-up), so that a protect does not read it again.
    bool handle_protect_services(const std::vector<service_rule>& rules, std::string* not_applied = nullptr,
                                 const std::map<std::string, std::wstring>* known_images = nullptr);
    bool protect_services(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool query_protected_services(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Service control (service/service_control.cpp); the enforcement list and its thread belong
    // to the enforcement (service/service_enforcement.h).
    using service_enforce_thread = service_enforcement::service_enforce_thread;
    // Terminates (exit code 9) every process whose image path is `imagePath`, ignoring case.
    static void killProcessByPath(const std::string& imagePath);
    // Runs `program` through the shell with the "runas" verb, hidden, and waits up to 30 s for its
    // exit code when a process handle comes back.
    static bool run_elevated(const std::string& program, const std::string& parameters, DWORD* exitCode);
    bool service_ctrl_start_service(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool service_ctrl_stop_service(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool service_ctrl_recover_dacl(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool restore_driver_protection(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool recover_folder_dacl(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Registry keys: the requests and the start-up and shutdown steps, forwarded to the key
    // protection, which owns the table (service/regkey_handlers.cpp). A request worker (the
    // rules) or the IPC event thread (the list), or the service thread at start-up and shutdown.
    // Requests 0x100000b (status reply) and 0x100000c (the protected keys).
    bool protect_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool get_protected_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool handle_protect_reg_keys(const std::vector<reg_key_entry>& entries);
    bool protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist);
    bool unprotectRegKey(const reg_key_record& record);
    void restoreAllRegKeys();

    // Quarantine containers, files and blocked files: the requests and steps, forwarded to the
    // quarantine store, which owns both tables (service/quarantine_handlers.cpp). IPC event
    // thread, or the service thread at start-up.
    static constexpr const char* quarantine_containers_key = quarantine_store::quarantine_containers_key;
    static constexpr const char* protected_folders_key = quarantine_store::protected_folders_key;
    static constexpr const char* blocked_files_key = quarantine_store::blocked_files_key;
    static bool createPath(const std::string& path) { return quarantine_store::createPath(path); }
    bool createQuarantineContainer(const std::string& path, const std::vector<std::string>& services);
    bool removeQuarantineContainer(const std::string& path, uint32_t action);
    static void list_quarantine_files(const std::string& container, std::vector<std::string>& files) {
        quarantine_store::list_quarantine_files(container, files);
    }
    bool add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                              std::string& message);
    bool remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives);
    bool restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives);
    bool quarantine_files_action(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                                 std::string& message);
    static bool read_quarantine_file_original_path(const std::string& archive, std::string& path) {
        return quarantine_store::read_quarantine_file_original_path(archive, path);
    }
    bool is_quarantined_file(const std::string& path);
    bool blockFileAccess(const std::string& path, const std::vector<std::string>& services);
    bool unblockFileAccess(const std::string& path);
    bool create_quarantine_container(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool quarantine_files(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool remove_quarantine_container(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool get_quarantined_files(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool get_quarantine_containers(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool is_file_quarantined(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool block_file_access(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool unblock_file_access(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool block_files_access(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool is_file_access_blocked(mcl::ipc_connection* conn, mcl::binary_t& payload);

private:
    friend class mcl::singleton_ptr<chelperservice>;
    chelperservice();

    // Start-up and shutdown steps, each defined with the driver link, protection manager,
    // quarantine or installer code that does the work; each says in the log what it did.
    void startDriver();
    void logDriverVersion();
    void startEnforcement();
    void stopEnforcement();
    void skipFirstServiceManagerOpen();
    void enableDriverFeatures(bool on);
    void enableIrpNotifications(bool on);
    void stopIrpReceiver();
    void protectSelf(bool on);
    void loadPersistedRules();  // each area's loader below, in start-up order
    void loadTrustedOpenApps();
    void loadProtectedService();
    void loadProtectedRegKeys();
    void loadqQuarantineContainers();
    void unprotectServiceByName(const std::string& name);
    void restoreFolder(const std::wstring& path);
    void unprotectOwnRegKeys();
    void restoreProtectedFolders();

    void handleEmergencyStart(const emergency_start& start);
    void shutdown();
    // Takes the instance mutex: false when another instance of the service holds the name.
    bool take_instance_name();

    helper_msg_handler handler_;
    // Requests that may take long run on these workers, and requests that must wait for one
    // that touches the same object (or came earlier on the same connection) wait here; the
    // dispatcher decides (service/request_dispatch.cpp). The tables that worker requests use
    // (the quarantine store's, the process, service and registry key tables, the driver link's
    // volumes, the enforcement list) have their own locks; every other table is used by the
    // event thread alone.
    static constexpr uint32_t max_waiting_requests = 256;
    static constexpr uint32_t max_waiting_requests_per_client = 16;
    mcl::ordered_pool requests_{mcl::ordered_pool::default_workers, max_waiting_requests,
                                max_waiting_requests_per_client,
                                [this](std::function<void()> work) { post_task(std::move(work)); }};
    mcl::mswin::security_descriptor instance_security_;
    mcl::mutex instance_mutex_;
    // The protection switches: written by the master switch (on a request worker, or on the
    // service thread before listening), read by the managers and the driver requests.
    std::atomic<bool> service_protection_enabled_{true};
    std::atomic<bool> process_protection_enabled_{true};
    std::atomic<bool> regkey_protection_enabled_{true};

    // The driver link first: every manager below reaches the driver through it. The enforcement
    // also asks where a service's image lives, which the link does not know.
    driver_link link_;
    class enforcement_commands final : public enforcement_host {
    public:
        explicit enforcement_commands(driver_link& link) : link_(link) {}
        mcl::mswin::unique_kernel_handle open_port() override { return link_.open_port(); }
        void send_image_rule(HANDLE port, const std::wstring& image, bool remove) override {
            link_.send_image_rule(port, image, remove);
        }
        std::wstring service_image(const std::string& name) override { return service_image_path(name); }

    private:
        driver_link& link_;
    };
    enforcement_commands enforcement_commands_{link_};
    // Features 0 and 6 to `on`, feature 11 to the registry protection switch (0x1000006/7).
    void setDriverProtection(bool on);

    // IRP-denied notifications: the receiver thread and its tables.
    irp_notifier irp_;

    // The protection managers, each after those it uses: the enforcement list and its thread;
    // the services (which put them on the enforcement list); the process images and folders
    // (which ask the services who shares a folder).
    service_enforcement enforcement_{enforcement_commands_, service_name()};
    service_protection services_{enforcement_, service_protection_enabled_};
    process_protection processes_{link_, services_, process_protection_enabled_};

    // Registry key protection: the key table, driven through the command port.
    reg_key_protection reg_keys_{link_, regkey_protection_enabled_};

    // The quarantine store: the containers and blocked files, with the driver link's folder rules
    // and the DACL operations and process killer of the core (service/quarantine_handlers.cpp).
    class quarantine_services final : public quarantine_security, public file_users {
    public:
        DWORD get_file_dacl(const std::wstring& path, mcl::mswin::security_descriptor& descriptor) override;
        DWORD set_file_dacl(const std::wstring& path, PACL dacl, bool protect) override;
        DWORD get_handle_dacl(HANDLE file, mcl::mswin::security_descriptor& descriptor) override;
        DWORD set_handle_dacl(HANDLE file, PACL dacl, bool protect) override;
        bool setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                                std::string* originalSddl, bool denyOthers) override;
        bool restorePathPermissions(const std::wstring& path, const char* sddl) override;
        const char* default_folder_sddl() override;
        void kill_processes_of(const std::string& path) override;
    };
    quarantine_services quarantine_services_;
    quarantine_store quarantine_{link_, quarantine_services_, quarantine_services_};
};
