// The request dispatcher: one table from message identifier to handler, and the handlers of the
// connection and control messages.
#include <cstdio>
#include <exception>
#include <memory>
#include <iterator>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/text.h"
#include "mcl/ordered_pool.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "quarantine/quarantine_store.h"
#include "service/caller_policy.h"
#include "service/helper_service.h"
#include "service/release.h"

namespace {

using handler_fn = bool (chelperservice::*)(mcl::ipc_connection*, mcl::binary_t&);
// Replaces the buffer with a route's failure reply.
using failure_fn = void (*)(mcl::binary_t&);

// Who may call a route. Requests that only read are open to every local caller. A request that
// may change what the service protects, holds or runs is served only for the callers that
// judge_caller allows (checked per request), and each one served writes an audit line naming
// the request and the client process; any other caller is answered "Access denied.".
enum route_effect : bool { reads_only = false, changes_state = true };

// What a request gets when its handler cannot decode it or throws: the failure form of its
// reply layout, so that a client never waits for a reply that will not come.
constexpr failure_fn no_reply = &protocol::encode_failure<protocol::no_reply>;
constexpr failure_fn status_failure = &protocol::encode_failure<protocol::status_reply>;
constexpr failure_fn no_version = &protocol::encode_failure<protocol::version_reply>;
constexpr failure_fn empty_processes = &protocol::encode_failure<protocol::protected_processes_reply>;
constexpr failure_fn empty_services = &protocol::encode_failure<protocol::protected_services_reply>;
constexpr failure_fn empty_reg_keys = &protocol::encode_failure<protocol::protected_reg_keys_reply>;
constexpr failure_fn empty_files = &protocol::encode_failure<protocol::quarantined_files_reply>;
constexpr failure_fn empty_containers = &protocol::encode_failure<protocol::quarantine_containers_reply>;
constexpr failure_fn empty_notifications = &protocol::encode_failure<protocol::notifications_reply>;
void compatibility_failure(mcl::binary_t& payload) {
    protocol::reply_with(payload, protocol::compatibility_reply{0, this_release().ipc_protocol});
}

// The objects a request touches, added to `keys` from its payload (nothing when it does not
// decode: its handler then answers the failure). Requests that share a key run in the order
// they arrived; "service" stands for every "service|<name>". A list of every container, service
// or key takes no key: it reads the table as it stands and waits for no other client.
using keys_fn = void (*)(const mcl::binary_t& payload, std::vector<std::string>& keys);

// A request that names more objects than this takes the key of all of them ("file", "service"):
// the cost of ordering stays bounded whatever a request holds.
constexpr size_t most_keys_named = 64;

void container_keys(const std::string& path, std::vector<std::string>& keys) {
    keys.push_back("container|" + quarantine_store::normalise_container(path));
}
void file_key(const std::string& path, std::vector<std::string>& keys) {
    keys.push_back("file|" + mcl::mswin::lower_case(path));
}
void file_keys(const std::vector<std::string>& paths, std::vector<std::string>& keys) {
    if (paths.size() > most_keys_named) {
        keys.push_back("file");
        return;
    }
    for (const std::string& path : paths) file_key(path, keys);
}
void service_key(const std::string& name, std::vector<std::string>& keys) {
    keys.push_back("service|" + mcl::mswin::lower_case(name));
}

void quarantine_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::quarantine_files_request request;
    if (!protocol::decode(payload, request)) return;
    container_keys(request.container, keys);
    file_keys(request.paths, keys);
}
void create_container_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::create_container_request request;
    if (protocol::decode(payload, request)) container_keys(request.path, keys);
}
void remove_container_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::remove_container_request request;
    if (protocol::decode(payload, request)) container_keys(request.path, keys);
}
// The key of the one container, file or service a name request names.
template <void (*key_of)(const std::string&, std::vector<std::string>&)>
void name_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::name_request request;
    if (protocol::decode(payload, request)) key_of(request.name, keys);
}
void block_files_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::block_files_request request;
    if (protocol::decode(payload, request)) file_keys(request.paths, keys);
}
void start_service_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::start_service_request request;
    if (protocol::decode(payload, request)) service_key(request.name, keys);
}
// Folder DACLs: a folder reset runs on a worker, and the protects that rewrite folders' DACLs
// (processes, and services with their images) wait for it, one key for every folder.
void folder_keys(const mcl::binary_t&, std::vector<std::string>& keys) { keys.push_back("folder"); }

