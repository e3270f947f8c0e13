#include "tests/helpers/restricted.h"

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

int run_restricted(int argc, char** argv) {
    if (argc < 1) return 2;
    std::wstring command;
    for (int i = 0; i < argc; ++i) {
        if (i != 0) command += L' ';
        const std::string arg = argv[i];
        command += L'"';
        command.append(arg.begin(), arg.end());  // the tests pass ASCII
        command += L'"';
    }
    const mcl::mswin::unique_kernel_handle token = restricted_token();
    if (!token) return 2;
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
    if (!started) return 2;
    CloseHandle(process.hThread);
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD code = 2;
    GetExitCodeProcess(process.hProcess, &code);
    CloseHandle(process.hProcess);
    return static_cast<int>(code);
}

}  // namespace nv_test
