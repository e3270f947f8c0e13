// A C stream as an owner: closed when the owner goes, unless released first.
#pragma once

#include <cstdio>
#include <memory>

namespace mcl {

struct file_closer {
    void operator()(FILE* file) const { fclose(file); }
};
using unique_file = std::unique_ptr<FILE, file_closer>;

inline unique_file open_file(const char* path, const char* mode) { return unique_file(fopen(path, mode)); }

}  // namespace mcl
