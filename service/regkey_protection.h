// Registry key protection: what a client asks for, what the service keeps per protected key and
// how both look on the wire and in the registry, the DACL step shared by every protect, and the
// component that owns the table of protected keys.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/lock.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/requests.h"

using reg_key_entry = protocol::reg_key_entry;

// What the service keeps per protected key; persisted in this field order.
struct reg_key_record {
    std::string original_dacl;  // SDDL of the key's DACL before protection
    std::string current_dacl;   // SDDL after protection
    uint32_t root = 0;          // low 32 bits of the entry's root
    std::wstring path;
    std::string owner;
    std::vector<std::string> services;
    uint32_t level = 0;
    // Not persisted: the key's kernel path, learnt while the key still had its original DACL, so
    // the driver rule can be removed even when the protected DACL no longer lets us read the key.
    std::wstring kernel_path;
};

namespace regkey {

// HKEY_LOCAL_MACHINE as the 32-bit value records keep.
constexpr uint32_t hklm_root = 0x80000002;
constexpr DWORD service_full_access = 0x101f003f;
constexpr BYTE service_ace_flags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
// Registry limits: one key name, and a whole path below its root.
constexpr size_t max_key_name = 255;
constexpr size_t max_key_path = 32767;

// The mask other accounts keep at `level`: 0 none, 2 write, any other value read.
DWORD others_mask(uint32_t level);
// A record's 32-bit root widened the way clients send it (HKLM -> 18446744071562067970).
uint64_t widen_root(uint32_t root);
// "\\<decimal root>\<path with A-Z lowered>": the name of a protected key in memory.
std::wstring key_text(uint64_t root, const std::wstring& path);
// The predefined root a sign-extended 64-bit value stands for, or null.
HKEY predefined_root(uint64_t root);
// False, with the reason in `why`, for a path no registry key can have.
bool valid_key_path(const std::wstring& path, std::string& why);

[[nodiscard]] bool read_record(reg_key_record& record, const mcl::binary_t& in, uint32_t& pos);
void write_record(mcl::binary_t& out, const reg_key_record& record);

// The key's DACL and every subkey's, key first, then each subkey's subtree: a key whose DACL
// lets us list its subkeys only once it is restored still gets them all restored. Results of
// the subkeys are ignored; the result is that of the key itself.
bool restore_key_tree(HKEY root, const std::string& path, const std::string& sddl);

// A subkey whose DACL differs from the key's own: its path below the key and its DACL's SDDL.
struct subkey_dacl {
    std::string path;
    std::string sddl;
};
// The subkeys of root\path (at any depth) whose DACL is not `key_sddl`; false when the tree holds
// more than a record can keep, or a subkey's DACL cannot be read.
bool differing_subkeys(HKEY root, const std::string& path, const std::string& key_sddl,
                       std::vector<subkey_dacl>& out);
// False only when root\path does not exist (a key we may not open is still there).
bool key_present(HKEY root, const std::string& path);

}  // namespace regkey

// The DACL step of a protect. Stateless; runs on whichever thread protects.
class regProtector {
public:
    // Called once the key exists and its original DACL is known, right before the protected
    // DACL is written; `original` is that DACL's SDDL, `key` the key open for reading (null when
    // it could not be). False leaves the DACL as it is.
    using before_write_fn = std::function<bool(const std::string& original, HKEY key)>;

    // Rebuilds the DACL of root\path (created when missing) so that `services` get full access
    // and everyone else at most the mask of `level`, on the key and every subkey. `original`
    // and `current` receive the SDDL before and after. The result is that of the DACL write.
    // `applied`: the SDDL that an earlier protect of the key left (its record's current DACL), or
    // empty. A key without subkeys that still holds exactly that, and whose rebuilt DACL is the
    // one it holds, is not written again (the write would change nothing): `current` is then
    // `original`, and the result true.
    static bool protect(HKEY root, const std::string& path, const std::vector<std::string>& services,
                        uint32_t level, std::string& original, std::string& current,
                        const before_write_fn& before_write = before_write_fn(),
                        const std::string& applied = std::string());

    // Test seam: when set, called between `before_write` and the DACL write. Null in the product.
    static void (*dacl_write_seam)(HKEY root, const std::string& path);

private:
    static bool protect_impl(HKEY root, const std::string& path, const std::vector<std::string>& services,
                             DWORD others, std::string& original, std::string& current,
                             const before_write_fn& before_write, const std::string& applied);
};

