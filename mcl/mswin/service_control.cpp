// Starting, stopping and querying services by name.
#include <cstddef>
#include <utility>
#include <vector>

#include "mcl/lock.h"
#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/service_handles.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"

namespace mcl::mswin {

namespace {

constexpr DWORD start_poll_ms = 100;
constexpr DWORD stop_poll_ms = 100;
constexpr DWORD start_progress_ms = 10000;

constexpr DWORD manager_read_access =
    GENERIC_READ | SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_LOCK | SC_MANAGER_QUERY_LOCK_STATUS;

// Re-points a string field of a configuration record copied from `from` into `to`.
template <typename Char>
void repoint(Char*& field, const unsigned char* from, unsigned char* to, size_t size) {
    const auto* p = reinterpret_cast<const unsigned char*>(field);
    if (p >= from && p < from + size) field = reinterpret_cast<Char*>(to + (p - from));
}

template <typename Record, typename Char, typename Query>
bool query_config_impl(const Char* name, binary_t& config, bool* opened, Query query) {
    if (opened != nullptr) *opened = false;
    unique_sc_handle svc;
    if (!open_service(nullptr, name, GENERIC_READ, GENERIC_READ, svc)) return false;
    if (opened != nullptr) *opened = true;

    DWORD needed = 0;
    if (query(svc.get(), nullptr, 0, &needed) || GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;
    unique_local<Record*> raw(static_cast<Record*>(LocalAlloc(LPTR, needed)));
    if (!raw) return false;
    if (!query(svc.get(), raw.get(), needed, &needed)) return false;

    config.assign(reinterpret_cast<const unsigned char*>(raw.get()), needed);
    if (config.size() != needed) return false;
    auto* record = reinterpret_cast<Record*>(config.data());
    const auto* from = reinterpret_cast<const unsigned char*>(raw.get());
    repoint(record->lpBinaryPathName, from, config.data(), needed);
    repoint(record->lpLoadOrderGroup, from, config.data(), needed);
    repoint(record->lpDependencies, from, config.data(), needed);
    repoint(record->lpServiceStartName, from, config.data(), needed);
    repoint(record->lpDisplayName, from, config.data(), needed);
    return true;
}

}  // namespace

SC_HANDLE shared_manager(DWORD manager_access) {
    // One handle per access mask asked for: a handful in any program. Built once and never
    // destroyed: threads may still ask while the process ends.
    struct table {
        lock guard;
        std::vector<std::pair<DWORD, SC_HANDLE>> handles;
    };
    static table* const managers = new table();
    scoped_lock hold(managers->guard);
    for (const auto& entry : managers->handles)
        if (entry.first == manager_access) return entry.second;
    const SC_HANDLE opened = OpenSCManagerA(nullptr, nullptr, manager_access);
    if (opened != nullptr) managers->handles.emplace_back(manager_access, opened);
    return opened;
}

bool service::query_config(const char* name, binary_t& config, bool* opened) {
    return query_config_impl<QUERY_SERVICE_CONFIGA>(name, config, opened, &QueryServiceConfigA);
}

bool service::query_config(const wchar_t* name, binary_t& config, bool* opened) {
    return query_config_impl<QUERY_SERVICE_CONFIGW>(name, config, opened, &QueryServiceConfigW);
}

bool service::query_status_ex(const char* name, SERVICE_STATUS_PROCESS& status) {
    unique_sc_handle svc;
    if (!open_service(nullptr, name, GENERIC_READ, SERVICE_QUERY_STATUS, svc)) return false;
    DWORD needed = 0;
    return QueryServiceStatusEx(svc.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                                &needed) != FALSE;
}

bool service::query_state(const char* name, DWORD& state) {
    SERVICE_STATUS_PROCESS status{};
    if (!query_status_ex(name, status)) return false;
    state = status.dwCurrentState;
    return true;
}

bool service::is_service_installed(const char* name) {
    binary_t config;
    return query_config(name, config);
}

bool service::is_service_stopped(const char* name) {
    DWORD state = 0;
    return query_state(name, state) && (state == SERVICE_STOPPED || state == SERVICE_STOP_PENDING);
}

bool service::start(const char* name, DWORD argc, const char** argv) {
    unique_sc_handle svc;
    if (!open_service("mcl::mswin::service::start", name, manager_read_access, SERVICE_START | SERVICE_QUERY_STATUS,
                      svc))
        return false;
    if (!StartServiceA(svc.get(), argc, argv)) {
        NV_LOG("mcl::mswin::service::start", "StartService failed (%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    // Polled while start pending. A service whose checkpoint does not move for its wait hint (at
    // least start_progress_ms) has hung in its start: given up, so that no caller waits forever.
    SERVICE_STATUS status{};
    status.dwCurrentState = SERVICE_START_PENDING;  // what a failed query leaves
    DWORD checkpoint = 0;
    DWORD since = GetTickCount();
    // A service that is running by the first query is not waited for.
    while (QueryServiceStatus(svc.get(), &status) && status.dwCurrentState == SERVICE_START_PENDING) {
        if (status.dwCheckPoint != checkpoint) {
            checkpoint = status.dwCheckPoint;
            since = GetTickCount();
        }
        const DWORD limit = status.dwWaitHint > start_progress_ms ? status.dwWaitHint : start_progress_ms;
        if (GetTickCount() - since > limit) {
            NV_LOG("mcl::mswin::service::start", "Service is still start pending, without progress for %lu ms\n",
                   static_cast<unsigned long>(limit));
            break;
        }
        // A thread asked to stop gives up the wait (the service may still come up on its own).
        if (!sleep_unless_stopped(start_poll_ms)) {
            NV_LOG("mcl::mswin::service::start", "The wait for service %s to start was given up: the caller is stopping\n",
                   name);
            break;
        }
    }
    if (status.dwCurrentState != SERVICE_RUNNING) {
        NV_LOG("mcl::mswin::service::start", "Service is in a wrong state (%d)\n",
               static_cast<int>(status.dwCurrentState));
        return false;
    }
    return true;
}

bool service::stop(const char* name, bool event_fallback, uint32_t seconds) {
    unique_sc_handle svc;
    if (!open_service("mcl::mswin::service::stop", name, manager_read_access, SERVICE_STOP | SERVICE_QUERY_STATUS, svc)) {
        if (event_fallback) signal_stop_event(name);
        return false;
    }

    SERVICE_STATUS status{};
    if (ControlService(svc.get(), SERVICE_CONTROL_STOP, &status)) {
        const ULONGLONG deadline = GetTickCount64() + static_cast<ULONGLONG>(seconds) * 1000;
        while (GetTickCount64() < deadline) {
            if (!QueryServiceStatus(svc.get(), &status)) break;
            if (status.dwCurrentState != SERVICE_STOP_PENDING) {
                const bool stopped = status.dwCurrentState == SERVICE_STOPPED;
                if (stopped || !event_fallback) return stopped;
                signal_stop_event(name);
                return false;
            }
            if (!sleep_unless_stopped(stop_poll_ms)) {
                NV_LOG("mcl::mswin::service::stop", "The wait for service %s to stop was given up: the caller is stopping\n",
                       name);
                break;
            }
        }
        // The last sleep may have seen it stop.
        (void)QueryServiceStatus(svc.get(), &status);
    } else {
        (void)QueryServiceStatus(svc.get(), &status);
    }
    const bool stopped = status.dwCurrentState == SERVICE_STOPPED;
    if (!stopped && event_fallback) signal_stop_event(name);
    return stopped;
}

void service::signal_stop_event(const char* name) {
    event stop;
    (void)stop.create(stop_event_name(name).c_str());
    stop.set();
}

}  // namespace mcl::mswin
