// The endpoint of the IPC transport: connects to or listens under an endpoint name, sends
// requests and waits for their replies, posts one-way messages, and hands every received
// request and post to its handler on its own event thread, replying with what the handler
// left in the payload.
//
// Threads: the event thread (the base event_thread: every handler call, one at a time, in
// arrival order across connections), the read and write threads (one wait over the channel
// events of up to 62 connections each; more connections get further read and write threads),
// plus callers of send, post and connect and, on the listening side, the accept loop.
// Lock order: connection-list lock, then a table lock or a connection's write lock.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/ipc/channel.h"
#include "mcl/ipc/frame.h"
#include "mcl/lock.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mutex.h"
#include "mcl/share_ptr.h"
#include "mcl/thread.h"

namespace mcl {

class ipc_msg_handler {
public:
    virtual ~ipc_msg_handler() = default;
    // Called on the event thread. `payload` holds the request payload on entry; a handler that
    // replies leaves the reply payload there and returns 0 or more. A negative result sends no
    // reply and ends the event thread's current pass over its queue. `connection` identifies
    // the requesting client and is valid for the call.
    virtual int operator()(ipc_connection* connection, uint32_t message_id, binary_t& payload) = 0;
    // Called on the event thread once `connection` has left the peer's list, after every
    // request and post it sent before has been handled; valid for the call. Nothing by default.
    virtual void connection_ended(ipc_connection* connection) { (void)connection; }
};

// Bytes counted in a byte_budget for as long as the holder lives. Move-only.
class budget_hold {
public:
    budget_hold() = default;
    budget_hold(byte_budget* budget, uint64_t n) : budget_(budget), n_(n) {}
    budget_hold(budget_hold&& other) noexcept : budget_(other.budget_), n_(other.n_) { other.budget_ = nullptr; }
    budget_hold& operator=(budget_hold&& other) noexcept {
        if (this != &other) {
            release();
            budget_ = other.budget_;
            n_ = other.n_;
            other.budget_ = nullptr;
        }
        return *this;
    }
    budget_hold(const budget_hold&) = delete;
    budget_hold& operator=(const budget_hold&) = delete;
    ~budget_hold() { release(); }
    void release() {
        if (budget_ != nullptr) budget_->give(n_);
        budget_ = nullptr;
    }

private:
    byte_budget* budget_ = nullptr;
    uint64_t n_ = 0;
};

// One received frame queued for the event thread. Its bytes count in the process budget until
// it has been handled.
struct ipc_event {
    share_ptr<ipc_connection> connection;
    binary_t frame;  // the whole frame, header included
    ipc_msg_handler* handler = nullptr;
    budget_hold hold;
    bool ended = false;  // no frame: tells the handler that the connection has ended
    std::function<void()> task;  // set instead of a frame: work to run on the event thread
};

// The reply of a request whose handler leaves it to be sent later, from any thread (see
// ipc_peer::defer_reply). Until it is sent the request's bytes stay counted in its connection's
// budget. Move-only; sends at most once.
class ipc_deferred_reply {
public:
    ipc_deferred_reply() = default;
    ipc_deferred_reply(ipc_deferred_reply&&) = default;
    ipc_deferred_reply& operator=(ipc_deferred_reply&&) = default;
    ipc_deferred_reply(const ipc_deferred_reply&) = delete;
    ipc_deferred_reply& operator=(const ipc_deferred_reply&) = delete;

    // Queues `payload` as the reply; nothing for a post, once sent, or when the client has gone.
    // Any thread.
    void send(const binary_t& payload);
    ipc_connection* connection() const { return connection_.get(); }
    // False when there is nowhere to send: made outside a handler call, or sent already.
    explicit operator bool() const { return static_cast<bool>(connection_); }

private:
    friend class ipc_peer;
    share_ptr<ipc_connection> connection_;
    frame_kind kind_ = frame_kind::post;
    uint32_t message_id_ = 0;
    uint32_t sequence_ = 0;
    budget_hold hold_;
};

class ipc_peer : public event_thread<ipc_event> {
public:
    // Connections one wait serves: 64 handles less the stop and refresh events.
    static constexpr uint32_t connections_per_wait = MAXIMUM_WAIT_OBJECTS - 2;
    static constexpr uint32_t thread_stop_seconds = 3;
    // What a queued event costs in the budget besides its bytes.
    static constexpr uint32_t entry_overhead = 128;

    // `handler` is not owned and may be null. The threads start on setup or connect.
    ipc_peer(const char* name, ipc_msg_handler* handler);
    ~ipc_peer() override;

    // Sends a request on `connection` and waits up to `timeout_ms` (counted in 50 ms steps) for
    // the reply, which then replaces `payload`. False on time-out, when the connection is
    // dropped meanwhile or for a null connection. Any thread, the event thread included.
    bool send(uint32_t message_id, binary_t& payload, share_ptr<ipc_connection> connection, int timeout_ms);
    // Queues a post on `connection`, or on every connected connection when it is null.
    bool post(uint32_t message_id, const binary_t& payload, share_ptr<ipc_connection> connection);

