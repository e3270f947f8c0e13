// Making recovery codes: the private-key side of service/recovery_code.h.
#pragma once

#include <string>
#include <vector>

namespace nv_tools {

// A new 2048-bit RSA signature key pair as CryptoAPI blobs.
bool generate_key_pair(std::vector<unsigned char>& private_blob, std::vector<unsigned char>& public_blob);
// "<expiry_date>-<hex signature>" for `machine_id`, signed with a PRIVATEKEYBLOB.
bool make_recovery_code(const std::vector<unsigned char>& private_blob, const std::string& machine_id,
                        const std::string& expiry_date, std::string& code);

std::string to_hex(const std::vector<unsigned char>& bytes);
bool from_hex(const std::string& text, std::vector<unsigned char>& bytes);

}  // namespace nv_tools
