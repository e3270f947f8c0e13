// What the service and the VQRMonitor minifilter exchange: port and filter names, the command
// and feature codes, the command and feature-switch messages, and the notification that the
// driver sends when it denies an I/O request. The service's driver link, the driver stand-in
// (tools/fltlib, tools/driver_sim) and the tests all build and read messages with this header.
//
// Plain C++: all integers are little-endian and the layouts have no padding. Texts are UTF-16;
// on Windows a std::wstring holds them unit for unit (elsewhere only the low 16 bits of each
// wchar_t are kept, which is enough for the native fuzz and sanitizer builds).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "mcl/endian.h"
#include "protocol/driver_hresults.h"

namespace vqr {

// Filter Manager names.
inline constexpr wchar_t command_port_name[] = L"\\VQRMonitorPort";
inline constexpr wchar_t notify_port_name[] = L"\\VQRMIRPNotifyPort";
inline constexpr wchar_t filter_name[] = L"VQRMonitor";
inline constexpr char filter_name_narrow[] = "VQRMonitor";

// Command and feature codes. Features carry an on/off byte, commands a text.
namespace code {
inline constexpr uint32_t feature_process_protection = 0;
inline constexpr uint32_t protect_process = 1;        // image path, drive-letter form
inline constexpr uint32_t unprotect_process = 2;      // same path; empty text = every rule
inline constexpr uint32_t trusted_app = 3;            // device-form path
inline constexpr uint32_t feature_skip_first_svcmgr_open = 5;
inline constexpr uint32_t feature_folder_protection = 6;
inline constexpr uint32_t protect_folder = 7;         // device-form folder path
inline constexpr uint32_t unprotect_folder = 8;       // same; empty text = every rule
inline constexpr uint32_t block_path = 9;             // device-form folder or file path
inline constexpr uint32_t unblock_path = 10;          // same
inline constexpr uint32_t feature_registry_protection = 11;
inline constexpr uint32_t protect_regkey = 12;        // \REGISTRY\MACHINE\... path
inline constexpr uint32_t unprotect_regkey = 13;      // same; empty text = every rule
inline constexpr uint32_t svcmgr_path = 15;           // device-form path of services.exe
inline constexpr uint32_t feature_irp_notify = 16;
}  // namespace code

inline bool is_feature_code(uint32_t c) {
    return c == code::feature_process_protection || c == code::feature_skip_first_svcmgr_open ||
           c == code::feature_folder_protection || c == code::feature_registry_protection ||
           c == code::feature_irp_notify;
}
inline bool is_command_code(uint32_t c) {
    return (c >= code::protect_process && c <= code::trusted_app) ||
           (c >= code::protect_folder && c <= code::unblock_path) || c == code::protect_regkey ||
           c == code::unprotect_regkey || c == code::svcmgr_path;
}
// Codes whose empty text removes every rule of their kind.
inline bool is_remove_all_code(uint32_t c) {
    return c == code::unprotect_process || c == code::unprotect_folder || c == code::unprotect_regkey;
}

// Command message: u32 code, u32 length = 2n + 2, n UTF-16 units and a 0000 unit.
inline constexpr size_t message_header_size = 8;
// Feature switch: u32 feature, u32 length 0, byte on.
inline constexpr size_t feature_message_size = 9;

inline size_t command_message_size(size_t text_units) { return 2 * text_units + 10; }

inline void put_u32(uint8_t* p, uint32_t v) { mcl::store_u32_le(p, v); }
inline uint32_t get_u32(const uint8_t* p) { return mcl::load_u32_le(p); }
inline void put_u64(uint8_t* p, uint64_t v) { mcl::store_u64_le(p, v); }
inline uint64_t get_u64(const uint8_t* p) { return mcl::load_u64_le(p); }

inline std::vector<uint8_t> build_command(uint32_t command, const std::wstring& text) {
    std::vector<uint8_t> out(command_message_size(text.size()), 0);
    put_u32(out.data(), command);
    put_u32(out.data() + 4, static_cast<uint32_t>(2 * text.size() + 2));
    for (size_t i = 0; i < text.size(); ++i) {
        const auto unit = static_cast<uint16_t>(text[i]);
        out[message_header_size + 2 * i] = static_cast<uint8_t>(unit);
        out[message_header_size + 2 * i + 1] = static_cast<uint8_t>(unit >> 8);
    }
    return out;  // the terminating unit is already zero
}

inline std::vector<uint8_t> build_feature(uint32_t feature, bool on) {
    std::vector<uint8_t> out(feature_message_size, 0);
    put_u32(out.data(), feature);
    out[8] = on ? 1 : 0;
    return out;
}

// Why a message was refused; `ok` for a well-formed one.
enum class message_check {
    ok,
    too_short,        // fewer than 8 bytes
    unknown_code,     // neither a command nor a feature code
    bad_size,         // a feature switch that is not 9 bytes, or an odd text size
    length_mismatch,  // the length field is not the size minus 8
    no_terminator,    // the text does not end with a 0000 unit
    bad_switch,       // a feature switch whose length is not 0 or whose byte is not 0 or 1
};

inline const char* message_check_name(message_check c) {
    switch (c) {
        case message_check::ok: return "ok";
        case message_check::too_short: return "too_short";
        case message_check::unknown_code: return "unknown_code";
        case message_check::bad_size: return "bad_size";
        case message_check::length_mismatch: return "length_mismatch";
        case message_check::no_terminator: return "no_terminator";
        case message_check::bad_switch: return "bad_switch";
    }
    return "?";
}

struct driver_message {
    uint32_t code = 0;
    bool feature = false;
    bool on = false;     // features only
    std::wstring text;   // commands only, without the terminator
};

// Checks and decodes one message as FilterSendMessage delivered it. `out.code` is set
// whenever at least 8 bytes arrived.
inline message_check parse_message(const uint8_t* data, size_t size, driver_message& out) {
    out = driver_message{};
    if (size < message_header_size) return message_check::too_short;
    out.code = get_u32(data);
    const uint32_t length = get_u32(data + 4);
    if (is_feature_code(out.code)) {
        out.feature = true;
        if (size != feature_message_size) return message_check::bad_size;
        if (length != 0 || data[8] > 1) return message_check::bad_switch;
        out.on = data[8] == 1;
        return message_check::ok;
    }
    if (!is_command_code(out.code)) return message_check::unknown_code;
    if (length != size - message_header_size) return message_check::length_mismatch;
    if (length < 2 || length % 2 != 0) return message_check::bad_size;
    const size_t units = length / 2 - 1;
    const uint8_t* text = data + message_header_size;
    if (text[2 * units] != 0 || text[2 * units + 1] != 0) return message_check::no_terminator;
    out.text.reserve(units);
    for (size_t i = 0; i < units; ++i)
        out.text.push_back(static_cast<wchar_t>(text[2 * i] | text[2 * i + 1] << 8));
    return message_check::ok;
}

// Notification as FilterGetMessage delivers it into a 552-byte buffer: the 16-byte
// FILTER_MESSAGE_HEADER (u32 reply length, 4 bytes, u64 message id), then the driver's body.
namespace notification {
inline constexpr size_t size = 552;
inline constexpr size_t header_size = 16;
inline constexpr size_t message_id_offset = 8;
inline constexpr size_t type_offset = 16;
inline constexpr size_t major_offset = 20;
inline constexpr size_t minor_offset = 21;
inline constexpr size_t pid_offset = 24;
inline constexpr size_t file_name_offset = 28;
inline constexpr size_t file_name_bytes = size - file_name_offset;     // 524
inline constexpr size_t max_file_name_chars = file_name_bytes / 2 - 1;  // 261, plus the terminator
inline constexpr uint32_t type_stop = 0;
inline constexpr uint32_t type_irp_denied = 1;
}  // namespace notification

struct irp_notification {
    uint64_t message_id = 0;
    uint32_t type = notification::type_irp_denied;
    uint8_t major_function = 0;
    uint8_t minor_function = 0;
    uint32_t process_id = 0;
    std::wstring file_name;  // device form, \Device\HarddiskVolumeN\...
};

// The whole 552-byte buffer, header included; false (out untouched) when the file name is
// longer than 261 characters.
inline bool build_notification(const irp_notification& n, std::vector<uint8_t>& out) {
    if (n.file_name.size() > notification::max_file_name_chars) return false;
    out.assign(notification::size, 0);
    put_u64(out.data() + notification::message_id_offset, n.message_id);
    put_u32(out.data() + notification::type_offset, n.type);
    out[notification::major_offset] = n.major_function;
    out[notification::minor_offset] = n.minor_function;
    put_u32(out.data() + notification::pid_offset, n.process_id);
    for (size_t i = 0; i < n.file_name.size(); ++i) {
        const auto unit = static_cast<uint16_t>(n.file_name[i]);
        out[notification::file_name_offset + 2 * i] = static_cast<uint8_t>(unit);
        out[notification::file_name_offset + 2 * i + 1] = static_cast<uint8_t>(unit >> 8);
    }
    return true;
}

// Reads a notification buffer as the receiver does; false when it is shorter than the fixed
// fields or the file name has no terminator inside it.
inline bool parse_notification(const uint8_t* data, size_t size, irp_notification& out) {
    out = irp_notification{};
    if (size < notification::file_name_offset + 2) return false;
    out.message_id = get_u64(data + notification::message_id_offset);
    out.type = get_u32(data + notification::type_offset);
    out.major_function = data[notification::major_offset];
    out.minor_function = data[notification::minor_offset];
    out.process_id = get_u32(data + notification::pid_offset);
    for (size_t pos = notification::file_name_offset; pos + 1 < size; pos += 2) {
        const auto unit = static_cast<uint16_t>(data[pos] | data[pos + 1] << 8);
        if (unit == 0) return true;
        out.file_name.push_back(static_cast<wchar_t>(unit));
    }
    return false;
}

}  // namespace vqr
