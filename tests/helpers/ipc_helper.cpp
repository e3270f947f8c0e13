// The second process of the IPC tests.
//   nv_ipc_helper server NAME LOG STOP_EVENT      listen under NAME until STOP_EVENT is set
//   nv_ipc_helper client NAME LOG COMMAND [ARG]   connect to NAME and run one command:
//       version           send 0x1000009 with an empty payload; exit 0 on the status reply
//       echo COUNT        COUNT echo round trips; exit 0 when every reply matched
//       sleep MS          one request whose handler sleeps MS (the test kills this client)
// Exit codes: 0 success, 2 usage, 3 connect failed, 4 a reply was missing or wrong.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/log.h"
#include "mcl/encoding.h"
#include "mcl/ipc/peer.h"
#include "tests/helpers/ipc_test_messages.h"

namespace {

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
        case nv_test::msg_sleep: {
            uint32_t ms = 0;
            uint32_t pos = 0;
            if (mcl::read_u32(ms, payload, pos)) Sleep(ms);
            payload.clear();
            mcl::write_string(payload, "slept");
            return 0;
        }
        case nv_test::msg_no_reply:
            return -1;
        case nv_test::msg_post_all: {
            if (peer != nullptr) (void)peer->post(nv_test::msg_posted, payload, {});
            payload.clear();
            mcl::write_string(payload, "posted");
            return 0;
        }
        case nv_test::msg_exit:
            ExitProcess(7);
        default:
            return -1;
        }
    }
};

int run_server(const char* name, const char* stop_name) {
    test_handler handler;
    mcl::ipc_peer peer(name, &handler);
    handler.peer = &peer;
    HANDLE stop = OpenEventA(SYNCHRONIZE, FALSE, stop_name);
    if (stop == nullptr) return 2;
    peer.serve_until(stop);
    CloseHandle(stop);
    return 0;
}

int run_client(const char* name, const char* command, const char* arg) {
    test_handler handler;
    mcl::ipc_peer peer("", &handler);
    if (!peer.connect(name, 10000)) return 3;
    const auto connection = peer.connections().front();
    if (strcmp(command, "version") == 0) {
        mcl::binary_t payload;
        if (!peer.send(nv_test::msg_version, payload, connection, 10000)) return 4;
        const unsigned char expected[] = {1, 0};
        return payload == mcl::binary_t(expected, 2) ? 0 : 4;
    }
    if (strcmp(command, "echo") == 0) {
        const int count = arg != nullptr ? atoi(arg) : 1;
        for (int i = 0; i < count; ++i) {
            mcl::binary_t payload;
            mcl::write_string(payload, "echo " + std::to_string(i));
            const mcl::binary_t sent = payload;
            if (!peer.send(nv_test::msg_echo, payload, connection, 20000) || payload != sent) return 4;
        }
        return 0;
    }
    if (strcmp(command, "sleep") == 0) {
        mcl::binary_t payload;
        mcl::write_u32(payload, arg != nullptr ? static_cast<uint32_t>(atoi(arg)) : 10000);
        return peer.send(nv_test::msg_sleep, payload, connection, 60000) ? 0 : 4;
    }
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "nv_ipc_helper: usage: server|client NAME LOG ...\n");
        return 2;
    }
    the_log().open(argv[3], true);
    g_log = &the_log();
    if (strcmp(argv[1], "server") == 0) return run_server(argv[2], argv[4]);
    if (strcmp(argv[1], "client") == 0) return run_client(argv[2], argv[4], argc > 5 ? argv[5] : nullptr);
    return 2;
}
