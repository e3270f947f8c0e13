// The protection service: one object per process that runs the whole service life in main().
#pragma once

#include <windows.h>

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
#include "mcl/singleton.h"
#include "mcl/thread.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "service/emergency_options.h"
#include "service/folder_security.h"
#include "service/irp_tables.h"
#include "service/process_protection.h"
#include "service/regkey_protection.h"
#include "service/service_enforcement.h"
#include "service/service_protection.h"

// The service is the listening IPC peer under its service name; requests reach
// helper_msg_handler on the peer's event thread.
class chelperservice : public mcl::mswin::service,
                       public mcl::ipc_peer,
                       public mcl::singleton_ptr<chelperservice> {
public:
    static constexpr const char* instance_mutex_name = "Global\\NORVALE_ClientHelper_Service_Running";
    static constexpr const char* default_folder_sddl = folder_security::default_folder_sddl;

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
    // The master switch: sets the service, process/folder and registry protection switches
    // together and the driver's features 0, 6 and 11 with them; nothing when all three already
    // equal `on`. Off also lifts every service and process rule and stops the enforcement.
    // Service thread or IPC event thread (service/driver_port.cpp).
    void setProtectionEnabled(bool on);

    helper_msg_handler& msg_handler() { return handler_; }
    bool protection_enabled() const {
        return service_protection_enabled_ && process_protection_enabled_ && regkey_protection_enabled_;
    }

    // Request handlers, called through the dispatcher's table on the IPC event thread. Each
    // decodes its request from `payload` and overwrites it with its reply (or leaves it as it
    // was). False: the request did not decode and nothing was answered; the dispatcher then
    // answers with the route's failure reply.
    bool disconnect_client(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool stop_service(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool protocol_compatible(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool service_version_query(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Driver command port: senders, switches and their requests (service/driver_port.cpp).
    // Every operation opens its own port connection; the senders return nothing and log a refusal.
    // They run on the IPC event thread, the service thread at start-up and shutdown, and the
    // enforcement thread; the attached-volume table has no lock of its own (see drvProtectFolder).
    using driver_port = mcl::mswin::unique_kernel_handle;
    // The command port, or INVALID_HANDLE_VALUE after logging the failure.
    static HANDLE connectFilterDriver();
    // connectFilterDriver() owned: closed when it goes out of scope.
    static driver_port openDriverPort();
    // The text of a Filter Manager or Win32 HRESULT for log lines.
    static std::wstring driver_error_text(HRESULT hr);
    static void drvEnableFeature(HANDLE port, uint32_t feature, bool on);
    // The protection switches, in this order: process protection (0) and folder protection (6)
    // to `processes`, registry protection (11) to `registry`.
    static void drvEnableProtectionFeatures(HANDLE port, bool processes, bool registry);
    static void drvSkipProcessFirstSvcMgrOpen(HANDLE port);
    static void drvSendCommand(HANDLE port, uint32_t code, const std::wstring& text);
    // Code 1 (2 when removing); an empty path with `remove` removes every image rule.
    static void drvProtectProcess(HANDLE port, const std::wstring& imagePath, bool remove);
    // Code 12 (13 when removing) with the \REGISTRY\MACHINE\... path; empty removes every key rule.
    static void drvProtectRegKey(HANDLE port, const std::wstring& keyPath, bool remove);
    // Code 7/8 (9/10 when `block`) with the device form of `path`; an add first attaches the
    // filter to the path's volume. A path without "X:\" or over 260 characters is refused with a
    // log line and nothing is sent. An empty path with `remove` removes every rule of that code.
    void drvProtectFolder(HANDLE port, const std::wstring& path, bool remove, bool block);
    // FilterDetach of the filter's instance on `volume`, logged when it fails.
    static void detachFilter(const std::wstring& volume);
    // Detaches every attached volume and empties the table.
    void detachAllVolumes();
    // The device form of a drive-letter path (C:\A -> \Device\HarddiskVolume1\A); false, with a
    // log line, for a path without "X:\" or over 260 characters. Attaches the volume when `attach`.
    bool to_device_path(const std::wstring& path, bool attach, std::wstring& device);
    // The driver's own service key (HKLM) and what the service writes there for the driver.
    static constexpr const char* driver_config_key = "system\\CurrentControlSet\\Services\\VQRMonitor";
    static constexpr const char* trusted_apps_key = "system\\CurrentControlSet\\Services\\VQRMonitor\\TrustedOpenApps";
    static constexpr const char* svc_mgr_path_value = "SvcMgrPath";
    // Writes REG_DWORD 1 named `path` under trusted_apps_key (outcome not checked), then sends
    // code 3 with `path` (device form, UTF-8) on a connection of its own.
    static void loadTrustedOpenApp(const std::string& path);
    // Writes REG_SZ SvcMgrPath = `path` in driver_config_key, then sends code 15 with it.
    static void setSvcMgrPath2Driver(const std::string& path);
    // Request handlers: 0x1000006 (features 0 and 6 off), 0x1000007 (on), feature 11 following
    // the registry protection switch; 0x1000008 (byte on: setProtectionEnabled). IPC event thread.
    bool disable_driver_protection(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool enable_driver_protection(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool set_protection_enabled(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // IRP-denied notifications: receiver, subscriptions and their requests (service/irp_notifications.cpp).
    // The subscription table, the store and the pending index are guarded by irp_lock_; the
    // volume map and the sequence counter belong to the receiver thread.

    // Waits on the notification port and hands every message to handleIrpMessage. Started at
    // start-up after feature 16 went on, stopped at shutdown after it went off; a stop cancels
    // the pending wait at once.
    class irp_notification_receiver : public mcl::thread {
    public:
        explicit irp_notification_receiver(chelperservice* owner) : owner_(owner) {}
        ~irp_notification_receiver() override { stop(10); }
        DWORD run() override;

    private:
        DWORD receive();
        bool handle(const uint8_t* data, size_t size);
        chelperservice* owner_;
        uint64_t sequence_ = 0;  // starts at 0 at every start
    };

    // Rebuilds the map from volume device name to mount path. Receiver thread.
    void RefreshVolumeToDeviceMap();
    // The drive-letter form (UTF-8) of a device-form path; empty when no volume matches.
    // Receiver thread.
    std::string device_to_dos_path(const std::wstring& devicePath) const;
    // One message as the driver delivered it (`size` bytes of the receive buffer); false when
    // it is the driver's stop message. `sequence` is the receiver's counter. Receiver thread;
    // takes irp_lock_.
    bool handleIrpMessage(const uint8_t* data, size_t size, uint64_t& sequence);
    // Where the receiver takes "now" (FILETIME units, UTC) from; GetSystemTimeAsFileTime unless
    // replaced. Set it before the receiver starts.
    using irp_clock_fn = uint64_t (*)();
    static uint64_t irpSystemTime();
    void setIrpClock(irp_clock_fn now) { irp_clock_ = now; }
    // 0x10000fa and 0x10000fb. IPC event thread; take irp_lock_.
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
    bool protectService(const std::string& name, const mcl::mswin::sid& ownSid, service_record& record);
    bool unprotectService(const service_record& record);
    // Applies a rule list: each service through the service protection, then its image through
    // the process protection; an empty first name means every service.
    bool handle_protect_services(const std::vector<service_rule>& rules);
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
    // protection, which owns the table (service/regkey_handlers.cpp). IPC event thread, or the
    // service thread at start-up and shutdown.
    // Requests 0x100000b (status reply) and 0x100000c (the protected keys).
    bool protect_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool get_protected_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool handle_protect_reg_keys(const std::vector<reg_key_entry>& entries);
    bool protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist);
    bool unprotectRegKey(const reg_key_record& record);
    void restoreAllRegKeys();

    // Quarantine containers, files and blocked files (service/quarantine_handlers.cpp,
    // service/blocked_files.cpp). The tables have no lock: the IPC event thread and the start-up
    // step use them, one at a time. Paths are narrow (ANSI) strings.
    static constexpr const char* quarantine_containers_key = "Software\\Norvale\\NVClientHelper\\QuarantineContainers";
    static constexpr const char* protected_folders_key = "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedFolders";
    // Lower-cased blocked path -> the SDDL text of the DACL it had before; kept across restarts.
    static constexpr const char* blocked_files_key = "Software\\Norvale\\NVClientHelper\\BlockedFiles";
    // Creates every missing folder of `path` (a trailing backslash is added); true when all exist.
    static bool createPath(const std::string& path);
    bool createQuarantineContainer(const std::string& path, const std::vector<std::string>& services);
    // Action 1 deletes the archives, 2 restores them; the container goes only when all succeeded.
    bool removeQuarantineContainer(const std::string& path, uint32_t action);
    // The container path followed by each "*.QUA" entry name, in directory order; cleared first.
    static void list_quarantine_files(const std::string& container, std::vector<std::string>& files);
    // One field per source in `message`, each ended by ";": the archive path or nothing. A source
    // is deleted only after its archive was written, flushed, read back and renamed into place.
    bool add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                              std::string& message);
    bool remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives);
    // An archive is deleted only once its file is back in place with a matching digest.
    bool restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives);
    bool quarantine_files_action(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                                 std::string& message);
    // The source path recorded in an archive; false (logged) when its header cannot be read.
    static bool read_quarantine_file_original_path(const std::string& archive, std::string& path);
    // Copies the folder's DACL onto the file.
    static bool setQuarantineFilePermissions(const std::string& file, const std::string& folder);
    // Whether `path` is an archive of a registered container, ignoring ASCII case.
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

    helper_msg_handler handler_;
    mcl::mutex instance_mutex_;
    bool service_protection_enabled_ = true;
    bool process_protection_enabled_ = true;
    bool regkey_protection_enabled_ = true;

    // Driver command port state.
    // The command port as the managers see it.
    class driver_commands final : public reg_key_driver, public enforcement_host, public folder_driver {
    public:
        explicit driver_commands(chelperservice& core) : core_(core) {}
        mcl::mswin::unique_kernel_handle open_port() override { return openDriverPort(); }
        void enable_feature(HANDLE port, uint32_t feature, bool on) override { drvEnableFeature(port, feature, on); }
        void send_folder_rule(HANDLE port, const std::wstring& path, bool remove, bool block) override {
            core_.drvProtectFolder(port, path, remove, block);
        }
        void detach_all_volumes() override { core_.detachAllVolumes(); }
        void send_image_rule(HANDLE port, const std::wstring& image, bool remove) override {
            drvProtectProcess(port, image, remove);
        }
        std::wstring service_image(const std::string& name) override { return service_image_path(name); }
        void send_key_rule(HANDLE port, const std::wstring& kernel_path, bool remove) override {
            drvProtectRegKey(port, kernel_path, remove);
        }
        std::wstring error_text(HRESULT hr) override { return driver_error_text(hr); }

    private:
        chelperservice& core_;
    };
    driver_commands driver_commands_{*this};
    void attachVolume(const std::wstring& volume);
    // Features 0 and 6 to `on`, feature 11 to the registry protection switch (0x1000006/7).
    void setDriverProtection(bool on);
    // Volume device name (or "X:" when it has none) -> instance name FilterAttach gave.
    std::map<std::wstring, std::wstring> attached_volumes_;

    // IRP-denied notification state.
    void handleIrpDenied(const irp::message& m, uint64_t now, uint64_t& sequence);
    void clearIrpStore();
    // The image path of a process and that file's description; both stay empty when the
    // process cannot be read. Receiver thread.
    void readProcessImage(uint32_t pid, std::string& image, std::string& image_description);
    static constexpr size_t max_image_descriptions = 256;
    std::map<std::string, std::pair<uint64_t, std::string>> image_descriptions_;  // path -> (written, text); receiver
    mcl::lock irp_lock_;
    irp::tables irp_tables_;                        // under irp_lock_
    std::map<std::wstring, std::string> volume_to_device_;  // \device\...\ -> mount path; receiver thread
    irp_clock_fn irp_clock_ = &chelperservice::irpSystemTime;
    irp_notification_receiver irp_receiver_{this};  // last of this block: stopped before the tables go

    // The protection managers, each after those it uses: the enforcement list and its thread;
    // the services (which put them on the enforcement list); the process images and folders
    // (which ask the services who shares a folder).
    service_enforcement enforcement_{driver_commands_, service_name()};
    service_protection services_{enforcement_, service_protection_enabled_};
    process_protection processes_{driver_commands_, services_, process_protection_enabled_};

    // Registry key protection: the key table, driven through the command port.
    reg_key_protection reg_keys_{driver_commands_, regkey_protection_enabled_};

    // Quarantine state.
    std::set<std::string> quarantine_containers_;      // normalised paths ("c:\\q\\")
    std::map<std::string, std::string> blocked_files_;  // lower-cased path -> previous DACL (SDDL)
    // Reads the saved descriptors of blocked files back from the registry (start-up).
    void loadBlockedFiles();
};
