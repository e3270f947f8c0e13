// Our fltlib.dll: the Filter Manager user-mode calls that the service makes, answered by the
// driver simulator (tools/driver_sim) over the private pipe of sim_channel.h instead of by
// the kernel. Signatures, calling conventions and HRESULTs are Windows' own, and so are the
// refusals, so that code which is wrong on Windows fails here too:
//   - a port nobody serves (simulator absent, driver unloaded, unknown name) answers
//     HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND); a second connection to a port that allows one
//     answers HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT);
//   - the port handle is the pipe to the simulator, opened for overlapped I/O as Windows opens
//     a port for options 0, and is closed with CloseHandle; a send or a wait after the driver
//     went away answers 0x80070006;
//   - a blocking FilterGetMessage is an overlapped read waited on inside the call: only
//     CancelIoEx on the port ends it (HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED)),
//     CancelSynchronousIo finds nothing to cancel;
//   - an overlapped FilterGetMessage is a read on the caller's OVERLAPPED (hEvent may be NULL):
//     S_OK when a message was already queued, else HRESULT_FROM_WIN32(ERROR_IO_PENDING);
//     CancelIoEx(port, NULL or that OVERLAPPED) cancels it. Its buffer must hold the whole
//     message (a notification is 552 bytes);
//   - FilterSendMessage needs its input buffer and lpBytesReturned (E_INVALIDARG without them)
//     and refuses a message above max_send_size with E_INVALIDARG;
//   - FilterLoad, FilterUnload, FilterAttach and FilterDetach need SeLoadDriverPrivilege enabled
//     in the caller's token (HRESULT_FROM_WIN32(ERROR_PRIVILEGE_NOT_HELD) without it);
//   - the message buffer starts with FILTER_MESSAGE_HEADER.
#include <windows.h>

#include <fltuser.h>

#include "mcl/encoding.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "tools/driver_sim/sim_channel.h"
#include "tools/driver_sim/sim_client.h"

namespace {

using mcl::mswin::unique_kernel_handle;
namespace op = vqr::sim::op;

// One lock for the port handles of the whole process: a request and its answer on a handle
// must not interleave with another thread's on the same handle.
SRWLOCK g_transact_lock = SRWLOCK_INIT;

HRESULT hr_from_pipe_error(DWORD err) {
    switch (err) {
        case ERROR_SUCCESS:
            return S_OK;
        case ERROR_OPERATION_ABORTED:
            return HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED);
        case ERROR_MORE_DATA:
            return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
        case ERROR_BROKEN_PIPE:
        case ERROR_NO_DATA:
        case ERROR_PIPE_NOT_CONNECTED:
        case ERROR_INVALID_HANDLE:
            return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);  // the driver went away
        default:
            return HRESULT_FROM_WIN32(err);
    }
}

// One request and its answer on `pipe`; the answer's leading HRESULT is returned, the rest is
// left in `answer` from `pos` on.
HRESULT transact(HANDLE pipe, const mcl::binary_t& request, mcl::binary_t& answer, uint32_t& pos,
                 DWORD timeout_ms = INFINITE) {
    AcquireSRWLockExclusive(&g_transact_lock);
    const DWORD err = vqr::sim::exchange(pipe, request, answer, vqr::sim::max_message, timeout_ms);
    ReleaseSRWLockExclusive(&g_transact_lock);
    if (err != ERROR_SUCCESS) return hr_from_pipe_error(err);
    pos = 0;
    uint32_t result = 0;
    if (!mcl::read_u32(result, answer, pos)) return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    return static_cast<HRESULT>(result);
}

// A one-shot request on a fresh pipe (FilterLoad, FilterAttach ...).
HRESULT call(const mcl::binary_t& request, mcl::binary_t& answer, uint32_t& pos) {
    unique_kernel_handle pipe;
    const DWORD err = vqr::sim::open_channel(pipe);
    if (err != ERROR_SUCCESS) return HRESULT_FROM_WIN32(err);
    return transact(pipe.get(), request, answer, pos);
}

