// The setup tasks: install (fresh or upgrade with rollback), uninstall and folder repair.
#include "app/setup_tasks.h"

#include <shlobj.h>

#include <string>
#include <vector>

#include "app/program.h"
#include "app/service_commands.h"
#include "client/invchelper.h"
#include "mcl/log.h"
#include "mcl/mswin/filter_library.h"
#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "quarantine/quarantine_store.h"
#include "service/object_security.h"
#include "setup/driver_installer.h"

using namespace setup_tasks;
using mcl::mswin::unique_kernel_handle;
using svc = mcl::mswin::service;

namespace {

constexpr const char* default_folder_sddl =
    "D:AI(A;OICIID;FA;;;BA)(A;OICIID;FA;;;SY)(A;OICIID;0x1200a9;;;BU)(A;ID;0x1301bf;;;AU)(A;OICIIOID;SDGXGWGR;;;AU)";

// A client object owned until released; the stop sequence releases it early.
class helper_holder {
public:
    helper_holder() = default;
    ~helper_holder() { release(); }
    helper_holder(const helper_holder&) = delete;
    helper_holder& operator=(const helper_holder&) = delete;

    invchelper*& get() { return helper_; }
    // A new object when none is held; false when it cannot be created.
    bool ensure() {
        if (helper_ == nullptr) helper_ = NVClientHelper::createHelper();
        return helper_ != nullptr;
    }
    void release() {
        if (helper_ != nullptr) NVClientHelper::releaseHelper(helper_);
        helper_ = nullptr;
    }

private:
    invchelper* helper_ = nullptr;
};

bool service_state(DWORD& state) { return svc::query_state(service_name, state); }

bool stopped_or_stopping(DWORD state) { return state == SERVICE_STOPPED || state == SERVICE_STOP_PENDING; }

// Installed and neither stopped nor stop pending.
bool still_running() {
    DWORD state = 0;
    return svc::is_service_installed(service_name) && service_state(state) && !stopped_or_stopping(state);
}

bool file_exists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// The files renamed to .bak during an upgrade: the driver, the program and the older program.
std::vector<std::string> backed_up_files() {
    std::vector<std::string> names;
    for (const install_file& f : install_files)
        if (f.backed_up) names.push_back(f.name);
    names.push_back(old_program_name);
    return names;
}

// Starts the service through the service manager, then with "net start"; false when neither ran.
bool start_protection_service(const char* fn) {
    if (svc::start(service_name)) return true;
    const std::string command = std::string("net start ") + service_name;
    NV_LOG(fn, "Starting protection service with '%s'\n", command.c_str());
    const int result = run_command(command);
    if (result != 0) {
        NV_LOG(fn, "Failed to run command. error %d, Windows error %d\n", result, static_cast<int>(GetLastError()));
        return false;
    }
    return true;
}

// The program path of the service's registration; empty when there is none.
std::string registered_binary() {
    mcl::binary_t config;
    if (!svc::query_config(service_name, config)) return {};
    const auto* c = reinterpret_cast<const QUERY_SERVICE_CONFIGA*>(config.data());
    return c->lpBinaryPathName != nullptr ? c->lpBinaryPathName : "";
}

// Registers the program at `program` as the service by running it with "-i install".
int register_program(const char* fn, const std::string& program) {
    const std::string command = "\"" + program + "\" -i install";
    const int result = run_command(command);
    if (result != 0)
        NV_LOG(fn, "Failed to run command <%s>. error %d, Windows error %d\n", command.c_str(), result,
               static_cast<int>(GetLastError()));
    return result;
}

// Stops the previous service of an upgrade and waits for its process; removes a registration
// whose program has the older name. False when the service would not stop.
bool stop_previous_service(invchelper*& helper) {
    constexpr const char* fn = "install_hvs";
    SERVICE_STATUS_PROCESS status{};
    DWORD pid = 0;
    if (svc::query_status_ex(service_name, status) && status.dwCurrentState == SERVICE_RUNNING) pid = status.dwProcessId;

    stop_protection_service(helper, /*protection_off=*/false);
    if (still_running()) {
        NV_LOG(fn, "Fail to stop protection service");
        return false;
    }

    // The files can be replaced only once the old process has let go of them.
    bool waited = false;
    if (pid != 0) {
        unique_kernel_handle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
        if (process) {
            const DWORD wait = WaitForSingleObject(process.get(), 10000);
            waited = wait == WAIT_OBJECT_0;
            if (!waited)
                NV_LOG(fn, "HVS process %d takes too long time to stop, WaitForSingleObject: %d, error: %d",
                       static_cast<int>(pid), static_cast<int>(wait), static_cast<int>(GetLastError()));
        }
    }
    if (!waited) Sleep(10000);

    const std::string binary = registered_binary();
    if (!binary.empty() && binary.find(program_name) == std::string::npos) (void)uninstall_service();
    return true;
}

// Copies the release's files from the running program's folder into `folder`.
bool copy_files(const std::string& folder) {
    for (const install_file& f : install_files) {
        const std::string from = g_module_dir + f.name;
        const std::string to = folder + f.name;
        if (!CopyFileA(from.c_str(), to.c_str(), /*fail_if_exists=*/FALSE)) {
            NV_LOG("install_hvs", "Failed to copy file '%s' -> '%s'. error %d\n", from.c_str(), to.c_str(),
                   static_cast<int>(GetLastError()));
            return false;
        }
    }
    return true;
}

// 0 when the folder was made or exists, else the Win32 error.
DWORD create_folder(const std::string& path) {
    if (CreateDirectoryA(path.c_str(), nullptr)) return 0;
    const DWORD err = GetLastError();
    return err == ERROR_ALREADY_EXISTS ? 0 : err;
}

// The rollback of a failed upgrade; each step needs a helper, and the rollback stops when none
// can be created.
void roll_back(helper_holder& helper, const std::string& folder) {
    if (!helper.ensure()) return;
    restore_previous_service(folder);
    if (!helper.ensure()) return;
    (void)services_restore(helper.get());
}

// The quarantine containers get the default folder DACL, and the blocked files the DACL they had,
// from the service's records: once the records are gone nothing could give them back.
void give_back_quarantine(const char* fn) {
    std::vector<std::string> names;
    mcl::mswin::reg::list_values(quarantine_store::quarantine_containers_key, names);
    for (const std::string& folder : names) {
        DWORD err = ERROR_SUCCESS;
        if (!object_security::current().set_file_sddl(fn, mcl::mswin::widen(folder), default_folder_sddl, err))
            NV_LOG(fn, "Unable to give quarantine container <%s> its permissions back, error: %d", folder.c_str(),
                   static_cast<int>(err));
    }
    names.clear();
    mcl::mswin::reg::list_values(quarantine_store::blocked_files_key, names);
    for (const std::string& path : names) {
        // The recorded DACL goes back protected or not, as it was.
        std::vector<std::string> sddl;
        DWORD err = ERROR_SUCCESS;
        if (!mcl::mswin::reg::read_string_list(quarantine_store::blocked_files_key, path.c_str(), sddl) ||
            sddl.size() != 1 ||
            !object_security::current().set_file_sddl(fn, mcl::mswin::widen(path), sddl.front().c_str(), err))
            NV_LOG(fn, "Unable to give blocked file <%s> its permissions back", path.c_str());
    }
}

}  // namespace

