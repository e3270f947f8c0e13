#include "mcl/ipc/peer.h"

#include <algorithm>
#include <deque>

#include "mcl/error_text.h"
#include "mcl/log.h"

namespace mcl {

namespace {

constexpr const char* global_prefix = "Global\\";
constexpr int send_step_ms = 50;
constexpr int connect_retry_ms = 50;
constexpr int pipe_open_wait_ms = static_cast<int>(ipc_channel::pipe_default_timeout_ms);

constexpr DWORD accept_retry_first_ms = 50;
constexpr DWORD accept_retry_last_ms = 5000;
constexpr DWORD unsignalled_check_ms = 500;
// How long the accept loop waits for the I/O threads to settle a pair before it makes the next.
constexpr DWORD settle_wait_ms = 5000;
// A live client holding one pipe of the waiting pair without the other this long is ended.
constexpr ULONGLONG half_taken_ms = 2 * unsignalled_check_ms;
// After a signal that no pair taken accounts for, how long the waiting pair may still become
// whole before what a client holds of it alone is closed.
constexpr ULONGLONG signal_grace_ms = 200;
// A client that took a pair whole and has not signalled this long is logged; its pair is kept
// this much longer for a late signal to be matched to.
constexpr ULONGLONG silent_after_ms = 2 * unsignalled_check_ms;
constexpr ULONGLONG silent_kept_ms = 30000;

DWORD remaining_ms(ULONGLONG now, ULONGLONG deadline) {
    return deadline > now ? static_cast<DWORD>(deadline - now) : 0;
}

// The accept loop's account of the connected event: every client signals it once after
// opening the pipes, however that went. Pairs taken whole are matched to signals, the latest
// first (a slow client's late signal then finds an older pair still open to it), so that a
// client that never signals is logged and a signal no pair accounts for is known.
class signal_ledger {
public:
    void pair_taken(ULONGLONG now) {
        if (early_ > 0) {  // its signal came before the pair was seen taken
            --early_;
            return;
        }
        if (pairs_.size() >= max_kept) pairs_.pop_front();
        pairs_.push_back({now, false});
    }
    // False when no pair taken accounts for the signal; the next pair taken is then its own.
    bool signalled() {
        if (!pairs_.empty()) {
            pairs_.pop_back();
            return true;
        }
        ++early_;
        return false;
    }
    void forget_early() { early_ = 0; }
    // Logs each pair whose client has not signalled within silent_after_ms, once; returns how
    // long until the next is due (at most unsignalled_check_ms).
    DWORD log_silent(ULONGLONG now) {
        while (!pairs_.empty() && now - pairs_.front().taken >= silent_kept_ms) pairs_.pop_front();
        DWORD next = unsignalled_check_ms;
        for (auto& p : pairs_) {
            if (p.logged) continue;
            const ULONGLONG due = p.taken + silent_after_ms;
            if (now < due) {
                next = (std::min)(next, remaining_ms(now, due));
                break;  // the later ones are younger
            }
            p.logged = true;
            NV_LOG("mcl::ipc_peer::serve_until",
                   "A client opened the waiting pipes without signalling the connected event, make the next pair");
        }
        return next;
    }

private:
    static constexpr size_t max_kept = 1024;
    struct taken_pair {
        ULONGLONG taken;
        bool logged;
    };
    std::deque<taken_pair> pairs_;
    int early_ = 0;
};

// Erases every entry of a (connection, sequence)-keyed table that belongs to `connection`.
template <typename Map>
void erase_connection(Map& table, ipc_connection* connection) {
    auto it = table.lower_bound({connection, 0});
    while (it != table.end() && it->first.first == connection) it = table.erase(it);
}

// Runs `body`, turning an exception into a log line; false then.
template <typename Body>
bool guarded(const char* function, const char* what, Body body) {
    try {
        body();
        return true;
    } catch (const std::exception& e) {
        NV_LOG(function, "%s failed with an exception: %s", what, e.what());
    } catch (...) {
        NV_LOG(function, "%s failed with an exception", what);
    }
    return false;
}

// How long the listener's waiting pipes may stand free while another client holds the
// connecting mutex before a client stops waiting for it: an honest holder opens them at once.
constexpr ULONGLONG stalled_holder_ms = 100;
constexpr int connecting_step_ms = 25;

enum class mutex_wait { acquired, timed_out, stalled, failed };

// Waits up to `limit_ms` for the connecting mutex in 25 ms steps (a mutex its dead holder left
// counts as acquired), looking between steps whether the pair of pipes the listener keeps
// waiting stands free. `waited_ms` is the time spent.
mutex_wait wait_connecting(mutex& connecting, const std::string& pipe_path, int limit_ms, int& waited_ms) {
    const std::string first_pipe = pipe_path + "_OUTBOUND";  // what a client opens first
    const ULONGLONG start = GetTickCount64();
    ULONGLONG free_since = 0;
    for (;;) {
        const ULONGLONG now = GetTickCount64();
        waited_ms = static_cast<int>(now - start);
        // The last look is the plain acquire, with its time-out line.
        if (waited_ms >= limit_ms) return connecting.acquire(0) == 0 ? mutex_wait::acquired : mutex_wait::timed_out;
        const int step = limit_ms - waited_ms < connecting_step_ms ? limit_ms - waited_ms : connecting_step_ms;
        const int r = connecting.acquire_step(static_cast<DWORD>(step));
        if (r == 0) return mutex_wait::acquired;
        if (r < 0) return mutex_wait::failed;
        // Free now: an instance would be handed over at once.
        if (!WaitNamedPipeA(first_pipe.c_str(), 1)) {
            free_since = 0;
            continue;
        }
        const ULONGLONG seen = GetTickCount64();
        if (free_since == 0) free_since = seen;
        if (seen - free_since >= stalled_holder_ms) {
            waited_ms = static_cast<int>(seen - start);
            return mutex_wait::stalled;
        }
    }
}

// Turns a whole frame into its payload in place, without a second buffer.
void take_frame_payload(binary_t& frame, const frame_header& header) {
    if (header.length == 0) {
        frame.clear();
        return;
    }
    frame.drop_front(frame_header_size);
    if (frame.size() > header.length) frame.drop_back(frame.size() - header.length);
}

}  // namespace

ipc_peer::ipc_peer(const char* name, ipc_msg_handler* handler) : name_(name != nullptr ? name : ""), handler_(handler) {}

ipc_peer::~ipc_peer() {
    close();
    connected_event_.close();
    (void)connecting_mutex_.release();
    connecting_mutex_.close();
    read_threads_.clear();
    write_threads_.clear();
}

uint32_t ipc_peer::next_sequence() {
    scoped_lock guard(sequence_lock_);
    return ++sequence_;
}

std::vector<share_ptr<ipc_connection>> ipc_peer::connections() {
    scoped_lock guard(list_lock_);
    return connections_;
}

// ---------------------------------------------------------------------------------------------
// Sending

bool ipc_peer::send(uint32_t message_id, binary_t& payload, share_ptr<ipc_connection> connection, int timeout_ms) {
    if (!connection) return false;
    const uint32_t sequence = next_sequence();
    binary_t frame;
    append_frame(frame, frame_kind::request, message_id, sequence, payload);
    const table_key key{connection.get(), sequence};

    AcquireSRWLockExclusive(&response_lock_);
    response_slot& slot = responses_[key];
    slot = response_slot{};
    slot.connection = connection;
    ReleaseSRWLockExclusive(&response_lock_);

    // A refused frame: the connection is ending (its pipes closed, or it overflowed).
    const bool queued = connection->enqueue(std::move(frame));

    // The time-out is spent in 50 ms steps; a stored reply or a dropped connection wakes the
    // wait at once.
    bool replied = false;
    bool dropped = false;
    int remaining = timeout_ms;
    AcquireSRWLockExclusive(&response_lock_);
    ULONGLONG step_end = GetTickCount64() + send_step_ms;
    for (;;) {
        const ULONGLONG now = GetTickCount64();
        bool step_done = false;
        if (now >= step_end) {
            remaining -= send_step_ms;
            step_end += send_step_ms;
            step_done = true;
        } else {
            (void)SleepConditionVariableSRW(&response_changed_, &response_lock_, static_cast<DWORD>(step_end - now), 0);
        }
        const auto it = responses_.find(key);
        if (it == responses_.end() || !queued) {
            dropped = true;
            break;
        }
        if (!it->second.payload.empty()) {
            payload = std::move(it->second.payload);
            replied = true;
            break;
        }
        if (step_done && remaining <= 0) break;
    }
    responses_.erase(key);
    ReleaseSRWLockExclusive(&response_lock_);

    if (dropped)
        NV_LOG("mcl::ipc_peer::send", "IPC connection has been terminated when waiting for response for message [%d]",
               static_cast<int>(message_id));
    if (!replied && (!dropped || remaining <= 0))
        NV_LOG("mcl::ipc_peer::send", "Time out when waiting for response for message [%d]", static_cast<int>(message_id));
    return replied;
}

bool ipc_peer::post(uint32_t message_id, const binary_t& payload, share_ptr<ipc_connection> connection) {
    binary_t frame;
    append_frame(frame, frame_kind::post, message_id, next_sequence(), payload);
    if (connection) {
        connection->enqueue(frame);
        return true;
    }
    scoped_lock guard(list_lock_);
    // A listening pair not yet known to be held by one client is not a live connection.
    for (auto& c : connections_)
        if (c->state() == ipc_connection::pair_state::verified) (void)c->enqueue(frame);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Receiving

bool ipc_peer::receive(const share_ptr<ipc_connection>& connection, binary_t&& frame) {
    constexpr const char* fn = "mcl::ipc_peer::receive";
    frame_header header;
    if (!read_frame_header(frame, header)) return true;
    byte_budget& budget = connection->budget();
    const uint64_t cost = static_cast<uint64_t>(frame.size()) + entry_overhead;
    switch (static_cast<frame_kind>(header.kind)) {
    case frame_kind::request:
    case frame_kind::routed_request:
    case frame_kind::post:
        if (!take_budget(budget, cost)) return false;
        post_event(ipc_event{connection, std::move(frame), handler_, budget_hold(&budget, cost), false, {}});
        return true;
    case frame_kind::response: {
        const table_key key{connection.get(), header.sequence};
        take_frame_payload(frame, header);
        bool waited_for = false;
        AcquireSRWLockExclusive(&response_lock_);
        const auto it = responses_.find(key);
        if (it != responses_.end()) {
            it->second.payload = std::move(frame);
            waited_for = true;
        }
        ReleaseSRWLockExclusive(&response_lock_);
        if (waited_for) {
            WakeAllConditionVariable(&response_changed_);
        } else if (!connection->unrequested_reply_logged) {
            // A reply nobody waits for is dropped at once: a client cannot make the process hold
            // what it never asked for. One line per connection, however many come.
            connection->unrequested_reply_logged = true;
            NV_LOG(fn, "A reply to message [%d] came that nobody waits for, dropped (as are later ones on this connection)",
                   static_cast<int>(header.message_id));
        }
        return true;
    }
    case frame_kind::routed_reply: {
        ipc_msg_handler* handler = nullptr;
        {
            scoped_lock guard(reply_handler_lock_);
            const auto it = reply_handlers_.find({connection.get(), header.sequence});
            if (it != reply_handlers_.end()) {
                handler = it->second;
                reply_handlers_.erase(it);
            }
        }
        if (handler == nullptr) return true;
        if (!take_budget(budget, cost)) return false;
        post_event(ipc_event{connection, std::move(frame), handler, budget_hold(&budget, cost), false, {}});
        return true;
    }
    default:
        return true;  // unknown kinds are ignored
    }
}

bool ipc_peer::take_budget(byte_budget& budget, uint64_t cost) {
    if (budget.take(cost)) return true;
    const byte_budget* process = budget.parent() != nullptr ? budget.parent() : &budget;
    NV_LOG("mcl::ipc_peer::receive",
           "The queued messages would pass the budget of %u MiB (%u MiB for one connection), end the connection",
           static_cast<unsigned>(process->limit() >> 20), static_cast<unsigned>(budget.limit() >> 20));
    return false;
}

int ipc_peer::handle_event(ipc_event& e) {
    if (e.task) {
        (void)guarded("mcl::ipc_peer::handle_event", "A task", [&] { e.task(); });
        return 0;
    }
    if (e.handler == nullptr) return 0;
    if (e.ended) {
        (void)guarded("mcl::ipc_peer::handle_event", "The handler of an ended connection",
                      [&] { e.handler->connection_ended(e.connection.get()); });
        return 0;
    }
    frame_header header;
    if (!read_frame_header(e.frame, header)) return 0;
    binary_t payload = std::move(e.frame);
    take_frame_payload(payload, header);
    int result = 0;
    current_event_ = &e;
    current_header_ = header;
    reply_deferred_ = false;
    // A handler that throws (an allocation failure included) ends its request without a reply.
    const bool returned = guarded("mcl::ipc_peer::handle_event", "The handler of a message",
                                  [&] { result = (*e.handler)(e.connection.get(), header.message_id, payload); });
    current_event_ = nullptr;
    if (!returned || reply_deferred_) return returned ? result : 0;
    if (result < 0 || !e.connection) return result;
    const auto kind = static_cast<frame_kind>(header.kind);
    if (kind != frame_kind::request && kind != frame_kind::routed_request) return result;
    binary_t reply;
    append_frame(reply, kind == frame_kind::request ? frame_kind::response : frame_kind::routed_reply, header.message_id,
                 header.sequence, payload);
    // The request's bytes leave the connection's budget before its reply enters it: the largest
    // request and its reply are never counted at once.
    payload.release_storage();
    e.hold.release();
    e.connection->enqueue(std::move(reply));  // dropped with the connection if the client has gone
    return result;
}

void ipc_peer::post_task(std::function<void()> task) {
    ipc_event e;
    e.task = std::move(task);
    post_event(std::move(e));
}

ipc_deferred_reply ipc_peer::defer_reply() {
    ipc_deferred_reply reply;
    if (current_event_ == nullptr || reply_deferred_) return reply;
    reply_deferred_ = true;
    reply.connection_ = current_event_->connection;
    reply.kind_ = static_cast<frame_kind>(current_header_.kind);
    reply.message_id_ = current_header_.message_id;
    reply.sequence_ = current_header_.sequence;
    reply.hold_ = std::move(current_event_->hold);
    return reply;
}

void ipc_deferred_reply::send(const binary_t& payload) {
    if (!connection_) return;
    share_ptr<ipc_connection> connection = std::move(connection_);
    if (kind_ != frame_kind::request && kind_ != frame_kind::routed_request) return;
    binary_t reply;
    append_frame(reply, kind_ == frame_kind::request ? frame_kind::response : frame_kind::routed_reply, message_id_,
                 sequence_, payload);
    hold_.release();
    connection->enqueue(std::move(reply));  // dropped with the connection if the client has gone
}

// ---------------------------------------------------------------------------------------------
// Connections

bool ipc_peer::connect(const char* name, int timeout_ms, const server_check& check) {
    if (name == nullptr) return false;
    const std::string pipe_path = std::string(ipc_channel::pipe_prefix) + name;
    start();
    start_io_threads();

    const std::string base = std::string(global_prefix) + name;
    const std::string mutex_name = base + "_MTX_CONNECTING";
    int remaining = timeout_ms;
    if (remaining < 1) {
        NV_LOG("mcl::ipc_peer::connect", "Failed to open the connecting mutex for pipe[%s], peer may not start yet.", name);
        return false;
    }
    mutex connecting;
    bool opened = false;
    bool refused = false;  // the mutex exists, but this client may not open it
    for (;;) {
        if (connecting.open(mutex_name.c_str()) == 0) {
            opened = true;
            break;
        }
        if (GetLastError() == ERROR_ACCESS_DENIED) {
            refused = true;
            break;
        }
        Sleep(connect_retry_ms);
        remaining -= connect_retry_ms;
        if (remaining <= 0) break;
    }
    if (!opened && !refused) {
        NV_LOG("mcl::ipc_peer::connect", "Failed to open the connecting mutex for pipe[%s], peer may not start yet.", name);
        return false;
    }
    // The mutex only keeps honest clients from taking pipes of the same pair: whoever holds it
    // longer than connecting_wait_ms, or while the pair it is for stands free, is not one, and
    // the client goes on without it.
    if (opened) {
        const bool short_wait = remaining <= connecting_wait_ms;
        int waited = 0;
        const mutex_wait w =
            wait_connecting(connecting, pipe_path, short_wait ? remaining : connecting_wait_ms, waited);
        if (w == mutex_wait::failed || (w == mutex_wait::timed_out && short_wait)) {
            NV_LOG("mcl::ipc_peer::connect", "Failed to acquire the pipe[%s] connecting mutex within %d milli-seconds",
                   name, remaining);
            return false;
        }
        if (w == mutex_wait::timed_out) {
            remaining -= connecting_wait_ms;
            NV_LOG("mcl::ipc_peer::connect",
                   "The pipe[%s] connecting mutex was not acquired within %d milli-seconds, open the pipes without it",
                   name, connecting_wait_ms);
        } else if (w == mutex_wait::stalled) {
            remaining -= waited;
            NV_LOG("mcl::ipc_peer::connect",
                   "The pipe[%s] connecting mutex is held while the waiting pipes stay free for %d milli-seconds, open "
                   "the pipes without it",
                   name, static_cast<int>(stalled_holder_ms));
        }
    }
    if (refused)
        NV_LOG("mcl::ipc_peer::connect", "The pipe[%s] connecting mutex may not be opened, open the pipes without it",
               name);
    HANDLE connected = OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, (base + "_EV_CONNECTED").c_str());
    if (connected == nullptr && GetLastError() == ERROR_ACCESS_DENIED) {
        NV_LOG("mcl::ipc_peer::connect",
               "The connected event for pipe[%s] may not be opened, connect without signalling it", name);
    } else if (connected == nullptr) {
        NV_LOG("mcl::ipc_peer::connect", "Failed to open the connected event for pipe[%s].", name);
        (void)connecting.release();
        return false;
    }
    // The listener makes the next pair of pipes once the previous one is taken (or, at its
    // start, after it made the mutex): while there is none yet, try again in 50 ms steps within
    // the time-out, still holding the mutex.
    // A listener that has no pair waiting (it failed to make one and tries again later) is not
    // waited for longer than a pipe's own default time-out, whatever the caller's.
    share_ptr<ipc_connection> connection;
    bool opened_pipes = false;
    int pipe_wait = remaining < pipe_open_wait_ms ? remaining : pipe_open_wait_ms;
    for (;;) {
        connection = share_ptr<ipc_connection>(new ipc_connection(ipc_connection::connect_type));
        opened_pipes = connection->open(pipe_path.c_str());
        if (opened_pipes || pipe_wait <= connect_retry_ms) break;
        Sleep(connect_retry_ms);
        pipe_wait -= connect_retry_ms;
    }
    // Also after a failed open: the listener makes a fresh pair for the next client.
    if (connected != nullptr) {
        SetEvent(connected);
        CloseHandle(connected);
    }
    (void)connecting.release();
    if (!opened_pipes || (check && !check(*connection))) return false;

    scoped_lock guard(list_lock_);
    add_connection_locked(connection);
    refresh();
    return true;
}

bool ipc_peer::setup(bool listening) {
    if (listening) {
        const std::string base = std::string(global_prefix) + name_;
        const std::string mutex_name = base + "_MTX_CONNECTING";
        const std::string event_name = base + "_EV_CONNECTED";
        // The event before the mutex: a client that finds the mutex (made by this listener) then
        // finds the event too, even while the listener is still setting up.
        if (!connected_event_.valid()) {
            const int made = connected_event_.create(event_name.c_str(), security_.connected_event.get());
            const DWORD err = GetLastError();
            // Without the event the accept loop sees its clients through the pair's own state.
            if (made == -2 && !existing_object_trusted(event_name, connected_event_.get())) connected_event_.close();
            if (made == -1 && err == ERROR_ACCESS_DENIED) (void)existing_object_trusted(event_name, nullptr);
        }
        const bool inherit = false;
        // A mutex made before this listener (a second listener under the same name, or a client
        // that still held the mutex of a listener that was killed) is opened and held: without a
        // handle of ours it would vanish with the last client's, and no client could connect.
        if (connecting_mutex_.create(mutex_name.c_str(), &inherit, security_.connecting_mutex.get()) == -2) {
            NV_LOG("mcl::ipc_peer::setup", "The connecting mutex (\"%s_MTX_CONNECTING\") already exists, made before this listener",
                   base.c_str());
            const mswin::unique_kernel_handle existing(OpenMutexA(READ_CONTROL, FALSE, mutex_name.c_str()));
            if (existing_object_trusted(mutex_name, existing.get())) (void)connecting_mutex_.open(mutex_name.c_str());
        }
        if (!pair_event_.valid()) (void)pair_event_.create_unnamed(/*manual_reset=*/true, /*initially_set=*/false);
    }
    const bool started = start();
    start_io_threads();
    return started;
}

void ipc_peer::listen() { serve_until(nullptr); }

void ipc_peer::serve_until(HANDLE stop) {
    const std::string pipe_path = std::string(ipc_channel::pipe_prefix) + name_;
    (void)setup(/*listening=*/true);
    check_pipe_name(pipe_path);
    bool need_pair = true;
    bool first_pair = true;  // made only where no other process has an instance of the name
    DWORD retry_ms = accept_retry_first_ms;
    share_ptr<ipc_connection> waiting;  // the pair made for the next client
    signal_ledger signals;
    ULONGLONG half_since = 0;       // when `waiting` was first seen taken in part
    ULONGLONG signal_deadline = 0;  // after a signal no taken pair accounts for: `waiting` is settled then
    for (;;) {
        DWORD timeout = unsignalled_check_ms;
        if (need_pair) {
            if (waiting) waiting->watch(nullptr);
            pair_event_.reset();
            waiting = new_listen_connection(pipe_path.c_str(), first_pair, pair_event_.get());
            half_since = 0;
            signal_deadline = 0;
            if (waiting) {
                first_pair = false;
                need_pair = false;
                retry_ms = accept_retry_first_ms;
            } else {
                // Without a waiting pair no client can come: try again later, waiting twice as
                // long after each failure.
                timeout = retry_ms;
                retry_ms = retry_ms * 2 > accept_retry_last_ms ? accept_retry_last_ms : retry_ms * 2;
            }
        }
        const ULONGLONG now = GetTickCount64();
        timeout = (std::min)(timeout, signals.log_silent(now));
        HANDLE client = nullptr;  // the process holding one pipe of `waiting`
        if (!need_pair) {
            pair_event_.reset();  // before looking: a change after it sets the event again
            // A signal no pair has accounted for by its deadline accounts for none later.
            if (signal_deadline != 0 && now >= signal_deadline) signals.forget_early();
            const pair_verdict verdict = examine(*waiting, now, half_since, signal_deadline);
            if (verdict == pair_verdict::taken) {
                // Served from now on: the next client gets the next pair at once, whether this
                // one signals or not, and its signal (when it comes) is matched to it.
                if (connected_event_.valid()) signals.pair_taken(now);
                need_pair = true;
                continue;
            }
            if (verdict == pair_verdict::settle) {
                signals.forget_early();
                if (!settle(waiting, stop)) break;
                need_pair = true;
                continue;
            }
            if (half_since != 0) {
                client = waiting->first_client();
                timeout = (std::min)(timeout, remaining_ms(now, half_since + half_taken_ms));
            }
            if (signal_deadline != 0) timeout = (std::min)(timeout, remaining_ms(now, signal_deadline));
        }
        HANDLE handles[4];
        DWORD count = 0;
        if (stop != nullptr) handles[count++] = stop;
        const bool wait_connected = !need_pair && connected_event_.valid();
        if (wait_connected) handles[count++] = connected_event_.get();
        const DWORD connected_index = WAIT_OBJECT_0 + count - 1;
        if (!need_pair && pair_event_.valid()) handles[count++] = pair_event_.get();
        if (client != nullptr) handles[count++] = client;
        const DWORD r = count == 0 ? SleepEx(timeout, TRUE)
                                   : WaitForMultipleObjectsEx(count, handles, FALSE, timeout, TRUE);
        if (stop != nullptr && r == WAIT_OBJECT_0) break;
        if (r == WAIT_FAILED) {
            const DWORD err = GetLastError();
            NV_LOG("mcl::ipc_peer::serve_until",
                   "Failed to WaitForMultipleObjects when listening incoming ipc connections , error: [%d:%s]",
                   static_cast<int>(err), error_text(err).c_str());
            Sleep(accept_retry_first_ms);  // never spin on a broken wait
            continue;
        }
        if (wait_connected && r == connected_index) {
            connected_event_.reset();
            // A signal that no pair taken before accounts for comes from a client that took
            // what it could of the waiting pair, or nothing: whatever it holds alone is closed
            // soon, unless the pair is seen taken whole first (its I/O threads are behind).
            if (!signals.signalled() && signal_deadline == 0) signal_deadline = GetTickCount64() + signal_grace_ms;
            continue;
        }
        // The pair's state changed, its lone client ended, or a deadline came: the next pass
        // looks at the pair again.
    }
    if (waiting) waiting->watch(nullptr);
    waiting = share_ptr<ipc_connection>();
    shutdown();
}

ipc_peer::pair_verdict ipc_peer::examine(ipc_connection& pair, ULONGLONG now, ULONGLONG& half_since,
                                         ULONGLONG& signal_deadline) {
    const auto state = pair.state();
    if (state == ipc_connection::pair_state::verified) return pair_verdict::taken;
    if (state == ipc_connection::pair_state::ended) return pair_verdict::settle;
    // Both halves connected and no verdict yet: it follows at once on an I/O thread.
    const bool half = pair.reader().connected() != pair.writer().connected();
    if (!half) {
        half_since = 0;
        // A signal whose client took nothing: there is nothing to close.
        if (signal_deadline != 0 && now >= signal_deadline) signal_deadline = 0;
        return pair_verdict::wait;
    }
    if (half_since == 0) half_since = now;
    const HANDLE client = pair.first_client();
    // The client holding one pipe ended: the pair can never be whole.
    if (pair.first_client_gone() || (client != nullptr && WaitForSingleObject(client, 0) == WAIT_OBJECT_0))
        return pair_verdict::settle;
    if (signal_deadline != 0 && now >= signal_deadline) return pair_verdict::settle;
    if (now - half_since >= half_taken_ms) {
        NV_LOG("mcl::ipc_peer::serve_until",
               "A client holds one pipe of the waiting pair without the other and did not signal, end the pair");
        return pair_verdict::settle;
    }
    return pair_verdict::wait;
}

bool ipc_peer::settle(share_ptr<ipc_connection>& waiting, HANDLE stop) {
    share_ptr<ipc_connection> pair;
    pair.swap(waiting);
    if (!pair) return true;
    // The I/O threads own the pipes: they decide at once and close what ends, each its half.
    pair->request_settle();
    const ULONGLONG deadline = GetTickCount64() + settle_wait_ms;
    struct unwatch {
        ipc_connection* pair;
        ~unwatch() { pair->watch(nullptr); }
    } const unwatch_on_return{pair.get()};
    if (!pair_event_.valid()) return true;  // nothing to wait on: the pair settles on its own
    for (;;) {
        pair_event_.reset();
        const auto state = pair->state();
        if (state == ipc_connection::pair_state::verified) return true;
        if (state == ipc_connection::pair_state::ended && pair->halves_closed()) return true;
        const ULONGLONG now = GetTickCount64();
        if (now >= deadline) {
            NV_LOG("mcl::ipc_peer::settle", "The waiting pair was not settled within %u ms, make the next pair",
                   static_cast<unsigned>(settle_wait_ms));
            return true;
        }
        HANDLE handles[2] = {pair_event_.get(), stop};
        const DWORD r = WaitForMultipleObjects(stop != nullptr ? 2 : 1, handles, FALSE, static_cast<DWORD>(deadline - now));
        if (r == WAIT_OBJECT_0 + 1) return false;
        if (r == WAIT_FAILED) Sleep(accept_retry_first_ms);  // never spin on a broken wait
    }
}

void ipc_peer::check_pipe_name(const std::string& pipe_path) {
    bool taken = false;
    for (const char* suffix : {"_INBOND", "_OUTBOUND"}) {
        const std::string name = pipe_path + suffix;
        HANDLE h = CreateFileA(name.c_str(), FILE_READ_ATTRIBUTES, /*share=*/0, nullptr, OPEN_EXISTING, 0, nullptr);
        const DWORD err = h == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
        if (err == ERROR_FILE_NOT_FOUND || err == ERROR_PATH_NOT_FOUND) continue;
        taken = true;
        ULONG server = 0;
        if (h != INVALID_HANDLE_VALUE) {
            if (!GetNamedPipeServerProcessId(h, &server)) server = 0;
            CloseHandle(h);
        }
        // Busy instances do not say whose they are.
        NV_LOG("mcl::ipc_peer::check_pipe_name",
               "The named pipe (\"%s\") already exists, made by process %lu (%s): its clients may reach that process "
               "instead of this one",
               name.c_str(), static_cast<unsigned long>(server),
               server != 0 ? ipc_connection::process_image(server).c_str() : "unknown");
    }
    if (!taken)
        NV_LOG("mcl::ipc_peer::check_pipe_name", "The named pipe (\"%s\") has no other instance: this listener is the first",
               pipe_path.c_str());
}

bool ipc_peer::existing_object_trusted(const std::string&, HANDLE) { return true; }

share_ptr<ipc_connection> ipc_peer::new_listen_connection(const char* pipe_path, bool first_instance, HANDLE watcher) {
    share_ptr<ipc_connection> connection;
    // An allocation failure is one more failed pair: the accept loop tries again later.
    if (!guarded("mcl::ipc_peer::new_listen_connection", "Making a listening connection", [&] {
            connection = share_ptr<ipc_connection>(new ipc_connection(ipc_connection::listen_type, security_.pipes.get()));
        }))
        return {};
    connection->watch(watcher);
    const bool ok = connection->reader().create(pipe_path, first_instance) &&
                    connection->writer().create(pipe_path, first_instance) &&
                    connection->reader().listen() && connection->writer().listen();
    if (!ok) {
        NV_LOG("mcl::ipc_peer::new_listen_connection", "Failed to setup listener connection");
        return {};
    }
    scoped_lock guard(list_lock_);
    add_connection_locked(connection);
    refresh();
    return connection;
}

void ipc_peer::add_connection_locked(const share_ptr<ipc_connection>& connection) {
    uint32_t group = 0;
    while (group < group_sizes_.size() && group_sizes_[group] >= connections_per_wait) ++group;
    if (group == group_sizes_.size()) group_sizes_.push_back(0);
    ++group_sizes_[group];
    connection->wait_group = group;
    connections_.push_back(connection);
    while (read_threads_.size() <= group) {
        const auto index = static_cast<uint32_t>(read_threads_.size());
        read_threads_.emplace_back(new msg_read_thread(this, index));
        write_threads_.emplace_back(new msg_write_thread(this, index));
    }
    read_threads_[group]->start();
    write_threads_[group]->start();
}

void ipc_peer::disconnect(share_ptr<ipc_connection> connection) {
    std::vector<share_ptr<ipc_connection>> released;
    {
        scoped_lock guard(list_lock_);
        disconnect_locked(connection, released);
    }
    // `released` goes here, after the lock: closing a connection never holds up the others.
}

bool ipc_peer::lock_list_unless(HANDLE stop) {
    while (!list_lock_.try_lock()) {
        if (WaitForSingleObject(stop, 1) == WAIT_OBJECT_0) return false;
    }
    return true;
}

void ipc_peer::disconnect_locked(const share_ptr<ipc_connection>& connection,
                                 std::vector<share_ptr<ipc_connection>>& released) {
    const auto it = std::find(connections_.begin(), connections_.end(), connection);
    if (it != connections_.end()) {
        {
            scoped_lock handlers(reply_handler_lock_);
            erase_connection(reply_handlers_, connection.get());
        }
        std::map<table_key, response_slot> slots;
        AcquireSRWLockExclusive(&response_lock_);
        auto first = responses_.lower_bound({connection.get(), 0});
        auto last = first;
        while (last != responses_.end() && last->first.first == connection.get()) ++last;
        // A send waiting on it sees its entry gone. The slots' references go after the locks.
        for (auto slot = first; slot != last; ++slot) released.push_back(std::move(slot->second.connection));
        responses_.erase(first, last);
        ReleaseSRWLockExclusive(&response_lock_);
        WakeAllConditionVariable(&response_changed_);
        // Behind every frame the connection sent: its read half is closed, or it is no longer read.
        if (handler_ != nullptr) post_event(ipc_event{connection, binary_t(), handler_, budget_hold(), true, {}});
        const uint32_t group = connection->wait_group;
        if (group < group_sizes_.size() && group_sizes_[group] > 0) --group_sizes_[group];
        released.push_back(std::move(*it));
        connections_.erase(it);
    }
    refresh();
}

void ipc_peer::close() {
    // The threads stop while no lock is held: a handler inside disconnect or post gets the
    // list lock and returns, so the event thread leaves on its own.
    SetEvent(stop_event());
    stop_io_threads();
    stop(thread_stop_seconds);

    std::vector<share_ptr<ipc_connection>> released;
    std::map<table_key, response_slot> responses;
    {
        scoped_lock guard(list_lock_);
        released.swap(connections_);
        group_sizes_.clear();
        {
            scoped_lock handlers(reply_handler_lock_);
            reply_handlers_.clear();
        }
        AcquireSRWLockExclusive(&response_lock_);
        responses.swap(responses_);
        ReleaseSRWLockExclusive(&response_lock_);
        WakeAllConditionVariable(&response_changed_);
        {
            scoped_lock sequence(sequence_lock_);
            sequence_ = 0;
        }
    }
    refresh();
    // The connections close here, after every lock.
}

void ipc_peer::shutdown() {
    close();
    connected_event_.close();
    (void)connecting_mutex_.release();
    connecting_mutex_.close();
}

void ipc_peer::refresh() {
    scoped_lock guard(list_lock_);
    for (auto& t : read_threads_) t->wake();
    for (auto& t : write_threads_) t->wake();
}

void ipc_peer::start_io_threads() {
    scoped_lock guard(list_lock_);
    if (read_threads_.empty()) {
        read_threads_.emplace_back(new msg_read_thread(this, 0));
        write_threads_.emplace_back(new msg_write_thread(this, 0));
    }
    for (size_t group = 0; group < read_threads_.size(); ++group) {
        if (group != 0 && (group >= group_sizes_.size() || group_sizes_[group] == 0)) continue;
        read_threads_[group]->start();
        write_threads_[group]->start();
    }
}

void ipc_peer::stop_io_threads() {
    // Signal every thread first so that none waits for the others' time-outs.
    for (auto& t : write_threads_) SetEvent(t->stop_event());
    for (auto& t : read_threads_) SetEvent(t->stop_event());
    for (auto& t : write_threads_) t->stop(thread_stop_seconds);
    for (auto& t : read_threads_) t->stop(thread_stop_seconds);
}

bool ipc_peer::group_connections(uint32_t group, HANDLE stop, std::vector<share_ptr<ipc_connection>>& members) {
    members.clear();
    if (!lock_list_unless(stop)) return false;
    for (const auto& c : connections_)
        if (c->wait_group == group) members.push_back(c);
    list_lock_.unlock();
    return true;
}

// ---------------------------------------------------------------------------------------------
// I/O threads

ipc_peer::msg_io_thread::msg_io_thread(ipc_peer* peer, uint32_t group) : peer_(peer), group_(group) {
    refresh_event_.create_unnamed(/*manual_reset=*/true, /*initially_set=*/false);
}

ipc_peer::msg_io_thread::~msg_io_thread() { msg_io_thread::stop(thread_stop_seconds); }

void ipc_peer::msg_io_thread::stop(uint32_t seconds) {
    // The thread never waits in a synchronous pipe call, but a cancel costs nothing.
    const DWORD id = thread_id_.load();
    if (id != 0 && id != GetCurrentThreadId()) {
        HANDLE h = OpenThread(THREAD_TERMINATE, FALSE, id);
        if (h != nullptr) {
            CancelSynchronousIo(h);
            CloseHandle(h);
        }
    }
    thread::stop(seconds);
}

DWORD ipc_peer::msg_io_thread::run() {
    thread_id_ = GetCurrentThreadId();
    std::vector<share_ptr<ipc_connection>> members;
    std::vector<HANDLE> handles;
    bool rebuild = true;
    for (;;) {
        if (rebuild) {
            refresh_event_.reset();  // before the snapshot, so a later change signals again
            if (!peer_->group_connections(group_, stop_event(), members)) break;
            handles.assign({stop_event(), refresh_event_.get()});
            for (auto& c : members) handles.push_back(channel_event(*c));
            rebuild = false;
        }
        const DWORD r = WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, INFINITE);
        if (r == WAIT_OBJECT_0) break;
        const DWORD index = r - WAIT_OBJECT_0;
        if (r == WAIT_FAILED || index == 1 || index >= handles.size()) {
            if (r == WAIT_FAILED) Sleep(10);  // never spin on a broken wait
            rebuild = true;
            continue;
        }
        share_ptr<ipc_connection> connection = members[index - 2];
        bool alive = false;
        // An exception (an allocation failure included) ends this connection, not the thread.
        if (!connection->ended())
            (void)guarded("mcl::ipc_peer::msg_io_thread::run", "Serving a connection", [&] { alive = serve(connection); });
        // Looked at again after serving: the other half may have ended the pair meanwhile, and
        // serving resets this half's event (nothing left to write, nothing more to read), which
        // swallows the wake-up that end_pair gave. The pair's state is set before that wake-up.
        if (alive && !connection->ended()) continue;
        // The connection ends: each I/O thread closes its own half at once, so that no later
        // client can open a listening pipe whose pair is gone; end_pair wakes the other half's
        // thread, and the last of the two takes the connection out of the list.
        connection->end_pair();
        const bool both_closed = close_half(*connection);
        ResetEvent(channel_event(*connection));  // a closed half has nothing more to say
        if (!both_closed) continue;
        if (!peer_->lock_list_unless(stop_event())) break;
        std::vector<share_ptr<ipc_connection>> released;
        peer_->disconnect_locked(connection, released);
        peer_->list_lock_.unlock();
        released.clear();
        rebuild = true;
    }
    thread_id_ = 0;
    return 0;
}

