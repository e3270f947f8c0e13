#include "mcl/mswin/filter_library.h"

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

std::wstring error_text(HRESULT hr) {
    wchar_t text[MAX_PATH] = {};
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(hr), 0, text, MAX_PATH, nullptr);
    if (n == 0) {
        std::wstring library;
        if (mcl::mswin::system_directory(library) && (library += L"\\fltlib.dll").size() <= MAX_PATH) {
            HMODULE module = LoadLibraryExW(library.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
            if (module != nullptr) {
                n = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, module,
                                   static_cast<DWORD>(hr), 0, text, MAX_PATH, nullptr);
                FreeLibrary(module);
            }
        }
    }
    if (n == 0) return L"Could not translate error: " + std::to_wstring(static_cast<int>(hr));
    std::wstring out(text, n);
    while (!out.empty() && (out.back() == L'\n' || out.back() == L'\r' || out.back() == L' ')) out.pop_back();
    return out;
}

}  // namespace filter_library
