// The emergency options an administrator may leave for the next start, under
// HKLM\Software\Norvale\NVClientHelper\EmergencyRecover:
//   "code"              recovery code; without one, or with a rejected one, the other options
//                       stay for later and nothing runs
//   "uninstallService"  DWORD, non-zero: disable protection and uninstall the service
//   "disableProtection" DWORD, non-zero: disable protection
//   "serv"              string: lift the protection of this service at once
//   "fold"              string: reset this folder's security to the default at once
// Any of the last four makes the start an emergency start: the service does not listen.
#pragma once

#include <functional>
#include <string>

inline constexpr const char* k_emergency_key = "Software\\Norvale\\NVClientHelper\\EmergencyRecover";

struct emergency_start {
    bool emergency = false;
    bool uninstall = false;
    bool disable = false;
};

struct emergency_actions {
    std::function<bool(const std::string& code)> check_code;
    std::function<void(const std::string& service)> unprotect_service;
    std::function<void(const std::wstring& folder)> restore_folder;
};

// Reads the options under HKLM\`key` in order, deleting each value right after it was read (so
// a failing action is not retried at the next start), and runs the immediate actions. "serv" and
// "fold" are read only when their action is given; otherwise they stay for a later start.
emergency_start consume_emergency_options(const std::string& key, const emergency_actions& actions);
