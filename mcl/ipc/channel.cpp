#include "mcl/ipc/channel.h"

#include <string>

#include "mcl/error_text.h"
#include "mcl/log.h"
#include "mcl/mswin/process.h"

namespace mcl {

namespace {

// Suffix of the pipe a channel uses, by connection type and direction.
const char* pipe_suffix(ipc_connection::connection_type type, ipc_channel::direction_type direction) {
    static const char* const suffixes[2][2] = {
        /*connect*/ {"_OUTBOUND", "_INBOND"},
        /*listen*/ {"_INBOND", "_OUTBOUND"},
    };
    return suffixes[type == ipc_connection::listen_type ? 1 : 0][direction];
}

}  // namespace

ipc_channel::ipc_channel(direction_type direction, ipc_connection* owner) : direction_(direction), owner_(owner) {
    event_.create_unnamed(/*manual_reset=*/true, /*initially_set=*/false);
    overlapped_.hEvent = event_.get();
}

ipc_channel::~ipc_channel() { ipc_channel::close(); }

bool ipc_channel::create(const char* pipe_path, bool first_instance) {
    if (pipe_path == nullptr || owner_ == nullptr) {
        NV_LOG("mcl::ipc_channel::create", "Failed to create ipc channel, invalid parameters");
        return false;
    }
    if (pipe_ != nullptr) close();
    const ipc_connection::connection_type type = owner_->type();
    if (type != ipc_connection::listen_type && type != ipc_connection::connect_type) {
        NV_LOG("mcl::ipc_channel::create", "Failed to create ipc channel, invalid connection type");
        return false;
    }
    const std::string name = std::string(pipe_path) + pipe_suffix(type, direction_);

    if (type == ipc_connection::listen_type) {
        SECURITY_ATTRIBUTES sa{};
        sa.nLength = sizeof(sa);
        sa.lpSecurityDescriptor = owner_->security_descriptor();
        sa.bInheritHandle = FALSE;  // no child process gets the service's end of a pipe
        const DWORD access = direction_ == read_direction ? PIPE_ACCESS_INBOUND : PIPE_ACCESS_OUTBOUND;
        // Only local callers: the service has nothing to say to other machines.
        requested_open_mode_ = access | FILE_FLAG_OVERLAPPED | (first_instance ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0);
        requested_pipe_mode_ = PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS;
        HANDLE h = CreateNamedPipeA(name.c_str(), requested_open_mode_, requested_pipe_mode_,
                                    /*max_instances=*/PIPE_UNLIMITED_INSTANCES, /*out_buffer=*/pipe_buffer_size,
                                    /*in_buffer=*/pipe_buffer_size, /*default_timeout=*/pipe_default_timeout_ms, &sa);
        if (h == INVALID_HANDLE_VALUE) {
            const DWORD err = GetLastError();
            NV_LOG("mcl::ipc_channel::create", "Failed to create the named pipe (\"%s\"), error: [%d:%s]", name.c_str(),
                   static_cast<int>(err), error_text(err).c_str());
            return false;
        }
        pipe_ = h;
        return true;
    }

    const DWORD access = direction_ == read_direction ? client_read_access : client_write_access;
    // Whoever serves the pipe may learn who this client is, never act as it.
    requested_open_mode_ = FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    for (;;) {
        HANDLE h = CreateFileA(name.c_str(), access, /*share=*/0, nullptr, OPEN_EXISTING, requested_open_mode_, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            pipe_ = h;
            // The set event makes the I/O thread run the channel once at once.
            connected_ = event_.set();
            return true;
        }
        const DWORD err = GetLastError();
        if (err == ERROR_PIPE_BUSY) {
            if (WaitNamedPipeA(name.c_str(), busy_wait_ms)) continue;
            NV_LOG("mcl::ipc_channel::create", "Could not open the named pipe (\"%s\"): 30 seconds wait timed out.",
                   name.c_str());
            return false;
        }
        NV_LOG("mcl::ipc_channel::create", "Failed to open the named pipe (\"%s\"), error [%d:%s]", name.c_str(),
               static_cast<int>(err), error_text(err).c_str());
        return false;
    }
}

bool ipc_channel::listen() {
    if (ConnectNamedPipe(pipe_, &overlapped_)) {
        NV_LOG("mcl::ipc_channel::listen", "Failed to connect the named pipe, error: [%d:%s]", 0, error_text(0).c_str());
        return false;
    }
    const DWORD err = GetLastError();
    switch (err) {
    case ERROR_IO_PENDING:
        io_pending_ = true;
        return true;
    case ERROR_PIPE_CONNECTED:
        // The client got in first: no completion will signal, so signal now.
        if (event_.set()) {
            connected_ = true;
            if (direction_ == read_direction && owner_ != nullptr) owner_->learn_client();
            return true;
        }
        break;
    default:
        break;
    }
    const DWORD code = err == ERROR_PIPE_CONNECTED ? GetLastError() : err;
    NV_LOG("mcl::ipc_channel::listen", "Failed to connect the named pipe, error: [%d:%s]", static_cast<int>(code),
           error_text(code).c_str());
    return false;
}

bool ipc_channel::paired(bool& alive) {
    alive = true;
    if (paired_) return true;
    if (owner_ == nullptr) return paired_ = true;
    // Reset before asking: a verdict reached on the other half's thread after this sets it again.
    event_.reset();
    switch (owner_->half_connected(direction_)) {
    case ipc_connection::pair_state::verified:
        return paired_ = true;
    case ipc_connection::pair_state::ended:
        alive = false;
        return false;
    case ipc_connection::pair_state::waiting:
        break;
    }
    return false;
}

bool ipc_channel::settle_due() const {
    if (owner_ == nullptr || owner_->type() != ipc_connection::listen_type || !owner_->settle_requested()) return false;
    NV_LOG("mcl::ipc_channel::settle_due", "The \"%s\" pipe of the waiting pair has no client, end the pair",
           pipe_suffix(owner_->type(), direction_));
    owner_->end_pair();
    return true;
}

bool ipc_channel::finish_connect() {
    if (connected_) return true;
    if (!io_pending_) {
        connected_ = true;
        if (direction_ == read_direction && owner_ != nullptr && owner_->type() == ipc_connection::listen_type)
            owner_->learn_client();
        return true;
    }
    // Reset before asking, so that a connect completing in between signals again.
    event_.reset();
    DWORD n = 0;
    if (!GetOverlappedResult(pipe_, &overlapped_, &n, FALSE) && GetLastError() == ERROR_IO_INCOMPLETE) return false;
    // A failed connect shows itself in the first read or write.
    io_pending_ = false;
    connected_ = true;
    if (direction_ == read_direction && owner_ != nullptr && owner_->type() == ipc_connection::listen_type)
        owner_->learn_client();
    return true;
}

void ipc_channel::close() {
    if (pipe_ == nullptr) return;
    // No flush: it waits until the other end has read everything, which a client that never
    // reads never does. Bytes still queued go with the connection.
    if (owner_ != nullptr && owner_->type() == ipc_connection::listen_type) DisconnectNamedPipe(pipe_);
    if (io_pending_) {
        CancelIoEx(pipe_, nullptr);
        DWORD n = 0;
        // The OVERLAPPED and the buffers of the cancelled operation must outlive it.
        (void)GetOverlappedResult(pipe_, &overlapped_, &n, TRUE);
        io_pending_ = false;
    }
    CloseHandle(pipe_);
    pipe_ = nullptr;
    connected_ = false;
    overlapped_ = OVERLAPPED{};
    overlapped_.hEvent = event_.get();
    event_.reset();
}

// ---------------------------------------------------------------------------------------------

ipc_read_channel::ipc_read_channel(ipc_connection* owner)
    : ipc_channel(read_direction, owner), cutter_(&owner->budget()) {}

ipc_read_channel::~ipc_read_channel() { ipc_channel::close(); }

void ipc_read_channel::take_read(uint32_t n) {
    if (reading_into_tail_) {
        cutter_.commit(n);
    } else {
        (void)cutter_.append(block_, n);  // a refusal shows in the next cut
    }
}

bool ipc_read_channel::collect_pending_result() {
    // Reset before asking: a wake-up while the read is under way would otherwise leave the event
    // set and the read thread spinning; a completion after this sets it again.
    event_.reset();
    DWORD n = 0;
    if (GetOverlappedResult(pipe_, &overlapped_, &n, FALSE)) {
        io_pending_ = false;
        take_read(n);
        return true;
    }
    const DWORD err = GetLastError();
    if (err == ERROR_IO_INCOMPLETE) return true;  // woken early; the read is still under way
    io_pending_ = false;
    if (err == ERROR_BROKEN_PIPE) return false;  // the other end closed: the normal end
    NV_LOG("mcl::ipc_read_channel::read", "Failed to read from channel, error in overlap result: [%d:%s]",
           static_cast<int>(err), error_text(err).c_str());
    return false;
}

bool ipc_read_channel::read(std::vector<binary_t>& frames) {
    frames.clear();
    if (pipe_ == nullptr) return false;
    if (!connected_ && !finish_connect()) return !settle_due();
    bool alive = true;
    if (!paired(alive)) return alive;  // no read starts before both pipes are known to be one client's
    if (io_pending_) {
        if (!collect_pending_result()) return false;
        if (io_pending_) return true;
    }

    uint64_t taken = 0;
    for (;;) {
        // The rest of a large frame goes straight to its place; everything else through the
        // read block.
        uint32_t room = 0;
        unsigned char* tail = cutter_.frame_tail(sizeof(block_), room);
        reading_into_tail_ = tail != nullptr;
        DWORD n = 0;
        if (ReadFile(pipe_, reading_into_tail_ ? tail : block_, reading_into_tail_ ? room : sizeof(block_), &n,
                     &overlapped_)) {
            if (n == 0) {
                NV_LOG("mcl::ipc_read_channel::read", "Failed to read from channel, return zero data");
                return false;
            }
            take_read(n);
            if (cutter_.over_budget()) break;
            taken += n;
            if (taken >= read_share_bytes) {
                event_.set();
                break;
            }
            continue;
        }
        const DWORD err = GetLastError();
        if (err == ERROR_IO_PENDING) {
            io_pending_ = true;
            break;
        }
        NV_LOG("mcl::ipc_read_channel::read", "Failed to read from channel, error: [%d:%s]", static_cast<int>(err),
               error_text(err).c_str());
        return false;
    }

    switch (cutter_.cut(frames)) {
    case frame_cutter::result::ok:
        return true;
    case frame_cutter::result::too_long:
        NV_LOG("mcl::ipc_read_channel::read", "Failed to read from channel, announced frame length %u exceeds the limit %u",
               cutter_.rejected_length(), max_frame_payload);
        return false;
    case frame_cutter::result::over_budget:
        NV_LOG("mcl::ipc_read_channel::read",
               "Failed to read from channel, %u bytes received would pass the receive budget of %u MiB (%u MiB for one "
               "connection), end the connection",
               cutter_.pending(), static_cast<unsigned>(byte_budget::process().limit() >> 20),
               static_cast<unsigned>(owner_->budget().limit() >> 20));
        return false;
    }
    return false;
}

// ---------------------------------------------------------------------------------------------

ipc_write_channel::~ipc_write_channel() { ipc_write_channel::close(); }

void ipc_write_channel::close() {
    // Under the lock: enqueue sees the pipe gone and queues nothing more.
    scoped_lock guard(write_lock_);
    ipc_channel::close();
    buffers_[0].release_storage();
    buffers_[1].release_storage();
    queue_index_ = 0;
    in_flight_offset_ = 0;
    owner_->budget().give(charged_);
    charged_ = 0;
}

bool ipc_write_channel::charge_locked(uint32_t n) {
    // One frame alone may always wait, however large: the bound is on what piles up behind it.
    const uint64_t waiting = charged_ - in_flight_offset_;
    if (overflowed_ || (waiting > 0 && waiting + n > max_queued_bytes) || !owner_->budget().take(n)) {
        if (!overflowed_.exchange(true)) event_.set();  // the write thread ends the connection
        return false;
    }
    charged_ += n;
    return true;
}

bool ipc_write_channel::enqueue(const binary_t& frame) {
    scoped_lock guard(write_lock_);
    if (pipe_ == nullptr) return false;
    if (!charge_locked(frame.size())) return false;
    buffers_[queue_index_].append(frame);
    event_.set();
    return true;
}

bool ipc_write_channel::enqueue(binary_t&& frame) {
    scoped_lock guard(write_lock_);
    if (pipe_ == nullptr) return false;
    if (!charge_locked(frame.size())) return false;
    binary_t& queue = buffers_[queue_index_];
    if (queue.empty()) {
        queue = std::move(frame);
    } else {
        queue.append(frame);
    }
    event_.set();
    return true;
}

void ipc_write_channel::take_queue_locked() {
    binary_t& in_flight = buffers_[queue_index_ ^ 1];
    if (in_flight_offset_ < in_flight.size()) return;
    owner_->budget().give(in_flight.size());
    charged_ -= in_flight.size();
    in_flight.clear();
    in_flight_offset_ = 0;
    queue_index_ ^= 1;  // the queue becomes the bytes in flight; enqueue now grows the other
}

bool ipc_write_channel::complete_write() {
    if (pipe_ == nullptr) return false;
    // Reset before the overflow check: an overflow flagged after it sets the event again, so
    // the wake-up that reports it is never lost while a write waits on a client that never reads.
    if (connected_ && io_pending_) event_.reset();  // a completion after this sets it again
    if (overflowed_) return end_overflowed();
    if (!connected_) {
        scoped_lock guard(write_lock_);
        if (!finish_connect()) return !settle_due();
    }
    bool alive = true;
    if (!paired(alive)) return alive;  // nothing is written before both pipes are known to be one client's
    if (io_pending_) {
        DWORD n = 0;
        if (!GetOverlappedResult(pipe_, &overlapped_, &n, FALSE)) {
            const DWORD err = GetLastError();
            if (err == ERROR_IO_INCOMPLETE) return true;  // woken by enqueue; the write goes on
            io_pending_ = false;
            NV_LOG("mcl::ipc_write_channel::complete_write", "Failed to write to channel, error in overlap result: [%d:%s]",
                   static_cast<int>(err), error_text(err).c_str());
            return false;
        }
        io_pending_ = false;
        if (n == 0) {
            NV_LOG("mcl::ipc_write_channel::complete_write", "Failed to write to channel, error in overlap result: [%d:%s]",
                   0, error_text(0).c_str());
            return false;
        }
        in_flight_offset_ += n;
    }

    for (;;) {
        binary_t* in_flight = nullptr;
        {
            scoped_lock guard(write_lock_);
            take_queue_locked();
            in_flight = &buffers_[queue_index_ ^ 1];
            if (in_flight_offset_ >= in_flight->size()) {
                // Nothing left: sleep until the next enqueue. Under the lock, where overflows
                // are flagged, so no wake-up is lost.
                if (overflowed_) break;
                event_.reset();
                return true;
            }
        }
        // The in-flight buffer belongs to this thread until it is written out; enqueue only
        // touches the other one.
        const DWORD remaining = in_flight->size() - in_flight_offset_;
        DWORD n = 0;
        if (WriteFile(pipe_, in_flight->data() + in_flight_offset_, remaining, &n, &overlapped_) && n > 0) {
            in_flight_offset_ += n;
            continue;
        }
        const DWORD err = GetLastError();
        if (err == ERROR_IO_PENDING) {
            io_pending_ = true;
            return true;
        }
        NV_LOG("mcl::ipc_write_channel::complete_write", "Failed to write to channel, error: [%d:%s]", static_cast<int>(err),
               error_text(err).c_str());
        return false;
    }
    return end_overflowed();
}

bool ipc_write_channel::end_overflowed() {
    NV_LOG("mcl::ipc_write_channel::complete_write",
           "The other end does not read: %u bytes wait to be written, end the connection",
           static_cast<unsigned>(charged_ - in_flight_offset_));
    return false;
}

// ---------------------------------------------------------------------------------------------

ipc_connection::ipc_connection(connection_type type, PSECURITY_DESCRIPTOR pipe_security)
    : type_(type), budget_(byte_budget::connection_share(), &byte_budget::process()), reader_(this), writer_(this),
      pipe_security_(pipe_security) {
    if (pipe_security_.empty()) security_ = make_null_dacl_descriptor();  // null: the pipes get default security
    if (type == connect_type) state_ = pair_state::verified;  // this end opened both pipes itself
}

ipc_connection::~ipc_connection() {
    reader_.close();
    writer_.close();
}

bool ipc_connection::open(const char* pipe_path) { return reader_.create(pipe_path) && writer_.create(pipe_path); }

DWORD ipc_connection::server_process_id() const {
    ULONG reads = 0;   // the server writing into "_OUTBOUND", whose frames this end reads
    ULONG writes = 0;  // the server reading "_INBOND", which gets this end's requests
    if (!reader_.is_open() || !writer_.is_open() || !GetNamedPipeServerProcessId(reader_.pipe_handle(), &reads) ||
        !GetNamedPipeServerProcessId(writer_.pipe_handle(), &writes)) {
        const DWORD err = GetLastError();
        NV_LOG("mcl::ipc_connection::server_process_id",
               "Failed to get the server process ids of the pipes of a connection, error: [%d:%s]",
               static_cast<int>(err), error_text(err).c_str());
        return 0;
    }
    if (reads != writes) {
        NV_LOG("mcl::ipc_connection::server_process_id",
               "The pipes of a connection are served by two processes (%lu writes \"_OUTBOUND\", %lu reads \"_INBOND\")",
               static_cast<unsigned long>(reads), static_cast<unsigned long>(writes));
        return 0;
    }
    return reads;
}

void ipc_connection::learn_client() {
    ULONG pid = 0;
    if (!reader_.is_open() || !GetNamedPipeClientProcessId(reader_.pipe_handle(), &pid)) {
        const DWORD err = GetLastError();
        NV_LOG("mcl::ipc_connection::learn_client", "Failed to get the client process id of the pipe, error: [%d:%s]",
               static_cast<int>(err), error_text(err).c_str());
        return;
    }
    client_process_id_ = pid;
    // Limited query rights where the system has them, full query rights on older systems.
    client_process_.reset(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid));
    if (!client_process_) client_process_.reset(OpenProcess(PROCESS_QUERY_INFORMATION | SYNCHRONIZE, FALSE, pid));
    client_image_.clear();
    if (!client_process_ || !mcl::mswin::query_process_image(client_process_.get(), client_image_, MAX_PATH * 2)) {
        const DWORD err = GetLastError();
        client_image_.clear();
        NV_LOG("mcl::ipc_connection::learn_client", "Failed to open the client process %lu, error: [%d:%s]",
               static_cast<unsigned long>(pid), static_cast<int>(err), error_text(err).c_str());
    }
}

