// The client interface of the Norvale Halvern protection service: the one header a program of
// the product includes to call the service. Link the static library nv_client.
//
//   invchelper* helper = NVClientHelper::createHelper();
//   if (helper->connect(10000) && helper->proto_compatible()) {
//       NVClientHelper::result r;
//       if (!helper->protect_service("MyProductService", &r)) report(r.message);
//   }
//   NVClientHelper::releaseHelper(helper);
//
// One object serves one caller at a time. Every request waits up to 180 s for its reply. A
// request method returns false when the object is not connected, when the request cannot be
// sent, times out or its reply cannot be decoded, and when the service answers with failure;
// a given result record then holds the service's result and message (or, for a request refused
// before anything was sent, the reason). Quarantine methods need a service that speaks IPC
// protocol version 3 and notification methods version 5: call proto_compatible() once after
// connect(), or they are refused locally.
//
// Narrow strings are in the system's ANSI code page, as the narrow Windows calls take them.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "protocol/replies.h"

namespace NVClientHelper {

// What the service answered: ok 1 success, 0 failure, and its message.
struct result {
    uint8_t ok = 0;
    std::string message;
};

// Limits checked before a request is sent; a longer text or list is refused with a result
// message and nothing goes on the wire.
constexpr size_t max_path_chars = 260;       // file, folder, image, container and archive paths
constexpr size_t max_name_chars = 256;       // service, subscriber and event names
constexpr size_t max_key_path_chars = 512;   // registry key paths below their root
constexpr size_t max_list_entries = 1024;    // entries of any list

// IPC protocol versions that the gated methods need.
constexpr uint32_t quarantine_protocol = 3;
constexpr uint32_t notification_protocol = 5;

// Protect or unprotect one service; `protect_process` also (un)protects its program image.
struct service_rule {
    bool protect_service = true;
    bool protect_process = true;
    std::string name;
};

// Protect or unprotect one program image (and its folder): C:\...\name.exe.
struct process_rule {
    bool protect = true;
    std::wstring image_path;
};

// Access that other accounts keep on a protected registry key.
enum reg_key_level : uint32_t { level_none = 0, level_read = 1, level_write = 2 };

// Protect (action true) or unprotect one registry key below a predefined root such as
// HKEY_LOCAL_MACHINE; `owner` and `services` get full access besides the service itself.
struct reg_key_rule {
    bool protect = true;
    HKEY root = nullptr;
    std::wstring path;
    std::string owner;
    std::vector<std::string> services;
    uint32_t level = level_read;
};

// What the protection lists hold, as the service's replies carry them.
using protected_service_info = protocol::protected_service_info;
using protected_process_info = protocol::protected_process_info;
using protected_reg_key_info = protocol::protected_reg_key_info;

// Start a service with these arguments.
struct start_request {
    std::string name;
    std::vector<std::string> arguments;
};

// quarantine_files actions.
enum quarantine_action : uint32_t { quarantine_add = 0, quarantine_remove = 1, quarantine_restore = 2 };
// remove_quarantine_container actions.
enum container_action : uint32_t { container_delete_archives = 1, container_restore_archives = 2 };
// block_files_access actions (any other value than block unblocks).
enum block_action : uint32_t { block_files = 0, unblock_files = 1 };

// The archive's file name inside the container, and the recorded path: where the file was,
// and where a restore puts it.
using quarantined_file = protocol::quarantined_file;

// Subscription filters: 0xFF and 0 match anything.
constexpr uint8_t any_function = 0xFF;
constexpr uint32_t any_notification = 0;

// One access the driver denied on a subscribed file.
using notification_data = protocol::notification_data;

}  // namespace NVClientHelper

// The service's requests, one method each, in this order. Objects come from
// NVClientHelper::createHelper and go back through NVClientHelper::releaseHelper.
class invchelper {
public:
    using result = NVClientHelper::result;

    // The service "norvale_halvern_svc" in the service control manager.
    virtual bool is_installed() = 0;
    // Stopped or stop pending; false when its state cannot be read.
    virtual bool is_stopped() = 0;
    // Starts the service when it is installed but not running, then connects within `timeout_ms`.
    // False without any attempt when the service is not installed; true at once when connected.
    // Before anything is sent, the process serving the service's pipes must be the service: the
    // process the service manager runs it in or, for a console run, a program in the folder of
    // the service's registered program. Any other is refused (logged; see connectError).
    virtual bool connect(int timeout_ms) = 0;
    // Asks the service to stop (no reply).
    virtual bool request_stop() = 0;