    // Listening side: serve_until without a stop event. Does not return.
    virtual void listen();
    // Listening side, the accept loop: setup(true), then keeps one listening pair of pipes
    // waiting for the next client (a failed pair is tried again after 50 ms, doubling up to
    // 5 s) until `stop` is signalled; then shutdown(). The calling thread. A pair is served
    // only when one client process holds both its pipes, and the next pair is made as soon as
    // that is known, whether its client signals the connected event or not. A pair that a client
    // took only in part is closed before the next is made: at once when that client has ended,
    // soon after a signal no taken pair accounts for, or after a second of waiting.
    void serve_until(HANDLE stop);
    // Decides whether the process serving a freshly opened connection is the one the caller
    // means to talk to; called before anything is sent or read on it.
    using server_check = std::function<bool(const ipc_connection& connection)>;
    // Connecting side: the handshake with the listener of `name`, then one more connection.
    // With `check`, a connection it refuses is closed unused and connect fails.
    // The connecting mutex is waited for at most connecting_wait_ms when the time-out leaves
    // more: a process that holds it (or made it so that clients may not open it) delays a
    // client by that much, and the client then opens the pipes without it (logged). A holder
    // that leaves the listener's waiting pipes free for a moment is not opening them: the client
    // goes on without the mutex then too. One that ended without releasing it left it to the
    // next client.
    virtual bool connect(const char* name, int timeout_ms, const server_check& check = nullptr);
    static constexpr int connecting_wait_ms = 2000;
    // Drops one connection; a send waiting on it ends at once.
    virtual void disconnect(share_ptr<ipc_connection> connection);
    // Stops the threads, drops every connection and both tables; the next frame built carries
    // sequence number 1. Holds no lock while the threads stop and releases the connections
    // after the list lock, so a handler inside disconnect or post finishes and nothing waits
    // on a client.
    virtual void close();
    // close(), and leaves listening mode: the connecting mutex and the connected event are
    // closed, so clients fail to connect until the next setup(true).
    void shutdown();
    // Makes the read and write threads rebuild their wait lists.
    virtual void refresh();

    // Runs `task` on the event thread after what is queued there now, one at a time with the
    // handlers. Any thread; dropped when the peer closes first.
    void post_task(std::function<void()> task);
    // Called by a handler during its call on the event thread: its request is answered later
    // through the returned reply, not with what the handler leaves in the payload. Outside a
    // handler call, an empty reply that sends nothing.
    ipc_deferred_reply defer_reply();

    // The security descriptors of the listening side's named objects, given by the owner
    // before setup(true) or serve_until; an empty one means a NULL DACL (every process may do
    // everything with the object).
    struct listener_security {
        mswin::security_descriptor connecting_mutex;
        mswin::security_descriptor connected_event;
        mswin::security_descriptor pipes;
    };
    void set_listener_security(listener_security security) { security_ = std::move(security); }
    // Listening side, at setup: whether the connecting mutex or the connected event, found made
    // before this listener, may be used. `existing` has READ_CONTROL, or is null when the object
    // could not be opened. One not trusted is left alone: the listener runs without it and its
    // clients connect without it. By default every one is trusted.
    virtual bool existing_object_trusted(const std::string& name, HANDLE existing);

    const std::string& name() const { return name_; }
    // Live connections, in the order they were added (a copy). Any thread.
    std::vector<share_ptr<ipc_connection>> connections();

protected:
    class msg_io_thread : public thread {
    public:
        msg_io_thread(ipc_peer* peer, uint32_t group);
        ~msg_io_thread() override;
        void stop(uint32_t seconds) override;
        DWORD run() override;
        bool wake() { return refresh_event_.set(); }

    protected:
        virtual HANDLE channel_event(ipc_connection& connection) = 0;
        // Runs the channel whose event fired; false means the connection is dead.
        virtual bool serve(share_ptr<ipc_connection>& connection) = 0;
        // Closes this thread's half of an ended connection; true for the call that found both
        // halves closed.
        virtual bool close_half(ipc_connection& connection) = 0;

        ipc_peer* peer_;

    private:
        uint32_t group_;
        std::atomic<DWORD> thread_id_{0};
        event refresh_event_;
    };

    class msg_read_thread : public msg_io_thread {
    public:
        using msg_io_thread::msg_io_thread;
        ~msg_read_thread() override;

    protected:
        HANDLE channel_event(ipc_connection& connection) override;
        bool serve(share_ptr<ipc_connection>& connection) override;
        bool close_half(ipc_connection& connection) override;

    private:
        std::vector<binary_t> frames_;
    };

    class msg_write_thread : public msg_io_thread {
    public:
        using msg_io_thread::msg_io_thread;
        ~msg_write_thread() override;

