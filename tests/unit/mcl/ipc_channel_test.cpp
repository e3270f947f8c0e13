#include "mcl/ipc/channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/ipc/peer.h"
#include "mcl/mswin/unique_handle.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/raw_client.h"

namespace {

using connection_ptr = mcl::share_ptr<mcl::ipc_connection>;

std::string pipe_path() {
    return std::string(mcl::ipc_channel::pipe_prefix) + nv_test::unique_name("nv_channel");
}

// A listening pair, its connects started unless told otherwise.
connection_ptr listening(const std::string& path, bool listen = true) {
    connection_ptr c(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    EXPECT_TRUE(c->open(path.c_str()));
    if (listen) {
        EXPECT_TRUE(c->reader().listen() && c->writer().listen());
    }
    return c;
}

connection_ptr connecting(const std::string& path) {
    connection_ptr c(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    EXPECT_TRUE(c->open(path.c_str()));
    return c;
}

// Runs the channels of `ends` as the peer's I/O threads would, until `receiver` has cut `want`
// frames or the time is up. False when a channel reports the connection dead.
bool pump(std::initializer_list<mcl::ipc_connection*> ends, mcl::ipc_connection& receiver, size_t want,
          std::vector<mcl::binary_t>& received, DWORD ms = 10000) {
    std::vector<mcl::binary_t> frames;
    std::vector<HANDLE> events;
    for (mcl::ipc_connection* c : ends) {
        events.push_back(c->reader().event_handle());
        events.push_back(c->writer().event_handle());
    }
    const ULONGLONG end = GetTickCount64() + ms;
    while (received.size() < want && GetTickCount64() < end) {
        const DWORD r = WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, 100);
        if (r == WAIT_TIMEOUT) continue;
        mcl::ipc_connection& c = *ends.begin()[(r - WAIT_OBJECT_0) / 2];
        if ((r - WAIT_OBJECT_0) % 2 == 1) {
            if (!c.writer().complete_write()) return false;
            continue;
        }
        if (!c.reader().read(frames)) return false;
        if (&c == &receiver) received.insert(received.end(), frames.begin(), frames.end());
    }
    return received.size() >= want;
}

mcl::binary_t frame_of(uint32_t id, uint32_t payload_size) {
    mcl::binary_t payload;
    for (uint32_t i = 0; i < payload_size; ++i) {
        const auto b = static_cast<unsigned char>(i * 7 + id);
        payload.append(&b, 1);
    }
    mcl::binary_t frame;
    mcl::append_frame(frame, mcl::frame_kind::post, id, id, payload);
    return frame;
}

TEST(IpcChannel, CreateAndOpenFailuresAreLoggedOnce) {
    nv_test::log_capture log;
    connection_ptr c(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    EXPECT_FALSE(c->reader().create(nullptr));
    EXPECT_TRUE(log.contains("] - Failed to create ipc channel, invalid parameters"));

    const std::string path = pipe_path();
    EXPECT_FALSE(c->open(path.c_str()));
    EXPECT_TRUE(log.contains("] - Failed to open the named pipe (\"" + path + "_OUTBOUND\"), error [2:"));
    EXPECT_FALSE(log.contains(path + "_INBOND"));  // the write channel was not tried
    c->reader().close();  // safe on a closed channel
}

TEST(IpcChannel, FramesFlowBothWaysWhatEverTheirSize) {
    const std::string path = pipe_path();
    connection_ptr server = listening(path);
    connection_ptr client = connecting(path);

    const uint32_t sizes[] = {0, 4096, 70000, 1u << 20};
    for (uint32_t size : sizes) {
        std::vector<mcl::binary_t> received;
        client->enqueue(frame_of(size % 251, size));
        ASSERT_TRUE(pump({server.get(), client.get()}, *server, 1, received)) << size;
        ASSERT_EQ(1u, received.size());
        EXPECT_EQ(frame_of(size % 251, size), received[0]) << size;

        // Several frames queued while a write is outstanding arrive whole and in order.
        received.clear();
        for (uint32_t id = 1; id <= 5; ++id) server->enqueue(frame_of(id, size / (id + 1)));
        ASSERT_TRUE(pump({server.get(), client.get()}, *client, 5, received)) << size;
        for (uint32_t id = 1; id <= 5; ++id) EXPECT_EQ(frame_of(id, size / (id + 1)), received[id - 1]) << size;
    }
}

struct no_handler : mcl::ipc_msg_handler {
    int operator()(mcl::ipc_connection*, uint32_t, mcl::binary_t&) override { return -1; }
};

// A client peer's posts on the wire, as this end's listening pair receives them: numbered from 1,
// and from 1 again after close.
TEST(IpcChannel, AClientPeersPostsAreNumberedFromOneAgainAfterClose) {
    const std::string name = nv_test::unique_name("nv_channel");
    const std::string base = "Global\\" + name;
    // The handshake objects that a listener makes.
    const mcl::mswin::unique_kernel_handle mutex(CreateMutexA(nullptr, FALSE, (base + "_MTX_CONNECTING").c_str()));
    mcl::event signalled;
    ASSERT_EQ(0, signalled.create((base + "_EV_CONNECTED").c_str()));
    no_handler handler;
    mcl::ipc_peer client("", &handler);
    for (int round = 0; round < 2; ++round) {
        connection_ptr server = listening(std::string(mcl::ipc_channel::pipe_prefix) + name);
        ASSERT_TRUE(client.connect(name.c_str(), 10000));
        for (int sequence = 1; sequence <= 2 - round; ++sequence) {
            mcl::binary_t payload;
            mcl::write_string(payload, "x");
            EXPECT_TRUE(client.post(0x2000001, payload, client.connections().front()));
            std::vector<mcl::binary_t> received;
            ASSERT_TRUE(pump({server.get()}, *server, 1, received));
            const std::vector<unsigned char> want = {4, 0, 0, 0, 0x01, 0, 0, 0x02, static_cast<unsigned char>(sequence),
                                                     0, 0, 0, 2, 0, 0, 0, 'x', 0};
            EXPECT_EQ(want, std::vector<unsigned char>(received[0].data(), received[0].data() + received[0].size())) << round;
        }
        client.close();
        EXPECT_TRUE(client.connections().empty());
    }
}

TEST(IpcChannel, TheOtherEndClosingEndsTheConnectionWithoutALogLine) {
    nv_test::log_capture log;
    const std::string path = pipe_path();
    connection_ptr server = listening(path);
    connection_ptr client = connecting(path);
    std::vector<mcl::binary_t> received;
    client->enqueue(frame_of(1, 10));
    ASSERT_TRUE(pump({server.get(), client.get()}, *server, 1, received));

    client.reset();  // closes both pipes
    std::vector<mcl::binary_t> frames;
    ASSERT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), WaitForSingleObject(server->reader().event_handle(), 5000));
    EXPECT_FALSE(server->reader().read(frames));
    EXPECT_FALSE(log.contains("Failed to read"));
}

// Another process writes a request into "_INBOND" while this one opens "_OUTBOUND": the pair
// ends when its second half connects, before a byte of either pipe is read or written.
TEST(IpcChannel, APairWhosePipesTwoProcessesHoldEndsBeforeAnyIo) {
    nv_test::log_capture log;
    const std::string name = nv_test::unique_name("nv_channel");
    const std::string path = std::string(mcl::ipc_channel::pipe_prefix) + name;
    connection_ptr server = listening(path);
    mcl::event done;
    ASSERT_EQ(0, done.create(("Global\\" + name + "_done").c_str()));
    nv_test::child other = nv_test::start_ipc_helper("half", name, "_INBOND 0 Global\\" + name + "_done exit");
    ASSERT_EQ("ready", nv_test::first_line(other));
    HANDLE out = CreateFileA((path + "_OUTBOUND").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, out);

    std::vector<mcl::binary_t> frames;
    EXPECT_TRUE(server->reader().read(frames));  // its half has come; it waits for the other
    EXPECT_FALSE(server->writer().complete_write());
    EXPECT_FALSE(server->reader().read(frames));
    EXPECT_TRUE(frames.empty());
    EXPECT_EQ(mcl::ipc_connection::pair_state::ended, server->state());
    EXPECT_TRUE(log.contains("] - The pipes of a connection are held by two processes (" + std::to_string(other.pid) +
                             " writes \"_INBOND\", " + std::to_string(GetCurrentProcessId()) +
                             " reads \"_OUTBOUND\"), end the connection")) << log.text();
    CloseHandle(out);
    done.set();
    EXPECT_EQ(0u, other.wait());
}

TEST(IpcChannel, ListeningPipesRefuseRemoteCallersAndAFirstPairAsksToBeTheFirstInstance) {
    const std::string path = pipe_path();
    for (bool first : {true, false}) {
        connection_ptr c(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
        ASSERT_TRUE(c->reader().create(path.c_str(), first));
        ASSERT_TRUE(c->writer().create(path.c_str(), first));
        for (mcl::ipc_channel* ch : {static_cast<mcl::ipc_channel*>(&c->reader()), static_cast<mcl::ipc_channel*>(&c->writer())}) {
            EXPECT_EQ(static_cast<DWORD>(PIPE_REJECT_REMOTE_CLIENTS), ch->requested_pipe_mode() & PIPE_REJECT_REMOTE_CLIENTS);
            EXPECT_EQ(first ? static_cast<DWORD>(FILE_FLAG_FIRST_PIPE_INSTANCE) : 0u,
                      ch->requested_open_mode() & FILE_FLAG_FIRST_PIPE_INSTANCE);
        }
    }
}

TEST(IpcChannel, TheListeningEndLearnsTheClientProcess) {
    const std::string path = pipe_path();
    connection_ptr server = listening(path, /*listen=*/false);
    connection_ptr c = connecting(path);  // before listen: ERROR_PIPE_CONNECTED
    EXPECT_EQ(0u, server->client_process_id());
    ASSERT_TRUE(server->reader().listen());
    EXPECT_TRUE(server->reader().connected());
    EXPECT_EQ(GetCurrentProcessId(), server->client_process_id());
    char own[MAX_PATH];
    const DWORD n = GetModuleFileNameA(nullptr, own, MAX_PATH);
    EXPECT_EQ(std::string(own, n), server->client_image());
}

}  // namespace
