// The driver link: one fresh command-port connection per operation, one-way command and feature
// messages, and the volumes the filter has been attached to.
#include <windows.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/filter_library.h"
#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/os_version.h"
#include "mcl/mswin/privilege.h"
#include "mcl/mswin/process.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "protocol/driver_protocol.h"
#include "service/driver_link.h"

namespace {

constexpr size_t max_driver_path = MAX_PATH;  // characters of text, without the terminator

HRESULT missing_export() { return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND); }

// Sends one message as built by the driver protocol; logs a refusal the way every sender does.
void send_message(HANDLE port, std::vector<uint8_t>& message, const char* function) {
    const filter_library::entry_points& lib = filter_library::get();
    DWORD returned = 0;
    const HRESULT hr = lib.send == nullptr
                           ? missing_export()
                           : lib.send(port, message.data(), static_cast<DWORD>(message.size()), nullptr, 0, &returned);
    if (SUCCEEDED(hr)) return;
    if (hr == static_cast<HRESULT>(vqr::hr_unloaded)) {
        NV_LOG(function, "The kernel component of vqrmonitor has unloaded.");
        return;
    }
    NV_LOG(function, "UNEXPECTED ERROR received: %d - %ls", static_cast<int>(hr),
           driver_link::driver_error_text(hr).c_str());
}

void log_refused_path(const char* function, const std::wstring& path) {
    NV_LOG(function, "Path refused for the driver (needs a drive letter, colon and backslash, at most %d characters): %ls",
           static_cast<int>(max_driver_path), path.c_str());
}

DWORD query_dos_device(const char* drive, char* target, DWORD size) { return QueryDosDeviceA(drive, target, size); }
DWORD query_dos_device(const wchar_t* drive, wchar_t* target, DWORD size) { return QueryDosDeviceW(drive, target, size); }

// The device form of a path: the drive's device name (QueryDosDevice, the drive itself when
// that fails), then the rest of the path; `volume` is that device name. False, with a log line,
// for a path without a drive letter, colon and backslash, or too long. The trusted applications
// take it narrow, the rules wide.
template <typename Char>
bool device_form(const std::basic_string<Char>& path, std::basic_string<Char>& volume,
                 std::basic_string<Char>& device) {
    constexpr const char* fn = "chelperservice::to_device_path";
    if (!mcl::mswin::has_drive_prefix(path) || path.size() > max_driver_path) {
        log_refused_path(fn, std::wstring(path.begin(), path.end()));
        return false;
    }
    const std::basic_string<Char> drive = path.substr(0, 2);
    Char target[MAX_PATH + 1] = {};
    if (query_dos_device(drive.c_str(), target, MAX_PATH) != 0) {
        volume = target;
    } else {
        NV_LOG(fn, "fail to get device name: error: %d", static_cast<int>(GetLastError()));
        volume = drive;
    }
    device = volume + Char('\\') + path.substr(3);
    return true;
}

// FilterAttach and FilterDetach need SeLoadDriverPrivilege enabled in the caller's token; the
// service's token holds it disabled. Enabled for the call and put back as it was afterwards.
class load_driver_privilege {
public:
    load_driver_privilege() : privilege_(SE_LOAD_DRIVER_NAME) {
        constexpr const char* fn = "chelperservice::load_driver_privilege";
        using state = mcl::mswin::scoped_privilege::state;
        if (privilege_.result() == state::no_token)
            NV_LOG(fn, "OpenProcessToken error: %d", static_cast<int>(privilege_.error()));
        else if (privilege_.result() == state::not_switched)
            NV_LOG(fn, "Could not enable SeLoadDriverPrivilege: %d", static_cast<int>(privilege_.error()));
    }

private:
    mcl::mswin::scoped_privilege privilege_;
};

}  // namespace

std::wstring driver_link::driver_error_text(HRESULT hr) { return filter_library::error_text(hr); }

HANDLE driver_link::connectFilterDriver() {
    const filter_library::entry_points& lib = filter_library::get();
    mcl::mswin::filter_port port = mcl::mswin::connect_filter_port(lib.connect, lib.load_error, vqr::command_port_name);
    if (FAILED(port.hr)) {
        NV_LOG("chelperservice::connectFilterDriver", "Could not connect to filter: %d - %ls", static_cast<int>(port.hr),
               driver_error_text(port.hr).c_str());
        return INVALID_HANDLE_VALUE;
    }
    return port.handle.release();
}

driver_link::driver_port driver_link::openDriverPort() { return driver_port(connectFilterDriver()); }

void driver_link::drvEnableFeature(HANDLE port, uint32_t feature, bool on) {
    std::vector<uint8_t> message = vqr::build_feature(feature, on);
    send_message(port, message, "chelperservice::drvEnableFeature");
}

void driver_link::drvEnableProtectionFeatures(HANDLE port, bool processes, bool registry) {
    drvEnableFeature(port, vqr::code::feature_process_protection, processes);
    drvEnableFeature(port, vqr::code::feature_folder_protection, processes);
    drvEnableFeature(port, vqr::code::feature_registry_protection, registry);
}

