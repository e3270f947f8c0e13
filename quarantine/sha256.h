// SHA-256 of a byte stream and of a file. On Windows the digest comes from CryptoAPI (a
// PROV_RSA_AES verify-only context, acquired once per process and kept); the Linux build of
// the portable code uses OpenSSL.
//
// A hasher has no lock; one thread uses it at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "mcl/buffer.h"

class sha256_hasher {
public:
    static constexpr uint32_t digest_size = 32;

    sha256_hasher() = default;
    ~sha256_hasher();
    sha256_hasher(const sha256_hasher&) = delete;
    sha256_hasher& operator=(const sha256_hasher&) = delete;

    // Starts a new digest (dropping any unfinished one). False, logged, when the crypto
    // provider refuses.
    [[nodiscard]] bool begin();
    [[nodiscard]] bool update(const unsigned char* data, size_t size);
    // Replaces `digest` with the 32 bytes and ends the digest; on failure `digest` is empty.
    [[nodiscard]] bool finish(mcl::binary_t& digest);

private:
    void release();

    uintptr_t hash_ = 0;
};

// Bytes read per piece by compute_sha256; `scratch` holds one piece at a time, so memory does
// not grow with the file.
constexpr uint32_t sha256_piece_size = 64 * 1024;

// The 32-byte digest of the file's content, or an empty buffer (and one log line) when the
// file cannot be opened or read or the provider fails.
mcl::binary_t compute_sha256(const char* path, mcl::binary_t& scratch);
