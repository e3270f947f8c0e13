// IRP-denied notifications: the receiver thread on the driver's notification port, the volume
// map that turns device paths into drive-letter paths, the subscribers' events, and what the
// subscribe and query requests do. The tables themselves are service/irp_tables.cpp.
#include <windows.h>

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/file_info.h"
#include "mcl/mswin/filter_library.h"
#include "mcl/mswin/filter_port.h"
#include "mcl/mswin/process.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/driver_protocol.h"
#include "service/irp_notifier.h"

namespace {

using mcl::mswin::to_utf8;

constexpr const char* run_fn = "chelperservice::irp_notification_receiver::run";
constexpr const char* message_fn = "chelperservice::handleIrpMessage";

// The port is gone when the driver unloaded (0x80070006 is HRESULT_FROM_WIN32(ERROR_INVALID_HANDLE)).
bool port_gone(HRESULT hr) { return hr == static_cast<HRESULT>(vqr::hr_unloaded); }

HRESULT last_error_hr() { return HRESULT_FROM_WIN32(GetLastError()); }

uint64_t last_write_time(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!GetFileAttributesExA(path.c_str(), GetFileExInfoStandard, &data)) return 0;
    return static_cast<uint64_t>(data.ftLastWriteTime.dwHighDateTime) << 32 | data.ftLastWriteTime.dwLowDateTime;
}

}  // namespace

uint64_t irp_notifier::irpSystemTime() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<uint64_t>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
}

void irp_notifier::clearIrpStore() {
    mcl::scoped_lock guard(irp_lock_);
    irp_tables_.clear_store();
}

// ---- the receiver

DWORD irp_notifier::irp_notification_receiver::run() {
    try {
        return receive();
    } catch (const std::exception& e) {
        NV_LOG(run_fn, "[IRP Notification]: The receiver ended on an exception: %s", e.what());
    } catch (...) {
        NV_LOG(run_fn, "[IRP Notification]: The receiver ended on an exception");
    }
    return 1;
}

DWORD irp_notifier::irp_notification_receiver::receive() {
    owner_->clearIrpStore();
    sequence_ = 0;
    const filter_library::entry_points& lib = filter_library::get();
    HRESULT hr = lib.load_error;
    HANDLE port = INVALID_HANDLE_VALUE;
    if (SUCCEEDED(hr) && lib.get_message == nullptr) {
        hr = HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    } else {
        mcl::mswin::filter_port connected = mcl::mswin::connect_filter_port(lib.connect, lib.load_error, vqr::notify_port_name);
        hr = connected.hr;
        port = connected.handle.release();
    }
    if (FAILED(hr)) {
        NV_LOG(run_fn, "Could not connect to filter for notification: %d - %ls", static_cast<int>(hr),
               filter_library::error_text(hr).c_str());
        return 0;
    }
    mcl::mswin::unique_kernel_handle completed(CreateEventW(nullptr, /*manual_reset=*/TRUE, FALSE, nullptr));
    if (!completed) {
        NV_LOG(run_fn, "[IRP Notification]: Failed to create the wait event, error: %d", static_cast<int>(GetLastError()));
        CloseHandle(port);
        return 1;
    }
    // One buffer for the whole run; it is freed only after the last wait has completed.
    std::vector<uint8_t> buffer(irp::message_size);
    for (;;) {
        std::fill(buffer.begin(), buffer.end(), 0);
        OVERLAPPED ov{};
        ov.hEvent = completed.get();
        DWORD bytes = 0;
        hr = lib.get_message(port, buffer.data(), static_cast<DWORD>(buffer.size()), &ov);
        if (hr == HRESULT_FROM_WIN32(ERROR_IO_PENDING)) {
            HANDLE waits[2] = {completed.get(), stop_event()};
            const DWORD r = WaitForMultipleObjects(2, waits, /*wait_all=*/FALSE, INFINITE);
            if (r != WAIT_OBJECT_0) {
                // Stopping (or a wait that cannot work): cancel the wait and let it complete,
                // since the driver writes into `buffer` and `ov` until it has.
                if (!CancelIoEx(port, &ov) && GetLastError() == ERROR_NOT_FOUND && !HasOverlappedIoCompleted(&ov)) {
                    // A library that waits on a helper thread of its own does not know our
                    // OVERLAPPED; the port is this thread's alone, so cancelling all of its I/O
                    // cancels exactly this wait.
                    CancelIoEx(port, nullptr);
                }
            }
            hr = GetOverlappedResult(port, &ov, &bytes, /*wait=*/TRUE) ? S_OK : last_error_hr();
        } else if (SUCCEEDED(hr)) {
            // Completed at once: a message was already queued.
            hr = GetOverlappedResult(port, &ov, &bytes, /*wait=*/TRUE) ? S_OK : last_error_hr();
        }

        if (hr == static_cast<HRESULT>(vqr::hr_aborted)) {
            NV_LOG(run_fn, "[IRP Notification]: FilterGetMessage aborted: %d - %ls", static_cast<int>(hr),
                   filter_library::error_text(hr).c_str());
            break;
        }
        if (FAILED(hr)) {
            NV_LOG(run_fn, "[IRP Notification]: Failed to get message from the minifilter: %d - %ls",
                   static_cast<int>(hr), filter_library::error_text(hr).c_str());
            // The driver is gone without its stop message: nothing more can arrive on this
            // port, so waiting again would only fail again at once, forever.
            if (port_gone(hr)) break;
        } else if (!handle(buffer.data(), bytes)) {
            break;
        }
        if (WaitForSingleObject(stop_event(), 0) == WAIT_OBJECT_0) break;
    }
    if (!CloseHandle(port)) NV_LOG(run_fn, "[IRP Notification]: Failed to close the notification port.\n");
    return 0;
}

