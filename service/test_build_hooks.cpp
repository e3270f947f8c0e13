// What a test build of the service adds to the product: the object-security recorder and the
// archive damage, each switched on by a registry value under HKLM\Software\Norvale\NVClientHelper
// that only an administrator can write. The product executable does not contain this file, so it
// reads neither value; the test build (bin/hooks/NorvaleHalvernService.exe) links it in, and its
// static registration below installs both before the program starts.
//
// "ObjectSecurityJournal" (REG_SZ) names a journal file: this system does not keep the DACLs of
// files, folders and services, so the recorder keeps the DACL each write gave to each object,
// answers reads with it and appends one line per write. Journal: UTF-8 text, one line per object
// state, fields separated by tabs:
//   <kind> TAB <object> TAB <sddl> [TAB <aces>]
// kind is "file" or "service" with the DACL in SDDL form ("D:P(...)" when protected), or "owner"
// with the owner of a file or folder ("O:BA"); aces, written by the recorder only after a DACL,
// lists each ACE as type;flags;mask;sid (hexadecimal flags and mask) separated by blanks. At start
// the recorder reads the journal and the last line of each kind and object is that object's DACL
// or owner, so lines a test writes beforehand give objects their initial state, and a restarted
// service reads what it wrote before. Objects it has no line for are read from Windows. The
// recorder also keeps the owner of a file or folder: a test that gives one another owner
// beforehand sees the DACL write refused until ownership has been taken, as the system refuses it.
//
// "KillAtServiceDacl" (REG_SZ) names a service: the process ends (exit code 9) where it would
// write that service's DACL, as a kill at that moment would end it.
//
// "ArchiveVerifyFault" (REG_SZ) names a file name: a disk that returns other bytes than were
// written cannot be made here, so the archive of a source of that name gets one digest byte
// changed between writing and reading back.
//
// "ArchivePause" (REG_SZ) names a file name: after the archive of a source of that name is
// written, the service creates "<archive temporary>.paused" and waits while it exists (at most
// 60 s), so that a test can swap the source's folder between the archive and the delete.
//
// "DaclPause" (REG_SZ) names a file: a registry key protect, and a file or folder DACL write of
// the recorder, wait right before the write while that file exists (at most 60 s), so that a
// test can send other requests meanwhile.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/file.h"
#include "mcl/lock.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "mcl/thread.h"
#include "quarantine/archive_format.h"
#include "quarantine/quarantine_store.h"
#include "service/object_security.h"
#include "service/regkey_protection.h"

