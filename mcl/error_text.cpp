#include "mcl/error_text.h"

#include <windows.h>

#include <algorithm>
#include <iterator>

namespace mcl {

namespace {

struct known_error {
    unsigned long code;
    const char* text;
};

constexpr known_error known_errors[] = {
    {31, "General failure (ERROR_GEN_FAILURE)"},
    {996, "I/O Operation in progress (WSA_IO_INCOMPLETE)"},
    {997, "I/O Operation in progress (ERROR_IO_PENDING)"},
    {10004, "Interrupted system call (WSAEINTR)"},
    {10009, "Bad file number (WSAEBADF)"},
    {10013, "Permission denied (WSAEACCES)"},
    {10014, "Bad address (WSAEFAULT)"},
    {10022, "Invalid argument (WSAEINVAL)"},
    {10024, "Too many open files (WSAEMFILE)"},
    {10035, "Operation would block (WSAEWOULDBLOCK)"},
    {10036, "Operation now in progress (WSAEINPROGRESS)"},
    {10037, "Operation already in progress (WSAEALREADY)"},
    {10039, "Destination address required (WSAEDESTADDRREQ)"},
    {10040, "Message too long (WSAEMSGSIZE)"},
    {10041, "Protocol wrong type for socket (WSAEPROTOTYPE)"},
    {10042, "Bad protocol option (WSAENOPROTOOPT)"},
    {10043, "Protocol not supported (WSAEPROTONOSUPPORT)"},
    {10044, "Socket type not supported (WSAESOCKTNOSUPPORT)"},
    {10045, "Operation not supported on socket (WSAEOPNOTSUPP)"},
    {10046, "Protocol family not supported (WSAEPFNOSUPPORT)"},
    {10047, "Address family not supported by protocol family (WSAEAFNOSUPPORT)"},
    {10048, "Address already in use (WSAEADDRINUSE)"},
    {10050, "Network is down (WSAENETDOWN)"},
    {10051, "Network is unreachable (WSAENETUNREACH)"},
    {10052, "Net dropped connection or reset (WSAENETRESET)"},
    {10053, "Software caused connection abort (WSAECONNABORTED)"},
    {10054, "Connection reset by peer (WSAECONNRESET)"},
    {10055, "No buffer space available (WSAENOBUFS)"},
    {10056, "Socket is already connected (WSAEISCONN)"},
    {10057, "Socket is not connected (WSAENOTCONN)"},
    {10060, "Connection timed out (WSAETIMEDOUT)"},
    {10061, "Connection refused (WSAECONNREFUSED)"},
    {10062, "Too many levels of symbolic links (WSAELOOP)"},
    {10063, "File name too long (WSAENAMETOOLONG)"},
    {10064, "Host is down (WSAEHOSTDOWN)"},
    {10065, "No Route to Host (WSAEHOSTUNREACH)"},
    {10066, "Directory not empty (WSAENOTEMPTY)"},
    {10067, "Too many processes (WSAEPROCLIM)"},
    {10068, "Too many users (WSAEUSERS)"},
    {10069, "Disc Quota Exceeded (WSAEDQUOT)"},
    {10070, "Stale NFS file handle (WSAESTALE)"},
    {10071, "Too many levels of remote in path (WSAEREMOTE)"},
    {10091, "Network SubSystem is unavailable (WSASYSNOTREADY)"},
    {10092, "WINSOCK DLL Version out of range (WSAVERNOTSUPPORTED)"},
    {10093, "Successful WSASTARTUP not yet performed (WSANOTINITIALISED)"},
    {11001, "Host not found (WSAHOST_NOT_FOUND)"},
};

}  // namespace

std::string error_text(unsigned long code) {
    const auto* end = std::end(known_errors);
    const auto* hit = std::find_if(std::begin(known_errors), end, [code](const known_error& e) { return e.code == code; });
    if (hit != end) return hit->text;

    char text[256];
    const DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                                   sizeof(text), nullptr);
    if (n == 0) return "[Unknown Win32 Error]";
    std::string message(text, n);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == ' '))
        message.pop_back();
    return message;
}

}  // namespace mcl
