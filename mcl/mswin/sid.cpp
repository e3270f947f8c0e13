#include "mcl/mswin/sid.h"

#include <sddl.h>
#include <wincrypt.h>

#include <cstring>

#include "mcl/mswin/crypto.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

sid::sid(PSID source) {
    if (source == nullptr || !IsValidSid(source)) return;
    const BYTE* bytes = static_cast<const BYTE*>(source);
    bytes_.assign(bytes, bytes + GetLengthSid(source));
}

bool sid::from_well_known(WELL_KNOWN_SID_TYPE type, sid& out) {
    out.bytes_.assign(SECURITY_MAX_SID_SIZE, 0);
    DWORD size = SECURITY_MAX_SID_SIZE;
    if (!CreateWellKnownSid(type, /*domain_sid=*/nullptr, out.bytes_.data(), &size)) {
        out.bytes_.clear();
        return false;
    }
    out.bytes_.resize(size);
    return true;
}

bool sid::from_string(const char* text, sid& out) {
    out.bytes_.clear();
    unique_local<PSID> raw;
    if (text == nullptr || !ConvertStringSidToSidA(text, raw.put())) return false;
    out = sid(raw.get());
    return true;
}

bool sid::from_account(const std::wstring& account, sid& out) {
    out.bytes_.clear();
    // Sized for most SIDs and domains; a larger one is asked for again with the sizes the first
    // call returned.
    DWORD sid_size = 32;
    DWORD domain_size = 32;
    std::vector<BYTE> buffer(sid_size);
    std::vector<wchar_t> domain(domain_size);
    SID_NAME_USE use = SidTypeUnknown;
    BOOL found = LookupAccountNameW(nullptr, account.c_str(), buffer.data(), &sid_size, domain.data(), &domain_size, &use);
    if (!found && GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        buffer.assign(sid_size, 0);
        domain.assign(domain_size, 0);
        found = LookupAccountNameW(nullptr, account.c_str(), buffer.data(), &sid_size, domain.data(), &domain_size, &use);
    }
    if (!found) return false;
    if (!IsValidSid(buffer.data())) {
        SetLastError(ERROR_INVALID_SID);
        return false;
    }
    buffer.resize(GetLengthSid(buffer.data()));
    out.bytes_ = std::move(buffer);
    return true;
}

bool sid::from_service_name(const char* name, sid& out) {
    out.bytes_.clear();
    std::wstring upper = widen(name != nullptr ? name : "");
    if (!upper.empty()) CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
    // The hash covers the UTF-16LE bytes; wchar_t is UTF-16 little-endian on every Windows target.
    std::vector<unsigned char> hash;
    if (!digest(CALG_SHA1, upper.data(), static_cast<DWORD>(upper.size() * sizeof(wchar_t)), hash) || hash.size() != 20)
        return false;
    DWORD words[5];
    memcpy(words, hash.data(), sizeof(words));

    std::vector<BYTE> buffer(GetSidLengthRequired(6));
    SID_IDENTIFIER_AUTHORITY nt_authority = SECURITY_NT_AUTHORITY;
    if (!InitializeSid(buffer.data(), &nt_authority, 6)) return false;
    *GetSidSubAuthority(buffer.data(), 0) = SECURITY_SERVICE_ID_BASE_RID;  // 80
    for (DWORD i = 0; i < 5; ++i) *GetSidSubAuthority(buffer.data(), i + 1) = words[i];
    out.bytes_ = std::move(buffer);
    return true;
}

std::string sid::to_string() const {
    unique_local<char*> text;
    if (empty() || !ConvertSidToStringSidA(get(), text.put())) return std::string();
    return text.get();
}

bool sid::operator==(const sid& other) const {
    if (empty() || other.empty()) return empty() == other.empty();
    return EqualSid(get(), other.get()) != FALSE;
}

}  // namespace mcl::mswin
