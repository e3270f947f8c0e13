// The recovery code that unlocks the emergency options of one machine.
//
// A code is "<YYYYMMDD>-<hex signature>": the last day (UTC) on which it is accepted, and an
// RSA signature (PKCS#1 v1.5, SHA-256, in CryptoAPI's little-endian byte order) over
// recovery_message(machine id, date). Only the holder of the private key can make one; the
// service carries the public key. The machine id is the MachineGuid that Windows keeps under
// HKLM\SOFTWARE\Microsoft\Cryptography, so a code made for one machine is refused elsewhere.
#pragma once

#include <cstddef>
#include <string>

namespace nv {

// The signed text: "NVRECOVERY1:" + lower-case machine id + ":" + date.
std::string recovery_message(const std::string& machine_id, const std::string& expiry_date);

// Checks `code` for `machine_id` with a CryptoAPI PUBLICKEYBLOB, on the day `today`
// ("YYYYMMDD"). False for malformed codes, expired codes and bad signatures.
bool verify_recovery_code(const std::string& code, const std::string& machine_id, const unsigned char* public_key,
                          size_t public_key_size, const std::string& today);

// The machine's MachineGuid, or empty.
std::string machine_id();
// Today's date in UTC as "YYYYMMDD".
std::string utc_date_today();

// The product check: this machine's id, today's date and the key built into the service.
bool check_recovery_code(const std::string& code);

}  // namespace nv
