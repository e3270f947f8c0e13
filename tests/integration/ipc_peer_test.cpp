// Two processes talking through the IPC peer: this test process and nv_ipc_helper or
// nv_ipc_client, each end checked on the wire where the bytes matter.
#include "mcl/ipc/peer.h"

#include <gtest/gtest.h>

#include <psapi.h>

#include <atomic>
#include <cstdio>
#include <new>
#include <random>
#include <thread>

#include "mcl/encoding.h"
#include "mcl/event.h"
#include "mcl/mswin/text.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/raw_client.h"
#include "tests/helpers/service_double.h"

namespace {

using nv_test::first_line;

using bytes = std::vector<unsigned char>;

// nv_ipc_helper listening under a fresh endpoint name, with its own log file, until its stop event.
struct server_process {
    const std::string name = nv_test::unique_name("nv_ipc");
    std::string log_path;
    mcl::event stop;
    nv_test::child process;

    server_process() {
        const std::string stop_name = "Global\\" + name + "_test_stop";
        EXPECT_EQ(0, stop.create(stop_name.c_str()));
        process = nv_test::start_ipc_helper("server", name, stop_name, &log_path);
        EXPECT_TRUE(process.process) << "CreateProcess error " << GetLastError();
    }
    ~server_process() {
        stop.set();
        if (process.wait(10000) == STILL_ACTIVE) process.kill();
        std::remove(log_path.c_str());
    }
    std::string log() const { return nv_test::file_text(log_path); }
};

// What nv_ipc_client prints for a 0x1000009 request to `name`: "0100", the status reply (1, ""), or
// its exit code when no reply came.
std::string version_reply(const std::string& name) {
    const std::string program = "\"" + nv_test::bin_dir() + "nv_ipc_client.exe\"";
    nv_test::child c = nv_test::start(program + " -n " + name + " -t 30000 send 1000009", /*capture_output=*/true);
    const std::string line = first_line(c);
    const DWORD rc = c.wait();
    return rc == 0 ? line : "exit " + std::to_string(rc);
}

// Records which messages a peer's handler receives; answers 0x1000009 with a status reply (1, "")
// and leaves other payloads as they came.
class recording_handler : public mcl::ipc_msg_handler {
public:
    int operator()(mcl::ipc_connection*, uint32_t id, mcl::binary_t& payload) override {
        if (id == nv_test::msg_version) {
            payload.clear();
            mcl::write_status(payload, true, "");
        }
        mcl::scoped_lock guard(lock_);
        ids_.push_back(id);
        return 0;
    }
    int count(uint32_t id) {
        mcl::scoped_lock guard(lock_);
        return static_cast<int>(std::count(ids_.begin(), ids_.end(), id));
    }
    bool wait_for(uint32_t id, int n, DWORD ms) {
        for (DWORD waited = 0; waited < ms && count(id) < n; waited += 20) Sleep(20);
        return count(id) >= n;
    }

private:
    mcl::lock lock_;
    std::vector<uint32_t> ids_;
};

mcl::binary_t text_payload(const std::string& text) {
    mcl::binary_t payload;
    mcl::write_string(payload, text);
    return payload;
}

struct client {
    recording_handler handler;
    mcl::ipc_peer peer{"", &handler};