std::string ipc_connection::process_image(DWORD pid) {
    // Empty when gone already, or not ours to look at: the id must do.
    return mcl::mswin::process_image(pid, /*capacity=*/MAX_PATH * 2);
}

ipc_connection::pair_state ipc_connection::half_connected(ipc_channel::direction_type half) {
    scoped_lock guard(pair_lock_);
    if (state_ != pair_state::waiting) return state_;
    connected_halves_ |= 1u << half;
    if (connected_halves_ != 3) {
        open_first_client(half);
        notify_watcher();
        return pair_state::waiting;
    }
    // Both pipes are open here: a channel is closed only after its pair has ended.
    ULONG reads = 0;   // the client writing into "_INBOND", whose frames this end reads
    ULONG writes = 0;  // the client reading "_OUTBOUND", which gets this end's replies
    DWORD err = ERROR_SUCCESS;
    if (!GetNamedPipeClientProcessId(reader_.pipe_handle(), &reads) ||
        !GetNamedPipeClientProcessId(writer_.pipe_handle(), &writes))
        err = GetLastError();
    if (err != ERROR_SUCCESS) {
        NV_LOG("mcl::ipc_connection::half_connected",
               "Failed to get the client process ids of the pipes of a connection, error: [%d:%s], end the connection",
               static_cast<int>(err), error_text(err).c_str());
    } else if (reads != writes) {
        NV_LOG("mcl::ipc_connection::half_connected",
               "The pipes of a connection are held by two processes (%lu writes \"_INBOND\", %lu reads \"_OUTBOUND\"), "
               "end the connection",
               static_cast<unsigned long>(reads), static_cast<unsigned long>(writes));
    }
    state_ = err == ERROR_SUCCESS && reads == writes ? pair_state::verified : pair_state::ended;
    notify_watcher();
    // The other half's thread waits for this verdict; this thread goes on by itself.
    (half == ipc_channel::read_direction ? static_cast<ipc_channel&>(writer_) : reader_).wake();
    return state_;
}

