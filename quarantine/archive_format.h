// The fixed layout of a quarantine archive file and the key material of its encrypted chunk.
//
// Layout (all integers little-endian):
//   0  u32 data_offset        offset of the LZ4 frame: 60 + path length + 1
//   4  u32 marker_a           always 1
//   8  u32 decrypt_length     plain length of the encrypted chunk
//  12  u32 encryption_length  stored length of the encrypted chunk (whole 32-byte blocks)
//  16  u32 marker_b           always 1
//  20  u64 archive_time       milliseconds since 1970-01-01 00:00 UTC
//  28  32  content_hash       SHA-256 of the content
//  60  n+1 path               the source path and a zero byte
//  data_offset                the LZ4 frame, its first non-empty output encrypted
#pragma once

#include <cstddef>
#include <cstdint>

#include "mcl/buffer.h"

constexpr uint32_t archive_header_size = 60;
constexpr uint32_t archive_marker = 1;
constexpr uint32_t archive_hash_size = 32;
constexpr uint32_t archive_decrypt_length_offset = 8;
constexpr uint32_t archive_encryption_length_offset = 12;
constexpr uint32_t archive_hash_offset = 28;
// Both sides stream the files in pieces of this size.
constexpr size_t archive_io_size = 16384;

// Readers refuse header fields beyond what a writer can produce, so that a damaged archive
// never makes them allocate more than this. The longest path Windows accepts is 32767
// characters; the encrypted chunk is at most one 256 KiB block stored uncompressed with its
// block header, plus the 4-byte end mark, padded to whole cipher blocks.
constexpr uint32_t archive_max_path_length = 32767;
constexpr uint32_t archive_max_data_offset = archive_header_size + archive_max_path_length + 1;
constexpr uint32_t archive_max_encryption_length = (4 + 256 * 1024 + 4 + 31) / 32 * 32;

struct archive_header {
    uint32_t data_offset = 0;
    uint32_t marker_a = archive_marker;
    uint32_t decrypt_length = 0;
    uint32_t encryption_length = 0;
    uint32_t marker_b = archive_marker;
    uint64_t archive_time = 0;
    unsigned char content_hash[archive_hash_size] = {};
};

void encode_archive_header(const archive_header& header, unsigned char (&bytes)[archive_header_size]);
archive_header decode_archive_header(const unsigned char (&bytes)[archive_header_size]);

// Whether the two chunk lengths describe a chunk a writer could have produced: no longer than
// the cap, whole cipher blocks, and the plain length within the stored one.
bool archive_chunk_lengths_valid(const archive_header& header);

// Builds the key (pass phrase, then its hexadecimal text) and chain (the other way round)
// used for the encrypted chunk. Each is 49 bytes; the cipher takes the first 32 of each.
void build_archive_key_material(mcl::binary_t& key, mcl::binary_t& chain);
