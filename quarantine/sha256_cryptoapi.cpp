// CryptoAPI implementation of sha256_hasher (Windows builds).
#include "quarantine/sha256.h"

#include <windows.h>
#include <wincrypt.h>

#include <mutex>
#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/crypto.h"

namespace {

// One verify-only provider context for the process. Acquiring a context loads and initialises
// the provider, which costs far more than hashing a small file; a context that is never
// released keeps it loaded. Hashes created from one context may be used on different threads.
std::mutex provider_lock;
HCRYPTPROV shared_provider = 0;

HCRYPTPROV acquire_shared_provider() {
    std::lock_guard<std::mutex> hold(provider_lock);
    if (shared_provider != 0) return shared_provider;
    mcl::mswin::unique_crypt_prov provider = mcl::mswin::acquire_verify_context();
    if (!provider) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::begin", "CryptAcquireContext failed: error %lu\n", static_cast<unsigned long>(err));
        return 0;  // tried again by the next digest
    }
    shared_provider = provider.release();
    return shared_provider;
}

}  // namespace

sha256_hasher::~sha256_hasher() { release(); }

void sha256_hasher::release() {
    mcl::mswin::unique_crypt_hash(static_cast<HCRYPTHASH>(hash_)).reset();
    hash_ = 0;
}

bool sha256_hasher::begin() {
    release();
    const HCRYPTPROV provider = acquire_shared_provider();
    if (provider == 0) return false;
    mcl::mswin::unique_crypt_hash hash = mcl::mswin::create_hash(provider, CALG_SHA_256);
    if (!hash) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::begin", "CryptCreateHash failed: error %lu\n", static_cast<unsigned long>(err));
        return false;
    }
    hash_ = hash.release();
    return true;
}

bool sha256_hasher::update(const unsigned char* data, size_t size) {
    if (mcl::mswin::hash_bytes(static_cast<HCRYPTHASH>(hash_), data, size)) return true;
    const DWORD err = GetLastError();
    NV_LOG("sha256_hasher::update", "CryptHashData failed: error %lu\n", static_cast<unsigned long>(err));
    return false;
}

bool sha256_hasher::finish(mcl::binary_t& digest) {
    digest.clear();
    std::vector<unsigned char> value;
    const bool ok = mcl::mswin::hash_value(static_cast<HCRYPTHASH>(hash_), value) && value.size() == digest_size;
    const DWORD err = GetLastError();
    release();
    if (!ok) {
        NV_LOG("sha256_hasher::finish", "CryptGetHashParam failed: error %lu\n", static_cast<unsigned long>(err));
        return false;
    }
    digest.assign(value.data(), digest_size);
    return true;
}
