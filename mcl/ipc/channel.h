// One IPC connection: a pair of one-way named pipes opened for overlapped I/O.
//
// The listening end creates "<path>_INBOND" (it reads) and "<path>_OUTBOUND" (it writes); the
// connecting end opens them the other way round. Every channel has one manual-reset event,
// which is also the event of its OVERLAPPED: the peer's read thread waits on read-channel
// events, its write thread on write-channel events, and each call does what the pipe allows now
// and leaves one overlapped operation pending for the rest. No call blocks on the pipe.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/event.h"
#include "mcl/ipc/frame.h"
#include "mcl/lock.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/share_ptr.h"

namespace mcl {

class ipc_connection;

class ipc_channel {
public:
    enum direction_type : uint32_t { read_direction = 0, write_direction = 1 };
    // Every pipe path starts with this; the endpoint name follows.
    static constexpr const char* pipe_prefix = "\\\\.\\pipe\\";
    static constexpr DWORD pipe_buffer_size = 4096;
    static constexpr DWORD pipe_default_timeout_ms = 5000;
    static constexpr DWORD busy_wait_ms = 30000;
    // What the connecting end asks of each pipe. Writing leaves out FILE_APPEND_DATA, which on
    // a pipe is FILE_CREATE_PIPE_INSTANCE: a listener may grant its clients writing without
    // letting them make instances of its pipes.
    static constexpr DWORD client_read_access = GENERIC_READ;
    static constexpr DWORD client_write_access = (FILE_GENERIC_WRITE & ~FILE_APPEND_DATA) | FILE_READ_ATTRIBUTES;

    ipc_channel(direction_type direction, ipc_connection* owner);
    ipc_channel(const ipc_channel&) = delete;
    ipc_channel& operator=(const ipc_channel&) = delete;
    virtual ~ipc_channel();

    // Listening end: creates the pipe instance, refusing callers from other machines; with
    // `first_instance`, only if no instance of the name exists yet (where the system checks
    // that). Connecting end: opens the pipe, waiting up to 30 s on the name while every
    // instance is busy, and sets the channel event so that the I/O thread runs the channel
    // once. Closes a pipe already open first. Logs its failures.
    virtual bool create(const char* pipe_path, bool first_instance = false);
    // Disconnects (listening end), cancels pending I/O and waits for the cancel, closes the
    // pipe. Never waits on the other end: unread bytes are dropped. Safe on a closed channel.
    // Not while the I/O thread uses the channel.
    virtual void close();
    // Listening end: starts the overlapped connect on the created pipe.
    virtual bool listen();

    HANDLE event_handle() const { return event_.get(); }
    // Makes the channel's I/O thread run the channel once. Any thread.
    bool wake() const { return event_.set(); }
    bool is_open() const { return pipe_ != nullptr; }
    HANDLE pipe_handle() const { return pipe_; }
    bool connected() const { return connected_; }
    // What the last create asked CreateNamedPipe (listening end) or CreateFile (connecting end:
    // its flags) for; 0 before. The system does not report every flag back on the handle.
    DWORD requested_open_mode() const { return requested_open_mode_; }
    DWORD requested_pipe_mode() const { return requested_pipe_mode_; }

protected:
    // Takes the finished connect (listening end) off the OVERLAPPED. True when it completed
    // (connected is then set) or there was none; false while the client has not come yet.
    // The I/O thread only.
    bool finish_connect();
    // Listening end, the I/O thread: once this half's client has come, whether the I/O may
    // start: true when both pipes of the connection are held by one client; false with `alive`
    // false when the connection is to end, or with `alive` true while the other half waits for
    // its client (the I/O thread is woken when that changes). Always true on the connecting end.
    bool paired(bool& alive);
    // Listening end, the I/O thread, while the client has not come: true (logged) when the
    // accept loop asked the pair to settle, so that this free half ends now.
    bool settle_due() const;

