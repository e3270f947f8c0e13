// nv_regkey_probe: what the registry-key tests need from a second process.
//   sddl KEY                  the DACL of HKLM\KEY as SDDL (read through the owner's rights)
//   access KEY                "read=ok|denied write=ok|denied" for this process's token
//   lock KEY                  gives the key to SYSTEM until "unlock" (prints "locked"), so that
//                             a protected DACL leaves no one the right to write the DACL back
//   grant KEY                 adds full access for Administrators in front of the key's DACL
//   grant-own-keys            the same for each of the service's own keys that exists: stands in
//                             for the service SID that Wine's tokens lack, after a start-up has
//                             protected them, so the running service can write its own records
//   request ENTRY...          hex payload of request 0x100000b, one entry per argument
//                             "action|root-hex|path|owner|level|svc,svc"
//   keys HEX                  the reply of 0x100000c, one record per line
//   crash-protect PATH OWNER LEVEL
//                             protects HKLM\PATH as the service does and ends the process
//                             (exit code 9) between the record write and the DACL write
// Exit codes: 0 done, 1 usage, 2 the key cannot be read or written as asked.
#include <windows.h>

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/mswin/text.h"
#include "service/helper_service.h"

namespace {

// The DACL of an open key as SDDL, or empty.
std::string dacl_text(HKEY handle) {
    DWORD size = 0;
    RegGetKeySecurity(handle, DACL_SECURITY_INFORMATION, nullptr, &size);
    std::vector<BYTE> sd(size);
    char* text = nullptr;
    if (size == 0 || RegGetKeySecurity(handle, DACL_SECURITY_INFORMATION, sd.data(), &size) != ERROR_SUCCESS ||
        !ConvertSecurityDescriptorToStringSecurityDescriptorA(sd.data(), SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                             &text, nullptr))
        return std::string();
    std::string out(text);
    LocalFree(text);
    return out;
}

// Writes the parts `info` names of an SDDL text to an open key.
bool write_sddl(HKEY handle, SECURITY_INFORMATION info, const std::string& sddl) {
    PSECURITY_DESCRIPTOR sd = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl.c_str(), SDDL_REVISION_1, &sd, nullptr)) return false;
    const LONG rc = RegSetKeySecurity(handle, info, sd);
    LocalFree(sd);
    return rc == ERROR_SUCCESS;
}

std::string sddl_of(const char* key) {
    HKEY handle = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, READ_CONTROL, &handle) != ERROR_SUCCESS) return std::string();
    const std::string out = dacl_text(handle);
    RegCloseKey(handle);
    return out;
}

int access_of(const char* key) {
    HKEY handle = nullptr;
    const bool read = RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, &handle) == ERROR_SUCCESS;
    if (read) RegCloseKey(handle);
    bool write = RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, KEY_SET_VALUE, &handle) == ERROR_SUCCESS;
    if (write) {
        const DWORD one = 1;
        write = RegSetValueExA(handle, "nv_probe", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), 4) ==
                ERROR_SUCCESS;
        RegDeleteValueA(handle, "nv_probe");
        RegCloseKey(handle);
    }
    printf("read=%s write=%s\n", read ? "ok" : "denied", write ? "ok" : "denied");
    return 0;
}

// Gives HKLM\KEY to SYSTEM, so that only its DACL grants us (and the service) WRITE_DAC, and
// keeps a handle that can give it back: once "unlock" signals, Administrators own it again.
// The DACL is written along with the owner (alone, the owner would come with a default DACL).
// Prints "locked" when the owner is SYSTEM.
constexpr const char* unlock_event = "Global\\nv_regkey_probe_unlock";
bool set_owner(HKEY handle, const char* owner) {
    const std::string dacl = dacl_text(handle);
    return !dacl.empty() &&
           write_sddl(handle, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, std::string("O:") + owner + dacl);
}

int lock(const char* key) {
    HANDLE unlock = CreateEventA(nullptr, TRUE, FALSE, unlock_event);
    HKEY handle = nullptr;
    if (unlock == nullptr ||
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, WRITE_OWNER | WRITE_DAC | READ_CONTROL, &handle) != ERROR_SUCCESS ||
        !set_owner(handle, "SY"))
        return 2;
    printf("locked\n");
    fflush(stdout);
    WaitForSingleObject(unlock, 300000);
    const bool ok = set_owner(handle, "BA");
    RegCloseKey(handle);
    return ok ? 0 : 2;
}

