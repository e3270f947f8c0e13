// nv_regkey_probe: what the registry-key tests need from a second process (keys under HKLM).
//   sddl KEY...          each key's DACL as SDDL, one line each (read through the owner's rights)
//   access KEY...        "read=ok|denied write=ok|denied" for this process's token, one line each
//   grant KEY            adds full access for Administrators in front of the key's DACL
//   grant-own-keys       the same on each of the service's own keys: stands in for the service
//                        SID that Wine's tokens lack, so the running service can write its records
//   lock KEY             gives the key to SYSTEM until Global\nv_regkey_probe_unlock is set (prints
//                        "locked"): a protected DACL then leaves no one the right to write it back
//   crash-protect PATH OWNER LEVEL
//                        protects PATH as the service does and ends (exit code 9) between the
//                        record write and the DACL write
// Exit codes: 0 done, 1 usage, 2 the key cannot be read or written as asked.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mcl/mswin/reg.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/text.h"
#include "service/helper_service.h"

namespace {

using mcl::mswin::unique_reg_key;

std::string dacl_text(HKEY handle) {
    mcl::mswin::security_descriptor sd;
    return sd.read_key_dacl(handle) == ERROR_SUCCESS ? sd.dacl_sddl() : std::string();
}

bool write_sddl(HKEY handle, SECURITY_INFORMATION info, const std::string& sddl) {
    mcl::mswin::security_descriptor sd;
    return mcl::mswin::security_descriptor::from_sddl(sddl.c_str(), sd) &&
           RegSetKeySecurity(handle, info, sd.get()) == ERROR_SUCCESS;
}

// Null when the key cannot be opened with `access`.
unique_reg_key open(const char* key, REGSAM access) {
    unique_reg_key handle;
    (void)mcl::mswin::reg::open_key(HKEY_LOCAL_MACHINE, key, access, handle);
    return handle;
}

void print_access(const char* key) {
    const bool read = static_cast<bool>(open(key, KEY_READ));
    const unique_reg_key handle = open(key, KEY_SET_VALUE);
    const DWORD one = 1;
    const bool write = handle && RegSetValueExA(handle.get(), "nv_probe", 0, REG_DWORD,
                                                reinterpret_cast<const BYTE*>(&one), sizeof(one)) == ERROR_SUCCESS;
    if (write) RegDeleteValueA(handle.get(), "nv_probe");
    printf("read=%s write=%s\n", read ? "ok" : "denied", write ? "ok" : "denied");
}

// The DACL goes along with the owner: alone, the owner would come with a default DACL.
bool set_owner(HKEY handle, const char* owner) {
    const std::string dacl = dacl_text(handle);
    return !dacl.empty() &&
           write_sddl(handle, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, std::string("O:") + owner + dacl);
}

int lock(const char* key) {
    HANDLE unlock = CreateEventA(nullptr, TRUE, FALSE, "Global\\nv_regkey_probe_unlock");
    const unique_reg_key handle = open(key, WRITE_OWNER | WRITE_DAC | READ_CONTROL);
    if (unlock == nullptr || !handle || !set_owner(handle.get(), "SY")) return 2;
    printf("locked\n");
    fflush(stdout);
    WaitForSingleObject(unlock, 300000);
    return set_owner(handle.get(), "BA") ? 0 : 2;
}

int grant(const char* key) {
    const unique_reg_key handle = open(key, READ_CONTROL | WRITE_DAC);
    std::string sddl = handle ? dacl_text(handle.get()) : std::string();
    if (sddl.empty()) return 2;
    sddl.insert(std::min(sddl.find('('), sddl.size()), "(A;;KA;;;BA)");
    return write_sddl(handle.get(), DACL_SECURITY_INFORMATION, sddl) ? 0 : 2;
}

void end_here(HKEY, const std::string&) { TerminateProcess(GetCurrentProcess(), 9); }

int crash_protect(const char* path, const char* owner, const char* level) {
    reg_key_entry entry;
    entry.action = 1;
    entry.root = regkey::widen_root(regkey::hklm_root);
    entry.path = mcl::mswin::widen(path);
    entry.owner = owner;
    entry.level = static_cast<uint32_t>(atoi(level));
    regProtector::dacl_write_seam = end_here;
    reg_key_record record;
    (void)chelperservice::instance().protectRegKey(entry, record, /*persist=*/true);
    return 3;  // the seam was never reached
}

}  // namespace

int main(int argc, char** argv) {
    const std::string command = argc >= 2 ? argv[1] : "";
    if (command == "sddl" && argc >= 3) {
        for (int i = 2; i < argc; ++i) {
            const unique_reg_key handle = open(argv[i], READ_CONTROL);
            const std::string sddl = handle ? dacl_text(handle.get()) : std::string();
            if (sddl.empty()) return 2;
            printf("%s\n", sddl.c_str());
        }
        return 0;
    }
    if (command == "access" && argc >= 3) {
        for (int i = 2; i < argc; ++i) print_access(argv[i]);
        return 0;
    }
    if (command == "grant" && argc == 3) return grant(argv[2]);
    if (command == "lock" && argc == 3) return lock(argv[2]);
    if (command == "grant-own-keys" && argc == 2) {
        int rc = 0;
        for (const char* key : reg_key_protection::own_reg_keys)
            if (grant(key) != 0) rc = 2;
        return rc;
    }
    if (command == "crash-protect" && argc == 5) return crash_protect(argv[2], argv[3], argv[4]);
    fprintf(stderr, "usage: see the head of regkey_probe.cpp\n");
    return 1;
}
