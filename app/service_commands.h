// What the command line asks of the service: install, remove, start, stop and run it.
#pragma once

#include <string>

inline constexpr const char* k_service_name = "norvale_halvern_svc";

// Whether the named service's configuration can be read.
bool is_service_installed(const char* name);

// Registers the service with `command_line` as its binary path, a restart after 5000 ms as
// failure action, and the unrestricted service SID type (whose failure is not reported).
bool install_service(const std::string& command_line);
bool uninstall_service();
// Starts the service and waits while it is start pending.
bool start_service(const char* name);
// Stops the service, falling back to its named stop event, waiting up to `seconds`.
bool stop_service(const char* name, bool event_fallback, unsigned seconds);

// Hands the main thread to the service control manager; false when the dispatcher cannot start.
bool run_service();
// Runs the service logic in the console until Ctrl+C or Ctrl+Break.
bool run_service_in_console();
