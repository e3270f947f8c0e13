#include "mcl/ipc/channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/ipc/peer.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

namespace {

using connection_ptr = mcl::share_ptr<mcl::ipc_connection>;

// Runs a listening pair's channels as the peer's I/O threads would, until a frame has come.
// False when the connection ends or nothing comes within 10 s.
bool next_frame(mcl::ipc_connection& c, std::vector<mcl::binary_t>& frames) {
    frames.clear();
    HANDLE events[2] = {c.reader().event_handle(), c.writer().event_handle()};
    const ULONGLONG end = GetTickCount64() + 10000;
    while (frames.empty() && GetTickCount64() < end) {
        const DWORD r = WaitForMultipleObjects(2, events, FALSE, 100);
        if (r == WAIT_OBJECT_0 + 1 && !c.writer().complete_write()) return false;
        if (r == WAIT_OBJECT_0 && !c.reader().read(frames)) return false;
    }
    return !frames.empty();
}

struct no_handler : mcl::ipc_msg_handler {
    int operator()(mcl::ipc_connection*, uint32_t, mcl::binary_t&) override { return -1; }
};

// A client peer's posts on the wire, as this end's listening pair receives them: numbered from 1,
// and from 1 again after close. Its close then ends the pair without a log line. Its pipes let the
// server identify it but never act as it; which process serves the pipes is checked before
// anything is sent: setup_tasks_test.sh.
TEST(IpcChannel, AClientPeerAsksForIdentificationOnlyAndNumbersItsPostsFromOneAgainAfterClose) {
    const std::string name = nv_test::unique_name("nv_channel");
    // The handshake objects that a listener under `name` makes.
    const std::string global = "Global\\" + name;
    const mcl::mswin::unique_kernel_handle mutex(CreateMutexA(nullptr, FALSE, (global + "_MTX_CONNECTING").c_str()));
    mcl::event connected;
    ASSERT_TRUE(mutex && connected.create((global + "_EV_CONNECTED").c_str()) == 0);
    no_handler handler;
    mcl::ipc_peer client("", &handler);
    for (int round = 0; round < 2; ++round) {
        // A listening pair waiting for its client.
        const connection_ptr server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
        ASSERT_TRUE(server->open((mcl::ipc_channel::pipe_prefix + name).c_str()) && server->reader().listen() &&
                    server->writer().listen());
        ASSERT_TRUE(client.connect(name.c_str(), 10000));
        mcl::ipc_connection& c = *client.connections().front();  // the peer's list holds it until close
        for (mcl::ipc_channel* ch : {static_cast<mcl::ipc_channel*>(&c.reader()), static_cast<mcl::ipc_channel*>(&c.writer())})
            EXPECT_EQ(static_cast<DWORD>(SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION),
                      ch->requested_open_mode() &
                          (SECURITY_SQOS_PRESENT | SECURITY_CONTEXT_TRACKING | SECURITY_EFFECTIVE_ONLY | SECURITY_DELEGATION));
        std::vector<mcl::binary_t> received;
        for (int sequence = 1; sequence <= 2 - round; ++sequence) {
            mcl::binary_t payload;
            mcl::write_string(payload, "x");
            EXPECT_TRUE(client.post(0x2000001, payload, client.connections().front()));
            ASSERT_TRUE(next_frame(*server, received));
            const std::vector<unsigned char> want = {4, 0, 0, 0, 0x01, 0, 0, 0x02, static_cast<unsigned char>(sequence),
                                                     0, 0, 0, 2, 0, 0, 0, 'x', 0};
            EXPECT_EQ(want, std::vector<unsigned char>(received[0].data(), received[0].data() + received[0].size())) << round;
        }
        client.close();
        EXPECT_TRUE(client.connections().empty());
        // The server's read was pending: the broken pipe is the normal end.
        nv_test::log_capture log;
        ASSERT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(server->reader().event_handle(), 5000));
        EXPECT_FALSE(server->reader().read(received));
        EXPECT_FALSE(log.contains("Failed to read")) << log.text();
    }
}

// Whether a pair asks to be the first instance shows in ipc_peer_test: a listener finds the pipes
// another process made (AListenerNamesTheProcessThatMadeItsPipesBeforeIt), and every pair after
// the first is made (AHundredConnectionsAtOnceAreAllAnsweredWhatEverThePayloadSize).
TEST(IpcChannel, ListeningPipesRefuseRemoteCallers) {
    const std::string path = mcl::ipc_channel::pipe_prefix + nv_test::unique_name("nv_channel");
    connection_ptr c(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    ASSERT_TRUE(c->reader().create(path.c_str(), true) && c->writer().create(path.c_str(), true));
    for (mcl::ipc_channel* ch : {static_cast<mcl::ipc_channel*>(&c->reader()), static_cast<mcl::ipc_channel*>(&c->writer())})
        EXPECT_EQ(static_cast<DWORD>(PIPE_REJECT_REMOTE_CLIENTS), ch->requested_pipe_mode() & PIPE_REJECT_REMOTE_CLIENTS);
}

}  // namespace