void protect_services_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    protocol::protect_services_request request;
    if (!protocol::decode(payload, request)) return;
    keys.push_back("folder");
    const size_t first = keys.size();
    for (const protocol::service_rule& rule : request.rules) {
        if (rule.name.empty() || keys.size() - first == most_keys_named) {
            keys.resize(first);
            keys.push_back("service");  // every service
            return;
        }
        service_key(rule.name, keys);
    }
}

// The protection switch turns every service's protection, every folder's and the registry switch.
// The driver protection requests send the switches' state to the driver: they wait for a switch
// in progress, so that the driver ends with the state the switches end with.
void switch_keys(const mcl::binary_t&, std::vector<std::string>& keys) { keys.push_back("switch"); }
void protection_switch_keys(const mcl::binary_t& payload, std::vector<std::string>& keys) {
    switch_keys(payload, keys);
    keys.push_back("service");
    keys.push_back("folder");
    keys.push_back("regkey");
}
// Registry key rules apply one request at a time: a key's protect walks its whole subtree, which
// may hold a key that another request names.
void reg_key_keys(const mcl::binary_t&, std::vector<std::string>& keys) { keys.push_back("regkey"); }

// Where a request runs: on the event thread, or, when it may take long (archives, DACL work on
// files and key trees, waiting for a service), on a request worker, so that the event thread
// goes on serving.
enum class runs_on { event_thread, worker };

struct request_route {
    uint32_t id;
    handler_fn handler;
    const char* name;
    failure_fn failure;
    route_effect effect = reads_only;
    keys_fn keys = nullptr;
    runs_on place = runs_on::event_thread;
};

// One route for every identifier of the catalogue; any other identifier is unknown.
const request_route routes[] = {
    {msg::disconnect, &chelperservice::disconnect_client, "disconnect", no_reply},
    {msg::stop_service, &chelperservice::stop_service, "stop service", no_reply, changes_state},
    {msg::protocol_compatible, &chelperservice::protocol_compatible, "protocol compatibility", compatibility_failure},
    {msg::service_version, &chelperservice::service_version_query, "service version", no_version},

    // Driver command port.
    {msg::disable_driver_protection, &chelperservice::disable_driver_protection, "driver protection off", status_failure, changes_state, switch_keys},
    {msg::enable_driver_protection, &chelperservice::enable_driver_protection, "driver protection on", status_failure, changes_state, switch_keys},
    {msg::set_protection_enabled, &chelperservice::set_protection_enabled, "protection master switch", status_failure, changes_state, protection_switch_keys, runs_on::worker},

    // Process and folder protection.
    {msg::protect_processes, &chelperservice::protect_processes, "protect processes", status_failure, changes_state, folder_keys, runs_on::worker},
    {msg::query_protected_processes, &chelperservice::query_protected_processes, "query protected processes", empty_processes},

    // Service protection.
    {msg::protect_services, &chelperservice::protect_services, "protect services", status_failure, changes_state, protect_services_keys, runs_on::worker},
    {msg::query_protected_services, &chelperservice::query_protected_services, "query protected services", empty_services},

    // Registry key protection.
    {msg::protect_reg_keys, &chelperservice::protect_reg_keys, "protect reg keys", status_failure, changes_state, reg_key_keys, runs_on::worker},
    {msg::get_protected_reg_keys, &chelperservice::get_protected_reg_keys, "get protected reg keys", empty_reg_keys},

    // Enforcement and service control.
    {msg::service_ctrl_start_service, &chelperservice::service_ctrl_start_service, "start service", status_failure, changes_state, start_service_keys, runs_on::worker},
    {msg::service_ctrl_stop_service, &chelperservice::service_ctrl_stop_service, "stop service by name", status_failure, changes_state, name_keys<service_key>, runs_on::worker},
    {msg::service_ctrl_recover_dacl, &chelperservice::service_ctrl_recover_dacl, "recover service DACL", status_failure, changes_state, name_keys<service_key>},
    {msg::restore_driver_protection, &chelperservice::restore_driver_protection, "restore driver protection", status_failure, changes_state, switch_keys},
    {msg::recover_folder_dacl, &chelperservice::recover_folder_dacl, "recover folder DACL", status_failure, changes_state, folder_keys, runs_on::worker},

    // Quarantine.
    {msg::create_quarantine_container, &chelperservice::create_quarantine_container, "create quarantine container", status_failure, changes_state, create_container_keys, runs_on::worker},
    {msg::quarantine_files, &chelperservice::quarantine_files, "quarantine files", status_failure, changes_state, quarantine_keys, runs_on::worker},
    {msg::remove_quarantine_container, &chelperservice::remove_quarantine_container, "remove quarantine container", status_failure, changes_state, remove_container_keys, runs_on::worker},
    {msg::get_quarantined_files, &chelperservice::get_quarantined_files, "list quarantined files", empty_files, reads_only, name_keys<container_keys>},
    {msg::get_quarantine_containers, &chelperservice::get_quarantine_containers, "list quarantine containers", empty_containers},
    {msg::is_file_quarantined, &chelperservice::is_file_quarantined, "is file quarantined", status_failure},
    {msg::block_file_access, &chelperservice::block_file_access, "block file access", status_failure, changes_state, name_keys<file_key>, runs_on::worker},
    {msg::unblock_file_access, &chelperservice::unblock_file_access, "unblock file access", status_failure, changes_state, name_keys<file_key>, runs_on::worker},
    {msg::block_files_access, &chelperservice::block_files_access, "block files access", status_failure, changes_state, block_files_keys, runs_on::worker},
    {msg::is_file_access_blocked, &chelperservice::is_file_access_blocked, "is file access blocked", status_failure, reads_only, name_keys<file_key>},

    // IRP-denied notifications.
    {msg::subscribe_irp_notification, &chelperservice::subscribe_irp_notification, "subscribe IRP notification", status_failure},
    {msg::query_irp_notification_data, &chelperservice::query_irp_notification_data, "query IRP notification data", empty_notifications},
};

