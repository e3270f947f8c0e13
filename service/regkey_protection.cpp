// Registry key protection: a key's DACL rebuilt so that only chosen services keep full access,
// a driver rule for the key, a record per key in memory and in the registry, the service's own
// keys, and the start-up and shutdown steps for them.
//
// Crash safety: a key's original DACL is written to its persisted record before the key's DACL
// is changed, so a service killed between the two can still give it back at the next start.
#include <windows.h>


#include <exception>
#include <map>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/log.h"
#include "mcl/mswin/filter_library.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"
#include "protocol/driver_protocol.h"
#include "service/regkey_protection.h"

namespace {

constexpr const char* k_persist_key = "Software\\Norvale\\NVClientHelper\\ProtectedRegKeys";
// Beside the records, under the same protected key: per protected key (the same value name), the
// subkeys whose DACL differed from the key's own at protect time, as a list of path, SDDL pairs.
constexpr const char* k_subkeys_key = "Software\\Norvale\\NVClientHelper\\ProtectedRegKeys\\Subkeys";
// What one subkey list may hold: beyond it the tree is refused rather than half recorded.
constexpr size_t k_max_subkey_bytes = 1024 * 1024;
constexpr const char* k_own_service = mcl::mswin::service::default_name;
constexpr uint32_t k_own_level = 1;

// The text in the ANSI code page; false when a character has no ANSI form (it would name
// another key).
bool to_ansi(const std::wstring& text, std::string& out) {
    out.clear();
    if (text.empty()) return true;
    BOOL lossy = FALSE;
    const int n = WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), static_cast<int>(text.size()),
                                      nullptr, 0, nullptr, &lossy);
    if (n <= 0 || lossy) return false;
    out.resize(static_cast<size_t>(n));
    return WideCharToMultiByte(CP_ACP, WC_NO_BEST_FIT_CHARS, text.data(), static_cast<int>(text.size()), &out[0], n,
                               nullptr, &lossy) == n &&
           !lossy;
}

std::string ansi(const std::wstring& text) {
    std::string out;
    return to_ansi(text, out) ? out : std::string();
}

HKEY to_hkey(uint32_t root) {
    return reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG_PTR>(static_cast<int32_t>(root))));
}

// The SDDL of root\path's DACL, or empty (the helper logs why).
std::string read_dacl_sddl(HKEY root, const std::string& path) {
    mcl::mswin::security_descriptor sd;
    if (!mcl::mswin::reg::get_key_dacl_security(root, path, sd)) return std::string();
    return sd.dacl_sddl();
}

// One key's DACL from a descriptor, without touching its subkeys.
bool write_key_dacl(HKEY root, const std::string& path, const mcl::mswin::security_descriptor& sd) {
    constexpr const char* fn = "regkey::restore_key_tree";
    mcl::mswin::unique_reg_key handle;
    LONG rc = mcl::mswin::reg::open_key(root, path, WRITE_DAC, handle);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed to open key [%s], error: 0x%X", path.c_str(), static_cast<unsigned>(rc));
        return false;
    }
    rc = sd.write_key_dacl(handle.get());
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed set dacl info to key [%s], error: 0x%X", path.c_str(), static_cast<unsigned>(rc));
        return false;
    }
    return true;
}

// The key first: once its own DACL is back, its subkeys can be listed whatever the protected
// DACL denied us.
bool write_tree_dacl(HKEY root, const std::string& path, const mcl::mswin::security_descriptor& sd) {
    const bool ok = write_key_dacl(root, path, sd);
    std::vector<std::string> subkeys;
    mcl::mswin::reg::list_subkeys(root, path, subkeys);
    for (const std::string& sub : subkeys) (void)write_tree_dacl(root, path + "\\" + sub, sd);
    return ok;
}

// Whether the open key has no subkey; false when that cannot be known.
bool without_subkeys(HKEY key) {
    DWORD subkeys = 0;
    return RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr) == ERROR_SUCCESS &&
           subkeys == 0;
}

