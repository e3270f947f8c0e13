#include "tools/driver_sim/simulator.h"

#include <cstdarg>
#include <cstdio>
#include <thread>

#include "mcl/encoding.h"
#include "mcl/event.h"
#include "mcl/log.h"
#include "tools/driver_sim/sim_channel.h"

namespace vqr::sim {

namespace {

using mcl::mswin::unique_kernel_handle;


void say(const char* format, ...) NV_PRINTF_FORMAT(1, 2);
void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stdout, format, args);
    va_end(args);
    fputc('\n', stdout);
    fflush(stdout);
}

void write_hr(mcl::binary_t& out, int32_t hr) { mcl::write_u32(out, static_cast<uint32_t>(hr)); }

bool same_name(const std::wstring& a, const wchar_t* b) { return _wcsicmp(a.c_str(), b) == 0; }

// Waits for an overlapped operation on `pipe`; false with GetLastError() set when it failed.
bool wait_io(HANDLE pipe, OVERLAPPED& ov, BOOL started, DWORD& bytes, DWORD timeout_ms) {
    if (started) return GetOverlappedResult(pipe, &ov, &bytes, FALSE) != FALSE;
    if (GetLastError() != ERROR_IO_PENDING) return false;
    if (WaitForSingleObject(ov.hEvent, timeout_ms) != WAIT_OBJECT_0) {
        CancelIoEx(pipe, &ov);
    }
    return GetOverlappedResult(pipe, &ov, &bytes, TRUE) != FALSE;
}

// The filter's instances from its service key, or the defaults while the installer has
// written none.
instances_config read_instances_config() {
    instances_config config;
    HKEY raw = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"system\\CurrentControlSet\\Services\\VQRMonitor\\Instances", 0, KEY_READ,
                      &raw) != ERROR_SUCCESS)
        return default_instances();
    mcl::mswin::unique_reg_key key(raw);
    wchar_t text[256] = {};
    DWORD size = sizeof text - sizeof(wchar_t);
    DWORD type = 0;
    if (RegQueryValueExW(key.get(), L"DefaultInstance", nullptr, &type, reinterpret_cast<BYTE*>(text), &size) ==
            ERROR_SUCCESS &&
        type == REG_SZ)
        config.default_instance = text;
    for (DWORD index = 0;; ++index) {
        wchar_t name[256] = {};
        DWORD name_chars = 255;
        if (RegEnumKeyExW(key.get(), index, name, &name_chars, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
        HKEY sub_raw = nullptr;
        if (RegOpenKeyExW(key.get(), name, 0, KEY_READ, &sub_raw) != ERROR_SUCCESS) continue;
        mcl::mswin::unique_reg_key sub(sub_raw);
        instance_config instance;
        instance.name = name;
        wchar_t altitude[64] = {};
        size = sizeof altitude - sizeof(wchar_t);
        if (RegQueryValueExW(sub.get(), L"Altitude", nullptr, &type, reinterpret_cast<BYTE*>(altitude), &size) !=
                ERROR_SUCCESS ||
            type != REG_SZ)
            continue;  // an instance without an altitude cannot attach
        instance.altitude = altitude;
        DWORD flags = 0;
        size = sizeof flags;
        if (RegQueryValueExW(sub.get(), L"Flags", nullptr, &type, reinterpret_cast<BYTE*>(&flags), &size) == ERROR_SUCCESS &&
            type == REG_DWORD)
            instance.flags = flags;
        config.instances.push_back(instance);
    }
    return config;
}

}  // namespace