const request_route* find_route(uint32_t id) {
    if (id - msg::first >= msg::span) return nullptr;
    for (const request_route& r : routes)
        if (r.id == id) return &r;
    return nullptr;
}

static_assert(std::size(routes) == std::size(msg::catalogue), "every catalogue identifier has a route");

// The one catch of the request handlers: a request that does not decode or whose handler throws
// (an allocation failure included) is answered with its route's failure reply.
void run_route(chelperservice& service, const request_route& route, mcl::ipc_connection* conn, uint32_t msg_id,
               mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::helper_msg_handler::operator ()";
    bool handled = false;
    try {
        handled = (service.*route.handler)(conn, payload);
    } catch (const std::exception& e) {
        NV_LOG(fn, "Request \"%s\" (IPC message %X) failed: %s", route.name, msg_id, e.what());
    } catch (...) {
        NV_LOG(fn, "Request \"%s\" (IPC message %X) failed", route.name, msg_id);
    }
    if (!handled) route.failure(payload);
}

// A request waiting for its turn or running on a worker: its payload and where its reply goes.
struct queued_request {
    mcl::ipc_deferred_reply reply;
    mcl::binary_t payload;
};

// Every request of one connection shares this key: a connection's requests are answered in the
// order it sent them.
std::string connection_key(const mcl::ipc_connection* conn) {
    char text[32];
    snprintf(text, sizeof(text), "connection|%p", static_cast<const void*>(conn));
    return text;
}

const char* refusal_text(mcl::ordered_pool::refusal refused) {
    switch (refused) {
        case mcl::ordered_pool::refusal::full:
            return "too many requests are waiting";
        case mcl::ordered_pool::refusal::caller_full:
            return "too many requests of this client are waiting";
        default:
            return "the service is stopping";
    }
}

}  // namespace

