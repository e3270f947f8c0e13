#include "mcl/ipc/frame.h"

#include <cstring>

namespace mcl {

namespace {

uint32_t load_u32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

void store_u32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

}  // namespace

bool read_frame_header(const unsigned char* bytes, uint32_t size, frame_header& header) {
    if (bytes == nullptr || size < frame_header_size) return false;
    header.kind = load_u32(bytes);
    header.message_id = load_u32(bytes + 4);
    header.sequence = load_u32(bytes + 8);
    header.length = load_u32(bytes + 12);
    return true;
}

void append_frame(binary_t& out, frame_kind kind, uint32_t message_id, uint32_t sequence, const unsigned char* payload,
                  uint32_t length) {
    unsigned char header[frame_header_size];
    store_u32(header, static_cast<uint32_t>(kind));
    store_u32(header + 4, message_id);
    store_u32(header + 8, sequence);
    store_u32(header + 12, length);
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

void frame_cutter::append(const unsigned char* bytes, uint32_t n) {
    if (n == 0) return;
    // Move the remainder to the front before growing, but only when that costs no more than
    // the bytes already consumed.
    if (offset_ != 0 && pending() <= offset_) {
        buffer_.drop_front(offset_);
        offset_ = 0;
    }
    buffer_.append(bytes, n);
}

frame_cutter::result frame_cutter::cut(std::vector<binary_t>& frames) {
    while (pending() > frame_header_size) {
        frame_header header;
        (void)read_frame_header(buffer_.data() + offset_, pending(), header);
        if (header.length > max_frame_payload) {
            rejected_length_ = header.length;
            return result::too_long;
        }
        const uint64_t size = frame_size(header.length);
        if (size > pending()) break;
        frames.emplace_back(buffer_.data() + offset_, static_cast<uint32_t>(size));
        offset_ += static_cast<uint32_t>(size);
    }
    if (offset_ == buffer_.size()) {
        buffer_.clear();
        offset_ = 0;
    }
    return result::ok;
}

void frame_cutter::reset() {
    buffer_.release_storage();
    offset_ = 0;
    rejected_length_ = 0;
}

}  // namespace mcl
