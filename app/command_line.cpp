#include "app/command_line.h"

#include <windows.h>

#include <cstdio>
#include <string>

#include "app/log.h"
#include "app/program.h"
#include "app/service_commands.h"
#include "app/setup_tasks.h"
#include "mcl/mswin/os_version.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"
#include "service/release.h"
#include "setup/driver_installer.h"

using mcl::mswin::unique_kernel_handle;

namespace {

bool iequals(const char* a, const char* b) {
    for (;; ++a, ++b) {
        const int ca = tolower(static_cast<unsigned char>(*a));
        const int cb = tolower(static_cast<unsigned char>(*b));
        if (ca != cb) return false;
        if (ca == 0) return true;
    }
}

void say(const char* line) { printf("%s\n", line); }

int install_command() {
    say("Installing halvern service...");
    if (mcl::mswin::service::is_service_installed(k_service_name)) {
        say("Halvern srvice has already been installed.");
        return -1;
    }
    g_module_path = "\"" + g_module_path + "\"";
    if (!install_service(g_module_path) || !mcl::mswin::service::is_service_installed(k_service_name)) {
        say("Failed to install halvern service!");
        return -2;
    }
    return -1;
}

int uninstall_command() {
    say("Uninstalling halvern service...");
    if (!mcl::mswin::service::is_service_installed(k_service_name)) {
        say("Halvern srvice is not installed.");
        return -1;
    }
    if (!uninstall_service()) {
        say("Failed to uninstall halvern service!");
        return -2;
    }
    return -1;
}

int install_option(const char* sub) {
    if (sub == nullptr) {
        print_usage();
        return -2;
    }
    if (iequals(sub, "install")) return install_command();
    if (iequals(sub, "uninstall")) return uninstall_command();
    if (iequals(sub, "instdrv")) {
        say("Installing driver...");
        if (install_vqrmonitor(true) == 0) return -1;
        say("Failed to install driver!");
        return -2;
    }
    if (iequals(sub, "uninstdrv")) {
        say("Uninstalling driver...");
        return uninstall_vqrmonitor(nullptr) == 0 ? -1 : -2;
    }
    print_usage();
    return -2;
}

int service_option(const char* sub) {
    if (sub != nullptr && iequals(sub, "start")) {
        if (mcl::mswin::service::start(k_service_name)) return -1;
        say("Failed to start halvern service!");
        return -2;
    }
    if (sub != nullptr && iequals(sub, "stop")) {
        if (mcl::mswin::service::stop(k_service_name, /*event_fallback=*/true, /*seconds=*/60)) return -1;
        say("Failed to stop halvern service!");
        return -2;
    }
    print_usage();
    return -2;
}

// A setup task, and the name of the copy of the debug log made after it (or null).
struct proxy_task {
    const char* name;
    int (*run)(const char* argument);
    const char* log_copy;
};

int task_result(bool ok) { return ok ? -1 : -2; }

const proxy_task proxy_tasks[] = {
    {"hvs_uninstall", [](const char*) { return task_result(uninstall_hvs()); }, "hvs_uninstall.log"},
    {"hvs_remove", [](const char*) { return task_result(uninstall_hvs()); }, "hvs_uninstall.log"},
    {"hvs_install", [](const char*) { return task_result(install_hvs(false)); }, "hvs_install.log"},
    {"hvs_fresh", [](const char*) { return task_result(install_hvs(false)); }, "hvs_install.log"},
    {"hvs_upgrade", [](const char*) { return task_result(install_hvs(true)); }, "hvs_upgrade.log"},
    {"hvs_folder_repair",
     [](const char* folder) { return folder == nullptr ? -2 : task_result(hvs_repair_folder_permission(folder)); },
     nullptr},
    {"hvs_unchange", [](const char*) { return -1; }, nullptr},
};

int proxy_task_option(const char* task, const char* argument) {
    if (task == nullptr) return -2;
    for (const proxy_task& t : proxy_tasks) {
        if (!iequals(task, t.name)) continue;
        const int result = t.run(argument);
        if (t.log_copy != nullptr) {
            const std::string copy = g_module_dir + t.log_copy;
            CopyFileA(debug_log_path().c_str(), copy.c_str(), /*fail_if_exists=*/FALSE);
        }
        return result;
    }
    return -2;
}

}  // namespace

void print_usage() {
    printf("Norvale Halvern Service for Windows - Version %s\n", this_release().usage_version);
    printf("\n");
    printf("Usage:\n");
    printf("\tNorvaleHalvernService [OPTIONS]\n");
    printf("\n");
    printf("\t-i install|uninstall\tInstall/Uninstall halvern service.\n");
    printf("\t-s start|stop\t\tStart/Stop halvern service.\n");
    printf("\t-d \t\t\tRun in debug(non-service) mode.\n");
    printf("\t-h\t\t\tDisplay this usage information.\n");
    printf("\n");
    printf("Example:\n");
    printf("\tNorvaleHalvernService -s start\n");
    printf("\tNorvaleHalvernService -s stop\n");
}

int check_service_state(const char* name) {
    if (name == nullptr) return -2;
    mcl::binary_t config;
    bool opened = false;
    if (!mcl::mswin::service::query_config(name, config, &opened)) return opened ? -2 : -5;
    if (reinterpret_cast<const QUERY_SERVICE_CONFIGA*>(config.data())->dwStartType == SERVICE_DISABLED) return -3;
    DWORD state = 0;
    if (mcl::mswin::service::query_state(name, state) && state != SERVICE_RUNNING) return -4;
    return 0;
}

bool is_process_elevated() {
    unique_kernel_handle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())) return false;

    if (mcl::mswin::is_windows_at_least(6, 0)) {
        TOKEN_ELEVATION elevation{};
        DWORD size = 0;
        return GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof(elevation), &size) &&
               elevation.TokenIsElevated != 0;
    }
    mcl::mswin::sid admins;
    if (!mcl::mswin::sid::from_well_known(WinBuiltinAdministratorsSid, admins)) return false;
    BOOL member = FALSE;
    return CheckTokenMembership(nullptr, admins.get(), &member) && member;
}

int run_command_line(int argc, char** argv) {
    if (argc < 2) return 0;
    const char* option = argv[1];
    const char* sub = argc > 2 ? argv[2] : nullptr;

    if (iequals(option, "-i")) return install_option(sub);
    if (iequals(option, "-s")) return service_option(sub);
    if (iequals(option, "-d")) {
        g_debug_mode = true;
        return 0;
    }
    if (iequals(option, "-c")) {
        // A running service is success (-1); 0 would mean "run the service" to the caller.
        const int state = check_service_state(sub);
        return state == 0 ? -1 : state;
    }
    if (iequals(option, "-e")) return is_process_elevated() ? -1 : -2;
    if (iequals(option, "-h")) {
        print_usage();
        return -1;
    }
    if (iequals(option, "-proxy_task")) return proxy_task_option(sub, argc > 3 ? argv[3] : nullptr);
    print_usage();
    return -2;
}
