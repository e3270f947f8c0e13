// Times one quarantine archive operation on one file and reports its peak memory.
//
//   archive_bench archive LABEL SOURCE ARCHIVE   prints archive_LABEL: MB/s and peak memory
//   archive_bench restore LABEL ARCHIVE SOURCE   restores to the recorded path (the source)
//   archive_bench digest LABEL SOURCE            the SHA-256 digest alone: 1 MiB reads, each
//                                                hashed with one CryptHashData on this thread
//   archive_bench hash LABEL SOURCE              the same through compute_sha256
//
// One operation per process, so that the peak memory belongs to that operation alone.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <windows.h>
#include <psapi.h>
#else
#include <sys/resource.h>
#endif

#include "quarantine/block_digest.h"
#include "quarantine/file_archive.h"
#include "quarantine/sha256.h"

namespace {

double peak_memory_mib() {
#if defined(_WIN32)
    PROCESS_MEMORY_COUNTERS counters;
    memset(&counters, 0, sizeof(counters));
    if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters))) return -1;
    return static_cast<double>(counters.PeakWorkingSetSize) / (1024.0 * 1024.0);
#else
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) return -1;
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
#endif
}

long long file_size(const char* path) {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) return -1;
    long long size = -1;
    if (fseek(f, 0, SEEK_END) == 0) {
#if defined(_WIN32)
        size = _ftelli64(f);
#else
        size = ftello(f);
#endif
    }
    fclose(f);
    return size;
}

// Reads the file in blocks of the archive digest's size and hashes each, one after the other:
// what the digest alone costs, the bound for archiving and restoring.
bool digest_file(const char* path) {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) return false;
    std::vector<unsigned char> block(block_digest::block_size);
    sha256_hasher hasher;
    bool ok = hasher.begin();
    for (;;) {
        const size_t got = fread(block.data(), 1, block.size(), f);
        if (got == 0) break;
        ok = ok && hasher.update(block.data(), got);
    }
    ok = ok && ferror(f) == 0;
    fclose(f);
    mcl::binary_t digest;
    return ok && hasher.finish(digest) && digest.size() == archive_hash_size;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr,
                "usage: archive_bench archive LABEL SOURCE ARCHIVE | restore LABEL ARCHIVE SOURCE | digest LABEL SOURCE\n");
        return 1;
    }
    const std::string op = argv[1];
    const std::string label = argv[2];
    {
        // The first use in a process loads the crypto provider; a long-running service pays
        // that once, so it is timed apart.
        const std::string warm_source = std::string(argv[3]) + ".warmup";
        const std::string warm_archive = warm_source + ".QUA";
        FILE* f = fopen(warm_source.c_str(), "wb");
        if (f != nullptr) {
            fputs("warm", f);
            fclose(f);
        }
        const auto warm_start = std::chrono::steady_clock::now();
        const bool warmed = NVFileArchive::NVFileArchive_archiveFile(warm_source.c_str(), warm_archive.c_str());
        const std::chrono::duration<double, std::milli> warm = std::chrono::steady_clock::now() - warm_start;
        remove(warm_source.c_str());
        remove(warm_archive.c_str());
        if (warmed) printf("%s_%s_first_call: %.1f ms\n", op.c_str(), label.c_str(), warm.count());
    }
    const auto start = std::chrono::steady_clock::now();
    bool ok = false;
    long long bytes = 0;
    if (op == "archive" && argc == 5) {
        bytes = file_size(argv[3]);
        ok = NVFileArchive::NVFileArchive_archiveFile(argv[3], argv[4]);
    } else if (op == "hash" && argc == 4) {
        bytes = file_size(argv[3]);
        mcl::binary_t scratch;
        ok = compute_sha256(argv[3], scratch).size() == archive_hash_size;
    } else if (op == "digest" && argc == 4) {
        bytes = file_size(argv[3]);
        ok = digest_file(argv[3]);
    } else if (op == "restore" && argc == 5) {
        ok = NVFileArchive::NVFileArchive_restoreFile(argv[3]);
        bytes = file_size(argv[4]);
    } else {
        fprintf(stderr, "unknown operation\n");
        return 1;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (!ok || bytes < 0) {
        fprintf(stderr, "%s %s failed\n", op.c_str(), label.c_str());
        return 2;
    }
    printf("%s_%s: %.1f MB/s\n", op.c_str(), label.c_str(), static_cast<double>(bytes) / 1e6 / took.count());
    printf("%s_%s_peak_memory: %.1f MiB\n", op.c_str(), label.c_str(), peak_memory_mib());
    return 0;
}
