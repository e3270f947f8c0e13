#include "quarantine/archive_codec.h"

#include <cstdlib>
#include <cstring>

#include "mcl/log.h"
#include "quarantine/cipher.h"

namespace {

archive_cancel_check cancel_check = nullptr;

bool cancelled(const char* fn) {
    if (cancel_check == nullptr || !cancel_check()) return false;
    NV_LOG(fn, "Stopped: the work was asked to end\n");
    return true;
}

}  // namespace

void set_archive_cancel_check(archive_cancel_check check) { cancel_check = check; }

namespace {

// 256 KiB linked blocks, no checksums, no content size, no dictionary, default fast level,
// no automatic flush, no favouring of decompression speed.
LZ4F_preferences_t archive_preferences() {
    LZ4F_preferences_t prefs;
    memset(&prefs, 0, sizeof(prefs));
    prefs.frameInfo.blockSizeID = LZ4F_max256KB;
    prefs.frameInfo.blockMode = LZ4F_blockLinked;
    prefs.frameInfo.contentChecksumFlag = LZ4F_noContentChecksum;
    prefs.frameInfo.frameType = LZ4F_frame;
    prefs.frameInfo.contentSize = 0;
    prefs.frameInfo.dictID = 0;
    prefs.frameInfo.blockChecksumFlag = LZ4F_noBlockChecksum;
    prefs.compressionLevel = 0;
    prefs.autoFlush = 0;
    prefs.favorDecSpeed = 0;
    return prefs;
}

// Writes one piece of compressed output: the first non-empty one encrypted, the rest plain.
bool write_compressed(FILE* out, const unsigned char* data, size_t size, bool& chunk_pending, archive_header& header,
                      uint64_t& written) {
    if (size == 0 || !chunk_pending) {
        if (size != 0) NV_LOG("compress_file_internal", "Writing %zu bytes\n", size);
        if (!safe_fwrite(data, size, out)) return false;
        written += size;
        return true;
    }
    chunk_pending = false;
    mcl::binary_t key;
    mcl::binary_t chain;
    build_archive_key_material(key, chain);
    const mcl::binary_t plain(data, static_cast<uint32_t>(size));
    mcl::binary_t sealed;
    if (plain.size() != size || !mcl::enc::aes_encrypt(key, chain, plain, sealed)) {
        NV_LOG("compress_file_internal", "Failed to encrypt the first block\n");
        return false;
    }
    NV_LOG("compress_file_internal", "Writing %u bytes\n", sealed.size());
    if (!safe_fwrite(sealed.data(), sealed.size(), out)) return false;
    written += sealed.size();
    header.decrypt_length = static_cast<uint32_t>(size);
    header.encryption_length = sealed.size();
    return true;
}

}  // namespace

bool file_sink::write(const unsigned char* data, size_t size) { return safe_fwrite(data, size, file_); }

bool safe_fwrite(const void* data, size_t size, FILE* file) {
    const size_t written = fwrite(data, 1, size, file);
    if (written == size) return true;
    if (ferror(file) != 0) {
        NV_LOG("safe_fwrite", "Write failed\n");
    } else {
        NV_LOG("safe_fwrite", "Short write\n");
    }
    return false;
}

compress_result compress_file_internal(FILE* in, FILE* out, archive_header& header, LZ4F_compressionContext_t context,
                                       unsigned char* src, size_t src_capacity, unsigned char* dst,
                                       size_t dst_capacity, input_blocks* blocks) {
    compress_result result;
    const LZ4F_preferences_t prefs = archive_preferences();
    const size_t header_size = LZ4F_compressBegin(context, dst, dst_capacity, &prefs);
    if (LZ4F_isError(header_size)) {
        NV_LOG("compress_file_internal", "Failed to start compression: error %zu\n", header_size);
        return result;
    }
    NV_LOG("compress_file_internal", "Buffer size is %zu bytes, header size %zu bytes\n", dst_capacity, header_size);
    if (!safe_fwrite(dst, header_size, out)) return result;
    result.size_out += header_size;

    bool chunk_pending = true;
    for (;;) {
        unsigned char* buffer = src;
        size_t capacity = src_capacity;
        if (blocks != nullptr && (buffer = blocks->acquire(capacity)) == nullptr) {
            NV_LOG("compress_file", "error : ressource allocation failed \n");
            return result;
        }
        if (cancelled("compress_file_internal")) return result;
        const size_t got = fread(buffer, 1, capacity, in);
        if (got == 0) break;
        result.size_in += got;
        if (blocks != nullptr) blocks->filled(got);
        // Always the same slices of the input, whatever the read size: the frame's bytes
        // depend on how the input is cut into updates.
        for (size_t at = 0; at < got; at += archive_io_size) {
            const size_t slice = got - at < archive_io_size ? got - at : archive_io_size;
            const size_t produced = LZ4F_compressUpdate(context, dst, dst_capacity, buffer + at, slice, nullptr);
            if (LZ4F_isError(produced)) {
                NV_LOG("compress_file_internal", "Compression failed: error %zu\n", produced);
                return result;
            }
            if (!write_compressed(out, dst, produced, chunk_pending, header, result.size_out)) return result;
        }
    }
    if (ferror(in) != 0) {
        NV_LOG("compress_file_internal", "Failed to read the input file\n");
        return result;
    }

    const size_t produced = LZ4F_compressEnd(context, dst, dst_capacity, nullptr);
    if (LZ4F_isError(produced)) {
        NV_LOG("compress_file_internal", "Failed to end compression: error %zu\n", produced);
        return result;
    }
    if (!write_compressed(out, dst, produced, chunk_pending, header, result.size_out)) return result;
    result.error = 0;
    return result;
}