void driver_link::drvSkipProcessFirstSvcMgrOpen(HANDLE port) {
    drvEnableFeature(port, vqr::code::feature_skip_first_svcmgr_open, true);
}

void driver_link::drvSendCommand(HANDLE port, uint32_t code, const std::wstring& text) {
    std::vector<uint8_t> message = vqr::build_command(code, text);
    send_message(port, message, "chelperservice::drvSendCommand");
}

void driver_link::drvProtectProcess(HANDLE port, const std::wstring& imagePath, bool remove) {
    drvSendCommand(port, remove ? vqr::code::unprotect_process : vqr::code::protect_process, imagePath);
}

void driver_link::drvProtectRegKey(HANDLE port, const std::wstring& keyPath, bool remove) {
    drvSendCommand(port, remove ? vqr::code::unprotect_regkey : vqr::code::protect_regkey, keyPath);
}

void driver_link::drvProtectFolder(HANDLE port, const std::wstring& path, bool remove, bool block) {
    const uint32_t code = block ? (remove ? vqr::code::unblock_path : vqr::code::block_path)
                                : (remove ? vqr::code::unprotect_folder : vqr::code::protect_folder);
    // An empty text removes every folder rule of its kind and needs no device form.
    if (path.empty() && remove) {
        drvSendCommand(port, code, path);
        return;
    }
    std::wstring device;
    if (!to_device_path(path, /*attach=*/!remove, device)) return;
    drvSendCommand(port, code, device);
}

bool driver_link::to_device_path(const std::wstring& path, bool attach, std::wstring& device) {
    std::wstring volume;
    if (!device_form(path, volume, device)) return false;
    if (attach) attachVolume(volume);
    return true;
}

void driver_link::attachVolume(const std::wstring& volume) {
    // Held across the attach: the privilege is the process's, switched on and back for it.
    mcl::scoped_lock guard(volumes_lock_);
    if (attached_volumes_.count(volume) != 0) return;
    const filter_library::entry_points& lib = filter_library::get();
    wchar_t instance[256] = {};  // 512 bytes
    load_driver_privilege privilege;
    if (lib.attach != nullptr) (void)lib.attach(vqr::filter_name, volume.c_str(), nullptr, sizeof(instance), instance);
    // The volume counts as attached whatever the outcome: a failed attach is not retried.
    attached_volumes_[volume] = instance;
}

void driver_link::detachFilter(const std::wstring& volume) {
    const filter_library::entry_points& lib = filter_library::get();
    load_driver_privilege privilege;
    const HRESULT hr = lib.detach == nullptr ? missing_export() : lib.detach(vqr::filter_name, volume.c_str(), nullptr);
    if (FAILED(hr))
        NV_LOG("chelperservice::detachFilter", " Could not detach from device %ls: %d - %ls", volume.c_str(),
               static_cast<int>(hr), driver_error_text(hr).c_str());
}

void driver_link::detachAllVolumes() {
    mcl::scoped_lock guard(volumes_lock_);
    for (const auto& entry : attached_volumes_) detachFilter(entry.first);
    attached_volumes_.clear();
}

void driver_link::loadTrustedOpenApp(const std::string& path) {
    (void)mcl::mswin::reg::write_dword(trusted_apps_key, path.c_str(), 1);
    const driver_port port = openDriverPort();
    if (port) drvSendCommand(port.get(), vqr::code::trusted_app, mcl::mswin::from_utf8(path));
}

void driver_link::setSvcMgrPath2Driver(const std::string& path) {
    (void)mcl::mswin::reg::write_string(driver_config_key, svc_mgr_path_value, path);
    const driver_port port = openDriverPort();
    if (port) drvSendCommand(port.get(), vqr::code::svcmgr_path, mcl::mswin::from_utf8(path));
}

void driver_link::loadTrustedOpenApps() {
    constexpr const char* fn = "chelperservice::loadTrustedOpenApps";
    std::string system_dir;
    if (!mcl::mswin::system_directory(system_dir)) {
        NV_LOG(fn, "Failed to get system folder, error: %d", static_cast<int>(GetLastError()));
        return;
    }
    std::string directory;
    std::string volume;
    if (!device_form(system_dir, volume, directory)) return;
    if (directory.empty() || directory.back() != '\\') directory += '\\';
    for (const char* name : {"csrss.exe", "lsass.exe", "svchost.exe"}) loadTrustedOpenApp(directory + name);
    // Only Windows 8 and Server 2012 need to be told the service manager's image.
    if (mcl::mswin::is_windows_at_least(6, 2) && !mcl::mswin::is_windows_at_least(6, 3)) {
        NV_LOG(fn, "Windows 8 / Server 2012 detected, set service manager path.");
        setSvcMgrPath2Driver(directory + "services.exe");
    }
}
