// The second process of the IPC tests.
//   nv_ipc_helper server NAME LOG STOP_EVENT      listen under NAME until STOP_EVENT is set
//   nv_ipc_helper half NAME LOG SUFFIX SIGNAL EVENT [exit]
//       a hostile client holding only the listener's SUFFIX pipe, signalling when SIGNAL is 1;
//       with "exit", it opens that pipe without the handshake and writes an exit request into
//       it. Prints "ready", then "received N" (the bytes that came on it) once EVENT is set
//   nv_ipc_helper abuse NAME LOG ID STALLED FLOOD_KIB ANNOUNCING SECONDS
//       hostile clients of NAME that never read: STALLED connections each send requests ID
//       of 3,000 bytes or, with FLOOD_KIB, that many KiB in 60 KiB requests; ANNOUNCING
//       connections each announce a 64 MiB frame and send one byte of it per second. Prints
//       "ready" once all are connected and have sent, holds them SECONDS, then exits 0.
//   nv_ipc_helper flood NAME LOG SECONDS
//       one client that writes 60 KiB replies nobody asked for, as fast as the listener reads
//       them, for SECONDS without reading; prints "ready" after the first, then "sent N" (how
//       many went) and exits 0, or 4 when the listener ended the connection meanwhile.
//   nv_ipc_helper stall NAME LOG STAGE MS
//       a client that stops in its handshake: with STAGE "mutex" it takes the connecting mutex,
//       prints "ready" and sleeps MS without releasing it; with "pipes" it also opens both
//       pipes, prints "ready", sleeps MS, then signals, releases the mutex, sends an echo
//       request and prints "answered" when its reply comes ("unanswered" otherwise).
// Exit codes: 0 success, 2 usage, 3 connect failed, 4 the flood's connection was ended.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/log.h"
#include "mcl/encoding.h"
#include "mcl/ipc/peer.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/raw_client.h"

namespace {

// A line on standard output, flushed: the test reads it while this process goes on.
void say(const std::string& line) { printf("%s\n", line.c_str()); fflush(stdout); }

class test_handler : public mcl::ipc_msg_handler {
public:
    mcl::ipc_peer* peer = nullptr;

