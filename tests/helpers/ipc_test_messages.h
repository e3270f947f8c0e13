// Message identifiers that the IPC tests and their helper process share.
#pragma once

#include <cstdint>

namespace nv_test {

constexpr uint32_t msg_version = 0x1000009;   // answered with a status reply (1, "")
constexpr uint32_t msg_echo = 0x2000001;      // the payload comes back unchanged
constexpr uint32_t msg_sleep = 0x2000002;     // u32 milliseconds: sleeps, then answers "slept"
constexpr uint32_t msg_no_reply = 0x2000003;  // the handler returns -1
constexpr uint32_t msg_post_all = 0x2000004;  // posts msg_posted to every client, answers "posted"
constexpr uint32_t msg_exit = 0x2000005;      // the helper process exits inside the handler
constexpr uint32_t msg_posted = 0x2000010;    // the post that msg_post_all sends

}  // namespace nv_test
