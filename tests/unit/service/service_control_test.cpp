#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "service/helper_service.h"
#include "tests/helpers/process.h"

namespace {

TEST(ImageFolder, PathsAndCommandLines) {
    struct {
        const wchar_t* in;
        const wchar_t* want;
    } cases[] = {
        {L"C:\\Program Files\\App\\app.exe", L"C:\\Program Files\\App"},
        {L"\"C:\\Program Files\\App\\app.exe\" -k netsvcs", L"C:\\Program Files\\App"},
        {L"\"\\\\server\\share\\app.exe\" -x", L"\\\\server\\share"},
        {L"junk before C:\\A\\b.exe", L"C:\\A"},
        {L"C:\\app.exe", L"C:"},
        {L"app.exe", L"app.exe"},
        {L"", L""},
    };
    for (const auto& c : cases) EXPECT_EQ(chelperservice::image_folder_of(c.in), c.want) << std::wstring(c.in).c_str();
}

// The task killer's "no such process" is the exit code the forced stop counts as success.
TEST(RunElevated, ExitCodeOfTheTaskKiller) {
    char dir[MAX_PATH] = {};
    ASSERT_NE(GetSystemDirectoryA(dir, MAX_PATH), 0u);
    DWORD code = 0;
    ASSERT_TRUE(chelperservice::run_elevated(std::string(dir) + "\\taskkill.exe", "/PID 99996 /F", &code));
    EXPECT_EQ(code, 128u);
    EXPECT_FALSE(chelperservice::run_elevated("C:\\no\\such\\program.exe", "", &code));
}

TEST(KillProcessByPath, EveryProcessOfThatImageOnly) {
    char temp[MAX_PATH] = {};
    ASSERT_NE(GetTempPathA(MAX_PATH, temp), 0u);
    const std::string copy = std::string(temp) + nv_test::unique_name("nv_kill_") + ".exe";
    const std::string original = nv_test::bin_dir() + "nv_test_helper.exe";
    ASSERT_TRUE(CopyFileA(original.c_str(), copy.c_str(), FALSE));
    auto hold = [](const std::string& exe) {
        return nv_test::start("\"" + exe + "\" hold-mutex " + nv_test::unique_name("Global\\nv_kill_") + " 60000 none");
    };
    nv_test::child a = hold(copy), b = hold(copy), other = hold(original);
    Sleep(500);
    std::string upper = copy;
    CharUpperBuffA(&upper[0], static_cast<DWORD>(upper.size()));
    chelperservice::killProcessByPath(upper);  // the comparison ignores case
    EXPECT_EQ(a.wait(10000), 9u);
    EXPECT_EQ(b.wait(10000), 9u);
    EXPECT_EQ(other.wait(0), static_cast<DWORD>(STILL_ACTIVE));
    other.kill();
    DeleteFileA(copy.c_str());
}

}  // namespace
