#include "service/restore_target.h"

namespace {

DWORD system_attributes(const char* path) { return GetFileAttributesA(path); }

bool is_drive_path(const std::string& path) {
    const char d = path.size() > 3 ? path[0] : '\0';
    return ((d >= 'a' && d <= 'z') || (d >= 'A' && d <= 'Z')) && path[1] == ':' && path[2] == '\\';
}

}  // namespace

bool restore_target_is_safe(const std::string& target, file_attributes_fn attributes) {
    if (attributes == nullptr) attributes = system_attributes;
    if (!is_drive_path(target) || target.find('/') != std::string::npos) return false;
    size_t start = 3;
    for (;;) {
        const size_t end = target.find('\\', start);
        const std::string part = target.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (part.empty() || part == "." || part == "..") return false;
        const std::string prefix = target.substr(0, end);
        const DWORD attrs = attributes(prefix.c_str());
        if (end == std::string::npos) {
            // The file itself may be missing; if it is there, it must not be a link either.
            return attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
        }
        if (attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_DIRECTORY) == 0 ||
            (attrs & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
            return false;
        start = end + 1;
    }
}