// Whether root\path has no subkey; false when that cannot be known.
bool without_subkeys(HKEY root, const std::string& path) {
    mcl::mswin::unique_reg_key key;
    return mcl::mswin::reg::open_key(root, path, KEY_QUERY_VALUE, key) == ERROR_SUCCESS && without_subkeys(key.get());
}

// Why a client's entry cannot be protected, or empty: a key that cannot exist, or an owner that
// the next start would drop at once.
std::string refusal(const reg_key_entry& entry) {
    std::string why;
    if (regkey::predefined_root(entry.root) == nullptr) return "the root is not a predefined key";
    if (!regkey::valid_key_path(entry.path, why)) return why;
    // An empty owner is a key without an owner service (a client's single-key protect sends none).
    if (!entry.owner.empty() && entry.owner != k_own_service &&
        !mcl::mswin::service::is_service_installed(entry.owner.c_str()))
        return "its owner service [" + entry.owner + "] is not installed";
    return std::string();
}

}  // namespace

// ---- encodings, names and limits

namespace regkey {

DWORD others_mask(uint32_t level) {
    if (level == 0) return 0;
    if (level == 2) return 0x40020006;  // generic write, key write rights
    return 0x80020019;                  // generic read, key read rights
}

uint64_t widen_root(uint32_t root) { return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(root))); }

std::wstring key_text(uint64_t root, const std::wstring& path) {
    return L"\\\\" + std::to_wstring(root) + L"\\" + mcl::mswin::lower_case(path);
}

HKEY predefined_root(uint64_t root) {
    // HKEY_CLASSES_ROOT (0x80000000) to HKEY_CURRENT_USER_LOCAL_SETTINGS (0x80000007), sign-extended.
    if ((root >> 32) != 0xFFFFFFFFu) return nullptr;
    const uint32_t low = static_cast<uint32_t>(root);
    if (low < 0x80000000u || low > 0x80000007u) return nullptr;
    return to_hkey(low);
}

bool valid_key_path(const std::wstring& path, std::string& why) {
    // The persisted record is named by the key text, so the path must fit a value name too.
    constexpr size_t max_value_name = 16383;
    const size_t prefix = 2 + 20 + 1;  // two backslashes, a 64-bit number, a backslash
    if (path.size() > max_key_path || path.size() + prefix > max_value_name) {
        why = "the path is longer than the registry allows";
        return false;
    }
    size_t start = 0;
    for (;;) {
        const size_t end = path.find(L'\\', start);
        const size_t length = (end == std::wstring::npos ? path.size() : end) - start;
        if (length == 0) {
            why = "the path has an empty key name";
            return false;
        }
        if (length > max_key_name) {
            why = "a key name is longer than 255 characters";
            return false;
        }
        if (end == std::wstring::npos) break;
        start = end + 1;
    }
    std::string narrow;
    if (!to_ansi(path, narrow)) {
        why = "the path cannot be written in the ANSI code page";
        return false;
    }
    return true;
}

bool read_record(reg_key_record& record, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_string(record.original_dacl, in, pos) && mcl::read_string(record.current_dacl, in, pos) &&
           mcl::read_u32(record.root, in, pos) && mcl::read_wstring(record.path, in, pos) &&
           mcl::read_string(record.owner, in, pos) && mcl::read_string_list(record.services, in, pos) &&
           mcl::read_u32(record.level, in, pos);
}

void write_record(mcl::binary_t& out, const reg_key_record& record) {
    mcl::write_string(out, record.original_dacl);
    mcl::write_string(out, record.current_dacl);
    mcl::write_u32(out, record.root);
    mcl::write_wstring(out, record.path);
    mcl::write_string(out, record.owner);
    mcl::write_string_list(out, record.services);
    mcl::write_u32(out, record.level);
}

bool key_present(HKEY root, const std::string& path) {
    mcl::mswin::unique_reg_key handle;
    return mcl::mswin::reg::open_key(root, path, 0, handle) != ERROR_FILE_NOT_FOUND;
}

