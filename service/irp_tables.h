// IRP-denied notifications without Windows: the notification message reader, the subscription
// table, the notification store with its pending index, and the reply records of the query
// request. The notifier (service/irp_notifier.cpp) holds one `tables` under its
// IRP lock and does the Windows half (the port, events, processes, volumes, the log lines).
//
// Plain C++, so the readers also build natively for the fuzz and sanitizer runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "protocol/replies.h"
#include "protocol/requests.h"

namespace irp {

// The file key of a subscription that matches every file.
inline constexpr char any_file[] = "subscribe_any_file";
// A record lives 300 seconds, in FILETIME units (100 ns).
inline constexpr uint64_t record_lifetime = 3000000000ULL;
// At most this many records of one subscriber are held; the oldest go first.
inline constexpr size_t max_records_per_subscriber = 10000;

// What one client may make the service hold in its subscription table.
inline constexpr size_t max_subscribers = 64;
inline constexpr size_t max_files_per_subscriber = 256;
inline constexpr size_t max_filters_per_file = 16;
// The bounds of the subscribe and query requests (protocol/requests.h).
using protocol::max_name_bytes;
using protocol::max_path_bytes;
using protocol::max_subscribe_payload;
using protocol::max_query_payload;

inline constexpr uint8_t any_function = 0xFF;
inline constexpr uint32_t any_type = 0;
inline constexpr uint32_t type_irp_denied = 1;

// ---- the notification message, as FilterGetMessage fills the 552-byte buffer

inline constexpr size_t message_size = 552;
inline constexpr size_t message_fixed_size = 28;  // filter header (16), type, functions, pid

enum class message_check {
    ok,
    too_short,          // fewer bytes than the header and the fixed fields
    name_unterminated,  // an IRP-denied message whose file name has no zero unit inside it
};

struct message {
    uint64_t id = 0;
    uint32_t type = 0;
    uint8_t major_function = 0;
    uint8_t minor_function = 0;
    uint32_t process_id = 0;
    std::wstring file_name;  // device form; read for IRP-denied messages only
};

// Reads the first `size` bytes that the driver delivered (at most 552 are looked at). The file
// name is only read, and only required to end inside the message, for type 1.
message_check parse_message(const uint8_t* data, size_t size, message& out);

// ---- requests

using protocol::request_check;

struct filter {
    uint8_t major_function = any_function;
    uint8_t minor_function = any_function;
    uint32_t type = any_type;
    bool operator==(const filter& o) const {
        return major_function == o.major_function && minor_function == o.minor_function && type == o.type;
    }
    // Whether this filter already asks for everything `o` asks for.
    bool covers(const filter& o) const {
        return (type == any_type || type == o.type) &&
               (major_function == any_function || major_function == o.major_function) &&
               (minor_function == any_function || minor_function == o.minor_function);
    }
    bool matches(uint8_t major, uint8_t minor) const {
        return (type == any_type || type == type_irp_denied) && (major_function == any_function || major_function == major) &&
               (minor_function == any_function || minor_function == minor);
    }
};

struct subscribe_request {
    bool unsubscribe = false;
    std::string subscriber;
    std::string event_name;
    std::string file_path;
    filter what;
    const void* holder = nullptr;  // the client connection that asked; only compared, never used
};

// The subscribe and query requests are read by protocol/requests.h; this is a decoded
// subscribe request as the table takes it.
subscribe_request to_subscription(const protocol::subscribe_request& decoded);

// ---- records and tables

struct record {
    uint64_t sequence = 0;
    uint64_t time = 0;  // FILETIME, UTC
    std::string file_path;
    uint8_t major_function = 0;
    uint8_t minor_function = 0;
    uint32_t process_id = 0;
    std::string process_image;
    std::string process_description;
    uint32_t type = type_irp_denied;
};

// One element of the query reply.
protocol::notification_data to_notification(const record& r);

struct subscription {
    std::string subscriber;
    std::string event_name;
    struct file_entry {
        std::string path;
        std::vector<filter> filters;
    };
    std::map<std::string, file_entry> files;  // lower-case path, or any_file
    // The connection that last subscribed or collected under this name; null once it ended,
    // from `released_at` (FILETIME) on.
    const void* holder = nullptr;
    bool released = false;
    uint64_t released_at = 0;
};

enum class subscribe_outcome { unchanged, added, removed, refused_full };

// Where a stored record went.
struct store_outcome {
    uint64_t sequence = 0;
    bool drops_started = false;  // the subscriber's first dropped record since it last queried
};

// The subscription table, the notification store and the pending index. Not thread-safe: the
// owner holds its lock around every call.
class tables {
public:
    // `request.file_path` lower-case and non-empty, subscriber and event name non-empty. A
    // known subscriber is held by `request.holder` from then on, whatever the outcome.
    subscribe_outcome subscribe(const subscribe_request& request);
    // The connection `holder` has ended: the subscriptions it held are released at `now`.
    void release(const void* holder, uint64_t now);
    // Ends every subscription released more than record_lifetime before `now`, with its
    // records; their names, in name order. A subscriber that subscribes or collects again
    // before then keeps everything.
    std::vector<std::string> end_released(uint64_t now);
    // Subscriptions whose file entry for `file_path` (else for any_file) has a filter matching
    // an IRP-denied message with these functions, in subscriber-name order.
    std::vector<const subscription*> choose(const std::string& file_path, uint8_t major, uint8_t minor) const;
    // Stores a copy of `r` for `subscriber` under a sequence that the store does not hold yet
    // (taken from `counter` when r.sequence is held) and appends it to the pending list; drops
    // the subscriber's oldest record first when it holds the maximum.
    store_outcome store(const std::string& subscriber, const record& r, uint64_t& counter);
    // Removes every record more than record_lifetime older than `now`.
    void purge(uint64_t now);
    // The pending records of `subscriber` that are still stored, in pending order; empties the
    // pending list (the records stay stored until they expire). A non-null `holder` holds the
    // subscription from then on.
    std::vector<record> collect(const std::string& subscriber, const void* holder = nullptr);
    // Empties the store and the pending index; subscriptions stay.
    void clear_store();

    size_t stored() const { return store_.size(); }
    size_t held_by(const std::string& subscriber) const;

private:
    struct stored_record {
        record r;
        std::string owner;
    };
    struct holding {
        std::deque<uint64_t> sequences;  // the owner's stored records, rising (oldest first)
        bool dropping = false;
    };
    void erase_stored(std::map<uint64_t, stored_record>::iterator it);
    static void hold(subscription& s, const void* holder);

    std::map<std::string, subscription> subscriptions_;
    std::map<uint64_t, stored_record> store_;
    std::multimap<uint64_t, uint64_t> by_time_;  // time -> sequence
    std::map<std::string, std::deque<uint64_t>> pending_;  // rising
    std::map<std::string, holding> holdings_;
};

}  // namespace irp
