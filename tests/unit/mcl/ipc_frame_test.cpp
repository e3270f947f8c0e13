#include "mcl/ipc/frame.h"

#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <vector>

namespace {

mcl::binary_t bytes(std::initializer_list<int> values) {
    mcl::binary_t out;
    for (int v : values) {
        const auto b = static_cast<unsigned char>(v);
        out.append(&b, 1);
    }
    return out;
}

mcl::binary_t frame(mcl::frame_kind kind, uint32_t id, uint32_t sequence, const mcl::binary_t& payload) {
    mcl::binary_t out;
    mcl::append_frame(out, kind, id, sequence, payload);
    return out;
}

// Feeds `stream` in pieces of the given sizes and returns every frame cut.
std::vector<mcl::binary_t> cut_in_pieces(const mcl::binary_t& stream, const std::vector<uint32_t>& pieces) {
    mcl::frame_cutter cutter;
    std::vector<mcl::binary_t> frames;
    uint32_t at = 0;
    for (uint32_t n : pieces) {
        cutter.append(stream.data() + at, n);
        at += n;
        EXPECT_EQ(mcl::frame_cutter::result::ok, cutter.cut(frames));
    }
    EXPECT_EQ(0u, cutter.pending());
    return frames;
}

TEST(IpcFrame, SplitAndMergedReadsGiveTheSameFrames) {
    mcl::binary_t big;
    for (int i = 0; i < 5000; ++i) big.append(bytes({i & 0xFF}));
    const mcl::binary_t a = frame(mcl::frame_kind::request, 1, 1, {});
    const mcl::binary_t b = frame(mcl::frame_kind::request, 2, 2, bytes({1, 2, 3}));
    const mcl::binary_t c = frame(mcl::frame_kind::post, 3, 3, big);
    mcl::binary_t stream = a;
    stream.append(b);
    stream.append(c);
    const uint32_t total = stream.size();
    ASSERT_EQ(17u + 19u + 5016u, total);

    const std::vector<std::vector<uint32_t>> splits = {
        {total},                                // all in one read
        {16, 1, 19, total - 36},                // a header alone waits for its pad byte
        {5, 7, 24, 4096, total - 4132},         // cut inside headers and payloads
        {17, 10, 9, 1, 15, total - 52},         // byte-sized pieces at the boundaries
    };
    for (const auto& pieces : splits) {
        const auto frames = cut_in_pieces(stream, pieces);
        ASSERT_EQ(3u, frames.size()) << pieces.size();
        EXPECT_EQ(a, frames[0]);
        EXPECT_EQ(b, frames[1]);
        EXPECT_EQ(c, frames[2]);
    }
}

// A request header announcing `length` payload bytes, none of which follow.
mcl::binary_t header_announcing(uint32_t length) {
    mcl::binary_t header;
    mcl::append_frame(header, mcl::frame_kind::request, 1, 1, nullptr, 0);
    header.write_at(12, reinterpret_cast<const unsigned char*>(&length), 4);
    return header;
}

// The largest length allowed is shown by the storage test below.
TEST(IpcFrame, AnOverLongAnnouncedLengthIsReported) {
    for (uint32_t length : {mcl::max_frame_payload + 1, 0xFFFFFFFFu}) {
        mcl::frame_cutter cutter;
        mcl::binary_t header = header_announcing(length);
        header.append(bytes({0}));
        cutter.append(header.data(), header.size());
        std::vector<mcl::binary_t> frames;
        EXPECT_EQ(mcl::frame_cutter::result::too_long, cutter.cut(frames)) << length;
        EXPECT_TRUE(frames.empty());
        EXPECT_EQ(length, cutter.rejected_length());
    }
}

TEST(IpcFrame, StorageGrowsWithTheBytesThatCameAndTheBudgetBoundsIt) {
    // A header announcing the largest frame, then its bytes in 4 KiB pieces into the tail room.
    mcl::byte_budget budget(1024 * 1024);
    mcl::frame_cutter cutter(&budget);
    const mcl::binary_t header = header_announcing(mcl::max_frame_payload);
    ASSERT_TRUE(cutter.append(header.data(), header.size()));
    std::vector<mcl::binary_t> frames;
    EXPECT_EQ(mcl::frame_cutter::result::ok, cutter.cut(frames));
    EXPECT_LE(cutter.capacity(), 128u * 1024) << "the announced length alone reserves nothing";
    EXPECT_EQ(cutter.capacity(), budget.held());

    const std::vector<unsigned char> piece(4096, 0x55);
    mcl::frame_cutter::result result = mcl::frame_cutter::result::ok;
    while (result == mcl::frame_cutter::result::ok && cutter.pending() < 4u * 1024 * 1024) {
        uint32_t room = 0;
        unsigned char* tail = cutter.frame_tail(4096, room);
        if (tail != nullptr) {
            const uint32_t n = std::min<uint32_t>(room, 4096);
            memcpy(tail, piece.data(), n);
            cutter.commit(n);
        } else if (!cutter.append(piece.data(), 4096)) {
            // The refusal is reported by the next cut.
        }
        EXPECT_LE(cutter.capacity(), 4u * cutter.pending() + 128 * 1024) << "proportional to what came";
        result = cutter.cut(frames);
    }
    EXPECT_EQ(mcl::frame_cutter::result::over_budget, result);
    EXPECT_LE(budget.held(), budget.limit());
    cutter.reset();
    EXPECT_EQ(0u, budget.held()) << "everything is given back";
}

}  // namespace
