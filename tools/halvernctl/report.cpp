#include "tools/halvernctl/report.h"

#include <windows.h>

#include "tools/json_text.h"

namespace halvernctl {

namespace {

std::wstring ansi_to_wide(const std::string& s) {
    if (s.empty()) return {};
    const int n = MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
    std::wstring w(static_cast<size_t>(n > 0 ? n : 0), L'\0');
    if (n > 0) MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), &w[0], n);
    return w;
}

std::string wide_to(UINT code_page, const std::wstring& w) {
    if (w.empty()) return {};
    const int n = WideCharToMultiByte(code_page, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) WideCharToMultiByte(code_page, 0, w.data(), static_cast<int>(w.size()), &s[0], n, nullptr, nullptr);
    return s;
}

std::string text_of(const value& v) {
    switch (v.kind) {
    case value::number: return std::to_string(v.integer);
    case value::flag: return v.boolean ? "yes" : "no";
    default: return v.string;
    }
}

std::string json_of(const value& v) {
    switch (v.kind) {
    case value::number: return std::to_string(v.integer);
    case value::flag: return v.boolean ? "true" : "false";
    default: return json_string(v.string);
    }
}

void append_object(std::string& out, const fields& f, bool first) {
    for (const auto& [key, v] : f) {
        if (!first) out += ",";
        first = false;
        out += json_string(key) + ":" + json_of(v);
    }
}

}  // namespace

value value::of(const std::wstring& s) { return value::of(wide_to(CP_ACP, s)); }

std::string json_string(const std::string& ansi) {
    std::string out;
    json_text::append_string(out, ansi_to_wide(ansi));
    return out;
}

std::string to_text(const report& r) {
    std::string out;
    for (const auto& [key, v] : r.top) out += key + ": " + text_of(v) + "\n";
    for (const fields& item : r.items) {
        if (item.size() == 1) {
            out += text_of(item.front().second) + "\n";
            continue;
        }
        std::string line;
        for (const auto& [key, v] : item) line += (line.empty() ? "" : "  ") + key + "=" + text_of(v);
        out += line + "\n";
    }
    if (!r.items_name.empty() && r.items.empty()) out += "(no " + r.items_name + ")\n";
    return out;
}

std::string to_json(const report& r) {
    std::string out = "{\"command\":" + json_string(r.command);
    append_object(out, r.top, false);
    if (!r.items_name.empty()) {
        out += "," + json_string(r.items_name) + ":[";
        for (size_t i = 0; i < r.items.size(); ++i) {
            out += i == 0 ? "{" : ",{";
            append_object(out, r.items[i], true);
            out += "}";
        }
        out += "]";
    }
    return out + "}\n";
}

}  // namespace halvernctl
