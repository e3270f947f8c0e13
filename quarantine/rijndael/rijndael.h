// The Rijndael block cipher with a 32-byte block and a 32-byte key (Nb = Nk = 8, 14 rounds,
// row shifts 1, 3 and 4), table-driven, with a CBC chain. This is not AES: AES fixes the block
// at 16 bytes, and the quarantine archives need the 32-byte block.
//
// An object has no lock; one thread uses it at a time. It holds the expanded key and the
// running chain, so one object serves one stream of blocks in one direction at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>

// Thrown for misuse only: a null key, no key set, a length that is not whole blocks.
class rijndael_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class rijndael {
public:
    static constexpr int key_length = 32;
    static constexpr int block_length = 32;
    static constexpr int rounds = 14;
    static constexpr int block_words = block_length / 4;

    rijndael() = default;
    virtual ~rijndael();
    rijndael(const rijndael&) = delete;
    rijndael& operator=(const rijndael&) = delete;

    // Expands `key` (32 bytes) and takes `chain` (32 bytes, or null for zeroes) as the initial
    // chain value. Throws "Empty key" for a null key.
    void make_key(const unsigned char* key, const unsigned char* chain);
    // Makes the running chain the initial chain again.
    void reset_chain();

    // CBC over n bytes (n a non-zero multiple of 32); `in` and `out` may be the same buffer.
    // Throw "Object not Initialized" without a key and "Data not multiple of Block Size".
    void encrypt(const unsigned char* in, unsigned char* out, size_t n);
    void decrypt(const unsigned char* in, unsigned char* out, size_t n);

    // One block without the chain. Throw "Object not Initialized" without a key.
    void encrypt_block(const unsigned char* in, unsigned char* out);
    void decrypt_block(const unsigned char* in, unsigned char* out);

private:
    void check_ready(size_t n) const;

    bool key_set_ = false;
    uint32_t encrypt_keys_[rounds + 1][block_words] = {};
    uint32_t decrypt_keys_[rounds + 1][block_words] = {};
    int key_length_ = key_length;
    int block_length_ = block_length;
    int rounds_ = rounds;
    unsigned char initial_chain_[block_length] = {};
    unsigned char chain_[block_length] = {};
    uint32_t work_[block_words] = {};
};