    int operator()(mcl::ipc_connection*, uint32_t id, mcl::binary_t& payload) override {
        switch (id) {
        case nv_test::msg_version:
            payload.clear();
            mcl::write_status(payload, true, "");
            return 0;
        case nv_test::msg_echo:
            return 0;
        case nv_test::msg_post_all:
            if (peer != nullptr) (void)peer->post(nv_test::msg_posted, payload, {});
            payload.clear();
            mcl::write_string(payload, "posted");
            return 0;
        case nv_test::msg_exit:
            ExitProcess(7);
        default:  // msg_no_reply among them
            return -1;
        }
    }
};

int run_server(const char* name, const char* stop_name) {
    test_handler handler;
    mcl::ipc_peer peer(name, &handler);
    handler.peer = &peer;
    const mcl::mswin::unique_kernel_handle stop(OpenEventA(SYNCHRONIZE, FALSE, stop_name));
    if (!stop) return 2;
    peer.serve_until(stop.get());
    return 0;
}

std::vector<unsigned char> frame_of(uint32_t id, uint32_t payload_size,
                                    mcl::frame_kind kind = mcl::frame_kind::request) {
    mcl::binary_t payload;
    payload.write_at(0, nullptr, payload_size);
    mcl::binary_t frame;
    mcl::append_frame(frame, kind, id, 1, payload);
    return {frame.data(), frame.data() + frame.size()};
}

int run_flood(const char* name, int seconds) {
    nv_test::raw_client c;
    if (!c.connect(name)) return 3;
    const auto reply = frame_of(nv_test::msg_echo, 60 * 1024, mcl::frame_kind::response);
    if (!c.write(reply)) return 4;
    say("ready");
    unsigned sent = 1;
    for (const ULONGLONG end = GetTickCount64() + 1000ull * seconds; GetTickCount64() < end; ++sent)
        if (!c.write(reply)) return 4;
    say("sent " + std::to_string(sent));
    return 0;
}

int run_abuse(const char* name, char** args) {
    const uint32_t id = static_cast<uint32_t>(strtoul(args[0], nullptr, 16));
    const int stalled = atoi(args[1]);
    const uint32_t flood_kib = static_cast<uint32_t>(atoi(args[2]));
    const int announcing = atoi(args[3]);
    const int seconds = atoi(args[4]);
    // A header announcing 64 MiB; the pad byte of an empty frame becomes its first byte.
    std::vector<unsigned char> announce = frame_of(id, 0);
    const uint32_t length = 64u * 1024 * 1024;
    memcpy(announce.data() + 12, &length, 4);
    const auto request = frame_of(id, flood_kib == 0 ? 3000 : 60 * 1024);
    std::vector<nv_test::raw_client> clients(stalled + announcing);
    int failures = 0;
    for (int i = 0; i < stalled + announcing; ++i) {
        nv_test::raw_client& c = clients[i];
        if (!c.connect(name)) return 3;
        if (i >= stalled) {
            failures += !c.write(announce);
        } else if (flood_kib == 0) {
            failures += !c.write(request);
        } else {
            // The service may end the connection part way: that is what this client is for.
            for (uint32_t sent = 0; sent < flood_kib && c.write(request); sent += 60) {
            }
        }
    }
    say("ready " + std::to_string(failures));
    for (int s = 0; s < seconds; ++s) {
        Sleep(1000);
        for (int i = stalled; i < stalled + announcing; ++i) (void)clients[i].write({0x55});
    }
    return 0;
}

int run_half(const char* name, const char* suffix, bool signal, const char* event_name, bool exit_request) {
    nv_test::raw_client hostile;
    const mcl::mswin::unique_kernel_handle done(OpenEventA(SYNCHRONIZE, FALSE, event_name));
    if (!done || !hostile.connect_half(name, suffix, signal, /*handshake=*/!exit_request)) return 3;
    if (exit_request) (void)hostile.write(frame_of(nv_test::msg_exit, 0));
    say("ready");
    uint32_t received = 0;
    bool open = true;
    for (int step = 0; step < 1200 && WaitForSingleObject(done.get(), 50) != WAIT_OBJECT_0; ++step)
        if (open) open = hostile.drain(received);
    printf("received %u\n", received);
    return 0;
}

int run_stall(const char* name, const char* stage, DWORD ms) {
    auto ready = [ms] { say("ready"); Sleep(ms); };
    if (strcmp(stage, "mutex") == 0) {
        HANDLE mutex = OpenMutexA(SYNCHRONIZE, FALSE, ("Global\\" + std::string(name) + "_MTX_CONNECTING").c_str());
        if (mutex == nullptr || WaitForSingleObject(mutex, 10000) != WAIT_OBJECT_0) return 3;
        ready();
        return 0;  // the mutex goes with the process
    }
    nv_test::raw_client c;
    c.on_pipes_open = ready;
    if (!c.connect(name)) return 3;
    mcl::frame_header h;
    mcl::binary_t reply;
    const bool answered = c.write(frame_of(nv_test::msg_echo, 8)) && c.read_frame(h, reply) &&
                          h.kind == static_cast<uint32_t>(mcl::frame_kind::response) && reply.size() == 8;
    printf(answered ? "answered\n" : "unanswered\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "nv_ipc_helper: usage: server|half|abuse|flood|stall NAME LOG ...\n");
        return 2;
    }
    the_log().open(argv[3], true);
    g_log = &the_log();
    if (strcmp(argv[1], "server") == 0) return run_server(argv[2], argv[4]);
    if (strcmp(argv[1], "half") == 0 && argc >= 7)
        return run_half(argv[2], argv[4], strcmp(argv[5], "1") == 0, argv[6], argc > 7 && strcmp(argv[7], "exit") == 0);
    if (strcmp(argv[1], "abuse") == 0 && argc >= 9) return run_abuse(argv[2], argv + 4);
    if (strcmp(argv[1], "flood") == 0) return run_flood(argv[2], atoi(argv[4]));
    if (strcmp(argv[1], "stall") == 0 && argc >= 6) return run_stall(argv[2], argv[4], strtoul(argv[5], nullptr, 10));
    return 2;
}