namespace {

using mcl::mswin::security_descriptor;
using mcl::mswin::unique_kernel_handle;

// "type;flags;mask;sid" for each ACE, separated by blanks.
std::string ace_list(PACL dacl) {
    std::string out;
    ACL_SIZE_INFORMATION info{};
    if (dacl == nullptr || !GetAclInformation(dacl, &info, sizeof(info), AclSizeInformation)) return out;
    for (DWORD i = 0; i < info.AceCount; ++i) {
        void* raw = nullptr;
        if (!GetAce(dacl, i, &raw)) break;
        const auto* ace = static_cast<const ACCESS_ALLOWED_ACE*>(raw);
        std::string sid = mcl::mswin::sid(const_cast<DWORD*>(&ace->SidStart)).to_string();
        if (sid.empty()) sid = "?";
        const BYTE type = ace->Header.AceType;
        char text[128];
        snprintf(text, sizeof(text), "%s;0x%02X;0x%08X;", type == ACCESS_ALLOWED_ACE_TYPE ? "A" : type == ACCESS_DENIED_ACE_TYPE ? "D" : "?",
                 static_cast<unsigned>(ace->Header.AceFlags), static_cast<unsigned>(ace->Mask));
        if (!out.empty()) out += ' ';
        out += text + sid;
    }
    return out;
}

// Whether the calling thread's token (the process token when it impersonates no one) holds the
// privilege enabled.
bool privilege_enabled(const char* name) {
    LUID luid{};
    unique_kernel_handle token;
    if (!LookupPrivilegeValueA(nullptr, name, &luid) ||
        (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, /*open_as_self=*/TRUE, token.put()) &&
         !OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())))
        return false;
    DWORD size = 0;
    (void)GetTokenInformation(token.get(), TokenPrivileges, nullptr, 0, &size);
    std::vector<BYTE> buffer(size);
    if (size == 0 || !GetTokenInformation(token.get(), TokenPrivileges, buffer.data(), size, &size)) return false;
    const auto* held = reinterpret_cast<const TOKEN_PRIVILEGES*>(buffer.data());
    for (DWORD i = 0; i < held->PrivilegeCount; ++i) {
        const LUID_AND_ATTRIBUTES& p = held->Privileges[i];
        if (p.Luid.LowPart == luid.LowPart && p.Luid.HighPart == luid.HighPart) return (p.Attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    return false;
}

constexpr const char* settings_key = "Software\\Norvale\\NVClientHelper";

// The text of one of the values above; empty when it is not set.
std::string setting(const char* name) {
    std::string text;
    (void)mcl::mswin::reg::read_string(settings_key, name, text);
    return text;
}

// Waits while `marker` exists, up to a minute; a stop of the service ends the wait, as it ends
// the work around it.
void wait_while_exists(const std::string& marker) {
    for (int i = 0; i < 1200 && GetFileAttributesA(marker.c_str()) != INVALID_FILE_ATTRIBUTES; ++i)
        if (!mcl::sleep_unless_stopped(50)) return;
}

// The "DaclPause" wait, before a DACL write.
void pause_dacl_write() {
    const std::string marker = setting("DaclPause");
    if (!marker.empty()) wait_while_exists(marker);
}

// Ends the process when "KillAtServiceDacl" names `service`.
void kill_if_named(const std::string& service) {
    if (!service.empty() && setting("KillAtServiceDacl") == service) TerminateProcess(GetCurrentProcess(), 9);
}

// Keeps each object's DACL as SDDL and journals every write.
class recorder : public object_security {
public:
    explicit recorder(std::string journal) : journal_(std::move(journal)) { load(); }

    DWORD get_file_dacl(const std::wstring& path, security_descriptor& descriptor) override {
        DWORD err = 0;
        if (read("file", mcl::mswin::to_utf8(path), descriptor, err)) return err;
        return object_security::get_file_dacl(path, descriptor);
    }
    DWORD set_file_dacl(const std::wstring& path, PACL dacl, bool protect) override {
        pause_dacl_write();
        // As the system: only an existing file or folder takes a DACL, and one that another
        // account owns (whose DACL keeps us out) refuses it until we own it.
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return GetLastError();
        const std::string object = mcl::mswin::to_utf8(path);
        if (foreign_owner(object)) return ERROR_ACCESS_DENIED;
        return record("file", object, dacl, protect) ? ERROR_SUCCESS : ERROR_INVALID_ACL;
    }
    // An open file is named by its final path, so a write through a handle is journalled under
    // the file it really reached.
    DWORD get_handle_dacl(HANDLE file, security_descriptor& descriptor) override {
        DWORD err = 0;
        if (read("file", handle_name(file), descriptor, err)) return err;
        return object_security::get_handle_dacl(file, descriptor);
    }
    DWORD set_handle_dacl(HANDLE file, PACL dacl, bool protect) override {
        const std::string object = handle_name(file);
        if (object.empty()) return GetLastError();
        if (foreign_owner(object)) return ERROR_ACCESS_DENIED;
        return record("file", object, dacl, protect) ? ERROR_SUCCESS : ERROR_INVALID_ACL;
    }
    DWORD set_file_owner(const std::wstring& path, PSID owner) override {
        // As the system: taking an object from another account needs SeTakeOwnershipPrivilege.
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return GetLastError();
        const std::string object = mcl::mswin::to_utf8(path);
        if (foreign_owner(object) && !privilege_enabled("SeTakeOwnershipPrivilege")) return ERROR_ACCESS_DENIED;
        SECURITY_DESCRIPTOR sd{};
        std::string sddl;
        if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) ||
            !SetSecurityDescriptorOwner(&sd, owner, FALSE) ||
            !mcl::mswin::descriptor_to_sddl(&sd, OWNER_SECURITY_INFORMATION, sddl))
            return ERROR_INVALID_OWNER;
        return append("owner", object, sddl, "") ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
    }
    DWORD get_service_dacl(const std::string& name, security_descriptor& descriptor) override {
        if (!mcl::mswin::service::is_service_installed(name.c_str())) return ERROR_SERVICE_DOES_NOT_EXIST;
        DWORD err = 0;
        if (read("service", name, descriptor, err)) return err;
        return object_security::get_service_dacl(name, descriptor);
    }
    bool set_service_dacl(const std::string& name, PACL dacl) override {
        if (!service_exists("object_security::set_service_dacl", name)) return false;
        kill_if_named(name);
        return record("service", name, dacl, /*protect=*/true);
    }
    bool set_service_sddl(const std::string& name, const char* sddl) override {
        if (!service_exists("object_security::set_service_sddl", name)) return false;
        kill_if_named(name);
        security_descriptor sd;
        PACL dacl = nullptr;
        if (!security_descriptor::from_sddl(sddl, sd) || !sd.get_dacl(&dacl)) return false;
        return record("service", name, dacl, /*protect=*/false);
    }

