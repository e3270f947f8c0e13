// Our fltlib.dll: the Filter Manager user-mode calls that the service makes, answered by the
// driver simulator (tools/driver_sim) over the private pipe of sim_channel.h instead of by
// the kernel. Signatures, calling conventions and HRESULTs are Windows' own:
//   - a port nobody serves (simulator absent, driver unloaded, unknown name) answers
//     HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
//   - the port handle is the pipe to the simulator and is closed with CloseHandle; a send or
//     a wait after the driver went away answers 0x80070006;
//   - a blocking FilterGetMessage cancelled with CancelSynchronousIo or CancelIoEx answers
//     HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED);
//   - the message buffer starts with FILTER_MESSAGE_HEADER.
// An overlapped FilterGetMessage completes through a worker thread that fills the OVERLAPPED
// and sets its event (hEvent must be set; completion ports are not supported); cancel it
// with CancelIoEx(port, NULL).
#include <windows.h>

#include <fltuser.h>

#include <vector>

#include "mcl/encoding.h"
#include "mcl/mswin/unique_handle.h"
#include "service/driver_protocol.h"
#include "tools/driver_sim/sim_channel.h"

namespace {

using mcl::mswin::unique_kernel_handle;
namespace op = vqr::sim::op;

// Requests and answers on one port handle must not interleave between threads.
SRWLOCK g_transact_lock = SRWLOCK_INIT;

HRESULT hr_from_pipe_error(DWORD err) {
    switch (err) {
        case ERROR_OPERATION_ABORTED:
            return HRESULT_FROM_WIN32(ERROR_OPERATION_ABORTED);
        case ERROR_BROKEN_PIPE:
        case ERROR_NO_DATA:
        case ERROR_PIPE_NOT_CONNECTED:
        case ERROR_INVALID_HANDLE:
            return HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE);  // the driver went away
        default:
            return HRESULT_FROM_WIN32(err);
    }
}

HRESULT open_channel(unique_kernel_handle& pipe) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        pipe.reset(CreateFileW(vqr::sim::pipe_name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                               /*flags=*/0, nullptr));
        if (pipe) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            if (!SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr)) return HRESULT_FROM_WIN32(GetLastError());
            return S_OK;
        }
        const DWORD err = GetLastError();
        if (err != ERROR_PIPE_BUSY) return HRESULT_FROM_WIN32(err == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : err);
        WaitNamedPipeW(vqr::sim::pipe_name, 1000);
    }
    return HRESULT_FROM_WIN32(ERROR_PIPE_BUSY);
}

// Reads one whole message into `in`; ERROR_MORE_DATA parts are gathered.
HRESULT read_message(HANDLE pipe, std::vector<uint8_t>& in) {
    in.resize(vqr::sim::max_message);
    DWORD bytes = 0;
    if (!ReadFile(pipe, in.data(), static_cast<DWORD>(in.size()), &bytes, nullptr)) {
        const DWORD err = GetLastError();
        if (err != ERROR_MORE_DATA) return hr_from_pipe_error(err);
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    }
    in.resize(bytes);
    return S_OK;
}

// One request and its answer on `pipe`; the answer's leading HRESULT is returned, the rest is
// left in `answer` from `pos` on.
HRESULT transact(HANDLE pipe, const mcl::binary_t& request, mcl::binary_t& answer, uint32_t& pos) {
    AcquireSRWLockExclusive(&g_transact_lock);
    std::vector<uint8_t> in;
    DWORD written = 0;
    HRESULT hr = S_OK;
    if (!WriteFile(pipe, request.data(), request.size(), &written, nullptr)) {
        hr = hr_from_pipe_error(GetLastError());
    } else {
        hr = read_message(pipe, in);
    }
    ReleaseSRWLockExclusive(&g_transact_lock);
    if (FAILED(hr)) return hr;
    answer.assign(in.data(), static_cast<uint32_t>(in.size()));
    pos = 0;
    uint32_t result = 0;
    if (!mcl::read_u32(result, answer, pos)) return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    return static_cast<HRESULT>(result);
}

// A one-shot request on a fresh pipe (FilterLoad, FilterAttach ...).
HRESULT call(const mcl::binary_t& request, mcl::binary_t& answer, uint32_t& pos) {
    unique_kernel_handle pipe;
    const HRESULT hr = open_channel(pipe);
    if (FAILED(hr)) return hr;
    return transact(pipe.get(), request, answer, pos);
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

// Waits for one notification and copies it into the caller's buffer.
HRESULT receive(HANDLE port, PFILTER_MESSAGE_HEADER buffer, DWORD size, DWORD& copied) {
    copied = 0;
    std::vector<uint8_t> in;
    const HRESULT hr = read_message(port, in);
    if (FAILED(hr)) return hr;
    copied = static_cast<DWORD>(in.size() < size ? in.size() : size);
    memcpy(buffer, in.data(), copied);
    return in.size() > size ? HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER) : S_OK;
}

struct overlapped_get {
    HANDLE port;
    PFILTER_MESSAGE_HEADER buffer;
    DWORD size;
    LPOVERLAPPED overlapped;
};

