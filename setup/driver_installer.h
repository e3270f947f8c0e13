// Installs, updates and removes the minifilter driver VQRMonitor on the local machine.
//
// Installation runs the "DefaultInstall" section of VQRMonitor.inf (beside the executable)
// through the system's setup library; when the driver is still not installed it copies
// VQRMonitor.sys into the system driver directory, registers the service itself and fills in
// the registry values the service key lacks. Removal unloads the driver, runs the INF's
// "DefaultUninstall" section, stops and deletes the service and deletes the file (renaming it
// and deleting it at the next reboot when it is in use).
//
// Not thread-safe: the paths are process-wide and set again by every entry point. Callers are
// the command line, the service's start-up (before it listens) and the setup tasks, each on
// one thread. Every step writes one log line.
#pragma once

#include <windows.h>

#include <string>

namespace driver_installer {

// Result codes of the operations (0 = success). A failed init_inf_file gives its Win32 error.
inline constexpr int ok = 0;
inline constexpr int file_failed = 5;         // file copy or delete failed
inline constexpr int command_too_long = 7;    // command line longer than max_command characters
inline constexpr int install_failed = 11;     // installation verified as failed
inline constexpr int no_service_manager = 13; // manager not opened with create-service access
inline constexpr int command_not_run = 14;    // command not started, or service not deleted
inline constexpr int empty_argument = 22;     // empty command line, or empty path
inline constexpr int dirs_failed = -1;        // initDirs failed
// The driver file beside the executable has no version resource; nothing was changed.
inline constexpr int no_package_version = ERROR_RESOURCE_TYPE_NOT_FOUND;

inline constexpr size_t max_command = 4096;
// Tag asked for when the direct route registers the service (and written when none came back).
inline constexpr DWORD default_tag = 160;

inline constexpr char service_name[] = "VQRMonitor";
inline constexpr char service_key[] = "system\\CurrentControlSet\\Services\\VQRMonitor";
inline constexpr char instances_key[] = "system\\CurrentControlSet\\Services\\VQRMonitor\\Instances";
inline constexpr char install_key[] = "Software\\Norvale\\NVClientHelper\\install";
inline constexpr char driver_updated_value[] = "DriverUpdated";
inline constexpr char skip_first_create_value[] = "SkipProc1stCreate";
inline constexpr char svc_mgr_path_value[] = "SvcMgrPath";
inline constexpr char wow64_value[] = "WOW64";

// Process-wide paths (narrow), set by initDirs and init_inf_file.
struct paths {
    std::string windows_dir;       // no trailing backslash
    std::string installed_driver;  // windows_dir + "\System32\Drivers\VQRMonitor.sys"
    std::string install_dir;       // the executable's folder, with its trailing backslash
    std::string source_driver;     // install_dir + "VQRMonitor.sys"
    std::string inf;               // short (8.3) path of install_dir + "VQRMonitor.inf"
};
const paths& current_paths();

}  // namespace driver_installer

// Installs or updates the driver from the package beside the executable, or in `package_dir`
// (with its trailing backslash) when one is given. `force` goes on when the INF path cannot be
// set up and installs even while a removed driver service is still marked for deletion. 0 on
// success, else a result code above.
int install_vqrmonitor(bool force, const std::string& package_dir = std::string());
// Removes the driver. `marked_for_deletion` (may be null) comes back true when the driver
// service could not be deleted because it is already marked for deletion.
int uninstall_vqrmonitor(bool* marked_for_deletion);

// The steps, for the service's start-up and the tests.
// Windows directory, installed and source driver paths, install directory: 0 or -1.
int initDirs();
// The short path of the INF beside the executable: 0 or the Win32 error (a missing file fails).
int init_inf_file();
// The manager knows the service "VQRMonitor" and a regular file is at the installed path.
bool IsDriverInstalled();
// The "FileVersion" string of the file's first translation; empty on failure.
std::string GetFileVersionString(const std::string& path);
// The INF route, then the direct route when the driver is still not installed.
int DoInstall(const std::string& inf_path);
// The direct route: copy the file, create the service, fill in its registry values.
int DoInstall2();
// Writes every value of the driver's service key layout that cannot be read; removes "WOW64".
void fillDriverRegs(DWORD tag);
int DoUninstall(const std::string& inf_path, bool* marked_for_deletion);
int DoUninstall2(bool* marked_for_deletion);
// Moves the installed driver file to the first free "<path>.N" (N = 0 .. 999); the new name,
// or empty when it could not be moved.
std::string rename_driver_file();
// Runs `command_line` hidden and waits for it without limit: 0, or command_too_long,
// command_not_run or empty_argument. The process's exit code is not examined.
int run_command(const std::string& command_line);
