#include "setup/driver_installer.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/filter_library.h"
#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/os_version.h"
#include "mcl/mswin/privilege.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"

namespace driver_installer {
namespace {

paths g_paths;

bool is_regular_file(const std::string& path) {
    const DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// The short form of Windows directory + `tail`, or `fallback` (logged) when there is none.
std::string short_system_file(const char* function, const char* tail, const char* fallback) {
    const std::string full = g_paths.windows_dir + tail;
    char buffer[MAX_PATH] = {};
    const DWORD n = GetShortPathNameA(full.c_str(), buffer, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) {
        NV_LOG(function, "Failed to get short path name for path '%s'. error %d\n", full.c_str(),
               static_cast<int>(n == 0 ? GetLastError() : ERROR_INSUFFICIENT_BUFFER));
        return fallback;
    }
    return std::string(buffer, n);
}

// RUNDLL32 SETUPAPI,InstallHinfSection <section> 132 <inf>
std::string setup_command(const char* function, const char* section, const std::string& inf_path) {
    const std::string rundll = short_system_file(function, "\\System32\\RUNDLL32.EXE", "RUNDLL32.EXE");
    const std::string setupapi = short_system_file(function, "\\System32\\SETUPAPI.DLL", "SETUPAPI.DLL");
    return rundll + " " + setupapi + ",InstallHinfSection " + section + " 132 " + inf_path;
}

// Deletes the value; one that is not there (the usual case for "WOW64") is not a failure.
void remove_value(const char* key, const char* name) {
    mcl::binary_t existing;
    if (mcl::mswin::reg::read_value(key, name, existing)) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, key, name);
}

HRESULT missing_export(const filter_library::entry_points& lib) {
    return FAILED(lib.load_error) ? lib.load_error : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
}

// Whether the driver's command port answers; logs the failure.
bool driver_port_responds() {
    const filter_library::entry_points& lib = filter_library::get();
    const HRESULT hr = mcl::mswin::connect_filter_port(lib.connect, lib.load_error, vqr::command_port_name).hr;
    if (SUCCEEDED(hr)) return true;
    NV_LOG("install_vqrmonitor", "Could not connect to filter: %d - %ls, reinstall the driver.", static_cast<int>(hr),
           filter_library::error_text(hr).c_str());
    return false;
}

}  // namespace

const paths& current_paths() { return g_paths; }

}  // namespace driver_installer

using namespace driver_installer;

int initDirs() {
    char buffer[MAX_PATH + 1] = {};
    const UINT n = GetWindowsDirectoryA(buffer, MAX_PATH);
    if (n == 0 || n > MAX_PATH) {
        NV_LOG("initDirs", "Failed to get Windows directory. error %d\n", static_cast<int>(GetLastError()));
        return dirs_failed;
    }
    std::string windows(buffer, n);
    while (!windows.empty() && windows.back() == '\\') windows.pop_back();
    g_paths.windows_dir = windows;
    g_paths.installed_driver = windows + "\\System32\\Drivers\\VQRMonitor.sys";

    char module[512 + 1] = {};
    const DWORD m = GetModuleFileNameA(nullptr, module, 512);
    const char* slash = m == 0 || m >= 512 ? nullptr : strrchr(module, '\\');
    if (slash == nullptr) {
        NV_LOG("initDirs", "Failed to get install directory.\n");
        return dirs_failed;
    }
    g_paths.install_dir.assign(module, static_cast<size_t>(slash - module) + 1);
    g_paths.source_driver = g_paths.install_dir + "VQRMonitor.sys";
    return ok;
}

int init_inf_file() {
    const std::string full = g_paths.install_dir + "VQRMonitor.inf";
    char buffer[MAX_PATH] = {};
    const DWORD n = GetShortPathNameA(full.c_str(), buffer, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) {
        const int err = static_cast<int>(n == 0 ? GetLastError() : ERROR_INSUFFICIENT_BUFFER);
        g_paths.inf.clear();
        NV_LOG("init_inf_file", "Failed to get short path name for path '%s'. error %d\n", full.c_str(), err);
        return err;
    }
    g_paths.inf.assign(buffer, n);
    return ok;
}