int simulator::run() {
    unique_kernel_handle instance(CreateMutexW(nullptr, FALSE, instance_mutex_name));
    if (instance && GetLastError() == ERROR_ALREADY_EXISTS) {
        say("driver_sim: another simulator is already running");
        return 2;
    }
    quit_event_.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    unique_kernel_handle ready(CreateEventW(nullptr, TRUE, FALSE, ready_event_name));
    unique_kernel_handle connected(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const mcl::mswin::unique_local<PSECURITY_DESCRIPTOR> descriptor = mcl::make_null_dacl_descriptor();
    SECURITY_ATTRIBUTES sa{sizeof sa, descriptor.get(), FALSE};

    auto create_instance = [&sa] {
        return unique_kernel_handle(CreateNamedPipeW(
            pipe_name, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT,
            PIPE_UNLIMITED_INSTANCES, /*out_buffer=*/max_message, /*in_buffer=*/max_message, /*timeout=*/0, &sa));
    };
    // A new listening instance always exists before the previous one is handed off or closed:
    // a client never finds the pipe missing (ERROR_FILE_NOT_FOUND would read as "not loaded").
    unique_kernel_handle pipe = create_instance();
    if (!pipe) {
        say("driver_sim: CreateNamedPipe failed: %lu", GetLastError());
        return 1;
    }
    if (ready) SetEvent(ready.get());
    for (;;) {
        OVERLAPPED ov{};
        ov.hEvent = connected.get();
        ResetEvent(ov.hEvent);
        bool ok = true;
        if (!ConnectNamedPipe(pipe.get(), &ov)) {
            const DWORD err = GetLastError();
            if (err == ERROR_IO_PENDING) {
                HANDLE waits[2] = {connected.get(), quit_event_.get()};
                if (WaitForMultipleObjects(2, waits, FALSE, INFINITE) != WAIT_OBJECT_0) {
                    CancelIoEx(pipe.get(), &ov);
                    DWORD ignored = 0;
                    GetOverlappedResult(pipe.get(), &ov, &ignored, TRUE);
                    break;
                }
                // The event is set: waiting reads the final status, where not waiting could
                // still see the operation as incomplete and drop a client that is connected.
                DWORD ignored = 0;
                ok = GetOverlappedResult(pipe.get(), &ov, &ignored, TRUE) != FALSE;
            } else {
                ok = err == ERROR_PIPE_CONNECTED;  // otherwise the client left already
            }
        }
        unique_kernel_handle fresh = create_instance();
        if (!fresh) {
            say("driver_sim: CreateNamedPipe failed: %lu", GetLastError());
            return 1;
        }
        if (ok) {
            auto c = std::make_shared<connection>();
            c->pipe = std::move(pipe);
            {
                mcl::scoped_lock guard(lock_);
                c->id = ++next_connection_id_;
                connections_.push_back(c);
            }
            std::thread(&simulator::serve, this, c).detach();
        }
        pipe = std::move(fresh);
    }
    say("driver_sim: quit");
    return 0;
}

void simulator::serve(connection_ptr c) {
    unique_kernel_handle read_event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::vector<uint8_t> in(max_message);
    const HANDLE pipe = c->pipe.get();
    for (;;) {
        OVERLAPPED ov{};
        ov.hEvent = read_event.get();
        ResetEvent(ov.hEvent);
        DWORD bytes = 0;
        const BOOL started = ReadFile(pipe, in.data(), max_message, nullptr, &ov);
        mcl::binary_t reply;
        after_request after;
        bool keep = true;
        if (wait_io(pipe, ov, started, bytes, INFINITE)) {
            mcl::binary_t request(in.data(), bytes);
            keep = handle_request(*c, request, reply, after);
        } else if (GetLastError() == ERROR_MORE_DATA) {
            // Longer than any request: read the rest and refuse it, as the port refuses a
            // message above its limit, without ending the connection.
            DWORD err = ERROR_MORE_DATA;
            while (err == ERROR_MORE_DATA) {
                ov = OVERLAPPED{};
                ov.hEvent = read_event.get();
                err = wait_io(pipe, ov, ReadFile(pipe, in.data(), max_message, nullptr, &ov), bytes, INFINITE)
                          ? ERROR_SUCCESS
                          : GetLastError();
            }
            if (err != ERROR_SUCCESS) break;
            write_hr(reply, hr_invalid_parameter);
        } else {
            break;  // client gone, or dropped
        }
        complete(after);
        if (after.reply_delivered) mcl::write_u32(reply, after.delivered);
        if (!reply.empty() && !write_message(pipe, reply.data(), reply.size())) break;
        if (!keep) break;
    }
    mcl::scoped_lock guard(lock_);
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
        if (it->get() == c.get()) {
            connections_.erase(it);
            break;
        }
    }
    // The pipe closes (not disconnects) with the last reference, so the client still reads
    // what was written before.
}

bool simulator::handle_request(connection& c, const mcl::binary_t& request, mcl::binary_t& reply,
                               after_request& after) {
    uint32_t pos = 0;
    uint32_t op = 0;
    if (!mcl::read_u32(op, request, pos)) return false;
    if (op >= op::state) return handle_control_request(op, request, pos, reply, after);
    return handle_port_request(c, op, request, pos, reply, after);
}

