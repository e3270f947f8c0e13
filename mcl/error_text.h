// The text of a Windows error code as the log lines print it ("[%d:%s]").
#pragma once

#include <string>

namespace mcl {

// The transport's own wording for the socket-style codes and a few I/O codes, else the
// system's message text (without its line end), else "[Unknown Win32 Error]".
std::string error_text(unsigned long code);

}  // namespace mcl