bool IsDriverInstalled() {
    mcl::mswin::unique_sc_handle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return false;
    mcl::mswin::unique_sc_handle service(OpenServiceA(manager.get(), service_name, SERVICE_QUERY_STATUS));
    if (!service) return false;
    const DWORD attributes = GetFileAttributesA(g_paths.installed_driver.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        const DWORD err = attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_FILE_NOT_FOUND;
        NV_LOG("IsDriverInstalled", "driver file not detected, %s. error: %d\n", g_paths.installed_driver.c_str(),
               static_cast<int>(err));
        return false;
    }
    return true;
}

std::string GetFileVersionString(const std::string& path) {
    std::string version;
    DWORD handle = 0;
    const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &handle);
    if (size == 0) {
        NV_LOG("GetFileVersionString", "Failed to get version information size from file '%s'. error %d\n",
               path.c_str(), static_cast<int>(GetLastError()));
    } else {
        std::unique_ptr<char[]> block(new (std::nothrow) char[size]);
        struct translation {
            WORD language;
            WORD code_page;
        };
        translation* translations = nullptr;
        char* value = nullptr;
        UINT length = 0;
        if (!block) {
            NV_LOG("GetFileVersionString", "Failed to allocated %u bytes of data for version info\n",
                   static_cast<unsigned>(size));
        } else if (!GetFileVersionInfoA(path.c_str(), 0, size, block.get())) {
            NV_LOG("GetFileVersionString", "Failed to read file version information from DLL. error %d\n",
                   static_cast<int>(GetLastError()));
        } else if (!VerQueryValueA(block.get(), "\\VarFileInfo\\Translation", reinterpret_cast<void**>(&translations),
                                   &length) ||
                   translations == nullptr || length < sizeof(translation)) {
            NV_LOG("GetFileVersionString", "Failed to translation from version info block\n");
        } else {
            char query[64];
            snprintf(query, sizeof(query), "\\StringFileInfo\\%08lX\\FileVersion",
                     static_cast<unsigned long>(translations[0].language) << 16 | translations[0].code_page);
            if (!VerQueryValueA(block.get(), query, reinterpret_cast<void**>(&value), &length) || value == nullptr) {
                NV_LOG("GetFileVersionString", "Failed to extract file version from version info block\n");
            } else {
                version.assign(value, strnlen(value, length));
            }
        }
    }
    NV_LOG("GetFileVersionString", "fileVersionString: '%s'\n", version.c_str());
    return version;
}

int run_command(const std::string& command_line) {
    if (command_line.empty()) return empty_argument;
    if (command_line.size() > max_command) return command_too_long;
    // CreateProcessA may write to the command line, so it gets a copy.
    std::vector<char> buffer(max_command + 1, '\0');
    memcpy(buffer.data(), command_line.data(), command_line.size());
    STARTUPINFOA startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESHOWWINDOW;
    startup.wShowWindow = SW_HIDE;
    PROCESS_INFORMATION process{};
    if (!CreateProcessA(/*application=*/nullptr, buffer.data(), nullptr, nullptr, /*inherit=*/FALSE,
                        CREATE_NO_WINDOW | CREATE_NEW_CONSOLE, /*environment=*/nullptr, /*directory=*/nullptr, &startup,
                        &process))
        return command_not_run;
    mcl::mswin::unique_kernel_handle process_handle(process.hProcess);
    mcl::mswin::unique_kernel_handle thread_handle(process.hThread);
    WaitForSingleObject(process_handle.get(), INFINITE);
    return ok;
}

