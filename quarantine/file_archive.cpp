#include "quarantine/file_archive.h"

#include <chrono>
#include <cstring>
#include <vector>

#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

#include "mcl/endian.h"
#include "mcl/file.h"
#include "mcl/log.h"

namespace {

uint64_t now_unix_milliseconds() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count());
}

bool write_u32_at(FILE* file, long offset, uint32_t value) {
    unsigned char bytes[4];
    mcl::store_u32_le(bytes, value);
    return fseek(file, offset, SEEK_SET) == 0 && fwrite(bytes, 1, sizeof(bytes), file) == sizeof(bytes);
}

// Whether the archive header can record `source_path`; logged when not.
bool path_fits(const char* source_path) {
    const size_t path_length = strlen(source_path);
    if (path_length <= archive_max_path_length) return true;
    NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Path too long (%zu bytes): %s\n", path_length, source_path);
    return false;
}

// Runs the steps after both files are open; false when any of them failed (each logged).
bool write_archive(FILE* source, FILE* archive, const char* source_path, archive_header& header,
                   input_blocks& blocks) {
    unsigned char bytes[archive_header_size];
    encode_archive_header(header, bytes);
    if (fwrite(bytes, 1, sizeof(bytes), archive) != sizeof(bytes)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to write archive header\n");
        return false;
    }
    const size_t path_size = strlen(source_path) + 1;
    if (fwrite(source_path, 1, path_size, archive) != path_size) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to write original file path\n");
        return false;
    }
    const compress_result result = compress_file(source, archive, header, &blocks);
    if (result.error != 0) return false;
    if (!write_u32_at(archive, archive_decrypt_length_offset, header.decrypt_length)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to update decrypt length\n");
        return false;
    }
    if (!write_u32_at(archive, archive_encryption_length_offset, header.encryption_length)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to update encryption length\n");
        return false;
    }
    return true;
}

// Lends the compressor the blocks of a digest: each block of the source is read once, into
// the digest's ring, and both the digest thread and the compressor take it from there. Every
// few blocks the archive written so far goes to the disk while the digest catches up.
class digest_blocks : public input_blocks {
public:
    digest_blocks(block_digest& digest, FILE* archive) : digest_(digest), archive_(archive) {}
    unsigned char* acquire(size_t& capacity) override {
        if (++blocks_ % blocks_between_flushes == 0) (void)flush_to_disk(archive_);  // the last flush decides
        capacity = block_digest::block_size;
        return digest_.acquire();
    }
    void filled(size_t size) override { digest_.filled(size); }

private:
    static constexpr uint64_t blocks_between_flushes = flush_interval / block_digest::block_size;

    block_digest& digest_;
    FILE* archive_;
    uint64_t blocks_ = 0;
};

}  // namespace

bool digest_sink::write(const unsigned char* data, size_t size) {
    digest_.add(data, size);
    return true;
}

bool digest_sink::finish_writing() {
    digest_.drain();
    return !file_writer_.failed();
}

void digest_sink::file_writer::write(const unsigned char* data, size_t size) {
    if (!safe_fwrite(data, size, file_)) failed_ = true;
    unflushed_ += size;
    if (unflushed_ >= flush_interval) {
        (void)flush_to_disk(file_);  // the last flush decides
        unflushed_ = 0;
    }
}

bool flush_to_disk(FILE* file) {
    bool ok = fflush(file) == 0;
#ifdef _WIN32
    ok = ok && _commit(_fileno(file)) == 0;
#else
    ok = ok && fsync(fileno(file)) == 0;
#endif
    return ok;
}

bool flush_and_close(mcl::unique_file file) {
    const bool ok = flush_to_disk(file.get());
    return fclose(file.release()) == 0 && ok;
}

bool replace_file(const char* from, const char* to) {
#ifdef _WIN32
    return MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE;
#else
    return std::rename(from, to) == 0;
#endif
}

bool NVFileArchive::NVFileArchive_archiveFile(const char* source_path, const char* archive_path) {
    if (!path_fits(source_path)) return false;
    mcl::unique_file source = mcl::open_file(source_path, "rb");
    if (!source) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to open the source file <%s>\n", source_path);
        return false;
    }
    return NVFileArchive_archiveStream(std::move(source), source_path, archive_path);
}

