#include "service/irp_tables.h"

#include <algorithm>

#include "mcl/encoding.h"
#include "mcl/endian.h"

namespace irp {
namespace {

// The holding and pending lists are kept in rising order, which is arrival order: the receiver
// hands out sequences from one rising counter. Both operations are then logarithmic, and
// cheap at the ends where the work happens.
void insert_sequence(std::deque<uint64_t>& list, uint64_t sequence) {
    if (list.empty() || sequence > list.back()) {
        list.push_back(sequence);
        return;
    }
    const auto it = std::lower_bound(list.begin(), list.end(), sequence);
    if (it == list.end() || *it != sequence) list.insert(it, sequence);  // never twice
}

void remove_sequence(std::deque<uint64_t>& list, uint64_t sequence) {
    if (list.empty() || sequence < list.front() || sequence > list.back()) return;
    if (list.front() == sequence) {
        list.pop_front();
        return;
    }
    const auto it = std::lower_bound(list.begin(), list.end(), sequence);
    if (it != list.end() && *it == sequence) list.erase(it);
}

}  // namespace

message_check parse_message(const uint8_t* data, size_t size, message& out) {
    out = message{};
    if (size > message_size) size = message_size;
    if (data == nullptr || size < message_fixed_size) return message_check::too_short;
    out.id = static_cast<uint64_t>(mcl::load_u32_le(data + 8)) | static_cast<uint64_t>(mcl::load_u32_le(data + 12)) << 32;
    out.type = mcl::load_u32_le(data + 16);
    out.major_function = data[20];
    out.minor_function = data[21];
    out.process_id = mcl::load_u32_le(data + 24);
    if (out.type != type_irp_denied) return message_check::ok;
    for (size_t pos = message_fixed_size; pos + 1 < size; pos += 2) {
        const auto unit = static_cast<uint16_t>(data[pos] | data[pos + 1] << 8);
        if (unit == 0) return message_check::ok;
        out.file_name.push_back(static_cast<wchar_t>(unit));
    }
    out.file_name.clear();
    return message_check::name_unterminated;
}

subscribe_request to_subscription(const protocol::subscribe_request& decoded) {
    subscribe_request request;
    request.unsubscribe = decoded.unsubscribe;
    request.subscriber = decoded.subscriber;
    request.event_name = decoded.event_name;
    request.file_path = decoded.file_path;
    request.what = filter{decoded.major_function, decoded.minor_function, decoded.type};
    return request;
}

protocol::notification_data to_notification(const record& r) {
    protocol::notification_data n;
    n.sequence = r.sequence;
    n.time = r.time;
    n.file_path = r.file_path;
    n.major_function = r.major_function;
    n.minor_function = r.minor_function;
    n.process_id = r.process_id;
    n.process_image = r.process_image;
    n.process_description = r.process_description;
    n.irp_denied = r.type == type_irp_denied ? 1 : 0;
    return n;
}

void tables::hold(subscription& s, const void* holder) {
    if (holder == nullptr) return;
    s.holder = holder;
    s.released = false;
}

subscribe_outcome tables::subscribe(const subscribe_request& request) {
    auto sub = subscriptions_.find(request.subscriber);
    if (sub == subscriptions_.end()) {
        if (request.unsubscribe) return subscribe_outcome::unchanged;
        if (subscriptions_.size() >= max_subscribers) return subscribe_outcome::refused_full;
        subscription s;
        s.subscriber = request.subscriber;
        s.event_name = request.event_name;
        s.files[request.file_path] = {request.file_path, {request.what}};
        s.holder = request.holder;
        subscriptions_.emplace(request.subscriber, std::move(s));
        return subscribe_outcome::added;
    }
    hold(sub->second, request.holder);
    auto& files = sub->second.files;
    auto file = files.find(request.file_path);
    if (file == files.end()) {
        if (request.unsubscribe) return subscribe_outcome::unchanged;
        if (files.size() >= max_files_per_subscriber) return subscribe_outcome::refused_full;
        files[request.file_path] = {request.file_path, {request.what}};
        return subscribe_outcome::added;
    }
    auto& filters = file->second.filters;
    if (request.unsubscribe) {
        const auto equal = std::find(filters.begin(), filters.end(), request.what);
        if (equal == filters.end()) return subscribe_outcome::unchanged;
        filters.erase(equal);  // an emptied entry stays
        return subscribe_outcome::removed;
    }
    for (const filter& f : filters)
        if (f.covers(request.what)) return subscribe_outcome::unchanged;
    if (filters.size() >= max_filters_per_file) return subscribe_outcome::refused_full;
    filters.push_back(request.what);
    return subscribe_outcome::added;
}

std::vector<const subscription*> tables::choose(const std::string& file_path, uint8_t major, uint8_t minor) const {
    std::vector<const subscription*> chosen;
    for (const auto& entry : subscriptions_) {
        const auto& files = entry.second.files;
        auto file = files.find(file_path);
        if (file == files.end()) file = files.find(any_file);
        if (file == files.end()) continue;
        for (const filter& f : file->second.filters) {
            if (f.matches(major, minor)) {
                chosen.push_back(&entry.second);
                break;
            }
        }
    }
    return chosen;
}

store_outcome tables::store(const std::string& subscriber, const record& r, uint64_t& counter) {
    store_outcome outcome;
    holding& held = holdings_[subscriber];
    if (held.sequences.size() >= max_records_per_subscriber) {
        outcome.drops_started = !held.dropping;
        held.dropping = true;
        erase_stored(store_.find(held.sequences.front()));
    }
    uint64_t sequence = r.sequence;
    while (store_.count(sequence) != 0) sequence = counter++;
    stored_record& s = store_[sequence];
    s.r = r;
    s.r.sequence = sequence;
    s.owner = subscriber;
    by_time_.emplace(r.time, sequence);
    insert_sequence(held.sequences, sequence);
    insert_sequence(pending_[subscriber], sequence);
    outcome.sequence = sequence;
    return outcome;
}

void tables::erase_stored(std::map<uint64_t, stored_record>::iterator it) {
    if (it == store_.end()) return;
    const uint64_t sequence = it->first;
    auto range = by_time_.equal_range(it->second.r.time);
    for (auto t = range.first; t != range.second; ++t) {
        if (t->second == sequence) {
            by_time_.erase(t);
            break;
        }
    }
    auto held = holdings_.find(it->second.owner);
    if (held != holdings_.end()) remove_sequence(held->second.sequences, sequence);
    // A record that is gone can never be collected: its pending entry goes too, so the
    // index of a subscriber that never queries stays bounded by the store.
    auto pending = pending_.find(it->second.owner);
    if (pending != pending_.end()) remove_sequence(pending->second, sequence);
    store_.erase(it);
}

void tables::purge(uint64_t now) {
    while (!by_time_.empty()) {
        const uint64_t time = by_time_.begin()->first;
        if (time >= now || now - time <= record_lifetime) return;
        const auto it = store_.find(by_time_.begin()->second);
        if (it == store_.end()) {
            by_time_.erase(by_time_.begin());
            continue;
        }
        erase_stored(it);
    }
}

void tables::release(const void* holder, uint64_t now) {
    if (holder == nullptr) return;
    for (auto& entry : subscriptions_) {
        subscription& s = entry.second;
        if (s.holder != holder) continue;
        s.holder = nullptr;
        s.released = true;
        s.released_at = now;
    }
}

std::vector<std::string> tables::end_released(uint64_t now) {
    std::vector<std::string> ended;
    for (auto it = subscriptions_.begin(); it != subscriptions_.end();) {
        const subscription& s = it->second;
        // A clock that went back keeps the subscription, as it keeps records.
        if (!s.released || now < s.released_at || now - s.released_at <= record_lifetime) {
            ++it;
            continue;
        }
        const auto held = holdings_.find(s.subscriber);
        if (held != holdings_.end()) {
            const std::deque<uint64_t> sequences = held->second.sequences;
            for (uint64_t sequence : sequences) erase_stored(store_.find(sequence));
            holdings_.erase(s.subscriber);
        }
        pending_.erase(s.subscriber);
        ended.push_back(s.subscriber);
        it = subscriptions_.erase(it);
    }
    return ended;
}

std::vector<record> tables::collect(const std::string& subscriber, const void* holder) {
    const auto sub = subscriptions_.find(subscriber);
    if (sub != subscriptions_.end()) hold(sub->second, holder);
    std::vector<record> found;
    auto pending = pending_.find(subscriber);
    if (pending != pending_.end()) {
        for (uint64_t sequence : pending->second) {
            auto it = store_.find(sequence);
            if (it != store_.end()) found.push_back(it->second.r);
        }
        pending->second.clear();
    }
    auto held = holdings_.find(subscriber);
    if (held != holdings_.end()) held->second.dropping = false;
    return found;
}

void tables::clear_store() {
    store_.clear();
    by_time_.clear();
    pending_.clear();
    holdings_.clear();
}

size_t tables::held_by(const std::string& subscriber) const {
    auto held = holdings_.find(subscriber);
    return held == holdings_.end() ? 0 : held->second.sequences.size();
}

}  // namespace irp
