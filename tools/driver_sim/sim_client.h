// The client end of the simulator's private pipe, shared by our fltlib.dll, driver_ctl and the
// benchmarks and tests that talk to the simulator directly.
// Handles are opened for overlapped I/O, as Windows opens a communication port, so that every
// wait on them ends only by completion or by CancelIoEx on the handle.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "mcl/buffer.h"
#include "mcl/mswin/unique_handle.h"
#include "tools/driver_sim/sim_channel.h"

namespace vqr::sim {

// Opens a pipe instance to the simulator, waiting while every instance is busy. Returns
// ERROR_SUCCESS or the Win32 error (ERROR_FILE_NOT_FOUND when no simulator serves).
DWORD open_channel(mcl::mswin::unique_kernel_handle& pipe);

// Finishes one overlapped operation on `pipe` that returned `started`: waits for it when it is
// pending. Returns ERROR_SUCCESS or the operation's Win32 error (ERROR_MORE_DATA included).
// With `timeout_ms`, an operation still pending then is cancelled and ends with ERROR_TIMEOUT.
DWORD finish_io(HANDLE pipe, BOOL started, OVERLAPPED& ov, DWORD& bytes, DWORD timeout_ms = INFINITE);

// Writes `request` as one message and reads the one message that answers it into `answer`.
// The caller keeps other requests on `pipe` out meanwhile. Returns ERROR_SUCCESS or the Win32 error.
// `longest`: the longest answer taken; a longer one fails with ERROR_INVALID_DATA. The port
// operations' answers fit one pipe buffer; the control reports (state, journal) grow with the run.
// `timeout_ms` bounds the wait for the answer (ERROR_TIMEOUT when it has not come).
DWORD exchange(HANDLE pipe, const mcl::binary_t& request, mcl::binary_t& answer, uint32_t longest = max_message,
               DWORD timeout_ms = INFINITE);

// The inject control's request: one IRP-denied notification with these fields.
mcl::binary_t inject_request(uint32_t type, uint8_t major, uint8_t minor, uint32_t pid, const std::wstring& file);
// The answer to an inject control (op::inject, op::inject_raw): the simulator's result and how
// many notification ports got the notification; false when it does not hold both.
bool read_inject_answer(const mcl::binary_t& answer, uint32_t& hr, uint32_t& delivered);

}  // namespace vqr::sim