bool differing_subkeys(HKEY root, const std::string& path, const std::string& key_sddl,
                       std::vector<subkey_dacl>& out) {
    size_t bytes = 0;
    std::vector<std::string> pending{std::string()};  // paths below `path`, "" the key itself
    while (!pending.empty()) {
        const std::string below = std::move(pending.back());
        pending.pop_back();
        std::vector<std::string> names;
        mcl::mswin::reg::list_subkeys(root, below.empty() ? path : path + "\\" + below, names);
        for (const std::string& name : names) {
            const std::string sub = below.empty() ? name : below + "\\" + name;
            const std::string sddl = read_dacl_sddl(root, path + "\\" + sub);
            if (sddl.empty()) return false;
            bytes += sub.size() + 1;
            if (sddl != key_sddl) {
                bytes += sddl.size() + 1;
                out.push_back(subkey_dacl{sub, sddl});
            }
            if (bytes > k_max_subkey_bytes) return false;
            pending.push_back(sub);
        }
    }
    return true;
}

bool restore_key_tree(HKEY root, const std::string& path, const std::string& sddl) {
    mcl::mswin::security_descriptor sd;
    if (!mcl::mswin::security_descriptor::from_sddl(sddl.c_str(), sd)) {
        NV_LOG("regkey::restore_key_tree", "Failed to convert SDDL string {%s} to security descriptior, error: 0x%X",
               sddl.c_str(), static_cast<unsigned>(GetLastError()));
        return false;
    }
    return write_tree_dacl(root, path, sd);
}

}  // namespace regkey

// ---- the DACL step

void (*regProtector::dacl_write_seam)(HKEY root, const std::string& path) = nullptr;

bool regProtector::protect(HKEY root, const std::string& path, const std::vector<std::string>& services,
                           uint32_t level, std::string& original, std::string& current,
                           const before_write_fn& before_write, const std::string& applied) {
    return protect_impl(root, path, services, regkey::others_mask(level), original, current, before_write, applied);
}

bool regProtector::protect_impl(HKEY root, const std::string& path, const std::vector<std::string>& services,
                                DWORD others, std::string& original, std::string& current,
                                const before_write_fn& before_write, const std::string& applied) {
    constexpr const char* fn = "regProtector::protect_impl";
    // One handle answers what follows (the DACL, the subkeys, the kernel path) when the key
    // opens for reading; otherwise each question opens the key on its own and says why it failed.
    mcl::mswin::unique_reg_key key;
    if (mcl::mswin::reg::open_key(root, path, KEY_READ, key) != ERROR_SUCCESS) {
        key.reset();
        mcl::mswin::unique_reg_key probe;
        if (mcl::mswin::reg::open_key(root, path, KEY_QUERY_VALUE, probe) != ERROR_SUCCESS &&
            mcl::mswin::reg::create_key(root, path, /*access=*/0x2001d, probe) != ERROR_SUCCESS) {
            NV_LOG(fn, "Failed to create the registry key [%s]", path.c_str());
            return false;
        }
    }

    std::vector<mcl::mswin::sid> sids;
    for (const std::string& name : services) {
        mcl::mswin::sid service_sid;
        if (!mcl::mswin::service::get_sid(name.c_str(), service_sid)) {
            NV_LOG(fn, "Failed to get service sid <%s>", name.c_str());
            return false;
        }
        sids.push_back(service_sid);
        if (!mcl::mswin::service::set_sid_type(name.c_str()))
            NV_LOG(fn, "Failed to set service <%s> sid type to unrestricted, it could have already been done",
                   name.c_str());
    }

    mcl::mswin::security_descriptor old_sd;
    if (key ? !mcl::mswin::reg::get_open_key_dacl(key.get(), path, old_sd)
            : !mcl::mswin::reg::get_key_dacl_security(root, path, old_sd)) {
        NV_LOG(fn, "Failed to get dacl for registry key [%s]", path.c_str());
        return false;
    }
    original = old_sd.dacl_sddl();
    if (original.empty()) {
        // Without its text the old DACL could never be given back: leave the key as it is.
        NV_LOG(fn, "Failed to get dacl for registry key [%s]", path.c_str());
        return false;
    }
    NV_LOG(fn, "original dacl for registry key [%s] : {%s}", path.c_str(), original.c_str());

    PACL new_dacl = nullptr;
    if (!mcl::mswin::service::update_dacl_with_selected_full_access_sids(old_sd.dacl(), sids, regkey::service_ace_flags,
                                                                          regkey::service_full_access, others,
                                                                          &new_dacl)) {
        NV_LOG(fn, "Failed to update dacl object");
        return false;
    }
    mcl::mswin::unique_heap new_dacl_owner(new_dacl);
    // What an earlier protect left, entry for entry and flag for flag, and nothing below the key
    // that the write would reach: writing it again would change nothing.
    const bool in_place = !applied.empty() && original == applied && old_sd.dacl_equals(new_dacl) &&
                          (key ? without_subkeys(key.get()) : without_subkeys(root, path));

    if (before_write && !before_write(original, key.get())) {
        NV_LOG(fn, "Original dacl for registry key [%s] could not be recorded, the dacl is left as it is",
               path.c_str());
        return false;
    }
    if (in_place) {
        current = original;
        NV_LOG(fn, "Current dacl for registry key [%s] : {%s}", path.c_str(), current.c_str());
        return true;
    }
    if (dacl_write_seam != nullptr) dacl_write_seam(root, path);
    const bool ok = mcl::mswin::reg::set_key_dacl_security(root, path, new_dacl, /*protect=*/true);
    if (!ok) NV_LOG(fn, "Failed to set dacl for registry key [%s]", path.c_str());

    current = read_dacl_sddl(root, path);
    if (current.empty()) {
        NV_LOG(fn, "Failed to get dacl for registry key [%s]", path.c_str());
    } else {
        NV_LOG(fn, "Current dacl for registry key [%s] : {%s}", path.c_str(), current.c_str());
    }
    return ok;
}

