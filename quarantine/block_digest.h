// SHA-256 of a byte stream computed on a thread of its own while its producer goes on with the
// same bytes (compressing them, writing them out).
//
// The producer fills blocks from a small fixed ring and hands each one over; the digest thread
// hashes the blocks in order and gives each back to the ring. When the producer is ahead by the
// whole ring it waits for the digest, so memory stays at block_count * block_size whatever the
// length of the stream. Without a thread (none could be started) each block is hashed as it is
// handed over.
//
// acquire(), filled() and finish() run on the producer's thread only.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "mcl/buffer.h"
#include "quarantine/sha256.h"

class block_digest {
public:
    static constexpr size_t block_size = 1024 * 1024;
    static constexpr size_t block_count = 8;

    block_digest();
    // Waits for the digest thread.
    ~block_digest();
    block_digest(const block_digest&) = delete;
    block_digest& operator=(const block_digest&) = delete;

    // The next block to fill, `block_size` bytes, once the digest has let go of it; null when
    // the ring could not be allocated.
    unsigned char* acquire();
    // Hands over the block from the last acquire() with its first `size` bytes filled. The
    // producer may go on reading that block (never writing it) until its next acquire().
    void filled(size_t size);
    // Waits for every block handed over and replaces `digest` with their digest; false (and an
    // empty `digest`) when hashing failed.
    [[nodiscard]] bool finish(mcl::binary_t& digest);

    // Copies bytes into blocks and hands each over when it is full; finish() hands over the
    // last, partly filled one. For producers that have the bytes in a buffer of their own.
    void add(const unsigned char* data, size_t size);

private:
    void run();
    void stop();
    unsigned char* block(uint64_t index) const { return ring_.get() + (index % block_count) * block_size; }

    sha256_hasher hasher_;
    bool ok_ = false;  // written by the digest thread while it runs, read after the join
    std::unique_ptr<unsigned char[]> ring_;
    size_t sizes_[block_count] = {};
    std::mutex lock_;
    std::condition_variable changed_;
    uint64_t posted_ = 0;  // blocks handed over
    uint64_t hashed_ = 0;  // blocks hashed and given back to the ring
    bool done_ = false;
    std::thread worker_;
    // add(): the block being filled and how much of it is.
    unsigned char* adding_ = nullptr;
    size_t added_ = 0;
};
