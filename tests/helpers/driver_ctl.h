// The driver simulator as tests inspect it: driver_ctl in a second process.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/helpers/process.h"

namespace nv_test {

// driver_ctl ARGS, run to its end (killed after a minute): its standard output; its exit code in
// `exit_code` when asked (STILL_ACTIVE when it was killed or never started).
inline std::string ctl(const std::string& args, DWORD* exit_code = nullptr) {
    child c = start("\"" + bin_dir() + "driver_ctl.exe\" " + args, /*capture_output=*/true);
    const std::string out = c.read_output();
    const DWORD code = c.wait(60000);
    if (code == STILL_ACTIVE) c.kill();
    if (exit_code) *exit_code = code;
    return out;
}

// One text field ("bytes": the hex, "check": why it was refused or "ok") of every message the
// simulator journaled, in arrival order.
inline std::vector<std::string> journal_bytes(const std::string& field = "bytes") {
    const std::string journal = ctl("journal"), key = "\"" + field + "\":\"";
    std::vector<std::string> out;
    for (size_t at = journal.find(key); at != std::string::npos; at = journal.find(key, at)) {
        at += key.size();
        out.push_back(journal.substr(at, journal.find('"', at) - at));
    }
    return out;
}

}  // namespace nv_test