bool irp_notifier::irp_notification_receiver::handle(const uint8_t* data, size_t size) {
    // One message that cannot be handled (memory) costs that message, not the receiver.
    try {
        return owner_->handleIrpMessage(data, size, sequence_);
    } catch (const std::exception& e) {
        NV_LOG(run_fn, "[IRP Notification]: Message dropped on an exception: %s", e.what());
    }
    return true;
}

bool irp_notifier::handleIrpMessage(const uint8_t* data, size_t size, uint64_t& sequence) {
    irp::message m;
    const irp::message_check check = irp::parse_message(data, size, m);
    if (check == irp::message_check::too_short) {
        NV_LOG(message_fn, "[IRP Notification]: Message of %u bytes is shorter than its header (%u bytes), dropped.",
               static_cast<unsigned>(size), static_cast<unsigned>(irp::message_fixed_size));
        return true;
    }
    NV_LOG(run_fn, "[IRP Notification]: Got message %llu.", static_cast<unsigned long long>(m.id));
    const uint64_t now = irp_clock_();
    {
        mcl::scoped_lock guard(irp_lock_);
        irp_tables_.purge(now);
        end_released_locked(now);
    }
    switch (m.type) {
        case vqr::notification::type_stop:
            NV_LOG(run_fn, "[IRP Notification]: Received the stop message from driver");
            return false;
        case vqr::notification::type_irp_denied:
            if (check == irp::message_check::name_unterminated) {
                NV_LOG(message_fn,
                       "[IRP Notification]: The file name of message %llu does not end inside the message, dropped.",
                       static_cast<unsigned long long>(m.id));
                return true;
            }
            handleIrpDenied(m, now, sequence);
            return true;
        default:
            NV_LOG(run_fn, "[IRP Notification]: Invalid notification type %d, message ignored.", static_cast<int>(m.type));
            return true;
    }
}