void fillDriverRegs(DWORD tag) {
    NV_LOG("fillDriverRegs", "Restore any missing driver registry.\n");
    const std::string key = service_key;
    const std::string instances = instances_key;
    const std::string bottom = instances + "\\VQRMonitor - Bottom Instance";
    const std::string middle = instances + "\\VQRMonitor - Middle Instance";
    const std::string top = instances + "\\VQRMonitor - Top Instance";
    const char* const service_failure = "";  // which part of the layout, in the failure line

    struct value {
        const std::string& key;
        const char* name;
        DWORD type;
        std::string data;  // the bytes as written
        const char* part;
    };
    auto dword = [](DWORD v) { return std::string(reinterpret_cast<const char*>(&v), sizeof(v)); };
    auto sz = [](const std::string& s) { return std::string(s.c_str(), s.size() + 1); };
    const value layout[] = {
        {key, "Type", REG_DWORD, dword(SERVICE_FILE_SYSTEM_DRIVER), service_failure},
        {key, "Start", REG_DWORD, dword(SERVICE_SYSTEM_START), service_failure},
        {key, "ErrorControl", REG_DWORD, dword(SERVICE_ERROR_NORMAL), service_failure},
        {key, "ImagePath", REG_EXPAND_SZ, sz(g_paths.installed_driver), service_failure},
        {key, "DisplayName", REG_SZ, sz(service_name), service_failure},
        {key, "DependOnService", REG_MULTI_SZ, std::string("FltMgr\0", 8), service_failure},
        {key, "Group", REG_SZ, sz("FSFilter Activity Monitor"), service_failure},
        {key, "Tag", REG_DWORD, dword(tag), service_failure},
        {key, "Description", REG_SZ, sz("VQRMonitor mini-filter driver"), service_failure},
        {key, "SupportedFeatures", REG_DWORD, dword(3), service_failure},
        {instances, "DefaultInstance", REG_SZ, sz("VQRMonitor - Top Instance"),
         "instance "},
        {bottom, "Altitude", REG_SZ, sz("362700"), "bottom instance "},
        {bottom, "Flags", REG_DWORD, dword(1), "bottom instance "},
        {middle, "Altitude", REG_SZ, sz("368520"), "middle instance "},
        {middle, "Flags", REG_DWORD, dword(1), "middle instance "},
        {top, "Altitude", REG_SZ, sz("383350"), "top instance "},
        {top, "Flags", REG_DWORD, dword(1), "top instance "},
    };
    for (const value& v : layout) {
        mcl::binary_t existing;
        if (mcl::mswin::reg::read_value(v.key, v.name, existing)) continue;  // present, whatever it holds
        if (!mcl::mswin::reg::write_value(v.key, v.name, v.data.data(), static_cast<DWORD>(v.data.size()), v.type))
            NV_LOG("fillDriverRegs", "Failed to write driver %sregistry: %s\n", v.part, v.name);
    }
    remove_value(service_key, wow64_value);
}