    // A listener just started may not have its first pipe pair yet: retry for half a minute.
    bool connect(const std::string& name) {
        for (const ULONGLONG deadline = GetTickCount64() + 30000; GetTickCount64() < deadline; Sleep(50))
            if (peer.connect(name.c_str(), 10000)) return true;
        return false;
    }
    mcl::share_ptr<mcl::ipc_connection> connection() {
        auto all = peer.connections();
        return all.empty() ? mcl::share_ptr<mcl::ipc_connection>() : all.back();
    }
    bool echo(const std::string& text, int timeout_ms = 20000) {
        mcl::binary_t payload = text_payload(text);
        return peer.send(nv_test::msg_echo, payload, connection(), timeout_ms) && payload == text_payload(text);
    }
};

TEST(IpcPeer, HandshakeAndTheReplyBytesForAnEmptyVersionRequest) {
    server_process server;
    nv_test::raw_client raw;
    ASSERT_TRUE(raw.connect(server.name));

    // Request 0x1000009, sequence 1, empty payload: 17 bytes with the pad byte.
    ASSERT_TRUE(raw.write(bytes({0, 0, 0, 0, 0x09, 0, 0, 0x01, 1, 0, 0, 0, 0, 0, 0, 0, 0})));
    bytes reply;
    ASSERT_TRUE(raw.read(18, reply));
    EXPECT_EQ(bytes({1, 0, 0, 0, 0x09, 0, 0, 0x01, 1, 0, 0, 0, 2, 0, 0, 0, 1, 0}), reply);

    // An echo of an empty payload comes back as a 17-byte frame too.
    ASSERT_TRUE(raw.write(bytes({0, 0, 0, 0, 0x01, 0, 0, 0x02, 7, 0, 0, 0, 0, 0, 0, 0, 0})));
    ASSERT_TRUE(raw.read(17, reply));
    EXPECT_EQ(bytes({1, 0, 0, 0, 0x01, 0, 0, 0x02, 7, 0, 0, 0, 0, 0, 0, 0, 0}), reply);

    // Five frames in one write: kinds 1, 3 (nobody waits for them), 4 and unknown kinds get no
    // reply; kind 2 is answered with kind 3. Only the last frame's reply may come back.
    ASSERT_TRUE(raw.write(bytes({1, 0, 0, 0, 0x01, 0, 0, 0x02, 8, 0, 0, 0, 1, 0, 0, 0, 'a',  //
                                    3, 0, 0, 0, 0x01, 0, 0, 0x02, 9, 0, 0, 0, 1, 0, 0, 0, 'b',  //
                                    4, 0, 0, 0, 0x01, 0, 0, 0x02, 10, 0, 0, 0, 1, 0, 0, 0, 'c', //
                                    9, 0, 0, 0, 0x01, 0, 0, 0x02, 11, 0, 0, 0, 1, 0, 0, 0, 'd', //
                                    2, 0, 0, 0, 0x01, 0, 0, 0x02, 12, 0, 0, 0, 1, 0, 0, 0, 'e'})));
    ASSERT_TRUE(raw.read(17, reply));
    EXPECT_EQ(bytes({3, 0, 0, 0, 0x01, 0, 0, 0x02, 12, 0, 0, 0, 1, 0, 0, 0, 'e'}), reply);
}

TEST(IpcPeer, APostWithoutConnectionReachesEveryConnectedClientOnce) {
    server_process server;
    client clients[3];
    // A reply proves the listener's side of each connection is up, so the post cannot race it.
    for (auto& c : clients) ASSERT_TRUE(c.connect(server.name) && c.echo("up"));
    mcl::binary_t payload = text_payload("to all");
    ASSERT_TRUE(clients[0].peer.send(nv_test::msg_post_all, payload, clients[0].connection(), 10000));
    EXPECT_EQ(text_payload("posted"), payload);
    for (auto& c : clients) EXPECT_TRUE(c.handler.wait_for(nv_test::msg_posted, 1, 5000));
    EXPECT_TRUE(clients[0].echo("after"));
    for (auto& c : clients) EXPECT_EQ(1, c.handler.count(nv_test::msg_posted));
}

TEST(IpcPeer, ConnectWithoutListenerTriesEvery50MsUntilTheTimeOut) {
    for (const auto& [timeout_ms, open_failures] : {std::pair<int, size_t>{0, 0}, {1000, 20}}) {
        nv_test::log_capture log;
        const std::string name = nv_test::unique_name("nv_ipc_nobody");
        client nobody;
        EXPECT_FALSE(nobody.peer.connect(name.c_str(), timeout_ms));
        const std::string text = log.text();
        EXPECT_EQ(open_failures, nv_test::count_of(text, "] - Failed to open mutex \"Global\\" + name + "_MTX_CONNECTING\""))
            << timeout_ms;
        EXPECT_EQ(1u, nv_test::count_of(text, "[mcl::ipc_peer::connect:"));
        EXPECT_EQ(1u, nv_test::count_of(text, "] - Failed to open the connecting mutex for pipe[" + name +
                                                  "], peer may not start yet."));
        EXPECT_TRUE(nobody.peer.connections().empty());
    }
}

TEST(IpcPeer, AHundredConnectionsAtOnceAreAllAnsweredWhatEverThePayloadSize) {
    server_process server;
    client c;
    constexpr int count = 100;
    for (int i = 0; i < count; ++i) ASSERT_TRUE(c.connect(server.name)) << i;
    const auto connections = c.peer.connections();
    ASSERT_EQ(static_cast<size_t>(count), connections.size());

    // Two requests at a time on each connection, some many times a pipe's buffer: frames are
    // queued at both ends while a write is still under way, and must arrive whole. (A reply
    // without payload is not told from none: the empty frame is checked on the wire above.)
    const uint32_t sizes[] = {1, 4096, 70000};
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2 * count; ++i)
        threads.emplace_back([&, i] {
            std::vector<unsigned char> fill(i % 50 == 0 ? 1u << 20 : sizes[i % 3]);
            for (size_t k = 0; k < fill.size(); ++k) fill[k] = static_cast<unsigned char>(k * 7 + static_cast<size_t>(i));
            const mcl::binary_t sent(fill.data(), static_cast<uint32_t>(fill.size()));
            mcl::binary_t payload = sent;
            if (c.peer.send(nv_test::msg_echo, payload, connections[static_cast<size_t>(i % count)], 30000) && payload == sent)
                ++answered;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(2 * count, answered.load());
}

TEST(IpcPeer, ASendTimesOutOnANegativeHandlerResultAndReturnsAtOnceWhenItsConnectionDies) {
    nv_test::log_capture log;
    server_process server;
    client c;
    ASSERT_TRUE(c.connect(server.name));
    mcl::binary_t payload = text_payload("unanswered");
    EXPECT_FALSE(c.peer.send(nv_test::msg_no_reply, payload, c.connection(), 300));
    EXPECT_EQ(1u, nv_test::count_of(log.text(), "] - Time out when waiting for response for message [33554435]"));
    EXPECT_EQ(text_payload("unanswered"), payload);
    EXPECT_TRUE(c.echo("next"));

    payload.clear();
    EXPECT_FALSE(c.peer.send(nv_test::msg_exit, payload, c.connection(), 600000));
    EXPECT_EQ(7u, server.process.wait());
    EXPECT_TRUE(log.contains("[mcl::ipc_peer::send:"));
    EXPECT_TRUE(log.contains("] - IPC connection has been terminated when waiting for response for message [33554437]"));
    EXPECT_EQ(1u, log.count("Time out when waiting"));
    EXPECT_TRUE(c.peer.connections().empty());
}

TEST(IpcPeer, AnOverLongLengthOrGarbageEndOnlyThatConnection) {
    server_process server;
    client steady;
    ASSERT_TRUE(steady.connect(server.name));
    {
        nv_test::raw_client raw;
        ASSERT_TRUE(raw.connect(server.name));
        ASSERT_TRUE(raw.write(bytes({0, 0, 0, 0, 1, 0, 0, 2, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F, 1, 2, 3})));
        bytes nothing;
        EXPECT_FALSE(raw.read(1, nothing));  // the server ended the connection
    }
    EXPECT_TRUE(steady.echo("after the long one"));
    EXPECT_NE(std::string::npos, server.log().find("exceeds the limit"));

    std::mt19937 random(20261123);
    for (int round = 0; round < 4; ++round) {
        nv_test::raw_client raw;
        ASSERT_TRUE(raw.connect(server.name));
        std::vector<unsigned char> garbage(1 + random() % 5000);
        for (auto& b : garbage) b = static_cast<unsigned char>(random());
        raw.write(garbage);
        raw.close();
        EXPECT_TRUE(steady.echo("round " + std::to_string(round))) << round;
    }
    client fresh;
    EXPECT_TRUE(fresh.connect(server.name) && fresh.echo("new client"));
}

// A client that sends a frame too long as soon as it has connected ends its connection on the
// read half while the write half may still be taking in the new pair: both halves close all the
// same, and the connection leaves the list (a lost wake-up once left such write halves open).
TEST(IpcPeer, EveryConnectionEndedByItsReadHalfLeavesTheList) {
    recording_handler handler;
    const std::string name = nv_test::unique_name("nv_ipc_ends");
    nv_test::serving_peer server(name.c_str(), &handler);
    server.start_listening();
    for (int i = 0; i < 100; ++i) {
        nv_test::raw_client raw;
        ASSERT_TRUE(raw.connect(name)) << i;
        ASSERT_TRUE(raw.write(bytes({0, 0, 0, 0, 1, 0, 0, 2, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x7F}))) << i;
    }
    // Left: the waiting pair at most.
    size_t listed = server.connections().size();
    for (int i = 0; i < 100 && listed > 1; ++i, listed = server.connections().size()) Sleep(100);
    EXPECT_LE(listed, 1u);
}

TEST(IpcPeer, HostileClientsCostWhatTheySent) {
    server_process server;
    // Clients that never read: four with 20 MiB of replies, and twenty that announce 64 MiB
    // frames and trickle. (That no stop waits on such clients: service_test.sh, its three stops.)
    nv_test::child abusers = nv_test::start_ipc_helper("abuse", server.name, "2000001 4 20480 20 120");
    EXPECT_EQ("ready 0", first_line(abusers));

    PROCESS_MEMORY_COUNTERS_EX memory{};
    ASSERT_TRUE(GetProcessMemoryInfo(server.process.process.get(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                                     sizeof(memory)));
    // The private commit charge: some systems fill in PagefileUsage only.
    const size_t committed = std::max(memory.PrivateUsage, memory.PagefileUsage);
    EXPECT_LT(committed, 200u * 1024 * 1024) << committed;
    EXPECT_EQ("0100", version_reply(server.name)) << "others are still served";
    // Up to a minute: the flooding clients' replies take a while to pile up on a loaded machine.
    for (int i = 0; i < 600 && nv_test::count_of(server.log(), "The other end does not read") < 4; ++i) Sleep(100);
    EXPECT_EQ(4u, nv_test::count_of(server.log(), "The other end does not read")) << server.log();
    abusers.kill();
}

// Replies nobody asked for are dropped as they come, with one line for their connection: a client
// flooding them holds nothing, and twenty clients working beside it lose no connection.
TEST(IpcPeer, AClientFloodingUnrequestedRepliesHoldsNothingAndTwentyOthersKeepWorking) {
    server_process server;
    client others;
    constexpr int count = 20;
    for (int i = 0; i < count; ++i) ASSERT_TRUE(others.connect(server.name)) << i;
    const auto connections = others.peer.connections();
    nv_test::child flood = nv_test::start_ipc_helper("flood", server.name, "5");
    ASSERT_EQ("ready", first_line(flood));

    std::atomic<bool> done{false};
    std::atomic<int> answered{0}, failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            const mcl::binary_t sent = text_payload("client " + std::to_string(i));
            while (!done) {
                mcl::binary_t payload = sent;
                const bool ok = others.peer.send(nv_test::msg_echo, payload, connections[static_cast<size_t>(i)], 20000);
                ++(ok && payload == sent ? answered : failed);
            }
        });
    const std::string flooded = first_line(flood);
    done = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(0u, flood.wait(10000)) << flooded << ": its own connection stays too";
    EXPECT_EQ(0, failed.load());
    EXPECT_GE(answered.load(), count);
    EXPECT_EQ(static_cast<size_t>(count), others.peer.connections().size());
    const std::string log = server.log();
    EXPECT_EQ(1u, nv_test::count_of(log, "that nobody waits for, dropped")) << log;
    EXPECT_EQ(0u, nv_test::count_of(log, "end the connection")) << log;
}

// A hostile client of another process takes the waiting pair ("" both pipes) or one pipe of
// it, signalling or not; in the last case a third process writes an exit request into the
// other pipe of that pair. No reply reaches the hostile client, no request on a pair two
// processes hold is handled, and honest clients are served (a first attempt may fail cleanly).
TEST(IpcPeer, ClientsHoldingPipesOfTheWaitingPairGetNoOtherClientsReplyAndOthersAreServed) {
    struct {
        const char* pipe;
        bool signal;
        bool exit_on_other_half;
        const char* line;  // the server's log line, or one of the three ends of a half-taken pair
    } const cases[] = {{"", false, false, "without signalling the connected event, make the next pair"},
                       {"_OUTBOUND", true, false, nullptr}, {"_OUTBOUND", false, false, nullptr},
                       {"_INBOND", true, false, nullptr}, {"_INBOND", false, false, nullptr},
                       {"_OUTBOUND", false, true, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pipe) + (c.signal ? " signalled" : " silent") + (c.exit_on_other_half ? " exit" : ""));
        server_process server;
        const std::string done_name = "Global\\" + nv_test::unique_name("nv_half_done");
        mcl::event done;
        ASSERT_EQ(0, done.create(done_name.c_str()));
        auto start_half = [&](const std::string& pipe, const char* signal, const char* exit) {
            return nv_test::start_ipc_helper("half", server.name, "\"" + pipe + "\" " + signal + " " + done_name + exit);
        };
        nv_test::child hostile = start_half(c.pipe, c.signal ? "1" : "0", "");
        ASSERT_EQ("ready", first_line(hostile));
        nv_test::child other_half = c.exit_on_other_half ? start_half("_INBOND", "0", " exit") : nv_test::child();
        ASSERT_TRUE(!c.exit_on_other_half || first_line(other_half) == "ready");
        bool answered = false;
        for (int attempt = 0; attempt < 3 && !answered; ++attempt) {
            client honest;
            answered = honest.connect(server.name) && honest.echo("for the honest client only");
        }
        EXPECT_TRUE(answered);
        EXPECT_EQ("0100", version_reply(server.name));
        EXPECT_EQ(STILL_ACTIVE, server.process.wait(0));
        done.set();
        EXPECT_EQ(0u, hostile.wait(30000));
        EXPECT_EQ("received 0", first_line(hostile));
        EXPECT_TRUE(!c.exit_on_other_half || other_half.wait(30000) == 0);
        std::string log = server.log();
        if (c.line != nullptr) {
            // The silent client is logged a second after it took the pair, whoever came after it.
            for (int i = 0; i < 100 && nv_test::count_of(log, c.line) == 0; ++i, log = server.log()) Sleep(100);
            EXPECT_EQ(1u, nv_test::count_of(log, c.line)) << log;
        } else {
            EXPECT_TRUE(log.find("pipe of the waiting pair has no client, end the pair") != std::string::npos ||
                        log.find("are held by two processes") != std::string::npos ||
                        log.find("without the other and did not signal, end the pair") != std::string::npos)
                << log;
        }
    }
}

