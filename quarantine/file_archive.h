// Quarantine archive files: one source file stored as header, original path and an LZ4 frame
// whose first chunk is encrypted; restored to the recorded path and checked against the
// recorded SHA-256 digest.
//
// Stateless; any thread (the quarantine runs them on the request thread). Paths are narrow
// strings in the ANSI code page. Neither operation deletes anything it wrote when it fails.
#pragma once

#include <cstdio>
#include <string>

#include "quarantine/archive_codec.h"
#include "quarantine/archive_format.h"

// What the start of an archive says: its header and the recorded path.
struct archive_info {
    archive_header header;
    std::string path;
};

class NVFileArchive {
public:
    // Creates or overwrites `archive_path` with the archive of `source_path`. No file is
    // created when the source cannot be hashed; a failure after that leaves the partial archive.
    static bool NVFileArchive_archiveFile(const char* source_path, const char* archive_path);

    // Writes the content to the path recorded in the archive (creating or truncating it) and
    // accepts it only when its digest matches. A failure after the restored file was opened
    // leaves it in place.
    static bool NVFileArchive_restoreFile(const char* archive_path);

    // Reads the header and the recorded path from an archive open at its start and leaves the
    // stream at the frame. False (logged) for a missing or zero data offset, a data offset
    // outside 61 .. 61 + 32767, a file shorter than it, or a path without its zero byte.
    static bool read_archive_info(FILE* archive, archive_info& info);
};
