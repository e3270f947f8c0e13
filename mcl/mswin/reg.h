// Registry and key-security helpers: the one place where the service touches the registry.
//
// Free functions without state, safe on any thread. Names and paths are narrow (ANSI) strings.
// Functions without a root argument work under HKEY_LOCAL_MACHINE. Failures are a false (or
// empty) result and, where the caller cannot tell a normal absence from a fault, one log line.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin::reg {

// Opening, creating and deleting root\key through the wide calls: the ANSI ones stop at paths of
// MAX_PATH characters, and a protected key or a container path may be longer. The result is the
// registry's error code.
LONG open_key(HKEY root, const std::string& key, REGSAM access, unique_reg_key& handle);
LONG create_key(HKEY root, const std::string& key, REGSAM access, unique_reg_key& handle);
LONG delete_key(HKEY root, const std::string& key);

// Subkey names of root\key (names over 255 characters are skipped). True when any was found.
bool list_subkeys(HKEY root, const std::string& key, std::vector<std::string>& names);
// Value names of HKLM\key. True when any was found.
bool list_values(const std::string& key, std::vector<std::string>& names);
// The same for a key already open (with KEY_READ). The list ends at the first failure other
// than a name too long for the buffer, a key deleted meanwhile included (logged).
bool list_subkeys(HKEY key, std::vector<std::string>& names);
bool list_values(HKEY key, std::vector<std::string>& names);

// Calls `visit` with the path (key + "\\" + name) of each direct subkey of root\key, in order,
// until one returns false. True when every call returned true (also when there is none).
bool for_each_subkey(HKEY root, const std::string& key, const std::function<bool(const std::string&)>& visit);

// The data of HKLM\key\name, whatever its type and size. `data` is untouched on failure.
bool read_value(const std::string& key, const char* name, binary_t& data);
// The same from a key already open (with KEY_QUERY_VALUE): for many values of one key.
bool read_value(HKEY key, const char* name, binary_t& data);
// The first four bytes of the value.
bool read_dword(const std::string& key, const char* name, uint32_t& value);
// The text of a REG_SZ value, up to its first null (all of it when it has none).
bool read_string(const std::string& key, const char* name, std::string& value);
// The non-empty strings of a REG_MULTI_SZ value, appended to `values`.
bool read_string_list(const std::string& key, const char* name, std::vector<std::string>& values);

// Creates HKLM\key when missing and writes the value.
bool write_value(const std::string& key, const char* name, const void* data, DWORD size, DWORD type);
bool write_dword(const std::string& key, const char* name, uint32_t value);
bool write_string(const std::string& key, const char* name, const std::string& value);
bool write_string_list(const std::string& key, const char* name, const std::vector<std::string>& values);

// With a value name: deletes that value. Without (null): deletes the key and its whole subtree,
// deepest first, stopping at the first key that cannot be deleted.
bool remove(HKEY root, const std::string& key, const char* value_name);

// The key's DACL into `descriptor` (its dacl() may be null for a key with a null DACL). On
// failure `descriptor` is empty.
bool get_key_dacl_security(HKEY root, const std::string& key, security_descriptor& descriptor);
// The same through `handle`, open with READ_CONTROL; `key` names it in the log.
bool get_open_key_dacl(HKEY handle, const std::string& key, security_descriptor& descriptor);
// Writes `dacl` to every key of the subtree, deepest first. With `protect`, the DACL is marked
// protected so nothing is inherited. The result is that of the key itself; false, the key left
// as it was, when the calling thread is asked to stop (mcl::stop_requested) on the way.
bool set_key_dacl_security(HKEY root, const std::string& key, PACL dacl, bool protect);
// The same with the DACL of an SDDL text.
bool set_key_sddl_security_str(HKEY root, const std::string& key, const char* sddl);
// The kernel path of the key (\REGISTRY\MACHINE\...), or empty.
std::wstring get_full_path(HKEY root, const std::string& key);
// The same for a key already open.
std::wstring get_full_path(HKEY handle);

// Enables or disables one privilege of `token`. False when the token does not hold it. Its log
// lines name `log_fn`.
bool set_privilege(HANDLE token, const char* privilege, bool enable,
                   const char* log_fn = "mcl::mswin::reg::set_privilege");
// Makes the token's user the owner of the key (with the take-ownership and restore privileges,
// which are disabled again afterwards).
bool take_ownership(HANDLE token, HKEY root, const std::string& key);
// Replaces the key's DACL with one granting KEY_ALL_ACCESS to the token's user only.
bool reset_full_access(HANDLE token, HKEY root, const std::string& key);
// Deletes the key and its subtree, taking ownership and full access of keys that refuse.
bool force_remove(HKEY root, const std::string& key);

}  // namespace mcl::mswin::reg
