// The service-control requests: start with arguments, stop (forcibly when the service
// resists), lift a service's protection, re-apply the driver switches, reset a folder's DACL;
// and the start and stop of the enforcement.
#include <windows.h>

#include <shellapi.h>
#include <tlhelp32.h>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/path_policy.h"
#include "mcl/mswin/process.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"
#include "service/helper_service.h"

namespace {

using mcl::mswin::unique_kernel_handle;

constexpr uint32_t request_stop_seconds = 30;
constexpr DWORD terminate_wait_ms = 30000;
constexpr UINT killed_exit_code = 9;

bool stopped_or_stopping(DWORD state) { return state == SERVICE_STOPPED || state == SERVICE_STOP_PENDING; }

}  // namespace

void chelperservice::startEnforcement() {
    if (!enforcement_.start())
        NV_LOG("chelperservice::startEnforcement", "The enforcement thread could not be started (%d)",
               static_cast<int>(GetLastError()));
}

void chelperservice::stopEnforcement() {
    enforcement_.stop(1000);
    NV_LOG("chelperservice::stopEnforcement", "chelperservice::service_enforce_thread stopped");
}

void chelperservice::killProcessByPath(const std::string& imagePath) {
    constexpr const char* fn = "killProcessByPath";
    unique_kernel_handle snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!snapshot) return;
    PROCESSENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32First(snapshot.get(), &entry); more; more = Process32Next(snapshot.get(), &entry)) {
        unique_kernel_handle process(OpenProcess(PROCESS_TERMINATE | PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE,
                                                 FALSE, entry.th32ProcessID));
        if (!process) continue;
        std::string image;
        if (!mcl::mswin::query_process_image(process.get(), image)) {
            NV_LOG(fn, "Unable to query process image path <%d:%s>, error: %d", static_cast<int>(entry.th32ProcessID),
                   entry.szExeFile, static_cast<int>(GetLastError()));
            continue;
        }
        const char* path = image.c_str();
        if (_stricmp(path, imagePath.c_str()) != 0) continue;
        if (!TerminateProcess(process.get(), killed_exit_code)) {
            NV_LOG(fn, "Failed to terminate process %d : %s", static_cast<int>(entry.th32ProcessID), path);
            continue;
        }
        NV_LOG(fn, "Terminating process %d : %s", static_cast<int>(entry.th32ProcessID), path);
        if (mcl::wait_unless_stopped(process.get(), terminate_wait_ms) == mcl::stop_wait::signalled) {
            NV_LOG(fn, "Process terminated.");
        } else {
            NV_LOG(fn, "Fail to terminate process %d", static_cast<int>(entry.th32ProcessID));
        }
    }
}

bool chelperservice::run_elevated(const std::string& program, const std::string& parameters, DWORD* exitCode) {
    SHELLEXECUTEINFOA info{};
    info.cbSize = sizeof(info);
    info.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOZONECHECKS | SEE_MASK_NOASYNC;
    info.lpVerb = "runas";
    info.lpFile = program.c_str();
    info.lpParameters = parameters.c_str();
    info.nShow = SW_HIDE;
    if (!ShellExecuteExA(&info)) return false;
    if (info.hProcess == nullptr) return true;
    unique_kernel_handle process(info.hProcess);
    (void)mcl::wait_unless_stopped(process.get(), terminate_wait_ms);
    if (exitCode == nullptr) return true;
    return GetExitCodeProcess(process.get(), exitCode) != FALSE;
}

bool chelperservice::service_ctrl_start_service(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::service_ctrl_start_service";
    protocol::start_service_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG(fn, "Malformed start request: no service name or argument list");
        return false;
    }
    const std::string& name = request.name;
    DWORD state = 0;
    const bool queried = mcl::mswin::service::query_state(name.c_str(), state);
    if (!queried) NV_LOG(fn, "Status of service <%s> unknown (%d)", name.c_str(), static_cast<int>(GetLastError()));
    if (!queried || !stopped_or_stopping(state)) {
        protocol::reply_with(payload, protocol::status(true, "Service has already been started."));
        return true;
    }
    std::vector<const char*> argv;
    for (const std::string& a : request.arguments) argv.push_back(a.c_str());
    const bool ok = mcl::mswin::service::start(name.c_str(), static_cast<DWORD>(argv.size()),
                                               argv.empty() ? nullptr : argv.data());
    if (ok && (!mcl::mswin::service::query_state(name.c_str(), state) || !stopped_or_stopping(state))) enforcement_.add(name);
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}

