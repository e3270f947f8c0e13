#include "tests/integration/ipc_test_support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "mcl/encoding.h"
#include "tests/helpers/ipc_test_messages.h"

namespace nv_test {

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

size_t count_of(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

std::vector<unsigned char> bytes_of(std::initializer_list<int> values) {
    std::vector<unsigned char> out;
    for (int v : values) out.push_back(static_cast<unsigned char>(v));
    return out;
}

server_process::server_process() {
    name_ = unique_name("nv_ipc");
    log_path_ = ::testing::TempDir() + name_ + ".log";
    const std::string stop_name = "Global\\" + name_ + "_test_stop";
    EXPECT_EQ(0, stop_.create(stop_name.c_str()));
    child_ = start("\"" + bin_dir() + "nv_ipc_helper.exe\" server " + name_ + " \"" + log_path_ + "\" " + stop_name);
    EXPECT_NE(nullptr, child_.process);
}

server_process::~server_process() {
    stop_.set();
    if (child_.wait(10000) == STILL_ACTIVE) child_.kill();
    std::remove(log_path_.c_str());
}

child start_client(const std::string& name, const std::string& command) {
    const std::string log_path = ::testing::TempDir() + unique_name("nv_ipc_client") + ".log";
    return start("\"" + bin_dir() + "nv_ipc_helper.exe\" client " + name + " \"" + log_path + "\" " + command);
}

raw_listener::raw_listener(const std::string& name) : name_(name) {
    const std::string base = "Global\\" + name;
    mutex_ = CreateMutexA(nullptr, FALSE, (base + "_MTX_CONNECTING").c_str());
    EXPECT_EQ(0, connected_.create((base + "_EV_CONNECTED").c_str()));
}

raw_listener::~raw_listener() {
    drop();
    if (mutex_ != nullptr) CloseHandle(mutex_);
}

bool raw_listener::prepare() {
    drop();
    const std::string pipe = std::string(mcl::ipc_channel::pipe_prefix) + name_;
    in_ = CreateNamedPipeA((pipe + "_INBOND").c_str(), PIPE_ACCESS_INBOUND, 0, 255, 4096, 4096, 5000, nullptr);
    out_ = CreateNamedPipeA((pipe + "_OUTBOUND").c_str(), PIPE_ACCESS_OUTBOUND, 0, 255, 4096, 4096, 5000, nullptr);
    prepared_ = in_ != INVALID_HANDLE_VALUE && out_ != INVALID_HANDLE_VALUE;
    return prepared_;
}

bool raw_listener::accept() {
    if (!prepared_ && !prepare()) return false;
    prepared_ = false;
    // The client opens "_OUTBOUND" first.
    const bool out_ok = ConnectNamedPipe(out_, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED;
    const bool in_ok = ConnectNamedPipe(in_, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED;
    return out_ok && in_ok;
}

bool raw_listener::read(uint32_t n, std::vector<unsigned char>& bytes) { return read_exact(in_, n, bytes); }

void raw_listener::drop() {
    for (HANDLE* h : {&in_, &out_}) {
        if (*h != nullptr && *h != INVALID_HANDLE_VALUE) {
            if (h == &out_) FlushFileBuffers(*h);
            DisconnectNamedPipe(*h);
            CloseHandle(*h);
        }
        *h = nullptr;
    }
}

int recording_handler::operator()(mcl::ipc_connection* connection, uint32_t id, mcl::binary_t& payload) {
    if (id == msg_version) {
        payload.clear();
        mcl::write_status(payload, true, "");
    }
    mcl::scoped_lock guard(lock_);
    ids_.push_back(id);
    pid_ = connection->client_process_id();
    image_ = connection->client_image();
    return 0;
}

std::pair<DWORD, std::string> recording_handler::last_client() {
    mcl::scoped_lock guard(lock_);
    return {pid_, image_};
}

int recording_handler::count(uint32_t id) {
    mcl::scoped_lock guard(lock_);
    int n = 0;
    for (uint32_t i : ids_) n += i == id ? 1 : 0;
    return n;
}

bool recording_handler::wait_for(uint32_t id, int n, DWORD ms) {
    for (DWORD waited = 0; waited < ms; waited += 20) {
        if (count(id) >= n) return true;
        Sleep(20);
    }
    return count(id) >= n;
}

}  // namespace nv_test
