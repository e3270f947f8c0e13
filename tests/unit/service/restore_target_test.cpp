// Where a restore may write: this system cannot make junctions or symbolic links that report
// themselves as reparse points, so the check is fed the attributes a link would have.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "service/restore_target.h"

namespace {

std::map<std::string, DWORD> g_attributes;

DWORD fake_attributes(const char* path) {
    auto it = g_attributes.find(path);
    return it == g_attributes.end() ? INVALID_FILE_ATTRIBUTES : it->second;
}

constexpr DWORD dir = FILE_ATTRIBUTE_DIRECTORY;
constexpr DWORD link = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

TEST(restore_target, refuses_links_and_odd_paths_anywhere_on_the_way) {
    struct {
        const char* label;
        std::map<std::string, DWORD> attributes;
        const char* target;
        bool safe;
    } cases[] = {
        {"plain folders, file missing", {{"C:\\data", dir}, {"C:\\data\\sub", dir}}, "C:\\data\\sub\\a.txt", true},
        {"file present", {{"C:\\data", dir}, {"C:\\data\\a.txt", FILE_ATTRIBUTE_ARCHIVE}}, "C:\\data\\a.txt", true},
        {"folder swapped for a junction", {{"C:\\data", link}}, "C:\\data\\a.txt", false},
        {"deeper link", {{"C:\\data", dir}, {"C:\\data\\sub", link}}, "C:\\data\\sub\\a.txt", false},
        {"file is a symbolic link", {{"C:\\data", dir}, {"C:\\data\\a.txt", FILE_ATTRIBUTE_REPARSE_POINT}},
         "C:\\data\\a.txt", false},
        {"folder gone", {}, "C:\\data\\a.txt", false},
        {"folder is a file", {{"C:\\data", FILE_ATTRIBUTE_ARCHIVE}}, "C:\\data\\a.txt", false},
        {"dot dot", {{"C:\\data", dir}}, "C:\\data\\..\\windows\\a.txt", false},
        {"relative", {{"data", dir}}, "data\\a.txt", false},
        {"UNC", {}, "\\\\server\\share\\a.txt", false},
        {"forward slash", {{"C:\\data", dir}}, "C:\\data/a.txt", false},
        {"empty component", {{"C:\\data", dir}}, "C:\\data\\\\a.txt", false},
        {"drive root file", {}, "C:\\a.txt", true},
    };
    for (const auto& c : cases) {
        g_attributes = c.attributes;
        EXPECT_EQ(c.safe, restore_target_is_safe(c.target, fake_attributes)) << c.label;
    }
}

}  // namespace
