// What a halvernctl command shows: named fields and, for lists, items of named fields. The same
// report prints as text for people or as one JSON document for scripts.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace halvernctl {

struct value {
    enum kind_type { text, number, flag } kind = text;
    std::string string;  // text: in the ANSI code page
    uint64_t integer = 0;
    bool boolean = false;

    static value of(const std::string& s) { return value{text, s, 0, false}; }
    static value of(const std::wstring& s);
    static value of(uint64_t n) { return value{number, {}, n, false}; }
    static value of(bool b) { return value{flag, {}, 0, b}; }
};

using fields = std::vector<std::pair<std::string, value>>;

struct report {
    std::string command;
    fields top;
    std::string items_name;  // "services", "files"...; empty: no list
    std::vector<fields> items;

    void add(const std::string& key, value v) { top.emplace_back(key, std::move(v)); }
};

// Text: "key: value" per field; each item as one line of "key=value" pairs, or only its value
// when it has one field.
std::string to_text(const report& r);
// One JSON object: {"command":..., fields..., items_name: [...]}.
std::string to_json(const report& r);
// A JSON string literal of ANSI text (UTF-8 inside).
std::string json_string(const std::string& ansi);

}  // namespace halvernctl
