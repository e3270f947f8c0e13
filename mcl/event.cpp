#include "mcl/event.h"

namespace mcl {

void* make_null_dacl_descriptor() {
    void* sd = LocalAlloc(LPTR, SECURITY_DESCRIPTOR_MIN_LENGTH);
    if (sd == nullptr) return nullptr;
    if (!InitializeSecurityDescriptor(sd, SECURITY_DESCRIPTOR_REVISION) ||
        !SetSecurityDescriptorDacl(sd, TRUE, nullptr, FALSE)) {
        LocalFree(sd);
        return nullptr;
    }
    return sd;
}

bool event::create_unnamed(bool manual_reset, bool initially_set) {
    if (handle_ != nullptr) return false;
    handle_ = CreateEventA(nullptr, manual_reset ? TRUE : FALSE, initially_set ? TRUE : FALSE, nullptr);
    not_owned_ = false;
    return handle_ != nullptr;
}

int event::create(const char* name) {
    if (handle_ != nullptr) return -1;
    if (security_ != nullptr) LocalFree(security_);
    security_ = make_null_dacl_descriptor();
    if (security_ == nullptr) return -1;
    attributes_.nLength = sizeof(attributes_);
    attributes_.lpSecurityDescriptor = security_;
    attributes_.bInheritHandle = FALSE;
    handle_ = CreateEventA(&attributes_, TRUE, FALSE, name);
    const DWORD err = GetLastError();
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
    if (security_ != nullptr) {
        LocalFree(security_);
        security_ = nullptr;
    }
}

}  // namespace mcl
