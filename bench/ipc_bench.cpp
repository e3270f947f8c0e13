// Round trips and throughput of the IPC transport between two processes, against the floor of
// a raw named-pipe echo over the same kind of pipes. Run by hand:
//   ipc_bench.exe            starts its own server processes and prints "name: value unit" lines
//   ipc_bench.exe smoke      the same with a twentieth of the rounds and 0.2 s request rates
//   ipc_bench.exe raw NAME   (internal) the raw echo server
//   ipc_bench.exe peer NAME  (internal) the peer echo server
#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/clock.h"
#include "mcl/ipc/peer.h"

namespace {

using nv_bench::now_ms;

constexpr uint32_t msg_echo = 0x3000001;
constexpr DWORD pipe_buffer = 4096;

bool read_exact(HANDLE h, void* p, DWORD n) {
    auto* at = static_cast<unsigned char*>(p);
    while (n > 0) {
        DWORD got = 0;
        if (!ReadFile(h, at, n, &got, nullptr) || got == 0) return false;
        at += got;
        n -= got;
    }
    return true;
}

bool write_all(HANDLE h, const void* p, DWORD n) {
    DWORD put = 0;
    return WriteFile(h, p, n, &put, nullptr) && put == n;
}

// Raw echo: a u32 length, then that many bytes, sent back the same way. The same pipe pair
// and buffer sizes as the transport, blocking I/O, no framing work.
int serve_raw(const std::string& name) {
    const std::string pipe = "\\\\.\\pipe\\" + name;
    HANDLE in = CreateNamedPipeA((pipe + "_raw_in").c_str(), PIPE_ACCESS_INBOUND, 0, 1, pipe_buffer, pipe_buffer, 5000, nullptr);
    HANDLE out = CreateNamedPipeA((pipe + "_raw_out").c_str(), PIPE_ACCESS_OUTBOUND, 0, 1, pipe_buffer, pipe_buffer, 5000, nullptr);
    if (in == INVALID_HANDLE_VALUE || out == INVALID_HANDLE_VALUE) return 2;
    if (!ConnectNamedPipe(in, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return 3;
    if (!ConnectNamedPipe(out, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return 3;
    std::vector<unsigned char> data;
    for (;;) {
        uint32_t n = 0;
        if (!read_exact(in, &n, 4)) return 0;
        data.resize(n);
        if (!read_exact(in, data.data(), n) || !write_all(out, &n, 4) || !write_all(out, data.data(), n)) return 0;
    }
}

class echo_handler : public mcl::ipc_msg_handler {
public:
    int operator()(mcl::ipc_connection*, uint32_t, mcl::binary_t& payload) override {
        if (payload.empty()) {
            const unsigned char ok = 1;  // an empty reply would not count as a reply
            payload.append(&ok, 1);
        }
        return 0;
    }
};

class listening_peer : public mcl::ipc_peer {
public:
    using mcl::ipc_peer::ipc_peer;
    bool start_listening() { return setup(true); }
};

int serve_peer(const std::string& name) {
    echo_handler handler;
    listening_peer peer(name.c_str(), &handler);
    if (!peer.start_listening()) return 2;
    peer.listen();
    return 0;
}

double raw_batch(HANDLE out, HANDLE in, uint32_t n, int rounds) {
    std::vector<unsigned char> data(n, 0x5A), back(n);
    const double start = now_ms();
    for (int i = 0; i < rounds; ++i) {
        uint32_t len = n;
        if (!write_all(out, &len, 4) || !write_all(out, data.data(), n) || !read_exact(in, &len, 4) ||
            !read_exact(in, back.data(), n)) {
            fprintf(stderr, "raw echo failed\n");
            ExitProcess(1);
        }
    }
    return (now_ms() - start) / rounds;
}

PROCESS_INFORMATION start_self(const char* mode, const std::string& name) {
    char self[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string cmd = std::string("\"") + self + "\" " + mode + " " + name;
    STARTUPINFOA si{};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    if (!CreateProcessA(nullptr, &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
        fprintf(stderr, "cannot start %s\n", mode);
        ExitProcess(1);
    }
    return pi;
}

HANDLE open_pipe(const std::string& path, DWORD access) {
    for (int i = 0; i < 200; ++i) {
        HANDLE h = CreateFileA(path.c_str(), access, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (h != INVALID_HANDLE_VALUE) return h;
        Sleep(20);
    }
    fprintf(stderr, "cannot open %s\n", path.c_str());
    ExitProcess(1);
}

constexpr int batches = 5;
bool smoke = false;

// The rounds of a batch: a twentieth (at least 2) in the smoke run.
int rounds_of(int n) { return smoke ? (n / 20 > 2 ? n / 20 : 2) : n; }

// Average milliseconds per raw echo of n bytes, the best of five batches.
double raw_round_trip(HANDLE out, HANDLE in, uint32_t n, int rounds) {
    double best = 1e30;
    for (int b = 0; b < batches; ++b) {
        const double t = raw_batch(out, in, n, rounds);
        if (t < best) best = t;
    }
    return best;
}

double peer_batch(mcl::ipc_peer& peer, const mcl::share_ptr<mcl::ipc_connection>& c, uint32_t n, int rounds) {
    mcl::binary_t data;
    std::vector<unsigned char> fill(n, 0x5A);
    const double start = now_ms();
    for (int i = 0; i < rounds; ++i) {
        data.assign(fill.data(), n);
        if (!peer.send(msg_echo, data, c, 60000)) {
            fprintf(stderr, "peer request failed\n");
            ExitProcess(1);
        }
    }
    return (now_ms() - start) / rounds;
}

// Average milliseconds per request with an n-byte payload, the best of five batches.
double peer_round_trip(mcl::ipc_peer& peer, const mcl::share_ptr<mcl::ipc_connection>& c, uint32_t n, int rounds) {
    double best = 1e30;
    for (int b = 0; b < batches; ++b) {
        const double t = peer_batch(peer, c, n, rounds);
        if (t < best) best = t;
    }
    return best;
}

// Requests per second with one thread per connection for `ms` milliseconds.
double peer_throughput(mcl::ipc_peer& peer, const std::vector<mcl::share_ptr<mcl::ipc_connection>>& connections, double ms) {
    std::atomic<long> done{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    const double start = now_ms();
    for (const auto& c : connections)
        threads.emplace_back([&, c] {
            mcl::binary_t data;
            const unsigned char small[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
            while (!stop) {
                data.assign(small, sizeof(small));
                if (peer.send(msg_echo, data, c, 60000)) ++done;
            }
        });
    Sleep(static_cast<DWORD>(ms));
    stop = true;
    for (auto& t : threads) t.join();
    return 1000.0 * static_cast<double>(done.load()) / (now_ms() - start);
}

int run_bench() {
    const std::string name = "nv_ipc_bench_" + std::to_string(GetCurrentProcessId());
    const PROCESS_INFORMATION raw = start_self("raw", name);
    const PROCESS_INFORMATION server = start_self("peer", name);
    const std::string pipe = "\\\\.\\pipe\\" + name;
    HANDLE raw_out = open_pipe(pipe + "_raw_in", GENERIC_WRITE);
    HANDLE raw_in = open_pipe(pipe + "_raw_out", GENERIC_READ);

    (void)raw_batch(raw_out, raw_in, 1, rounds_of(200));  // warm up
    const double raw_small = raw_round_trip(raw_out, raw_in, 1, rounds_of(400));
    const double raw_4k = raw_round_trip(raw_out, raw_in, 4096, rounds_of(200));
    const double raw_1m = raw_round_trip(raw_out, raw_in, 1u << 20, rounds_of(10));
    CloseHandle(raw_out);
    CloseHandle(raw_in);

    echo_handler handler;
    mcl::ipc_peer client("", &handler);
    if (!client.connect(name.c_str(), 10000)) {
        fprintf(stderr, "cannot connect\n");
        return 1;
    }
    const auto first = client.connections().front();
    (void)peer_batch(client, first, 0, rounds_of(200));
    const double peer_empty = peer_round_trip(client, first, 0, rounds_of(400));
    const double peer_4k = peer_round_trip(client, first, 4096, rounds_of(200));
    const double peer_1m = peer_round_trip(client, first, 1u << 20, rounds_of(10));
    const double rate_ms = smoke ? 200 : 2000;
    const double rps_1 = peer_throughput(client, {first}, rate_ms);
    for (int i = 0; i < 7; ++i)
        if (!client.connect(name.c_str(), 10000)) return 1;
    const double rps_8 = peer_throughput(client, client.connections(), rate_ms);

    const double mib = 2.0;  // a 1 MiB round trip moves 1 MiB each way
    printf("raw_echo_round_trip: %.1f us\n", raw_small * 1000.0);
    printf("raw_echo_4k_round_trip: %.1f us\n", raw_4k * 1000.0);
    printf("raw_echo_1m_round_trip: %.2f ms\n", raw_1m);
    printf("raw_pipe_throughput: %.1f MiB/s\n", mib / (raw_1m / 1000.0));
    printf("ipc_empty_round_trip: %.1f us\n", peer_empty * 1000.0);
    printf("ipc_4k_round_trip: %.1f us\n", peer_4k * 1000.0);
    printf("ipc_1m_round_trip: %.2f ms\n", peer_1m);
    printf("ipc_1m_throughput: %.1f MiB/s\n", mib / (peer_1m / 1000.0));
    printf("ipc_empty_vs_raw_echo: %.2f x\n", peer_empty / raw_small);
    printf("ipc_1m_vs_raw_throughput: %.2f x\n", raw_1m / peer_1m);
    printf("ipc_requests_1_connection: %.0f requests/s\n", rps_1);
    printf("ipc_requests_8_connections: %.0f requests/s\n", rps_8);
    fflush(stdout);

    TerminateProcess(server.hProcess, 0);
    TerminateProcess(raw.hProcess, 0);
    ExitProcess(0);  // the client peer's threads need no orderly end here
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "raw") == 0) return serve_raw(argv[2]);
    if (argc >= 3 && strcmp(argv[1], "peer") == 0) return serve_peer(argv[2]);
    smoke = argc >= 2 && strcmp(argv[1], "smoke") == 0;
    return run_bench();
}
