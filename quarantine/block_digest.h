// SHA-256 of a byte stream computed on a thread of its own while its producer goes on with the
// same bytes (compressing them, decoding more of them), and, when a writer is given, the same
// blocks written out on a third thread.
//
// The producer fills blocks from a small fixed ring and hands each one over; the digest thread
// hashes the blocks in order, the writer's thread writes them in order, and a block goes back
// to the ring once both are done with it. When the producer is ahead by the whole ring it
// waits, so memory stays at block_count * block_size whatever the length of the stream. The
// digest and the writer never wait for each other: the writer's stalls (a flush to the disk)
// only hold the producer back once the ring is full. Without a thread (none could be started)
// each block is hashed, or written, as it is handed over.
//
// acquire(), filled(), add(), space(), commit(), drain() and finish() run on the producer's
// thread only.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "mcl/buffer.h"
#include "quarantine/sha256.h"

// What is done with every block besides hashing it. Called for the blocks in order, on the
// writer's thread; it may block (writing, flushing) without holding up the digest.
class block_writer {
public:
    virtual ~block_writer() = default;
    virtual void write(const unsigned char* data, size_t size) = 0;
};

class block_digest {
public:
    static constexpr size_t block_size = 1024 * 1024;
    static constexpr size_t block_count = 8;

    // `writer`, when given, receives every block and must outlive this object.
    explicit block_digest(block_writer* writer = nullptr);
    // Waits for the digest and writer threads (which finish the blocks handed over).
    ~block_digest();
    block_digest(const block_digest&) = delete;
    block_digest& operator=(const block_digest&) = delete;

    // The next block to fill, `block_size` bytes, once the digest and the writer have let go
    // of it; null when the ring could not be allocated.
    unsigned char* acquire();
    // Hands over the block from the last acquire() with its first `size` bytes filled. The
    // producer may go on reading that block (never writing it) until its next acquire().
    void filled(size_t size);
    // Hands over the partly filled block of add(), if any, and waits until the writer has
    // written every block handed over; the digest may still be running. Nothing may be added
    // afterwards.
    void drain();
    // Waits for every block handed over (drain() included) and replaces `digest` with their
    // digest; false (and an empty `digest`) when hashing failed.
    [[nodiscard]] bool finish(mcl::binary_t& digest);

    // Copies bytes into blocks and hands each over when it is full; drain() and finish() hand
    // over the last, partly filled one. For producers that have the bytes in a buffer of their
    // own.
    void add(const unsigned char* data, size_t size);
    // The same without the copy: room for the next bytes in the block being filled, `size`
    // (more than 0) bytes at the address returned, null when the ring could not be allocated;
    // commit() takes that many of them as added. A block handed over stays as it is until
    // block_count - 1 more blocks have been filled.
    unsigned char* space(size_t& size);
    void commit(size_t size);

private:
    // Threads are woken in pairs of blocks rather than for every block: a full ring lets the
    // producer go on once producer_batch blocks are free again, and the writer starts once
    // writer_batch blocks wait. Each wake-up costs a switch of threads, which on two cores takes
    // time from the digest; a larger batch would leave the digest fewer blocks in hand when the
    // producer stalls (a flush).
    static constexpr uint64_t producer_batch = 2;
    static constexpr uint64_t writer_batch = 2;

    void run_digest();
    void run_writer();
    void hand_over_partial();
    void stop();
    unsigned char* block(uint64_t index) const { return ring_.get() + (index % block_count) * block_size; }
    // Blocks not yet back in the ring. With lock_ held.
    uint64_t in_use_locked() const { return posted_ - (hashed_ < written_ ? hashed_ : written_); }
    // Whether the producer, waiting, may go on; with lock_ held.
    bool producer_may_go_locked() const {
        return draining_ ? written_ == posted_ : in_use_locked() <= block_count - producer_batch;
    }
    // Whether the writer, waiting, has work or must end; with lock_ held.
    bool writer_may_go_locked() const { return posted_ - written_ >= writer_batch || draining_ || done_; }

    block_writer* writer_;
    sha256_hasher hasher_;
    bool ok_ = false;  // written by the digest thread while it runs, read after the join
    std::unique_ptr<unsigned char[]> ring_;
    size_t sizes_[block_count] = {};
    std::mutex lock_;
    std::condition_variable freed_;   // the producer waits for blocks back in the ring
    std::condition_variable posted_cv_;  // the digest and the writer wait for blocks
    uint64_t posted_ = 0;   // blocks handed over
    uint64_t hashed_ = 0;   // blocks hashed
    uint64_t written_ = 0;  // blocks written (all of them when there is no writer)
    bool producer_waiting_ = false;
    bool digest_waiting_ = false;
    bool writer_waiting_ = false;
    bool draining_ = false;  // drain() waits for the writer to catch up
    bool done_ = false;
    std::thread digest_thread_;
    std::thread writer_thread_;
    // add(): the block being filled and how much of it is.
    unsigned char* adding_ = nullptr;
    size_t added_ = 0;
};
