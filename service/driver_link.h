// The driver link: the minifilter's command port (one fresh connection per operation, one-way
// command and feature messages), the volumes the filter has been attached to, and what the
// service writes to the driver's own registry key for it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>

#include "mcl/lock.h"
#include "mcl/mswin/unique_handle.h"
#include "quarantine/quarantine_store.h"
#include "service/process_protection.h"
#include "service/regkey_protection.h"

// Owns the attached-volume table; every other operation is stateless and static.
// The senders run on the IPC event thread, on request workers, on the service thread at
// start-up and shutdown, and (image rules only) on the enforcement thread; they return nothing
// and log a refusal. The attached-volume table has its lock, also held across an attach or
// detach, since the privilege those switch belongs to the whole process.
class driver_link final : public reg_key_driver, public folder_driver, public quarantine_driver {
public:
    using driver_port = mcl::mswin::unique_kernel_handle;

    // The driver's own service key (HKLM) and what the service writes there for the driver.
    static constexpr const char* driver_config_key = "system\\CurrentControlSet\\Services\\VQRMonitor";
    static constexpr const char* trusted_apps_key = "system\\CurrentControlSet\\Services\\VQRMonitor\\TrustedOpenApps";
    static constexpr const char* svc_mgr_path_value = "SvcMgrPath";

    driver_link() = default;
    driver_link(const driver_link&) = delete;
    driver_link& operator=(const driver_link&) = delete;

    // The command port, or INVALID_HANDLE_VALUE after logging the failure.
    static HANDLE connectFilterDriver();
    // connectFilterDriver() owned: closed when it goes out of scope.
    static driver_port openDriverPort();
    // The text of a Filter Manager or Win32 HRESULT for log lines.
    static std::wstring driver_error_text(HRESULT hr);
    static void drvEnableFeature(HANDLE port, uint32_t feature, bool on);
    // The protection switches, in this order: process protection (0) and folder protection (6)
    // to `processes`, registry protection (11) to `registry`.
    static void drvEnableProtectionFeatures(HANDLE port, bool processes, bool registry);
    static void drvSkipProcessFirstSvcMgrOpen(HANDLE port);
    static void drvSendCommand(HANDLE port, uint32_t code, const std::wstring& text);
    // Code 1 (2 when removing); an empty path with `remove` removes every image rule.
    static void drvProtectProcess(HANDLE port, const std::wstring& imagePath, bool remove);
    // Code 12 (13 when removing) with the \REGISTRY\MACHINE\... path; empty removes every key rule.
    static void drvProtectRegKey(HANDLE port, const std::wstring& keyPath, bool remove);
    // Code 7/8 (9/10 when `block`) with the device form of `path`; an add first attaches the
    // filter to the path's volume. A path without "X:\" or over 260 characters is refused with a
    // log line and nothing is sent. An empty path with `remove` removes every rule of that code.
    void drvProtectFolder(HANDLE port, const std::wstring& path, bool remove, bool block);
    // FilterDetach of the filter's instance on `volume`, logged when it fails.
    static void detachFilter(const std::wstring& volume);
    // Detaches every attached volume and empties the table.
    void detachAllVolumes();
    // The device form of a drive-letter path (C:\A -> \Device\HarddiskVolume1\A); false, with a
    // log line, for a path without "X:\" or over 260 characters. Attaches the volume when `attach`.
    bool to_device_path(const std::wstring& path, bool attach, std::wstring& device);
    // Writes REG_DWORD 1 named `path` under trusted_apps_key (outcome not checked), then sends
    // code 3 with `path` (device form, UTF-8) on a connection of its own.
    static void loadTrustedOpenApp(const std::string& path);
    // Writes REG_SZ SvcMgrPath = `path` in driver_config_key, then sends code 15 with it.
    static void setSvcMgrPath2Driver(const std::string& path);
    // Start-up: csrss.exe, lsass.exe and svchost.exe of the system folder as trusted
    // applications, and on Windows 8 / Server 2012 the service manager's image.
    static void loadTrustedOpenApps();

    // The driver as the key, process and folder protection and the quarantine store see it.
    mcl::mswin::unique_kernel_handle open_port() override { return openDriverPort(); }
    void send_key_rule(HANDLE port, const std::wstring& kernel_path, bool remove) override {
        drvProtectRegKey(port, kernel_path, remove);
    }
    std::wstring error_text(HRESULT hr) override { return driver_error_text(hr); }
    void send_image_rule(HANDLE port, const std::wstring& image, bool remove) override {
        drvProtectProcess(port, image, remove);
    }
    void enable_feature(HANDLE port, uint32_t feature, bool on) override { drvEnableFeature(port, feature, on); }
    void send_folder_rule(HANDLE port, const std::wstring& path, bool remove, bool block) override {
        drvProtectFolder(port, path, remove, block);
    }
    void detach_all_volumes() override { detachAllVolumes(); }

private:
    // FilterAttach on `volume` unless it is in the table; recorded whatever the outcome.
    void attachVolume(const std::wstring& volume);

    // Volume device name (or "X:" when it has none) -> instance name FilterAttach gave.
    mcl::lock volumes_lock_;
    std::map<std::wstring, std::wstring> attached_volumes_;
};