private:
    static bool service_exists(const char* fn, const std::string& name) {
        if (mcl::mswin::service::is_service_installed(name.c_str())) return true;
        NV_LOG(fn, "OpenServiceA failed (%d)\n", static_cast<int>(ERROR_SERVICE_DOES_NOT_EXIST));
        return false;
    }

    // "C:\dir\file" for an open file; empty when its final path cannot be read.
    static std::string handle_name(HANDLE file) {
        wchar_t buffer[1024];
        const DWORD n = GetFinalPathNameByHandleW(file, buffer, 1024, FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
        if (n == 0 || n >= 1024) return {};
        std::wstring path(buffer, n);
        if (path.compare(0, 4, L"\\\\?\\") == 0) path.erase(0, 4);
        return mcl::mswin::to_utf8(path);
    }

    static std::string key(const char* kind, const std::string& object) {
        return std::string(kind) + "\t" + mcl::mswin::lower_case(object);
    }

    void load() {
        FILE* f = fopen(journal_.c_str(), "rb");
        if (f == nullptr) return;
        char line[8192];
        while (fgets(line, sizeof(line), f) != nullptr) {
            std::string text(line);
            while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
            const size_t a = text.find('\t');
            const size_t b = a == std::string::npos ? a : text.find('\t', a + 1);
            if (b == std::string::npos) continue;
            const size_t c = text.find('\t', b + 1);
            dacls_[key(text.substr(0, a).c_str(), text.substr(a + 1, b - a - 1))] =
                text.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1);
        }
        fclose(f);
    }

    bool read(const char* kind, const std::string& object, security_descriptor& descriptor, DWORD& err) {
        mcl::scoped_lock guard(lock_);
        auto it = dacls_.find(key(kind, object));
        if (it == dacls_.end()) return false;
        security_descriptor sd;
        PACL found = nullptr;
        if (!security_descriptor::from_sddl(it->second.c_str(), sd) || !sd.get_dacl(&found)) {
            err = GetLastError();
            return true;
        }
        descriptor = std::move(sd);
        err = ERROR_SUCCESS;
        return true;
    }

    bool record(const char* kind, const std::string& object, PACL dacl, bool protect) {
        SECURITY_DESCRIPTOR sd{};
        std::string sddl;
        if (!InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) ||
            !SetSecurityDescriptorDacl(&sd, TRUE, dacl, FALSE) ||
            !SetSecurityDescriptorControl(&sd, SE_DACL_PROTECTED, protect ? SE_DACL_PROTECTED : 0) ||
            !mcl::mswin::descriptor_to_sddl(&sd, DACL_SECURITY_INFORMATION, sddl))
            return false;
        return append(kind, object, sddl, ace_list(dacl));
    }

    // Owned by neither Administrators nor the local system, the accounts the product runs as.
    bool foreign_owner(const std::string& object) {
        mcl::scoped_lock guard(lock_);
        auto it = dacls_.find(key("owner", object));
        return it != dacls_.end() && it->second != "O:BA" && it->second != "O:SY";
    }

    bool append(const char* kind, const std::string& object, const std::string& sddl, const std::string& aces) {
        mcl::scoped_lock guard(lock_);
        dacls_[key(kind, object)] = sddl;
        const std::string line = std::string(kind) + "\t" + object + "\t" + sddl + (aces.empty() ? "" : "\t" + aces) + "\n";
        FILE* f = fopen(journal_.c_str(), "ab");
        if (f == nullptr) return false;
        const bool ok = fwrite(line.data(), 1, line.size(), f) == line.size();
        return fclose(f) == 0 && ok;
    }

    std::string journal_;
    mcl::lock lock_;
    std::map<std::string, std::string> dacls_;  // kind TAB lower-cased object -> SDDL (DACL or owner)
};

object_security* choose() {
    const std::string journal = setting("ObjectSecurityJournal");
    if (!journal.empty()) {
        NV_LOG("object_security::current", "Object security is recorded to %s", journal.c_str());
        return new recorder(journal);
    }
    return nullptr;  // Windows' own
}

// Whether the REG_SZ `value` names `source`'s file name.
bool names_source(const char* value_name, const std::string& source) {
    const std::string name = setting(value_name);
    return !name.empty() && _stricmp(name.c_str(), source.c_str() + source.rfind('\\') + 1) == 0;
}

// Waits while "<temp>.paused" exists, once created here, when `source` is the one named.
void pause_named_archive(const std::string& source, const std::string& temp) {
    if (!names_source("ArchivePause", source)) return;
    const std::string paused = temp + ".paused";
    unique_kernel_handle marker(CreateFileA(paused.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    marker.reset();
    wait_while_exists(paused);
}

// The pause, then one digest byte of the temporary `temp` changed, each when `source`'s file name is
// the one its value names.
void on_archive_written(const std::string& source, const std::string& temp) {
    pause_named_archive(source, temp);
    if (!names_source("ArchiveVerifyFault", source)) return;
    mcl::unique_file file = mcl::open_file(temp.c_str(), "r+b");
    unsigned char byte = 0;
    if (file && fseek(file.get(), archive_hash_offset, SEEK_SET) == 0 && fread(&byte, 1, 1, file.get()) == 1 &&
        fseek(file.get(), archive_hash_offset, SEEK_SET) == 0) {
        byte ^= 0xFF;
        (void)fwrite(&byte, 1, 1, file.get());
    }
}

const bool installed = [] {
    object_security::set_chooser(&choose);
    quarantine_store::set_archive_written_hook(&on_archive_written);
    regProtector::dacl_write_seam = [](HKEY, const std::string&) { pause_dacl_write(); };
    return true;
}();

}  // namespace
