// The 32-byte-block Rijndael cipher and the buffer cipher built on it: known answers taken
// from libmcrypt's rijndael-256, CBC chaining, and the padding and log lines of the buffer
// functions.
#include <gtest/gtest.h>

#include <cstring>
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

TEST(rijndael, matches_known_answers_chains_across_calls_and_inverts) {
    const bytes key = pattern(32, 1, 0);
    const bytes chain = pattern(32, 1, 0xa0);
    const bytes plain = pattern(64, 7, 3);
    rijndael cipher;
    cipher.make_key(key.data(), chain.data());
    bytes out(64);
    cipher.encrypt(plain.data(), out.data(), 32);  // two calls continue one chain
    cipher.encrypt(plain.data() + 32, out.data() + 32, 32);
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

TEST(aes_buffer, pads_to_whole_blocks_and_refuses_short_material_with_a_log_line) {
    nv_test::log_capture log;
    const mcl::binary_t key(pattern(32, 3, 1).data(), 32);
    const mcl::binary_t chain(pattern(40, 5, 2).data(), 40);  // longer buffers: first 32 bytes count
    for (uint32_t length : {1u, 32u, 33u, 262148u}) {
        const bytes plain = pattern(length, 13, 7);
        mcl::binary_t sealed, opened;
        ASSERT_TRUE(mcl::enc::aes_encrypt(key, chain, mcl::binary_t(plain.data(), length), sealed)) << length;
        EXPECT_EQ((length + 31) / 32 * 32, sealed.size()) << length;
        ASSERT_TRUE(mcl::enc::aes_decrypt(key, chain, sealed, opened)) << length;
        EXPECT_EQ(0, memcmp(plain.data(), opened.data(), length)) << length;
    }
    const mcl::binary_t short31(pattern(31, 1, 0).data(), 31);
    mcl::binary_t out(reinterpret_cast<const unsigned char*>("keep"), 4);
    EXPECT_FALSE(mcl::enc::aes_encrypt(short31, chain, key, out));
    EXPECT_FALSE(mcl::enc::aes_decrypt(key, chain, mcl::binary_t(pattern(33, 1, 9).data(), 33), out));
    EXPECT_EQ(4u, out.size()) << "output untouched on failure";
    EXPECT_TRUE(log.contains("[mcl::enc::aes_encrypt:"));
    EXPECT_TRUE(log.contains("enc - aes_encrypt failed, key is too short, needs 32 bytes"));
    EXPECT_TRUE(log.contains("enc - aes_decrypt failed, the input buffer is not a valid encrypted buffer, length (33 "
                             "bytes) is  not multiples of the block size (32 bytes)"));
}

}  // namespace
