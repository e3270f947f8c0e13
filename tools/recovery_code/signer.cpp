#include "tools/recovery_code/signer.h"

#include <windows.h>

#include <wincrypt.h>

#include <cctype>
#include <cstdlib>

#include "mcl/mswin/crypto.h"
#include "service/recovery_code.h"

namespace nv_tools {

namespace {

struct provider {
    HCRYPTPROV handle = 0;
    provider() {
        if (!CryptAcquireContextW(&handle, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT)) handle = 0;
    }
    ~provider() {
        if (handle != 0) CryptReleaseContext(handle, 0);
    }
    provider(const provider&) = delete;
    provider& operator=(const provider&) = delete;
};

bool export_key(HCRYPTKEY key, DWORD type, std::vector<unsigned char>& blob) {
    DWORD size = 0;
    if (!CryptExportKey(key, 0, type, 0, nullptr, &size)) return false;
    blob.resize(size);
    return CryptExportKey(key, 0, type, 0, blob.data(), &size) != FALSE;
}

}  // namespace

bool generate_key_pair(std::vector<unsigned char>& private_blob, std::vector<unsigned char>& public_blob) {
    provider p;
    HCRYPTKEY key = 0;
    if (p.handle == 0 || !CryptGenKey(p.handle, AT_SIGNATURE, (2048u << 16) | CRYPT_EXPORTABLE, &key)) return false;
    const bool ok = export_key(key, PRIVATEKEYBLOB, private_blob) && export_key(key, PUBLICKEYBLOB, public_blob);
    CryptDestroyKey(key);
    return ok;
}

bool make_recovery_code(const std::vector<unsigned char>& private_blob, const std::string& machine_id,
                        const std::string& expiry_date, std::string& code) {
    provider p;
    mcl::mswin::unique_crypt_key key;
    if (p.handle == 0 ||
        !CryptImportKey(p.handle, private_blob.data(), static_cast<DWORD>(private_blob.size()), 0, 0, key.put()))
        return false;
    const std::string message = nv::recovery_message(machine_id, expiry_date);
    std::vector<unsigned char> signature;
    DWORD size = 0;
    const mcl::mswin::unique_crypt_hash hash =
        mcl::mswin::create_hash(p.handle, CALG_SHA_256, message.data(), message.size());
    bool ok = hash && CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, nullptr, &size);
    if (ok) {
        signature.resize(size);
        ok = CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, signature.data(), &size) != FALSE;
    }
    if (ok) code = expiry_date + "-" + to_hex(signature);
    return ok;
}

std::string to_hex(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned char b : bytes) {
        text.push_back(digits[b >> 4]);
        text.push_back(digits[b & 15]);
    }
    return text;
}

bool from_hex(const std::string& text, std::vector<unsigned char>& bytes) {
    bytes.clear();
    std::string digits;
    for (char c : text)
        if (!isspace(static_cast<unsigned char>(c))) digits.push_back(c);
    if (digits.size() % 2 != 0) return false;
    for (size_t i = 0; i < digits.size(); i += 2) {
        if (!isxdigit(static_cast<unsigned char>(digits[i])) || !isxdigit(static_cast<unsigned char>(digits[i + 1])))
            return false;
        bytes.push_back(static_cast<unsigned char>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

}  // namespace nv_tools
