// Keeping protected services running: the enforcement list, its lock and the thread that starts
// every listed service again when it stops.
#pragma once

#include <windows.h>

#include <set>
#include <string>
#include <vector>

#include "mcl/event.h"
#include "mcl/lock.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"

// What the enforcement needs from the rest of the service: the driver's image rules, to start a
// service once more without its image's protection, and where a service's image lives.
// Called on the enforcement thread.
class enforcement_host {
public:
    virtual ~enforcement_host() = default;
    // A connection of its own to the command port; invalid (the failure logged) when the driver
    // cannot be reached.
    virtual mcl::mswin::unique_kernel_handle open_port() = 0;
    // Code 1 (2 when removing) with `image`; a refusal is logged.
    virtual void send_image_rule(HANDLE port, const std::wstring& image, bool remove) = 0;
    // The program path of a service's binary path; empty when its configuration is unreadable.
    virtual std::wstring service_image(const std::string& name) = 0;
};

// Owns the list of services to keep running and the thread that does it.
class service_enforcement {
public:
    // Keeps the listed services running: a pass every 15 s, and at once when the system reports
    // a listed service stopping. Its own thread.
    class service_enforce_thread : public mcl::thread {
    public:
        explicit service_enforce_thread(service_enforcement& owner) : owner_(owner) {
            (void)changed_.create_unnamed();
        }
        ~service_enforce_thread() override;
        DWORD run() override;
        // Wakes the thread so that it watches a newly listed service. Any thread.
        void list_changed();

    private:
        service_enforcement& owner_;
        mcl::event changed_;  // set when a name joins the list
    };

    // `host` outlives this object; `own_name` (the service's own name) is never listed.
    service_enforcement(enforcement_host& host, std::string own_name);
    service_enforcement(const service_enforcement&) = delete;
    service_enforcement& operator=(const service_enforcement&) = delete;

    // List operations; any thread (each takes the list's lock).
    void add(const std::string& name);
    // True when `name` was on the list. Once it returns, no pass starts `name` again (it waits
    // for a start in progress).
    bool remove(const std::string& name);
    std::vector<std::string> list();

    // The thread's start and stop (limit in seconds). Service thread or IPC event thread.
    [[nodiscard]] bool start() { return thread_.start(); }
    void stop(uint32_t seconds) { thread_.stop(seconds); }

private:
    // One service of a pass: started again when it is stopped; when that fails, once more with
    // its image out of the driver's process protection. A service whose configuration gives no
    // program path is skipped (logged once). Enforcement thread.
    void enforce_one(const std::string& name);
    // Starts `name` (first try or `retry`, each with its log line) unless it is no longer listed:
    // a pass works on a copy of the list, and a stop request takes its service off meanwhile.
    enum class start_outcome { started, failed, unlisted };
    start_outcome start_listed(const std::string& name, bool retry);

    enforcement_host& host_;
    const std::string own_name_;
    mcl::lock start_lock_;            // held across a start, and by remove(); before lock_
    mcl::lock lock_;
    std::vector<std::string> list_;   // under lock_
    std::set<std::string> skipped_;   // names logged as having no program path; enforcement thread
    service_enforce_thread thread_{*this};  // last: stopped before the list goes
};
