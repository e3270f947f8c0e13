#include "service/filter_library.h"

#include <string>

#include "mcl/mswin/process.h"

namespace filter_library {
namespace {

template <typename Fn>
Fn lookup(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

entry_points load_entry_points() {
    entry_points e;
    std::wstring path;
    if (!mcl::mswin::system_directory(path)) {
        e.load_error = HRESULT_FROM_WIN32(GetLastError());
        return e;
    }
    if (path.back() != L'\\') path += L'\\';
    path += L"fltlib.dll";
    // A full path is never searched for; LOAD_WITH_ALTERED_SEARCH_PATH makes the library's own
    // dependencies resolve from its folder too.
    HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (module == nullptr) {
        e.load_error = HRESULT_FROM_WIN32(GetLastError());
        return e;
    }
    e.connect = lookup<connect_fn>(module, "FilterConnectCommunicationPort");
    e.send = lookup<send_fn>(module, "FilterSendMessage");
    e.get_message = lookup<get_fn>(module, "FilterGetMessage");
    e.attach = lookup<attach_fn>(module, "FilterAttach");
    e.detach = lookup<detach_fn>(module, "FilterDetach");
    e.load = lookup<load_fn>(module, "FilterLoad");
    e.unload = lookup<load_fn>(module, "FilterUnload");
    return e;
}

}  // namespace

const entry_points& get() {
    static const entry_points loaded = load_entry_points();
    return loaded;
}

}  // namespace filter_library