    direction_type direction_;
    HANDLE pipe_ = nullptr;
    OVERLAPPED overlapped_{};
    mcl::event event_;
    std::atomic<bool> connected_{false};
    bool paired_ = false;      // the pair was verified: I/O may run (the I/O thread only)
    bool io_pending_ = false;  // an overlapped operation (connect, read or write) is outstanding
    DWORD requested_open_mode_ = 0;
    DWORD requested_pipe_mode_ = 0;
    ipc_connection* owner_;
};

class ipc_read_channel : public ipc_channel {
public:
    // `owner` is constructed as far as its budget: the received bytes count in its share.
    explicit ipc_read_channel(ipc_connection* owner);
    ~ipc_read_channel() override;

    // Collects what the pipe has (up to read_share_bytes), leaves a read pending and cuts the
    // whole frames received so far into `frames` (emptied first). False means the connection is
    // dead (broken pipe, a failed read, an over-long announced frame). The read thread only.
    bool read(std::vector<binary_t>& frames);

    // Bytes one read call takes from the pipe before it cuts them and returns, its event left set
    // so that the read thread comes back: a client that writes as fast as it is read piles
    // nothing up here and holds up no other connection of the thread.
    static constexpr uint32_t read_share_bytes = 1024 * 1024;

private:
    bool collect_pending_result();
    void take_read(uint32_t n);

    frame_cutter cutter_;
    unsigned char block_[pipe_buffer_size];
    bool reading_into_tail_ = false;  // the last ReadFile targets the cutter, not the block
};

class ipc_write_channel : public ipc_channel {
public:
    explicit ipc_write_channel(ipc_connection* owner) : ipc_channel(write_direction, owner) {}
    ~ipc_write_channel() override;

    // Bytes a connection may have waiting behind the frame being written before it is ended:
    // a client that does not read its replies does not make the service hold them.
    static constexpr uint64_t max_queued_bytes = 16u * 1024 * 1024;

    // Queues a whole frame and wakes the write thread. Any thread; frames never interleave.
    // When the frame would pass max_queued_bytes or the connection's budget, nothing is queued and
    // the write thread ends the connection (with a log line); false then, and also once the
    // pipe is closed.
    bool enqueue(const binary_t& frame);
    // As above, taking over the frame's storage when nothing else is queued.
    bool enqueue(binary_t&& frame);
    // Writes as much as the pipe takes now and leaves the rest pending. False means the
    // connection is dead. The write thread only.
    bool complete_write();

    // Closes the pipe under the write lock, drops what is queued and gives its bytes back to
    // the budget; enqueue refuses from then on. The write thread, or once no other thread uses
    // the channel.
    void close() override;

private:
    // Moves queued bytes into the in-flight buffer when it has been written out.
    void take_queue_locked();
    // Counts `n` more queued bytes; false (and the channel marked overflowed) when refused.
    bool charge_locked(uint32_t n);
    // Logs that the client does not read what is queued for it; false, ending the connection.
    bool end_overflowed();

    mcl::lock write_lock_;  // guards the queue, which buffer is which, and the connected transition
    binary_t buffers_[2];   // one is the queue that enqueue grows, the other is in flight
    int queue_index_ = 0;
    uint32_t in_flight_offset_ = 0;  // bytes of the in-flight buffer already written
    uint64_t charged_ = 0;           // bytes of both buffers counted in the process budget
    std::atomic<bool> overflowed_{false};
};

// A counted pair of channels. Always held through share_ptr<ipc_connection>.
class ipc_connection : public share_obj {
public:
    enum connection_type : uint32_t { connect_type = 0, listen_type = 1 };

    // Whether both pipes of a listening connection are held by one client. A connecting end
    // opened both itself and starts verified.
    enum class pair_state : int { waiting, verified, ended };

    // `pipe_security` (copied; null for a NULL DACL) is the descriptor of the pipes a listening
    // end creates.
    explicit ipc_connection(connection_type type, PSECURITY_DESCRIPTOR pipe_security = nullptr);
    ~ipc_connection() override;

    // Creates or opens both pipes (read channel first); false when either fails.
    bool open(const char* pipe_path);

    // What this connection makes the process hold (its partly received frames, queued events,
    // stored replies and write queue): its share of the process budget. Any thread.
    byte_budget& budget() { return budget_; }
    // Set by the read thread once it has logged a reply nobody waited for: later ones are
    // dropped without a line. The read thread only.
    bool unrequested_reply_logged = false;

