#include "mcl/ipc/frame.h"

#include <cstring>

#include "mcl/endian.h"

namespace mcl {

namespace {

unsigned char* frame_tail_none(uint32_t& room) {
    room = 0;
    return nullptr;
}

}  // namespace

bool read_frame_header(const unsigned char* bytes, uint32_t size, frame_header& header) {
    if (bytes == nullptr || size < frame_header_size) return false;
    header.kind = load_u32_le(bytes);
    header.message_id = load_u32_le(bytes + 4);
    header.sequence = load_u32_le(bytes + 8);
    header.length = load_u32_le(bytes + 12);
    return true;
}

void append_frame(binary_t& out, frame_kind kind, uint32_t message_id, uint32_t sequence, const unsigned char* payload,
                  uint32_t length) {
    unsigned char header[frame_header_size];
    store_u32_le(header, static_cast<uint32_t>(kind));
    store_u32_le(header + 4, message_id);
    store_u32_le(header + 8, sequence);
    store_u32_le(header + 12, length);
    out.append(header, frame_header_size);
    if (length == 0) {
        const unsigned char pad = 0;
        out.append(&pad, 1);
    } else {
        out.append(payload, length);
    }
}

void copy_frame_payload(const binary_t& frame, binary_t& payload) {
    payload.clear();
    frame_header header;
    if (!read_frame_header(frame, header) || header.length == 0) return;
    if (frame_size(header.length) > frame.size()) return;
    payload.append(frame.data() + frame_header_size, header.length);
}

bool byte_budget::take_here(uint64_t n) {
    uint64_t held = held_.load();
    do {
        if (n > limit_ || held > limit_ - n) return false;
    } while (!held_.compare_exchange_weak(held, held + n));
    return true;
}

bool byte_budget::take(uint64_t n) {
    if (!take_here(n)) return false;
    if (parent_ != nullptr && !parent_->take(n)) {
        held_.fetch_sub(n);
        return false;
    }
    return true;
}

void byte_budget::give(uint64_t n) {
    held_.fetch_sub(n);
    if (parent_ != nullptr) parent_->give(n);
}

byte_budget& byte_budget::process() {
    static byte_budget budget(256ull * 1024 * 1024);
    return budget;
}

void frame_cutter::release_storage() {
    if (budget_ != nullptr) budget_->give(storage_.size());
    storage_.clear();
    storage_.shrink_to_fit();
}

bool frame_cutter::reserve(uint32_t n) {
    // Move the remainder to the front, but only when that costs no more than the bytes
    // already consumed.
    if (begin_ != 0 && pending() <= begin_) {
        memmove(storage_.data(), storage_.data() + begin_, pending());
        end_ -= begin_;
        begin_ = 0;
    }
    const uint64_t required = static_cast<uint64_t>(end_) + n;
    if (required > UINT32_MAX) return false;
    if (required > storage_.size()) {
        uint64_t capacity = storage_.size() < 4096 ? 4096 : storage_.size();
        while (capacity < required) capacity *= 2;
        // A large frame at the front gets room for itself, not for twice its size: a client's
        // largest frame then fits its share of the budget.
        frame_header header;
        if (read_frame_header(storage_.data() + begin_, pending(), header) && header.length <= max_frame_payload) {
            const uint64_t frame_end = begin_ + frame_size(header.length);
            if (frame_end >= required && capacity > frame_end) capacity = frame_end < 4096 ? 4096 : frame_end;
        }
        if (capacity > UINT32_MAX) capacity = UINT32_MAX;
        const uint64_t growth = capacity - storage_.size();
        if (budget_ != nullptr && !budget_->take(growth)) {
            over_budget_ = true;
            return false;
        }
        storage_.resize(static_cast<size_t>(capacity));
    }
    return true;
}

bool frame_cutter::append(const unsigned char* bytes, uint32_t n) {
    if (n == 0 || bytes == nullptr) return true;
    if (over_budget_ || !reserve(n)) return false;
    memcpy(storage_.data() + end_, bytes, n);
    end_ += n;
    return true;
}

unsigned char* frame_cutter::frame_tail(uint32_t min_bytes, uint32_t& room) {
    frame_header header;
    if (!read_frame_header(storage_.data() + begin_, pending(), header) || header.length > max_frame_payload)
        return frame_tail_none(room);
    const uint64_t size = frame_size(header.length);
    if (size <= pending() || size - pending() <= min_bytes) return frame_tail_none(room);
    // Grow with what has come: at most as many bytes again as are pending, so a header that
    // announces a large frame and then trickles costs no more than what it sent.
    uint64_t missing = size - pending();
    const uint64_t step = pending() < 65536 ? 65536 : pending();
    if (missing > step) missing = step;
    if (missing <= min_bytes || !reserve(static_cast<uint32_t>(missing))) return frame_tail_none(room);
    room = static_cast<uint32_t>(missing);
    return storage_.data() + end_;
}

void frame_cutter::commit(uint32_t n) {
    if (static_cast<uint64_t>(end_) + n <= storage_.size()) end_ += n;
}

frame_cutter::result frame_cutter::cut(std::vector<binary_t>& frames) {
    if (over_budget_) return result::over_budget;
    while (pending() > frame_header_size) {
        frame_header header;
        (void)read_frame_header(storage_.data() + begin_, pending(), header);
        if (header.length > max_frame_payload) {
            rejected_length_ = header.length;
            return result::too_long;
        }
        const uint64_t size = frame_size(header.length);
        if (size > pending()) break;
        frames.emplace_back(storage_.data() + begin_, static_cast<uint32_t>(size));
        begin_ += static_cast<uint32_t>(size);
    }
    if (begin_ == end_) {
        begin_ = end_ = 0;
        // A connection that once carried a large frame does not keep its memory while idle.
        if (storage_.size() > retained_capacity) release_storage();
    }
    return result::ok;
}

void frame_cutter::reset() {
    release_storage();
    begin_ = end_ = 0;
    rejected_length_ = 0;
    over_budget_ = false;
}

}  // namespace mcl