// ---- the table of protected keys

const char* const reg_key_protection::own_reg_keys[6] = {
    "Software\\Norvale\\NVClientHelper\\ProtectedServices",
    "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedProcesses",
    "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedFolders",
    "system\\CurrentControlSet\\Services\\VQRMonitor\\TrustedOpenApps",
    "Software\\Norvale\\NVClientHelper\\ProtectedRegKeys",
    "Software\\Norvale\\NVClientHelper\\QuarantineContainers",
};

namespace {

// The persisted record of a key text, when there is one with an original DACL.
bool persisted_record(const std::wstring& text, reg_key_record& record) {
    mcl::binary_t data;
    uint32_t pos = 0;
    return mcl::mswin::reg::read_value(k_persist_key, ansi(text).c_str(), data) &&
           regkey::read_record(record, data, pos) && !record.original_dacl.empty() && !record.path.empty();
}

std::string value_name(const reg_key_record& record) {
    return ansi(regkey::key_text(regkey::widen_root(record.root), record.path));
}

bool write_subkeys(const reg_key_record& record, const std::vector<regkey::subkey_dacl>& subkeys) {
    std::vector<std::string> pairs;
    for (const regkey::subkey_dacl& s : subkeys) {
        pairs.push_back(s.path);
        pairs.push_back(s.sddl);
    }
    mcl::binary_t data;
    mcl::write_string_list(data, pairs);
    if (mcl::mswin::reg::write_value(k_subkeys_key, value_name(record).c_str(), data.data(),
                                     static_cast<DWORD>(data.size()), REG_BINARY))
        return true;
    NV_LOG("chelperservice::persistRegKeyRecord", "Failed to persist the subkeys of reg key %s",
           value_name(record).c_str());
    return false;
}

std::vector<regkey::subkey_dacl> read_subkeys(const reg_key_record& record) {
    std::vector<regkey::subkey_dacl> subkeys;
    mcl::binary_t data;
    std::vector<std::string> pairs;
    uint32_t pos = 0;
    if (!mcl::mswin::reg::read_value(k_subkeys_key, value_name(record).c_str(), data) ||
        !mcl::read_string_list(pairs, data, pos))
        return subkeys;
    for (size_t i = 0; i + 1 < pairs.size(); i += 2) subkeys.push_back(regkey::subkey_dacl{pairs[i], pairs[i + 1]});
    return subkeys;
}

// Deletes the record's subkey list, when it has one (most keys have none: no line).
void drop_subkeys(const reg_key_record& record) {
    mcl::mswin::unique_reg_key key;
    if (mcl::mswin::reg::open_key(HKEY_LOCAL_MACHINE, k_subkeys_key, KEY_SET_VALUE, key) == ERROR_SUCCESS)
        (void)RegDeleteValueA(key.get(), value_name(record).c_str());
}

}  // namespace

