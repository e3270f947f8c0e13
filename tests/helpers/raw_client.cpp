#include "tests/helpers/raw_client.h"

#include "mcl/ipc/channel.h"

namespace nv_test {

namespace {

// Opens a pipe, waiting while every instance is busy or none is there yet (the listener
// makes the next one).
mcl::mswin::unique_kernel_handle open_waiting(const std::string& name, DWORD access) {
    for (int tries = 0; tries < 100; ++tries) {
        mcl::mswin::unique_kernel_handle h(CreateFileA(name.c_str(), access, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        if (h) return h;
        if (GetLastError() == ERROR_PIPE_BUSY)
            WaitNamedPipeA(name.c_str(), 1000);
        else if (GetLastError() == ERROR_FILE_NOT_FOUND)
            Sleep(50);
        else
            break;
    }
    return {};
}

// Reads exactly n bytes from a blocking handle; false when it ends first.
bool read_exact(HANDLE h, uint32_t n, std::vector<unsigned char>& bytes) {
    bytes.assign(n, 0);
    uint32_t got = 0;
    while (got < n) {
        DWORD r = 0;
        if (!ReadFile(h, bytes.data() + got, n - got, &r, nullptr) || r == 0) {
            bytes.resize(got);
            return false;
        }
        got += r;
    }
    return true;
}

}  // namespace

child start_ipc_helper(const std::string& mode, const std::string& name, const std::string& args,
                       std::string* log_path) {
    char temp[MAX_PATH] = {};
    GetTempPathA(MAX_PATH, temp);
    const std::string log = temp + unique_name("nv_ipc_helper") + ".log";
    if (log_path != nullptr) *log_path = log;
    return start("\"" + bin_dir() + "nv_ipc_helper.exe\" " + mode + " " + name + " \"" + log + "\" " + args,
                 /*capture_output=*/true);
}

std::string first_line(child& c) {
    std::string line;
    char ch = 0;
    DWORD n = 0;
    while (ReadFile(c.output.get(), &ch, 1, &n, nullptr) && n == 1 && ch != '\n')
        if (ch != '\r') line.push_back(ch);
    return line;
}

bool raw_client::connect_half(const std::string& name, const std::string& suffix, bool signal, bool handshake) {
    const std::string base = "Global\\" + name, pipe = std::string(mcl::ipc_channel::pipe_prefix) + name;
    const bool reads = suffix != "_INBOND", writes = suffix != "_OUTBOUND";
    if (!handshake) {
        (reads ? in_ : out_) = open_waiting(pipe + suffix, reads ? GENERIC_READ : GENERIC_WRITE);
        return reads ? in_.valid() : out_.valid();
    }
    mcl::mswin::unique_kernel_handle mutex;
    for (int i = 0; i < 200 && !mutex; ++i) {
        mutex.reset(OpenMutexA(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, (base + "_MTX_CONNECTING").c_str()));
        if (!mutex) Sleep(50);
    }
    const DWORD w = mutex ? WaitForSingleObject(mutex.get(), 10000) : WAIT_FAILED;
    if (w != WAIT_OBJECT_0 && w != WAIT_ABANDONED) return false;
    if (reads) in_ = open_waiting(pipe + "_OUTBOUND", GENERIC_READ);
    if (writes) out_ = open_waiting(pipe + "_INBOND", GENERIC_WRITE);
    if (on_pipes_open) on_pipes_open();
    const mcl::mswin::unique_kernel_handle connected(
        OpenEventA(EVENT_MODIFY_STATE, FALSE, (base + "_EV_CONNECTED").c_str()));
    if (connected && signal) SetEvent(connected.get());
    ReleaseMutex(mutex.get());
    return (in_ || !reads) && (out_ || !writes) && connected;
}

bool raw_client::write(const std::vector<unsigned char>& bytes) {
    DWORD n = 0;
    return WriteFile(out_.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &n, nullptr) && n == bytes.size();
}

bool raw_client::drain(uint32_t& total) {
    DWORD available = 0;
    if (!in_ || !PeekNamedPipe(in_.get(), nullptr, 0, nullptr, &available, nullptr)) return false;
    std::vector<unsigned char> bytes;
    if (available > 0 && !read_exact(in_.get(), available, bytes)) return false;
    total += available;
    return true;
}

bool raw_client::write_frame(uint32_t id, uint32_t sequence, const mcl::binary_t& payload, mcl::frame_kind kind,
                             uint32_t cut) {
    mcl::binary_t frame;
    mcl::append_frame(frame, kind, id, sequence, payload);
    return write({frame.data(), frame.data() + (cut < frame.size() ? cut : frame.size())});
}

bool raw_client::read(uint32_t n, std::vector<unsigned char>& bytes) { return read_exact(in_.get(), n, bytes); }

bool raw_client::read_frame(mcl::frame_header& header, mcl::binary_t& payload) {
    std::vector<unsigned char> head, body;
    if (!read_exact(in_.get(), mcl::frame_header_size, head) ||
        !mcl::read_frame_header(head.data(), static_cast<uint32_t>(head.size()), header) ||
        header.length > mcl::max_frame_payload ||
        !read_exact(in_.get(), static_cast<uint32_t>(mcl::frame_size(header.length) - mcl::frame_header_size), body))
        return false;
    payload = mcl::binary_t(body.data(), header.length);
    return true;
}

}  // namespace nv_test
