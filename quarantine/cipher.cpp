#include "quarantine/cipher.h"

#include "mcl/log.h"
#include "quarantine/rijndael/rijndael.h"

namespace mcl {
namespace enc {

bool aes_encrypt(const binary_t& key, const binary_t& chain, const binary_t& input, binary_t& output) {
    if (key.size() < rijndael::key_length) {
        NV_LOG("mcl::enc::aes_encrypt", "enc - aes_encrypt failed, key is too short, needs %d bytes", rijndael::key_length);
        return false;
    }
    if (chain.size() < rijndael::block_length) {
        NV_LOG("mcl::enc::aes_encrypt", "enc - aes_encrypt failed, chain is too short, needs at least 32 bytes");
        return false;
    }
    const uint64_t padded = (uint64_t{input.size()} + cipher_block_size - 1) / cipher_block_size * cipher_block_size;
    if (padded == 0 || padded > UINT32_MAX) {
        NV_LOG("mcl::enc::aes_encrypt", "enc - aes_encrypt failed, nothing to encrypt");
        return false;
    }
    binary_t work;
    work.write_at(0, nullptr, static_cast<uint32_t>(padded));
    if (work.size() != padded) {
        NV_LOG("mcl::enc::aes_encrypt", "enc - aes_encrypt failed, cannot allocate %llu bytes",
               static_cast<unsigned long long>(padded));
        return false;
    }
    memcpy(work.data(), input.data(), input.size());
    memset(work.data() + input.size(), 0, static_cast<size_t>(padded - input.size()));

    rijndael cipher;
    cipher.make_key(key.data(), chain.data());
    cipher.reset_chain();
    cipher.encrypt(work.data(), work.data(), work.size());
    output = work;
    return true;
}

bool aes_decrypt(const binary_t& key, const binary_t& chain, const binary_t& input, binary_t& output) {
    if (key.size() < rijndael::key_length) {
        NV_LOG("mcl::enc::aes_decrypt", "enc - aes_decrypt failed, key is too short, needs %d bytes", rijndael::key_length);
        return false;
    }
    if (chain.size() < rijndael::block_length) {
        NV_LOG("mcl::enc::aes_decrypt", "enc - aes_decrypt failed, chain is too short, needs at least 32 bytes");
        return false;
    }
    if (input.size() == 0 || input.size() % cipher_block_size != 0) {
        NV_LOG("mcl::enc::aes_decrypt",
               "enc - aes_decrypt failed, the input buffer is not a valid encrypted buffer, length (%d bytes) is  not "
               "multiples of the block size (%d bytes)",
               static_cast<int>(input.size()), static_cast<int>(cipher_block_size));
        return false;
    }
    binary_t work(input);
    if (work.size() != input.size()) {
        NV_LOG("mcl::enc::aes_decrypt", "enc - aes_decrypt failed, cannot allocate %u bytes", input.size());
        return false;
    }
    rijndael cipher;
    cipher.make_key(key.data(), chain.data());
    cipher.reset_chain();
    cipher.decrypt(work.data(), work.data(), work.size());
    output = work;
    return true;
}

}  // namespace enc
}  // namespace mcl