// A client killed while it holds the connecting mutex, or after opening the pipes and before
// its signal, and one that pauses there for 1.5 s and then goes on: the next client connects and
// is answered meanwhile, and the slow one is answered too.
TEST(IpcPeer, AClientKilledOrSlowInItsHandshakeLeavesTheNextOneServed) {
    struct { const char* stage; bool kill; } const cases[] = {{"mutex", true}, {"pipes", true}, {"pipes", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.stage) + (c.kill ? " killed" : " slow"));
        server_process server;
        client first;  // the listener is up
        ASSERT_TRUE(first.connect(server.name) && first.echo("first"));
        nv_test::child staller = nv_test::start_ipc_helper("stall", server.name, std::string(c.stage) + " 1500");
        ASSERT_EQ("ready", first_line(staller));
        if (c.kill) staller.kill();
        const ULONGLONG start = GetTickCount64();
        nv_test::log_capture log;
        client next;
        EXPECT_TRUE(next.peer.connect(server.name.c_str(), 10000) && next.echo("next"));
        EXPECT_LT(GetTickCount64() - start, 10000u) << "a hang, not a timing";
        // A mutex its dead holder left is the next client's; the steps of its wait say nothing.
        EXPECT_TRUE(!c.kill || !log.contains("connecting mutex")) << log.text();
        EXPECT_FALSE(log.contains("accquiring")) << log.text();
        EXPECT_TRUE(c.kill || first_line(staller) == "answered");
        EXPECT_TRUE(first.echo("first again"));
    }
}

