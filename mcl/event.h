// An owned Windows event. Events of the IPC layer are manual-reset and start non-signalled;
// named ones get the security descriptor their owner gives, by default one with a NULL DACL so
// that any process may use them.
#pragma once

#include <windows.h>

#include "mcl/mswin/unique_handle.h"

namespace mcl {

class event {
public:
    event() = default;
    event(const event&) = delete;
    event& operator=(const event&) = delete;
    ~event() { close(); }

    // An unnamed event with default security. False when the holder has one already or the
    // system refuses.
    bool create_unnamed(bool manual_reset = true, bool initially_set = false);
    // A named, manual-reset, non-signalled event, not inheritable, with `security` (used during
    // the call only) or, when that is null, a NULL DACL. 0 created; -2 the name existed and its
    // handle is held now; -1 failure (GetLastError() tells why) or a handle is held already.
    int create(const char* name, PSECURITY_DESCRIPTOR security = nullptr);
    // Uses a handle made elsewhere; with owned false the destructor leaves it open.
    void attach(HANDLE handle, bool owned);
    void close();

    HANDLE get() const { return handle_; }
    bool valid() const { return handle_ != nullptr; }
    bool set() const { return handle_ != nullptr && SetEvent(handle_) != FALSE; }
    bool reset() const { return handle_ != nullptr && ResetEvent(handle_) != FALSE; }
    bool is_set() const { return handle_ != nullptr && WaitForSingleObject(handle_, 0) == WAIT_OBJECT_0; }

private:
    HANDLE handle_ = nullptr;
    bool not_owned_ = false;
    mswin::unique_local<PSECURITY_DESCRIPTOR> security_;  // for named creation
    SECURITY_ATTRIBUTES attributes_{};
};

// Builds a security descriptor whose DACL is present and NULL (everyone has full access).
// Returns LocalAlloc memory, or null on failure.
mswin::unique_local<PSECURITY_DESCRIPTOR> make_null_dacl_descriptor();

}  // namespace mcl
