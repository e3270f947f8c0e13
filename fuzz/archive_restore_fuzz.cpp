// Feeds arbitrary bytes to the restore path of quarantine archives: the header and path
// reader, then the decrypting LZ4 decoder, with the output discarded. Nothing is written to
// disk, whatever path the bytes record.
//
// Even inputs are whole archives as they lie on disk. Odd inputs are re-sealed first (a
// 4-byte plain chunk length, then an LZ4 frame whose first chunk the fuzzer encrypts with the
// archive key), so that the decoder behind the cipher is reached with meaningful frames.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "quarantine/archive_codec.h"
#include "quarantine/cipher.h"
#include "quarantine/file_archive.h"

namespace {

class discard_sink : public byte_sink {
public:
    bool write(const unsigned char*, size_t) override { return true; }
};

std::vector<unsigned char> seal(const uint8_t* data, size_t size) {
    std::vector<unsigned char> out;
    if (size < 4) return out;
    uint32_t plain_length = 0;
    memcpy(&plain_length, data, 4);
    data += 4;
    size -= 4;
    const size_t frame_header = size < 7 ? size : 7;
    plain_length = static_cast<uint32_t>(plain_length % (size - frame_header + 1));
    if (plain_length == 0) plain_length = static_cast<uint32_t>(size - frame_header);

    mcl::binary_t sealed;
    if (plain_length != 0) {
        mcl::binary_t key, chain;
        build_archive_key_material(key, chain);
        const mcl::binary_t plain(data + frame_header, plain_length);
        if (!mcl::enc::aes_encrypt(key, chain, plain, sealed)) return out;
    }
    archive_header header;
    header.data_offset = archive_header_size + 2;
    header.decrypt_length = plain_length;
    header.encryption_length = sealed.size();
    unsigned char bytes[archive_header_size];
    encode_archive_header(header, bytes);
    out.assign(bytes, bytes + archive_header_size);
    out.push_back('x');
    out.push_back(0);
    out.insert(out.end(), data, data + frame_header);
    out.insert(out.end(), sealed.data(), sealed.data() + sealed.size());
    out.insert(out.end(), data + frame_header + plain_length, data + size);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    std::vector<unsigned char> archive =
        (data[0] & 1) != 0 ? seal(data + 1, size - 1) : std::vector<unsigned char>(data + 1, data + size);
    if (archive.empty()) return 0;
    FILE* in = fmemopen(archive.data(), archive.size(), "rb");
    if (in == nullptr) return 0;
    archive_info info;
    if (NVFileArchive::read_archive_info(in, info)) {
        discard_sink sink;
        (void)decompress_file(in, sink, info.header);
    }
    fclose(in);
    return 0;
}
