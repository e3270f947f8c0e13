#include "app/program.h"

#include <windows.h>

#include "app/log.h"

std::string g_module_path;
std::string g_module_dir;
bool g_debug_mode = false;

bool init_module_path() {
    char path[512 + 1] = {};
    const DWORD n = GetModuleFileNameA(nullptr, path, 512);
    if (n == 0 || n >= 512) return false;
    const char* slash = strrchr(path, '\\');
    if (slash == nullptr) return false;
    g_module_path.assign(path, n);
    g_module_dir.assign(path, static_cast<size_t>(slash - path) + 1);
    return true;
}

std::string debug_log_path() { return g_module_dir + "nvhalvernservice.debug.log"; }

void open_debug_log() {
    const std::string path = debug_log_path();
    the_log().open(path.c_str(), log_needs_truncate(path.c_str()));
    g_log = &the_log();
}
