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
#include "service/irp_tables.h"
#include "service/regkey_protection.h"

// The service is the listening IPC peer under its service name; requests reach
// helper_msg_handler on the peer's event thread.
class chelperservice : public mcl::mswin::service,
                       public mcl::ipc_peer,
                       public mcl::singleton_ptr<chelperservice> {
public:
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

    // Process images and their folders (service/process_protection.cpp). The tables have no
    // lock: the IPC event thread and the start-up and shutdown steps use them, one at a time.
    struct process_record {
        std::wstring imagePath;
        std::wstring folder;  // filled in by protectProcess
    };
    struct folder_record {
        std::string sddl;  // the folder's DACL as read back after the rewrite; empty when unreadable
        std::wstring folder;
        uint32_t refCount = 0;  // protected images in the folder; the record lives while >= 1
    };
    using process_rule = protocol::process_rule;
    // The folder of an image path or of a command line (quoted path and arguments): the text up to
    // its last backslash, starting at the drive letter; a text without a backslash as it is.
    static std::wstring image_folder_of(const std::wstring& imagePath);
    // Sends the image and folder rules and rewrites the folder's DACL; fills record.folder. False,
    // with nothing changed, when protection is off, the folder is not X:\folder form or the
    // driver cannot be reached.
    bool protectProcess(const std::wstring& imagePath, const mcl::mswin::sid& ownSid, process_record& record);
    // Lifts the image rule and, with the folder's last image, the folder rule and its DACL. With
    // `force`, an unreachable driver still resets the folder's DACL and drops its record.
    bool unprotectProcess(const process_record& record, bool force);
    // Applies a rule list; an empty first path means every image. False when any rule failed.
    bool handle_protect_processes(const std::vector<process_rule>& rules);
    // Removes every image and folder rule, detaches every volume, resets every folder's DACL.
    void stopProtectingProcess();
    // Rewrites the folder's DACL: full access for `sids` in order, every other ACE cut down to read
    // and execute (to nothing with `denyOthers`), protected from the parent. With `originalSddl`,
    // the DACL before the change is returned there as SDDL.
    bool setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                            std::string* originalSddl, bool denyOthers);
    // Writes the DACL of `sddl` to the folder, unprotected so the parent's ACEs apply again.
    bool restorePathPermissions(const std::wstring& path, const char* sddl);
    bool protect_processes(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool query_protected_processes(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Services (service/service_protection.cpp). The table has no lock (as the process tables).
    struct service_record {
        std::string sddl;  // the service's DACL as read back after protection
        std::string name;
        std::string sid;  // S-1-5-80-...
        std::wstring imagePath;
    };
    using service_rule = protocol::service_rule;
    static constexpr const char* protected_services_key = "Software\\Norvale\\NVClientHelper\\ProtectedServices";
    static constexpr const char* protected_processes_key =
        "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedProcesses";
    static constexpr const char* default_service_sddl =
        "D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)"
        "S:(AU;FA;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;WD)";
    // The program path of a service's binary path: cut after the last double quote, quotes
    // removed (an unquoted path keeps its arguments). Empty when the configuration is unreadable.
    static std::wstring service_image_path(const std::string& name);
    // Replaces the service's DACL (own SID and the service's SID in full), records and persists it
    // and, unless the service is stopped, puts it on the enforcement list. Fills sddl, sid,
    // imagePath of `record`.
    bool protectService(const std::string& name, const mcl::mswin::sid& ownSid, service_record& record);
    // Takes the service off the enforcement list and the persisted lists and writes the default
    // service DACL back; the result is that of the write.
    bool unprotectService(const service_record& record);
    // Applies a rule list, driving the image rules; an empty first name means every service.
    bool handle_protect_services(const std::vector<service_rule>& rules);
    bool protect_services(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool query_protected_services(mcl::ipc_connection* conn, mcl::binary_t& payload);

    // Enforcement and service control (service/service_enforcement.cpp).
    // Keeps the listed services running: a pass every 15 s, and at once when the system reports a
    // listed service stopping. Its own thread; the list has its own lock.
    class service_enforce_thread : public mcl::thread {
    public:
        explicit service_enforce_thread(chelperservice* owner) : owner_(owner) { (void)changed_.create_unnamed(); }
        ~service_enforce_thread() override;
        DWORD run() override;
        // Wakes the thread so that it watches a newly listed service. Any thread.
        void list_changed();

    private:
        chelperservice* owner_;
        mcl::event changed_;  // set when a name joins the list
    };
    // Enforcement list operations; any thread (each takes the list's lock). The service's own
    // name is never added.
    void enforce_add(const std::string& name);
    void enforce_remove(const std::string& name);
    std::vector<std::string> enforce_list();
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

    // Registry keys (service/regkey_protection.cpp). Everything here runs on the IPC event thread
    // or on the service thread at start-up and shutdown; the key table has no lock.
    // The service's own persistence keys under HKEY_LOCAL_MACHINE, protected at every start.
    static const char* const own_reg_keys[6];
    // Requests 0x100000b (status reply) and 0x100000c (the protected keys).
    bool protect_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    bool get_protected_reg_keys(mcl::ipc_connection* conn, mcl::binary_t& payload);
    // Protects or unprotects each entry in order; an empty first path with action 0 lifts every
    // key rule. False when any entry failed.
    bool handle_protect_reg_keys(const std::vector<reg_key_entry>& entries);
    // DACL step, then (with `persist`) the persisted record, then driver code 12. True when the
    // driver rule was sent; `record` is filled either way.
    bool protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist);
    // Driver code 13, the original DACL written back, the persisted value deleted. False (and
    // nothing changed) without a driver connection.
    bool unprotectRegKey(const reg_key_record& record);
    // Driver code 13 with an empty path, every key's original DACL back, the table emptied; the
    // persisted records stay for the next start.
    void stopProtectingRegKeys();
    // Writes every protected key's original DACL back; records and persisted values stay.
    void restoreAllRegKeys();
    // Writes (add) or deletes the record's persisted value; nothing (and true) for an empty path.
    bool persistRegKeyRecord(const reg_key_record& record, bool add);
    const std::map<std::wstring, reg_key_record>& protected_reg_keys() const { return protected_reg_keys_; }

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

    // Process and folder protection state.
    std::map<std::wstring, process_record> protected_processes_;  // image path -> record
    std::map<std::wstring, folder_record> protected_folders_;     // folder path -> record

    // Service protection state.
    std::map<std::string, service_record> protected_services_;  // service name -> record
    // The full-access SIDs of a folder: `ownSid`, then the SID of every other protected service
    // whose image path contains the folder.
    std::vector<mcl::mswin::sid> folder_sids(const std::wstring& folder, const mcl::mswin::sid& ownSid);
    // The image rule of a service rule: protect or (forced) unprotect `image`; false on failure.
    bool apply_service_image(const std::wstring& image, bool protect, const mcl::mswin::sid& ownSid, bool logFailure);

    // Enforcement state.
    mcl::lock enforce_lock_;
    std::vector<std::string> enforce_list_;
    service_enforce_thread enforce_thread_{this};

    // Registry key protection state.
    // Key text ("\\<root>\<lowered path>") -> record.
    std::map<std::wstring, reg_key_record> protected_reg_keys_;

    // Quarantine state.
    std::set<std::string> quarantine_containers_;      // normalised paths ("c:\\q\\")
    std::map<std::string, std::string> blocked_files_;  // lower-cased path -> previous DACL (SDDL)
    // Reads the saved descriptors of blocked files back from the registry (start-up).
    void loadBlockedFiles();
};
