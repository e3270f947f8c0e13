#include "service/caller_policy.h"

#include <cwchar>

#include "mcl/mswin/process.h"
#include "mcl/mswin/token.h"

caller_verdict judge_caller(HANDLE process, const std::vector<std::wstring>& trusted_folders) {
    if (process == nullptr) return caller_verdict::refused;
    const mcl::mswin::process_token token(process);
    if (token.user_is(WinLocalSystemSid)) return caller_verdict::local_system;
    if (token.member_of(WinBuiltinAdministratorsSid)) return caller_verdict::administrator;
    // Wide, as the system holds it: a narrow copy could map another folder's name onto a trusted one.
    std::wstring image;
    if (!mcl::mswin::query_process_image(process, image, /*capacity=*/32768)) image.clear();
    for (const std::wstring& folder : trusted_folders)
        if (image_in_folder(image, folder)) return caller_verdict::product_program;
    return caller_verdict::refused;
}

bool image_in_folder(const std::wstring& image, const std::wstring& folder) {
    if (folder.empty() || image.size() <= folder.size() + 1 || image[folder.size()] != L'\\') return false;
    return _wcsnicmp(image.c_str(), folder.c_str(), folder.size()) == 0;
}

const std::wstring& own_program_folder() {
    static const std::wstring folder = [] {
        std::wstring path(32768, L'\0');
        const DWORD n = GetModuleFileNameW(nullptr, &path[0], static_cast<DWORD>(path.size()));
        path.resize(n < path.size() ? n : 0);
        const size_t last = path.rfind(L'\\');
        return last == std::wstring::npos ? std::wstring() : path.substr(0, last);
    }();
    return folder;
}
