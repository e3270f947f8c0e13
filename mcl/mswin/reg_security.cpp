// Key security: DACLs, ownership, forced removal and the kernel path of a key.
#include <windows.h>

#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"

namespace mcl::mswin::reg {

namespace {

// NtQueryKey's KEY_INFORMATION_CLASS value for KeyNameInformation.
constexpr int key_name_information = 3;
constexpr LONG status_buffer_too_small = static_cast<LONG>(0xC0000023);
constexpr LONG status_buffer_overflow = static_cast<LONG>(0x80000005);
using nt_query_key_fn = LONG(WINAPI*)(HANDLE key, int info_class, void* info, ULONG length, ULONG* result_length);

// Opens root\key with `access`; on failure writes the one line under `function`.
bool open_logged(const char* function, HKEY root, const std::string& key, REGSAM access, unique_reg_key& handle) {
    const LONG rc = open_key(root, key, access, handle);
    if (rc == ERROR_SUCCESS) return true;
    NV_LOG(function, "Failed to open key [%s], error: 0x%X", key.c_str(), static_cast<unsigned>(rc));
    return false;
}

// The token's user (TOKEN_USER in a heap block), or an empty block.
std::vector<BYTE> token_user(HANDLE token) {
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<BYTE> user(size);
    if (size == 0 || !GetTokenInformation(token, TokenUser, user.data(), size, &size)) user.clear();
    return user;
}

bool force_remove_subkeys(HKEY root, const std::string& key) {
    return for_each_subkey(root, key, [root](const std::string& sub) { return force_remove(root, sub); });
}

}  // namespace

bool get_key_dacl_security(HKEY root, const std::string& key, security_descriptor& descriptor) {
    constexpr const char* fn = "mcl::mswin::reg::get_key_dacl_security";
    descriptor = security_descriptor();
    unique_reg_key handle;
    if (!open_logged(fn, root, key, KEY_READ, handle)) return false;
    return get_open_key_dacl(handle.get(), key, descriptor);
}

bool get_open_key_dacl(HKEY handle, const std::string& key, security_descriptor& descriptor) {
    constexpr const char* fn = "mcl::mswin::reg::get_key_dacl_security";
    descriptor = security_descriptor();
    const LONG rc = descriptor.read_key_dacl(handle);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed get dacl info on key [%s], error: 0x%X", key.c_str(), static_cast<unsigned>(rc));
        return false;
    }
    PACL dacl = nullptr;
    if (!descriptor.get_dacl(&dacl)) {
        NV_LOG(fn, "Failed get dacl info from security descriptor, error: 0x%X", static_cast<unsigned>(GetLastError()));
        descriptor = security_descriptor();
        return false;
    }
    return true;
}

bool set_key_dacl_security(HKEY root, const std::string& key, PACL dacl, bool protect) {
    constexpr const char* fn = "mcl::mswin::reg::set_key_dacl_security";
    if (dacl == nullptr) {
        NV_LOG(fn, "Invalid PACL pointer");
        return false;
    }
    // Subkeys first, deepest first; their results do not count. A thread asked to stop gives up
    // before the key itself: the key keeps its DACL, and the caller gives the subkeys theirs back.
    (void)for_each_subkey(root, key, [&](const std::string& sub) {
        (void)set_key_dacl_security(root, sub, dacl, protect);
        return !stop_requested();
    });
    if (stop_requested()) {
        NV_LOG(fn, "Stopped before key [%s]: the work was asked to end", key.c_str());
        return false;
    }
    unique_reg_key handle;
    if (!open_logged(fn, root, key, WRITE_DAC, handle)) return false;
    SECURITY_DESCRIPTOR sd{};
    if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION)) {
        NV_LOG(fn, "Failed init security descriptor, error: 0x%X", static_cast<unsigned>(GetLastError()));
        return false;
    }
    if (!SetSecurityDescriptorDacl(&sd, TRUE, dacl, FALSE)) {
        NV_LOG(fn, "Failed to set DACL to security descriptor, error: 0x%X", static_cast<unsigned>(GetLastError()));
        return false;
    }
    constexpr SECURITY_DESCRIPTOR_CONTROL protect_bits = 0x1500;  // protected, auto-inherited, inherit required
    if (protect && !SetSecurityDescriptorControl(&sd, protect_bits, protect_bits)) {
        NV_LOG(fn, "Failed set DACL protected flag to security descriptor, error: 0x%X",
               static_cast<unsigned>(GetLastError()));
        return false;
    }
    const LONG rc = RegSetKeySecurity(handle.get(), DACL_SECURITY_INFORMATION, &sd);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed set dacl info to key [%s], error: 0x%X", key.c_str(), static_cast<unsigned>(rc));
        return false;
    }
    return true;
}