namespace setup_tasks {

bool program_files(std::string& path) {
    PIDLIST_ABSOLUTE list = nullptr;
    if (FAILED(SHGetSpecialFolderLocation(nullptr, CSIDL_PROGRAM_FILES, &list)) || list == nullptr) return false;
    char text[MAX_PATH] = {};
    const BOOL ok = SHGetPathFromIDListA(list, text);
    CoTaskMemFree(list);
    if (!ok) return false;
    path = text;
    if (path.empty() || path.back() != '\\') path += '\\';
    return true;
}

}  // namespace setup_tasks

bool protoCompatible(invchelper* helper) {
    constexpr const char* fn = "protoCompatible";
    NV_LOG(fn, "Checking halvern service compatibility.");
    if (helper == nullptr) return false;
    if (!helper->is_installed()) {
        NV_LOG(fn, "Halvern service has not been detected, prepare a fresh install.");
        return true;
    }
    if (!helper->connect(connect_timeout_ms)) {
        DWORD state = 0;
        if (!service_state(state) || !stopped_or_stopping(state)) return false;
        NV_LOG(fn, "Current installed halvern service is stopped and can not been re-started, treat it as fresh install.");
        return true;
    }
    if (!helper->proto_compatible()) {
        NV_LOG(fn,
               "Current installed halvern service uses an incompatible IPC protocol, could not estanblish the "
               "communication channel.");
        return false;
    }
    return true;
}

