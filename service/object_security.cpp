// Windows' object security for files, folders and services.
#include "service/object_security.h"

#include "mcl/log.h"
#include "mcl/mswin/service.h"

using mcl::mswin::security_descriptor;

object_security::chooser object_security::chooser_ = nullptr;

DWORD object_security::get_file_dacl(const std::wstring& path, security_descriptor& descriptor) {
    return descriptor.read_file_dacl(path);
}

DWORD object_security::set_file_dacl(const std::wstring& path, PACL dacl, bool protect) {
    return security_descriptor::write_file_dacl(path, dacl, protect);
}

DWORD object_security::get_handle_dacl(HANDLE file, security_descriptor& descriptor) {
    return descriptor.read_handle_dacl(file);
}

DWORD object_security::set_handle_dacl(HANDLE file, PACL dacl, bool protect) {
    return security_descriptor::write_handle_dacl(file, dacl, protect);
}

bool object_security::set_file_sddl(const char* fn, const std::wstring& path, const char* sddl, DWORD& err) {
    err = ERROR_SUCCESS;
    security_descriptor descriptor;
    if (!security_descriptor::from_sddl(sddl, descriptor)) {
        NV_LOG(fn, "ConvertStringSecurityDescriptorToSecurityDescriptor failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    PACL dacl = nullptr;
    if (!descriptor.get_dacl(&dacl)) {
        NV_LOG(fn, "GetSecurityDescriptorDacl failed(%d)\n", static_cast<int>(GetLastError()));
        return false;
    }
    // A DACL that was protected goes back protected: it must not start inheriting.
    err = set_file_dacl(path, dacl, descriptor.dacl_protected());
    return err == ERROR_SUCCESS;
}

DWORD object_security::set_file_owner(const std::wstring& path, PSID owner) {
    return security_descriptor::write_file_owner(path, owner);
}

DWORD object_security::get_service_dacl(const std::string& name, security_descriptor& descriptor) {
    return descriptor.read_service_dacl(name);
}

bool object_security::set_service_dacl(const std::string& name, PACL dacl) {
    return mcl::mswin::service::set_dacl(name.c_str(), dacl);
}

bool object_security::set_service_sddl(const std::string& name, const char* sddl) {
    return mcl::mswin::service::set_dacl_str(name.c_str(), sddl);
}

void object_security::set_chooser(chooser choose) { chooser_ = choose; }

object_security& object_security::current() {
    // Built once, never destroyed: threads may still ask while the process ends.
    static object_security* const chosen = [] {
        object_security* picked = chooser_ != nullptr ? chooser_() : nullptr;
        return picked != nullptr ? picked : new object_security();
    }();
    return *chosen;
}
