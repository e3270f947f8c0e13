// The frame of the IPC transport and the cutter that splits a byte stream into frames.
//
// A frame is a 16-byte header (kind, message id, sequence number, payload length L, each a
// little-endian u32) followed by L payload bytes; an empty payload travels as one 0x00 pad
// byte that is not part of the payload. Plain C++: no Windows calls, so it also builds natively
// for fuzzing.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "mcl/buffer.h"

namespace mcl {

enum class frame_kind : uint32_t {
    request = 0,         // answered with a response
    response = 1,        // reply to a request, for the waiting send
    routed_request = 2,  // answered with a routed reply
    routed_reply = 3,    // reply to a routed request, for a registered reply handler
    post = 4,            // one-way, never answered
};

constexpr uint32_t frame_header_size = 16;
// An announced payload longer than this ends the connection that announced it.
constexpr uint32_t max_frame_payload = 64u * 1024 * 1024;

struct frame_header {
    uint32_t kind = 0;
    uint32_t message_id = 0;
    uint32_t sequence = 0;
    uint32_t length = 0;
};

// Bytes a frame with an L-byte payload occupies: 16 + max(L, 1).
inline uint64_t frame_size(uint32_t length) { return frame_header_size + static_cast<uint64_t>(length == 0 ? 1 : length); }

// Decodes the header of a frame; false when fewer than 16 bytes are given.
bool read_frame_header(const unsigned char* bytes, uint32_t size, frame_header& header);
inline bool read_frame_header(const binary_t& frame, frame_header& header) {
    return read_frame_header(frame.data(), frame.size(), header);
}

// Appends a whole frame (header, then the payload or the pad byte) to `out`.
void append_frame(binary_t& out, frame_kind kind, uint32_t message_id, uint32_t sequence, const unsigned char* payload,
                  uint32_t length);
inline void append_frame(binary_t& out, frame_kind kind, uint32_t message_id, uint32_t sequence, const binary_t& payload) {
    append_frame(out, kind, message_id, sequence, payload.data(), payload.size());
}

// Replaces `payload` with the L payload bytes of a whole frame (empty for a short frame).
void copy_frame_payload(const binary_t& frame, binary_t& payload);

// A count of bytes that clients make this process hold (partly received frames, queued events,
// stored replies, write queues), with a ceiling. A budget with a parent is a share of it: what it
// counts is counted in the parent too, and it takes no more than its own ceiling, so one client's
// share cannot use up what the others need. Any thread.
class byte_budget {
public:
    explicit byte_budget(uint64_t limit, byte_budget* parent = nullptr) : limit_(limit), parent_(parent) {}
    byte_budget(const byte_budget&) = delete;
    byte_budget& operator=(const byte_budget&) = delete;

    // Counts n more bytes here and in the parent; false (nothing counted anywhere) when that
    // would pass either limit.
    bool take(uint64_t n);
    void give(uint64_t n);
    uint64_t held() const { return held_.load(); }
    uint64_t limit() const { return limit_; }
    byte_budget* parent() const { return parent_; }

    // The one budget of the process: 256 MiB.
    static byte_budget& process();
    // One connection's share of the process budget: half of it, room for the largest frame
    // while it is cut from the stream and again while its reply waits to be written.
    static uint64_t connection_share() { return process().limit() / 2; }

private:
    bool take_here(uint64_t n);

    const uint64_t limit_;
    byte_budget* const parent_;
    std::atomic<uint64_t> held_{0};
};

// Collects received bytes and cuts whole frames from their front. Consumed bytes are skipped
// with a read offset and the remainder is moved to the front only when it is no longer than
// what was consumed, so each byte is moved a bounded number of times however long the backlog.
// A large frame can be received straight into its place (frame_tail, then commit), without a
// pass through a small read block. The storage grows with the bytes that have come, never with
// an announced length alone, and its size is counted in a byte budget. Not thread-safe: one
// reader thread owns it.
class frame_cutter {
public:
    enum class result {
        ok,           // zero or more frames were cut
        too_long,     // a header announces more than max_frame_payload; the stream is unusable
        over_budget,  // the budget refused the storage for bytes that came; the stream is unusable
    };

    explicit frame_cutter(byte_budget* budget = &byte_budget::process()) : budget_(budget) {}
    frame_cutter(const frame_cutter&) = delete;
    frame_cutter& operator=(const frame_cutter&) = delete;
    ~frame_cutter() { reset(); }

    // False (the bytes are dropped, and cut reports over_budget) when the budget refuses them.
    bool append(const unsigned char* bytes, uint32_t n);
    // When the header of the frame at the front has come and more than `min_bytes` of the
    // frame are still missing: room at the end of the pending bytes for the missing bytes, but
    // never more than about as many as have come so far (its size in `room`). Null otherwise.
    // The room stays valid until the next call.
    unsigned char* frame_tail(uint32_t min_bytes, uint32_t& room);
    // Takes n bytes that were written into the room frame_tail gave.
    void commit(uint32_t n);
    // Appends each whole frame at the front of the pending bytes to `frames`, in order.
    result cut(std::vector<binary_t>& frames);
    // Length announced by the header that stopped the last cut (meaningful after too_long).
    uint32_t rejected_length() const { return rejected_length_; }
    uint32_t pending() const { return end_ - begin_; }
    bool over_budget() const { return over_budget_; }
    // Bytes of storage held (and counted in the budget).
    size_t capacity() const { return storage_.size(); }
    void reset();

private:
    static constexpr size_t retained_capacity = 4u * 1024 * 1024;

    // Makes room for n more bytes behind the pending ones.
    bool reserve(uint32_t n);
    void release_storage();

    byte_budget* budget_;
    bool over_budget_ = false;
    std::vector<unsigned char> storage_;
    uint32_t begin_ = 0;  // first pending byte
    uint32_t end_ = 0;    // one past the last pending byte
    uint32_t rejected_length_ = 0;
};

}  // namespace mcl
