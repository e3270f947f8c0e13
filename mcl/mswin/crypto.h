// CryptoAPI handles as owners, and the digest of bytes: the one place that acquires a
// provider, creates a hash and reads its value. Header-only, so that the portable archive code
// can use it on Windows without the rest of mcl::mswin.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <cstddef>
#include <vector>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

template <typename T, BOOL(WINAPI* close_fn)(T)>
struct crypt_traits {
    using pointer = T;
    static pointer invalid() { return 0; }
    static bool valid(pointer h) { return h != 0; }
    static void close(pointer h) { close_fn(h); }
};

inline BOOL WINAPI release_crypt_context(HCRYPTPROV h) { return CryptReleaseContext(h, 0); }

using unique_crypt_prov = unique_handle<crypt_traits<HCRYPTPROV, &release_crypt_context>>;
using unique_crypt_hash = unique_handle<crypt_traits<HCRYPTHASH, &CryptDestroyHash>>;
using unique_crypt_key = unique_handle<crypt_traits<HCRYPTKEY, &CryptDestroyKey>>;

// A verify-only context of the AES provider, which hashes with SHA-1 and SHA-256 and checks RSA
// signatures. Invalid (GetLastError() set) when the provider refuses.
inline unique_crypt_prov acquire_verify_context() {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextW(&provider, /*container=*/nullptr, /*provider_name=*/nullptr, PROV_RSA_AES,
                              CRYPT_VERIFYCONTEXT))
        return unique_crypt_prov();
    return unique_crypt_prov(provider);
}

// Adds `size` bytes to `hash`, in pieces a DWORD can count.
inline bool hash_bytes(HCRYPTHASH hash, const void* data, size_t size) {
    const BYTE* at = static_cast<const BYTE*>(data);
    while (size != 0) {
        const DWORD piece = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
        if (!CryptHashData(hash, at, piece, 0)) return false;
        at += piece;
        size -= piece;
    }
    return true;
}

// A hash object of `algorithm` over `size` bytes (none for a hash fed later); invalid on failure.
inline unique_crypt_hash create_hash(HCRYPTPROV provider, ALG_ID algorithm, const void* data = nullptr,
                                     size_t size = 0) {
    HCRYPTHASH raw = 0;
    if (!CryptCreateHash(provider, algorithm, /*key=*/0, /*flags=*/0, &raw)) return unique_crypt_hash();
    unique_crypt_hash hash(raw);
    if (!hash_bytes(hash.get(), data, size)) return unique_crypt_hash();
    return hash;
}

// The value of `hash` (which can take no more bytes afterwards); false when it cannot be read.
inline bool hash_value(HCRYPTHASH hash, std::vector<unsigned char>& value) {
    DWORD size = 0;
    DWORD length = sizeof(size);
    value.clear();
    if (!CryptGetHashParam(hash, HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &length, 0) || size == 0 || size > 64)
        return false;
    value.resize(size);
    length = size;
    if (!CryptGetHashParam(hash, HP_HASHVAL, value.data(), &length, 0) || length != size) {
        value.clear();
        return false;
    }
    return true;
}

// The digest of `size` bytes with `algorithm` (CALG_SHA1, CALG_SHA_256); false (GetLastError()
// set) when the provider refuses. The verify context is acquired on the first call that gets one
// and kept for the life of the process: acquiring it costs milliseconds, hashing a short text
// microseconds. Calls are serialised on it. Any thread.
inline bool digest(ALG_ID algorithm, const void* data, size_t size, std::vector<unsigned char>& value) {
    static SRWLOCK lock = SRWLOCK_INIT;
    static HCRYPTPROV kept = 0;  // never released: a thread may still hash while the process ends
    AcquireSRWLockExclusive(&lock);
    if (kept == 0) kept = acquire_verify_context().release();
    bool ok = false;
    if (kept != 0) {
        const unique_crypt_hash hash = create_hash(kept, algorithm, data, size);
        ok = hash && hash_value(hash.get(), value);
    }
    const DWORD err = GetLastError();
    ReleaseSRWLockExclusive(&lock);
    SetLastError(err);
    return ok;
}

}  // namespace mcl::mswin