// Whether the calling thread's token (else the process token) has SeLoadDriverPrivilege enabled.
bool load_driver_privilege_enabled() {
    unique_kernel_handle token;
    if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, /*open_as_self=*/TRUE, token.put()) &&
        !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return false;
    PRIVILEGE_SET needed{};
    needed.PrivilegeCount = 1;
    needed.Control = PRIVILEGE_SET_ALL_NECESSARY;
    needed.Privilege[0].Attributes = SE_PRIVILEGE_ENABLED;
    if (!LookupPrivilegeValueW(nullptr, L"SeLoadDriverPrivilege", &needed.Privilege[0].Luid)) return false;
    BOOL held = FALSE;
    return PrivilegeCheck(token.get(), &needed, &held) && held;
}

std::wstring or_empty(LPCWSTR s) { return s ? std::wstring(s) : std::wstring(); }

// An attach or detach: the filter, the volume and the instance name (empty for none).
mcl::binary_t volume_request(uint32_t operation, LPCWSTR filter, LPCWSTR volume, LPCWSTR instance) {
    mcl::binary_t request;
    mcl::write_u32(request, operation);
    mcl::write_wstring(request, filter);
    mcl::write_wstring(request, volume);
    mcl::write_wstring(request, or_empty(instance));
    return request;
}

HRESULT filter_call(uint32_t operation, LPCWSTR filter) {
    if (filter == nullptr || *filter == L'\0') return E_INVALIDARG;
    if (!load_driver_privilege_enabled()) return HRESULT_FROM_WIN32(ERROR_PRIVILEGE_NOT_HELD);
    mcl::binary_t request, answer;
    mcl::write_u32(request, operation);
    mcl::write_wstring(request, filter);
    uint32_t pos = 0;
    return call(request, answer, pos);
}

// Reads what is left of a message that did not fit the caller's buffer, so that the next
// wait starts at the next message.
void discard_rest_of_message(HANDLE port) {
    unique_kernel_handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    uint8_t scrap[4096];
    DWORD err = ERROR_MORE_DATA;
    while (done && err == ERROR_MORE_DATA) {
        OVERLAPPED ov{};
        ov.hEvent = done.get();
        DWORD bytes = 0;
        err = vqr::sim::finish_io(port, ReadFile(port, scrap, sizeof scrap, nullptr, &ov), ov, bytes);
    }
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD /*dwOptions*/, LPCVOID /*lpContext*/,
                                              WORD /*wSizeOfContext*/, LPSECURITY_ATTRIBUTES /*lpSecurityAttributes*/,
                                              HANDLE* hPort) {
    if (hPort == nullptr || lpPortName == nullptr) return E_INVALIDARG;
    *hPort = INVALID_HANDLE_VALUE;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::connect);
    mcl::write_wstring(request, lpPortName);
    // Under a heavily loaded Wine, a connect to the simulator's private pipe was seen to go
    // unanswered for good. The simulator answers a connect at once, so one that has waited
    // connect_answer_ms is given up and made again on a fresh pipe instance.
    constexpr DWORD connect_answer_ms = 15000;
    unique_kernel_handle pipe;
    HRESULT hr = HRESULT_FROM_WIN32(ERROR_TIMEOUT);
    for (int attempt = 0; attempt < 2 && hr == HRESULT_FROM_WIN32(ERROR_TIMEOUT); ++attempt) {
        const DWORD err = vqr::sim::open_channel(pipe);
        if (err != ERROR_SUCCESS) return HRESULT_FROM_WIN32(err);
        uint32_t pos = 0;
        hr = transact(pipe.get(), request, answer, pos, connect_answer_ms);
    }
    if (FAILED(hr)) return hr == HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE) ? HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) : hr;
    *hPort = pipe.release();
    return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID /*lpOutBuffer*/,
                                 DWORD /*dwOutBufferSize*/, LPDWORD lpBytesReturned) {
    if (lpBytesReturned == nullptr || lpInBuffer == nullptr) return E_INVALIDARG;
    *lpBytesReturned = 0;  // the driver never returns data
    if (dwInBufferSize > vqr::sim::max_send_size) return E_INVALIDARG;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::send);
    request.append(static_cast<const uint8_t*>(lpInBuffer), dwInBufferSize);
    uint32_t pos = 0;
    return transact(hPort, request, answer, pos);
}

HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped) {
    if (lpMessageBuffer == nullptr || dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) return E_INVALIDARG;
    if (lpOverlapped != nullptr) {
        // The caller's OVERLAPPED carries the read itself: the system resets and sets its event
        // (or the port handle when hEvent is NULL) and fills it, and CancelIoEx finds it.
        if (ReadFile(hPort, lpMessageBuffer, dwMessageBufferSize, nullptr, lpOverlapped)) return S_OK;
        const DWORD err = GetLastError();
        return err == ERROR_IO_PENDING ? HRESULT_FROM_WIN32(ERROR_IO_PENDING) : hr_from_pipe_error(err);
    }
    unique_kernel_handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!done) return HRESULT_FROM_WIN32(GetLastError());
    OVERLAPPED ov{};
    ov.hEvent = done.get();
    DWORD bytes = 0;
    const DWORD err =
        vqr::sim::finish_io(hPort, ReadFile(hPort, lpMessageBuffer, dwMessageBufferSize, nullptr, &ov), ov, bytes);
    if (err == ERROR_MORE_DATA) discard_rest_of_message(hPort);
    return hr_from_pipe_error(err);
}

HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize) {
    if (lpReplyBuffer == nullptr) return E_INVALIDARG;
    if (dwReplyBufferSize > vqr::sim::max_send_size) return E_INVALIDARG;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::reply);
    request.append(reinterpret_cast<const uint8_t*>(lpReplyBuffer), dwReplyBufferSize);
    uint32_t pos = 0;
    return transact(hPort, request, answer, pos);
}

HRESULT WINAPI FilterLoad(LPCWSTR lpFilterName) { return filter_call(op::filter_load, lpFilterName); }

HRESULT WINAPI FilterUnload(LPCWSTR lpFilterName) { return filter_call(op::filter_unload, lpFilterName); }

HRESULT WINAPI FilterAttach(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName,
                            DWORD dwCreatedInstanceNameLength, LPWSTR lpCreatedInstanceName) {
    if (lpFilterName == nullptr || lpVolumeName == nullptr) return E_INVALIDARG;
    if (!load_driver_privilege_enabled()) return HRESULT_FROM_WIN32(ERROR_PRIVILEGE_NOT_HELD);
    mcl::binary_t answer;
    uint32_t pos = 0;
    const HRESULT hr = call(volume_request(op::filter_attach, lpFilterName, lpVolumeName, lpInstanceName), answer, pos);
    if (FAILED(hr) || lpCreatedInstanceName == nullptr) return hr;
    std::wstring created;
    if (!mcl::read_wstring(created, answer, pos)) return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    // The length is in bytes, terminator included.
    if ((created.size() + 1) * sizeof(wchar_t) > dwCreatedInstanceNameLength) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    memcpy(lpCreatedInstanceName, created.c_str(), (created.size() + 1) * sizeof(wchar_t));
    return hr;
}

HRESULT WINAPI FilterDetach(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName) {
    if (lpFilterName == nullptr || lpVolumeName == nullptr) return E_INVALIDARG;
    if (!load_driver_privilege_enabled()) return HRESULT_FROM_WIN32(ERROR_PRIVILEGE_NOT_HELD);
    mcl::binary_t answer;
    uint32_t pos = 0;
    return call(volume_request(op::filter_detach, lpFilterName, lpVolumeName, lpInstanceName), answer, pos);
}

}  // extern "C"
