// What the VQRMonitor stand-in remembers: its feature switches, its rule lists, the volumes it
// is attached to, and a journal of every message in the order it arrived. Plain C++ with no
// lock of its own: the simulator calls it under its one state lock.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "protocol/driver_protocol.h"

namespace vqr::sim {

enum class port_kind { command, notify };


// The filter's instances as its service key lists them ("Instances": "DefaultInstance" and one
// subkey per instance with "Altitude" and "Flags").
struct instance_config {
    std::wstring name;
    std::wstring altitude;
    uint32_t flags = 0;
};
struct instances_config {
    std::wstring default_instance;
    std::vector<instance_config> instances;
};
// What the installer writes; used while the service key has no "Instances".
instances_config default_instances();

class driver_state {
public:
    driver_state() { reset(); }

    // Checks, journals and applies one message that FilterSendMessage delivered on
    // `connection`. Returns hr_ok or, for a refused message, hr_invalid_parameter.
    int32_t handle_message(uint64_t connection, port_kind port, const uint8_t* data, size_t size);

    // FilterAttach / FilterDetach / FilterLoad / FilterUnload, recorded in filter_calls. A NULL
    // instance name is the configured default instance; an instance name must be configured,
    // and a volume takes each name and each altitude once.
    int32_t attach(const std::wstring& filter, const std::wstring& volume, const std::wstring& instance,
                   std::wstring& created_instance);
    int32_t detach(const std::wstring& filter, const std::wstring& volume, const std::wstring& instance);
    int32_t load(const std::wstring& filter);
    int32_t unload(const std::wstring& filter);

    // Unloading forgets every switch, rule and attachment (a driver keeps them in memory);
    // the journal and the counters stay.
    void set_loaded(bool loaded);
    bool loaded() const { return loaded_; }
    // Back to a freshly loaded driver with an empty journal and zero counters.
    void reset();

    // The instances that attach and detach use; default_instances() until set.
    void set_instances(instances_config config) { instances_ = std::move(config); }

    // Whether the driver sends the stop message when feature 16 goes off and when it unloads
    // (on after reset). Off, a waiting receiver sees its wait fail at unload or must cancel it.
    bool stop_message() const { return stop_message_; }
    void set_stop_message(bool on) { stop_message_ = on; }
    // Whether the next command-port message finds the driver going away (off after reset); true
    // once, when it does.
    void set_unload_on_send(bool on) { unload_on_send_ = on; }
    bool take_unload_on_send() { return std::exchange(unload_on_send_, false); }

    bool feature(uint32_t code) const;
    uint64_t next_message_id() { return ++last_message_id_; }
    void count_notification() { ++notifications_sent_; }

    std::string state_json(size_t command_connections, size_t notify_connections) const;
    std::string journal_json() const;

private:
    struct journal_entry {
        uint64_t sequence;
        uint64_t connection;
        port_kind port;
        message_check check;
        driver_message message;
        std::vector<uint8_t> bytes;
        int32_t hr;
    };
    struct filter_call {
        std::string call;
        std::wstring volume;
        std::wstring instance;
        int32_t hr;
    };

    void apply(const driver_message& m);
    void forget_rules();

    bool loaded_ = true;
    std::map<uint32_t, bool> features_;
    std::vector<std::wstring> process_rules_;
    std::vector<std::wstring> trusted_apps_;
    std::vector<std::wstring> folder_rules_;
    std::vector<std::wstring> blocking_rules_;
    std::vector<std::wstring> registry_rules_;
    std::wstring svc_mgr_path_;
    struct attached {
        std::wstring volume;
        std::wstring instance;
        std::wstring altitude;
    };
    std::vector<attached> volumes_;  // in attach order
    instances_config instances_ = default_instances();
    bool stop_message_ = true;
    bool unload_on_send_ = false;
    std::vector<journal_entry> journal_;
    std::vector<filter_call> filter_calls_;
    uint64_t malformed_ = 0;
    uint64_t notifications_sent_ = 0;
    uint64_t last_message_id_ = 0;
};

}  // namespace vqr::sim