int unlock() {
    HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, unlock_event);
    return event != nullptr && SetEvent(event) ? 0 : 2;
}

int grant(const char* key) {
    HKEY handle = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, key, 0, READ_CONTROL | WRITE_DAC, &handle) != ERROR_SUCCESS) return 2;
    std::string sddl = dacl_text(handle);
    const size_t at = sddl.find('(');
    const bool ok = !sddl.empty() &&
                    write_sddl(handle, DACL_SECURITY_INFORMATION,
                               sddl.insert(at == std::string::npos ? sddl.size() : at, "(A;;KA;;;BA)"));
    RegCloseKey(handle);
    return ok ? 0 : 2;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t end = text.find(sep, start);
        parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

// Field by field with the plain payload writers, so the service's own entry reader is checked
// against an independent encoder.
int request(int count, char** entries) {
    mcl::binary_t out;
    mcl::write_u32(out, static_cast<uint32_t>(count));
    for (int i = 0; i < count; ++i) {
        const std::vector<std::string> f = split(entries[i], '|');
        if (f.size() != 6) return 1;
        mcl::write_byte(out, static_cast<uint8_t>(atoi(f[0].c_str())));
        mcl::write_u64(out, strtoull(f[1].c_str(), nullptr, 16));
        mcl::write_wstring(out, mcl::mswin::widen(f[2]));
        mcl::write_string(out, f[3]);
        std::vector<std::string> services;
        if (!f[5].empty()) services = split(f[5], ',');
        mcl::write_string_list(out, services);
        mcl::write_u32(out, static_cast<uint32_t>(atoi(f[4].c_str())));
    }
    printf("%s\n", mcl::to_hex(out).c_str());
    return 0;
}

int keys(const char* hex) {
    mcl::binary_t in;
    for (size_t i = 0; hex[i] != 0 && hex[i + 1] != 0; i += 2) {
        const char pair[3] = {hex[i], hex[i + 1], 0};
        const unsigned char byte = static_cast<unsigned char>(strtoul(pair, nullptr, 16));
        in.append(&byte, 1);
    }
    uint32_t pos = 0, count = 0;
    if (!mcl::read_u32(count, in, pos)) return 2;
    printf("count=%u\n", count);
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t present = 0;
        std::string original, current, owner;
        uint64_t root = 0;
        std::wstring path;
        std::vector<std::string> services;
        if (!mcl::read_byte(present, in, pos) || !mcl::read_string(original, in, pos) ||
            !mcl::read_string(current, in, pos) || !mcl::read_u64(root, in, pos) || !mcl::read_wstring(path, in, pos) ||
            !mcl::read_string(owner, in, pos) || !mcl::read_string_list(services, in, pos))
            return 2;
        std::string joined;
        for (const std::string& s : services) joined += (joined.empty() ? "" : ",") + s;
        printf("%llu|%ls|%s|%s|%s|%s\n", static_cast<unsigned long long>(root), path.c_str(), owner.c_str(),
               joined.c_str(), original.c_str(), current.c_str());
    }
    return pos == in.size() ? 0 : 2;
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
    if (command == "sddl" && argc == 3) {
        const std::string sddl = sddl_of(argv[2]);
        if (sddl.empty()) return 2;
        printf("%s\n", sddl.c_str());
        return 0;
    }
    if (command == "access" && argc == 3) return access_of(argv[2]);
    if (command == "grant" && argc == 3) return grant(argv[2]);
    if (command == "lock" && argc == 3) return lock(argv[2]);
    if (command == "unlock" && argc == 2) return unlock();
    if (command == "grant-own-keys" && argc == 2) {
        int rc = 0;
        for (const char* key : chelperservice::own_reg_keys)
            if (grant(key) != 0) rc = 2;
        return rc;
    }
    if (command == "request") return request(argc - 2, argv + 2);
    if (command == "keys" && argc == 3) return keys(argv[2]);
    if (command == "crash-protect" && argc == 5) return crash_protect(argv[2], argv[3], argv[4]);
    fprintf(stderr, "usage: see the head of regkey_probe.cpp\n");
    return 1;
}