bool reg_key_protection::give_back(const reg_key_record& record) {
    const HKEY root = to_hkey(record.root);
    const std::string path = ansi(record.path);
    if (!regkey::restore_key_tree(root, path, record.original_dacl)) return false;
    for (const regkey::subkey_dacl& sub : read_subkeys(record)) {
        mcl::mswin::security_descriptor sd;
        if (mcl::mswin::security_descriptor::from_sddl(sub.sddl.c_str(), sd))
            (void)write_key_dacl(root, path + "\\" + sub.path, sd);
    }
    return true;
}

bool reg_key_protection::forget(const reg_key_record& record) {
    const bool removed = persistRegKeyRecord(record, /*add=*/false);
    if (removed) drop_subkeys(record);
    return removed;
}

bool reg_key_protection::handle_protect_reg_keys(const std::vector<reg_key_entry>& entries,
                                                 std::string* not_applied) {
    constexpr const char* fn = "chelperservice::handle_protect_reg_keys";
    if (entries.empty()) {
        NV_LOG(fn, "No reg key set to (un)protect.");
        return true;
    }
    if (entries.front().path.empty()) {
        if (entries.front().action == 0) stopProtectingRegKeys();
        return true;
    }
    bool result = true;
    for (const reg_key_entry& entry : entries) {
        if (entry.path.empty()) continue;
        const std::wstring text = regkey::key_text(entry.root, entry.path);
        if (mcl::stop_requested()) {
            NV_LOG(fn, "Reg key %.512ls and the keys after it are left as they are: the service is stopping.", text.c_str());
            return false;
        }
        reg_key_record current;
        const bool found = listed(text, current);
        if (entry.action == 0) {
            // A protect that failed without the driver may have left the key's protected DACL
            // and its persisted record (applied again at the next start): that record is given
            // back as a loaded one would be.
            if (!found && !persisted_record(text, current)) continue;
            if (!unprotectRegKey(current)) {
                result = false;
                continue;
            }
            NV_LOG(fn, "Reg key %ls has been unprotected.", text.c_str());
            if (found) unlist(text);
            continue;
        }
        if (found) continue;
        // Refused before anything is touched.
        const std::string why = refusal(entry);
        if (!why.empty()) {
            NV_LOG(fn, "Reg key %.512ls is not protected: %s.", text.c_str(), why.c_str());
            result = false;
            continue;
        }
        reg_key_record record;
        bool unrecorded = false;
        if (!protectRegKey(entry, record, /*persist=*/true, &unrecorded)) {
            result = false;
            if (unrecorded && not_applied != nullptr) {
                if (!not_applied->empty()) not_applied->push_back(' ');
                *not_applied += "Reg key " + ansi(text) + " was not protected: its original DACL could not be recorded.";
            }
            continue;
        }
        list(text, std::move(record));
        NV_LOG(fn, "Reg key %ls has been protected.", text.c_str());
    }
    return result;
}

std::map<std::wstring, reg_key_record> reg_key_protection::protected_reg_keys() const {
    mcl::scoped_lock guard(lock_);
    return protected_reg_keys_;
}

bool reg_key_protection::listed(const std::wstring& text, reg_key_record& record) const {
    mcl::scoped_lock guard(lock_);
    const auto found = protected_reg_keys_.find(text);
    if (found == protected_reg_keys_.end()) return false;
    record = found->second;
    return true;
}

