// Pieces the IPC integration tests share: the helper server process, a hand-driven client
// and listener that speak the wire format byte by byte, and small waits.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/ipc/peer.h"
#include "tests/helpers/process.h"
#include "tests/helpers/raw_client.h"

namespace nv_test {

std::string read_file(const std::string& path);
size_t count_of(const std::string& text, const std::string& needle);
std::vector<unsigned char> bytes_of(std::initializer_list<int> values);

// nv_ipc_helper listening under a fresh endpoint name, with its own log file.
class server_process {
public:
    server_process();
    ~server_process();
    server_process(const server_process&) = delete;
    server_process& operator=(const server_process&) = delete;

    const std::string& name() const { return name_; }
    std::string log() const { return read_file(log_path_); }
    bool running() { return child_.wait(0) == STILL_ACTIVE; }
    // Sets the stop event and waits up to `ms` for the exit: its code, or STILL_ACTIVE.
    DWORD stop(DWORD ms) {
        stop_.set();
        return child_.wait(ms);
    }
    child& process() { return child_; }

private:
    std::string name_;
    std::string log_path_;
    mcl::event stop_;
    child child_;
};

// Starts nv_ipc_helper as a client of `name` running `command`, with a log file of its own.
child start_client(const std::string& name, const std::string& command);

// A listener that creates the handshake objects and one pair of blocking pipes per accept.
class raw_listener {
public:
    explicit raw_listener(const std::string& name);
    // Creates a fresh pair of pipes for the next client.
    bool prepare();
    // Waits until a client has opened both pipes (prepared here if prepare was not called).
    bool accept();
    bool read(uint32_t n, std::vector<unsigned char>& bytes);
    ~raw_listener();

private:
    void drop();
    std::string name_;
    HANDLE mutex_ = nullptr;
    mcl::event connected_;
    bool prepared_ = false;
    HANDLE in_ = nullptr;   // "_INBOND": the client writes
    HANDLE out_ = nullptr;  // "_OUTBOUND": the client reads
};

// Records what a peer's handler receives and from which client; answers 0x1000009 with a status reply (1, "") and
// leaves other payloads as they came.
class recording_handler : public mcl::ipc_msg_handler {
public:
    int operator()(mcl::ipc_connection* connection, uint32_t id, mcl::binary_t& payload) override;
    int count(uint32_t id);
    // The client process id and image of the last request's connection.
    std::pair<DWORD, std::string> last_client();
    // Waits up to `ms` for `count(id)` to reach n.
    bool wait_for(uint32_t id, int n, DWORD ms);

private:
    mcl::lock lock_;
    std::vector<uint32_t> ids_;
    DWORD pid_ = 0;
    std::string image_;
};

}  // namespace nv_test
