#include "tests/helpers/process.h"

#include <atomic>
#include <utility>

namespace nv_test {

std::string bin_dir() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    std::string p(path);
    return p.substr(0, p.find_last_of('\\') + 1);
}

child::child(child&& other) noexcept
    : process(std::exchange(other.process, nullptr)), output(std::exchange(other.output, nullptr)), pid(other.pid) {}

child& child::operator=(child&& other) noexcept {
    std::swap(process, other.process);
    std::swap(output, other.output);
    std::swap(pid, other.pid);
    return *this;
}

child::~child() {
    if (output != nullptr) CloseHandle(output);
    if (process != nullptr) CloseHandle(process);
}

DWORD child::wait(DWORD ms) {
    if (process == nullptr) return STILL_ACTIVE;
    WaitForSingleObject(process, ms);
    DWORD code = STILL_ACTIVE;
    GetExitCodeProcess(process, &code);
    return code;
}

std::string child::read_output() {
    std::string text;
    if (output == nullptr) return text;
    char block[4096];
    DWORD n = 0;
    while (ReadFile(output, block, sizeof(block), &n, nullptr) && n > 0) text.append(block, n);
    return text;
}

void child::kill() {
    if (process != nullptr) {
        TerminateProcess(process, 1);
        WaitForSingleObject(process, 5000);
    }
}

child start(const std::string& command_line, bool capture_output) {
    child c;
    SECURITY_ATTRIBUTES sa{sizeof(sa), nullptr, TRUE};
    HANDLE write_end = nullptr;
    STARTUPINFOA si{};
    si.cb = sizeof(si);
    if (capture_output) {
        if (!CreatePipe(&c.output, &write_end, &sa, 0)) return c;
        SetHandleInformation(c.output, HANDLE_FLAG_INHERIT, 0);
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = write_end;
        si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
        si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    }
    PROCESS_INFORMATION pi{};
    std::string cmd = command_line;
    if (CreateProcessA(nullptr, &cmd[0], nullptr, nullptr, capture_output ? TRUE : FALSE, 0, nullptr, nullptr, &si,
                       &pi)) {
        CloseHandle(pi.hThread);
        c.process = pi.hProcess;
        c.pid = pi.dwProcessId;
    }
    if (write_end != nullptr) CloseHandle(write_end);
    return c;
}

DWORD run(const std::string& program, const std::string& arguments, std::string* output, DWORD timeout_ms) {
    child c = start("\"" + bin_dir() + program + "\" " + arguments, output != nullptr);
    if (c.process == nullptr) return static_cast<DWORD>(-1000);
    if (output != nullptr) *output = c.read_output();
    const DWORD code = c.wait(timeout_ms);
    if (code == STILL_ACTIVE) c.kill();
    return code;
}

std::string unique_name(const char* prefix) {
    static std::atomic<unsigned> counter{0};
    return std::string(prefix) + "_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++counter);
}

}  // namespace nv_test
