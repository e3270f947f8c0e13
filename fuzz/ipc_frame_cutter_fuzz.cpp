// Feeds arbitrary bytes to the frame cutter in pieces whose sizes come from the input itself,
// and checks that every frame cut is whole and that no byte is lost or invented.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "mcl/ipc/frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > UINT32_MAX) return 0;
    const uint32_t piece = 1 + data[0] % 64;
    mcl::frame_cutter cutter;
    std::vector<mcl::binary_t> frames;
    uint64_t cut_bytes = 0;
    uint32_t fed = 0;
    for (size_t at = 1; at < size; at += piece) {
        const uint32_t n = static_cast<uint32_t>(size - at < piece ? size - at : piece);
        cutter.append(data + at, n);
        fed += n;
        frames.clear();
        if (cutter.cut(frames) == mcl::frame_cutter::result::too_long) {
            if (cutter.rejected_length() <= mcl::max_frame_payload) __builtin_trap();
            return 0;
        }
        for (const auto& f : frames) {
            mcl::frame_header h;
            if (!mcl::read_frame_header(f, h) || mcl::frame_size(h.length) != f.size()) __builtin_trap();
            cut_bytes += f.size();
        }
        if (cut_bytes + cutter.pending() != fed) __builtin_trap();
    }
    return 0;
}
