// The private channel between our fltlib.dll, the driver simulator and driver_ctl.
//
// One message-mode named pipe. Every request is one pipe message: a u32 operation followed by
// its fields in the payload encodings of mcl/encoding.h; every answer is one message. A pipe
// instance whose first request is `connect` becomes a port connection: the handle that
// FilterConnectCommunicationPort returns is that pipe, so CloseHandle ends the connection.
// The simulator pushes notifications unasked on notification-port connections, each as one
// message holding the whole buffer FilterGetMessage fills (header included).
#pragma once

#include <cstddef>
#include <cstdint>

namespace vqr::sim {

inline constexpr wchar_t pipe_name[] = L"\\\\.\\pipe\\nv_vqrmonitor_sim";
// Set by the simulator once it serves the pipe; driver_ctl wait-ready waits on it.
inline constexpr wchar_t ready_event_name[] = L"Global\\nv_vqrmonitor_sim_ready";
// Held while a simulator runs: a second one refuses to start.
inline constexpr wchar_t instance_mutex_name[] = L"Global\\nv_vqrmonitor_sim_running";

inline constexpr uint32_t max_message = 64 * 1024;
// The largest message FilterSendMessage carries (the request adds its u32 operation).
inline constexpr uint32_t max_send_size = max_message - 4;
// Connections each port accepts at once; one more answers ERROR_CONNECTION_COUNT_LIMIT.
inline constexpr size_t max_command_connections = 64;
inline constexpr size_t max_notify_connections = 1;

namespace op {
// From fltlib.dll. Answers start with a u32 HRESULT.
inline constexpr uint32_t connect = 1;        // wstring port -> hr, u64 connection id
inline constexpr uint32_t send = 2;           // message bytes -> hr
inline constexpr uint32_t reply = 3;          // reply bytes -> hr
inline constexpr uint32_t filter_load = 4;    // wstring filter -> hr
inline constexpr uint32_t filter_unload = 5;  // wstring filter -> hr
inline constexpr uint32_t filter_attach = 6;  // wstring filter, volume, instance -> hr, wstring instance
inline constexpr uint32_t filter_detach = 7;  // wstring filter, volume, instance -> hr
// From driver_ctl; load and unload also from the stand-in image (driver_package/vqrmonitor.c)
// when its service starts and stops.
inline constexpr uint32_t state = 16;         // -> string JSON
inline constexpr uint32_t journal = 17;       // -> string JSON
inline constexpr uint32_t inject = 18;        // u32 type, byte major, byte minor, u32 pid, wstring file -> hr, u32 delivered
inline constexpr uint32_t unload = 19;        // -> hr
inline constexpr uint32_t load = 20;          // -> hr
inline constexpr uint32_t reset = 21;         // -> hr
inline constexpr uint32_t quit = 22;          // -> hr, then the simulator ends
inline constexpr uint32_t stop_message = 23;  // u32 on: the stop message at feature 16 off and at unload -> hr
inline constexpr uint32_t inject_raw = 25;      // bytes: one notification exactly as given -> hr, u32 delivered
inline constexpr uint32_t unload_on_send = 24;  // the driver unloads as the next command message arrives -> hr
}  // namespace op

}  // namespace vqr::sim
