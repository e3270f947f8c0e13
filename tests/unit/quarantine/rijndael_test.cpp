// The 32-byte-block Rijndael cipher and the buffer cipher built on it: known answers taken
// from an independent implementation (libmcrypt's rijndael-256), CBC chaining, the misuse
// exceptions, and the padding and log lines of the buffer functions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "mcl/enc/cipher.h"
#include "quarantine/rijndael/rijndael.h"
#include "tests/helpers/log_capture.h"

namespace {

using bytes = std::vector<unsigned char>;

bytes pattern(size_t n, unsigned mul, unsigned add) {
    bytes out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(i * mul + add);
    return out;
}

// Key 00 01 .. 1f, chain a0 a1 .. bf, plaintext (7 i + 3) for i in 0..63, CBC.
const unsigned char cbc_expected[64] = {
    0xf5, 0xe9, 0x91, 0xbe, 0xa5, 0xed, 0x3f, 0x40, 0x8f, 0x9d, 0xbe, 0x79, 0x9e, 0xd7, 0xff, 0x63,
    0xff, 0x24, 0x1f, 0xf4, 0xcb, 0xfd, 0x7d, 0x38, 0xcd, 0x74, 0xe8, 0xcf, 0xc4, 0x57, 0xf3, 0xaa,
    0xed, 0xf0, 0x3c, 0x41, 0x79, 0x4b, 0x48, 0x90, 0x9e, 0x86, 0x77, 0x67, 0xe4, 0x1c, 0x2e, 0xac,
    0x1c, 0x2f, 0xd3, 0xea, 0xa3, 0x5b, 0x33, 0x65, 0xba, 0xe2, 0xa7, 0x64, 0x43, 0x1d, 0xa8, 0x46,
};
// Zero key, one zero block, no chain.
const unsigned char zero_block_expected[32] = {
    0xc6, 0x22, 0x7e, 0x77, 0x40, 0xb7, 0xe5, 0x3b, 0x5c, 0xb7, 0x78, 0x65, 0x27, 0x8e, 0xab, 0x07,
    0x26, 0xf6, 0x23, 0x66, 0xd9, 0xaa, 0xba, 0xd9, 0x08, 0x93, 0x61, 0x23, 0xa1, 0xfc, 0x8a, 0xf3,
};

TEST(rijndael, matches_known_answers_and_inverts) {
    const bytes key = pattern(32, 1, 0);
    const bytes chain = pattern(32, 1, 0xa0);
    const bytes plain = pattern(64, 7, 3);
    rijndael cipher;
    cipher.make_key(key.data(), chain.data());
    bytes out(64);
    cipher.encrypt(plain.data(), out.data(), out.size());
    EXPECT_EQ(0, memcmp(out.data(), cbc_expected, sizeof(cbc_expected)));

    cipher.reset_chain();
    bytes back(64);
    cipher.decrypt(out.data(), back.data(), back.size());
    EXPECT_EQ(plain, back);

    rijndael zero;
    const bytes zero_key(32, 0);
    zero.make_key(zero_key.data(), nullptr);
    bytes block(32, 0);
    zero.encrypt_block(block.data(), block.data());
    EXPECT_EQ(0, memcmp(block.data(), zero_block_expected, sizeof(zero_block_expected)));
    zero.decrypt_block(block.data(), block.data());
    EXPECT_EQ(bytes(32, 0), block);
}

TEST(rijndael, chain_runs_across_calls_until_reset) {
    const bytes key = pattern(32, 1, 0);
    const bytes chain = pattern(32, 1, 0xa0);
    const bytes plain = pattern(64, 7, 3);
    rijndael cipher;
    cipher.make_key(key.data(), chain.data());
    bytes out(64);
    cipher.encrypt(plain.data(), out.data(), 32);  // two calls continue one chain
    cipher.encrypt(plain.data() + 32, out.data() + 32, 32);
    EXPECT_EQ(0, memcmp(out.data(), cbc_expected, 64));
    bytes again(32);
    cipher.encrypt(plain.data(), again.data(), 32);  // the chain moved on: a different block
    EXPECT_NE(0, memcmp(again.data(), cbc_expected, 32));
    cipher.reset_chain();
    cipher.encrypt(plain.data(), again.data(), 32);
    EXPECT_EQ(0, memcmp(again.data(), cbc_expected, 32));
}

TEST(rijndael, misuse_throws_the_documented_messages) {
    const bytes data(64, 1);
    bytes out(64);
    struct {
        const char* name;
        bool with_key;
        size_t length;
        bool decrypt;
        const char* message;
    } const cases[] = {
        {"encrypt without key", false, 32, false, "Object not Initialized"},
        {"decrypt without key", false, 32, true, "Object not Initialized"},
        {"zero length", true, 0, false, "Data not multiple of Block Size"},
        {"partial block", true, 33, false, "Data not multiple of Block Size"},
        {"partial block decrypt", true, 16, true, "Data not multiple of Block Size"},
    };
    for (const auto& c : cases) {
        rijndael cipher;
        if (c.with_key) cipher.make_key(data.data(), data.data());
        try {
            if (c.decrypt) {
                cipher.decrypt(data.data(), out.data(), c.length);
            } else {
                cipher.encrypt(data.data(), out.data(), c.length);
            }
            ADD_FAILURE() << c.name << ": no exception";
        } catch (const rijndael_error& e) {
            EXPECT_STREQ(c.message, e.what()) << c.name;
        }
    }
    rijndael cipher;
    try {
        cipher.make_key(nullptr, data.data());
        ADD_FAILURE() << "null key accepted";
    } catch (const rijndael_error& e) {
        EXPECT_STREQ("Empty key", e.what());
    }
}

TEST(aes_buffer, pads_to_whole_blocks_and_round_trips) {
    const mcl::binary_t key(pattern(32, 3, 1).data(), 32);
    const mcl::binary_t chain(pattern(40, 5, 2).data(), 40);  // longer buffers: first 32 bytes count
    for (uint32_t length : {1u, 4u, 31u, 32u, 33u, 64u, 1000u, 262148u}) {
        const bytes plain = pattern(length, 13, 7);
        const mcl::binary_t input(plain.data(), length);
        mcl::binary_t sealed;
        ASSERT_TRUE(mcl::enc::aes_encrypt(key, chain, input, sealed)) << length;
        EXPECT_EQ((length + 31) / 32 * 32, sealed.size()) << length;
        mcl::binary_t opened;
        ASSERT_TRUE(mcl::enc::aes_decrypt(key, chain, sealed, opened)) << length;
        ASSERT_EQ(sealed.size(), opened.size());
        EXPECT_EQ(0, memcmp(plain.data(), opened.data(), length)) << length;
    }
}

TEST(aes_buffer, refuses_short_material_and_partial_blocks_with_a_log_line) {
    nv_test::log_capture log;
    const mcl::binary_t key32(pattern(32, 1, 0).data(), 32);
    const mcl::binary_t short31(pattern(31, 1, 0).data(), 31);
    const mcl::binary_t block(pattern(32, 1, 9).data(), 32);
    const mcl::binary_t odd(pattern(33, 1, 9).data(), 33);
    struct {
        bool decrypt;
        const mcl::binary_t* key;
        const mcl::binary_t* chain;
        const mcl::binary_t* input;
        std::string line;
    } const cases[] = {
        {false, &short31, &key32, &block, "[mcl::enc::aes_encrypt:"},
        {false, &short31, &key32, &block, "enc - aes_encrypt failed, key is too short, needs 32 bytes"},
        {false, &key32, &short31, &block, "enc - aes_encrypt failed, chain is too short, needs at least 32 bytes"},
        {true, &short31, &key32, &block, "enc - aes_decrypt failed, key is too short, needs 32 bytes"},
        {true, &key32, &short31, &block, "enc - aes_decrypt failed, chain is too short, needs at least 32 bytes"},
        {true, &key32, &key32, &odd,
         "enc - aes_decrypt failed, the input buffer is not a valid encrypted buffer, length (33 bytes) is  not "
         "multiples of the block size (32 bytes)"},
    };
    for (const auto& c : cases) {
        mcl::binary_t out(reinterpret_cast<const unsigned char*>("keep"), 4);
        const bool ok = c.decrypt ? mcl::enc::aes_decrypt(*c.key, *c.chain, *c.input, out)
                                  : mcl::enc::aes_encrypt(*c.key, *c.chain, *c.input, out);
        EXPECT_FALSE(ok) << c.line;
        EXPECT_EQ(4u, out.size()) << "output untouched on failure";
        EXPECT_TRUE(log.contains(c.line)) << c.line;
    }
}

}  // namespace
