#include "mcl/error_text.h"

#include <gtest/gtest.h>

namespace {

TEST(ErrorText, TableFirstThenSystemTextThenUnknown) {
    EXPECT_EQ("Connection reset by peer (WSAECONNRESET)", mcl::error_text(10054));
    EXPECT_EQ("I/O Operation in progress (ERROR_IO_PENDING)", mcl::error_text(997));
    EXPECT_EQ("Host not found (WSAHOST_NOT_FOUND)", mcl::error_text(11001));
    const std::string system = mcl::error_text(2);  // the system's own wording
    EXPECT_FALSE(system.empty());
    EXPECT_NE('\n', system.back());
    EXPECT_EQ("[Unknown Win32 Error]", mcl::error_text(0x2FFFFFFF));
}

}  // namespace
