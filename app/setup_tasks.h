// The setup tasks that a product installer runs with "-proxy_task": install (fresh or upgrade
// with rollback), uninstall and folder repair of the protection service, beside an installed
// service that may be of an older release. The tasks talk to that service only through the
// client library, install the driver through the driver installer and register the service by
// running the product folder's program with "-i install".
//
// One-shot and single-threaded: each runs on the main thread of its own process. Every step
// writes one log line.
#pragma once

#include <windows.h>

#include <string>

class invchelper;

namespace setup_tasks {

inline constexpr char service_name[] = "norvale_halvern_svc";
inline constexpr char program_name[] = "NorvaleHalvernService.exe";
// The program's name in older releases; backup, rollback and uninstall handle it as well.
inline constexpr char old_program_name[] = "NVHalvernService.exe";
inline constexpr char vendor_subfolder[] = "Norvale\\";
inline constexpr char product_subfolder[] = "Norvale\\Halvern Service\\";
inline constexpr char backup_suffix[] = ".bak";
inline constexpr char helper_key[] = "Software\\Norvale\\NVClientHelper";
inline constexpr char install_key[] = "Software\\Norvale\\NVClientHelper\\install";
inline constexpr char services_backup_value[] = "services_backup";
inline constexpr int connect_timeout_ms = 120000;

// The files a release installs into the product folder, in copy order.
struct install_file {
    const char* tag;
    const char* name;
    bool backed_up;  // renamed to .bak during an upgrade
};
inline constexpr install_file install_files[] = {
    {"VQRMonitorInf64", "vqrmonitor.inf", false},
    {"VQRMonitor64", "vqrmonitor.sys", true},
    {"HVService64", "NorvaleHalvernService.exe", true},
};

// Program Files (CSIDL_PROGRAM_FILES) with a trailing backslash; false when it cannot be found.
bool program_files(std::string& path);

}  // namespace setup_tasks

// "hvs_install" / "hvs_fresh" (upgrade false) and "hvs_upgrade" (upgrade true). An upgrade that
// fails after the backup (up to the new service running with the protections back) puts the
// previous files back, registers and starts the previous program and gives back its service
// protections. The .bak files go only once the new service runs.
bool install_hvs(bool upgrade);
// "hvs_uninstall" / "hvs_remove": stop the service, then uninstallHV on the product folder.
bool uninstall_hvs();
// "hvs_folder_repair": resets the DACLs of `folder` and the product folder when the driver's
// command port cannot be reached; true at once when it can.
bool hvs_repair_folder_permission(const char* folder);

// The building blocks, for the tasks above and their tests.
// False for a null helper and for a service that cannot speak our protocol; true when no service
// is installed, or when the installed one is stopped and cannot be reached (a fresh install).
bool protoCompatible(invchelper* helper);
// With `protection_off`, protection off through `helper` first (an uninstall: the services are
// given back); `helper` is released and nulled either way. Then stop the service: the service
// manager's stop, up to 10 polls of 100 ms, then "net stop". An upgrade stops with protection on:
// the stopped service keeps its records, which the next start applies again.
void stop_protection_service(invchelper*& helper, bool protection_off = true);
// Records the names of the services the installed service protects as "services_backup". A
// failed query leaves an earlier record alone (an interrupted upgrade run again keeps it).
void services_backup(invchelper* helper);
// Protection and driver protection back on, then every service of "services_backup" (but our
// own) protected again. Only with a helper that passes protoCompatible. False, logged, when any
// step did not succeed.
bool services_restore(invchelper* helper);
// Renames the program and the driver file (and the older program) in `folder` to .bak, in
// place of a .bak left by an interrupted run (a rollback then restores the release that ran).
void backup_files(const std::string& folder);
void remove_backups(const std::string& folder);
// Stops the new service, puts the .bak files back, installs the driver from `folder` (the
// previous release's), registers (in place of a registration of the other program name) and
// starts the previous program (under its older name when that is the one backed up).
void restore_previous_service(const std::string& folder);
// Removes the service, the driver, the product files and folder and the product's registry
// key, after giving each quarantine container and blocked file it records its DACL back; always
// true (what could not be removed is logged).
bool uninstallHV(const std::string& folder);
bool restore_folder_permission(const std::string& folder);
// Writes the default folder DACL (unprotected, so the parent's inheritable entries apply).
bool restoreFolderPermissions(const std::string& folder);
// Enables or disables SeTakeOwnershipPrivilege in `token`.
bool SetPrivilege(HANDLE token, bool enable);
