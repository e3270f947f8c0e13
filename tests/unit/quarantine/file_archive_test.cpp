// Quarantine archives as files: the layout a reader finds on disk, restoring to the recorded
// path, and damaged archives failing with their log line without writing anywhere but the
// recorded path (tests/integration/quarantine_tool_test.sh damages them in further ways).
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "mcl/enc/cipher.h"
#include "quarantine/archive_codec.h"
#include "quarantine/file_archive.h"
#include "tests/helpers/log_capture.h"
#include "tests/unit/quarantine/archive_test_support.h"

namespace {

using nv_test::bytes;
namespace fs = std::filesystem;

constexpr size_t frame_header_size = 7;  // magic, FLG, BD, HC with these preferences

uint64_t now_ms() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

bytes open_chunk(const bytes& archive) {
    bytes key;
    bytes chain;
    nv_test::archive_key_and_chain(key, chain);
    const uint32_t offset = nv_test::u32_at(archive, 0);
    const uint32_t stored = nv_test::u32_at(archive, 12);
    const mcl::binary_t sealed(archive.data() + offset + frame_header_size, stored);
    mcl::binary_t plain;
    EXPECT_TRUE(mcl::enc::aes_decrypt(mcl::binary_t(key.data(), 32), mcl::binary_t(chain.data(), 32), sealed, plain));
    return bytes(plain.data(), plain.data() + nv_test::u32_at(archive, 8));
}

TEST(file_archive, layout_and_round_trip_for_every_content_shape) {
    enum class chunk { whole_frame, first_block };
    struct {
        const char* name;
        bytes content;
        chunk holds;
        uint32_t decrypt_length;  // 0: not fixed by the content
        uint32_t encryption_length;
    } const cases[] = {
        {"empty", {}, chunk::whole_frame, 4, 32},
        {"one_byte", nv_test::random_bytes(1, 1), chunk::whole_frame, 0, 32},
        // Stored blocks: 4-byte header + 24 bytes + 4-byte end mark = 32, no padding needed.
        {"chunk_multiple_of_32", nv_test::random_bytes(24, 2), chunk::whole_frame, 32, 32},
        {"small_text", nv_test::compressible_bytes(1000), chunk::whole_frame, 0, 0},
        // Longer than the first 16 KiB read: the reader completes the chunk from the file.
        {"just_under_256k", nv_test::random_bytes(256 * 1024 - 1, 3), chunk::whole_frame, 262151, 262176},
        {"exactly_256k", nv_test::random_bytes(256 * 1024, 4), chunk::first_block, 262148, 262176},
        {"random_300k", nv_test::random_bytes(300000, 5), chunk::first_block, 262148, 262176},
        // The first block shrinks below 16 KiB: plain blocks follow it inside the first read.
        {"text_1m", nv_test::compressible_bytes(1024 * 1024 + 17), chunk::first_block, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        nv_test::log_capture log;
        const fs::path dir = nv_test::fresh_dir(c.name);
        const fs::path source = dir / (std::string(c.name) + ".bin");
        const fs::path archive_path = dir / (std::string(c.name) + ".bin.0123456789ABCDEF.QUA");
        nv_test::write_file(source, c.content);
        const uint64_t before = now_ms();
        ASSERT_TRUE(NVFileArchive::NVFileArchive_archiveFile(source.string().c_str(), archive_path.string().c_str()));
        const uint64_t after = now_ms();
        EXPECT_TRUE(log.contains("Archiving : " + source.string() + " -> " + archive_path.string()));
        EXPECT_TRUE(log.contains("header size 7 bytes"));
        EXPECT_TRUE(log.contains("[NVFileArchive::NVFileArchive_archiveFile:"));
        EXPECT_TRUE(log.contains("Archiving : done"));

        const bytes archive = nv_test::read_file(archive_path);
        ASSERT_GE(archive.size(), 60u);
        const std::string path = source.string();
        const uint32_t data_offset = nv_test::u32_at(archive, 0);
        const uint32_t decrypt_length = nv_test::u32_at(archive, 8);
        const uint32_t encryption_length = nv_test::u32_at(archive, 12);
        EXPECT_EQ(61 + path.size(), data_offset);
        EXPECT_EQ(1u, nv_test::u32_at(archive, 4));
        EXPECT_EQ(1u, nv_test::u32_at(archive, 16));
        const uint64_t time = nv_test::u32_at(archive, 20) | (uint64_t{nv_test::u32_at(archive, 24)} << 32);
        EXPECT_LE(before, time);
        EXPECT_GE(after, time);
        ASSERT_GE(archive.size(), data_offset);
        EXPECT_EQ(path, std::string(reinterpret_cast<const char*>(archive.data() + 60)));
        EXPECT_EQ(0, archive[data_offset - 1]);
        EXPECT_EQ(0, memcmp(archive.data() + data_offset, "\x04\x22\x4d\x18", 4)) << "LZ4 frame magic";
        if (c.decrypt_length != 0) {
            EXPECT_EQ(c.decrypt_length, decrypt_length);
        }
        if (c.encryption_length != 0) {
            EXPECT_EQ(c.encryption_length, encryption_length);
        }
        EXPECT_EQ(0u, encryption_length % 32);
        EXPECT_EQ((decrypt_length + 31) / 32 * 32, encryption_length) << "no extra padding block";

        const bytes chunk = open_chunk(archive);
        ASSERT_EQ(decrypt_length, chunk.size());
        const size_t frame_end = data_offset + frame_header_size + encryption_length;
        if (c.holds == chunk::whole_frame) {
            // Everything, end mark included, is inside the encrypted chunk.
            EXPECT_EQ(frame_end, archive.size());
            EXPECT_EQ(0u, nv_test::u32_at(chunk, chunk.size() - 4)) << "end mark";
        } else {
            // The chunk is exactly the first block; plain frame data follows.
            EXPECT_EQ(decrypt_length, 4 + (nv_test::u32_at(chunk, 0) & 0x7fffffffu));
            EXPECT_GT(archive.size(), frame_end);
            EXPECT_EQ(0u, nv_test::u32_at(archive, archive.size() - 4)) << "plain end mark";
        }

        fs::remove(source);
        ASSERT_TRUE(NVFileArchive::NVFileArchive_restoreFile(archive_path.string().c_str()));
        EXPECT_EQ(c.content, nv_test::read_file(source));
        EXPECT_TRUE(log.contains("restoring : " + archive_path.string() + " -> " + path));
        EXPECT_TRUE(log.contains("restore : done"));
    }
}

TEST(file_archive, failed_archiving_leaves_what_was_at_the_archive_path) {
    nv_test::log_capture log;
    const fs::path dir = nv_test::fresh_dir("fail");
    const fs::path archive_path = dir / "a.QUA";
    const bytes earlier = nv_test::random_bytes(100, 7);
    nv_test::write_file(archive_path, earlier);
    const fs::path missing = dir / "missing.bin";
    EXPECT_FALSE(NVFileArchive::NVFileArchive_archiveFile(missing.string().c_str(), archive_path.string().c_str()));
    EXPECT_TRUE(log.contains("Failed to open the source file <" + missing.string() + ">"));
    // A directory cannot be opened (Windows) or read (elsewhere) as a source.
    const fs::path folder = dir / "folder";
    fs::create_directory(folder);
    EXPECT_FALSE(NVFileArchive::NVFileArchive_archiveFile(folder.string().c_str(), archive_path.string().c_str()));
    EXPECT_EQ(earlier, nv_test::read_file(archive_path));
    EXPECT_EQ((std::vector<std::string>{"a.QUA", "folder"}), nv_test::list_dir(dir));

    const fs::path source = dir / "s.bin";
    nv_test::write_file(source, nv_test::compressible_bytes(10));
    EXPECT_FALSE(NVFileArchive::NVFileArchive_archiveFile(source.string().c_str(),
                                                          (dir / "no_such_dir" / "s.QUA").string().c_str()));
    EXPECT_FALSE(log.contains("Archiving : " + source.string()));
    // A missing archive restores nothing, silently.
    EXPECT_FALSE(NVFileArchive::NVFileArchive_restoreFile((dir / "none.QUA").string().c_str()));
    EXPECT_FALSE(log.contains("NVFileArchive_restoreFile"));
}

// One way to damage a good archive, and the line its restore must log.
struct damage {
    const char* name;
    std::function<void(bytes&)> apply;
    const char* line;
    bool short_content = false;
};

TEST(file_archive, damaged_archives_fail_with_their_log_line_and_leave_the_existing_file) {
    const bytes long_content = nv_test::random_bytes(300000, 9);  // encrypted first block, plain rest
    const bytes short_content = nv_test::compressible_bytes(5000);  // the whole frame encrypted
    const bytes existing = nv_test::random_bytes(1234, 10);
    const auto frame = [](const bytes& a) { return nv_test::u32_at(a, 0); };
    const damage cases[] = {
        {"empty_file", [](bytes& a) { a.clear(); }, "Failed to read the archive header"},
        {"offset_inside_header", [](bytes& a) { nv_test::set_u32_at(a, 0, 60); }, "Invalid archive header: data offset 60"},
        {"offset_huge", [](bytes& a) { nv_test::set_u32_at(a, 0, 0xfffffff0u); }, "Invalid archive header: data offset"},
        {"path_unterminated", [&](bytes& a) { a[frame(a) - 1] = 'x'; }, "Invalid archive header: path not terminated"},
        {"chunk_length_past_end", [&](bytes& a) { a.resize(frame(a) + 7 + 100); },
         "Decompress: failed to read encrypted block"},
        {"chunk_length_over_cap", [](bytes& a) { nv_test::set_u32_at(a, 12, 0x7fffffe0u); }, "Invalid encrypted chunk"},
        {"chunk_byte_flipped", [&](bytes& a) { a[frame(a) + 7 + 5] ^= 1; }, "Decompression error"},
        {"short_chunk_byte_flipped", [](bytes& a) { a[a.size() - 40] ^= 0x80; }, "Decompression error", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        nv_test::log_capture log;
        const fs::path dir = nv_test::fresh_dir(c.name);
        const fs::path source = dir / "victim.bin";
        const fs::path archive_path = dir / "victim.QUA";
        nv_test::write_file(source, c.short_content ? short_content : long_content);
        ASSERT_TRUE(NVFileArchive::NVFileArchive_archiveFile(source.string().c_str(), archive_path.string().c_str()));
        nv_test::write_file(source, existing);
        bytes archive = nv_test::read_file(archive_path);
        c.apply(archive);
        nv_test::write_file(archive_path, archive);

        EXPECT_FALSE(NVFileArchive::NVFileArchive_restoreFile(archive_path.string().c_str()));
        EXPECT_TRUE(log.contains(c.line)) << log.text();
        EXPECT_FALSE(log.contains("restore : done"));
        EXPECT_EQ(existing, nv_test::read_file(source));
        EXPECT_EQ((std::vector<std::string>{"victim.QUA", "victim.bin"}), nv_test::list_dir(dir));
    }
}

}  // namespace
