// The client object behind invchelper: an IPC peer of its own that connects to the service's
// peer and turns each method into one request. Internal to the client library; programs use
// client/invchelper.h.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "client/invchelper.h"
#include "mcl/buffer.h"
#include "mcl/ipc/peer.h"
#include "protocol/replies.h"

class nvchelper : public mcl::ipc_peer, public invchelper {
public:
    static constexpr const char* own_peer_name = "NVCHCTRLOFFLOAD";
    static constexpr const char* service_name = "norvale_halvern_svc";
    static constexpr int reply_timeout_ms = 180000;
    // How long release waits for the service to drop the connection after the disconnect.
    static constexpr DWORD disconnect_wait_ms = 1000;
    static constexpr const char* call_proto_compatible_message =
        "Please call proto_compatible() API to confirm the feature is suppported by service.";

    // Messages the service sends on its own: nothing to do with them.
    class agent_msg_handler : public mcl::ipc_msg_handler {
    public:
        explicit agent_msg_handler(nvchelper* /*owner*/) {}
        int operator()(mcl::ipc_connection*, uint32_t, mcl::binary_t&) override { return 0; }
    };

    nvchelper();
    // Posts the disconnect on the connection, when there is exactly one, then tears the peer down.
    ~nvchelper() override;

    // The peer's own connect (by endpoint name) stays reachable beside invchelper::connect.
    using mcl::ipc_peer::connect;

    bool is_installed() override;
    bool is_stopped() override;
    bool connect(int timeout_ms) override;
    bool request_stop() override;
    bool protect_service(const std::string& name, result* r) override;
    bool protect_process(const std::string& image_path, result* r) override;
    bool protect_reg_key(HKEY root, const std::wstring& path, uint32_t level, result* r) override;
    bool unprotect_service(const std::string& name, result* r) override;
    bool unprotect_process(const std::string& image_path, result* r) override;
    bool unprotect_reg_key(HKEY root, const std::wstring& path, result* r) override;
    bool protect_services(const std::vector<NVClientHelper::service_rule>& rules, result* r) override;
    bool protect_processes(const std::vector<NVClientHelper::process_rule>& rules, result* r) override;
    bool protect_reg_keys(const std::vector<NVClientHelper::reg_key_rule>& rules, result* r) override;
    bool query_protected_services(std::vector<NVClientHelper::protected_service_info>& out) override;
    bool query_protected_processes(std::vector<NVClientHelper::protected_process_info>& out) override;
    bool get_protected_reg_keys(std::vector<NVClientHelper::protected_reg_key_info>& out) override;
    bool disable_driver_protection(result* r) override;
    bool enable_driver_protection(result* r) override;
    bool set_protection_enabled(bool on, result* r) override;
    bool proto_compatible() override;
    uint32_t get_service_version() override;
    bool start_service(const NVClientHelper::start_request& request, result* r) override;
    bool stop_service(const std::string& name, result* r) override;
    bool recover_service_dacl(const std::string& name, result* r) override;
    bool recover_folder_dacl(const std::string& path, result* r) override;
    bool restore_driver_protection(bool flag, result* r) override;
    bool create_quarantine_container(const std::string& container, const std::vector<std::string>& services,
                                     result* r) override;
    bool add_quarantine_files(const std::string& container, const std::vector<std::string>& files, result* r) override;
    bool remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                 result* r) override;
    bool restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                  result* r) override;
    bool quarantine_files(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                          result* r) override;
    bool remove_quarantine_container(uint32_t action, const std::string& container, result* r) override;
    bool get_quarantined_files(const std::string& container, std::vector<NVClientHelper::quarantined_file>& out) override;
    bool get_quarantine_containers(std::vector<std::string>& out) override;
    bool is_file_quarantined(const std::string& path, result* r) override;
    bool block_file_access(const std::string& path, result* r) override;
    bool unblock_file_access(const std::string& path, result* r) override;
    bool block_files_access(uint32_t action, const std::vector<std::string>& services,
                            const std::vector<std::string>& files, result* r) override;
    bool is_file_access_blocked(const std::string& path, result* r) override;
    bool subscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                   uint8_t minor_function, uint32_t type, result* r) override;
    bool subscribe_as(const std::string& subscriber, const std::string& event_name, const std::string& file_path,
                      uint8_t major_function, uint8_t minor_function, uint32_t type, result* r) override;
    bool unsubscribe(const std::string& event_name, const std::string& file_path, uint8_t major_function,
                     uint8_t minor_function, uint32_t type, result* r) override;
    bool unsubscribe_as(const std::string& subscriber, const std::string& event_name, const std::string& file_path,
                        uint8_t major_function, uint8_t minor_function, uint32_t type, result* r) override;
    bool query_notification_data(std::vector<NVClientHelper::notification_data>& out) override;
    bool query_notification_data_as(const std::string& subscriber,
                                    std::vector<NVClientHelper::notification_data>& out) override;

    // 0 until proto_compatible has succeeded.
    uint32_t protocol_version() const { return protocol_version_; }
    // Why the last connect(int) refused the process serving the pipes; empty otherwise.
    const std::string& connect_error() const { return connect_error_; }

private:
    // The gate of a method that needs protocol `minimum`: false (with the reason in `r`) while
    // the stored version is lower.
    bool gate_open(uint32_t minimum, result* r) const;
    // The one connection, or null unless there is exactly one.
    mcl::share_ptr<mcl::ipc_connection> the_connection();
    // Sends `payload` as request `id` and leaves the reply there. False when not connected,
    // on a failed send or a time-out.
    bool request(uint32_t id, mcl::binary_t& payload);
    // request(), then the status reply into `r`; true when the service answered ok 1.
    bool status_request(uint32_t id, mcl::binary_t& payload, result* r);
    // request(), then the list reply `Reply` decoded with the codec and its member `list` moved to
    // `out` (the elements read whole when the reply is cut short); true when it decoded.
    template <typename Reply, typename T>
    bool list_request(uint32_t id, mcl::binary_t payload, std::vector<T>& out, std::vector<T> Reply::*list) {
        out.clear();
        if (!request(id, payload)) return false;
        Reply reply;
        const bool decoded = protocol::decode(payload, reply);
        out = std::move(reply.*list);
        return decoded;
    }
    // A request whose payload is one path: checked and encoded, then status_request().
    bool path_request(uint32_t id, const std::string& path, result* r);
    bool subscription_request(bool unsubscribe, const std::string& subscriber, const std::string& event_name,
                              const std::string& file_path, uint8_t major_function, uint8_t minor_function,
                              uint32_t type, result* r);

    // The check connect(int) puts on the service's pipes: true when the process serving them
    // is the service's (the manager's process id for the service, or a program whose image lies
    // in the folder of the service's registered program, as a console run is); otherwise false,
    // with the reason logged and kept in connect_error_.
    bool served_by_service(const mcl::ipc_connection& connection);

    agent_msg_handler agent_;
    uint32_t protocol_version_ = 0;
    std::string connect_error_;
};