bool set_key_sddl_security_str(HKEY root, const std::string& key, const char* sddl) {
    constexpr const char* fn = "mcl::mswin::reg::set_key_sddl_security_str";
    if (sddl == nullptr) {
        NV_LOG(fn, "Invalid SDDL string");
        return false;
    }
    (void)for_each_subkey(root, key, [&](const std::string& sub) {
        (void)set_key_sddl_security_str(root, sub, sddl);
        return true;
    });
    unique_reg_key handle;
    if (!open_logged(fn, root, key, WRITE_DAC, handle)) return false;
    security_descriptor sd;
    if (!security_descriptor::from_sddl(sddl, sd)) {
        NV_LOG(fn, "Failed to convert SDDL string {%s} to security descriptior, error: 0x%X", sddl,
               static_cast<unsigned>(GetLastError()));
        return false;
    }
    const LONG rc = sd.write_key_dacl(handle.get());
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed set dacl info to key [%s], error: 0x%X", key.c_str(), static_cast<unsigned>(rc));
        return false;
    }
    return true;
}

std::wstring get_full_path(HKEY root, const std::string& key) {
    unique_reg_key handle;
    if (!open_logged("mcl::mswin::reg::get_full_path", root, key, KEY_READ, handle)) return std::wstring();
    return get_full_path(handle.get());
}

std::wstring get_full_path(HKEY handle) {
    // ntdll is in every process for its whole life: looked up once.
    static const auto query = [] {
        const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
        return ntdll == nullptr ? nullptr
                                : reinterpret_cast<nt_query_key_fn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "NtQueryKey")));
    }();
    if (query == nullptr) return std::wstring();
    // Most paths fit the first buffer: one call to the kernel, a second only for a longer one.
    std::vector<BYTE> info(1024);
    ULONG length = 0;
    LONG status = query(handle, key_name_information, info.data(), static_cast<ULONG>(info.size()), &length);
    if (status == status_buffer_too_small || status == status_buffer_overflow) {
        info.assign(((length + 2) & ~1UL) + sizeof(wchar_t), 0);
        status = query(handle, key_name_information, info.data(), length, &length);
    }
    std::wstring path;
    if (status == 0 && length >= 4) {
        ULONG name_bytes = 0;
        memcpy(&name_bytes, info.data(), 4);
        if (name_bytes <= length - 4)
            path.assign(reinterpret_cast<const wchar_t*>(info.data() + 4), name_bytes / sizeof(wchar_t));
    }
    return path;
}

bool set_privilege(HANDLE token, const char* privilege, bool enable, const char* log_fn) {
    const char* const fn = log_fn;
    LUID luid{};
    if (!LookupPrivilegeValueA(nullptr, privilege, &luid)) {
        NV_LOG(fn, "LookupPrivilegeValue error: %u\n", static_cast<unsigned>(GetLastError()));
        return false;
    }
    TOKEN_PRIVILEGES tp{};
    tp.PrivilegeCount = 1;
    tp.Privileges[0].Luid = luid;
    tp.Privileges[0].Attributes = enable ? SE_PRIVILEGE_ENABLED : 0;
    if (!AdjustTokenPrivileges(token, FALSE, &tp, sizeof(tp), nullptr, nullptr)) {
        NV_LOG(fn, "AdjustTokenPrivileges error: %u\n", static_cast<unsigned>(GetLastError()));
        return false;
    }
    if (GetLastError() == ERROR_NOT_ALL_ASSIGNED) {
        NV_LOG(fn, "The token does not have the specified privilege. \n");
        return false;
    }
    return true;
}

