#include "mcl/event.h"

namespace mcl {

mswin::unique_local<PSECURITY_DESCRIPTOR> make_null_dacl_descriptor() {
    mswin::unique_local<PSECURITY_DESCRIPTOR> sd(LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH));
    if (!sd) return sd;
    if (!InitializeSecurityDescriptor(sd.get(), SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(sd.get(), TRUE, nullptr, FALSE))
        sd.reset();
    return sd;
}

bool event::create_unnamed(bool manual_reset, bool initially_set) {
    if (handle_ != nullptr) return false;
    handle_ = CreateEventA(nullptr, manual_reset ? TRUE : FALSE, initially_set ? TRUE : FALSE, nullptr);
    not_owned_ = false;
    return handle_ != nullptr;
}

int event::create(const char* name, PSECURITY_DESCRIPTOR security) {
    if (handle_ != nullptr) return -1;
    if (security == nullptr) {
        security_ = make_null_dacl_descriptor();
        if (!security_) return -1;
        security = security_.get();
    }
    attributes_.nLength = sizeof(attributes_);
    attributes_.lpSecurityDescriptor = security;
    attributes_.bInheritHandle = FALSE;
    handle_ = CreateEventA(&attributes_, TRUE, FALSE, name);
    const DWORD err = GetLastError();
    attributes_.lpSecurityDescriptor = security_.get();  // the caller's descriptor was for this call
    not_owned_ = false;
    if (handle_ == nullptr) return -1;
    return err == ERROR_ALREADY_EXISTS ? -2 : 0;
}

void event::attach(HANDLE handle, bool owned) {
    close();
    handle_ = handle;
    not_owned_ = !owned;
}

void event::close() {
    if (handle_ != nullptr && !not_owned_) CloseHandle(handle_);
    handle_ = nullptr;
    not_owned_ = false;
    security_.reset();
}

}  // namespace mcl
