#include "tests/helpers/process.h"

#include <atomic>

namespace nv_test {

std::string bin_dir() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string p(path);
    return p.substr(0, p.find_last_of('\\') + 1);
}

DWORD child::wait(DWORD ms) {
    DWORD code = STILL_ACTIVE;
    if (process && WaitForSingleObject(process.get(), ms) != WAIT_FAILED) GetExitCodeProcess(process.get(), &code);
    return code;
}

std::string child::read_output() {
    std::string text;
    char block[4096];
    DWORD n = 0;
    while (output && ReadFile(output.get(), block, sizeof(block), &n, nullptr) && n > 0) text.append(block, n);
    return text;
}

void child::kill() {
    if (!process) return;
    TerminateProcess(process.get(), 1);
    WaitForSingleObject(process.get(), 5000);
}

child start(const std::string& command_line, bool capture_output) {
    child c;
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    mcl::mswin::unique_kernel_handle write_end;
    STARTUPINFOA si{};
    si.cb = sizeof(si);
    if (capture_output) {
        if (!CreatePipe(c.output.put(), write_end.put(), &sa, 0)) return c;
        SetHandleInformation(c.output.get(), HANDLE_FLAG_INHERIT, 0);
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = write_end.get();
        si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    }
    PROCESS_INFORMATION pi{};
    std::string cmd = command_line;
    if (CreateProcessA(nullptr, &cmd[0], nullptr, nullptr, capture_output, 0, nullptr, nullptr, &si, &pi)) {
        CloseHandle(pi.hThread);
        c.process.reset(pi.hProcess);
        c.pid = pi.dwProcessId;
    }
    return c;
}

std::string unique_name(const char* prefix) {
    static std::atomic<unsigned> counter{0};
    return std::string(prefix) + "_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++counter);
}

}  // namespace nv_test
