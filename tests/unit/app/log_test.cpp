#include "app/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "tests/helpers/log_capture.h"

namespace {

#if defined(_WIN32)
const char* const eol = "\r\n";
#else
const char* const eol = "\n";
#endif

std::string temp_path(const char* name) { return ::testing::TempDir() + "nv_log_test_" + name; }

const std::string stamp = "\\d{4}/\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d";
// The header line: 27 '=', date and time, 25 '='.
const std::string header = "={27}" + stamp + "={25}";

// Entries from two threads at once come out as whole lines too.
TEST(Log, ANewFileStartsWithTheHeaderAndTheCallSiteHelperWritesWholeOrCutEntriesFromAnyThread) {
    const std::string path = temp_path("new.log");
    remove(path.c_str());
    ASSERT_TRUE(log_needs_truncate(path.c_str()));
    log_file log;
    ASSERT_TRUE(log.open(path.c_str(), true));
    log_file* saved = g_log;
    g_log = nullptr;
    NV_LOG("ns::cls::fn", "not written: %d", 1);  // no log set: nothing happens
    g_log = &log;
    NV_LOG("ns::cls::fn", "value %d and %s", 42, "text");
    const std::string huge(5000, 'z');
    NV_LOG("ns::cls::fn", "%s", huge.c_str());
    auto writer = [](char c) {
        const std::string body(300, c);
        for (int i = 0; i < 500; ++i) NV_LOG("writer", "%s", body.c_str());
    };
    std::thread a(writer, 'a'), b(writer, 'b');
    a.join();
    b.join();
    g_log = saved;
    log.close();

    const std::string text = nv_test::file_text(path);
    // An empty line, the header, then the first entry.
    const std::string first = eol + header + eol + stamp + ", \\[ns::cls::fn:\\d+\\] - value 42 and text" + eol;
    EXPECT_TRUE(std::regex_search(text.substr(0, 300), std::regex("^" + first))) << text.substr(0, 200);
    // The cut line holds the prefix and as many 'z' as fit in 2047 characters.
    const size_t start = text.find("] - zzz");
    ASSERT_NE(std::string::npos, start);
    const size_t line_start = text.rfind(", [", start) + 2;
    const size_t line_end = text.find(eol, start);
    EXPECT_EQ(2047u, line_end - line_start);

    std::istringstream lines(text);
    std::string line;
    int count_a = 0, count_b = 0;
    const std::regex whole(stamp + ", \\[writer:\\d+\\] - (a{300}|b{300})\r?");
    while (std::getline(lines, line)) {
        if (line.find("[writer:") == std::string::npos) continue;
        ASSERT_TRUE(std::regex_match(line, whole)) << line.substr(0, 80);
        (line.find("aaaa") != std::string::npos ? count_a : count_b)++;
    }
    EXPECT_EQ(500, count_a);
    EXPECT_EQ(500, count_b);
}

TEST(Log, SixteenMiBIsAppendedToOneByteMoreIsEmptied) {
    const size_t limit = 16u * 1024 * 1024;
    const struct { size_t size; bool truncate; } cases[] = {{limit, false}, {limit + 1, true}, {0, false}};
    for (const auto& c : cases) {
        const std::string path = temp_path("size.log");
        std::ofstream(path, std::ios::binary) << std::string(c.size, 'x');
        EXPECT_EQ(c.truncate, log_needs_truncate(path.c_str())) << c.size;
        ASSERT_TRUE(log_file().open(path.c_str(), log_needs_truncate(path.c_str())));  // and closed at once
        const std::string text = nv_test::file_text(path);
        if (c.truncate) {
            EXPECT_LT(text.size(), 100u);
            EXPECT_EQ(eol, text.substr(0, strlen(eol)));
        } else {
            EXPECT_GT(text.size(), c.size);
            EXPECT_EQ(std::string(eol) + "=====", text.substr(c.size, strlen(eol) + 5));
        }
        remove(path.c_str());
    }
}

// Past 16 MiB while running, the file becomes the previous log (an older one replaced) and the
// next entry starts a new file with its header.
TEST(Log, AFileThatGrowsPastSixteenMiBIsRolledOver) {
    const std::string path = temp_path("roll.log"), previous = path + ".1";
    std::ofstream(previous) << "older";
    log_file log;
    ASSERT_TRUE(log.open(path.c_str(), true));
    const std::string block(1024 * 1024, 'x');
    for (int i = 0; i < 15; ++i) ASSERT_TRUE(log.write(block.c_str()));
    EXPECT_EQ("older", nv_test::file_text(previous));
    ASSERT_TRUE(log.write(block.c_str()));  // over the limit now
    ASSERT_TRUE(log.write("next"));
    log.close();

    const std::string old_text = nv_test::file_text(previous), new_text = nv_test::file_text(path);
    EXPECT_GT(old_text.size(), 16u * 1024 * 1024);
    EXPECT_EQ(std::string("x") + eol, old_text.substr(old_text.size() - 1 - strlen(eol)));
    EXPECT_TRUE(std::regex_search(new_text, std::regex(header)));
    EXPECT_EQ(std::string(", next") + eol, new_text.substr(new_text.size() - 6 - strlen(eol)));
    EXPECT_LT(new_text.size(), 200u);
    remove(path.c_str());
    remove(previous.c_str());
}

}  // namespace