bool chelperservice::service_ctrl_stop_service(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::service_ctrl_stop_service";
    protocol::name_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG(fn, "Malformed stop request: no service name");
        return false;
    }
    const std::string& name = request.name;
    // Off the enforcement list before anything else, so that no pass starts it again meanwhile.
    const bool enforced = enforcement_.remove(name);
    DWORD state = 0;
    if (mcl::mswin::service::query_state(name.c_str(), state) && stopped_or_stopping(state)) {
        protocol::reply_with(payload, protocol::status(true, "Service has already been stopped."));
        return true;
    }
    SERVICE_STATUS_PROCESS status{};
    const bool queried = mcl::mswin::service::query_status_ex(name.c_str(), status);
    // A process the system cannot run without is neither stopped nor terminated, and the service
    // goes back on the enforcement list when it was on it.
    const DWORD current = queried ? status.dwProcessId : 0;
    const std::string image = current != 0 ? mcl::mswin::process_image(current)
                                            : mcl::mswin::to_utf8(service_image_path(name));
    const std::string critical = mcl::mswin::critical_process_reason(current, image);
    if (!critical.empty()) {
        if (enforced) enforcement_.add(name);
        NV_LOG(fn, "Stop of service <%s> refused: its process %d (%s) is %s", name.c_str(), static_cast<int>(current),
               image.c_str(), critical.c_str());
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
    const DWORD pid = queried && status.dwCurrentState == SERVICE_RUNNING ? status.dwProcessId : 0;
    if (mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/false, request_stop_seconds)) {
        protocol::reply_with(payload, protocol::status(true));
        return true;
    }
    // This service is stopping: no process of another is killed on the way out.
    if (mcl::stop_requested()) {
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
    NV_LOG(fn, "Failed to stop service <%s>, trying to terminate its process %d", name.c_str(), static_cast<int>(pid));
    if (pid == 0) {
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
    // Other services in that process end with it: said before it is terminated.
    std::string sharers;
    for (const std::string& other : mcl::mswin::services_in_process(pid))
        if (_stricmp(other.c_str(), name.c_str()) != 0) sharers += (sharers.empty() ? "" : ", ") + other;
    if (!sharers.empty())
        NV_LOG(fn, "Process %d of service <%s> also runs the services: %s; they end with it", static_cast<int>(pid),
               name.c_str(), sharers.c_str());
    bool ok = false;
    {
        unique_kernel_handle process(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, pid));
        if (!process) {
            NV_LOG(fn, "Failed to open process %d for termination, error: %d", static_cast<int>(pid),
                   static_cast<int>(GetLastError()));
        } else if (!TerminateProcess(process.get(), killed_exit_code)) {
            NV_LOG(fn, "Failed to terminate process %d, error: %d", static_cast<int>(pid), static_cast<int>(GetLastError()));
        } else {
            NV_LOG(fn, "Terminating process: %d", static_cast<int>(pid));
            const mcl::stop_wait r = mcl::wait_unless_stopped(process.get(), terminate_wait_ms);
            if (r == mcl::stop_wait::signalled) {
                ok = true;
                NV_LOG(fn, "Process %d terminated", static_cast<int>(pid));
            } else {
                NV_LOG(fn, "Failed to terminate process %d, WaitForSingleObject: %d,  error: %d", static_cast<int>(pid),
                       r == mcl::stop_wait::timed_out ? static_cast<int>(WAIT_TIMEOUT) : static_cast<int>(WAIT_FAILED),
                       static_cast<int>(GetLastError()));
            }
        }
    }
    if (!ok && !mcl::stop_requested()) {
        std::string folder;
        std::string program = "taskkill.exe";
        if (!mcl::mswin::system_directory(folder)) {
            NV_LOG(fn, "Failed to get system folder, error: %d", static_cast<int>(GetLastError()));
        } else {
            if (folder.back() != '\\') folder += '\\';
            program = folder + program;
        }
        const std::string parameters = "/PID " + std::to_string(pid) + " /F";
        NV_LOG(fn, "Trying terminate the process with command: \"%s %s\"", program.c_str(), parameters.c_str());
        DWORD exit_code = static_cast<DWORD>(-1);
        if (run_elevated(program, parameters, &exit_code)) {
            NV_LOG(fn, "Command return code: %d", static_cast<int>(exit_code));
            ok = exit_code == 0 || exit_code == 128;  // 128: the process had ended already
        }
    }
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}

bool chelperservice::service_ctrl_recover_dacl(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::service_ctrl_recover_dacl";
    protocol::name_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG(fn, "Malformed DACL recovery request: no service name");
        return false;
    }
    const std::string& name = request.name;
    service_record record;
    record.name = name;
    const std::wstring image = service_image_path(name);
    if (!image.empty()) {
        record.imagePath = image;
        NV_LOG(fn, "Get service %s image path %ls", name.c_str(), image.c_str());
    }
    protocol::reply_with(payload, protocol::status(unprotectService(record)));
    return true;
}

bool chelperservice::restore_driver_protection(mcl::ipc_connection*, mcl::binary_t& payload) {
    protocol::restore_driver_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG("chelperservice::restore_driver_protection", "Empty request: nothing re-applied");
        return false;
    }
    driver_port port = openDriverPort();
    if (port) drvEnableProtectionFeatures(port.get(), process_protection_enabled_, regkey_protection_enabled_);
    protocol::reply_with(payload, protocol::status(true));
    return true;
}

bool chelperservice::recover_folder_dacl(mcl::ipc_connection*, mcl::binary_t& payload) {
    constexpr const char* fn = "chelperservice::recover_folder_dacl";
    protocol::name_request request;
    if (!protocol::decode(payload, request)) {
        NV_LOG(fn, "Malformed folder DACL recovery request: no folder path");
        return false;
    }
    // Relative paths, drive roots and the system's folders are refused here.
    if (mcl::mswin::path_refused(fn, "recover folder DACL", request.name)) {
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
    std::string& path = request.name;
    if (path.back() == '\\') path.pop_back();
    const std::wstring folder = mcl::mswin::widen(path);
    const bool ok = restorePathPermissions(folder, default_folder_sddl);
    if (ok) processes_.forget_folder(folder);
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}
