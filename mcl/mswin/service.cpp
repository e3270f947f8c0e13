// The service's own life: install, uninstall, dispatcher, control handler, stop request.
#include "mcl/mswin/service.h"

#include <cstdio>
#include <exception>

#include "mcl/log.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin {

service* g_service = nullptr;

namespace {

void WINAPI control_callback(DWORD control) {
    if (g_service != nullptr) g_service->control_handler(control);
}

// Waits alertably, going on after queued APCs ran.
DWORD wait_alertable(HANDLE h, DWORD ms) {
    const DWORD start = GetTickCount();
    for (;;) {
        DWORD left = ms;
        if (ms != INFINITE) {
            const DWORD spent = GetTickCount() - start;
            left = spent >= ms ? 0 : ms - spent;
        }
        const DWORD r = WaitForSingleObjectEx(h, left, TRUE);
        if (r != WAIT_IO_COMPLETION) return r;
    }
}

}  // namespace

std::string service::stop_event_name(const std::string& name) { return "Global\\" + name + "_NTSVC_STOP_EVENT"; }
std::string service::stopped_event_name(const std::string& name) {
    return "Global\\" + name + "_NTSVC_STOPPED_EVENT";
}

service::service(const char* name) : name_(name) {
    bool opened = false;
    installed_ = query_config(name_.c_str(), configuration_, &opened) && opened;
}

service::~service() {
    stop_event_.close();
    stopped_event_.close();
    configuration_.release_storage();
}

void service::main(int, char**) {
    if (!stop_event_.valid()) return;
    wait_alertable(stop_event_.get(), INFINITE);
    stop_event_.reset();
}

bool service::stop_request() {
    stop_event_.set();
    if (!stopped_event_.valid()) return false;
    const bool stopped = wait_alertable(stopped_event_.get(), stop_wait_ms) == WAIT_OBJECT_0;
    stopped_event_.reset();
    return stopped;
}

bool service::install(const char* command_line, SERVICE_FAILURE_ACTIONSA* failure_actions) {
    unique_sc_handle manager;
    if (!open_manager(nullptr, SC_MANAGER_ALL_ACCESS, manager)) return false;
    unique_sc_handle created(CreateServiceA(manager.get(), name_.c_str(), display_name, SERVICE_ALL_ACCESS,
                                            SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                            command_line, /*load_order_group=*/nullptr, /*tag=*/nullptr,
                                            /*dependencies=*/nullptr, /*account=*/nullptr, /*password=*/nullptr));
    if (!created) {
        NV_LOG("mcl::mswin::service::install", "CreateService failed, last error 0x%x",
               static_cast<unsigned>(GetLastError()));
        return false;
    }
    SERVICE_DESCRIPTIONA text{const_cast<char*>(description)};
    (void)ChangeServiceConfig2A(created.get(), SERVICE_CONFIG_DESCRIPTION, &text);
    if (failure_actions != nullptr)
        (void)ChangeServiceConfig2A(created.get(), SERVICE_CONFIG_FAILURE_ACTIONS, failure_actions);
    installed_ = true;
    return true;
}

bool service::uninstall(bool stop_running) {
    unique_sc_handle svc;
    if (!open_service(nullptr, name_.c_str(), SC_MANAGER_ALL_ACCESS, SERVICE_ALL_ACCESS, svc)) {
        NV_LOG("mcl::mswin::service::uninstall", "Failed to OpenServiceA %s : (%d)", name_.c_str(),
               static_cast<int>(GetLastError()));
        return false;
    }
    SERVICE_STATUS status{};
    if (stop_running && ControlService(svc.get(), SERVICE_CONTROL_STOP, &status)) {
        // Bounded: a service that stays stop pending is deleted anyway, once it has stopped.
        for (DWORD waited = 0; waited < uninstall_stop_wait_ms; waited += 200) {
            SleepEx(200, TRUE);
            if (!QueryServiceStatus(svc.get(), &status) || status.dwCurrentState != SERVICE_STOP_PENDING) break;
        }
    }
    if (!DeleteService(svc.get())) {
        NV_LOG("mcl::mswin::service::uninstall", "DeleteService failed, last error 0x%x",
               static_cast<unsigned>(GetLastError()));
        return false;
    }
    installed_ = false;
    return true;
}

bool service::run() {
    NV_LOG("mcl::mswin::service::run", "service - Run Service");
    g_service = this;
    SERVICE_TABLE_ENTRYA table[] = {{&name_[0], &_service_main}, {nullptr, nullptr}};
    if (!StartServiceCtrlDispatcherA(table)) {
        event_log("StartServiceCtrlDispatcher failed.");
        return false;
    }
    return true;
}

