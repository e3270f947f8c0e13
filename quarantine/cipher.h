// Whole-buffer encryption with the 32-byte-block Rijndael cipher in CBC mode.
//
// Stateless; any thread. Key and chain must hold at least 32 bytes (only the first 32 are
// used). On failure the output buffer is left as it was and one log line says why.
#pragma once

#include "mcl/buffer.h"

namespace mcl {
namespace enc {

constexpr uint32_t cipher_block_size = 32;

// Pads the input with zero bytes up to the next multiple of 32 (no extra block when it is
// already a multiple) and replaces `output` with the ciphertext of that length.
[[nodiscard]] bool aes_encrypt(const binary_t& key, const binary_t& chain, const binary_t& input, binary_t& output);

// The input length must be a multiple of 32. Replaces `output` with the padded plaintext;
// the caller cuts it to the length it recorded.
[[nodiscard]] bool aes_decrypt(const binary_t& key, const binary_t& chain, const binary_t& input, binary_t& output);

}  // namespace enc
}  // namespace mcl
