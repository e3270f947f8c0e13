// The paths the service acts on as SYSTEM, as this system's folders place them: every spelling
// Windows reads the same way gets the same answer. The plain form of each refusal, through every
// route that takes a path, is shown on the wire (quarantine_test.sh, hostile paths).
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "mcl/mswin/path_policy.h"

namespace {

TEST(PathPolicy, RefusesEveryFormButALocalPathAndTheSystemsFolders) {
    char buffer[MAX_PATH + 1] = {};
    const std::string windows(buffer, GetSystemWindowsDirectoryA(buffer, MAX_PATH + 1));
    const std::string profile(buffer, GetEnvironmentVariableA("USERPROFILE", buffer, MAX_PATH + 1));
    const std::string drive = windows.substr(0, 3);  // "C:\"
    ASSERT_EQ(3u, windows.find('\\') + 1) << windows;
    const struct {
        std::string path;
        const char* reason;
    } cases[] = {
        {"", "not a local path"},
        {"\\rooted\\a.txt", "not a local path"},
        {"C:a.txt", "not a local path"},
        {"//host/share/a.txt", "not a local path"},
        {"\\\\.\\C:", "not a local path"},
        {"\\??\\C:\\data", "not a local path"},
        {drive + "data\\a.txt:stream", "not a local path"},
        {drive + "data\\*.txt", "not a local path"},
        {drive + "data\\...\\a.txt", "a parent folder component"},
        {drive + "data\\. .\\a.txt", "a parent folder component"},
        {drive + "data\\COM1.txt", "a device name"},
        {drive + "data\\aux .log\\x", "a device name"},
        {drive + "data\\lpt9", "a device name"},
        {drive.substr(0, 2) + "/", "a drive root"},
        {drive + ".\\", "a drive root"},
        {windows + "\\", "a system folder"},
        {windows + ". \\system32", "a system folder"},
        {drive.substr(0, 2) + "/WINDOWS/./win.ini", "a system folder"},
        {drive + "\\\\" + windows.substr(3) + "\\\\win.ini", "a system folder"},
        {drive + "PROGRAM FILES (x86)\\", "a program root folder"},
        {drive + "users", "a user profile folder"},
        {profile, "a user profile folder"},
        {drive + "data\\nully\\..d\\a.txt", ""},
        {drive + "Program Files\\Norvale\\Halvern Service", ""},
        {drive + "ProgramData\\Norvale\\q", ""},
        {profile + "\\Documents\\a.txt", ""},
        {drive + "windowsapp\\a.txt", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(c.reason, mcl::mswin::refused_path_reason(c.path)) << "[" << c.path << "]";
    EXPECT_EQ("a system folder", mcl::mswin::refused_path_reason(std::wstring(L"C:\\WINDOWS\\\u00e9t\u00e9")));
}

}  // namespace
