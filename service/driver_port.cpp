// The driver command port: one fresh connection per operation, one-way command and feature
// messages, and the volumes the filter has been attached to.
#include <windows.h>

#include <cwctype>
#include <string>
#include <vector>

#include "app/log.h"
#include "service/driver_protocol.h"
#include "service/filter_library.h"
#include "service/helper_service.h"

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
           chelperservice::driver_error_text(hr).c_str());
}

bool has_drive_prefix(const std::wstring& path) {
    return path.size() >= 3 && std::iswalpha(path[0]) && path[1] == L':' && path[2] == L'\\';
}

}  // namespace

std::wstring chelperservice::driver_error_text(HRESULT hr) {
    wchar_t text[MAX_PATH] = {};
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(hr), 0, text, MAX_PATH, nullptr);
    if (n == 0) {
        wchar_t dir[MAX_PATH] = {};
        const UINT len = GetSystemDirectoryW(dir, MAX_PATH);
        const std::wstring library = std::wstring(dir, len < MAX_PATH ? len : 0) + L"\\fltlib.dll";
        if (len != 0 && len < MAX_PATH && library.size() <= MAX_PATH) {
            HMODULE module = LoadLibraryExW(library.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
            if (module != nullptr) {
                n = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, module,
                                   static_cast<DWORD>(hr), 0, text, MAX_PATH, nullptr);
                FreeLibrary(module);
            }
        }
    }
    if (n == 0) return L"Could not translate error: " + std::to_wstring(static_cast<int>(hr));
    std::wstring out(text, n);
    while (!out.empty() && (out.back() == L'\n' || out.back() == L'\r' || out.back() == L' ')) out.pop_back();
    return out;
}

HANDLE chelperservice::connectFilterDriver() {
    const filter_library::entry_points& lib = filter_library::get();
    HANDLE port = INVALID_HANDLE_VALUE;
    HRESULT hr = lib.load_error;
    if (lib.connect == nullptr && SUCCEEDED(hr)) hr = missing_export();
    if (lib.connect != nullptr) hr = lib.connect(vqr::command_port_name, 0, nullptr, 0, nullptr, &port);
    if (FAILED(hr)) {
        NV_LOG("chelperservice::connectFilterDriver", "Could not connect to filter: %d - %ls", static_cast<int>(hr),
               driver_error_text(hr).c_str());
        return INVALID_HANDLE_VALUE;
    }
    return port;
}

chelperservice::driver_port chelperservice::openDriverPort() { return driver_port(connectFilterDriver()); }

void chelperservice::drvEnableFeature(HANDLE port, uint32_t feature, bool on) {
    std::vector<uint8_t> message = vqr::build_feature(feature, on);
    send_message(port, message, "chelperservice::drvEnableFeature");
}

void chelperservice::drvSkipProcessFirstSvcMgrOpen(HANDLE port) {
    drvEnableFeature(port, vqr::code::feature_skip_first_svcmgr_open, true);
}

void chelperservice::drvSendCommand(HANDLE port, uint32_t code, const std::wstring& text) {
    std::vector<uint8_t> message = vqr::build_command(code, text);
    send_message(port, message, "chelperservice::drvSendCommand");
}

void chelperservice::drvProtectProcess(HANDLE port, const std::wstring& imagePath, bool remove) {
    drvSendCommand(port, remove ? vqr::code::unprotect_process : vqr::code::protect_process, imagePath);
}

void chelperservice::drvProtectRegKey(HANDLE port, const std::wstring& keyPath, bool remove) {
    drvSendCommand(port, remove ? vqr::code::unprotect_regkey : vqr::code::protect_regkey, keyPath);
}

void chelperservice::drvProtectFolder(HANDLE port, const std::wstring& path, bool remove, bool block) {
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

bool chelperservice::to_device_path(const std::wstring& path, bool attach, std::wstring& device) {
    constexpr const char* fn = "chelperservice::to_device_path";
    if (!has_drive_prefix(path) || path.size() > max_driver_path) {
        NV_LOG(fn, "Path refused for the driver (needs a drive letter, colon and backslash, at most %d characters): %ls",
               static_cast<int>(max_driver_path), path.c_str());
        return false;
    }
    const std::wstring drive = path.substr(0, 2);
    wchar_t target[MAX_PATH + 1] = {};
    std::wstring volume;
    if (QueryDosDeviceW(drive.c_str(), target, MAX_PATH) != 0) {
        volume = target;
    } else {
        NV_LOG(fn, "fail to get device name: error: %d", static_cast<int>(GetLastError()));
        volume = drive;
    }
    if (attach) attachVolume(volume);
    device = volume + L"\\" + path.substr(3);
    return true;
}

void chelperservice::attachVolume(const std::wstring& volume) {
    if (attached_volumes_.count(volume) != 0) return;
    const filter_library::entry_points& lib = filter_library::get();
    wchar_t instance[256] = {};  // 512 bytes
    if (lib.attach != nullptr) (void)lib.attach(vqr::filter_name, volume.c_str(), nullptr, sizeof(instance), instance);
    // The volume counts as attached whatever the outcome: a failed attach is not retried.
    attached_volumes_[volume] = instance;
}

void chelperservice::detachFilter(const std::wstring& volume) {
    const filter_library::entry_points& lib = filter_library::get();
    const HRESULT hr = lib.detach == nullptr ? missing_export() : lib.detach(vqr::filter_name, volume.c_str(), nullptr);
    if (FAILED(hr))
        NV_LOG("chelperservice::detachFilter", " Could not detach from device %ls: %d - %ls", volume.c_str(),
               static_cast<int>(hr), driver_error_text(hr).c_str());
}

void chelperservice::detachAllVolumes() {
    for (const auto& entry : attached_volumes_) detachFilter(entry.first);
    attached_volumes_.clear();
}
