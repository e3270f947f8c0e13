// A client that does the IPC handshake by hand and then reads and writes raw bytes on blocking
// pipe handles: the tests' and benchmarks' way of being a hostile or a precise client. Also the
// launcher of nv_ipc_helper, the second process of the IPC tests.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mcl/ipc/frame.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/process.h"

namespace nv_test {

// Message identifiers that the IPC tests and nv_ipc_helper share.
constexpr uint32_t msg_version = 0x1000009;   // answered with a status reply (1, "")
constexpr uint32_t msg_echo = 0x2000001;      // the payload comes back unchanged
constexpr uint32_t msg_no_reply = 0x2000003;  // the handler returns -1
constexpr uint32_t msg_post_all = 0x2000004;  // posts msg_posted to every client, answers "posted"
constexpr uint32_t msg_exit = 0x2000005;      // the helper process exits inside the handler
constexpr uint32_t msg_posted = 0x2000010;    // the post that msg_post_all sends

// Starts `nv_ipc_helper MODE NAME LOG ARGS` (see ipc_helper.cpp) with standard output captured and
// a log file of its own in the temporary folder, whose path goes to `log_path` when asked.
child start_ipc_helper(const std::string& mode, const std::string& name, const std::string& args,
                       std::string* log_path = nullptr);
// Reads a child's standard output up to the end of its first line.
std::string first_line(child& c);

class raw_client {
public:
    // Takes the connecting mutex (waiting up to 10 s for the listener), opens both pipes, sets
    // the connected event and releases the mutex.
    bool connect(const std::string& name) { return connect_half(name, "", /*signal=*/true); }
    // The handshake holding only the listener's `suffix` pipe ("_OUTBOUND" or "_INBOND"), or both
    // for an empty one, setting the connected event only with `signal`; with `handshake` false,
    // only that pipe is opened, as a hostile client may.
    bool connect_half(const std::string& name, const std::string& suffix, bool signal, bool handshake = true);
    // Reads what has come on the listener's "_OUTBOUND" without waiting, adding it to `total`;
    // false once that pipe has ended (or is not held).
    bool drain(uint32_t& total);
    bool write(const std::vector<unsigned char>& bytes);
    bool write(const mcl::binary_t& bytes) { return write({bytes.data(), bytes.data() + bytes.size()}); }
    // One frame, or only its first `cut` bytes (a client that hangs up in mid-request).
    bool write_frame(uint32_t id, uint32_t sequence, const mcl::binary_t& payload,
                     mcl::frame_kind kind = mcl::frame_kind::request, uint32_t cut = UINT32_MAX);
    // Reads exactly n bytes; false when the pipe ends first.
    bool read(uint32_t n, std::vector<unsigned char>& bytes);
    // Reads one frame: its header and its payload (without the pad byte of an empty one); false
    // when the pipe ends first or the header announces more than the transport takes.
    bool read_frame(mcl::frame_header& header, mcl::binary_t& payload);
    void close() { in_.reset(); out_.reset(); }

    // Called by connect once the pipes are open, holding the mutex, before the signal: a slow
    // client's pause, or a point to be killed at.
    std::function<void()> on_pipes_open;

private:
    mcl::mswin::unique_kernel_handle in_;   // the listener's "_OUTBOUND"
    mcl::mswin::unique_kernel_handle out_;  // the listener's "_INBOND"
};

}  // namespace nv_test
