#include "service/recovery_code.h"

#include <windows.h>

#include <wincrypt.h>

#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/crypto.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "service/recovery_key.h"

namespace nv {

namespace {

bool is_date(const std::string& s) {
    if (s.size() != 8) return false;
    for (char c : s)
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

bool from_hex(const std::string& text, std::vector<BYTE>& bytes) {
    if (text.empty() || text.size() % 2 != 0) return false;
    bytes.clear();
    for (size_t i = 0; i < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        if (!isxdigit(static_cast<unsigned char>(pair[0])) || !isxdigit(static_cast<unsigned char>(pair[1])))
            return false;
        bytes.push_back(static_cast<BYTE>(strtoul(pair.c_str(), nullptr, 16)));
    }
    return true;
}

bool verify_signature(const std::string& message, const std::vector<BYTE>& signature, const unsigned char* key,
                      size_t key_size) {
    const mcl::mswin::unique_crypt_prov provider = mcl::mswin::acquire_verify_context();
    if (!provider) {
        NV_LOG("nv::verify_recovery_code", "CryptAcquireContext failed (%d)", static_cast<int>(GetLastError()));
        return false;
    }
    mcl::mswin::unique_crypt_key public_key;
    if (!CryptImportKey(provider.get(), key, static_cast<DWORD>(key_size), 0, 0, public_key.put())) return false;
    const mcl::mswin::unique_crypt_hash hash =
        mcl::mswin::create_hash(provider.get(), CALG_SHA_256, message.data(), message.size());
    return hash && CryptVerifySignatureW(hash.get(), signature.data(), static_cast<DWORD>(signature.size()),
                                         public_key.get(), nullptr, 0);
}

}  // namespace

std::string recovery_message(const std::string& machine_id, const std::string& expiry_date) {
    return "NVRECOVERY1:" + mcl::mswin::lower_case(machine_id) + ":" + expiry_date;
}

bool verify_recovery_code(const std::string& code, const std::string& machine_id, const unsigned char* public_key,
                          size_t public_key_size, const std::string& today) {
    const std::string date = code.substr(0, 8);
    std::vector<BYTE> signature;
    if (code.size() < 10 || code[8] != '-' || !is_date(date) || !from_hex(code.substr(9), signature)) {
        NV_LOG("nv::verify_recovery_code", "Recovery code is malformed");
        return false;
    }
    if (machine_id.empty() || !is_date(today) || today > date) {
        NV_LOG("nv::verify_recovery_code", "Recovery code expired on %s", date.c_str());
        return false;
    }
    if (!verify_signature(recovery_message(machine_id, date), signature, public_key, public_key_size)) {
        NV_LOG("nv::verify_recovery_code", "Recovery code is not valid for this machine (%d)",
               static_cast<int>(GetLastError()));
        return false;
    }
    return true;
}

std::string machine_id() {
    mcl::mswin::unique_reg_key key;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Microsoft\\Cryptography", 0, KEY_READ | KEY_WOW64_64KEY,
                      key.put()) != ERROR_SUCCESS)
        return std::string();
    char value[128] = {};
    DWORD size = sizeof(value) - 1;
    DWORD type = 0;
    if (RegQueryValueExA(key.get(), "MachineGuid", nullptr, &type, reinterpret_cast<BYTE*>(value), &size) !=
            ERROR_SUCCESS ||
        type != REG_SZ)
        return std::string();
    return std::string(value);
}

std::string utc_date_today() {
    SYSTEMTIME now{};
    GetSystemTime(&now);
    char text[16];
    snprintf(text, sizeof(text), "%04u%02u%02u", now.wYear, now.wMonth, now.wDay);
    return text;
}

bool check_recovery_code(const std::string& code) {
    return verify_recovery_code(code, machine_id(), recovery_public_key, recovery_public_key_size,
                                utc_date_today());
}

}  // namespace nv
