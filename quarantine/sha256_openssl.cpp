// OpenSSL implementation of sha256_hasher (native Linux builds of the portable code).
#include "quarantine/sha256.h"

#include <openssl/evp.h>

#include "mcl/log.h"

namespace {
EVP_MD_CTX* context_of(uintptr_t handle) { return reinterpret_cast<EVP_MD_CTX*>(handle); }
}  // namespace

sha256_hasher::~sha256_hasher() { release(); }

void sha256_hasher::release() {
    if (hash_ != 0) EVP_MD_CTX_free(context_of(hash_));
    hash_ = 0;
}

bool sha256_hasher::begin() {
    release();
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    if (context == nullptr) {
        NV_LOG("sha256_hasher::begin", "EVP_MD_CTX_new failed\n");
        return false;
    }
    hash_ = reinterpret_cast<uintptr_t>(context);
    if (EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1) {
        NV_LOG("sha256_hasher::begin", "EVP_DigestInit_ex failed\n");
        release();
        return false;
    }
    return true;
}

bool sha256_hasher::update(const unsigned char* data, size_t size) {
    if (hash_ == 0 || EVP_DigestUpdate(context_of(hash_), data, size) != 1) {
        NV_LOG("sha256_hasher::update", "EVP_DigestUpdate failed\n");
        return false;
    }
    return true;
}

bool sha256_hasher::finish(mcl::binary_t& digest) {
    digest.clear();
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    const bool ok = hash_ != 0 && EVP_DigestFinal_ex(context_of(hash_), value, &length) == 1 && length == digest_size;
    release();
    if (!ok) {
        NV_LOG("sha256_hasher::finish", "EVP_DigestFinal_ex failed\n");
        return false;
    }
    digest.assign(value, digest_size);
    return true;
}
