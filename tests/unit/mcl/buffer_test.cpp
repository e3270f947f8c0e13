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

TEST(Buffer, StaysInlineUpTo256BytesThenMovesToTheHeapInSteps) {
    mcl::binary_t b;
    auto data = bytes(257);
    b.append(data.data(), 256);
    EXPECT_TRUE(b.is_inline());
    EXPECT_EQ(256u, b.capacity());
    b.append(data.data() + 256, 1);
    EXPECT_FALSE(b.is_inline());
    EXPECT_EQ(512u, b.capacity());
    EXPECT_EQ(257u, b.size());
    EXPECT_EQ(0, memcmp(b.data(), data.data(), 257));

    b.release_storage();
    EXPECT_TRUE(b.is_inline());
    EXPECT_EQ(0u, b.size());
    EXPECT_EQ(256u, b.capacity());
}

TEST(Buffer, GrowsGeometricallyBeyond64KiB) {
    mcl::binary_t b;
    auto piece = bytes(4096);
    uint32_t reallocations = 0;
    uint32_t last_capacity = b.capacity();
    for (int i = 0; i < 4096; ++i) {  // 16 MiB
        b.append(piece.data(), 4096);
        if (b.capacity() != last_capacity) {
            ++reallocations;
            last_capacity = b.capacity();
        }
    }
    EXPECT_EQ(16u * 1024 * 1024, b.size());
    EXPECT_LT(reallocations, 300u);  // 256 linear steps up to 64 KiB, then doubling
    EXPECT_EQ(piece[17], b[4096u * 1000 + 17]);
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

TEST(Buffer, AttachAndDetachHandOverHeapBlocks) {
    mcl::binary_t b;
    EXPECT_EQ(nullptr, b.detach());
    auto* block = static_cast<unsigned char*>(malloc(1024));
    memset(block, 5, 1024);
    EXPECT_FALSE(b.attach(block, 2000, 1024));
    ASSERT_TRUE(b.attach(block, 10, 1024));
    EXPECT_EQ(10u, b.size());
    unsigned char* back = b.detach();
    EXPECT_EQ(block, back);
    EXPECT_TRUE(b.is_inline());
    EXPECT_EQ(0u, b.size());
    free(back);
}

TEST(StringT, KeepsItsTerminatorInsideTheSize) {
    mcl::string_t s;
    EXPECT_EQ(1u, s.size());
    EXPECT_TRUE(s.empty());
    EXPECT_TRUE(s == "");

    mcl::string_t n(nullptr);
    EXPECT_EQ(1u, n.size());
    EXPECT_TRUE(n == "");

    s.append("abc");
    s.append('d');
    s.append('\0');  // ignored
    EXPECT_EQ(5u, s.size());
    EXPECT_STREQ("abcd", s.c_str());
    s.append(mcl::string_t("ef"));
    EXPECT_STREQ("abcdef", s.c_str());
    EXPECT_EQ(4u, s.drop_back(3));
    EXPECT_STREQ("abc", s.c_str());
    s.drop_back(50);
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(1u, s.size());
    s.append("xy");
    s.clear();
    EXPECT_EQ(1u, s.size());
    EXPECT_STREQ("", s.c_str());
}

TEST(StringT, GrowsPastTheInlineStorageWithItsTerminator) {
    std::string text(700, 'q');
    mcl::string_t s(text.c_str());
    EXPECT_EQ(701u, s.size());
    EXPECT_EQ(text, std::string(s.c_str()));
    s.release_storage();
    EXPECT_EQ(1u, s.size());
    EXPECT_STREQ("", s.c_str());
}

TEST(HandleList, HoldsPointers) {
    mcl::handle_list handles;
    int a = 0, b = 0;
    void* list[2] = {&a, &b};
    handles.append(list, 2);
    EXPECT_EQ(2u, handles.size());
    EXPECT_EQ(&b, handles[1]);
    EXPECT_EQ(nullptr, handles[2]);
}

}  // namespace
