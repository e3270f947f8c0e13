// What a quarantine may take and where a restore may write. This system cannot make junctions or
// symbolic links that report themselves as such, so the checks are fed the attributes and final
// paths a link would give.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "quarantine/restore_target.h"
#include "tests/helpers/log_capture.h"

namespace {

namespace fs = std::filesystem;

fs::path fresh_dir(const std::string& name) {
    const fs::path dir = fs::path(::testing::TempDir()) / ("nv_restore_target_" + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

void write_file(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::map<std::string, DWORD> g_attributes;

DWORD fake_attributes(const char* path) {
    auto it = g_attributes.find(path);
    return it == g_attributes.end() ? INVALID_FILE_ATTRIBUTES : it->second;
}

constexpr DWORD folder_attrs = FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD link = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

TEST(restore_target, refuses_links_and_odd_paths_anywhere_on_the_way) {
    struct { std::map<std::string, DWORD> attributes; const char* target; bool safe; } cases[] = {
        {{{"C:\\data", folder_attrs}, {"C:\\data\\sub", folder_attrs}}, "C:\\data\\sub\\a.txt", true},
        {{{"C:\\data", folder_attrs}, {"C:\\data\\a.txt", FILE_ATTRIBUTE_ARCHIVE}}, "C:\\data\\a.txt", true},
        {{{"C:\\data", folder_attrs}, {"C:\\data\\sub", link}}, "C:\\data\\sub\\a.txt", false},
        {{{"C:\\data", folder_attrs}, {"C:\\data\\a.txt", FILE_ATTRIBUTE_REPARSE_POINT}}, "C:\\data\\a.txt", false},
        {{}, "C:\\data\\a.txt", false}, {{}, "\\\\server\\share\\a.txt", false},
        {{{"C:\\data", folder_attrs}}, "C:\\data\\..\\windows\\a.txt", false},
        {{{"C:\\data", folder_attrs}}, "C:\\data\\\\a.txt", false},
    };
    for (const auto& c : cases) {
        g_attributes = c.attributes;
        EXPECT_EQ(c.safe, restore_target_is_safe(c.target, fake_attributes)) << c.target;
    }
}

// Final paths as they are, or with the folder (or only the restore's temporary) moved under
// C:\windows, as when a link replaced the folder before the check (or after it).
enum class swapped { none, folder, temporary } g_swap;

bool swapping_final_path(HANDLE handle, std::wstring& path) {
    wchar_t buffer[1024];
    const DWORD n = GetFinalPathNameByHandleW(handle, buffer, 1024, 0);
    if (n == 0 || n >= 1024) return false;
    path.assign(buffer, n);
    const bool temporary = path.size() > 10 && path.compare(path.size() - 10, 10, L".restoring") == 0;
    if (g_swap == swapped::folder || (g_swap == swapped::temporary && temporary))
        path = L"\\\\?\\C:\\windows" + path.substr(path.rfind(L'\\'));
    return true;
}

// A name taken by anything, a planted temporary included, is never opened: the restore fails.
TEST(restore_folder, holds_the_folder_refuses_a_link_swapped_in_before_or_after_the_check_and_a_taken_name) {
    std::string content(5000, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7919 % 251);
    const struct {
        swapped swap;
        bool planted;  // a file "a.bin.restoring" is there before the restore
        bool restored;
        const char* line;
    } cases[] = {
        {swapped::none, false, true, "restore : done"},
        {swapped::folder, false, false, "is a link or not a local path; the archive is kept."},
        {swapped::temporary, false, false, "is not in the folder that was checked; the archive is kept."},
        {swapped::none, true, false, "unable to create "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        nv_test::log_capture log;
        const fs::path dir = fresh_dir(std::to_string(static_cast<int>(c.swap)) + (c.planted ? "planted" : ""));
        const fs::path source = dir / "data" / "a.bin";
        const fs::path archive = dir / "a.QUA";
        fs::create_directories(source.parent_path());
        write_file(source, content);
        ASSERT_TRUE(NVFileArchive::NVFileArchive_archiveFile(source.string().c_str(), archive.string().c_str()));
        fs::remove(source);
        const std::string planted = source.string() + ".restoring";
        if (c.planted) write_file(planted, "planted");

        g_swap = c.swap;
        restore_folder destination(swapping_final_path);
        EXPECT_EQ(c.restored, NVFileArchive::NVFileArchive_restoreFile(archive.string().c_str(), &destination));
        EXPECT_TRUE(log.contains(c.planted ? c.line + planted : c.line)) << log.text();
        std::vector<std::string> names;  // what the folder holds
        for (const auto& entry : fs::directory_iterator(source.parent_path()))
            names.push_back(entry.path().filename().string());
        EXPECT_EQ(c.restored  ? std::vector<std::string>{"a.bin"}
                  : c.planted ? std::vector<std::string>{"a.bin.restoring"}
                              : std::vector<std::string>{},
                  names);
        EXPECT_TRUE(fs::exists(archive));
        if (c.restored || c.planted) {
            EXPECT_EQ(c.planted ? "planted" : content, nv_test::file_text(c.planted ? planted : source.string()));
        }
    }
}

TEST(restore_folder, nobody_can_rename_or_replace_the_held_folder) {
    const fs::path dir = fresh_dir("held");
    fs::create_directories(dir / "data");
    const std::wstring folder = (dir / "data").wstring();
    const std::wstring moved = (dir / "moved").wstring();
    {
        restore_folder destination;
        ASSERT_TRUE(destination.open((dir / "data" / "a.txt").string()));
        EXPECT_FALSE(MoveFileW(folder.c_str(), moved.c_str()));
        EXPECT_EQ(static_cast<DWORD>(ERROR_SHARING_VIOLATION), GetLastError());
        EXPECT_FALSE(RemoveDirectoryW(folder.c_str()));
    }
    EXPECT_TRUE(MoveFileW(folder.c_str(), moved.c_str())) << "released with the restore";
}

TEST(restore_folder, free_names) {
    const struct { const char* name; unsigned attempt; const char* want; } cases[] = {
        {"a.txt", 0, "a.txt"},           {"a.txt", 1, "a (restored).txt"},       {"a.txt", 2, "a (restored 2).txt"},
        {"a.tar.gz", 3, "a.tar (restored 3).gz"}, {"noext", 1, "noext (restored)"}, {".profile", 1, ".profile (restored)"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.want, restored_name(c.name, c.attempt)) << c.name << " " << c.attempt;
}

TEST(quarantine_source, takes_only_the_file_asked_for) {
    enum class kind { folder_swapped, a_folder, hard_link };
    const struct { kind what; const char* line; } cases[] = {
        {kind::folder_swapped, "leads elsewhere (\\\\?\\C:\\windows\\s.txt); the file stays."},
        {kind::a_folder, "is a folder, a link or a file with other names; the file stays."},
        {kind::hard_link, "is a folder, a link or a file with other names; the file stays."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.what));
        nv_test::log_capture log;
        const fs::path dir = fresh_dir("source" + std::to_string(static_cast<int>(c.what)));
        const fs::path folder = dir / "data";
        fs::create_directories(folder);
        fs::path source = folder / "s.txt";
        write_file(source, "source");
        if (c.what == kind::a_folder) source = folder;
        if (c.what == kind::hard_link && !CreateHardLinkW((dir / "other.txt").wstring().c_str(), source.wstring().c_str(), nullptr))
            continue;  // no hard links on this file system
        g_swap = swapped::folder;
        quarantine_source held(c.what == kind::folder_swapped ? swapping_final_path : nullptr);
        EXPECT_FALSE(held.open(source.string()));
        EXPECT_TRUE(log.contains(c.line)) << log.text();
        EXPECT_TRUE(fs::exists(source));
    }
}

}  // namespace
