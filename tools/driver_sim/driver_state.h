// What the VQRMonitor stand-in remembers: its feature switches, its rule lists, the volumes it
// is attached to, and a journal of every message in the order it arrived. Plain C++ with no
// lock of its own: the simulator calls it under its one state lock.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "service/driver_protocol.h"

namespace vqr::sim {

enum class port_kind { command, notify };

// Filter Manager HRESULTs the stand-in answers besides those of driver_protocol.h.
inline constexpr int32_t hr_filter_not_found = static_cast<int32_t>(0x801F0013);
inline constexpr int32_t hr_instance_not_found = static_cast<int32_t>(0x801F0015);
inline constexpr int32_t hr_already_loaded = static_cast<int32_t>(0x80070420);
inline constexpr wchar_t default_instance_name[] = L"VQRMonitor - Top Instance";

class driver_state {
public:
    driver_state() { reset(); }

    // Checks, journals and applies one message that FilterSendMessage delivered on
    // `connection`. Returns hr_ok or, for a refused message, hr_invalid_parameter.
    int32_t handle_message(uint64_t connection, port_kind port, const uint8_t* data, size_t size);

    // FilterAttach / FilterDetach / FilterLoad / FilterUnload, recorded in filter_calls.
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
    std::map<std::wstring, std::wstring> volumes_;  // volume -> instance name
    std::vector<journal_entry> journal_;
    std::vector<filter_call> filter_calls_;
    uint64_t malformed_ = 0;
    uint64_t notifications_sent_ = 0;
    uint64_t last_message_id_ = 0;
};

}  // namespace vqr::sim