// What the key protection needs from the driver's command port.
class reg_key_driver {
public:
    virtual ~reg_key_driver() = default;
    // A connection of its own to the command port; invalid (the failure logged) when the driver
    // cannot be reached.
    virtual mcl::mswin::unique_kernel_handle open_port() = 0;
    // Code 12 (13 when removing) with a key's \REGISTRY\MACHINE\... path; an empty path with
    // `remove` removes every key rule. A refusal is logged.
    virtual void send_key_rule(HANDLE port, const std::wstring& kernel_path, bool remove) = 0;
    // The text of a Filter Manager or Win32 HRESULT for log lines.
    virtual std::wstring error_text(HRESULT hr) = 0;
};

// The protected registry keys: owns their table, applies the rules a client sends, loads the
// persisted ones at start-up and gives every key its DACL back at shutdown.
// Threads: a client's rules are applied on a request worker, one request at a time (the
// dispatcher orders them, and the protection switch, by one key), while the IPC event thread
// lists the table; start-up and shutdown run on the service thread with no request running.
// The table has its own lock, held only while it is read or written, never across a DACL walk,
// a registry write or a driver message.
class reg_key_protection {
public:
    // `enabled` is the registry protection switch; both outlive this object.
    reg_key_protection(reg_key_driver& driver, const std::atomic<bool>& enabled) : driver_(driver), enabled_(enabled) {}
    reg_key_protection(const reg_key_protection&) = delete;
    reg_key_protection& operator=(const reg_key_protection&) = delete;

    // The service's own persistence keys under HKEY_LOCAL_MACHINE, protected at every start.
    static const char* const own_reg_keys[6];

    // Protects or unprotects each entry in order; an empty first path with action 0 lifts every
    // key rule. False when any entry failed; `not_applied` then names each key left unprotected
    // because its original DACL could not be recorded.
    bool handle_protect_reg_keys(const std::vector<reg_key_entry>& entries, std::string* not_applied = nullptr);
    // DACL step, then (with `persist`) the persisted record, then driver code 12. True when the
    // driver rule was sent; `record` is filled either way. With `persist`, a record that cannot
    // be written before the DACL changes leaves the key as it is and sends no rule: false, and
    // `unrecorded` set. The rule goes through `port` when given (a loop over many keys connects
    // once), else through a connection of its own. `applied`: as regProtector::protect's (the
    // start-up passes each persisted record's current DACL).
    bool protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist,
                       bool* unrecorded = nullptr, HANDLE port = nullptr,
                       const std::string& applied = std::string());
    // Driver code 13, the original DACL written back, the persisted value deleted. False (and
    // nothing changed) without a driver connection.
    bool unprotectRegKey(const reg_key_record& record);
    // Driver code 13 with an empty path, every key's original DACL back, the table emptied; the
    // persisted records stay for the next start.
    void stopProtectingRegKeys();
    // Writes every protected key's original DACL back; records and persisted values stay.
    void restoreAllRegKeys();
    // Writes (add) or deletes the record's persisted value; nothing (and true) for an empty path.
    bool persistRegKeyRecord(const reg_key_record& record, bool add);
    // Start-up: protects every persisted key again, then each own key that was not among them.
    void loadProtectedRegKeys();
    // Shutdown: unprotects each own key that is protected, dropping its record.
    void unprotectOwnRegKeys();

    // Key text ("\\<root>\<lowered path>") -> record: a copy of the table as it stands.
    std::map<std::wstring, reg_key_record> protected_reg_keys() const;

private:
    // The key's original DACL on its whole tree, then each recorded subkey's own; the result is
    // that of the key itself.
    static bool give_back(const reg_key_record& record);
    // Removes the record's persisted value and its subkeys' value.
    bool forget(const reg_key_record& record);
    // Driver code 13 with an empty text on a connection of its own: every key rule goes.
    void drop_all_driver_rules();

    reg_key_driver& driver_;
    const std::atomic<bool>& enabled_;
    // The record of `text` copied out, when the table holds one.
    bool listed(const std::wstring& text, reg_key_record& record) const;
    void list(const std::wstring& text, reg_key_record&& record);
    void unlist(const std::wstring& text);

    mutable mcl::lock lock_;
    std::map<std::wstring, reg_key_record> protected_reg_keys_;  // lock_
};
