#include "mcl/ipc/channel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"

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

// Runs the channels of both ends as the peer's I/O threads would, until `receiver` has cut
// `want` frames or the time is up. False when a channel reports the connection dead.
bool pump(mcl::ipc_connection& a, mcl::ipc_connection& b, mcl::ipc_connection& receiver, size_t want,
          std::vector<mcl::binary_t>& received, DWORD ms = 10000) {
    std::vector<mcl::binary_t> frames;
    const ULONGLONG end = GetTickCount64() + ms;
    while (received.size() < want && GetTickCount64() < end) {
        HANDLE events[] = {a.reader().event_handle(), a.writer().event_handle(), b.reader().event_handle(),
                           b.writer().event_handle()};
        const DWORD r = WaitForMultipleObjects(4, events, FALSE, 100);
        if (r == WAIT_TIMEOUT) continue;
        mcl::ipc_connection& c = r < WAIT_OBJECT_0 + 2 ? a : b;
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
        ASSERT_TRUE(pump(*server, *client, *server, 1, received)) << size;
        ASSERT_EQ(1u, received.size());
        EXPECT_EQ(frame_of(size % 251, size), received[0]) << size;

        // Several frames queued while a write is outstanding arrive whole and in order.
        received.clear();
        for (uint32_t id = 1; id <= 5; ++id) server->enqueue(frame_of(id, size / (id + 1)));
        ASSERT_TRUE(pump(*server, *client, *client, 5, received)) << size;
        for (uint32_t id = 1; id <= 5; ++id) EXPECT_EQ(frame_of(id, size / (id + 1)), received[id - 1]) << size;
    }
}

TEST(IpcChannel, TheOtherEndClosingEndsTheConnectionWithoutALogLine) {
    nv_test::log_capture log;
    const std::string path = pipe_path();
    connection_ptr server = listening(path);
    connection_ptr client = connecting(path);
    std::vector<mcl::binary_t> received;
    client->enqueue(frame_of(1, 10));
    ASSERT_TRUE(pump(*server, *client, *server, 1, received));

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
    nv_test::child other = nv_test::start("\"" + nv_test::bin_dir() + "nv_ipc_helper.exe\" half " + name + " \"" +
                                              ::testing::TempDir() + name + ".log\" _INBOND 0 Global\\" + name + "_done exit",
                                          /*capture_output=*/true);
    char ready[5] = {};
    DWORD n = 0;
    for (DWORD got = 0; got < 5 && ReadFile(other.output, ready + got, 5 - got, &n, nullptr) && n > 0; got += n) {
    }
    ASSERT_EQ("ready", std::string(ready, 5));
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
