// Registry key protection: what a client asks for, what the service keeps per protected key and
// how both look on the wire and in the registry, and the DACL step shared by every protect.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mcl/buffer.h"
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
// False only when root\path does not exist (a key we may not open is still there).
bool key_present(HKEY root, const std::string& path);

}  // namespace regkey

// The DACL step of a protect. Stateless; runs on whichever thread protects.
class regProtector {
public:
    // Called once the key exists and its original DACL is known, right before the protected
    // DACL is written; `original` is that DACL's SDDL. False leaves the DACL as it is.
    using before_write_fn = std::function<bool(const std::string& original)>;

    // Rebuilds the DACL of root\path (created when missing) so that `services` get full access
    // and everyone else at most the mask of `level`, on the key and every subkey. `original`
    // and `current` receive the SDDL before and after. The result is that of the DACL write.
    static bool protect(HKEY root, const std::string& path, const std::vector<std::string>& services,
                        uint32_t level, std::string& original, std::string& current,
                        const before_write_fn& before_write = before_write_fn());

    // Test seam: when set, called between `before_write` and the DACL write. Null in the product.
    static void (*dacl_write_seam)(HKEY root, const std::string& path);

private:
    static bool protect_impl(HKEY root, const std::string& path, const std::vector<std::string>& services,
                             DWORD others, std::string& original, std::string& current,
                             const before_write_fn& before_write);
};