void stop_protection_service(invchelper*& helper, bool protection_off) {
    if (helper != nullptr) {
        if (protection_off) (void)helper->set_protection_enabled(false);
        NVClientHelper::releaseHelper(helper);
        helper = nullptr;
    }
    (void)svc::stop(service_name, /*event_fallback=*/true, /*seconds=*/60);
    DWORD state = 0;
    for (int i = 0; i < 10; ++i) {
        if (service_state(state) && stopped_or_stopping(state)) return;
        Sleep(100);
    }
    if (service_state(state) && stopped_or_stopping(state)) return;
    (void)run_command(std::string("net stop ") + service_name);
}

void services_backup(invchelper* helper) {
    std::vector<NVClientHelper::protected_service_info> services;
    if (helper == nullptr || !helper->query_protected_services(services)) return;
    (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, install_key, services_backup_value);
    std::vector<std::string> names;
    for (const auto& s : services)
        if (!s.name.empty()) names.push_back(s.name);
    if (!names.empty()) (void)mcl::mswin::reg::write_string_list(install_key, services_backup_value, names);
}

bool services_restore(invchelper* helper) {
    constexpr const char* fn = "services_restore";
    bool ok = protoCompatible(helper);
    if (ok) {
        ok = helper->set_protection_enabled(true);
        ok = helper->restore_driver_protection(false) && ok;
        std::vector<std::string> names;
        (void)mcl::mswin::reg::read_string_list(install_key, services_backup_value, names);
        std::vector<NVClientHelper::service_rule> rules;
        for (const std::string& name : names)
            if (!name.empty() && name != service_name) rules.push_back(NVClientHelper::service_rule{true, true, name});
        if (!rules.empty()) ok = helper->protect_services(rules) && ok;
    }
    if (!ok) NV_LOG(fn, "Failed to restore the protection of the services");
    return ok;
}

void backup_files(const std::string& folder) {
    for (const std::string& name : backed_up_files())
        (void)MoveFileExA((folder + name).c_str(), (folder + name + backup_suffix).c_str(), MOVEFILE_REPLACE_EXISTING);
}

void remove_backups(const std::string& folder) {
    for (const std::string& name : backed_up_files()) (void)DeleteFileA((folder + name + backup_suffix).c_str());
}

void restore_previous_service(const std::string& folder) {
    constexpr const char* fn = "restore_previous_service";
    invchelper* helper = NVClientHelper::createHelper();
    if (helper != nullptr && protoCompatible(helper)) {
        stop_protection_service(helper, /*protection_off=*/false);
        if (still_running()) NV_LOG(fn, "Fail to stop protection service");
    }
    if (helper != nullptr) NVClientHelper::releaseHelper(helper);

    for (const install_file& f : install_files) {
        if (!f.backed_up) continue;
        const std::string path = folder + f.name;
        (void)DeleteFileA(path.c_str());
        (void)MoveFileA((path + backup_suffix).c_str(), path.c_str());
    }
    const char* name = program_name;
    if (!file_exists(folder + name)) {
        name = old_program_name;
        (void)MoveFileA((folder + name + backup_suffix).c_str(), (folder + name).c_str());
    }
    const std::string program = folder + name;
    // The new program's registration (under the new name, after an upgrade from the older one)
    // would make "-i install" of the previous program a no-op.
    const std::string registered = registered_binary();
    if (!registered.empty() && registered.find(name) == std::string::npos) (void)uninstall_service();

    NV_LOG(fn, "Installing VQRMonitor driver...");
    (void)install_vqrmonitor(/*force=*/false, folder);
    (void)register_program(fn, program);
    (void)start_protection_service(fn);
}