    connection_type type() const { return type_; }
    PSECURITY_DESCRIPTOR security_descriptor() const {
        return pipe_security_.empty() ? security_.get() : pipe_security_.get();
    }
    ipc_read_channel& reader() { return reader_; }
    ipc_write_channel& writer() { return writer_; }
    bool enqueue(const binary_t& frame) { return writer_.enqueue(frame); }
    bool enqueue(binary_t&& frame) { return writer_.enqueue(std::move(frame)); }

    // Which of the peer's wait groups serves this connection; set by the peer under its
    // connection-list lock.
    uint32_t wait_group = 0;

    // Listening end: the client's process id, a handle to that process and its image path,
    // learnt when the client has opened the read pipe (0, null and empty before, or when the
    // system would not tell). The handle (query and SYNCHRONIZE rights) is held until the
    // connection goes, so the id cannot name another process meanwhile; the image is read through
    // it. The read thread sets them before it reads the first frame; handlers may read them.
    DWORD client_process_id() const { return client_process_id_; }
    HANDLE client_process() const { return client_process_.get(); }
    const std::string& client_image() const { return client_image_; }
    // Connecting end: the process serving both pipes; 0 (logged) when the system will not tell
    // or two processes serve them. Any thread.
    DWORD server_process_id() const;
    // Asks the system who is on the other end of the read pipe and opens that process. The read
    // thread only.
    void learn_client();
    // The image path of a process, empty when the system will not tell.
    static std::string process_image(DWORD pid);

    // Listening end, the I/O thread of `half`, once that half's client has come. When both
    // halves have come, compares the client processes of the two pipes: the same process
    // verifies the pair; two processes, or one the system will not tell, end it (logged), so
    // that no frame of one client is read or written on a pipe another client holds. The first
    // half's client process is opened, so that the accept loop learns at once when it ends.
    pair_state half_connected(ipc_channel::direction_type half);
    pair_state state() const { return state_.load(); }
    bool ended() const { return state_.load() == pair_state::ended; }
    // Listening end, once the first half's client has come: that process (SYNCHRONIZE), which
    // is signalled when it ends; null before, or when the system would not tell. Any thread;
    // valid while the connection lives.
    HANDLE first_client() const { return first_client_.load(); }
    // True when the first half's client had already ended when it was looked for.
    bool first_client_gone() const { return first_client_gone_.load(); }
    // Ends the pair and wakes both I/O threads, which then close their halves. Any thread.
    void end_pair();
    // The accept loop: asks the I/O threads to decide now; a half whose client has not come
    // ends the pair. Any thread.
    void request_settle();
    bool settle_requested() const { return settle_requested_.load(); }
    // The I/O thread of `half`, after it closed its channel: true exactly once, for the call
    // that found both halves closed.
    bool half_closed(ipc_channel::direction_type half);
    bool halves_closed() const { return closed_halves_.load() == 3; }
    // The event to set whenever the pair is verified or ended and when a half is closed: the
    // accept loop's, for the pair it waits on; null once it stops watching. Any thread.
    void watch(HANDLE event) { watcher_.store(event); }

private:
    connection_type type_;
    byte_budget budget_;  // before the channels, which count in it
    ipc_read_channel reader_;
    ipc_write_channel writer_;
    mswin::unique_local<PSECURITY_DESCRIPTOR> security_;  // NULL-DACL descriptor, or null for default security
    mswin::security_descriptor pipe_security_;            // the owner's descriptor, when it gave one
    DWORD client_process_id_ = 0;
    mswin::unique_kernel_handle client_process_;
    std::string client_image_;

    mcl::lock pair_lock_;  // guards the pair's verdict and the halves connected
    std::atomic<pair_state> state_{pair_state::waiting};
    unsigned connected_halves_ = 0;  // bit per direction, under pair_lock_
    std::atomic<unsigned> closed_halves_{0};
    std::atomic<bool> settle_requested_{false};
    std::atomic<HANDLE> watcher_{nullptr};
    mswin::unique_kernel_handle first_client_process_;  // set once, under pair_lock_
    std::atomic<HANDLE> first_client_{nullptr};
    std::atomic<bool> first_client_gone_{false};
    void notify_watcher() const;
    void open_first_client(ipc_channel::direction_type half);
};

}  // namespace mcl