int chelperservice::helper_msg_handler::operator()(mcl::ipc_connection* conn, uint32_t msg_id,
                                                   mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::helper_msg_handler::operator ()";
    if (conn == nullptr) return 0;
    NV_LOG(fn, "Received IPC message %X, payload size: %d", msg_id, static_cast<int>(payload.size()));
    const request_route* route = find_route(msg_id);
    if (route != nullptr && route->effect == changes_state) {
        const char* image = conn->client_image().empty() ? "image unknown" : conn->client_image().c_str();
        const unsigned long pid = static_cast<unsigned long>(conn->client_process_id());
        if (!owner_->caller_may_change_state(*conn)) {
            // A post gets no reply: the peer drops what is written here.
            NV_LOG(fn, "Access denied: request \"%s\" (IPC message %X) from process %lu (%s)", route->name, msg_id, pid,
                   image);
            protocol::reply_with(payload, protocol::status(false, "Access denied."));
            return 1;
        }
        NV_LOG(fn, "Audit: request \"%s\" (IPC message %X) from process %lu (%s)", route->name, msg_id, pid, image);
    }
    if (route == nullptr) {
        NV_LOG(fn, "Unknow mc::ipc message %X, ignored", msg_id);
        return 1;
    }
    std::vector<std::string> keys{connection_key(conn)};
    if (route->keys != nullptr) route->keys(payload, keys);
    if (route->place == runs_on::event_thread && !owner_->requests_.conflicts(keys)) {
        run_route(*owner_, *route, conn, msg_id, payload);
        return 1;
    }
    // It may take long, or its turn has not come: answered once done, while the event thread
    // goes on with the requests behind it.
    auto request = std::make_shared<queued_request>();
    request->reply = owner_->defer_reply();
    if (!request->reply) {  // called outside the peer's event thread: answered in the call
        run_route(*owner_, *route, conn, msg_id, payload);
        return 1;
    }
    request->payload = std::move(payload);
    chelperservice* owner = owner_;
    const auto job = [owner, route, msg_id, request](bool run) {
        if (run) {
            run_route(*owner, *route, request->reply.connection(), msg_id, request->payload);
        } else {
            NV_LOG("chelperservice::helper_msg_handler", "Request \"%s\" (IPC message %X) not run: the service is stopping",
                   route->name, msg_id);
            route->failure(request->payload);
        }
        request->reply.send(request->payload);
    };
    const mcl::ordered_pool::place place =
        route->place == runs_on::worker ? mcl::ordered_pool::place::worker : mcl::ordered_pool::place::owner;
    const mcl::ordered_pool::refusal refused = owner_->requests_.submit(std::move(keys), place, job);
    if (refused != mcl::ordered_pool::refusal::none) {
        NV_LOG(fn, "Request \"%s\" (IPC message %X) refused: %s", route->name, msg_id, refusal_text(refused));
        route->failure(request->payload);
        request->reply.send(request->payload);
    }
    return 1;
}

bool chelperservice::caller_may_change_state(const mcl::ipc_connection& conn) const {
    // The product's own programs: this program's folder and every folder whose images it protects.
    std::vector<std::wstring> folders = processes_.folder_paths();
    folders.insert(folders.begin(), own_program_folder());
    return judge_caller(conn.client_process(), folders) != caller_verdict::refused;
}

bool chelperservice::disconnect_client(mcl::ipc_connection* conn, mcl::binary_t&) {
    // The connection stays alive for this call: the queued event holds a reference.
    disconnect(mcl::share_ptr<mcl::ipc_connection>(conn));
    return true;
}

bool chelperservice::stop_service(mcl::ipc_connection*, mcl::binary_t&) {
    if (service_stop_event() != nullptr) SetEvent(service_stop_event());
    return true;
}

bool chelperservice::protocol_compatible(mcl::ipc_connection*, mcl::binary_t& payload) {
    // The client sends its own version; any four bytes make the request well formed.
    protocol::compatibility_request request;
    const bool ok = protocol::decode(payload, request);
    protocol::reply_with(payload, protocol::compatibility_reply{static_cast<uint8_t>(ok ? 1 : 0), this_release().ipc_protocol});
    return true;
}

bool chelperservice::service_version_query(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::reply_with(payload, protocol::version_reply{this_release().packed_version});
    return true;
}