void irp_notifier::handleIrpDenied(const irp::message& m, uint64_t now, uint64_t& sequence) {
    NV_LOG(run_fn,
           "[IRP Notification]: Received the IRP denied notification: FileName=\"%ls\" MajorFun=%d, MinorFunc=%d, pid=0x%p",
           m.file_name.c_str(), m.major_function, m.minor_function,
           reinterpret_cast<void*>(static_cast<uintptr_t>(m.process_id)));
    irp::record r;
    r.file_path = device_to_dos_path(m.file_name);
    if (r.file_path.empty()) {
        RefreshVolumeToDeviceMap();
        r.file_path = device_to_dos_path(m.file_name);
    }
    r.file_path = mcl::mswin::lower_case(std::move(r.file_path));
    NV_LOG(run_fn, "[IRP Notification]: Coverted file path=\"%s\"", r.file_path.c_str());
    r.sequence = sequence++;
    r.time = now;
    r.major_function = m.major_function;
    r.minor_function = m.minor_function;
    r.process_id = m.process_id;
    r.type = irp::type_irp_denied;
    readProcessImage(m.process_id, r.process_image, r.process_description);

    mcl::scoped_lock guard(irp_lock_);
    for (const irp::subscription* s : irp_tables_.choose(r.file_path, r.major_function, r.minor_function)) {
        if (s->subscriber.empty() || s->event_name.empty()) continue;
        mcl::mswin::unique_kernel_handle event(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, s->event_name.c_str()));
        if (!event) {
            NV_LOG(run_fn,
                   "Failed to notify subscriber <%s> on IRP for file <%s>, unable to open event <%s>, error: %d",
                   s->subscriber.c_str(), r.file_path.c_str(), s->event_name.c_str(), static_cast<int>(GetLastError()));
            continue;
        }
        const irp::store_outcome stored = irp_tables_.store(s->subscriber, r, sequence);
        if (stored.drops_started)
            NV_LOG(run_fn,
                   "[IRP Notification]: Subscriber <%s> holds %u notification records, dropping the oldest until it "
                   "collects them",
                   s->subscriber.c_str(), static_cast<unsigned>(irp::max_records_per_subscriber));
        NV_LOG(run_fn, "Notify subscriber <%s> on IRP for file <%s>", s->subscriber.c_str(), r.file_path.c_str());
        SetEvent(event.get());
    }
}

void irp_notifier::readProcessImage(uint32_t pid, std::string& image, std::string& image_description) {
    const std::string found = mcl::mswin::process_image(pid);
    if (found.empty()) return;
    image = found;
    // Reading a file's description takes tens of milliseconds (version resource, shell); a
    // flood of denials mostly names the same few images, so remember it while the file is
    // unchanged.
    const uint64_t written = last_write_time(image);
    auto known = image_descriptions_.find(image);
    if (known != image_descriptions_.end() && written != 0 && known->second.first == written) {
        image_description = known->second.second;
        return;
    }
    image_description = file_info(image.c_str()).description;
    if (image_descriptions_.size() >= max_image_descriptions) image_descriptions_.clear();
    image_descriptions_[image] = {written, image_description};
}

// ---- volumes

void irp_notifier::RefreshVolumeToDeviceMap() {
    constexpr const char* fn = "chelperservice::RefreshVolumeToDeviceMap";
    volume_to_device_.clear();
    wchar_t volume[MAX_PATH] = {};
    HANDLE search = FindFirstVolumeW(volume, MAX_PATH);
    if (search == INVALID_HANDLE_VALUE) {
        NV_LOG(fn, "FindFirstVolumeW failed with error code %d\n", static_cast<int>(GetLastError()));
        return;
    }
    for (;;) {
        std::wstring name = volume;
        if (name.size() < 5 || name.compare(0, 4, L"\\\\?\\") != 0 || name.back() != L'\\') {
            NV_LOG(fn, "FindFirstVolumeW/FindNextVolumeW returned a bad path: %ls\n", volume);
            break;
        }
        name.pop_back();  // QueryDosDeviceW wants the name without its trailing backslash
        wchar_t device[MAX_PATH] = {};
        if (QueryDosDeviceW(name.c_str() + 4, device, MAX_PATH) == 0) {
            NV_LOG(fn, "QueryDosDeviceW failed with error code %d\n", static_cast<int>(GetLastError()));
            break;
        }
        std::wstring key = mcl::mswin::lower_case_towlower(device);
        if (key.empty() || key.back() != L'\\') key += L'\\';

        std::vector<wchar_t> paths(MAX_PATH + 1);
        DWORD needed = 0;
        BOOL got = GetVolumePathNamesForVolumeNameW(volume, paths.data(), static_cast<DWORD>(paths.size()), &needed);
        if (!got && GetLastError() == ERROR_MORE_DATA && needed > paths.size() && needed < 0x10000) {
            paths.assign(needed, L'\0');
            got = GetVolumePathNamesForVolumeNameW(volume, paths.data(), static_cast<DWORD>(paths.size()), &needed);
        }
        volume_to_device_[key] = got ? to_utf8(paths.data()) : std::string();

        if (!FindNextVolumeW(search, volume, MAX_PATH)) {
            const DWORD err = GetLastError();
            if (err != ERROR_NO_MORE_FILES) NV_LOG(fn, "FindNextVolumeW failed with error code %d\n", static_cast<int>(err));
            break;
        }
    }
    FindVolumeClose(search);
}

