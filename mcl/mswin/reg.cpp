// Registry values, enumeration and removal.
#include "mcl/mswin/reg.h"

#include <vector>

#include "mcl/log.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"

namespace mcl::mswin::reg {

namespace {

// RegEnumKeyA / RegEnumValueA over every index, until the end or the first failure. The buffer
// holds the longest value name the registry allows (key names are shorter still), so that every
// name written can be read back. A key deleted meanwhile (ERROR_KEY_DELETED) ends the list with
// what was read.
template <typename Enumerate>
bool collect_names(HKEY handle, std::vector<std::string>& names, Enumerate enumerate) {
    constexpr DWORD longest_name = 16383;
    const size_t before = names.size();
    std::vector<char> name(longest_name + 1);
    for (DWORD index = 0;; ++index) {
        const LONG rc = enumerate(handle, index, name.data(), static_cast<DWORD>(name.size()));
        if (rc == ERROR_SUCCESS) {
            names.emplace_back(name.data());
            continue;
        }
        if (rc != ERROR_NO_MORE_ITEMS)
            NV_LOG("mcl::mswin::reg::collect_names", "Failed to enumerate a reg key at index %lu: %d",
                   static_cast<unsigned long>(index), static_cast<int>(rc));
        break;
    }
    return names.size() > before;
}

}  // namespace

LONG open_key(HKEY root, const std::string& key, REGSAM access, unique_reg_key& handle) {
    return RegOpenKeyExW(root, widen(key).c_str(), 0, access, handle.put());
}

LONG create_key(HKEY root, const std::string& key, REGSAM access, unique_reg_key& handle) {
    return RegCreateKeyExW(root, widen(key).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, access, nullptr,
                           handle.put(), nullptr);
}

LONG delete_key(HKEY root, const std::string& key) { return RegDeleteKeyW(root, widen(key).c_str()); }

bool list_subkeys(HKEY key, std::vector<std::string>& names) {
    return collect_names(key, names, [](HKEY h, DWORD index, char* name, DWORD size) {
        return RegEnumKeyA(h, index, name, size);
    });
}

bool list_values(HKEY key, std::vector<std::string>& names) {
    return collect_names(key, names, [](HKEY h, DWORD index, char* name, DWORD size) {
        return RegEnumValueA(h, index, name, &size, nullptr, nullptr, nullptr, nullptr);
    });
}

bool list_subkeys(HKEY root, const std::string& key, std::vector<std::string>& names) {
    unique_reg_key handle;
    return open_key(root, key, KEY_READ, handle) == ERROR_SUCCESS &&
           list_subkeys(handle.get(), names);
}

bool list_values(const std::string& key, std::vector<std::string>& names) {
    unique_reg_key handle;
    return open_key(HKEY_LOCAL_MACHINE, key, KEY_READ, handle) == ERROR_SUCCESS &&
           list_values(handle.get(), names);
}

bool for_each_subkey(HKEY root, const std::string& key, const std::function<bool(const std::string&)>& visit) {
    std::vector<std::string> subkeys;
    list_subkeys(root, key, subkeys);
    for (const std::string& sub : subkeys)
        if (!visit(key + "\\" + sub)) return false;
    return true;
}

bool read_value(const std::string& key, const char* name, binary_t& data) {
    unique_reg_key handle;
    return open_key(HKEY_LOCAL_MACHINE, key, KEY_READ, handle) == ERROR_SUCCESS && read_value(handle.get(), name, data);
}

bool read_value(HKEY key, const char* name, binary_t& data) {
    binary_t bytes;
    DWORD size = 512;
    bytes.write_at(0, nullptr, size);
    LONG rc = RegQueryValueExA(key, name, nullptr, nullptr, bytes.data(), &size);
    if (rc == ERROR_MORE_DATA) {
        bytes.clear();
        bytes.write_at(0, nullptr, size);
        if (bytes.size() != size) return false;
        rc = RegQueryValueExA(key, name, nullptr, nullptr, bytes.data(), &size);
    }
    if (rc != ERROR_SUCCESS) return false;
    data.assign(bytes.data(), size);
    return true;
}

bool read_dword(const std::string& key, const char* name, uint32_t& value) {
    binary_t data;
    if (!read_value(key, name, data) || data.size() < 4) return false;
    memcpy(&value, data.data(), 4);
    return true;
}

bool read_string(const std::string& key, const char* name, std::string& value) {
    binary_t data;
    if (!read_value(key, name, data)) return false;
    const char* text = reinterpret_cast<const char*>(data.data());
    value.assign(text, strnlen(text, data.size()));
    return true;
}

bool read_string_list(const std::string& key, const char* name, std::vector<std::string>& values) {
    binary_t data;
    if (!read_value(key, name, data)) return false;
    const char* p = reinterpret_cast<const char*>(data.data());
    const char* end = p + data.size();
    while (p < end) {
        const char* zero = static_cast<const char*>(memchr(p, 0, static_cast<size_t>(end - p)));
        const char* stop = zero != nullptr ? zero : end;
        if (stop != p) values.emplace_back(p, stop);
        p = stop + 1;
    }
    return true;
}

bool write_value(const std::string& key, const char* name, const void* data, DWORD size, DWORD type) {
    unique_reg_key handle;
    if (create_key(HKEY_LOCAL_MACHINE, key, KEY_ALL_ACCESS, handle) != ERROR_SUCCESS)
        return false;
    return RegSetValueExA(handle.get(), name, 0, type, static_cast<const BYTE*>(data), size) == ERROR_SUCCESS;
}

bool write_dword(const std::string& key, const char* name, uint32_t value) {
    return write_value(key, name, &value, 4, REG_DWORD);
}

bool write_string(const std::string& key, const char* name, const std::string& value) {
    return write_value(key, name, value.c_str(), static_cast<DWORD>(value.size() + 1), REG_SZ);
}

bool write_string_list(const std::string& key, const char* name, const std::vector<std::string>& values) {
    std::string joined;
    for (const std::string& v : values) joined.append(v.c_str(), v.size() + 1);
    joined.push_back('\0');
    return write_value(key, name, joined.data(), static_cast<DWORD>(joined.size()), REG_MULTI_SZ);
}

bool remove(HKEY root, const std::string& key, const char* value_name) {
    if (value_name != nullptr) {
        unique_reg_key handle;
        LONG rc = open_key(root, key, KEY_SET_VALUE, handle);
        if (rc != ERROR_SUCCESS) {
            NV_LOG("mcl::mswin::reg::remove", "Failed to open reg key <%s> to remove: %d", key.c_str(),
                   static_cast<int>(rc));
            return false;
        }
        rc = RegDeleteValueA(handle.get(), value_name);
        if (rc != ERROR_SUCCESS) {
            NV_LOG("mcl::mswin::reg::remove", "Failed to remove reg value <%s:%s>: %d", key.c_str(), value_name,
                   static_cast<int>(rc));
            return false;
        }
        return true;
    }
    if (!for_each_subkey(root, key, [root](const std::string& sub) { return remove(root, sub, nullptr); }))
        return false;
    const LONG rc = delete_key(root, key);
    if (rc != ERROR_SUCCESS) {
        NV_LOG("mcl::mswin::reg::remove", "Failed to remove reg key <%s> : %d", key.c_str(), static_cast<int>(rc));
        return false;
    }
    return true;
}

}  // namespace mcl::mswin::reg
