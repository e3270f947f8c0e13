#include "mcl/buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"

namespace {

std::vector<unsigned char> bytes(uint32_t n, unsigned char first = 0) {
    std::vector<unsigned char> v(n);
    for (uint32_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>(first + i);
    return v;
}

TEST(Buffer, WriteAtOverwritesAndTruncatesAndIgnoresBadPositions) {
    auto ten = bytes(10);
    mcl::binary_t b(ten.data(), 10);
    const unsigned char ab[2] = {0xAA, 0xBB};
    b.write_at(11, ab, 2);  // beyond the size
    EXPECT_EQ(10u, b.size());
    b.append(ab, 0);  // nothing
    EXPECT_EQ(10u, b.size());
    b.write_at(0, ab, 2);
    ASSERT_EQ(2u, b.size());
    EXPECT_EQ(0, memcmp(b.data(), ab, 2));
    b.write_at(2, ab, 1);  // exactly at the end appends
    EXPECT_EQ(3u, b.size());
}

TEST(Buffer, ElementAccessPastTheSizeGivesTheSpareElement) {
    mcl::binary_t b;
    const unsigned char one = 7;
    b.append(&one, 1);
    EXPECT_EQ(7, b[0]);
    EXPECT_EQ(0, b[1]);
    EXPECT_EQ(0, b[100000]);
    b[5] = 9;  // writes go to the spare, never to the storage
    EXPECT_EQ(1u, b.size());
    EXPECT_EQ(0, b[5]);
}

TEST(Buffer, CopiesNeverShareStorageAndSelfAppendSurvivesGrowth) {
    auto data = bytes(200);
    mcl::binary_t a(data.data(), 200);
    mcl::binary_t b(a);
    b[0] = 99;
    EXPECT_EQ(0, a[0]);
    a.append(a);  // grows to the heap while reading from its own inline storage
    ASSERT_EQ(400u, a.size());
    EXPECT_EQ(0, memcmp(a.data() + 200, data.data(), 200));
    a.append(a);  // heap to a larger heap block
    ASSERT_EQ(800u, a.size());
    EXPECT_EQ(0, memcmp(a.data() + 600, data.data(), 200));
}

mcl::binary_t make(std::initializer_list<unsigned char> bytes) {
    mcl::binary_t b;
    for (unsigned char c : bytes) b.append(&c, 1);
    return b;
}

// The encoded bytes of every request and reply, and every request empty or a byte short (a byte,
// u32, string or wstring left incomplete): conformance_test; a status reply cut short:
// client_library_test. Here the readers those leave out.
TEST(Encoding, EveryTruncatedFieldFailsAndLeavesTheCursorBehindTheLastWholeField) {
    struct truncated { const char* name; mcl::binary_t payload; bool (*read)(const mcl::binary_t&, uint32_t&); };
    const truncated cases[] = {
        {"u64 of 7 bytes", make({1, 2, 3, 4, 5, 6, 7}), [](const mcl::binary_t& b, uint32_t& p) { uint64_t v; return mcl::read_u64(v, b, p); }},
        {"wstring without terminator", make({'a', 0, 'b', 0}), [](const mcl::binary_t& b, uint32_t& p) { std::wstring v; return mcl::read_wstring(v, b, p); }},
        {"list count cut", make({3, 0}), [](const mcl::binary_t& b, uint32_t& p) { std::vector<std::string> v; return mcl::read_string_list(v, b, p); }},
    };
    for (const auto& c : cases) {
        uint32_t pos = 0;
        EXPECT_FALSE(c.read(c.payload, pos)) << c.name;
    }

    // A u32 needs all four bytes after the cursor.
    mcl::binary_t five = make({1, 0, 0, 0, 9});
    uint32_t pos = 0, v = 0;
    EXPECT_TRUE(mcl::read_u32(v, five, pos));
    EXPECT_FALSE(mcl::read_u32(v, five, pos));
    EXPECT_EQ(4u, pos);
}

TEST(Encoding, AListCountBeyondTheLimitOrThePayloadReservesNothing) {
    struct { uint32_t count, empty_strings /* how many follow on the wire */; bool ok; } cases[] = {
        {mcl::max_list_elements + 1, mcl::max_list_elements + 1, false},
        {mcl::max_list_elements, mcl::max_list_elements, true},
        {1000, 10, false},
    };
    for (const auto& c : cases) {
        mcl::binary_t b;
        mcl::write_u32(b, c.count);
        for (uint32_t i = 0; i < c.empty_strings; ++i) mcl::write_string(b, "");
        std::vector<std::string> list;
        uint32_t pos = 0;
        EXPECT_EQ(c.ok, mcl::read_string_list(list, b, pos)) << c.count;
        EXPECT_LE(list.capacity(), c.empty_strings > c.count ? c.count : c.empty_strings) << c.count;
    }
}

}  // namespace