void reg_key_protection::list(const std::wstring& text, reg_key_record&& record) {
    mcl::scoped_lock guard(lock_);
    protected_reg_keys_[text] = std::move(record);
}

void reg_key_protection::unlist(const std::wstring& text) {
    mcl::scoped_lock guard(lock_);
    protected_reg_keys_.erase(text);
}

bool reg_key_protection::protectRegKey(const reg_key_entry& entry, reg_key_record& record, bool persist,
                                       bool* unrecorded, HANDLE port, const std::string& applied) {
    constexpr const char* fn = "chelperservice::protectRegKey";
    if (entry.path.empty()) return false;
    NV_LOG(fn, "Trying to protect reg key (\\\\%llu\\%ls)\n", static_cast<unsigned long long>(entry.root),
           entry.path.c_str());
    if (!enabled_) {
        NV_LOG(fn, "Registry protection function is disabled\n");
        return false;
    }
    std::vector<std::string> services{k_own_service};
    // No owner: the key is the product's own, granted to this service alone.
    if (!entry.owner.empty() && entry.owner != k_own_service) services.push_back(entry.owner);
    for (const std::string& name : entry.services)
        if (name != k_own_service && name != entry.owner) services.push_back(name);

    record.root = static_cast<uint32_t>(entry.root);
    record.path = entry.path;
    record.owner = entry.owner;
    record.level = entry.level;
    record.services = entry.services;
    record.kernel_path.clear();
    const HKEY root = to_hkey(record.root);
    const std::string path = ansi(entry.path);

    // Runs while the key still has its original DACL: its kernel path can be read, and with
    // `persist` the original goes to the registry before the DACL changes, the subkeys whose
    // DACL differs first. A persisted record left by an earlier run knows the key's DACL from
    // before that run's protect, and its subkey list those of the subkeys.
    std::string kept_original;
    bool written_early = false, refused = false;
    const auto before_write = [&](const std::string& original, HKEY key) {
        record.kernel_path =
            key != nullptr ? mcl::mswin::reg::get_full_path(key) : mcl::mswin::reg::get_full_path(root, path);
        if (!persist) return true;
        reg_key_record earlier;
        if (persisted_record(regkey::key_text(regkey::widen_root(record.root), record.path), earlier))
            kept_original = earlier.original_dacl;
        if (kept_original.empty()) {
            std::vector<regkey::subkey_dacl> subkeys;
            if (!regkey::differing_subkeys(root, path, original, subkeys)) {
                NV_LOG(fn, "The subkeys' dacls of registry key [%s] could not be read", path.c_str());
                refused = true;
                return false;
            }
            drop_subkeys(record);
            if (!subkeys.empty() && !write_subkeys(record, subkeys)) {
                refused = true;
                return false;
            }
        }
        reg_key_record pending = record;
        pending.original_dacl = kept_original.empty() ? original : kept_original;
        pending.current_dacl.clear();
        written_early = persistRegKeyRecord(pending, /*add=*/true);
        refused = !written_early;
        return written_early;
    };
    const bool dacl_ok = regProtector::protect(root, path, services, entry.level, record.original_dacl,
                                               record.current_dacl, before_write, applied);
    if (!kept_original.empty()) record.original_dacl = kept_original;
    if (refused) {
        // Nothing was changed, and nothing may be: without its record the key could not be given
        // back after a restart.
        if (kept_original.empty()) drop_subkeys(record);
        if (unrecorded != nullptr) *unrecorded = true;
        return false;
    }
    if (dacl_ok && persist) {
        (void)persistRegKeyRecord(record, /*add=*/true);  // failing, the record written first stays
    } else if (written_early) {
        // The DACL write failed, perhaps on the key after its subkeys: kept in memory only, once
        // the tree has its original DACL again.
        if (give_back(record)) (void)forget(record);
    }

    if (record.kernel_path.empty()) record.kernel_path = mcl::mswin::reg::get_full_path(root, path);
    mcl::mswin::unique_kernel_handle own_port;
    if (port == nullptr) {
        own_port = driver_.open_port();
        if (!own_port) return false;
        port = own_port.get();
    }
    if (record.kernel_path.empty()) {
        NV_LOG(fn, "No kernel path for reg key (\\\\%llu\\%ls), no driver rule sent",
               static_cast<unsigned long long>(entry.root), entry.path.c_str());
        return false;
    }
    driver_.send_key_rule(port, record.kernel_path, /*remove=*/false);
    return true;
}