int DoInstall2() {
    NV_LOG("DoInstall2", "Begin install VQRMonitor driver\n");
    NV_LOG("DoInstall2", "Copying '%s' to '%s'\n", g_paths.source_driver.c_str(), g_paths.installed_driver.c_str());
    if (!CopyFileExA(g_paths.source_driver.c_str(), g_paths.installed_driver.c_str(), nullptr, nullptr, nullptr,
                     /*flags: overwrite allowed*/ 0)) {
        NV_LOG("DoInstall2", "Failed to copy '%s' to '%s'. error %d\n", g_paths.source_driver.c_str(),
               g_paths.installed_driver.c_str(), static_cast<int>(GetLastError()));
        return file_failed;
    }
    NV_LOG("DoInstall2", "Opening SCM\n");
    mcl::mswin::unique_sc_handle manager(OpenSCManagerA(nullptr, SERVICES_ACTIVE_DATABASEA, SC_MANAGER_CREATE_SERVICE));
    if (!manager) {
        NV_LOG("DoInstall2", "Failed to open SCM with create service access. error %d\n",
               static_cast<int>(GetLastError()));
        return no_service_manager;
    }
    NV_LOG("DoInstall2", "Creating service '%s'\n", service_name);
    DWORD tag = default_tag;
    mcl::mswin::unique_sc_handle service(CreateServiceA(
        manager.get(), service_name, /*display_name=*/service_name, SERVICE_ALL_ACCESS, SERVICE_FILE_SYSTEM_DRIVER,
        SERVICE_SYSTEM_START, SERVICE_ERROR_NORMAL, g_paths.installed_driver.c_str(), "FSFilter Activity Monitor", &tag,
        /*dependencies=*/"FltMgr\0", /*account=*/nullptr, /*password=*/nullptr));
    if (service) {
        NV_LOG("DoInstall2", "Service created\n");
    } else {
        const DWORD err = GetLastError();
        if (err == ERROR_SERVICE_EXISTS) {
            NV_LOG("DoInstall2", "Service already exists\n");
            return ok;
        }
        NV_LOG("DoInstall2", "Failed to create service. error %d\n", static_cast<int>(err));
    }
    service.reset();
    manager.reset();
    fillDriverRegs(tag != 0 ? tag : default_tag);
    if (!IsDriverInstalled()) {
        NV_LOG("DoInstall2", "Driver install failed\n");
        return install_failed;
    }
    NV_LOG("DoInstall2", "Driver install succeeded\n");
    return ok;
}

int DoInstall(const std::string& inf_path) {
    const std::string command = setup_command("DoInstall", "DefaultInstall", inf_path);
    NV_LOG("DoInstall", "Installing with '%s'\n", command.c_str());
    const int result = run_command(command);
    if (result != ok) {
        NV_LOG("DoInstall", "Failed to run command. error %d, Windows error %d\n", result,
               static_cast<int>(GetLastError()));
        return result;
    }
    NV_LOG("DoInstall", "rundll command ran successfully\n");
    remove_value(service_key, wow64_value);
    if (IsDriverInstalled()) return ok;
    NV_LOG("DoInstall", "Driver install failed\n");
    return DoInstall2();
}

int DoUninstall2(bool* marked_for_deletion) {
    NV_LOG("DoUninstall2", "Begin uninstall\n");
    if (marked_for_deletion != nullptr) *marked_for_deletion = false;
    int result = ok;
    NV_LOG("DoUninstall2", "Opening SCM\n");
    mcl::mswin::unique_sc_handle manager(OpenSCManagerA(nullptr, SERVICES_ACTIVE_DATABASEA, SC_MANAGER_CREATE_SERVICE));
    if (!manager) {
        NV_LOG("DoUninstall2", "Failed to open SCM with create service access. error %d\n",
               static_cast<int>(GetLastError()));
        result = no_service_manager;
    } else {
        NV_LOG("DoUninstall2", "Opening service '%s'\n", service_name);
        mcl::mswin::unique_sc_handle service(OpenServiceA(manager.get(), service_name, SERVICE_ALL_ACCESS));
        if (!service) {
            const DWORD err = GetLastError();
            if (err == ERROR_SERVICE_DOES_NOT_EXIST)
                NV_LOG("DoUninstall2", "Service not installed\n");
            else
                NV_LOG("DoUninstall2", "Failed to open service. error %d\n", static_cast<int>(err));
        } else {
            NV_LOG("DoUninstall2", "Stopping service '%s'\n", service_name);
            SERVICE_STATUS status{};
            if (ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) {
                NV_LOG("DoUninstall2", "Service stopped\n");
            } else {
                const DWORD err = GetLastError();
                if (err == ERROR_SERVICE_NOT_ACTIVE)
                    NV_LOG("DoUninstall2", "Service is not active\n");
                else
                    NV_LOG("DoUninstall2", "Failed to stop service. error %d\n", static_cast<int>(err));
            }
            NV_LOG("DoUninstall2", "Deleting service '%s'\n", service_name);
            if (!DeleteService(service.get())) {
                const DWORD err = GetLastError();
                NV_LOG("DoUninstall2", "Failed to delete service. error %d\n", static_cast<int>(err));
                if (err == ERROR_SERVICE_MARKED_FOR_DELETE && marked_for_deletion != nullptr)
                    *marked_for_deletion = true;
                result = command_not_run;
            } else {
                NV_LOG("DoUninstall2", "Service deleted\n");
            }
        }
    }

    const char* installed = g_paths.installed_driver.c_str();
    NV_LOG("DoUninstall2", "Deleting installed file '%s'\n", installed);
    if (DeleteFileA(installed)) {
        NV_LOG("DoUninstall2", "Installed file '%s' deleted\n", installed);
    } else {
        const DWORD err = GetLastError();
        if (err == ERROR_FILE_NOT_FOUND) {
            NV_LOG("DoUninstall2", "No driver file found to delete\n");
        } else {
            if (result == ok) result = file_failed;
            NV_LOG("DoUninstall2", "Failed to delete driver file '%s'. error %d\n Trying rename the file...", installed,
                   static_cast<int>(err));
            const std::string renamed = rename_driver_file();
            if (renamed.empty()) {
                NV_LOG("DoUninstall2", "Failed to rename driver file '%s'.\n", installed);
            } else if (MoveFileExA(renamed.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT)) {
                NV_LOG("DoUninstall2", "Driver file '%s' will be deleted after reboot.\n", renamed.c_str());
                result = ok;
            } else {
                NV_LOG("DoUninstall2", "Failed to register file '%s' to be deleted after reboot. error %d\n",
                       renamed.c_str(), static_cast<int>(GetLastError()));
            }
        }
    }
    NV_LOG("DoUninstall2", "End uninstall, res = %d\n", result);
    return result;
}

