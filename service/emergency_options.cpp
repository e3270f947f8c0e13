#include "service/emergency_options.h"

#include <windows.h>

#include <cstring>

#include "mcl/buffer.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"

namespace {

namespace reg = mcl::mswin::reg;

// Reads the value and deletes it. False when it is not there.
bool take_value(const std::string& key, const char* name, mcl::binary_t& data) {
    if (!reg::read_value(key, name, data)) return false;
    (void)reg::remove(HKEY_LOCAL_MACHINE, key, name);
    return true;
}

bool take_string(const std::string& key, const char* name, std::string& value) {
    mcl::binary_t data;
    if (!take_value(key, name, data)) return false;
    const char* text = reinterpret_cast<const char*>(data.data());
    const void* zero = memchr(text, 0, data.size());
    value.assign(text, zero != nullptr ? static_cast<const char*>(zero) - text : data.size());
    return true;
}

// The first four bytes of the data (zero-padded when shorter).
bool take_dword(const std::string& key, const char* name, uint32_t& value) {
    mcl::binary_t data;
    if (!take_value(key, name, data)) return false;
    value = 0;
    memcpy(&value, data.data(), data.size() < 4 ? data.size() : 4);
    return true;
}

}  // namespace

emergency_start consume_emergency_options(const std::string& key, const emergency_actions& actions) {
    emergency_start start;
    std::string text;
    if (!take_string(key, "code", text)) {
        mcl::binary_t data;
        for (const char* option : {"uninstallService", "disableProtection", "serv", "fold"}) {
            if (!reg::read_value(key, option, data)) continue;
            NV_LOG("chelperservice::main", "Emergency options without a recovery code are left in place");
            break;
        }
        return start;
    }
    if (!(actions.check_code && actions.check_code(text))) return start;

    uint32_t number = 0;
    if (take_dword(key, "uninstallService", number)) {
        start.emergency = true;
        start.uninstall = number != 0;
    }
    if (take_dword(key, "disableProtection", number)) {
        start.emergency = true;
        start.disable = number != 0;
    }
    if (actions.unprotect_service && take_string(key, "serv", text)) {
        actions.unprotect_service(text);
        start.emergency = true;
    }
    if (actions.restore_folder && take_string(key, "fold", text)) {
        actions.restore_folder(mcl::mswin::widen(text));
        start.emergency = true;
    }
    return start;
}