bool reg_key_protection::unprotectRegKey(const reg_key_record& record) {
    constexpr const char* fn = "chelperservice::unprotectRegKey";
    NV_LOG(fn, "Trying to unprotect reg key (\\\\%llu\\%ls)\n",
           static_cast<unsigned long long>(regkey::widen_root(record.root)), record.path.c_str());
    mcl::mswin::unique_kernel_handle port = driver_.open_port();
    if (!port) return false;
    const HKEY root = to_hkey(record.root);
    const std::string path = ansi(record.path);
    const std::wstring kernel_path =
        record.kernel_path.empty() ? mcl::mswin::reg::get_full_path(root, path) : record.kernel_path;
    // The original DACL first: a key that keeps its protected DACL stays protected, with its
    // driver rule and its record, so that a later unprotect can still give the original back.
    // A record without an original DACL never changed the key's DACL; a key that is gone has
    // none left to restore.
    if (!record.original_dacl.empty() && !give_back(record) && regkey::key_present(root, path)) {
        NV_LOG(fn, "Failed to restore the original dacl of reg key (\\\\%llu\\%ls), the key stays protected",
               static_cast<unsigned long long>(regkey::widen_root(record.root)), record.path.c_str());
        return false;
    }
    // An empty text would lift every key rule, not this one.
    if (!kernel_path.empty()) driver_.send_key_rule(port.get(), kernel_path, /*remove=*/true);
    (void)forget(record);
    return true;
}

void reg_key_protection::drop_all_driver_rules() {
    constexpr const char* fn = "chelperservice::stopProtectingRegKeys";
    mcl::mswin::unique_kernel_handle port = driver_.open_port();
    if (!port) return;
    const filter_library::entry_points& lib = filter_library::get();
    std::vector<uint8_t> message = vqr::build_command(vqr::code::unprotect_regkey, std::wstring());
    DWORD returned = 0;
    const HRESULT hr = lib.send == nullptr ? HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND)
                                           : lib.send(port.get(), message.data(), static_cast<DWORD>(message.size()),
                                                      nullptr, 0, &returned);
    if (SUCCEEDED(hr)) return;
    if (hr == static_cast<HRESULT>(vqr::hr_unloaded)) {
        NV_LOG(fn, "The kernel component of vqrmonitor has unloaded.");
    } else {
        NV_LOG(fn, "UNEXPECTED ERROR received: %d - %ls", static_cast<int>(hr),
               driver_.error_text(hr).c_str());
    }
}

void reg_key_protection::stopProtectingRegKeys() {
    drop_all_driver_rules();
    restoreAllRegKeys();
    mcl::scoped_lock guard(lock_);
    protected_reg_keys_.clear();
}

void reg_key_protection::restoreAllRegKeys() {
    for (const auto& item : protected_reg_keys()) {
        const reg_key_record& r = item.second;
        if (!r.original_dacl.empty()) (void)give_back(r);
    }
}

bool reg_key_protection::persistRegKeyRecord(const reg_key_record& record, bool add) {
    if (record.path.empty()) return true;
    const std::string name = value_name(record);
    if (!add) return mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, k_persist_key, name.c_str());
    mcl::binary_t data;
    regkey::write_record(data, record);
    if (mcl::mswin::reg::write_value(k_persist_key, name.c_str(), data.data(), static_cast<DWORD>(data.size()),
                                     REG_BINARY))
        return true;
    NV_LOG("chelperservice::persistRegKeyRecord", "Failed to persist reg key %s", name.c_str());
    return false;
}

// ---- start-up and shutdown

