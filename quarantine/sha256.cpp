#include "quarantine/sha256.h"

#include <cstdio>

#include "mcl/file.h"
#include "mcl/log.h"

mcl::binary_t compute_sha256(const char* path, mcl::binary_t& scratch) {
    mcl::binary_t digest;
    const mcl::unique_file file = mcl::open_file(path, "rb");
    if (!file) {
        NV_LOG("compute_sha256", "Failed to open file: %s\n", path);
        return digest;
    }
    scratch.clear();
    scratch.write_at(0, nullptr, sha256_piece_size);
    sha256_hasher hasher;
    bool ok = scratch.size() == sha256_piece_size && hasher.begin();
    while (ok) {
        const size_t got = fread(scratch.data(), 1, sha256_piece_size, file.get());
        if (got != 0) ok = hasher.update(scratch.data(), got);
        if (got < sha256_piece_size) break;
    }
    if (ok && ferror(file.get()) != 0) {
        NV_LOG("compute_sha256", "Failed to read file: %s\n", path);
        ok = false;
    }
    if (ok) ok = hasher.finish(digest);
    if (!ok) digest.clear();
    return digest;
}
