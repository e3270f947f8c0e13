#include "mcl/ipc/frame.h"

#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <vector>

namespace {

// Frames cut from any split of the stream are checked by ipc_frame_cutter_fuzz (whole frames, no
// byte lost) and on the wire by ipc_peer_test (several frames in one write, 1 MiB frames over
// many reads, an announced length over the limit): here the storage and its budget.

// A request header announcing `length` payload bytes, none of which follow.
mcl::binary_t header_announcing(uint32_t length) {
    mcl::binary_t header;
    mcl::append_frame(header, mcl::frame_kind::request, 1, 1, nullptr, 0);
    header.write_at(12, reinterpret_cast<const unsigned char*>(&length), 4);
    return header;
}

// Hands the cutter up to `n` bytes of `piece` the way the read channel does: into the room
// frame_tail gives when there is some, appended otherwise. False when the append is refused.
bool feed(mcl::frame_cutter& cutter, const std::vector<unsigned char>& piece, uint32_t n) {
    uint32_t room = 0;
    unsigned char* tail = cutter.frame_tail(4096, room);
    if (tail == nullptr) return cutter.append(piece.data(), n);
    memcpy(tail, piece.data(), std::min(room, n));
    cutter.commit(std::min(room, n));
    return true;
}

TEST(IpcFrame, StorageGrowsWithTheBytesThatCameAndTheBudgetBoundsIt) {
    // A header announcing the largest frame, then its bytes in 4 KiB pieces.
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
        (void)feed(cutter, piece, 4096);  // a refusal is reported by the next cut
        EXPECT_LE(cutter.capacity(), 4u * cutter.pending() + 128 * 1024) << "proportional to what came";
        result = cutter.cut(frames);
    }
    EXPECT_EQ(mcl::frame_cutter::result::over_budget, result);
    EXPECT_LE(budget.held(), budget.limit());
    cutter.reset();
    EXPECT_EQ(0u, budget.held()) << "everything is given back";
}

// One connection's share counts in the process budget as well and refuses at its own ceiling,
// which leaves the rest to the others; the largest frame, received the way the read channel does
// (the header, then straight into the tail room), fits one share.
TEST(IpcFrame, AShareOfTheBudgetStopsOneClientAndHoldsTheLargestFrame) {
    mcl::byte_budget process(256u * 1024 * 1024);
    mcl::byte_budget greedy(process.limit() / 2, &process), other(process.limit() / 2, &process);
    EXPECT_FALSE(greedy.take(greedy.limit() + 1));
    EXPECT_EQ(0u, process.held()) << "a refusal counts nothing anywhere";
    EXPECT_TRUE(greedy.take(greedy.limit()));
    EXPECT_FALSE(greedy.take(1));
    EXPECT_TRUE(other.take(other.limit() - 1));
    EXPECT_EQ(process.limit() - 1, process.held());
    greedy.give(greedy.limit());
    EXPECT_EQ(other.limit() - 1, process.held());
    other.give(other.limit() - 1);

    mcl::frame_cutter cutter(&greedy);
    const mcl::binary_t header = header_announcing(mcl::max_frame_payload);
    ASSERT_TRUE(cutter.append(header.data(), header.size()));  // its pad byte is the payload's first
    std::vector<unsigned char> piece(1024 * 1024, 0x5A);
    std::vector<mcl::binary_t> frames;
    size_t largest = 0;
    while (frames.empty()) {
        const auto missing = static_cast<uint32_t>(mcl::frame_size(mcl::max_frame_payload) - cutter.pending());
        ASSERT_TRUE(feed(cutter, piece, std::min<uint32_t>(missing, 1024 * 1024))) << cutter.pending();
        largest = std::max(largest, cutter.capacity());
        ASSERT_EQ(mcl::frame_cutter::result::ok, cutter.cut(frames));
    }
    ASSERT_EQ(1u, frames.size());
    EXPECT_EQ(mcl::frame_size(mcl::max_frame_payload), frames[0].size());
    EXPECT_LE(largest, mcl::frame_size(mcl::max_frame_payload)) << "room for the frame, not twice as much";
    EXPECT_EQ(0u, greedy.held()) << "the storage goes once the frame is cut";
}

}  // namespace