compress_result compress_file(FILE* in, FILE* out, archive_header& header, input_blocks* blocks) {
    const LZ4F_preferences_t prefs = archive_preferences();
    LZ4F_compressionContext_t context = nullptr;
    const size_t created = LZ4F_createCompressionContext(&context, LZ4F_VERSION);
    const size_t dst_capacity = LZ4F_compressBound(archive_io_size, &prefs);
    unsigned char* src = static_cast<unsigned char*>(malloc(archive_io_size));
    unsigned char* dst = static_cast<unsigned char*>(malloc(dst_capacity));

    compress_result result;
    if (LZ4F_isError(created) || context == nullptr || src == nullptr || dst == nullptr) {
        NV_LOG("compress_file", "error : ressource allocation failed \n");
    } else {
        result = compress_file_internal(in, out, header, context, src, archive_io_size, dst, dst_capacity, blocks);
    }
    LZ4F_freeCompressionContext(context);
    free(src);
    free(dst);
    return result;
}

size_t get_block_size(const LZ4F_frameInfo_t* info) {
    switch (info->blockSizeID) {
    case LZ4F_default:
    case LZ4F_max64KB:
        return 64 * 1024;
    case LZ4F_max256KB:
        return 256 * 1024;
    case LZ4F_max1MB:
        return 1024 * 1024;
    case LZ4F_max4MB:
        return 4 * 1024 * 1024;
    default:
        NV_LOG("get_block_size", "Impossible with expected frame specification (<=v1.6.1)\n");
        return 0;
    }
}

bool check_frame_descriptor(FILE* in) {
    const long at = ftell(in);
    unsigned char head[LZ4F_HEADER_SIZE_MAX];
    size_t size = fread(head, 1, sizeof(head), in);
    if (at < 0 || fseek(in, at, SEEK_SET) != 0) {
        NV_LOG("check_frame_descriptor", "Failed to read the frame descriptor\n");
        return false;
    }
    LZ4F_dctx* context = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION))) {
        NV_LOG("check_frame_descriptor", "LZ4F_dctx creation failed\n");
        return false;
    }
    LZ4F_frameInfo_t info;
    memset(&info, 0, sizeof(info));
    const size_t hint = LZ4F_getFrameInfo(context, &info, head, &size);
    LZ4F_freeDecompressionContext(context);
    if (LZ4F_isError(hint)) {
        NV_LOG("check_frame_descriptor", "Invalid frame descriptor: %s\n", LZ4F_getErrorName(hint));
        return false;
    }
    return get_block_size(&info) != 0;
}

namespace {

// Reads after the first one: a stored (incompressible) 256 KiB block costs one read rather than
// sixteen, and one call of the decompressor.
constexpr size_t decode_read_size = 256 * 1024;

// Feeds `size` bytes to the decompressor, each call taking as much as the output's room allows,
// and passes the output to `out`. `last` keeps the decompressor's last hint (0 once the frame is complete). Bytes left
// over after the end of the frame are trailing data.
bool feed(LZ4F_dctx* context, const unsigned char* data, size_t size, unsigned char* dst, size_t dst_capacity,
          byte_sink& out, size_t& last) {
    size_t at = 0;
    while (at < size) {
        if (last == 0) {
            NV_LOG("decompress_file_internal", "Decompress: Trailing data left in file after frame\n");
            return false;
        }
        // Straight into the sink when it lends room, else through `dst`.
        size_t room = 0;
        unsigned char* target = out.space(room);
        const bool in_place = target != nullptr;
        if (!in_place) {
            target = dst;
            room = dst_capacity;
        }
        // In place, what was decoded stays where it is for at least the ring's other blocks, far
        // more than the 64 KiB of history the next blocks may refer to: the decompressor keeps no
        // copy of its own.
        LZ4F_decompressOptions_t options;
        memset(&options, 0, sizeof(options));
        options.stableDst = in_place ? 1 : 0;
        size_t in_size = size - at;
        size_t out_size = room;
        const size_t hint = LZ4F_decompress(context, target, &out_size, data + at, &in_size, &options);
        if (LZ4F_isError(hint)) {
            NV_LOG("decompress_file_internal", "Decompression error: %s\n", LZ4F_getErrorName(hint));
            return false;
        }
        if (in_size == 0 && out_size == 0) {
            NV_LOG("decompress_file_internal", "Decompression error: %s\n", "no progress");
            return false;
        }
        if (in_place) {
            out.commit(out_size);
        } else if (out_size != 0) {
            (void)out.write(dst, out_size);
        }
        at += in_size;
        last = hint;
    }
    return true;
}

}  // namespace

