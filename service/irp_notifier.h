// IRP-denied notifications: the receiver thread on the driver's notification port, the volume
// map that turns device paths into drive-letter paths, the subscribers' events, and the
// subscription and notification tables (service/irp_tables.h) under their lock.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "mcl/lock.h"
#include "mcl/thread.h"
#include "service/irp_tables.h"

// Owns the receiver thread and every table of the notifications.
// Threads: the receiver thread runs handleIrpMessage and owns the volume map, the image
// descriptions and its sequence counter (no lock); the IPC event thread subscribes and collects.
// irp_lock_ guards the subscription table, the store and the pending index (irp_tables_), and
// every operation here that touches them takes it.
class irp_notifier {
public:
    // Waits on the notification port and hands every message to handleIrpMessage. Started at
    // start-up after feature 16 went on, stopped at shutdown after it went off; a stop cancels
    // the pending wait at once.
    class irp_notification_receiver : public mcl::thread {
    public:
        explicit irp_notification_receiver(irp_notifier* owner) : owner_(owner) {}
        ~irp_notification_receiver() override { stop(10); }
        DWORD run() override;

    private:
        DWORD receive();
        bool handle(const uint8_t* data, size_t size);
        irp_notifier* owner_;
        uint64_t sequence_ = 0;  // starts at 0 at every start
    };

    // Where the receiver takes "now" (FILETIME units, UTC) from; GetSystemTimeAsFileTime unless
    // replaced. Set it before the receiver starts.
    using irp_clock_fn = uint64_t (*)();
    static uint64_t irpSystemTime();

    irp_notifier() = default;
    irp_notifier(const irp_notifier&) = delete;
    irp_notifier& operator=(const irp_notifier&) = delete;

    void setIrpClock(irp_clock_fn now) { irp_clock_ = now; }

    // The receiver's start (false when the thread could not be created) and stop (limit in
    // seconds). Service thread.
    [[nodiscard]] bool start() { return irp_receiver_.start(); }
    void stop(uint32_t seconds) { irp_receiver_.stop(seconds); }

    // Rebuilds the map from volume device name to mount path. Receiver thread.
    void RefreshVolumeToDeviceMap();
    // The drive-letter form (UTF-8) of a device-form path; empty when no volume matches.
    // Receiver thread.
    std::string device_to_dos_path(const std::wstring& devicePath) const;
    // One message as the driver delivered it (`size` bytes of the receive buffer); false when
    // it is the driver's stop message. `sequence` is the receiver's counter. Receiver thread;
    // takes irp_lock_.
    bool handleIrpMessage(const uint8_t* data, size_t size, uint64_t& sequence);

    // A decoded subscribe request: adds or removes the subscription (an empty file path means
    // every file; the path is lower-cased). False when nothing changed, the subscriber or event
    // name is empty, or the table is full. IPC event thread; takes irp_lock_.
    // `request.holder` is the requesting connection, which holds the subscription from then on.
    bool subscribe(irp::subscribe_request request);
    // The pending records of `subscriber`, in pending order; its pending list is emptied. A
    // non-null `holder` (the requesting connection) holds the subscription from then on.
    // IPC event thread; takes irp_lock_.
    std::vector<irp::record> collect(const std::string& subscriber, const void* holder = nullptr);
    // The connection `holder` has ended: the subscriptions it held end 300 seconds later unless
    // their subscriber comes back meanwhile. IPC event thread; takes irp_lock_.
    void connection_ended(const void* holder);

private:
    void handleIrpDenied(const irp::message& m, uint64_t now, uint64_t& sequence);
    void clearIrpStore();
    // Ends the subscriptions whose connection has been gone for 300 seconds. Caller holds irp_lock_.
    void end_released_locked(uint64_t now);
    // The image path of a process and that file's description; both stay empty when the
    // process cannot be read. Receiver thread.
    void readProcessImage(uint32_t pid, std::string& image, std::string& image_description);

    static constexpr size_t max_image_descriptions = 256;
    std::map<std::string, std::pair<uint64_t, std::string>> image_descriptions_;  // path -> (written, text); receiver
    mcl::lock irp_lock_;
    irp::tables irp_tables_;                                // under irp_lock_
    std::map<std::wstring, std::string> volume_to_device_;  // \device\...\ -> mount path; receiver thread
    irp_clock_fn irp_clock_ = &irp_notifier::irpSystemTime;
    irp_notification_receiver irp_receiver_{this};  // last: stopped before the tables go
};