bool take_ownership(HANDLE token, HKEY root, const std::string& key) {
    constexpr const char* fn = "mcl::mswin::reg::take_ownership";
    if (!set_privilege(token, SE_TAKE_OWNERSHIP_NAME, true)) {
        NV_LOG(fn, "reg error: Could not set SE_TAKE_OWNERSHIP_NAME - %d", static_cast<int>(GetLastError()));
        return false;
    }
    bool ok = false;
    if (!set_privilege(token, SE_RESTORE_NAME, true)) {
        NV_LOG(fn, "reg error: Could not set SE_RESTORE_NAME - %d", static_cast<int>(GetLastError()));
    } else {
        const std::vector<BYTE> user = token_user(token);
        SECURITY_DESCRIPTOR sd{};
        unique_reg_key handle;
        LONG rc = ERROR_SUCCESS;
        if (user.empty()) {
            NV_LOG(fn, "reg error: Error allocating ptiUser");
        } else if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION)) {
            NV_LOG(fn, "reg error: Error initializing SD - %d", static_cast<int>(GetLastError()));
        } else if (!SetSecurityDescriptorOwner(&sd, reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid,
                                               FALSE)) {
            NV_LOG(fn, "reg error: Error setting SD owner - %d", static_cast<int>(GetLastError()));
        } else if ((rc = open_key(root, key, WRITE_OWNER, handle)) != ERROR_SUCCESS) {
            NV_LOG(fn, "reg error: Error opening key <%s> to set ownership - %d", key.c_str(), static_cast<int>(rc));
        } else if ((rc = RegSetKeySecurity(handle.get(), OWNER_SECURITY_INFORMATION, &sd)) != ERROR_SUCCESS) {
            NV_LOG(fn, "reg error: Could not set key <%s> ownership - %d", key.c_str(), static_cast<int>(rc));
        } else {
            ok = true;
        }
        if (!set_privilege(token, SE_RESTORE_NAME, false))
            NV_LOG(fn, "reg error: Failed to reset SE_RESTORE_NAME - %d", static_cast<int>(GetLastError()));
    }
    if (!set_privilege(token, SE_TAKE_OWNERSHIP_NAME, false))
        NV_LOG(fn, "reg error: Failed to reset SE_TAKE_OWNERSHIP_NAME - %d", static_cast<int>(GetLastError()));
    return ok;
}

bool reset_full_access(HANDLE token, HKEY root, const std::string& key) {
    constexpr const char* fn = "mcl::mswin::reg::reset_full_access";
    const std::vector<BYTE> user = token_user(token);
    PSID sid = user.empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid;
    const DWORD size = sid == nullptr ? 0 : sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) + GetLengthSid(sid);
    unique_local<PACL> acl(size == 0 ? nullptr : static_cast<PACL>(LocalAlloc(LPTR, size)));
    if (!acl) {
        NV_LOG(fn, "reg error: Error allocating pDACL");
        return false;
    }
    PACL dacl = acl.get();
    if (!InitializeAcl(dacl, size, ACL_REVISION)) {
        NV_LOG(fn, "reg error: Error initializing ACL - %d", static_cast<int>(GetLastError()));
        return false;
    }
    if (!AddAccessAllowedAce(dacl, ACL_REVISION, KEY_ALL_ACCESS, sid)) {
        NV_LOG(fn, "reg error: Error adding ACE - %d", static_cast<int>(GetLastError()));
        return false;
    }
    unique_reg_key handle;
    LONG rc = open_key(root, key, WRITE_DAC, handle);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "reg error: Error opening key <%s> to set DACL - %d", key.c_str(), static_cast<int>(rc));
        return false;
    }
    SECURITY_DESCRIPTOR sd{};
    if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION)) {
        NV_LOG(fn, "reg error: Error initializing SD - %d", static_cast<int>(GetLastError()));
        return false;
    }
    if (!SetSecurityDescriptorDacl(&sd, TRUE, dacl, FALSE)) {
        NV_LOG(fn, "reg error: Error setting SD DACL - %d", static_cast<int>(GetLastError()));
        return false;
    }
    rc = RegSetKeySecurity(handle.get(), DACL_SECURITY_INFORMATION, &sd);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "reg error: Could not set key <%s> DACL - %d", key.c_str(), static_cast<int>(rc));
        return false;
    }
    return true;
}

bool force_remove(HKEY root, const std::string& key) {
    constexpr const char* fn = "mcl::mswin::reg::force_remove";
    unique_kernel_handle token;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.put())) {
        NV_LOG(fn, "reg error: Failed to get the current process token - %d", static_cast<int>(GetLastError()));
        return false;
    }
    if (!force_remove_subkeys(root, key)) return false;
    LONG rc = delete_key(root, key);
    // A key whose DACL denies us may also have hidden its subkeys: once it is ours again, they
    // are listed and removed before the last attempt.
    if (rc != ERROR_SUCCESS && take_ownership(token.get(), root, key) &&
        reset_full_access(token.get(), root, key) && force_remove_subkeys(root, key))
        rc = delete_key(root, key);
    if (rc != ERROR_SUCCESS) {
        NV_LOG(fn, "Failed to remove reg key <%s> : %d", key.c_str(), static_cast<int>(rc));
        return false;
    }
    return true;
}

}  // namespace mcl::mswin::reg
