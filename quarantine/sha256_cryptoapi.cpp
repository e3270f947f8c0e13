// CryptoAPI implementation of sha256_hasher (Windows builds).
#include "quarantine/sha256.h"

#include <windows.h>
#include <wincrypt.h>

#include <mutex>

#include "app/log.h"

namespace {

// One verify-only provider context for the process. Acquiring a context loads and initialises
// the provider, which costs far more than hashing a small file; a context that is never
// released keeps it loaded. Hashes created from one context may be used on different threads.
std::mutex provider_lock;
HCRYPTPROV shared_provider = 0;

HCRYPTPROV acquire_shared_provider() {
    std::lock_guard<std::mutex> hold(provider_lock);
    if (shared_provider != 0) return shared_provider;
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextA(&provider, /*container=*/nullptr, /*provider_name=*/nullptr, PROV_RSA_AES,
                              CRYPT_VERIFYCONTEXT)) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::begin", "CryptAcquireContext failed: error %lu\n", static_cast<unsigned long>(err));
        return 0;  // tried again by the next digest
    }
    shared_provider = provider;
    return provider;
}

}  // namespace

sha256_hasher::~sha256_hasher() { release(); }

void sha256_hasher::release() {
    if (hash_ != 0) CryptDestroyHash(static_cast<HCRYPTHASH>(hash_));
    hash_ = 0;
}

bool sha256_hasher::begin() {
    release();
    const HCRYPTPROV provider = acquire_shared_provider();
    if (provider == 0) return false;
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(provider, CALG_SHA_256, /*key=*/0, /*flags=*/0, &hash)) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::begin", "CryptCreateHash failed: error %lu\n", static_cast<unsigned long>(err));
        release();
        return false;
    }
    hash_ = hash;
    return true;
}

bool sha256_hasher::update(const unsigned char* data, size_t size) {
    while (size != 0) {
        const DWORD piece = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
        if (!CryptHashData(static_cast<HCRYPTHASH>(hash_), data, piece, 0)) {
            const DWORD err = GetLastError();
            NV_LOG("sha256_hasher::update", "CryptHashData failed: error %lu\n", static_cast<unsigned long>(err));
            return false;
        }
        data += piece;
        size -= piece;
    }
    return true;
}

bool sha256_hasher::finish(mcl::binary_t& digest) {
    digest.clear();
    DWORD hash_size = 0;
    DWORD length = sizeof(hash_size);
    if (!CryptGetHashParam(static_cast<HCRYPTHASH>(hash_), HP_HASHSIZE, reinterpret_cast<BYTE*>(&hash_size), &length, 0) ||
        hash_size != digest_size) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::finish", "CryptGetHashParam(HP_HASHSIZE) failed: error %lu\n", static_cast<unsigned long>(err));
        release();
        return false;
    }
    unsigned char value[digest_size];
    length = digest_size;
    if (!CryptGetHashParam(static_cast<HCRYPTHASH>(hash_), HP_HASHVAL, value, &length, 0) || length != digest_size) {
        const DWORD err = GetLastError();
        NV_LOG("sha256_hasher::finish", "CryptGetHashParam(HP_HASHVAL) failed: error %lu\n", static_cast<unsigned long>(err));
        release();
        return false;
    }
    release();
    digest.assign(value, digest_size);
    return true;
}
