// halvernctl's command table and what a command runs with.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "client/invchelper.h"
#include "tools/halvernctl/report.h"

namespace halvernctl {

enum exit_code : int {
    exit_ok = 0,
    exit_refused = 1,        // the service answered with failure; its message is on stderr
    exit_usage = 2,          // bad command line; the help text is on stderr
    exit_not_connected = 3,  // no connection, or no (readable) reply
    exit_not_installed = 4,  // the service is not installed
    exit_unsupported = 5,    // the service's protocol version is too old for the command
};

// A result record that no reply has touched.
constexpr uint8_t no_reply = 0xFF;

struct command;

struct context {
    const command* cmd = nullptr;
    invchelper* helper = nullptr;
    bool json = false;
    uint32_t protocol = 0;  // the service's IPC protocol version
    std::vector<std::string> args;
    std::map<std::string, std::vector<std::string>> options;
    report out;

    bool has(const std::string& option) const { return options.count(option) != 0; }
    // The last value given for the option, or `fallback`.
    std::string option(const std::string& name, const std::string& fallback) const;
    const std::vector<std::string>& all(const std::string& name) const;
};

struct command {
    const char* name;     // one or two words: "status", "service protect"
    const char* usage;    // arguments and options after the name
    const char* summary;  // one line
    int min_args;
    int max_args;             // -1: no limit
    const char* value_options;  // space-separated options that take a value
    const char* flag_options;   // space-separated options without a value
    uint32_t protocol;          // IPC protocol the command needs (0: any)
    int (*run)(context& c);     // null: handled by the caller (status)
    // Usage checks beyond the argument counts, before anything is asked of the service: the
    // problem, or empty.
    std::string (*check)(const context& c);
};

const std::vector<command>& commands();

// Outcomes. Each prints the report (or the failure) and gives the exit code.
int finish(context& c);
int fail(context& c, int code, const char* error, const std::string& message);
// For a request answered with a status reply: success, refusal or no reply.
int finish_status(context& c, bool ok, const NVClientHelper::result& r);
// For a query: its items are in c.out; false means no (readable) reply.
int finish_query(context& c, bool ok);

// A usage error found while running: the message and the command's help on stderr.
int usage_error(context& c, const std::string& message);

}  // namespace halvernctl