bool NVFileArchive::NVFileArchive_archiveStream(mcl::unique_file source, const char* source_path,
                                                const char* archive_path) {
    if (!path_fits(source_path)) return false;
    const size_t path_length = strlen(source_path);
    archive_header header;
    header.data_offset = static_cast<uint32_t>(archive_header_size + path_length + 1);
    header.archive_time = now_unix_milliseconds();

    const std::string partial = std::string(archive_path) + ".partial";
    mcl::unique_file archive = mcl::open_file(partial.c_str(), "wb");
    if (!archive) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to create <%s>\n", partial.c_str());
        return false;
    }
    NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Archiving : %s -> %s\n", source_path, archive_path);
    // The digest runs on a second thread over the very blocks the compressor reads, so the
    // source is read once, archiving costs about the longer of the two, and the recorded digest
    // is that of what the archive holds even when the source changes meanwhile. The header
    // goes out with a zero digest, filled in below before the archive is flushed.
    block_digest digest;
    digest_blocks blocks(digest, archive.get());
    bool ok = write_archive(source.get(), archive.get(), source_path, header, blocks);
    source.reset();
    mcl::binary_t content_hash;
    if (ok && (!digest.finish(content_hash) || content_hash.size() != archive_hash_size)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to calculate sha256 hash of the file <%s> \n",
               source_path);
        ok = false;
    } else if (ok && (fseek(archive.get(), archive_hash_offset, SEEK_SET) != 0 ||
                      fwrite(content_hash.data(), 1, archive_hash_size, archive.get()) != archive_hash_size)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to write archive header\n");
        ok = false;
    }
    if (!flush_and_close(std::move(archive))) ok = false;
    if (ok && !replace_file(partial.c_str(), archive_path)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to rename <%s> to <%s>\n", partial.c_str(),
               archive_path);
        ok = false;
    }
    if (!ok) {
        std::remove(partial.c_str());
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "compress : failed with code %i\n", 1);
        return false;
    }
    NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Archiving : done\n");
    return true;
}

bool NVFileArchive::read_archive_info(FILE* archive, archive_info& info) {
    unsigned char first[4];
    if (fread(first, 1, sizeof(first), archive) != sizeof(first) ||
        (first[0] | first[1] | first[2] | first[3]) == 0) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to read the archive header\n");
        return false;
    }
    const uint32_t data_offset = mcl::load_u32_le(first);
    if (data_offset <= archive_header_size || data_offset > archive_max_data_offset) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Invalid archive header: data offset %u\n", data_offset);
        return false;
    }
    std::vector<unsigned char> prefix(data_offset);
    memcpy(prefix.data(), first, sizeof(first));
    const size_t rest = data_offset - sizeof(first);
    if (fread(prefix.data() + sizeof(first), 1, rest, archive) != rest) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Archive shorter than its header: data offset %u\n",
               data_offset);
        return false;
    }
    const unsigned char* path = prefix.data() + archive_header_size;
    const void* end = memchr(path, 0, data_offset - archive_header_size);
    if (end == nullptr) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Invalid archive header: path not terminated\n");
        return false;
    }
    unsigned char header_bytes[archive_header_size];
    memcpy(header_bytes, prefix.data(), archive_header_size);
    info.header = decode_archive_header(header_bytes);
    info.path.assign(reinterpret_cast<const char*>(path), static_cast<const unsigned char*>(end) - path);
    return true;
}

bool NVFileArchive::NVFileArchive_restoreFile(const char* archive_path, restore_destination* destination,
                                              std::string* placed) {
    mcl::unique_file archive = mcl::open_file(archive_path, "rb");
    if (!archive) return false;
    archive_info info;
    if (!read_archive_info(archive.get(), info)) return false;
    // Everything that can be checked without decoding is checked before anything is written.
    if (!archive_chunk_lengths_valid(info.header)) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Invalid encrypted chunk: decrypt length %u, encryption length %u\n",
               info.header.decrypt_length, info.header.encryption_length);
        return false;
    }
    if (!check_frame_descriptor(archive.get())) return false;
    if (destination != nullptr && !destination->open(info.path)) return false;
    NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restoring : %s -> %s\n", archive_path, info.path.c_str());
    const std::string partial = info.path + ".restoring";
    mcl::unique_file restored =
        destination != nullptr ? destination->create(partial) : mcl::open_file(partial.c_str(), "wb");
    if (!restored) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to open the restored file <%s>\n", partial.c_str());
        return false;
    }
    digest_sink sink(restored.get());
    int result = decompress_file(archive.get(), sink, info.header);
    archive.reset();
    const bool written = sink.finish_writing();
    if (!flush_and_close(std::move(restored)) || !written) result = 1;
    mcl::binary_t digest;
    std::string target = info.path;
    bool ok = false;
    if (result != 0) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restore : failed with code %i\n", result);
    } else if (!sink.finish(digest) || digest.size() != archive_hash_size) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to calculate sha256 hash of the file <%s> \n",
               info.path.c_str());
    } else if (memcmp(digest.data(), info.header.content_hash, archive_hash_size) != 0) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "The hash of restored file is not matched\n");
    } else if (destination != nullptr) {
        // The destination says why it refused.
        ok = destination->confirm(partial) && destination->place(partial, info.path, target);
    } else if (!replace_file(partial.c_str(), info.path.c_str())) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to rename <%s> to <%s>\n", partial.c_str(),
               info.path.c_str());
    } else {
        ok = true;
    }
    if (!ok) {
        if (destination != nullptr) {
            destination->discard(partial);
        } else {
            std::remove(partial.c_str());
        }
        return false;
    }
    if (placed != nullptr) *placed = target;
    NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restore : done\n");
    return true;
}
