// The Filter Manager HRESULTs that the service, the driver stand-in and the tests name: one
// place for all of them, kept as int32_t so that this header needs no <windows.h>.
#pragma once

#include <cstdint>

namespace vqr {

inline constexpr int32_t hr_ok = 0;
inline constexpr int32_t hr_not_found = static_cast<int32_t>(0x80070002);  // port not served: driver not loaded
inline constexpr int32_t hr_unloaded = static_cast<int32_t>(0x80070006);   // the driver went away
inline constexpr int32_t hr_invalid_parameter = static_cast<int32_t>(0x80070057);
inline constexpr int32_t hr_already_loaded = static_cast<int32_t>(0x80070420);         // ERROR_SERVICE_ALREADY_RUNNING
inline constexpr int32_t hr_connection_count_limit = static_cast<int32_t>(0x800704D6); // a port's connections are all taken
inline constexpr int32_t hr_privilege_not_held = static_cast<int32_t>(0x80070522);     // SeLoadDriverPrivilege not enabled
inline constexpr int32_t hr_aborted = static_cast<int32_t>(0x800703E3);                // a wait was cancelled
inline constexpr int32_t hr_io_pending = static_cast<int32_t>(0x800703E5);             // an overlapped wait goes on
inline constexpr int32_t hr_altitude_collision = static_cast<int32_t>(0x801F0011);
inline constexpr int32_t hr_instance_name_collision = static_cast<int32_t>(0x801F0012);
inline constexpr int32_t hr_filter_not_found = static_cast<int32_t>(0x801F0013);
inline constexpr int32_t hr_instance_not_found = static_cast<int32_t>(0x801F0015);
inline constexpr int32_t hr_no_waiter_for_reply = static_cast<int32_t>(0x801F0020);

}  // namespace vqr
