// The checks that refuse a request before it is sent, and the encoders of the requests whose
// client-side form differs from the wire's (the layouts themselves are in protocol/). Internal
// to the client library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/invchelper.h"
#include "mcl/buffer.h"

namespace nvclient_codec {

// The protocol version the client speaks, sent with the compatibility request.
constexpr uint32_t client_protocol_version = 5;

// Collects the first reason to refuse a request: a text over its limit or with a zero
// character inside (it would cut the field short on the wire), or a list over its limit.
class input_check {
public:
    void text(const std::string& value, size_t max_chars, const char* what);
    void wtext(const std::wstring& value, size_t max_chars, const char* what);
    void path(const std::string& value, const char* what) { text(value, NVClientHelper::max_path_chars, what); }
    void name(const std::string& value, const char* what) { text(value, NVClientHelper::max_name_chars, what); }
    // The entry count and every entry.
    void list(const std::vector<std::string>& values, size_t max_chars, const char* what);
    void count(size_t entries, const char* what);
    // With a reason: fills `r` (ok 0 and the reason) when given and returns true.
    bool refuse(NVClientHelper::result* r) const;
    const std::string& reason() const { return reason_; }

private:
    std::string reason_;
};

// Encoders: false (with the reason in `r`) when the input is refused; nothing is written then
// that a caller would send.
bool encode_name(mcl::binary_t& out, const std::string& name, NVClientHelper::result* r);
bool encode_path(mcl::binary_t& out, const std::string& path, NVClientHelper::result* r);
// A one-rule process list; the ANSI path goes as UTF-16.
bool encode_process_path(mcl::binary_t& out, bool protect, const std::string& image_path, NVClientHelper::result* r);
bool encode_service_rules(mcl::binary_t& out, const std::vector<NVClientHelper::service_rule>& rules,
                          NVClientHelper::result* r);
bool encode_process_rules(mcl::binary_t& out, const std::vector<NVClientHelper::process_rule>& rules,
                          NVClientHelper::result* r);
bool encode_reg_key_rules(mcl::binary_t& out, const std::vector<NVClientHelper::reg_key_rule>& rules,
                          NVClientHelper::result* r);
// A root key's handle value as the service takes it: sign-extended to 64 bits.
uint64_t root_value(HKEY root);

}  // namespace nvclient_codec