void WINAPI _service_main(DWORD argc, LPSTR* argv) {
    if (g_service == nullptr) return;
    NV_LOG("mcl::mswin::_service_main", "service - start main service function");
    g_service->register_service(argc, argv);
}

DWORD service::controls_accepted() const {
    return can_stop_ ? SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN : SERVICE_ACCEPT_SHUTDOWN;
}

DWORD service::report_status(DWORD state, DWORD checkpoint) {
    status_.dwCurrentState = state;
    status_.dwControlsAccepted = controls_accepted();
    status_.dwWin32ExitCode = 0;
    status_.dwCheckPoint = checkpoint;
    status_.dwWaitHint = 0;
    if (SetServiceStatus(status_handle_, &status_)) return ERROR_SUCCESS;
    const DWORD err = GetLastError();
    event_log("SetServiceStatus failed", err);
    return err;
}

void service::register_service(DWORD argc, char** argv) {
    status_handle_ = RegisterServiceCtrlHandlerA(name_.c_str(), &control_callback);
    NV_LOG("mcl::mswin::service::register_service", "service - Register Service");
    if (status_handle_ == nullptr) return;

    status_.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status_.dwServiceSpecificExitCode = 0;
    // The stop machinery exists before the manager hears RUNNING: a stop control that comes at
    // once finds the event to set.
    create_events();
    DWORD exit_code = debug_ ? ERROR_SUCCESS : report_status(SERVICE_RUNNING, 0);
    if (exit_code == ERROR_SUCCESS) run_main(static_cast<int>(argc), argv);
    status_.dwCurrentState = SERVICE_STOPPED;
    status_.dwControlsAccepted = controls_accepted();
    status_.dwWin32ExitCode = exit_code;
    status_.dwCheckPoint = 0;
    status_.dwWaitHint = 0;
    if (!SetServiceStatus(status_handle_, &status_)) event_log("SetServiceStatus failed");
}

void service::create_events() {
    // Made once and kept: the control handler's thread reads these handles while main runs.
    create_event(stop_event_, stop_event_name(name_));
    create_event(stopped_event_, stopped_event_name(name_));
}

void service::create_event(event& holder, const std::string& name) {
    if (holder.valid()) return;
    const int made = holder.create(name.c_str(), event_security_.get());
    const DWORD err = GetLastError();
    bool trusted = true;
    if (made == -2) trusted = existing_object_trusted(name, holder.get());
    if (made == -1 && err == ERROR_ACCESS_DENIED) trusted = existing_object_trusted(name, nullptr);
    if (trusted) return;
    // Its maker could stop this service, or fake its stop, through it.
    holder.close();
    (void)holder.create_unnamed(/*manual_reset=*/true, /*initially_set=*/false);
}

bool service::existing_object_trusted(const std::string&, HANDLE) { return true; }

void service::run_main(int argc, char** argv) {
    create_events();
    stopped_event_.reset();  // a stop that came already stays set and ends main at once
    try {
        main(argc, argv);
    } catch (const std::exception& e) {
        NV_LOG("mcl::mswin::service::run_main", "The service ended by an exception: %s", e.what());
    } catch (...) {
        NV_LOG("mcl::mswin::service::run_main", "The service ended by an exception");
    }
    stopped_event_.set();
}

void service::control_handler(DWORD control) {
    switch (control) {
    case SERVICE_CONTROL_STOP:
        if (!can_stop_) return;
        [[fallthrough]];
    case SERVICE_CONTROL_SHUTDOWN:
        if (!debug_) (void)report_status(SERVICE_STOP_PENDING, ++checkpoint_);
        // The stop runs on the service's own thread, where main() sees the event and returns;
        // the dispatcher's thread goes back to the manager at once.
        (void)stop_event_.set();
        return;
    default:
        if (!debug_) (void)report_status(status_.dwCurrentState, ++checkpoint_);
        return;
    }
}

void service::event_log(const char* message) { event_log(message, GetLastError()); }

void service::event_log(const char* message, DWORD err) {
    NV_LOG("mcl::mswin::service::event_log", "%s", message);
    if (debug_) return;
    HANDLE source = RegisterEventSourceA(nullptr, name_.c_str());
    if (source == nullptr) return;
    char detail[300];
    snprintf(detail, sizeof(detail), "%s error:0x%X", name_.c_str(), static_cast<unsigned>(err));
    const char* strings[2] = {message, detail};
    (void)ReportEventA(source, EVENTLOG_ERROR_TYPE, /*category=*/0, /*event_id=*/0, /*user_sid=*/nullptr,
                       /*num_strings=*/2, /*data_size=*/0, strings, /*data=*/nullptr);
    DeregisterEventSource(source);
}

}  // namespace mcl::mswin
