// Quarantine archive files: one source file stored as header, original path and an LZ4 frame
// whose first chunk is encrypted; restored to the recorded path and checked against the
// recorded SHA-256 digest.
//
// Stateless; any thread (the quarantine runs them on the request thread). Paths are narrow
// strings in the ANSI code page. Both operations write under a temporary name beside their
// destination and rename it into place only when everything succeeded: a failure leaves what
// was at the destination as it was, and no partial file.
#pragma once

#include <cstdio>
#include <string>

#include "mcl/file.h"
#include "quarantine/archive_codec.h"
#include "quarantine/archive_format.h"
#include "quarantine/block_digest.h"
#include "quarantine/sha256.h"

// What the start of an archive says: its header and the recorded path.
struct archive_info {
    archive_header header;
    std::string path;
};

// Bytes written between two flushes to the disk while an archive or a restored file grows, so
// that the disk works while the digest is still running rather than all at the end.
constexpr uint64_t flush_interval = 16 * 1024 * 1024;

// Flushes the stream's buffer and the system's cache of `file` to the disk; false when either
// failed.
bool flush_to_disk(FILE* file);

// Hashes decoded content on its way to an optional file: the bytes go into the blocks of a
// digest, which hashes them on one thread while another writes them to the file in whole blocks
// and sends the file to the disk every flush_interval bytes, so decoding, hashing and writing
// overlap. write(), finish_writing() and finish() run on one thread, the decoder's.
class digest_sink : public byte_sink {
public:
    explicit digest_sink(FILE* file) : file_writer_(file), digest_(file != nullptr ? &file_writer_ : nullptr) {}
    // Always true: a failed write shows in finish_writing().
    bool write(const unsigned char* data, size_t size) override;
    // The decoder puts its output straight into the digest's blocks.
    unsigned char* space(size_t& size) override { return digest_.space(size); }
    void commit(size_t size) override { digest_.commit(size); }
    // Waits until every byte is in the file (the digest may still be running); false when a
    // write failed. Call it before the file is closed; nothing may be written afterwards.
    [[nodiscard]] bool finish_writing();
    // The digest of everything written; false when hashing failed.
    [[nodiscard]] bool finish(mcl::binary_t& digest) { return digest_.finish(digest); }

private:
    // Writes the blocks to the file on the digest's writer thread.
    class file_writer : public block_writer {
    public:
        explicit file_writer(FILE* file) : file_(file) {}
        void write(const unsigned char* data, size_t size) override;
        bool failed() const { return failed_; }

    private:
        FILE* file_;
        bool failed_ = false;
        uint64_t unflushed_ = 0;
    };

    file_writer file_writer_;  // before the digest, which uses it until it goes
    block_digest digest_;
};

// Flushes `file` to the disk and closes it; false when either failed.
bool flush_and_close(mcl::unique_file file);
// Renames `from` to `to`, replacing what `to` names.
bool replace_file(const char* from, const char* to);

// Where a restore may write and how its file comes into place, decided by its caller (the
// service keeps links out of the way and never replaces a file). Each refusal is logged by the
// destination.
class restore_destination {
public:
    virtual ~restore_destination() = default;
    // Before anything is written: may the content go beside `target`?
    virtual bool open(const std::string& target) = 0;
    // The temporary `temp`, newly created for writing (never an existing file or a link); null
    // when it cannot be created.
    virtual mcl::unique_file create(const std::string& temp) = 0;
    // After the temporary is written and flushed, before it is put in place: is it where open()
    // agreed to?
    virtual bool confirm(const std::string& temp) = 0;
    // Puts the temporary in place at `target` or, when something is there, beside it under a free
    // name, never replacing a file; `placed` is the path it came to.
    virtual bool place(const std::string& temp, const std::string& target, std::string& placed) = 0;
    // Removes the temporary after a failure.
    virtual void discard(const std::string& temp) = 0;
};

class NVFileArchive {
public:
    // Creates or replaces `archive_path` with the archive of `source_path`. The digest covers
    // exactly the bytes that were compressed, so a source that changes meanwhile still gives an
    // archive that restores to what it recorded.
    static bool NVFileArchive_archiveFile(const char* source_path, const char* archive_path);
    // The same from a stream open at the start of the source (closed here), recording
    // `source_path`: the caller opened the very file it means, and no path is opened again.
    static bool NVFileArchive_archiveStream(mcl::unique_file source, const char* source_path, const char* archive_path);

    // Checks the header, the chunk lengths and the frame descriptor, then writes the content
    // beside the path recorded in the archive and puts it in place only when its digest matches.
    // The temporary is the recorded path followed by ".restoring". Without a `destination` the
    // temporary replaces the recorded path; with one, the destination creates the temporary,
    // confirms it and places it (`placed` then names where it went); a refusal is a failure that
    // leaves no temporary.
    static bool NVFileArchive_restoreFile(const char* archive_path, restore_destination* destination = nullptr,
                                          std::string* placed = nullptr);

    // Reads the header and the recorded path from an archive open at its start and leaves the
    // stream at the frame. False (logged) for a missing or zero data offset, a data offset
    // outside 61 .. 61 + 32767, a file shorter than it, or a path without its zero byte.
    static bool read_archive_info(FILE* archive, archive_info& info);
};
