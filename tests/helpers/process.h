// Starting the project's Windows programs from tests: a child process with its standard
// output captured and its exit code.
#pragma once

#include <windows.h>

#include <string>

#include "mcl/mswin/unique_handle.h"

namespace nv_test {

// Directory of the running test executable (with its trailing backslash); the build puts
// every program there.
std::string bin_dir();

struct child {
    mcl::mswin::unique_kernel_handle process;
    mcl::mswin::unique_kernel_handle output;  // read end of the child's standard output, or none
    DWORD pid = 0;

    // Waits up to `ms` for the exit; returns the exit code or STILL_ACTIVE.
    DWORD wait(DWORD ms = 30000);
    // Reads standard output to its end.
    std::string read_output();
    void kill();
};

// Starts `command_line` (program and arguments); standard output is captured when asked.
child start(const std::string& command_line, bool capture_output = false);

// A name no other test run uses: prefix + process id + counter.
std::string unique_name(const char* prefix);

}  // namespace nv_test
