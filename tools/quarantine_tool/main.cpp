// quarantine_tool: inspects, verifies, extracts and creates quarantine archives for support.
//
//   quarantine_tool [--log FILE] create SOURCE ARCHIVE   archive SOURCE as the service does
//   quarantine_tool [--log FILE] info ARCHIVE             print the header and the recorded path
//   quarantine_tool [--log FILE] verify ARCHIVE           decrypt, decompress and check the digest;
//                                                         writes nothing
//   quarantine_tool [--log FILE] extract ARCHIVE DEST     write the content to DEST, then check it
//
// Exit codes name what is wrong, so scripts can sort archives; on failure the lines the archive
// code logged are shown as "detail:" lines.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <cctype>
#include <cstring>
#include <string>

#include "app/log.h"
#include "quarantine/file_archive.h"
#include "quarantine/sha256.h"

namespace {

enum exit_code : int {
    exit_ok = 0,
    exit_usage = 1,
    exit_io = 2,           // a file could not be opened, read or written
    exit_bad_header = 3,   // header or recorded path damaged
    exit_bad_content = 4,  // the frame or the encrypted chunk cannot be decoded
    exit_bad_digest = 5,   // decoded, but the content differs from the recorded digest
};

int usage() {
    fprintf(stderr,
            "usage: quarantine_tool [--log FILE] create SOURCE ARCHIVE\n"
            "       quarantine_tool [--log FILE] info ARCHIVE\n"
            "       quarantine_tool [--log FILE] verify ARCHIVE\n"
            "       quarantine_tool [--log FILE] extract ARCHIVE DEST\n");
    return exit_usage;
}

std::string hex(const unsigned char* data, size_t size) {
    std::string text;
    char two[3];
    for (size_t i = 0; i < size; ++i) {
        snprintf(two, sizeof(two), "%02x", data[i]);
        text += two;
    }
    return text;
}

// Whether `a` and `b` name the same file: the same file when both exist, else the same
// absolute path (without case on Windows).
bool same_file(const char* a, const char* b) {
    std::error_code ec;
    if (std::filesystem::equivalent(a, b, ec) && !ec) return true;
    std::string x = std::filesystem::absolute(a, ec).lexically_normal().string();
    std::string y = std::filesystem::absolute(b, ec).lexically_normal().string();
#ifdef _WIN32
    for (auto* s : {&x, &y})
        for (char& c : *s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
#endif
    return x == y;
}

mcl::unique_file open_archive(const char* path, archive_info& info, int& code) {
    mcl::unique_file archive = mcl::open_file(path, "rb");
    if (!archive) {
        fprintf(stderr, "error: cannot open archive %s\n", path);
        code = exit_io;
        return nullptr;
    }
    if (!NVFileArchive::read_archive_info(archive.get(), info)) {
        fprintf(stderr, "error: %s: damaged archive header or recorded path\n", path);
        code = exit_bad_header;
        return nullptr;
    }
    code = exit_ok;
    return archive;
}

int run_info(const char* path) {
    archive_info info;
    int code = exit_ok;
    if (!open_archive(path, info, code)) return code;
    const archive_header& h = info.header;
    printf("data_offset: %u\n", h.data_offset);
    printf("marker_a: %u\n", h.marker_a);
    printf("decrypt_length: %u\n", h.decrypt_length);
    printf("encryption_length: %u\n", h.encryption_length);
    printf("marker_b: %u\n", h.marker_b);
    printf("archive_time: %llu\n", static_cast<unsigned long long>(h.archive_time));
    printf("content_hash: %s\n", hex(h.content_hash, archive_hash_size).c_str());
    printf("path: %s\n", info.path.c_str());
    if (!archive_chunk_lengths_valid(h)) {
        fprintf(stderr, "error: %s: encrypted chunk lengths are invalid\n", path);
        return exit_bad_header;
    }
    return exit_ok;
}

// Decodes the archive into `dest` (null: nowhere) and checks the digest. The content goes to a
// temporary name beside `dest` that replaces it only once the digest matched; a failure leaves
// `dest` as it was.
int run_decode(const char* path, const char* dest) {
    if (dest != nullptr && same_file(path, dest)) {
        fprintf(stderr, "error: the destination %s is the archive itself\n", dest);
        return exit_usage;
    }
    archive_info info;
    int code = exit_ok;
    mcl::unique_file archive = open_archive(path, info, code);
    if (!archive) return code;
    if (!archive_chunk_lengths_valid(info.header)) {
        fprintf(stderr, "error: %s: encrypted chunk lengths are invalid\n", path);
        return exit_bad_header;
    }
    if (!check_frame_descriptor(archive.get())) {
        fprintf(stderr, "error: %s: damaged content (the compressed or encrypted data cannot be decoded)\n", path);
        return exit_bad_content;
    }
    const std::string partial = dest != nullptr ? std::string(dest) + ".partial" : std::string();
    mcl::unique_file out;
    if (dest != nullptr) {
        out = mcl::open_file(partial.c_str(), "wb");
        if (!out) {
            fprintf(stderr, "error: cannot create %s\n", partial.c_str());
            return exit_io;
        }
    }
    digest_sink sink(out.get());
    const int decoded = decompress_file(archive.get(), sink, info.header);
    archive.reset();
    const bool written = sink.finish_writing();
    const bool closed = !out || flush_and_close(std::move(out));
    mcl::binary_t digest;
    if (decoded != 0) {
        fprintf(stderr, "error: %s: damaged content (the compressed or encrypted data cannot be decoded)\n", path);
        code = exit_bad_content;
    } else if (!written || !closed) {
        fprintf(stderr, "error: writing %s failed\n", partial.c_str());
        code = exit_io;
    } else if (!sink.finish(digest) || digest.size() != archive_hash_size) {
        fprintf(stderr, "error: cannot compute the SHA-256 digest\n");
        code = exit_io;
    } else if (memcmp(digest.data(), info.header.content_hash, archive_hash_size) != 0) {
        fprintf(stderr, "error: %s: content does not match the recorded digest (recorded %s, got %s)\n", path,
                hex(info.header.content_hash, archive_hash_size).c_str(), hex(digest.data(), digest.size()).c_str());
        code = exit_bad_digest;
    } else if (dest != nullptr && !replace_file(partial.c_str(), dest)) {
        fprintf(stderr, "error: cannot rename %s to %s\n", partial.c_str(), dest);
        code = exit_io;
    }
    if (code != exit_ok) {
        if (dest != nullptr) std::remove(partial.c_str());
        return code;
    }
    printf("ok: %s\n", info.path.c_str());
    return exit_ok;
}

int run_create(const char* source, const char* archive) {
    if (same_file(source, archive)) {
        fprintf(stderr, "error: the archive %s is the source itself\n", archive);
        return exit_usage;
    }
    if (!NVFileArchive::NVFileArchive_archiveFile(source, archive)) {
        fprintf(stderr, "error: archiving %s to %s failed\n", source, archive);
        return exit_io;
    }
    printf("ok: %s\n", archive);
    return exit_ok;
}

// Without --log the archive code logs to a temporary file, whose lines are shown when the
// command fails: they say which check stopped it.
class failure_details {
public:
    failure_details() {
        std::error_code ec;
        const std::filesystem::path dir = std::filesystem::temp_directory_path(ec);
        if (ec) return;
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        path_ = (dir / ("quarantine_tool." + std::to_string(stamp) + ".log")).string();
        if (log_.open(path_.c_str(), /*truncate=*/true)) g_log = &log_;
    }
    ~failure_details() {
        if (g_log == &log_) g_log = nullptr;
        log_.close();
        if (!path_.empty()) std::remove(path_.c_str());
    }
    failure_details(const failure_details&) = delete;
    failure_details& operator=(const failure_details&) = delete;

    void show() const {
        std::ifstream in(path_);
        std::string line;
        while (std::getline(in, line)) {
            const size_t at = line.find("] - ");
            if (at != std::string::npos) fprintf(stderr, "  detail: %s\n", line.c_str() + at + 4);
        }
    }

private:
    std::string path_;
    log_file log_;
};

int run(const std::string& command, int operands, char** operand) {
    if (command == "create" && operands == 2) return run_create(operand[0], operand[1]);
    if (command == "info" && operands == 1) return run_info(operand[0]);
    if (command == "verify" && operands == 1) return run_decode(operand[0], nullptr);
    if (command == "extract" && operands == 2) return run_decode(operand[0], operand[1]);
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    int at = 1;
    bool own_log = false;
    if (at + 1 < argc && strcmp(argv[at], "--log") == 0) {
        own_log = the_log().open(argv[at + 1], /*truncate=*/false);
        if (own_log) g_log = &the_log();
        at += 2;
    }
    if (at >= argc) return usage();
    if (own_log) return run(argv[at], argc - at - 1, argv + at + 1);
    failure_details details;
    const int code = run(argv[at], argc - at - 1, argv + at + 1);
    if (code != exit_ok && code != exit_usage) details.show();
    return code;
}