int DoUninstall(const std::string& inf_path, bool* marked_for_deletion) {
    // FilterUnload needs the load-driver privilege enabled in the caller's token.
    const mcl::mswin::scoped_privilege load_driver(SE_LOAD_DRIVER_NAME);
    if (!load_driver.switched())
        NV_LOG("DoUninstall", "Failed to enable %s. error %d\n", SE_LOAD_DRIVER_NAME, static_cast<int>(load_driver.error()));
    const filter_library::entry_points& lib = filter_library::get();
    const HRESULT hr = lib.unload == nullptr ? missing_export(lib) : lib.unload(vqr::filter_name);
    if (FAILED(hr))
        NV_LOG("DoUninstall", "Unable to unload driver '%s', error: %d\n", service_name, static_cast<int>(hr));

    const std::string command = setup_command("DoUninstall", "DefaultUninstall", inf_path);
    NV_LOG("DoUninstall", "Uninstalling with '%s'\n", command.c_str());
    const int run = run_command(command);
    if (run == ok)
        NV_LOG("DoUninstall", "rundll command ran successfully\n");
    else
        NV_LOG("DoUninstall", "Failed to run command. error %d, Windows error %d\n", run,
               static_cast<int>(GetLastError()));

    const bool file_was_there = is_regular_file(g_paths.installed_driver);
    const int result = DoUninstall2(marked_for_deletion);
    return file_was_there ? result : ok;
}

std::string rename_driver_file() {
    const std::string& installed = g_paths.installed_driver;
    for (int n = 0; n < 1000; ++n) {
        const std::string candidate = installed + "." + std::to_string(n);
        if (is_regular_file(candidate)) continue;
        if (!MoveFileA(installed.c_str(), candidate.c_str())) {
            NV_LOG("rename_driver_file", "Failed to rename driver file '%s' -> '%s'. error %d\n", installed.c_str(),
                   candidate.c_str(), static_cast<int>(GetLastError()));
            return {};
        }
        NV_LOG("rename_driver_file", "Renamed driver file '%s' -> '%s'\n", installed.c_str(), candidate.c_str());
        return candidate;
    }
    return {};
}

