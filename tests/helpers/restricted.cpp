#include "tests/helpers/restricted.h"

#include <cstdio>
#include <string>

namespace nv_test {

mcl::mswin::unique_kernel_handle restricted_token(bool impersonation) {
    HANDLE raw = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &raw)) return {};
    const mcl::mswin::unique_kernel_handle own(raw);
    BYTE admins[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(admins);
    if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &size)) return {};
    SID_AND_ATTRIBUTES deny{admins, 0};
    raw = nullptr;
    if (!CreateRestrictedToken(own.get(), DISABLE_MAX_PRIVILEGE, 1, &deny, 0, nullptr, 0, nullptr, &raw)) return {};
    mcl::mswin::unique_kernel_handle restricted(raw);
    if (!impersonation) return restricted;
    raw = nullptr;
    if (!DuplicateToken(restricted.get(), SecurityImpersonation, &raw)) return {};
    return mcl::mswin::unique_kernel_handle(raw);
}

namespace {

// One argument quoted as the C runtime splits a command line.
std::wstring quoted(const char* arg) {
    const int n = MultiByteToWideChar(CP_ACP, 0, arg, -1, nullptr, 0);
    std::wstring in(n > 0 ? n - 1 : 0, L'\0');
    if (n > 1) MultiByteToWideChar(CP_ACP, 0, arg, -1, &in[0], n);
    if (!in.empty() && in.find_first_of(L" \t\"") == std::wstring::npos) return in;
    std::wstring out = L"\"";
    size_t slashes = 0;
    for (wchar_t c : in) {
        if (c == L'\\') {
            ++slashes;
        } else {
            out.append(c == L'"' ? slashes * 2 + 1 : slashes, L'\\');
            slashes = 0;
        }
        out += c;
    }
    out.append(slashes, L'\\');
    return out + L"\"";
}

}  // namespace

int run_restricted(int argc, char** argv) {
    if (argc < 1) return 255;
    std::wstring command;
    for (int i = 0; i < argc; ++i) command += (i != 0 ? L" " : L"") + quoted(argv[i]);
    const mcl::mswin::unique_kernel_handle token = restricted_token();
    if (!token) return 255;
    // The program writes where this one does: its standard handles, and only those, are inherited.
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    HANDLE* const std_handles[] = {&startup.hStdInput, &startup.hStdOutput, &startup.hStdError};
    const DWORD std_ids[] = {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
    for (int i = 0; i < 3; ++i) {
        const HANDLE own_handle = GetStdHandle(std_ids[i]);
        if (own_handle == nullptr || own_handle == INVALID_HANDLE_VALUE ||
            !DuplicateHandle(GetCurrentProcess(), own_handle, GetCurrentProcess(), std_handles[i], 0, TRUE,
                             DUPLICATE_SAME_ACCESS))
            *std_handles[i] = nullptr;
    }
    PROCESS_INFORMATION process{};
    const BOOL started = CreateProcessAsUserW(token.get(), nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr,
                                              nullptr, &startup, &process);
    for (HANDLE* h : std_handles)
        if (*h != nullptr) CloseHandle(*h);
    if (!started) {
        fprintf(stderr, "CreateProcessAsUserW failed, error %lu\n", static_cast<unsigned long>(GetLastError()));
        return 255;
    }
    CloseHandle(process.hThread);
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 255;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    return static_cast<int>(code);
}

}  // namespace nv_test