std::string irp_notifier::device_to_dos_path(const std::wstring& devicePath) const {
    const std::wstring p = mcl::mswin::lower_case_towlower(devicePath);
    for (const auto& entry : volume_to_device_) {
        if (p.compare(0, entry.first.size(), entry.first) == 0) return entry.second + to_utf8(p.substr(entry.first.size()));
    }
    return {};
}

// ---- subscriptions

bool irp_notifier::subscribe(irp::subscribe_request request) {
    constexpr const char* fn = "chelperservice::subscribe_irp_notification";
    if (request.subscriber.empty() || request.event_name.empty()) return false;
    if (request.file_path.empty()) request.file_path = irp::any_file;
    request.file_path = mcl::mswin::lower_case(std::move(request.file_path));
    mcl::scoped_lock guard(irp_lock_);
    end_released_locked(irp_clock_());  // makes room before a full table refuses
    switch (irp_tables_.subscribe(request)) {
        case irp::subscribe_outcome::added:
            NV_LOG(fn, "Add subscription for <%s> on file <%s>", request.subscriber.c_str(), request.file_path.c_str());
            return true;
        case irp::subscribe_outcome::removed:
            NV_LOG(fn, "Remove subscription for <%s> on file <%s>", request.subscriber.c_str(), request.file_path.c_str());
            return true;
        case irp::subscribe_outcome::refused_full:
            NV_LOG(fn,
                   "Subscription for <%s> on file <%s> refused: at most %u subscribers, %u files each and %u "
                   "filters per file",
                   request.subscriber.c_str(), request.file_path.c_str(), static_cast<unsigned>(irp::max_subscribers),
                   static_cast<unsigned>(irp::max_files_per_subscriber), static_cast<unsigned>(irp::max_filters_per_file));
            return false;
        case irp::subscribe_outcome::unchanged:
            break;
    }
    return false;
}

std::vector<irp::record> irp_notifier::collect(const std::string& subscriber, const void* holder) {
    constexpr const char* fn = "chelperservice::query_irp_notification_data";
    mcl::scoped_lock guard(irp_lock_);
    std::vector<irp::record> records = irp_tables_.collect(subscriber, holder);
    for (const irp::record& r : records)
        NV_LOG(fn, "Found notification data for <%s> on file <%s>, from pid <%llu>", subscriber.c_str(),
               r.file_path.c_str(), static_cast<unsigned long long>(r.process_id));
    return records;
}

void irp_notifier::connection_ended(const void* holder) {
    mcl::scoped_lock guard(irp_lock_);
    irp_tables_.release(holder, irp_clock_());
}

void irp_notifier::end_released_locked(uint64_t now) {
    for (const std::string& subscriber : irp_tables_.end_released(now))
        NV_LOG("chelperservice::subscribe_irp_notification",
               "Subscription for <%s> ended: its client has been gone for %u seconds", subscriber.c_str(),
               static_cast<unsigned>(irp::record_lifetime / 10000000));
}
