#include "app/service_commands.h"

#include <windows.h>

#include <algorithm>

#include "mcl/mswin/service.h"
#include "service/helper_service.h"

using mcl::mswin::service;

namespace {

// The console control handler runs on a thread that the system makes for each event, beside the
// main thread. The console run ends only once every handler has left the service object and its
// thread has ended: the process's exit (static destruction included) never runs while a handler
// still uses the object or is still ending. Plain data and a slim lock: nothing here is destroyed
// at exit, so a handler that comes later still finds them.
SRWLOCK g_console_lock = SRWLOCK_INIT;
CONDITION_VARIABLE g_console_left = CONDITION_VARIABLE_INIT;
int g_console_handlers = 0;  // handlers inside the stop request, under the lock
// The threads of the handlers that reached the object, waited for when the run ends; a handler
// beyond the room is not waited for.
constexpr size_t k_handler_room = 16;
HANDLE g_handler_threads[k_handler_room] = {};
size_t g_handler_count = 0;
// How long the end of the run waits for the handlers; the stop request itself returns as soon
// as the run has set its stopped event.
constexpr DWORD k_handler_wait_ms = 10000;
constexpr DWORD k_handler_nudge_ms = 50;

BOOL WINAPI console_control(DWORD event) {
    switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT: {
        AcquireSRWLockExclusive(&g_console_lock);
        mcl::mswin::service* svc = mcl::mswin::g_service;  // null once the run has ended
        if (svc != nullptr) {
            ++g_console_handlers;
            if (g_handler_count < k_handler_room) {
                HANDLE self = OpenThread(SYNCHRONIZE, FALSE, GetCurrentThreadId());
                if (self != nullptr) g_handler_threads[g_handler_count++] = self;
            }
        }
        ReleaseSRWLockExclusive(&g_console_lock);
        if (svc == nullptr) return TRUE;  // the run is ending already
        (void)svc->stop_request();
        AcquireSRWLockExclusive(&g_console_lock);
        --g_console_handlers;
        ReleaseSRWLockExclusive(&g_console_lock);
        WakeAllConditionVariable(&g_console_left);
        return TRUE;
    }
    default:
        return FALSE;  // close, log-off and shut-down get the system's handling
    }
}

// After the run: no handler reaches the object any more, those inside it have left, and their
// threads have ended (each bounded by what is left of k_handler_wait_ms). A handler that came
// after the run had set its stopped event (and an earlier handler had reset it) is woken by
// setting it again: the run has ended.
void end_console_handlers(mcl::mswin::service& svc) {
    const ULONGLONG deadline = GetTickCount64() + k_handler_wait_ms;
    const auto left_ms = [deadline] {
        const ULONGLONG now = GetTickCount64();
        return now >= deadline ? DWORD{0} : static_cast<DWORD>(deadline - now);
    };
    HANDLE threads[k_handler_room];
    size_t count = 0;
    AcquireSRWLockExclusive(&g_console_lock);
    mcl::mswin::g_service = nullptr;
    while (g_console_handlers > 0 && left_ms() > 0) {
        if (svc.service_stopped_event() != nullptr) SetEvent(svc.service_stopped_event());
        (void)SleepConditionVariableSRW(&g_console_left, &g_console_lock, (std::min)(left_ms(), k_handler_nudge_ms), 0);
    }
    for (; count < g_handler_count; ++count) threads[count] = g_handler_threads[count];
    g_handler_count = 0;
    ReleaseSRWLockExclusive(&g_console_lock);
    if (count > 0) (void)WaitForMultipleObjects(static_cast<DWORD>(count), threads, TRUE, left_ms());
    for (size_t i = 0; i < count; ++i) CloseHandle(threads[i]);
}

}  // namespace

bool install_service(const std::string& command_line) {
    SC_ACTION restart{SC_ACTION_RESTART, /*delay_ms=*/5000};
    SERVICE_FAILURE_ACTIONSA actions{};
    actions.dwResetPeriod = INFINITE;
    actions.lpRebootMsg = nullptr;
    actions.lpCommand = nullptr;
    actions.cActions = 1;
    actions.lpsaActions = &restart;
    chelperservice& svc = chelperservice::instance();
    if (!svc.install(command_line.c_str(), &actions) || !service::is_service_installed(svc.service_name().c_str()))
        return false;
    (void)service::set_sid_type(svc.service_name().c_str());  // systems without service SIDs refuse it
    return true;
}

bool uninstall_service() { return chelperservice::instance().uninstall(); }

bool run_service() {
    mcl::mswin::service& svc = chelperservice::instance();  // not the peer's thread body
    return svc.run();
}

bool run_service_in_console() {
    chelperservice& svc = chelperservice::instance();
    AcquireSRWLockExclusive(&g_console_lock);
    mcl::mswin::g_service = &svc;
    ReleaseSRWLockExclusive(&g_console_lock);
    SetConsoleCtrlHandler(&console_control, TRUE);
    svc.set_debug(true);
    svc.run_main();
    svc.set_debug(false);
    end_console_handlers(svc);
    return true;
}
