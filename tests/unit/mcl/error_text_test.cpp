#include "mcl/error_text.h"

#include <gtest/gtest.h>

namespace {

TEST(ErrorText, TableFirstThenSystemTextThenUnknown) {
    EXPECT_EQ("I/O Operation in progress (ERROR_IO_PENDING)", mcl::error_text(997));
    const std::string system = mcl::error_text(2);  // the system's own wording
    EXPECT_FALSE(system.empty());
    EXPECT_NE('\n', system.back());
    EXPECT_EQ("[Unknown Win32 Error]", mcl::error_text(0x2FFFFFFF));
}

}  // namespace
