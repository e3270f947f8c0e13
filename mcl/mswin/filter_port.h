// Connecting to a minifilter's communication port through the Filter Manager library's
// FilterConnectCommunicationPort, loaded by the caller. Any thread.
#pragma once

#include <windows.h>

#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

using filter_connect_fn = HRESULT(WINAPI*)(LPCWSTR port_name, DWORD options, LPCVOID context, WORD context_size,
                                           LPSECURITY_ATTRIBUTES security, HANDLE* port);

struct filter_port {
    unique_kernel_handle handle;  // valid when hr succeeded
    HRESULT hr = E_FAIL;
};

// `connect`(name, no options, no context, default security). Without `connect` (the library or
// its export is missing), nothing is called and hr is `load_error` when that is a failure, else
// HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND).
filter_port connect_filter_port(filter_connect_fn connect, HRESULT load_error, const wchar_t* name);

}  // namespace mcl::mswin