void ipc_connection::open_first_client(ipc_channel::direction_type half) {
    if (first_client_process_) return;
    const ipc_channel& channel = half == ipc_channel::read_direction ? static_cast<const ipc_channel&>(reader_) : writer_;
    ULONG pid = 0;
    // Without it the accept loop falls back on its own checks.
    if (!channel.is_open() || !GetNamedPipeClientProcessId(channel.pipe_handle(), &pid) || pid == 0) return;
    first_client_process_.reset(OpenProcess(SYNCHRONIZE, FALSE, pid));
    if (!first_client_process_) {
        first_client_gone_ = GetLastError() == ERROR_INVALID_PARAMETER;  // no process has that id now
        return;
    }
    first_client_ = first_client_process_.get();
}

void ipc_connection::end_pair() {
    {
        scoped_lock guard(pair_lock_);
        if (state_ == pair_state::ended) return;
        state_ = pair_state::ended;
    }
    notify_watcher();
    reader_.wake();
    writer_.wake();
}

void ipc_connection::request_settle() {
    settle_requested_ = true;
    if (state_.load() != pair_state::waiting) return;
    reader_.wake();
    writer_.wake();
}

bool ipc_connection::half_closed(ipc_channel::direction_type half) {
    const unsigned bit = 1u << half;
    const unsigned before = closed_halves_.fetch_or(bit);
    if ((before & bit) != 0) return false;
    notify_watcher();
    return (before | bit) == 3;
}

void ipc_connection::notify_watcher() const {
    // The watcher's event outlives the I/O threads, the only callers; a late set wakes the
    // accept loop once for nothing.
    HANDLE event = watcher_.load();
    if (event != nullptr) SetEvent(event);
}

}  // namespace mcl
