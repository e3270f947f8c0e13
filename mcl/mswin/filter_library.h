// The Filter Manager's user-mode library, loaded from the system directory only, so that no
// fltlib.dll placed beside the service or in its current directory is ever loaded instead.
#pragma once

#include <windows.h>

#include <string>
#include "mcl/mswin/filter_port.h"

namespace filter_library {

using connect_fn = mcl::mswin::filter_connect_fn;
using send_fn = HRESULT(WINAPI*)(HANDLE port, LPVOID in, DWORD in_size, LPVOID out, DWORD out_size,
                                 LPDWORD bytes_returned);
using get_fn = HRESULT(WINAPI*)(HANDLE port, void* message_buffer, DWORD buffer_size, LPOVERLAPPED overlapped);
using attach_fn = HRESULT(WINAPI*)(LPCWSTR filter, LPCWSTR volume, LPCWSTR instance, DWORD created_size,
                                   LPWSTR created_name);
using detach_fn = HRESULT(WINAPI*)(LPCWSTR filter, LPCWSTR volume, LPCWSTR instance);
using load_fn = HRESULT(WINAPI*)(LPCWSTR filter);

// The entry points. A null member means the library or that export is missing; `load_error`
// then holds the HRESULT of the failure.
struct entry_points {
    connect_fn connect = nullptr;
    send_fn send = nullptr;
    get_fn get_message = nullptr;
    attach_fn attach = nullptr;
    detach_fn detach = nullptr;
    load_fn load = nullptr;
    load_fn unload = nullptr;
    HRESULT load_error = S_OK;
};

// Loads the library once per process (thread-safe) and keeps it loaded until the process ends.
const entry_points& get();

// The text of a Filter Manager or Win32 HRESULT for log lines: the system's message, else the
// library's own, else "Could not translate error: <code>". Any thread.
std::wstring error_text(HRESULT hr);

}  // namespace filter_library
