// Keeping protected services running, and the service-control requests: start with arguments,
// stop (forcibly when the service resists), lift a service's protection, re-apply the driver
// switches, reset a folder's DACL.
#include <windows.h>

#include <shellapi.h>
#include <tlhelp32.h>

#include <map>
#include <memory>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/process.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "service/helper_service.h"

namespace {

using mcl::mswin::unique_kernel_handle;
using mcl::mswin::unique_sc_handle;

constexpr DWORD pass_interval_ms = 15000;
constexpr uint32_t retry_stop_seconds = 60;
constexpr uint32_t request_stop_seconds = 30;
constexpr DWORD terminate_wait_ms = 30000;
constexpr UINT killed_exit_code = 9;

bool stopped_or_stopping(DWORD state) { return state == SERVICE_STOPPED || state == SERVICE_STOP_PENDING; }

// The system's report of a service stopping, where it has one (Vista and later).
using notify_fn = DWORD(WINAPI*)(SC_HANDLE, DWORD, PSERVICE_NOTIFYW);
notify_fn status_notifier() {
    HMODULE advapi = GetModuleHandleW(L"advapi32.dll");
    return advapi == nullptr ? nullptr
                             : reinterpret_cast<notify_fn>(
                                   reinterpret_cast<void*>(GetProcAddress(advapi, "NotifyServiceStatusChangeW")));
}

// One listed service the thread watches. Lives until the thread ends: the system writes into
// `notify` until the handle is closed.
struct watch {
    unique_sc_handle svc;
    SERVICE_NOTIFYW notify{};
    bool armed = false;
    bool fired = false;
    bool unsupported = false;
    unique_kernel_handle process;  // the running service's process: signalled when it ends
};

// The process a running service reports, or 0.
DWORD service_process_id(const std::string& name) {
    SERVICE_STATUS_PROCESS status{};
    if (!mcl::mswin::service::query_status_ex(name.c_str(), status) || status.dwCurrentState != SERVICE_RUNNING) return 0;
    return status.dwProcessId;
}

// Stopped or stop pending, or reported running while its process has ended (a manager may
// learn of a killed process only later).
bool needs_start(const std::string& name) {
    DWORD state = 0;
    if (!mcl::mswin::service::query_state(name.c_str(), state)) return false;
    if (stopped_or_stopping(state)) return true;
    const DWORD pid = state == SERVICE_RUNNING ? service_process_id(name) : 0;
    if (pid == 0) return false;
    unique_kernel_handle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
    if (!process) return GetLastError() == ERROR_INVALID_PARAMETER;  // no such process
    return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
}

void CALLBACK on_status_change(void* parameter) {
    auto* w = static_cast<watch*>(static_cast<SERVICE_NOTIFYW*>(parameter)->pContext);
    w->armed = false;
    w->fired = true;
}

// Watches a running service: its process handle, and the system's report (an APC on this thread)
// of its stopping. A stopped one is not watched: it would be reported at once, again and again,
// while its start keeps failing.
void arm(SC_HANDLE manager, notify_fn notifier, const std::string& name, std::unique_ptr<watch>& w) {
    if (manager == nullptr) return;
    if (!w) {
        w = std::make_unique<watch>();
        w->svc.reset(OpenServiceA(manager, name.c_str(), SERVICE_QUERY_STATUS));
    }
    if (!w->svc) return;
    SERVICE_STATUS status{};
    if (!QueryServiceStatus(w->svc.get(), &status) || stopped_or_stopping(status.dwCurrentState)) return;
    if (!w->process) {
        const DWORD pid = service_process_id(name);
        if (pid != 0) w->process.reset(OpenProcess(SYNCHRONIZE, FALSE, pid));
    }
    if (w->armed || w->unsupported || notifier == nullptr) return;
    w->notify = SERVICE_NOTIFYW{};
    w->notify.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    w->notify.pfnNotifyCallback = &on_status_change;
    w->notify.pContext = w.get();
    const DWORD err = notifier(w->svc.get(), SERVICE_NOTIFY_STOPPED | SERVICE_NOTIFY_STOP_PENDING, &w->notify);
    if (err == ERROR_SUCCESS) {
        w->armed = true;
    } else {
        w->unsupported = true;  // the pass every 15 s still finds it
        NV_LOG("chelperservice::service_enforce_thread::run", "No stop reports for service %s (%d)", name.c_str(),
               static_cast<int>(err));
    }
}

// One service of a pass: started again when it is stopped; when that fails, once more with its
// image out of the driver's process protection.
void enforce_one(const std::string& name) {
    constexpr const char* fn = "chelperservice::service_enforce_thread::run";
    mcl::binary_t config;
    if (!mcl::mswin::service::query_config(name.c_str(), config)) return;
    if (!needs_start(name)) return;
    NV_LOG(fn, "trying start service %s...", name.c_str());
    if (mcl::mswin::service::start(name.c_str())) return;
    const std::wstring image = chelperservice::service_image_path(name);
    chelperservice::driver_port port = chelperservice::openDriverPort();
    if (!port) return;
    NV_LOG(fn, "retrying start service %s... without process protection", name.c_str());
    chelperservice::drvProtectProcess(port.get(), image, /*remove=*/true);
    (void)mcl::mswin::service::start(name.c_str());
    chelperservice::drvProtectProcess(port.get(), image, /*remove=*/false);
    port.reset();
    (void)mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/false, retry_stop_seconds);
}

}  // namespace