bool simulator::handle_port_request(connection& c, uint32_t op, const mcl::binary_t& request, uint32_t& pos,
                                    mcl::binary_t& reply, after_request& after) {
    mcl::scoped_lock guard(lock_);
    // Unload cancels the reads of its connections, but a connection between two reads misses
    // the cancel: its next request ends it here, without a reply, as the cancel would have.
    if (c.gone) return false;
    std::wstring filter, volume, instance;
    switch (op) {
        case op::connect: {
            std::wstring port;
            const bool is_command = mcl::read_wstring(port, request, pos) && same_name(port, command_port_name);
            const bool is_notify = !is_command && same_name(port, notify_port_name);
            if (c.kind != role::new_client || !state_.loaded() || !(is_command || is_notify)) {
                write_hr(reply, hr_not_found);
                return false;
            }
            const bool full = is_command ? count_locked(role::command_port) >= max_command_connections
                                         : live_notify_connections_locked() >= max_notify_connections;
            if (full) {
                write_hr(reply, hr_connection_count_limit);
                return false;
            }
            c.kind = is_command ? role::command_port : role::notify_port;
            write_hr(reply, hr_ok);
            mcl::write_u64(reply, c.id);
            return true;
        }
        case op::send: {
            if (c.kind != role::command_port && c.kind != role::notify_port) {
                write_hr(reply, hr_invalid_parameter);
                return false;
            }
            if (c.kind == role::command_port && state_.take_unload_on_send()) {
                // The driver goes away under a message in flight: the send fails, the ports go.
                state_.set_loaded(false);
                unload_locked(after);
                write_hr(reply, hr_unloaded);
                return false;
            }
            const uint8_t* data = request.data() + pos;
            const size_t size = request.size() - pos;
            const port_kind port = c.kind == role::command_port ? port_kind::command : port_kind::notify;
            const int32_t hr = state_.handle_message(c.id, port, data, size);
            driver_message m;
            if (hr == hr_ok && state_.stop_message() && parse_message(data, size, m) == message_check::ok &&
                m.code == code::feature_irp_notify && !m.on) {
                irp_notification stop;
                stop.type = notification::type_stop;
                queue_notification_locked(stop, after);
            }
            write_hr(reply, hr);
            return true;
        }
        case op::reply:
            write_hr(reply, hr_no_waiter_for_reply);
            return true;
        case op::filter_load:
        case op::filter_unload: {
            if (!mcl::read_wstring(filter, request, pos)) break;
            if (op == op::filter_load) {
                write_hr(reply, state_.load(filter));
            } else {
                const bool was_loaded = state_.loaded();
                const int32_t hr = state_.unload(filter);
                // The state already forgot its rules; now the ports go.
                if (hr == hr_ok && was_loaded) unload_locked(after);
                write_hr(reply, hr);
            }
            return false;
        }
        case op::filter_attach: {
            if (!mcl::read_wstring(filter, request, pos) || !mcl::read_wstring(volume, request, pos) ||
                !mcl::read_wstring(instance, request, pos))
                break;
            state_.set_instances(read_instances_config());
            std::wstring created;
            write_hr(reply, state_.attach(filter, volume, instance, created));
            mcl::write_wstring(reply, created);
            return false;
        }
        case op::filter_detach:
            if (!mcl::read_wstring(filter, request, pos) || !mcl::read_wstring(volume, request, pos) ||
                !mcl::read_wstring(instance, request, pos))
                break;
            state_.set_instances(read_instances_config());
            write_hr(reply, state_.detach(filter, volume, instance));
            return false;
        default:
            break;
    }
    write_hr(reply, hr_invalid_parameter);
    return false;
}

