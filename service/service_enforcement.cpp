// Keeping protected services running: the enforcement list and its thread.
#include <windows.h>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "mcl/buffer.h"
#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"
#include "service/service_enforcement.h"

namespace {

using mcl::mswin::unique_kernel_handle;
using mcl::mswin::unique_sc_handle;

constexpr DWORD pass_interval_ms = 15000;
constexpr uint32_t retry_stop_seconds = 60;

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

}  // namespace

service_enforcement::service_enforcement(enforcement_host& host, std::string own_name)
    : host_(host), own_name_(std::move(own_name)) {}

service_enforcement::service_enforce_thread::~service_enforce_thread() { stop(10); }

void service_enforcement::service_enforce_thread::list_changed() { (void)changed_.set(); }

DWORD service_enforcement::service_enforce_thread::run() {
    constexpr const char* fn = "chelperservice::service_enforce_thread::run";
    std::map<std::string, std::unique_ptr<watch>> watches;
    unique_sc_handle manager;
    try {
        manager.reset(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
        const notify_fn notifier = status_notifier();
        for (bool running = true; running;) {
            std::vector<std::string> names = owner_.list();
            // A stop between two services ends the pass: each one's waits give up on it too.
            for (const std::string& name : names) {
                if (mcl::stop_requested()) break;
                owner_.enforce_one(name);
            }
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
                names = owner_.list();
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

void service_enforcement::enforce_one(const std::string& name) {
    constexpr const char* fn = "chelperservice::service_enforce_thread::run";
    // The one read of the configuration: the retry lifts and puts back the rule of this image,
    // and an empty text in the driver's code 2 would remove every image rule it holds.
    const std::wstring image = host_.service_image(name);
    if (image.empty()) {
        if (skipped_.insert(name).second) NV_LOG(fn, "Service %s has no readable image path, skipped", name.c_str());
        return;
    }
    skipped_.erase(name);
    if (!needs_start(name)) return;
    if (start_listed(name, /*retry=*/false) != start_outcome::failed) return;
    unique_kernel_handle port = host_.open_port();
    if (!port) return;
    host_.send_image_rule(port.get(), image, /*remove=*/true);
    (void)start_listed(name, /*retry=*/true);
    host_.send_image_rule(port.get(), image, /*remove=*/false);  // back even when the start gave up
    port.reset();
    if (mcl::stop_requested()) return;
    (void)mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/false, retry_stop_seconds);
}


void service_enforcement::add(const std::string& name) {
    // Never this service itself: it stops only when told to, and its own enforcement pass would
    // start it again while it stops or uninstalls itself.
    if (name == own_name_) return;
    {
        mcl::scoped_lock guard(lock_);
        for (const std::string& listed : list_)
            if (listed == name) return;
        list_.push_back(name);
    }
    thread_.list_changed();
}

service_enforcement::start_outcome service_enforcement::start_listed(const std::string& name, bool retry) {
    mcl::scoped_lock start(start_lock_);
    {
        mcl::scoped_lock guard(lock_);
        if (std::find(list_.begin(), list_.end(), name) == list_.end()) return start_outcome::unlisted;
    }
    constexpr const char* fn = "chelperservice::service_enforce_thread::run";
    if (retry)
        NV_LOG(fn, "retrying start service %s... without process protection", name.c_str());
    else
        NV_LOG(fn, "trying start service %s...", name.c_str());
    return mcl::mswin::service::start(name.c_str()) ? start_outcome::started : start_outcome::failed;
}

bool service_enforcement::remove(const std::string& name) {
    mcl::scoped_lock start(start_lock_);  // after a start in progress, before any later one
    mcl::scoped_lock guard(lock_);
    for (auto it = list_.begin(); it != list_.end(); ++it) {
        if (*it == name) {
            list_.erase(it);
            return true;
        }
    }
    return false;
}

std::vector<std::string> service_enforcement::list() {
    mcl::scoped_lock guard(lock_);
    return list_;
}
