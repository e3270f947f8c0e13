// The DACLs of files, folders and services: the one place where the service reads and writes
// their security. Registry keys are not here (mcl::mswin::reg handles their security).
//
// Windows stores and enforces these DACLs. A program built for tests may install another
// implementation (a recorder that keeps what each write gave, where the system it runs on keeps
// nothing) through set_chooser before the program starts; the product installs none.
#pragma once

#include <windows.h>

#include <string>

#include "mcl/mswin/security_descriptor.h"

class object_security {
public:
    virtual ~object_security() = default;

    // The DACL of a file or folder (GetNamedSecurityInfoW) into `descriptor`. The Win32 code.
    virtual DWORD get_file_dacl(const std::wstring& path, mcl::mswin::security_descriptor& descriptor);
    // SetNamedSecurityInfoW with the DACL, marked protected (nothing inherited from the parent) or
    // unprotected (the parent's inheritable ACEs apply again). The Win32 code.
    virtual DWORD set_file_dacl(const std::wstring& path, PACL dacl, bool protect);
    // The DACL of an open file or folder (GetSecurityInfo; the handle needs READ_CONTROL), as
    // get_file_dacl.
    virtual DWORD get_handle_dacl(HANDLE file, mcl::mswin::security_descriptor& descriptor);
    // SetSecurityInfo on an open file or folder (the handle needs WRITE_DAC), as set_file_dacl.
    virtual DWORD set_handle_dacl(HANDLE file, PACL dacl, bool protect);
    // The DACL of an SDDL text written with set_file_dacl, protected when the text says so
    // ("D:P..."), else unprotected. A text that does not
    // convert is logged under `fn` and gives false with `err` ERROR_SUCCESS; a refused write gives
    // false with its Win32 code in `err`, for the caller's line.
    bool set_file_sddl(const char* fn, const std::wstring& path, const char* sddl, DWORD& err);
    // SetNamedSecurityInfoW with the owner of a file or folder. The Win32 code.
    virtual DWORD set_file_owner(const std::wstring& path, PSID owner);
    // The DACL of a service (GetNamedSecurityInfoA, SE_SERVICE), as get_file_dacl.
    virtual DWORD get_service_dacl(const std::string& name, mcl::mswin::security_descriptor& descriptor);
    // Replace a service's DACL (protected); the service wrapper's helpers, which log failures.
    virtual bool set_service_dacl(const std::string& name, PACL dacl);
    virtual bool set_service_sddl(const std::string& name, const char* sddl);

    // How the first current() call picks the implementation: the chooser's, when one is set and
    // returns one, else Windows'. Set it before any thread asks.
    using chooser = object_security* (*)();
    static void set_chooser(chooser choose);
    // The implementation in use, chosen on the first call. Any thread.
    static object_security& current();

private:
    static chooser chooser_;
};
