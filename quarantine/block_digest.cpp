#include "quarantine/block_digest.h"

#include <cstring>
#include <new>
#include <system_error>

namespace {

// A thread running `body`, or none when the system could not start one.
template <typename Body>
std::thread start_thread(Body body) {
    try {
        return std::thread(body);
    } catch (const std::system_error&) {
        return std::thread();
    }
}

}  // namespace

block_digest::block_digest(block_writer* writer)
    : writer_(writer), ring_(new (std::nothrow) unsigned char[block_count * block_size]) {
    ok_ = ring_ != nullptr && hasher_.begin();
    if (!ok_) return;
    // Without a thread the block is hashed, or written, in filled() instead.
    digest_thread_ = start_thread([this] { run_digest(); });
    if (writer_ != nullptr) writer_thread_ = start_thread([this] { run_writer(); });
}

block_digest::~block_digest() { stop(); }

unsigned char* block_digest::acquire() {
    if (ring_ == nullptr) return nullptr;
    std::unique_lock<std::mutex> hold(lock_);
    if (in_use_locked() >= block_count) {
        producer_waiting_ = true;
        freed_.wait(hold, [this] { return producer_may_go_locked(); });
        producer_waiting_ = false;
    }
    return block(posted_);
}

void block_digest::filled(size_t size) {
    const uint64_t index = posted_;
    const bool hash_here = !digest_thread_.joinable();
    const bool write_here = !writer_thread_.joinable();
    if (hash_here && ok_) ok_ = hasher_.update(block(index), size);
    if (write_here && writer_ != nullptr) writer_->write(block(index), size);
    bool wake = false;
    {
        std::lock_guard<std::mutex> hold(lock_);
        sizes_[index % block_count] = size;
        ++posted_;
        if (hash_here) ++hashed_;
        if (write_here) ++written_;
        wake = digest_waiting_ || (writer_waiting_ && writer_may_go_locked());
    }
    if (wake) posted_cv_.notify_all();
}

void block_digest::add(const unsigned char* data, size_t size) {
    while (size != 0) {
        size_t room = 0;
        unsigned char* to = space(room);
        if (to == nullptr) return;  // no ring: finish() fails
        const size_t take = size < room ? size : room;
        memcpy(to, data, take);
        commit(take);
        data += take;
        size -= take;
    }
}

unsigned char* block_digest::space(size_t& size) {
    size = 0;
    if (adding_ == nullptr) {
        adding_ = acquire();
        added_ = 0;
        if (adding_ == nullptr) return nullptr;
    }
    size = block_size - added_;
    return adding_ + added_;
}

void block_digest::commit(size_t size) {
    added_ += size;
    if (added_ == block_size) {
        filled(added_);
        adding_ = nullptr;
    }
}

void block_digest::hand_over_partial() {
    if (adding_ == nullptr) return;
    filled(added_);
    adding_ = nullptr;
}

void block_digest::drain() {
    hand_over_partial();
    std::unique_lock<std::mutex> hold(lock_);
    draining_ = true;
    if (writer_waiting_) posted_cv_.notify_all();
    producer_waiting_ = true;
    freed_.wait(hold, [this] { return written_ == posted_; });
    producer_waiting_ = false;
}

bool block_digest::finish(mcl::binary_t& digest) {
    hand_over_partial();
    stop();
    digest.clear();
    return ok_ && hasher_.finish(digest);
}

void block_digest::run_digest() {
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        if (posted_ == hashed_ && !done_) {
            digest_waiting_ = true;
            posted_cv_.wait(hold, [this] { return posted_ != hashed_ || done_; });
            digest_waiting_ = false;
        }
        if (posted_ == hashed_) return;
        const uint64_t index = hashed_;
        const size_t size = sizes_[index % block_count];
        hold.unlock();
        // The producer does not touch this block again until hashed_ has passed it.
        if (ok_) ok_ = hasher_.update(block(index), size);
        hold.lock();
        ++hashed_;
        if (producer_waiting_ && producer_may_go_locked()) freed_.notify_one();
    }
}

void block_digest::run_writer() {
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        if (!writer_may_go_locked()) {
            writer_waiting_ = true;
            posted_cv_.wait(hold, [this] { return writer_may_go_locked(); });
            writer_waiting_ = false;
        }
        if (posted_ == written_) {
            if (done_) return;
            // Drained: nothing more comes but the end.
            writer_waiting_ = true;
            posted_cv_.wait(hold, [this] { return done_; });
            return;
        }
        const uint64_t index = written_;
        const size_t size = sizes_[index % block_count];
        hold.unlock();
        // The producer does not touch this block again until written_ has passed it.
        writer_->write(block(index), size);
        hold.lock();
        ++written_;
        if (producer_waiting_ && producer_may_go_locked()) freed_.notify_one();
    }
}

void block_digest::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        done_ = true;
    }
    posted_cv_.notify_all();
    if (digest_thread_.joinable()) digest_thread_.join();
    if (writer_thread_.joinable()) writer_thread_.join();
}
