#include "tests/helpers/restricted.h"

#include <cstdio>
#include <string>

#include "mcl/mswin/sid.h"

namespace nv_test {

mcl::mswin::unique_kernel_handle restricted_token(bool impersonation) {
    mcl::mswin::unique_kernel_handle own, restricted, duplicate;
    mcl::mswin::sid admins;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, own.put()) ||
        !mcl::mswin::sid::from_well_known(WinBuiltinAdministratorsSid, admins))
        return {};
    SID_AND_ATTRIBUTES deny{admins.get(), 0};
    if (!CreateRestrictedToken(own.get(), DISABLE_MAX_PRIVILEGE, 1, &deny, 0, nullptr, 0, nullptr, restricted.put()))
        return {};
    if (!impersonation) return restricted;
    if (!DuplicateToken(restricted.get(), SecurityImpersonation, duplicate.put())) return {};
    return duplicate;
}

int run_restricted(const wchar_t* command_line) {
    std::wstring command = command_line;
    if (command.empty()) return 255;
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
