#include "quarantine/block_digest.h"

#include <cstring>
#include <new>
#include <system_error>

block_digest::block_digest() : ring_(new (std::nothrow) unsigned char[block_count * block_size]) {
    ok_ = ring_ != nullptr && hasher_.begin();
    if (!ok_) return;
    try {
        worker_ = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        // Hashed in filled() instead.
    }
}

block_digest::~block_digest() { stop(); }

unsigned char* block_digest::acquire() {
    if (ring_ == nullptr) return nullptr;
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [this] { return posted_ - hashed_ < block_count; });
    return block(posted_);
}

void block_digest::filled(size_t size) {
    if (!worker_.joinable()) {
        if (ok_) ok_ = hasher_.update(block(posted_), size);
        ++posted_;
        ++hashed_;
        return;
    }
    {
        std::lock_guard<std::mutex> hold(lock_);
        sizes_[posted_ % block_count] = size;
        ++posted_;
    }
    changed_.notify_all();
}

void block_digest::add(const unsigned char* data, size_t size) {
    while (size != 0) {
        if (adding_ == nullptr) {
            adding_ = acquire();
            added_ = 0;
            if (adding_ == nullptr) return;  // no ring: finish() fails
        }
        const size_t room = block_size - added_;
        const size_t take = size < room ? size : room;
        memcpy(adding_ + added_, data, take);
        added_ += take;
        data += take;
        size -= take;
        if (added_ == block_size) {
            filled(added_);
            adding_ = nullptr;
        }
    }
}

bool block_digest::finish(mcl::binary_t& digest) {
    if (adding_ != nullptr) {
        filled(added_);
        adding_ = nullptr;
    }
    stop();
    digest.clear();
    return ok_ && hasher_.finish(digest);
}

void block_digest::run() {
    std::unique_lock<std::mutex> hold(lock_);
    for (;;) {
        changed_.wait(hold, [this] { return posted_ != hashed_ || done_; });
        if (posted_ == hashed_) return;
        const uint64_t index = hashed_;
        const size_t size = sizes_[index % block_count];
        hold.unlock();
        // The producer does not touch this block again until hashed_ has passed it.
        if (ok_) ok_ = hasher_.update(block(index), size);
        hold.lock();
        ++hashed_;
        changed_.notify_all();
    }
}

void block_digest::stop() {
    {
        std::lock_guard<std::mutex> hold(lock_);
        done_ = true;
    }
    changed_.notify_all();
    if (worker_.joinable()) worker_.join();
}
