// Archives decoded by independent tools from Debian: libmcrypt's rijndael-256 for the cipher,
// the lz4 command for the frame, sha256sum for the recorded digest.
#include <gtest/gtest.h>

#include <mcrypt.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "quarantine/file_archive.h"
#include "tests/unit/quarantine/archive_test_support.h"

namespace {

using nv_test::bytes;
namespace fs = std::filesystem;

// Decrypts `data` in place with libmcrypt's rijndael-256 in CBC mode.
void mcrypt_decrypt(const bytes& key, const bytes& chain, bytes& data) {
    MCRYPT module = mcrypt_module_open(const_cast<char*>("rijndael-256"), nullptr, const_cast<char*>("cbc"), nullptr);
    ASSERT_TRUE(module != MCRYPT_FAILED);
    bytes k = key;
    bytes iv = chain;
    ASSERT_EQ(0, mcrypt_generic_init(module, k.data(), 32, iv.data()));
    ASSERT_EQ(0, mdecrypt_generic(module, data.data(), static_cast<int>(data.size())));
    mcrypt_generic_deinit(module);
    mcrypt_module_close(module);
}

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), pipe)) > 0) out.append(buf, n);
    pclose(pipe);
    return out;
}

std::string hex(const unsigned char* p, size_t n) {
    std::string s;
    char two[3];
    for (size_t i = 0; i < n; ++i) {
        snprintf(two, sizeof(two), "%02x", p[i]);
        s += two;
    }
    return s;
}

TEST(crosscheck, lz4_command_decodes_the_frame_and_sha256sum_matches_the_header) {
    struct {
        const char* name;
        bytes content;
    } const cases[] = {
        {"empty", {}},
        {"random_under_256k", nv_test::random_bytes(200000, 11)},
        {"random_over_256k", nv_test::random_bytes(700000, 12)},
        {"text_over_256k", nv_test::compressible_bytes(2 * 1024 * 1024 + 5)},
    };
    bytes key;
    bytes chain;
    nv_test::archive_key_and_chain(key, chain);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path dir = nv_test::fresh_dir(c.name);
        const fs::path source = dir / "content.bin";
        const fs::path archive_path = dir / "content.QUA";
        nv_test::write_file(source, c.content);
        ASSERT_TRUE(NVFileArchive::NVFileArchive_archiveFile(source.string().c_str(), archive_path.string().c_str()));
        const bytes archive = nv_test::read_file(archive_path);

        const std::string sum = run("sha256sum '" + source.string() + "'");
        EXPECT_EQ(sum.substr(0, 64), hex(archive.data() + 28, 32));

        // Replace the encrypted chunk by its plain bytes: the result is an ordinary LZ4 frame.
        const uint32_t offset = nv_test::u32_at(archive, 0);
        const uint32_t plain_length = nv_test::u32_at(archive, 8);
        const uint32_t stored = nv_test::u32_at(archive, 12);
        bytes chunk(archive.begin() + offset + 7, archive.begin() + offset + 7 + stored);
        mcrypt_decrypt(key, chain, chunk);
        bytes frame(archive.begin() + offset, archive.begin() + offset + 7);
        frame.insert(frame.end(), chunk.begin(), chunk.begin() + plain_length);
        frame.insert(frame.end(), archive.begin() + offset + 7 + stored, archive.end());
        const fs::path frame_path = dir / "frame.lz4";
        const fs::path decoded_path = dir / "decoded.bin";
        nv_test::write_file(frame_path, frame);
        const std::string command = "lz4 -q -d -f '" + frame_path.string() + "' '" + decoded_path.string() + "'";
        ASSERT_EQ(0, std::system(command.c_str()));
        EXPECT_EQ(c.content, nv_test::read_file(decoded_path));
        const std::string info = run("lz4 -v --list '" + frame_path.string() + "' 2>&1");
        EXPECT_NE(std::string::npos, info.find("B5D")) << info;  // 256 KiB linked blocks, no checksum
    }
}

}  // namespace