chelperservice::service_enforce_thread::~service_enforce_thread() { stop(10); }

void chelperservice::service_enforce_thread::list_changed() { (void)changed_.set(); }

DWORD chelperservice::service_enforce_thread::run() {
    constexpr const char* fn = "chelperservice::service_enforce_thread::run";
    std::map<std::string, std::unique_ptr<watch>> watches;
    unique_sc_handle manager;
    try {
        manager.reset(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
        const notify_fn notifier = status_notifier();
        for (bool running = true; running;) {
            std::vector<std::string> names = owner_->enforce_list();
            for (const std::string& name : names) enforce_one(name);
            // Stops reported and processes ended until now are what this pass has just handled (its
            // own retry's stop among them): only later ones start the next pass early.
            SleepEx(0, /*alertable=*/TRUE);
            for (auto& entry : watches) {
                watch* w = entry.second.get();
                if (w == nullptr) continue;
                w->fired = false;
                if (w->process && WaitForSingleObject(w->process.get(), 0) == WAIT_OBJECT_0) w->process.reset();
            }
            // Wait for the next pass; a reported stop starts it at once.
            const DWORD started = GetTickCount();
            for (;;) {
                (void)changed_.reset();
                names = owner_->enforce_list();
                for (const std::string& name : names) arm(manager.get(), notifier, name, watches[name]);
                bool reported = false;
                std::vector<HANDLE> handles{stop_event(), changed_.get()};
                std::vector<watch*> watched;
                for (const std::string& name : names) {
                    watch* w = watches[name].get();
                    if (w == nullptr) continue;
                    if (w->fired) reported = true;
                    w->fired = false;
                    if (w->process && handles.size() < MAXIMUM_WAIT_OBJECTS) {
                        handles.push_back(w->process.get());
                        watched.push_back(w);
                    }
                }
                if (reported) break;
                const DWORD spent = GetTickCount() - started;
                if (spent >= pass_interval_ms) break;
                const DWORD r = WaitForMultipleObjectsEx(static_cast<DWORD>(handles.size()), handles.data(),
                                                         /*wait_all=*/FALSE, pass_interval_ms - spent, /*alertable=*/TRUE);
                if (r == WAIT_OBJECT_0) {
                    running = false;
                    break;
                }
                if (r >= WAIT_OBJECT_0 + 2 && r < WAIT_OBJECT_0 + handles.size()) {
                    watched[r - WAIT_OBJECT_0 - 2]->process.reset();  // its service ended: a pass now
                    break;
                }
                if (r == WAIT_FAILED) Sleep(10);  // never spin on a broken wait
            }
        }
    } catch (...) {
        NV_LOG(fn, "Unexpected exception: the enforcement thread ends");
    }
    // Close every watched handle first, then let pending reports run before their records go.
    for (auto& entry : watches) {
        if (!entry.second) continue;
        entry.second->svc.reset();
        entry.second->process.reset();
    }
    SleepEx(0, /*alertable=*/TRUE);
    return 0;
}

void chelperservice::enforce_add(const std::string& name) {
    // Never this service itself: it stops only when told to, and its own enforcement pass would
    // start it again while it stops or uninstalls itself.
    if (name == service_name()) return;
    {
        mcl::scoped_lock guard(enforce_lock_);
        for (const std::string& listed : enforce_list_)
            if (listed == name) return;
        enforce_list_.push_back(name);
    }
    enforce_thread_.list_changed();
}

void chelperservice::enforce_remove(const std::string& name) {
    mcl::scoped_lock guard(enforce_lock_);
    for (auto it = enforce_list_.begin(); it != enforce_list_.end(); ++it) {
        if (*it == name) {
            enforce_list_.erase(it);
            return;
        }
    }
}

std::vector<std::string> chelperservice::enforce_list() {
    mcl::scoped_lock guard(enforce_lock_);
    return enforce_list_;
}

void chelperservice::startEnforcement() {
    if (!enforce_thread_.start())
        NV_LOG("chelperservice::startEnforcement", "The enforcement thread could not be started (%d)",
               static_cast<int>(GetLastError()));
}

void chelperservice::stopEnforcement() {
    enforce_thread_.stop(1000);
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
        if (WaitForSingleObject(process.get(), terminate_wait_ms) == WAIT_OBJECT_0) {
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
    (void)WaitForSingleObjectEx(process.get(), terminate_wait_ms, /*alertable=*/TRUE);
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
    if (ok && (!mcl::mswin::service::query_state(name.c_str(), state) || !stopped_or_stopping(state))) enforce_add(name);
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
    enforce_remove(name);
    DWORD state = 0;
    if (mcl::mswin::service::query_state(name.c_str(), state) && stopped_or_stopping(state)) {
        protocol::reply_with(payload, protocol::status(true, "Service has already been stopped."));
        return true;
    }
    SERVICE_STATUS_PROCESS status{};
    const DWORD pid = mcl::mswin::service::query_status_ex(name.c_str(), status) &&
                              status.dwCurrentState == SERVICE_RUNNING
                          ? status.dwProcessId
                          : 0;
    if (mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/false, request_stop_seconds)) {
        protocol::reply_with(payload, protocol::status(true));
        return true;
    }
    NV_LOG(fn, "Failed to stop service <%s>, trying to terminate its process %d", name.c_str(), static_cast<int>(pid));
    if (pid == 0) {
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
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
            const DWORD r = WaitForSingleObject(process.get(), terminate_wait_ms);
            if (r == WAIT_OBJECT_0) {
                ok = true;
                NV_LOG(fn, "Process %d terminated", static_cast<int>(pid));
            } else {
                NV_LOG(fn, "Failed to terminate process %d, WaitForSingleObject: %d,  error: %d", static_cast<int>(pid),
                       static_cast<int>(r), static_cast<int>(GetLastError()));
            }
        }
    }
    if (!ok) {
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
    std::string& path = request.name;
    if (path.back() == '\\') path.pop_back();
    // A relative path would name a folder below the service's working directory.
    if (!mcl::mswin::has_drive_prefix(path)) {
        NV_LOG(fn, "Folder path refused: it needs a drive letter (X:\\folder) (%s)", path.c_str());
        protocol::reply_with(payload, protocol::status(false));
        return true;
    }
    const std::wstring folder = mcl::mswin::widen(path);
    const bool ok = restorePathPermissions(folder, default_folder_sddl);
    if (ok) protected_folders_.erase(folder);
    protocol::reply_with(payload, protocol::status(ok));
    return true;
}
