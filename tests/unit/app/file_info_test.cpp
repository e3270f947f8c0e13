#include "mcl/mswin/file_info.h"

#include <gtest/gtest.h>

#include "tests/helpers/process.h"

namespace {

TEST(FileInfo, ReadsTheVersionResourceOfTheServiceExecutable) {
    const std::string exe = nv_test::bin_dir() + "NorvaleHalvernService.exe";
    file_info info(exe.c_str());
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(exe, info.path);
    EXPECT_EQ("Norvale Halvern Service", info.description);
    EXPECT_EQ("3.0.45.1", info.version);
}

}  // namespace
