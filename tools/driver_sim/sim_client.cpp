#include "tools/driver_sim/sim_client.h"

#include <vector>

#include "mcl/encoding.h"
#include "tools/driver_sim/sim_channel.h"

namespace vqr::sim {

using mcl::mswin::unique_kernel_handle;

DWORD open_channel(unique_kernel_handle& pipe) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        pipe.reset(CreateFileW(pipe_name, GENERIC_READ | GENERIC_WRITE, /*share=*/0, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED, nullptr));
        if (pipe) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            if (!SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr)) return GetLastError();
            return ERROR_SUCCESS;
        }
        const DWORD err = GetLastError();
        if (err != ERROR_PIPE_BUSY) return err == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : err;
        WaitNamedPipeW(pipe_name, 1000);
    }
    return ERROR_PIPE_BUSY;
}

DWORD finish_io(HANDLE pipe, BOOL started, OVERLAPPED& ov, DWORD& bytes, DWORD timeout_ms) {
    bytes = 0;
    if (!started) {
        const DWORD err = GetLastError();
        // A read of a message longer than the buffer that completed at once: the bytes it did
        // read count, and are in the overlapped result like those of a read that pended.
        if (err == ERROR_MORE_DATA) {
            (void)GetOverlappedResult(pipe, &ov, &bytes, /*wait=*/FALSE);
            return ERROR_MORE_DATA;
        }
        if (err != ERROR_IO_PENDING) return err;
        if (timeout_ms != INFINITE && WaitForSingleObject(ov.hEvent, timeout_ms) != WAIT_OBJECT_0) {
            CancelIoEx(pipe, &ov);
            (void)GetOverlappedResult(pipe, &ov, &bytes, /*wait=*/TRUE);
            bytes = 0;
            return ERROR_TIMEOUT;
        }
    }
    return GetOverlappedResult(pipe, &ov, &bytes, /*wait=*/TRUE) ? ERROR_SUCCESS : GetLastError();
}

DWORD exchange(HANDLE pipe, const mcl::binary_t& request, mcl::binary_t& answer, uint32_t longest, DWORD timeout_ms) {
    unique_kernel_handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!done) return GetLastError();
    OVERLAPPED ov{};
    ov.hEvent = done.get();
    DWORD bytes = 0;
    DWORD err = finish_io(pipe, WriteFile(pipe, request.data(), request.size(), nullptr, &ov), ov, bytes);
    if (err != ERROR_SUCCESS) return err;
    // One answer is one pipe message, read a buffer at a time while the system says more is left.
    std::vector<uint8_t> in;
    size_t have = 0;
    do {
        if (have >= longest) return ERROR_INVALID_DATA;
        in.resize(have + max_message);
        ov = OVERLAPPED{};
        ov.hEvent = done.get();
        err = finish_io(pipe, ReadFile(pipe, in.data() + have, max_message, nullptr, &ov), ov, bytes, timeout_ms);
        have += bytes;
    } while (err == ERROR_MORE_DATA);
    if (err != ERROR_SUCCESS) return err;
    answer.assign(in.data(), static_cast<uint32_t>(have));
    return ERROR_SUCCESS;
}

mcl::binary_t inject_request(uint32_t type, uint8_t major, uint8_t minor, uint32_t pid, const std::wstring& file) {
    mcl::binary_t request;
    mcl::write_u32(request, op::inject);
    mcl::write_u32(request, type);
    mcl::write_byte(request, major);
    mcl::write_byte(request, minor);
    mcl::write_u32(request, pid);
    mcl::write_wstring(request, file);
    return request;
}

bool read_inject_answer(const mcl::binary_t& answer, uint32_t& hr, uint32_t& delivered) {
    uint32_t pos = 0;
    return mcl::read_u32(hr, answer, pos) && mcl::read_u32(delivered, answer, pos);
}

}  // namespace vqr::sim
