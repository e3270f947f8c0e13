#include "quarantine/archive_format.h"

#include <cstdio>
#include <cstring>

#include "mcl/endian.h"

namespace {

// Kept as separate pieces so the phrase is assembled only when a key is built.
const char* const pass_phrase_parts[] = {"Kq7#", "Zt2!", "vBn9", "&Lx"};

}  // namespace

void encode_archive_header(const archive_header& header, unsigned char (&bytes)[archive_header_size]) {
    mcl::store_u32_le(bytes + 0, header.data_offset);
    mcl::store_u32_le(bytes + 4, header.marker_a);
    mcl::store_u32_le(bytes + 8, header.decrypt_length);
    mcl::store_u32_le(bytes + 12, header.encryption_length);
    mcl::store_u32_le(bytes + 16, header.marker_b);
    mcl::store_u32_le(bytes + 20, static_cast<uint32_t>(header.archive_time));
    mcl::store_u32_le(bytes + 24, static_cast<uint32_t>(header.archive_time >> 32));
    memcpy(bytes + 28, header.content_hash, archive_hash_size);
}

archive_header decode_archive_header(const unsigned char (&bytes)[archive_header_size]) {
    archive_header header;
    header.data_offset = mcl::load_u32_le(bytes + 0);
    header.marker_a = mcl::load_u32_le(bytes + 4);
    header.decrypt_length = mcl::load_u32_le(bytes + 8);
    header.encryption_length = mcl::load_u32_le(bytes + 12);
    header.marker_b = mcl::load_u32_le(bytes + 16);
    header.archive_time = uint64_t{mcl::load_u32_le(bytes + 20)} | (uint64_t{mcl::load_u32_le(bytes + 24)} << 32);
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
