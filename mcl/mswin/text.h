// Text in the system's ANSI code page, as the narrow Windows calls take it, made wide.
#pragma once

#include <string>

namespace mcl::mswin {

// The ANSI text as UTF-16; empty when the text is empty or cannot be converted.
std::wstring widen(const std::string& text);

}  // namespace mcl::mswin