// What GetOverlappedResult turns back into the Win32 error of the failed wait.
NTSTATUS status_from_hr(HRESULT hr) {
    if (hr == S_OK) return 0;
    if (hr == vqr::hr_aborted) return static_cast<NTSTATUS>(0xC0000120);  // STATUS_CANCELLED
    if (hr == HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER)) return static_cast<NTSTATUS>(0xC0000023);
    return static_cast<NTSTATUS>(0xC0000008);  // STATUS_INVALID_HANDLE: the driver went away
}

DWORD WINAPI overlapped_get_thread(LPVOID param) {
    overlapped_get* job = static_cast<overlapped_get*>(param);
    DWORD copied = 0;
    const HRESULT hr = receive(job->port, job->buffer, job->size, copied);
    job->overlapped->InternalHigh = copied;
    InterlockedExchange(reinterpret_cast<volatile LONG*>(&job->overlapped->Internal), status_from_hr(hr));
    if (job->overlapped->hEvent) SetEvent(job->overlapped->hEvent);
    delete job;
    return 0;
}

}  // namespace

extern "C" {

HRESULT WINAPI FilterConnectCommunicationPort(LPCWSTR lpPortName, DWORD /*dwOptions*/, LPCVOID /*lpContext*/,
                                              WORD /*wSizeOfContext*/, LPSECURITY_ATTRIBUTES /*lpSecurityAttributes*/,
                                              HANDLE* hPort) {
    if (hPort == nullptr || lpPortName == nullptr) return E_INVALIDARG;
    *hPort = INVALID_HANDLE_VALUE;
    unique_kernel_handle pipe;
    HRESULT hr = open_channel(pipe);
    if (FAILED(hr)) return hr;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::connect);
    mcl::write_wstring(request, lpPortName);
    uint32_t pos = 0;
    hr = transact(pipe.get(), request, answer, pos);
    if (FAILED(hr)) return hr == HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE) ? HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) : hr;
    *hPort = pipe.release();
    return S_OK;
}

HRESULT WINAPI FilterSendMessage(HANDLE hPort, LPVOID lpInBuffer, DWORD dwInBufferSize, LPVOID /*lpOutBuffer*/,
                                 DWORD /*dwOutBufferSize*/, LPDWORD lpBytesReturned) {
    if (lpBytesReturned) *lpBytesReturned = 0;  // the driver never returns data
    if (lpInBuffer == nullptr && dwInBufferSize != 0) return E_INVALIDARG;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::send);
    request.append(static_cast<const uint8_t*>(lpInBuffer), dwInBufferSize);
    uint32_t pos = 0;
    return transact(hPort, request, answer, pos);
}

HRESULT WINAPI FilterGetMessage(HANDLE hPort, PFILTER_MESSAGE_HEADER lpMessageBuffer, DWORD dwMessageBufferSize,
                                LPOVERLAPPED lpOverlapped) {
    if (lpMessageBuffer == nullptr || dwMessageBufferSize < sizeof(FILTER_MESSAGE_HEADER)) return E_INVALIDARG;
    if (lpOverlapped == nullptr) {
        DWORD copied = 0;
        return receive(hPort, lpMessageBuffer, dwMessageBufferSize, copied);
    }
    if (lpOverlapped->hEvent == nullptr) return E_INVALIDARG;
    auto* job = new overlapped_get{hPort, lpMessageBuffer, dwMessageBufferSize, lpOverlapped};
    lpOverlapped->Internal = static_cast<ULONG_PTR>(0x103);  // STATUS_PENDING
    lpOverlapped->InternalHigh = 0;
    ResetEvent(lpOverlapped->hEvent);
    unique_kernel_handle worker(CreateThread(nullptr, 0, overlapped_get_thread, job, 0, nullptr));
    if (!worker) {
        const DWORD err = GetLastError();
        delete job;
        return HRESULT_FROM_WIN32(err);
    }
    return HRESULT_FROM_WIN32(ERROR_IO_PENDING);
}

HRESULT WINAPI FilterReplyMessage(HANDLE hPort, PFILTER_REPLY_HEADER lpReplyBuffer, DWORD dwReplyBufferSize) {
    if (lpReplyBuffer == nullptr) return E_INVALIDARG;
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::reply);
    request.append(reinterpret_cast<const uint8_t*>(lpReplyBuffer), dwReplyBufferSize);
    uint32_t pos = 0;
    return transact(hPort, request, answer, pos);
}

HRESULT WINAPI FilterLoad(LPCWSTR lpFilterName) {
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::filter_load);
    mcl::write_wstring(request, or_empty(lpFilterName));
    uint32_t pos = 0;
    return call(request, answer, pos);
}

HRESULT WINAPI FilterUnload(LPCWSTR lpFilterName) {
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::filter_unload);
    mcl::write_wstring(request, or_empty(lpFilterName));
    uint32_t pos = 0;
    return call(request, answer, pos);
}

HRESULT WINAPI FilterAttach(LPCWSTR lpFilterName, LPCWSTR lpVolumeName, LPCWSTR lpInstanceName,
                            DWORD dwCreatedInstanceNameLength, LPWSTR lpCreatedInstanceName) {
    if (lpFilterName == nullptr || lpVolumeName == nullptr) return E_INVALIDARG;
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
    mcl::binary_t answer;
    uint32_t pos = 0;
    return call(volume_request(op::filter_detach, lpFilterName, lpVolumeName, lpInstanceName), answer, pos);
}

}  // extern "C"
