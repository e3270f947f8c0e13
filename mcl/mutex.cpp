#include "mcl/mutex.h"

#include "mcl/error_text.h"
#include "mcl/event.h"
#include "mcl/log.h"

namespace mcl {

mutex::~mutex() {
    if (acquired_) (void)release();
    close();
}

void mutex::close() {
    if (handle_ != nullptr && !imported_) CloseHandle(handle_);
    handle_ = nullptr;
    acquired_ = false;
    security_.reset();
}

int mutex::create(const char* name, const bool* inherit, PSECURITY_DESCRIPTOR security) {
    if (imported_) {
        NV_LOG("mcl::mutex::create", "Re-create mutex is not supported, this is imported mutex");
        return -1;
    }
    if (handle_ != nullptr) {
        NV_LOG("mcl::mutex::create", "Re-create mutex is not supported, the mutex has already been created");
        return -2;
    }
    SECURITY_ATTRIBUTES* sa = nullptr;
    if (security == nullptr && inherit != nullptr) {
        security_ = make_null_dacl_descriptor();
        if (!security_) {
            NV_LOG("mcl::mutex::create", "Failed to create security descriptor");
            return -1;
        }
        security = security_.get();
    }
    if (security != nullptr) {
        attributes_.nLength = sizeof(attributes_);
        attributes_.lpSecurityDescriptor = security;
        attributes_.bInheritHandle = inherit != nullptr && *inherit ? TRUE : FALSE;
        sa = &attributes_;
    }
    HANDLE h = CreateMutexA(sa, FALSE, name);
    const DWORD err = GetLastError();
    attributes_.lpSecurityDescriptor = security_.get();  // the caller's descriptor was for this call
    if (err == ERROR_ALREADY_EXISTS || err == ERROR_ACCESS_DENIED) {
        if (h != nullptr) CloseHandle(h);
        return -2;
    }
    if (h == nullptr) {
        NV_LOG("mcl::mutex::create", "Failed to create mutex, error [%d:%s]", static_cast<int>(err), error_text(err).c_str());
        return -1;
    }
    handle_ = h;
    return 0;
}

int mutex::open(const char* name) {
    if (handle_ != nullptr) {
        NV_LOG("mcl::mutex::open", "Mutex has already be opened");
        return 0;
    }
    HANDLE h = OpenMutexA(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name);
    if (h == nullptr) {
        const DWORD err = GetLastError();
        NV_LOG("mcl::mutex::open", "Failed to open mutex \"%s\", error [%d:%s]", name, static_cast<int>(err),
               error_text(err).c_str());
        SetLastError(err);  // for the caller, after the log's own calls
        return -1;
    }
    handle_ = h;
    return 0;
}

int mutex::acquire(DWORD milliseconds) {
    if (handle_ == nullptr) return -3;
    if (acquired_) return 0;
    switch (WaitForSingleObject(handle_, milliseconds)) {
    case WAIT_OBJECT_0:
        acquired_ = true;
        return 0;
    case WAIT_TIMEOUT:
        NV_LOG("mcl::mutex::acquire", "Time-out when accquiring the mutex");
        return -1;
    case WAIT_ABANDONED:
        // The system hands an abandoned mutex to the waiter; give it back, we report failure.
        ReleaseMutex(handle_);
        return -1;
    default: {
        const DWORD err = GetLastError();
        NV_LOG("mcl::mutex::acquire", "Failed to accquire the mutex, error [%d:%s]", static_cast<int>(err),
               error_text(err).c_str());
        return -1;
    }
    }
}

int mutex::acquire_step(DWORD milliseconds) {
    if (handle_ == nullptr) return -3;
    if (acquired_) return 0;
    const DWORD r = WaitForSingleObject(handle_, milliseconds);
    if (r == WAIT_TIMEOUT) return 1;
    if (r == WAIT_OBJECT_0 || r == WAIT_ABANDONED) {
        acquired_ = true;
        return 0;
    }
    const DWORD err = GetLastError();
    NV_LOG("mcl::mutex::acquire", "Failed to accquire the mutex, error [%d:%s]", static_cast<int>(err),
           error_text(err).c_str());
    return -1;
}

int mutex::release() {
    if (handle_ == nullptr) return -3;
    if (!acquired_) return 0;
    if (!ReleaseMutex(handle_)) {
        const DWORD err = GetLastError();
        NV_LOG("mcl::mutex::release", "Failed to release the mutex, error [%d:%s]", static_cast<int>(err),
               error_text(err).c_str());
        return -1;
    }
    acquired_ = false;
    return 0;
}

}  // namespace mcl
