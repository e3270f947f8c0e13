#include "quarantine/sha256.h"

#include <cstdio>

#include "app/log.h"

FILE* open_for_sha256(const char* path) {
    FILE* file = fopen(path, "rb");
    if (file == nullptr) NV_LOG("compute_sha256", "Failed to open file: %s\n", path);
    return file;
}

mcl::binary_t compute_sha256(const char* path, mcl::binary_t& scratch) {
    FILE* file = open_for_sha256(path);
    if (file == nullptr) return mcl::binary_t();
    return sha256_of_stream(file, path, scratch);
}

mcl::binary_t sha256_of_stream(FILE* file, const char* path, mcl::binary_t& scratch) {
    mcl::binary_t digest;
    scratch.clear();
    scratch.write_at(0, nullptr, sha256_piece_size);
    sha256_hasher hasher;
    bool ok = scratch.size() == sha256_piece_size && hasher.begin();
    while (ok) {
        const size_t got = fread(scratch.data(), 1, sha256_piece_size, file);
        if (got != 0) ok = hasher.update(scratch.data(), got);
        if (got < sha256_piece_size) break;
    }
    if (ok && ferror(file) != 0) {
        NV_LOG("compute_sha256", "Failed to read file: %s\n", path);
        ok = false;
    }
    fclose(file);
    if (ok) ok = hasher.finish(digest);
    if (!ok) digest.clear();
    return digest;
}