void reg_key_protection::loadProtectedRegKeys() {
    constexpr const char* fn = "chelperservice::loadProtectedRegKeys";
    bool own_loaded[6] = {};
    std::vector<std::string> names;
    mcl::mswin::reg::list_values(k_persist_key, names);
    // Many keys share an owner, and every rule goes to the one driver: each owner is looked up
    // once and the driver connected once for the whole load.
    std::map<std::string, bool> installed;
    const auto owner_installed = [&installed](const std::string& owner) {
        const auto found = installed.find(owner);
        if (found != installed.end()) return found->second;
        return installed[owner] = mcl::mswin::service::is_service_installed(owner.c_str());
    };
    const mcl::mswin::unique_kernel_handle port = driver_.open_port();
    mcl::mswin::unique_reg_key records;  // one open for every record
    (void)mcl::mswin::reg::open_key(HKEY_LOCAL_MACHINE, k_persist_key, KEY_READ, records);
    for (const std::string& name : names) {
        NV_LOG(fn, "Read protected reg key: %s", name.c_str());
        mcl::binary_t data;
        reg_key_record saved;
        uint32_t pos = 0;
        if (!records || !mcl::mswin::reg::read_value(records.get(), name.c_str(), data) ||
            !regkey::read_record(saved, data, pos))
            continue;
        std::string why;
        if (regkey::predefined_root(regkey::widen_root(saved.root)) == nullptr || saved.path.empty() ||
            !regkey::valid_key_path(saved.path, why)) {
            NV_LOG(fn, "Persisted reg key %s names no key, skipped", name.c_str());
            continue;
        }
        if (!saved.owner.empty() && !owner_installed(saved.owner)) {
            NV_LOG(fn, "Owner service [%s] of reg key {%s} has been uninstalled, unprotect the key.",
                   saved.owner.c_str(), name.c_str());
            // The value goes only once the key has its DACL back: otherwise the next start tries again.
            if (saved.original_dacl.empty() || give_back(saved)) {
                (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, k_persist_key, name.c_str());
                drop_subkeys(saved);
            }
            continue;
        }
        reg_key_entry entry;
        entry.action = 1;
        entry.root = regkey::widen_root(saved.root);
        entry.path = saved.path;
        entry.owner = saved.owner;
        entry.services = saved.services;
        entry.level = saved.level;
        if (saved.root == regkey::hklm_root) {
            const std::string path = ansi(saved.path);
            for (size_t i = 0; i < 6; ++i) {
                if (path != own_reg_keys[i]) continue;
                own_loaded[i] = true;
                entry.owner = k_own_service;
                entry.level = k_own_level;
                entry.services.clear();
            }
        }
        reg_key_record record;
        // A key left protected (the service ended without its shutdown) keeps its DACL as it is.
        if (!protectRegKey(entry, record, /*persist=*/false, /*unrecorded=*/nullptr, port.get(), saved.current_dacl))
            continue;
        // The key may already carry the protected DACL; the record knows the one from before.
        record.original_dacl = saved.original_dacl;
        list(regkey::key_text(entry.root, entry.path), std::move(record));
        NV_LOG(fn, "Load protected reg key: %s", name.c_str());
    }
    for (size_t i = 0; i < 6; ++i) {
        if (own_loaded[i]) continue;
        reg_key_entry entry;
        entry.action = 1;
        entry.root = regkey::widen_root(regkey::hklm_root);
        entry.path = mcl::mswin::widen(own_reg_keys[i]);
        entry.owner = k_own_service;
        entry.level = k_own_level;
        reg_key_record record;
        if (!protectRegKey(entry, record, /*persist=*/true, /*unrecorded=*/nullptr, port.get())) continue;
        const std::wstring text = regkey::key_text(entry.root, entry.path);
        list(text, std::move(record));
        NV_LOG(fn, "Load protected reg key: %ls", text.c_str());
    }
}

void reg_key_protection::unprotectOwnRegKeys() {
    for (const char* own : own_reg_keys) {
        const std::wstring text = regkey::key_text(regkey::widen_root(regkey::hklm_root), mcl::mswin::widen(own));
        reg_key_record record;
        if (listed(text, record) && unprotectRegKey(record)) unlist(text);
    }
}
