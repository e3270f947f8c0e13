// Process-wide values that the program entry sets and other parts read.
#pragma once

#include <string>

// Full path of the running executable (at most 512 characters). "-i install" replaces it with
// the same path in double quotes.
extern std::string g_module_path;
// g_module_path cut after its last backslash (the backslash stays).
extern std::string g_module_dir;
// Set by "-d": run the service logic in the console.
extern bool g_debug_mode;

// Fills g_module_path and g_module_dir from the module file name. False when that fails.
bool init_module_path();

// "nvhalvernservice.debug.log" in g_module_dir.
std::string debug_log_path();

// Opens the debug log beside the executable (emptied first when missing or over 16 MiB) and
// sets g_log, whatever the open returned.
void open_debug_log();
