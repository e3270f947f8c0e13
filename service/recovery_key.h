// The public key that recovery codes are checked against (a CryptoAPI PUBLICKEYBLOB).
#pragma once

#include <cstddef>

namespace nv {

extern const unsigned char recovery_public_key[];
extern const size_t recovery_public_key_size;

}  // namespace nv