ipc_peer::msg_read_thread::~msg_read_thread() { msg_read_thread::stop(thread_stop_seconds); }

HANDLE ipc_peer::msg_read_thread::channel_event(ipc_connection& connection) {
    return connection.reader().event_handle();
}

bool ipc_peer::msg_read_thread::close_half(ipc_connection& connection) {
    connection.reader().close();
    return connection.half_closed(ipc_channel::read_direction);
}

bool ipc_peer::msg_read_thread::serve(share_ptr<ipc_connection>& connection) {
    frames_.clear();
    if (!connection->reader().read(frames_)) return false;
    for (auto& frame : frames_) {
        if (!peer_->receive(connection, std::move(frame))) return false;
    }
    frames_.clear();
    return true;
}

ipc_peer::msg_write_thread::~msg_write_thread() { msg_write_thread::stop(thread_stop_seconds); }

HANDLE ipc_peer::msg_write_thread::channel_event(ipc_connection& connection) {
    return connection.writer().event_handle();
}

bool ipc_peer::msg_write_thread::close_half(ipc_connection& connection) {
    connection.writer().close();
    return connection.half_closed(ipc_channel::write_direction);
}

bool ipc_peer::msg_write_thread::serve(share_ptr<ipc_connection>& connection) {
    if (connection->writer().complete_write()) return true;
    if (connection->ended()) return false;  // ended meanwhile on the other half: nothing failed here
    NV_LOG("mcl::ipc_peer::msg_write_thread::run", "ipc channel write failed, abort the ipc connection.");
    return false;
}

}  // namespace mcl