int decompress_file_internal(FILE* in, byte_sink& out, const archive_header& header, LZ4F_dctx* context,
                             unsigned char* src, size_t src_capacity, size_t filled, size_t frame_header_size,
                             unsigned char* dst, size_t dst_capacity) {
    size_t last = 1;  // the frame is not finished until the decompressor says so
    size_t at = frame_header_size;
    if (header.encryption_length != 0) {
        const size_t chunk = header.encryption_length;
        const size_t available = filled - at;
        if (available < chunk) {
            // The chunk runs past the first read: gather it at the front and read the rest.
            memmove(src, src + at, available);
            const size_t missing = chunk - available;
            if (fread(src + available, 1, missing, in) != missing) {
                NV_LOG("decompress_file_internal", "Decompress: failed to read encrypted block\n");
                return 1;
            }
            at = 0;
            filled = chunk;
        }
        mcl::binary_t key;
        mcl::binary_t chain;
        build_archive_key_material(key, chain);
        const mcl::binary_t sealed(src + at, static_cast<uint32_t>(chunk));
        mcl::binary_t plain;
        if (sealed.size() != chunk || !mcl::enc::aes_decrypt(key, chain, sealed, plain)) {
            NV_LOG("decompress_file_internal", "Failed to decrypt the first block\n");
            return 1;
        }
        if (!feed(context, plain.data(), header.decrypt_length, dst, dst_capacity, out, last)) return 1;
        at += chunk;
    }
    if (!feed(context, src + at, filled - at, dst, dst_capacity, out, last)) return 1;

    while (last != 0) {
        if (cancelled("decompress_file_internal")) return 1;
        const size_t got = fread(src, 1, decode_read_size < src_capacity ? decode_read_size : src_capacity, in);
        if (got == 0) {
            NV_LOG("decompress_file_internal", "Decompress: not enough input or error reading file\n");
            return 1;
        }
        if (!feed(context, src, got, dst, dst_capacity, out, last)) return 1;
    }
    if (fgetc(in) != EOF || feof(in) == 0) {
        NV_LOG("decompress_file_internal", "Decompress: Trailing data left in file after frame\n");
        return 1;
    }
    return 0;
}

int decompress_file_allocDst(FILE* in, byte_sink& out, const archive_header& header, LZ4F_dctx* context,
                             unsigned char* src, size_t src_capacity) {
    const size_t filled = fread(src, 1, archive_io_size, in);
    if (filled == 0 || ferror(in) != 0) {
        NV_LOG("decompress_file_allocDst", "Decompress: not enough input or error reading file\n");
        return 1;
    }
    LZ4F_frameInfo_t info;
    memset(&info, 0, sizeof(info));
    size_t frame_header_size = filled;
    const size_t hint = LZ4F_getFrameInfo(context, &info, src, &frame_header_size);
    if (LZ4F_isError(hint)) {
        NV_LOG("decompress_file_allocDst", "LZ4F_getFrameInfo error: %s\n", LZ4F_getErrorName(hint));
        return 1;
    }
    const size_t dst_capacity = get_block_size(&info);
    if (dst_capacity == 0) return 1;
    unsigned char* dst = static_cast<unsigned char*>(malloc(dst_capacity));
    if (dst == nullptr) {
        NV_LOG("decompress_file_allocDst", "failed to allocate memory\n");
        return 1;
    }
    const int result = decompress_file_internal(in, out, header, context, src, src_capacity, filled,
                                                frame_header_size, dst, dst_capacity);
    free(dst);
    return result;
}

int decompress_file(FILE* in, byte_sink& out, const archive_header& header) {
    if (!archive_chunk_lengths_valid(header)) {
        NV_LOG("decompress_file", "Invalid encrypted chunk: decrypt length %u, encryption length %u\n",
               header.decrypt_length, header.encryption_length);
        return 1;
    }
    const size_t src_capacity = header.encryption_length > decode_read_size ? header.encryption_length : decode_read_size;
    unsigned char* src = static_cast<unsigned char*>(malloc(src_capacity));
    if (src == nullptr) {
        NV_LOG("decompress_file", "failed to allocate memory\n");
        return 1;
    }
    LZ4F_dctx* context = nullptr;
    const size_t created = LZ4F_createDecompressionContext(&context, LZ4F_VERSION);
    if (LZ4F_isError(created)) {
        NV_LOG("decompress_file", "LZ4F_dctx creation error: %s\n", LZ4F_getErrorName(created));
        free(src);
        return 1;
    }
    const int result = decompress_file_allocDst(in, out, header, context, src, src_capacity);
    LZ4F_freeDecompressionContext(context);
    free(src);
    return result;
}

int decompress_file(FILE* in, FILE* out, const archive_header& header) {
    file_sink sink(out);
    return decompress_file(in, sink, header);
}