// Throws on "throw"; on "leave" disconnects its own connection and posts to every client,
// slowly, so that a stop can come while it is at it; records and answers everything else.
class misbehaving_handler : public recording_handler {
public:
    mcl::ipc_peer* peer = nullptr;
    mcl::event entered;

    int operator()(mcl::ipc_connection* connection, uint32_t id, mcl::binary_t& payload) override {
        if (payload == text_payload("throw")) throw std::bad_alloc();
        if (payload != text_payload("leave")) return recording_handler::operator()(connection, id, payload);
        entered.set();
        Sleep(300);
        peer->disconnect(mcl::share_ptr<mcl::ipc_connection>(connection));
        (void)peer->post(nv_test::msg_posted, payload, {});
        return 0;
    }
};

TEST(IpcPeer, TheAcceptLoopOutlivesAThrowingHandlerAndStopsWhileOneDisconnectsAndPosts) {
    nv_test::log_capture log;
    misbehaving_handler handler;
    ASSERT_TRUE(handler.entered.create_unnamed());
    const std::string name = nv_test::unique_name("nv_ipc_stop");
    nv_test::serving_peer server(name.c_str(), &handler);
    handler.peer = &server;
    server.start_listening();
    client c;
    ASSERT_TRUE(c.connect(name));
    mcl::binary_t payload = text_payload("throw");
    EXPECT_FALSE(c.peer.send(nv_test::msg_echo, payload, c.connection(), 1000)) << "no reply";
    EXPECT_TRUE(c.echo("still served"));
    EXPECT_EQ("0100", version_reply(name));  // another process

    payload = text_payload("leave");
    EXPECT_TRUE(c.peer.post(nv_test::msg_echo, payload, c.connection()));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(handler.entered.get(), 20000));
    server.finish();
    EXPECT_EQ(0u, server.last_exit_code()) << "the event thread returned on its own, it was not terminated";
    EXPECT_TRUE(server.connections().empty());
    EXPECT_EQ(1u, log.count("] - The handler of a message failed with an exception: std::bad_alloc")) << log.text();
}

