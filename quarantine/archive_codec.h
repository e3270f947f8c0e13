// The streaming LZ4 frame codec of quarantine archives: 16 KiB pieces through the LZ4 calls,
// 256 KiB linked blocks, and the first non-empty compressed output encrypted with the archive
// key.
//
// Stateless; any thread. Each call owns its contexts and buffers and frees them before it
// returns. Streams are opened and closed by the caller.
#pragma once

#include <cstdint>
#include <cstdio>

#include "lz4frame.h"
#include "quarantine/archive_format.h"

// Asked between blocks by compress_file and decompress_file, on the thread doing the work: true
// ends the work as a failure (the caller removes what it wrote). Null, the default, never asks.
// Set once, before any archive work starts (the service sets its threads' stop question).
using archive_cancel_check = bool (*)();
void set_archive_cancel_check(archive_cancel_check check);

struct compress_result {
    int error = 1;           // 0 success, 1 failure
    uint64_t size_in = 0;    // bytes read from the input
    uint64_t size_out = 0;   // bytes written, frame header included, the chunk at its stored length
};

// Where decompressed bytes go. A failed write is logged by the sink and does not stop the
// decompression: the digest check afterwards catches it.
class byte_sink {
public:
    virtual ~byte_sink() = default;
    virtual bool write(const unsigned char* data, size_t size) = 0;
    // Room for the decoder to put the next bytes straight into, instead of writing them from a
    // buffer of its own: `size` (more than 0) bytes at the address returned, null (the default)
    // for a sink that takes write() only. commit() then says how many of them now hold output.
    // The decoder reads back into its last 64 KiB of output, so bytes committed stay as they are
    // until at least that much more has been committed after them.
    virtual unsigned char* space(size_t& size) {
        size = 0;
        return nullptr;
    }
    virtual void commit(size_t size) { (void)size; }
};

class file_sink : public byte_sink {
public:
    explicit file_sink(FILE* file) : file_(file) {}
    bool write(const unsigned char* data, size_t size) override;

private:
    FILE* file_;
};

// Buffers into which compress_file reads its input, supplied by a caller that wants the same
// bytes for something else (a digest). Each buffer is read into once and then compressed in
// archive_io_size slices, so the frame does not depend on the buffers' size. Both calls run on
// the compressing thread.
class input_blocks {
public:
    virtual ~input_blocks() = default;
    // The buffer for the next read and its capacity, a multiple of archive_io_size; null when
    // there is none.
    virtual unsigned char* acquire(size_t& capacity) = 0;
    // The buffer from the last acquire() now holds `size` (more than 0) bytes of input. The
    // compressor reads them after this call and is done with them at its next acquire().
    virtual void filled(size_t size) = 0;
};

// Writes `size` bytes with one fwrite; false (logged "Write failed" or "Short write") when
// fewer were written.
bool safe_fwrite(const void* data, size_t size, FILE* file);

// Streams `in` into `out` as one LZ4 frame whose first non-empty output after the frame header
// is encrypted; fills decrypt_length and encryption_length of `header`. Reads go into `blocks`
// when given, else into a buffer of its own of archive_io_size bytes.
compress_result compress_file(FILE* in, FILE* out, archive_header& header, input_blocks* blocks = nullptr);
compress_result compress_file_internal(FILE* in, FILE* out, archive_header& header, LZ4F_compressionContext_t context,
                                       unsigned char* src, size_t src_capacity, unsigned char* dst,
                                       size_t dst_capacity, input_blocks* blocks = nullptr);

// Reads the frame descriptor at the position of `in` and puts the position back. False (logged)
// when it cannot be read or is not one the decompressor takes.
bool check_frame_descriptor(FILE* in);

// `in` stands at data_offset. 0 when the whole frame was decoded and nothing follows it,
// else 1 with one log line. Chunk lengths beyond what a writer produces are refused before
// anything is allocated.
int decompress_file(FILE* in, FILE* out, const archive_header& header);
int decompress_file(FILE* in, byte_sink& out, const archive_header& header);
int decompress_file_allocDst(FILE* in, byte_sink& out, const archive_header& header, LZ4F_dctx* context,
                             unsigned char* src, size_t src_capacity);
int decompress_file_internal(FILE* in, byte_sink& out, const archive_header& header, LZ4F_dctx* context,
                             unsigned char* src, size_t src_capacity, size_t filled, size_t frame_header_size,
                             unsigned char* dst, size_t dst_capacity);

// Bytes in one block for the frame's block size identifier; 0 (logged) for an unknown one.
size_t get_block_size(const LZ4F_frameInfo_t* info);