bool simulator::handle_control_request(uint32_t op, const mcl::binary_t& request, uint32_t& pos,
                                       mcl::binary_t& reply, after_request& after) {
    mcl::scoped_lock guard(lock_);
    switch (op) {
        case op::state:
            mcl::write_string(reply, state_.state_json(count_locked(role::command_port), count_locked(role::notify_port)));
            return true;
        case op::journal:
            mcl::write_string(reply, state_.journal_json());
            return true;
        case op::inject: {
            irp_notification n;
            if (!mcl::read_u32(n.type, request, pos) || !mcl::read_byte(n.major_function, request, pos) ||
                !mcl::read_byte(n.minor_function, request, pos) || !mcl::read_u32(n.process_id, request, pos) ||
                !mcl::read_wstring(n.file_name, request, pos) ||
                n.file_name.size() > notification::max_file_name_chars) {
                write_hr(reply, hr_invalid_parameter);
                mcl::write_u32(reply, 0);
                return true;
            }
            // A driver reports denials only while notifications are switched on. The count of
            // receivers that got it is written into the reply once they have.
            if (state_.loaded() && state_.feature(code::feature_irp_notify)) queue_notification_locked(n, after);
            write_hr(reply, hr_ok);
            after.reply_delivered = true;
            return true;
        }
        case op::inject_raw: {
            // A notification that breaks the layout, as a faulty driver would send it.
            const std::vector<uint8_t> bytes(request.data() + pos, request.data() + request.size());
            if (bytes.empty() || bytes.size() > notification::size) {
                write_hr(reply, hr_invalid_parameter);
                mcl::write_u32(reply, 0);
                return true;
            }
            if (state_.loaded() && state_.feature(code::feature_irp_notify)) {
                for (const auto& c : connections_)
                    if (c->kind == role::notify_port && !c->gone) after.notifications.emplace_back(c, bytes);
            }
            write_hr(reply, hr_ok);
            after.reply_delivered = true;
            return true;
        }
        case op::unload:
            if (state_.loaded()) {
                state_.set_loaded(false);
                unload_locked(after);
            }
            write_hr(reply, hr_ok);
            return true;
        case op::load:
            state_.set_loaded(true);
            write_hr(reply, hr_ok);
            return true;
        case op::reset:
            state_.reset();
            write_hr(reply, hr_ok);
            return true;
        case op::unload_on_send:
            state_.set_unload_on_send(true);
            write_hr(reply, hr_ok);
            return true;
        case op::stop_message: {
            uint32_t on = 0;
            if (!mcl::read_u32(on, request, pos) || on > 1) break;
            state_.set_stop_message(on != 0);
            write_hr(reply, hr_ok);
            return true;
        }
        case op::quit:
            write_hr(reply, hr_ok);
            SetEvent(quit_event_.get());
            return false;
        default:
            break;
    }
    write_hr(reply, hr_invalid_parameter);
    return false;
}

void simulator::complete(after_request& after) {
    uint32_t delivered = 0;
    for (auto& [c, bytes] : after.notifications) {
        if (write_message(c->pipe.get(), bytes.data(), bytes.size())) ++delivered;
    }
    if (delivered) {
        mcl::scoped_lock guard(lock_);
        for (uint32_t i = 0; i < delivered; ++i) state_.count_notification();
    }
    after.delivered = delivered;
    for (const auto& c : after.drops) CancelIoEx(c->pipe.get(), nullptr);  // ends its read; its thread ends it
}

bool simulator::write_message(HANDLE pipe, const uint8_t* data, size_t size) {
    unique_kernel_handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED ov{};
    ov.hEvent = done.get();
    DWORD bytes = 0;
    const BOOL started = WriteFile(pipe, data, static_cast<DWORD>(size), nullptr, &ov);
    return wait_io(pipe, ov, started, bytes, 5000) && bytes == size;
}

void simulator::queue_notification_locked(irp_notification n, after_request& after) {
    for (const auto& c : connections_) {
        if (c->kind != role::notify_port || c->gone) continue;
        n.message_id = state_.next_message_id();
        std::vector<uint8_t> buffer;
        if (!build_notification(n, buffer)) return;
        after.notifications.emplace_back(c, std::move(buffer));
    }
}

void simulator::unload_locked(after_request& after) {
    if (state_.stop_message()) {
        irp_notification stop;
        stop.type = notification::type_stop;
        queue_notification_locked(stop, after);
    }
    for (const auto& c : connections_) {
        if (c->kind != role::command_port && c->kind != role::notify_port) continue;
        c->gone = true;
        after.drops.push_back(c);
    }
    say("driver_sim: unloaded");
}

size_t simulator::count_locked(role kind) const {
    size_t n = 0;
    for (const auto& c : connections_)
        if (c->kind == kind && !c->gone) ++n;
    return n;
}

size_t simulator::live_notify_connections_locked() {
    size_t n = 0;
    for (const auto& c : connections_) {
        if (c->kind != role::notify_port || c->gone) continue;
        // A client that closed its port is gone even before its thread has noticed.
        if (!PeekNamedPipe(c->pipe.get(), nullptr, 0, nullptr, nullptr, nullptr) &&
            GetLastError() != ERROR_MORE_DATA) {
            continue;
        }
        ++n;
    }
    return n;
}

}  // namespace vqr::sim