TEST(IpcPeer, AListenerNamesTheProcessThatMadeItsPipesBeforeIt) {
    recording_handler recorder;
    server_process squatter;
    client probe;  // the squatter listens once this gets through
    ASSERT_TRUE(probe.connect(squatter.name));
    // The squatter makes its next pair once it has settled the probe's: wait until both pipes are free.
    for (const char* suffix : {"_INBOND", "_OUTBOUND"})
        ASSERT_TRUE(WaitNamedPipeA(("\\\\.\\pipe\\" + squatter.name + suffix).c_str(), 30000)) << GetLastError();
    nv_test::log_capture log;
    mcl::event stop;
    ASSERT_TRUE(stop.create_unnamed());
    stop.set();  // one pass: the start-up check, the first pair, the stop
    mcl::ipc_peer server(squatter.name.c_str(), &recorder);
    server.serve_until(stop.get());
    const std::string text = log.text();
    EXPECT_TRUE(log.contains("\\\\.\\pipe\\" + squatter.name + "_INBOND\") already exists, made by process " +
                             std::to_string(squatter.process.pid) + " (")) << text;
    EXPECT_NE(std::string::npos, mcl::mswin::lower_case(text).find("nv_ipc_helper.exe): its clients may reach"));
    EXPECT_FALSE(log.contains("has no other instance"));
}

}  // namespace
