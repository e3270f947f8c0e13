#include "quarantine/file_archive.h"

#include <chrono>
#include <system_error>
#include <thread>
#include <cstring>
#include <vector>

#include "app/log.h"
#include "quarantine/sha256.h"

namespace {

uint64_t now_unix_milliseconds() {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since_epoch).count());
}

bool write_u32_at(FILE* file, long offset, uint32_t value) {
    unsigned char bytes[4];
    put_u32_le(value, bytes);
    return fseek(file, offset, SEEK_SET) == 0 && fwrite(bytes, 1, sizeof(bytes), file) == sizeof(bytes);
}

// Runs the steps after both files are open; false when any of them failed (each logged).
bool write_archive(FILE* source, FILE* archive, const char* source_path, archive_header& header) {
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
    const compress_result result = compress_file(source, archive, header);
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

// The digest of an open source, computed on its own thread (or inline when no thread can be
// started). result() waits for it; the destructor too, so the stream is never left behind.
class digest_job {
public:
    digest_job(FILE* file, const char* path) : file_(file), path_(path) {
        try {
            worker_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            run();
        }
    }
    ~digest_job() { wait(); }
    digest_job(const digest_job&) = delete;
    digest_job& operator=(const digest_job&) = delete;

    const mcl::binary_t& result() {
        wait();
        return digest_;
    }

private:
    void run() {
        mcl::binary_t scratch;
        digest_ = sha256_of_stream(file_, path_, scratch);
    }
    void wait() {
        if (worker_.joinable()) worker_.join();
    }

    FILE* file_;
    const char* path_;
    mcl::binary_t digest_;
    std::thread worker_;
};

}  // namespace

bool NVFileArchive::NVFileArchive_archiveFile(const char* source_path, const char* archive_path) {
    const size_t path_length = strlen(source_path);
    if (path_length > archive_max_path_length) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Path too long (%zu bytes): %s\n", path_length, source_path);
        return false;
    }
    archive_header header;
    header.data_offset = static_cast<uint32_t>(archive_header_size + path_length + 1);
    header.archive_time = now_unix_milliseconds();

    // The digest and the compression each read the whole source. The digest runs on a second
    // thread while the frame is written, so archiving costs about the longer of the two
    // instead of their sum; its value goes into the header at the end. The source is opened
    // for the digest first, so a source that cannot be read still leaves no archive behind.
    FILE* hashed = open_for_sha256(source_path);
    if (hashed == nullptr) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to calculate sha256 hash of the file <%s> \n",
               source_path);
        return false;
    }
    digest_job digest(hashed, source_path);

    FILE* source = fopen(source_path, "rb");
    FILE* archive = source != nullptr ? fopen(archive_path, "wb") : nullptr;
    if (archive == nullptr) {
        if (source != nullptr) fclose(source);
        return false;
    }
    NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Archiving : %s -> %s\n", source_path, archive_path);
    bool ok = write_archive(source, archive, source_path, header);
    fclose(source);
    const mcl::binary_t& content_hash = digest.result();
    if (ok && content_hash.size() != archive_hash_size) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to calculate sha256 hash of the file <%s> \n",
               source_path);
        ok = false;
    } else if (ok && (fseek(archive, archive_hash_offset, SEEK_SET) != 0 ||
                      fwrite(content_hash.data(), 1, archive_hash_size, archive) != archive_hash_size)) {
        NV_LOG("NVFileArchive::NVFileArchive_archiveFile", "Failed to write archive header\n");
        ok = false;
    }
    if (fclose(archive) != 0) ok = false;
    if (!ok) {
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
    const uint32_t data_offset = uint32_t{first[0]} | (uint32_t{first[1]} << 8) | (uint32_t{first[2]} << 16) |
                                 (uint32_t{first[3]} << 24);
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

bool NVFileArchive::NVFileArchive_restoreFile(const char* archive_path) {
    FILE* archive = fopen(archive_path, "rb");
    if (archive == nullptr) return false;
    archive_info info;
    if (!read_archive_info(archive, info)) {
        fclose(archive);
        return false;
    }
    NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restoring : %s -> %s\n", archive_path, info.path.c_str());
    FILE* restored = fopen(info.path.c_str(), "wb");
    if (restored == nullptr) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to open the restored file <%s>\n", info.path.c_str());
        fclose(archive);
        return false;
    }
    int result = decompress_file(archive, restored, info.header);
    fclose(archive);
    if (fclose(restored) != 0 && result == 0) result = 1;
    if (result != 0) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restore : failed with code %i\n", result);
        return false;
    }
    mcl::binary_t scratch;
    const mcl::binary_t digest = compute_sha256(info.path.c_str(), scratch);
    if (digest.size() != archive_hash_size) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "Failed to calculate sha256 hash of the file <%s> \n",
               info.path.c_str());
        return false;
    }
    if (memcmp(digest.data(), info.header.content_hash, archive_hash_size) != 0) {
        NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "The hash of restored file is not matched\n");
        return false;
    }
    NV_LOG("NVFileArchive::NVFileArchive_restoreFile", "restore : done\n");
    return true;
}
