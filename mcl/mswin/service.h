// The Windows service wrapper: installing and removing the service, running it under the
// control dispatcher (or in a console), answering stop and shut-down controls, starting and
// stopping services by name, and the service security helpers the protection code uses.
//
// A program derives one class from `service`, overrides `main` with its whole service life and
// keeps one object per process, reachable through `g_service`.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/sid.h"

namespace mcl::mswin {

class service {
public:
    static constexpr const char* default_name = "norvale_halvern_svc";
    static constexpr const char* display_name = "Norvale Halvern Service";
    static constexpr const char* description = "Provides process and file protection services for Norvale Clients";
    // How long a stop control waits for main() to return.
    static constexpr DWORD stop_wait_ms = 120000;
    static constexpr DWORD uninstall_stop_wait_ms = 30000;

    // Reads the named service's configuration; `installed()` tells whether it could be read.
    explicit service(const char* name = default_name);
    service(const service&) = delete;
    service& operator=(const service&) = delete;
    virtual ~service();

    // The service life. This version waits on the stop event, then resets it.
    virtual void main(int argc, char** argv);
    // Sets the stop event and waits up to 120 s for the stopped event (which it then resets).
    // True when main() finished in time. Any thread but the service's own (the console control
    // handler's).
    virtual bool stop_request();

    // Registers this service (own process, automatic start, LocalSystem) with `command_line` as
    // its binary path, the description and, when given, `failure_actions`.
    [[nodiscard]] bool install(const char* command_line, SERVICE_FAILURE_ACTIONSA* failure_actions = nullptr);
    // Stops the service (with `stop_running`), waits up to 30 s while it is stop pending, and
    // deletes it. The service's own process passes false: a stop control to itself would wait
    // for the very main() that is uninstalling; it stops on its own when main() returns.
    [[nodiscard]] bool uninstall(bool stop_running = true);
    // Hands the calling thread to the control dispatcher; true once the service has stopped,
    // false when the dispatcher cannot start (e.g. the process was not started by the manager).
    bool run();
    // The service-main body: registers the control handler, reports running, runs run_main and
    // reports stopped. Runs on the thread the dispatcher creates.
    void register_service(DWORD argc, char** argv);
    // Called by the dispatcher's thread through g_service. A stop or shut-down reports stop
    // pending, sets the stop event and returns at once: main() ends on the service's thread.
    void control_handler(DWORD control);
    // Creates the stop and stopped events unless they exist, runs main() (an exception ends it
    // with a log line) and sets the stopped event. Shared by service and console runs.
    void run_main(int argc = 0, char** argv = nullptr);
    // The security descriptor of the stop and stopped events, given before they are made (by
    // default, empty: a NULL DACL).
    void set_event_security(security_descriptor security) { event_security_ = std::move(security); }
    // Whether a stop or stopped event found made before this service may be used. `existing`
    // has READ_CONTROL, or is null when the event could not be opened. One not trusted is left
    // alone: the service waits on an unnamed event of its own, which only the manager's stop
    // control (or the console's) sets. By default every one is trusted.
    virtual bool existing_object_trusted(const std::string& name, HANDLE existing);
    // Writes `message` to the debug log and, unless in debug mode, to the Windows event log as an
    // error under the service's name, with `err` (by default the calling thread's last error).
    void event_log(const char* message);
    void event_log(const char* message, DWORD err);

    // Service control by name.
    // Starts the service and waits while it is start pending, until its checkpoint stops moving
    // for its wait hint (at least 10 s). True when running.
    static bool start(const char* name, DWORD argc = 0, const char** argv = nullptr);
    // Sends the stop control and waits up to `seconds` for the stop, looking every 100 ms. With
    // `event_fallback`, a service that cannot be reached or does not stop is signalled through
    // its named stop event (and false is returned).
    static bool stop(const char* name, bool event_fallback, uint32_t seconds);
    // Opens or creates "Global\<name>_NTSVC_STOP_EVENT" and sets it.
    static void signal_stop_event(const char* name);
    static std::string stop_event_name(const std::string& name);
    static std::string stopped_event_name(const std::string& name);

    // The configuration record (QUERY_SERVICE_CONFIGA / W) copied into `config`, its string
    // pointers pointing into the copy. `opened` (optional) tells whether the service exists.
    static bool query_config(const char* name, binary_t& config, bool* opened = nullptr);
    static bool query_config(const wchar_t* name, binary_t& config, bool* opened = nullptr);
    // The current state (SERVICE_RUNNING ...).
    static bool query_state(const char* name, DWORD& state);
    // The extended status, with the process identifier.
    static bool query_status_ex(const char* name, SERVICE_STATUS_PROCESS& status);
    static bool is_service_installed(const char* name);
    // Stopped or stop pending.
    static bool is_service_stopped(const char* name);

    // Security helpers.
    // The service SID of `name` ("NT SERVICE\<name>"). When the account lookup cannot map it the
    // SID is derived from the name as Windows does (sid::from_service_name). On failure `out` is
    // empty. Looked up once per name for the life of the process.
    static bool get_sid(const char* name, sid& out);
    // Replaces the service's DACL (protected: nothing is inherited).
    static bool set_dacl(const char* name, PACL dacl);
    static bool set_dacl_str(const char* name, const char* sddl);
    // A new DACL (from the process heap; free with HeapFree) that starts with one allowed ACE per
    // selected SID (`ace_flags`, `selected_mask`), then every ACE of `old_dacl` (may be null)
    // whose SID is not selected, inherited flag cleared, generic-all widened to all generic bits,
    // and its mask ANDed with `other_mask`. On failure *new_dacl is null.
    static bool update_dacl_with_selected_full_access_sids(PACL old_dacl, const std::vector<sid>& sids,
                                                           BYTE ace_flags, DWORD selected_mask, DWORD other_mask,
                                                           PACL* new_dacl);
    // Sets the unrestricted service SID type. Done once per name for the life of the process: a
    // success, or a system that has no SID types (the error then comes back each time), is kept.
    static bool set_sid_type(const char* name);

    // Named apart from the IPC peer's name() and the worker thread's stop_event(), which a
    // class deriving from both also inherits.
    const std::string& service_name() const { return name_; }
    bool installed() const { return installed_; }
    const binary_t& configuration() const { return configuration_; }
    bool debug() const { return debug_; }
    void set_debug(bool on) { debug_ = on; }
    bool can_stop() const { return can_stop_; }
    void set_can_stop(bool on) { can_stop_ = on; }
    HANDLE service_stop_event() const { return stop_event_.get(); }
    HANDLE service_stopped_event() const { return stopped_event_.get(); }

protected:
    DWORD controls_accepted() const;
    // Reports `state` to the manager: ERROR_SUCCESS, or the error of the failed call (after an
    // event-log entry).
    DWORD report_status(DWORD state, DWORD checkpoint);
    // The named stop and stopped events, made once per object.
    void create_events();
    void create_event(event& holder, const std::string& name);

    bool can_stop_ = true;
    bool debug_ = false;
    bool installed_ = false;
    std::string name_;
    binary_t configuration_;
    uint32_t checkpoint_ = 0;
    security_descriptor event_security_;
    event stop_event_;
    event stopped_event_;
    SERVICE_STATUS status_{};
    SERVICE_STATUS_HANDLE status_handle_ = nullptr;
};

// The one service object of the process; set by service::run and, for console runs, by the
// program entry. The dispatcher's callbacks reach the object only through it.
extern service* g_service;

// The service-main callback handed to the dispatcher.
void WINAPI _service_main(DWORD argc, LPSTR* argv);

}  // namespace mcl::mswin
