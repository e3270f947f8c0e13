// The paths the service acts on as SYSTEM, as this system's folders place them: every spelling
// Windows reads the same way gets the same answer. The plain form of each refusal, through every
// route that takes a path, is shown on the wire (quarantine_test.sh, hostile paths).
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "mcl/mswin/path_policy.h"

namespace {

TEST(PathPolicy, RefusesEveryFormButALocalPathAndTheSystemsFolders) {
    char buffer[MAX_PATH + 1] = {};
    const std::string windows(buffer, GetSystemWindowsDirectoryA(buffer, MAX_PATH + 1));
    const std::string profile(buffer, GetEnvironmentVariableA("USERPROFILE", buffer, MAX_PATH + 1));
    const std::string drive = windows.substr(0, 3);  // "C:\"
    ASSERT_EQ(3u, windows.find('\\') + 1) << windows;
    const std::string c = drive.substr(0, 2);  // "C:"
    // Each reason with the spellings that must give it; "" for paths that are acted on.
    const struct { const char* reason; std::vector<std::string> paths; } cases[] = {
        {"not a local path", {"", "\\rooted\\a.txt", "C:a.txt", "//host/share/a.txt", "\\\\.\\C:", "\\??\\C:\\data",
                              drive + "data\\a.txt:stream", drive + "data\\*.txt"}},
        {"a parent folder component", {drive + "data\\...\\a.txt", drive + "data\\. .\\a.txt"}},
        {"a device name", {drive + "data\\COM1.txt", drive + "data\\aux .log\\x", drive + "data\\lpt9"}},
        {"a drive root", {c + "/", drive + ".\\"}},
        {"a system folder", {windows + "\\", windows + ". \\system32", c + "/WINDOWS/./win.ini",
                             drive + "\\\\" + windows.substr(3) + "\\\\win.ini"}},
        {"a program root folder", {drive + "PROGRAM FILES (x86)\\"}},
        {"a user profile folder", {drive + "users", profile}},
        {"", {drive + "data\\nully\\..d\\a.txt", drive + "Program Files\\Norvale\\Halvern Service",
              drive + "ProgramData\\Norvale\\q", profile + "\\Documents\\a.txt", drive + "windowsapp\\a.txt"}},
    };
    for (const auto& row : cases)
        for (const std::string& path : row.paths)
            EXPECT_EQ(row.reason, mcl::mswin::refused_path_reason(path)) << "[" << path << "]";
    EXPECT_EQ("a system folder", mcl::mswin::refused_path_reason(std::wstring(L"C:\\WINDOWS\\\u00e9t\u00e9")));
}

}  // namespace
