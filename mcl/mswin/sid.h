// A security identifier as a value: it owns its bytes, copies like a string, and hands a PSID to
// the API calls that take one. Any thread.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace mcl::mswin {

class sid {
public:
    // An empty value (no SID); get() is null.
    sid() = default;
    // A copy of a valid SID.
    explicit sid(PSID source);

    // A well-known SID of this machine (CreateWellKnownSid without a domain). False on failure
    // (GetLastError() tells why); `out` is then empty.
    [[nodiscard]] static bool from_well_known(WELL_KNOWN_SID_TYPE type, sid& out);
    // A string SID such as "S-1-5-18" or an SDDL alias such as "BA" (ConvertStringSidToSidA).
    [[nodiscard]] static bool from_string(const char* text, sid& out);
    // The SID of an account name (LookupAccountNameW on this machine). False with GetLastError()
    // set by the lookup.
    [[nodiscard]] static bool from_account(const std::wstring& account, sid& out);
    // The SID Windows gives the service `name`: S-1-5-80 and the SHA-1 of the upper-cased
    // UTF-16LE name as five 32-bit words.
    [[nodiscard]] static bool from_service_name(const char* name, sid& out);

    // "S-1-..." (ConvertSidToStringSidA); empty for an empty value or on failure.
    std::string to_string() const;

    bool empty() const { return bytes_.empty(); }
    // For API calls; null when empty. Valid while this value lives and is not assigned to.
    PSID get() const { return empty() ? nullptr : const_cast<BYTE*>(bytes_.data()); }
    DWORD size() const { return static_cast<DWORD>(bytes_.size()); }

    // EqualSid; two empty values are equal.
    bool operator==(const sid& other) const;
    bool operator!=(const sid& other) const { return !(*this == other); }

private:
    std::vector<BYTE> bytes_;
};

}  // namespace mcl::mswin