bool install_hvs(bool upgrade) {
    constexpr const char* fn = "install_hvs";
    NV_LOG(fn, "Entering halvern service install proxy function...");
    helper_holder helper;
    std::string folder;  // known once Program Files is
    bool ok = false;
    do {
        if (!helper.ensure() || !protoCompatible(helper.get())) {
            NV_LOG(fn, "Fail to initialize the communicate interface with protection service");
            break;
        }
        if (upgrade) {
            services_backup(helper.get());
            if (!stop_previous_service(helper.get())) break;
        }

        NV_LOG(fn, "Initializing directories.");
        std::string pf;
        if (!program_files(pf)) {
            NV_LOG(fn, "Failed to get program files path.\n");
            break;
        }
        folder = pf + product_subfolder;

        NV_LOG(fn, "Backup files.");
        backup_files(folder);

        NV_LOG(fn, "Creating folders.");
        if (const DWORD err = create_folder(pf + vendor_subfolder)) {
            NV_LOG(fn, "Failed to create vender folder. error: %d\n", static_cast<int>(err));
            break;
        }
        if (const DWORD err = create_folder(folder)) {
            NV_LOG(fn, "Failed to create product folder. error: %d\n", static_cast<int>(err));
            break;
        }

        NV_LOG(fn, "Copying files.");
        if (!copy_files(folder)) break;

        NV_LOG(fn, "Installing VQRMonitor driver...");
        if (install_vqrmonitor(/*force=*/false) != 0) {
            NV_LOG(fn, "Failed to install the driver.");
            break;
        }

        NV_LOG(fn, "Installing halvern service...");
        if (register_program(fn, folder + program_name) != 0) break;

        NV_LOG(fn, "Starting protection service\n");
        if (!start_protection_service(fn)) break;

        SleepEx(2000, /*alertable=*/TRUE);
        DWORD state = 0;
        if (!service_state(state) || state != SERVICE_RUNNING) {
            NV_LOG(fn, "Fail to start protection service");
            break;
        }

        if (upgrade && helper.ensure()) (void)services_restore(helper.get());
        // Only now that the new service runs: until then a failure can still put these back.
        remove_backups(folder);
        ok = true;
    } while (false);

    if (!ok && upgrade && !folder.empty()) roll_back(helper, folder);
    helper.release();
    NV_LOG(fn, "Leaving halvern service install function...");
    return ok;
}

bool uninstall_hvs() {
    constexpr const char* fn = "uninstall_hvs";
    NV_LOG(fn, "Entering halvern service uninstall proxy function...");
    helper_holder helper;
    bool ok = false;
    do {
        if (!helper.ensure() || !protoCompatible(helper.get())) {
            NV_LOG(fn, "Fail to initialize the communicate interface with protection service");
            helper.release();
            break;
        }
        services_backup(helper.get());
        stop_protection_service(helper.get());
        if (still_running()) {
            NV_LOG(fn, "Fail to stop protection service");
            // Protection went off before the stop failed: the running service takes it back.
            if (helper.ensure()) (void)services_restore(helper.get());
            break;
        }
        NV_LOG(fn, "Initializing directories.");
        std::string pf;
        if (!program_files(pf)) {
            NV_LOG(fn, "Failed to get program files path.\n");
            break;
        }
        NV_LOG(fn, "Uninstalling...");
        ok = uninstallHV(pf + product_subfolder);
        NV_LOG(fn, "Uninstall end");
    } while (false);
    NV_LOG(fn, "Leaving halvern service uninstall proxy function...");
    return ok;
}

bool uninstallHV(const std::string& folder) {
    constexpr const char* fn = "uninstallHV";
    NV_LOG(fn, "Uninstalling halvern service...");
    (void)uninstall_service();

    NV_LOG(fn, "Uninstalling VQRMonitor driver...");
    (void)uninstall_vqrmonitor(nullptr);

    NV_LOG(fn, "Removing files...");
    for (const install_file& f : install_files) (void)DeleteFileA((folder + f.name).c_str());
    // What the product wrote there itself, so that the folder can go: the older program, the
    // backups of an upgrade, the service's debug log and the task logs.
    for (const std::string& name : backed_up_files()) (void)DeleteFileA((folder + name + backup_suffix).c_str());
    for (const char* name : {old_program_name, "nvhalvernservice.debug.log", "hvs_install.log", "hvs_upgrade.log",
                             "hvs_uninstall.log"})
        (void)DeleteFileA((folder + name).c_str());

    NV_LOG(fn, "trying to remove folder...");
    if (!RemoveDirectoryA(folder.c_str()))
        NV_LOG(fn, "Unable to remove folder <%s>, error: %d", folder.c_str(), static_cast<int>(GetLastError()));

    give_back_quarantine(fn);
    NV_LOG(fn, "trying to remove registry entries...");
    if (!mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, helper_key, nullptr) &&
        !mcl::mswin::reg::force_remove(HKEY_LOCAL_MACHINE, helper_key))
        NV_LOG(fn, "Unable to remove registry entries.");
    return true;
}