    virtual bool protect_service(const std::string& name, result* r = nullptr) = 0;
    virtual bool protect_process(const std::string& image_path, result* r = nullptr) = 0;
    virtual bool protect_reg_key(HKEY root, const std::wstring& path, uint32_t level, result* r = nullptr) = 0;
    virtual bool unprotect_service(const std::string& name, result* r = nullptr) = 0;
    virtual bool unprotect_process(const std::string& image_path, result* r = nullptr) = 0;
    virtual bool unprotect_reg_key(HKEY root, const std::wstring& path, result* r = nullptr) = 0;
    virtual bool protect_services(const std::vector<NVClientHelper::service_rule>& rules, result* r = nullptr) = 0;
    virtual bool protect_processes(const std::vector<NVClientHelper::process_rule>& rules, result* r = nullptr) = 0;
    virtual bool protect_reg_keys(const std::vector<NVClientHelper::reg_key_rule>& rules, result* r = nullptr) = 0;
    // True when the reply decodes; `out` is emptied first.
    virtual bool query_protected_services(std::vector<NVClientHelper::protected_service_info>& out) = 0;
    virtual bool query_protected_processes(std::vector<NVClientHelper::protected_process_info>& out) = 0;
    virtual bool get_protected_reg_keys(std::vector<NVClientHelper::protected_reg_key_info>& out) = 0;

    virtual bool disable_driver_protection(result* r = nullptr) = 0;
    virtual bool enable_driver_protection(result* r = nullptr) = 0;
    // The master switch: service, process and registry protection together.
    virtual bool set_protection_enabled(bool on, result* r = nullptr) = 0;
    // Asks the service's IPC protocol version and keeps it for the gated methods.
    virtual bool proto_compatible() = 0;
    // major << 16 | minor << 8 | patch; 0 on any failure.
    virtual uint32_t get_service_version() = 0;

    virtual bool start_service(const NVClientHelper::start_request& request, result* r = nullptr) = 0;
    virtual bool stop_service(const std::string& name, result* r = nullptr) = 0;
    virtual bool recover_service_dacl(const std::string& name, result* r = nullptr) = 0;
    virtual bool recover_folder_dacl(const std::string& path, result* r = nullptr) = 0;
    // Switches the driver's protection features back to the service's own switches.
    virtual bool restore_driver_protection(bool flag, result* r = nullptr) = 0;

    // Quarantine (protocol 3).
    virtual bool create_quarantine_container(const std::string& container, const std::vector<std::string>& services,
                                             result* r = nullptr) = 0;
    // The reply message lists the archive created for each file, each followed by ";".
    virtual bool add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                                      result* r = nullptr) = 0;
    virtual bool remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                         result* r = nullptr) = 0;
    virtual bool restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                          result* r = nullptr) = 0;
    virtual bool quarantine_files(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                                  result* r = nullptr) = 0;
    virtual bool remove_quarantine_container(uint32_t action, const std::string& container, result* r = nullptr) = 0;
    virtual bool get_quarantined_files(const std::string& container, std::vector<NVClientHelper::quarantined_file>& out) = 0;
    virtual bool get_quarantine_containers(std::vector<std::string>& out) = 0;
    // The answer is the message: "yes" or "no".
    virtual bool is_file_quarantined(const std::string& path, result* r = nullptr) = 0;
    virtual bool block_file_access(const std::string& path, result* r = nullptr) = 0;
    virtual bool unblock_file_access(const std::string& path, result* r = nullptr) = 0;
    // The reply message lists the paths that failed, each followed by ";".
    virtual bool block_files_access(uint32_t action, const std::vector<std::string>& services,
                                    const std::vector<std::string>& files, result* r = nullptr) = 0;
    // The answer is the message: "yes" or "no".
    virtual bool is_file_access_blocked(const std::string& path, result* r = nullptr) = 0;

    // Denied-access notifications (protocol 5). `event_name` names an event the caller created;
    // the service sets it when a record for the subscriber arrives. An empty `file_path` means
    // every file. The plain forms subscribe under the object's own name, "NVCHCTRLOFFLOAD".
    virtual bool subscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                           uint8_t minor_function, uint32_t type, result* r = nullptr) = 0;
    virtual bool subscribe_as(const std::string& subscriber, const std::string& event_name, const std::string& file_path,
                              uint8_t major_function, uint8_t minor_function, uint32_t type, result* r = nullptr) = 0;
    virtual bool unsubscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                             uint8_t minor_function, uint32_t type, result* r = nullptr) = 0;
    virtual bool unsubscribe_as(const std::string& subscriber, const std::string& event_name,
                                const std::string& file_path, uint8_t major_function, uint8_t minor_function,
                                uint32_t type, result* r = nullptr) = 0;
    // The records not collected yet; each is handed out once.
    virtual bool query_notification_data(std::vector<NVClientHelper::notification_data>& out) = 0;
    virtual bool query_notification_data_as(const std::string& subscriber,
                                            std::vector<NVClientHelper::notification_data>& out) = 0;

protected:
    // Objects are destroyed only through NVClientHelper::releaseHelper.
    ~invchelper() = default;
};

namespace NVClientHelper {

// A new, unconnected client object, owned by the caller until releaseHelper.
invchelper* createHelper();
// Tells the service the client leaves and destroys the object. A pointer that createHelper did
// not return is logged and left alone.
void releaseHelper(invchelper* helper);
// The IPC protocol version that proto_compatible learned: 0 before it has succeeded, and for a
// pointer that createHelper did not return.
uint32_t protocolVersion(const invchelper* helper);
// Why the last connect refused the process serving the service's pipes; empty when it did not
// (also when it failed for another reason) and for a pointer that createHelper did not return.
std::string connectError(const invchelper* helper);

}  // namespace NVClientHelper
