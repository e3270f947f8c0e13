#include "mcl/encoding.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

mcl::binary_t make(std::initializer_list<unsigned char> bytes) {
    mcl::binary_t b;
    for (unsigned char c : bytes) b.append(&c, 1);
    return b;
}

std::vector<unsigned char> as_vector(const mcl::binary_t& b) { return {b.data(), b.data() + b.size()}; }

// Non-empty strings, statuses and lists, and reading them back, are checked byte for byte where
// the service and the client library exchange them.
TEST(Encoding, IntegersAreLittleEndianAndEmptyValuesTakeOnlyTheirTerminatorOrCount) {
    mcl::binary_t b;
    mcl::write_byte(b, 1);
    mcl::write_u32(b, 0x01000009);
    mcl::write_u64(b, 0x0102030405060708ull);
    mcl::write_string(b, std::string(""));
    mcl::write_wstring(b, L"");
    mcl::write_string_list(b, {});
    const std::vector<unsigned char> expected = {
        0x01, 0x09, 0x00, 0x00, 0x01, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,
        0x00,                    // empty narrow string
        0x00, 0x00,              // empty wide string
        0x00, 0x00, 0x00, 0x00}; // empty string list
    EXPECT_EQ(expected, as_vector(b));
}

TEST(Encoding, EveryTruncatedFieldFailsAndLeavesTheCursorBehindTheLastWholeField) {
    struct truncated {
        const char* name;
        mcl::binary_t payload;
        bool (*read)(const mcl::binary_t&, uint32_t&);
    };
    const truncated cases[] = {
        {"byte of nothing", make({}), [](const mcl::binary_t& b, uint32_t& p) { uint8_t v; return mcl::read_byte(v, b, p); }},
        {"u32 of 3 bytes", make({1, 2, 3}), [](const mcl::binary_t& b, uint32_t& p) { uint32_t v; return mcl::read_u32(v, b, p); }},
        {"u64 of 7 bytes", make({1, 2, 3, 4, 5, 6, 7}), [](const mcl::binary_t& b, uint32_t& p) { uint64_t v; return mcl::read_u64(v, b, p); }},
        {"string at the end", make({}), [](const mcl::binary_t& b, uint32_t& p) { std::string v; return mcl::read_string(v, b, p); }},
        {"string without terminator", make({'a', 'b'}), [](const mcl::binary_t& b, uint32_t& p) { std::string v; return mcl::read_string(v, b, p); }},
        {"wstring without terminator", make({'a', 0, 'b', 0}), [](const mcl::binary_t& b, uint32_t& p) { std::wstring v; return mcl::read_wstring(v, b, p); }},
        {"wstring with half a terminator", make({'a', 0, 0}), [](const mcl::binary_t& b, uint32_t& p) { std::wstring v; return mcl::read_wstring(v, b, p); }},
        {"status without message", make({1}), [](const mcl::binary_t& b, uint32_t& p) { bool ok; std::string m; return mcl::read_status(ok, m, b, p); }},
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
    struct {
        uint32_t count;
        uint32_t empty_strings;  // how many follow on the wire
        bool ok;
    } cases[] = {
        {0xFFFFFFFF, 0, false},
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
