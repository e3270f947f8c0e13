#include "quarantine/block_digest.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "quarantine/sha256.h"

namespace {

std::vector<unsigned char> content(size_t n) {
    std::vector<unsigned char> v(n);
    uint32_t x = 12345;
    for (size_t i = 0; i < n; ++i) {
        x = x * 1103515245u + 12345u;
        v[i] = static_cast<unsigned char>(x >> 16);
    }
    return v;
}

mcl::binary_t digest_of(const std::vector<unsigned char>& v) {
    sha256_hasher hasher;
    mcl::binary_t digest;
    EXPECT_TRUE(hasher.begin());
    if (!v.empty()) {
        EXPECT_TRUE(hasher.update(v.data(), v.size()));
    }
    EXPECT_TRUE(hasher.finish(digest));
    return digest;
}

class recording_writer : public block_writer {
public:
    void write(const unsigned char* data, size_t size) override {
        std::lock_guard<std::mutex> hold(lock);
        bytes.insert(bytes.end(), data, data + size);
        sizes.push_back(size);
    }
    std::mutex lock;
    std::vector<unsigned char> bytes;
    std::vector<size_t> sizes;
};

TEST(BlockDigest, WriterGetsEveryByteInWholeBlocksAndTheDigestCoversThem) {
    const size_t total = 3 * block_digest::block_size + 12345;
    const std::vector<unsigned char> data = content(total);
    recording_writer writer;
    block_digest digest(&writer);
    // Copied pieces of odd sizes and pieces put straight into the blocks, mixed.
    size_t at = 0;
    bool copy = true;
    while (at < total) {
        size_t piece = total - at < 70001 ? total - at : 70001;
        if (copy) {
            digest.add(data.data() + at, piece);
        } else {
            size_t room = 0;
            unsigned char* to = digest.space(room);
            ASSERT_NE(nullptr, to);
            ASSERT_GT(room, 0u);
            if (piece > room) piece = room;
            memcpy(to, data.data() + at, piece);
            digest.commit(piece);
        }
        at += piece;
        copy = !copy;
    }
    digest.drain();
    {
        std::lock_guard<std::mutex> hold(writer.lock);
        ASSERT_EQ(total, writer.bytes.size());
        EXPECT_TRUE(writer.bytes == data);
        ASSERT_EQ(4u, writer.sizes.size());
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(block_digest::block_size, writer.sizes[i]);
        EXPECT_EQ(12345u, writer.sizes[3]);
    }
    mcl::binary_t got;
    ASSERT_TRUE(digest.finish(got));
    EXPECT_TRUE(got == digest_of(data));
}

TEST(BlockDigest, LongerThanTheRingWithoutAWriter) {
    const size_t total = (block_digest::block_count + 3) * block_digest::block_size + 1;
    const std::vector<unsigned char> data = content(total);
    block_digest digest;
    for (size_t at = 0; at < total; at += 4096) digest.add(data.data() + at, total - at < 4096 ? total - at : 4096);
    digest.drain();  // nothing to write: returns at once
    mcl::binary_t got;
    ASSERT_TRUE(digest.finish(got));
    EXPECT_TRUE(got == digest_of(data));
}

TEST(BlockDigest, NothingAddedWritesNothing) {
    recording_writer writer;
    block_digest digest(&writer);
    digest.drain();
    mcl::binary_t got;
    ASSERT_TRUE(digest.finish(got));
    EXPECT_TRUE(got == digest_of({}));
    EXPECT_TRUE(writer.sizes.empty());
}

}  // namespace
