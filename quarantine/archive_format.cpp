#include "quarantine/archive_format.h"

#include <cstdio>
#include <cstring>

namespace {

uint32_t get_u32_le(const unsigned char* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

// Kept as separate pieces so the phrase is assembled only when a key is built.
const char* const pass_phrase_parts[] = {"Kq7#", "Zt2!", "vBn9", "&Lx"};

}  // namespace

void put_u32_le(uint32_t value, unsigned char* bytes) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

void encode_archive_header(const archive_header& header, unsigned char (&bytes)[archive_header_size]) {
    put_u32_le(header.data_offset, bytes + 0);
    put_u32_le(header.marker_a, bytes + 4);
    put_u32_le(header.decrypt_length, bytes + 8);
    put_u32_le(header.encryption_length, bytes + 12);
    put_u32_le(header.marker_b, bytes + 16);
    put_u32_le(static_cast<uint32_t>(header.archive_time), bytes + 20);
    put_u32_le(static_cast<uint32_t>(header.archive_time >> 32), bytes + 24);
    memcpy(bytes + 28, header.content_hash, archive_hash_size);
}

archive_header decode_archive_header(const unsigned char (&bytes)[archive_header_size]) {
    archive_header header;
    header.data_offset = get_u32_le(bytes + 0);
    header.marker_a = get_u32_le(bytes + 4);
    header.decrypt_length = get_u32_le(bytes + 8);
    header.encryption_length = get_u32_le(bytes + 12);
    header.marker_b = get_u32_le(bytes + 16);
    header.archive_time = uint64_t{get_u32_le(bytes + 20)} | (uint64_t{get_u32_le(bytes + 24)} << 32);
    memcpy(header.content_hash, bytes + 28, archive_hash_size);
    return header;
}

bool archive_chunk_lengths_valid(const archive_header& header) {
    return header.encryption_length <= archive_max_encryption_length && header.encryption_length % 32 == 0 &&
           header.decrypt_length <= header.encryption_length;
}

void build_archive_key_material(mcl::binary_t& key, mcl::binary_t& chain) {
    mcl::binary_t phrase;
    for (const char* part : pass_phrase_parts)
        phrase.append(reinterpret_cast<const unsigned char*>(part), static_cast<uint32_t>(strlen(part)));
    const unsigned char zero = 0;
    phrase.append(&zero, 1);  // P: the phrase with its terminating zero, 16 bytes

    mcl::binary_t hex;  // H: "%02X" of every byte of P and a terminating zero, 33 bytes
    for (uint32_t i = 0; i < phrase.size(); ++i) {
        char two[3];
        snprintf(two, sizeof(two), "%02X", phrase[i]);
        hex.append(reinterpret_cast<const unsigned char*>(two), 2);
    }
    hex.append(&zero, 1);

    key.assign(phrase.data(), phrase.size());
    key.append(hex);
    chain.assign(hex.data(), hex.size());
    chain.append(phrase);
}