bool hvs_repair_folder_permission(const char* folder) {
    constexpr const char* fn = "hvs_repair_folder_permission";
    NV_LOG(fn, "Determine whether folder <%s> permissions need to be repaired.\n", folder);
    const filter_library::entry_points& lib = filter_library::get();
    if (SUCCEEDED(mcl::mswin::connect_filter_port(lib.connect, lib.load_error, vqr::command_port_name).hr)) {
        NV_LOG(fn, "Driver can be loaded, no repair needed. \n");
        return true;
    }
    NV_LOG(fn, "Driver could not be loaded, repair needed. \n");
    return restore_folder_permission(folder);
}

bool restore_folder_permission(const std::string& folder) {
    constexpr const char* fn = "restore_folder_permission";
    std::vector<std::string> repair;
    if (GetFileAttributesA(folder.c_str()) == INVALID_FILE_ATTRIBUTES)
        NV_LOG(fn, "Folder <%s> does not exist.", folder.c_str());
    else
        repair.push_back(folder);

    NV_LOG(fn, "Initializing directories.");
    std::string pf;
    if (!program_files(pf)) {
        NV_LOG(fn, "Failed to get program files path.\n");
        return false;
    }
    const std::string product = pf + product_subfolder;
    if (GetFileAttributesA(product.c_str()) == INVALID_FILE_ATTRIBUTES)
        NV_LOG(fn, "HVS folder <%s> does not exist.", product.c_str());
    else
        repair.push_back(product);

    bool all = true;
    for (const std::string& f : repair) all = restoreFolderPermissions(f) && all;
    if (all) return true;

    // Someone else owns a folder and keeps us out: take ownership as Administrators, then again.
    mcl::mswin::sid admins;
    if (!mcl::mswin::sid::from_well_known(WinBuiltinAdministratorsSid, admins)) {
        NV_LOG(fn, "AllocateAndInitializeSid (Admin) error %u\n", static_cast<unsigned>(GetLastError()));
        return false;
    }
    unique_kernel_handle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, token.put())) {
        NV_LOG(fn, "OpenProcessToken failed: %u\n", static_cast<unsigned>(GetLastError()));
        return false;
    }
    if (!SetPrivilege(token.get(), true)) {
        NV_LOG(fn, "Current process must be logged on as Administrator.\n");
        return false;
    }
    bool result = true;
    for (const std::string& f : repair) {
        const DWORD err = object_security::current().set_file_owner(mcl::mswin::widen(f), admins.get());
        if (err != ERROR_SUCCESS) {
            NV_LOG(fn, "Could not set owner for <%s>. Error: %u\n", f.c_str(), static_cast<unsigned>(err));
            result = false;
        }
    }
    if (!SetPrivilege(token.get(), false)) {
        NV_LOG(fn, "Failed SetPrivilege call unexpectedly.\n");
        result = false;
    }
    for (const std::string& f : repair) result = restoreFolderPermissions(f) && result;
    return result;
}

bool restoreFolderPermissions(const std::string& folder) {
    constexpr const char* fn = "restoreFolderPermissions";
    NV_LOG(fn, "Restoring permissions of folder (%s)\n", folder.c_str());
    DWORD err = ERROR_SUCCESS;
    if (object_security::current().set_file_sddl(fn, mcl::mswin::widen(folder), default_folder_sddl, err)) return true;
    if (err != ERROR_SUCCESS) NV_LOG(fn, "SetNamedSecurityInfo failed(%s, %d)\n", folder.c_str(), static_cast<int>(err));
    return false;
}

bool SetPrivilege(HANDLE token, bool enable) {
    return mcl::mswin::reg::set_privilege(token, "SeTakeOwnershipPrivilege", enable, "SetPrivilege");
}