namespace {

// The directories and the INF path that an install or uninstall starts from, logged under `fn`;
// a missing INF path stops only a caller that needs it.
int prepare_paths(const char* fn, bool need_inf, const std::string& package_dir = std::string()) {
    int result = initDirs();
    if (result != ok) {
        NV_LOG(fn, "Failed to initialize the directories\n");
        return result;
    }
    if (!package_dir.empty()) {
        g_paths.install_dir = package_dir;
        g_paths.source_driver = package_dir + "VQRMonitor.sys";
    }
    result = init_inf_file();
    if (result != ok) {
        NV_LOG(fn, "Failed to initialize the inf file path\n");
        if (need_inf) return result;
    }
    return ok;
}

}  // namespace

int uninstall_vqrmonitor(bool* marked_for_deletion) {
    if (marked_for_deletion != nullptr) *marked_for_deletion = false;
    int result = prepare_paths("uninstall_vqrmonitor", /*need_inf=*/true);
    if (result != ok) return result;
    result = DoUninstall(g_paths.inf, marked_for_deletion);
    if (result == ok) remove_value(service_key, skip_first_create_value);
    return result;
}

namespace {

// An installed driver is only ever removed for a package that is really there: the file beside
// the executable must exist and carry a readable version. 0, or the reason, logged.
int check_package(std::string& version) {
    const std::string& source = g_paths.source_driver;
    const DWORD attributes = GetFileAttributesA(source.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        const int err = static_cast<int>(attributes == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_FILE_NOT_FOUND);
        NV_LOG("install_vqrmonitor", "Driver package file '%s' is missing. error %d, nothing changed\n", source.c_str(),
               err);
        return err;
    }
    version = GetFileVersionString(source);
    if (version.empty()) {
        NV_LOG("install_vqrmonitor", "Driver package file '%s' has no readable version, nothing changed\n",
               source.c_str());
        return no_package_version;
    }
    return ok;
}

}  // namespace

int install_vqrmonitor(bool force, const std::string& package_dir) {
    int result = prepare_paths("install_vqrmonitor", /*need_inf=*/!force, package_dir);
    if (result != ok) return result;
    std::string source_version;
    result = check_package(source_version);
    if (result != ok) return result;

    if (IsDriverInstalled() && source_version == GetFileVersionString(g_paths.installed_driver) &&
        driver_port_responds()) {
        remove_value(install_key, driver_updated_value);
        NV_LOG("install_vqrmonitor", "Installed driver version has not changed - not doing install\n");
        return ok;
    }

    bool marked = false;
    if (IsDriverInstalled()) {
        (void)mcl::mswin::reg::write_dword(install_key, driver_updated_value, 1);
        (void)uninstall_vqrmonitor(&marked);
        // The uninstall set the paths up from the executable's folder again.
        if (!package_dir.empty()) (void)prepare_paths("install_vqrmonitor", /*need_inf=*/!force, package_dir);
    } else {
        remove_value(install_key, driver_updated_value);
    }
    if (is_regular_file(g_paths.installed_driver)) (void)DeleteFileA(g_paths.installed_driver.c_str());
    if (!force && marked) {
        NV_LOG("install_vqrmonitor",
               "Previous driver service has been marked for deletion, but not yet removed, the new driver will be "
               "installed after reboot.");
        return ok;
    }

    result = DoInstall(g_paths.inf);
    if (!mcl::mswin::is_windows_at_least(6, 3)) {
        (void)mcl::mswin::reg::write_dword(service_key, skip_first_create_value, 1);
        if (mcl::mswin::is_windows_at_least(6, 2)) {
            NV_LOG("install_vqrmonitor", "Windows 8 / Server 2012 detected, set service manager path.");
            (void)mcl::mswin::reg::write_string(service_key, svc_mgr_path_value,
                                                g_paths.windows_dir + "\\System32\\services.exe");
        }
    }
    return result;
}
