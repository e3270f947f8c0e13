#include "app/file_info.h"

#include <gtest/gtest.h>

#include "tests/helpers/process.h"

namespace {

TEST(FileInfo, ReadsTheVersionResourceSizeAndTimesOfTheServiceExecutable) {
    const std::string exe = nv_test::bin_dir() + "NorvaleHalvernService.exe";
    file_info info(exe.c_str());
    EXPECT_TRUE(info.valid);
    EXPECT_EQ(exe, info.path);
    EXPECT_EQ("Norvale Halvern Service", info.description);
    EXPECT_EQ("3.0.45.1", info.version);

    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(GetFileAttributesExA(exe.c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ((static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow, info.size);
    EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, info.last_write_time.dwLowDateTime);
    EXPECT_EQ(data.ftLastWriteTime.dwHighDateTime, info.last_write_time.dwHighDateTime);
}

}  // namespace
