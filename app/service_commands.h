// What the command line asks of the service object: install, remove and run it. Starting,
// stopping and querying by name are mcl::mswin::service's own.
#pragma once

#include <string>

#include "mcl/mswin/service.h"

inline constexpr const char* k_service_name = mcl::mswin::service::default_name;

// Registers the service with `command_line` as its binary path, a restart after 5000 ms as
// failure action, and the unrestricted service SID type (whose failure is not reported).
bool install_service(const std::string& command_line);
bool uninstall_service();

// Hands the main thread to the service control manager; false when the dispatcher cannot start.
bool run_service();
// Runs the service logic in the console until Ctrl+C or Ctrl+Break.
bool run_service_in_console();
