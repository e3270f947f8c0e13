#include "mcl/buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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
    EXPECT_EQ(0xAA, b[0]);
    EXPECT_EQ(0xBB, b[1]);
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

TEST(Buffer, FindAndDropBack) {
    const unsigned char data[] = {1, 2, 3, 2};
    mcl::binary_t b(data, 4);
    EXPECT_EQ(1, b.find(2, 0));
    EXPECT_EQ(3, b.find(2, 2));
    EXPECT_EQ(-1, b.find(9, 0));
    EXPECT_EQ(-1, b.find(1, 4));
    EXPECT_EQ(-1, b.find(1, 100));
    EXPECT_EQ(3u, b.drop_back(1));
    EXPECT_EQ(0u, b.drop_back(10));
    EXPECT_TRUE(b.empty());
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

// Its appends are checked through to_hex, whose output the tools print and the scripts read.
TEST(StringT, KeepsItsTerminatorInsideTheSize) {
    mcl::string_t n(nullptr);
    EXPECT_EQ(1u, n.size());
    EXPECT_TRUE(n.empty());
    EXPECT_TRUE(n == "");
    mcl::string_t s("abc");
    s.append('\0');  // ignored
    EXPECT_EQ(4u, s.size());
    EXPECT_EQ(1u, s.drop_back(50));
    EXPECT_STREQ("", s.c_str());
}

}  // namespace