    protected:
        HANDLE channel_event(ipc_connection& connection) override;
        bool serve(share_ptr<ipc_connection>& connection) override;
        bool close_half(ipc_connection& connection) override;
    };

    // Listening side (`listening` true): creates the connecting mutex and the connected event;
    // both sides: starts the event, read and write threads.
    bool setup(bool listening);
    // Creates one listening pair of pipes under `pipe_path` (with `first_instance`, only where
    // no instance of the names exists yet), starts its connect and adds it to the list; its
    // I/O threads set `watcher` (if any) when the pair's state changes. Null (logged) on failure.
    share_ptr<ipc_connection> new_listen_connection(const char* pipe_path, bool first_instance = false,
                                                    HANDLE watcher = nullptr);
    // Start-up: logs whether another process already made pipes under the names this listener
    // is about to make, and whose they are; such a process could sit in front of this one.
    static void check_pipe_name(const std::string& pipe_path);
    // The accept loop, for the waiting pair after its client's signal or when it was found
    // half taken or ended: asks the I/O threads to decide and waits (bounded) until the pair is
    // verified or both its pipes are closed. Drops `waiting`. False when `stop` came first.
    bool settle(share_ptr<ipc_connection>& waiting, HANDLE stop);
    // What the accept loop does next with its waiting pair: wait on it, follow it with the
    // next pair (taken whole), or settle it (ended, or taken in part by a client that ended,
    // signalled or waited too long; logged where the pair does not say why).
    enum class pair_verdict { wait, taken, settle };
    // `half_since`: when the pair was first seen taken in part (0: not); `signal_deadline`: when
    // a signal no taken pair accounts for settles a pair taken in part (0: none).
    static pair_verdict examine(ipc_connection& pair, ULONGLONG now, ULONGLONG& half_since, ULONGLONG& signal_deadline);
    // Adds a connection to the list and to a wait group with room. Caller holds the list lock.
    void add_connection_locked(const share_ptr<ipc_connection>& connection);

    // Listening side: signalled by each client after its attempt to open the pipes; the accept
    // loop resets it and makes the next listening connection. Null before setup(true).
    HANDLE connected_event() const { return connected_event_.get(); }

    // Event thread: calls the frame's handler and queues the reply of a request whose handler
    // returned 0 or more. Returns the handler's result (0 without a handler).
    int handle_event(ipc_event& e) override;

private:
    using table_key = std::pair<ipc_connection*, uint32_t>;
    // A waiting send's place for its reply; a reply nobody waits for is dropped, never stored.
    struct response_slot {
        share_ptr<ipc_connection> connection;  // keeps the key's connection alive
        binary_t payload;
    };

    uint32_t next_sequence();
    void start_io_threads();
    void stop_io_threads();
    // Takes the connection-list lock, unless `stop` is set while waiting for it: the I/O
    // threads use it, so that close, which stops them while holding the lock, never waits
    // for a thread that waits for the lock.
    bool lock_list_unless(HANDLE stop);
    // The connections of one wait group, with counted references; false when `stop` came
    // first (see lock_list_unless).
    bool group_connections(uint32_t group, HANDLE stop, std::vector<share_ptr<ipc_connection>>& members);
    // Takes the connection out of the list and both tables; what held it is moved into
    // `released`, to be dropped by the caller after the list lock.
    void disconnect_locked(const share_ptr<ipc_connection>& connection, std::vector<share_ptr<ipc_connection>>& released);
    // The read thread's handling of one received frame; false ends the connection.
    bool receive(const share_ptr<ipc_connection>& connection, binary_t&& frame);
    // Counts a received frame in its connection's budget; false (logged) when refused.
    static bool take_budget(byte_budget& budget, uint64_t cost);
    void queue_reply(const ipc_event& e, const binary_t& reply_payload);

    std::string name_;
    ipc_msg_handler* handler_;

    // The request whose handler the event thread is calling, and whether it deferred its reply.
    // Event thread only.
    ipc_event* current_event_ = nullptr;
    frame_header current_header_;
    bool reply_deferred_ = false;

    lock reply_handler_lock_;
    std::map<table_key, ipc_msg_handler*> reply_handlers_;

    SRWLOCK response_lock_ = SRWLOCK_INIT;
    CONDITION_VARIABLE response_changed_ = CONDITION_VARIABLE_INIT;
    std::map<table_key, response_slot> responses_;

    lock list_lock_;
    std::vector<share_ptr<ipc_connection>> connections_;
    std::vector<uint32_t> group_sizes_;  // connections per wait group
    std::vector<std::unique_ptr<msg_read_thread>> read_threads_;    // one per wait group
    std::vector<std::unique_ptr<msg_write_thread>> write_threads_;  // one per wait group

    listener_security security_;
    mutex connecting_mutex_;
    event connected_event_;
    event pair_event_;  // set by the waiting pair's I/O threads when its state changes

    lock sequence_lock_;
    uint32_t sequence_ = 0;
};

}  // namespace mcl
