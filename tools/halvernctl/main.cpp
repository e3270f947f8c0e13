// halvernctl: the administrator's command line over the client library.
//
//   halvernctl [--json] COMMAND [ARGS] [OPTIONS]     halvernctl COMMAND --help
//
// Exit codes: 0 success, 1 refused by the service (its message on stderr), 2 usage error (help
// on stderr), 3 not connected or no reply, 4 the service is not installed, 5 the service's IPC
// protocol is too old for the command (the client library's message on stderr).
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <sstream>

#include "tools/halvernctl/cli.h"

namespace halvernctl {

namespace {

constexpr const char* program = "halvernctl";
constexpr const char* service_name = "norvale_halvern_svc";
constexpr int connect_timeout_ms = 10000;

std::string command_help(const command& cmd) {
    std::string text = std::string("usage: ") + program + " [--json] " + cmd.name;
    if (*cmd.usage != 0) text += std::string(" ") + cmd.usage;
    text += std::string("\n  ") + cmd.summary + "\n";
    if (cmd.protocol != 0)
        text += "  needs a service that speaks IPC protocol " + std::to_string(cmd.protocol) + " or later\n";
    return text;
}

std::string general_help() {
    std::string text = std::string("usage: ") + program + " [--json] COMMAND [ARGS] [OPTIONS]\n"
                       "       " + program + " COMMAND --help\n\ncommands:\n";
    for (const command& cmd : commands()) {
        std::string line = std::string("  ") + cmd.name;
        if (line.size() < 30) line.resize(30, ' ');
        text += line + " " + cmd.summary + "\n";
    }
    text += "\n--json prints one JSON document per command.\n"
            "exit codes: 0 success, 1 refused by the service, 2 usage error, 3 not connected,\n"
            "            4 service not installed, 5 service too old for the command\n";
    return text;
}

bool listed(const char* list, const std::string& word) {
    std::istringstream in(list);
    std::string item;
    while (in >> item)
        if (item == word) return true;
    return false;
}

// The longest command name (two words, then one) that the arguments start with.
const command* find_command(const std::vector<std::string>& words, size_t& used) {
    for (size_t n = 2; n >= 1; --n) {
        if (words.size() < n) continue;
        std::string name = words[0];
        if (n == 2) name += " " + words[1];
        for (const command& cmd : commands()) {
            if (name == cmd.name) {
                used = n;
                return &cmd;
            }
        }
    }
    return nullptr;
}

// Every argument must fit what the service takes; the library refuses longer ones anyway.
std::string check_lengths(const context& c) {
    const size_t limit = std::strncmp(c.cmd->name, "key ", 4) == 0 ? NVClientHelper::max_key_path_chars + 32
                                                                    : NVClientHelper::max_path_chars;
    auto too_long = [&](const std::string& a) {
        return a.size() > limit ? "argument too long (" + std::to_string(a.size()) + " characters, at most " +
                                      std::to_string(limit) + ")"
                                : std::string();
    };
    for (const auto& a : c.args)
        if (!too_long(a).empty()) return too_long(a);
    for (const auto& [name, values] : c.options)
        for (const auto& v : values)
            if (!too_long(v).empty()) return too_long(v);
    return {};
}

// A failed connect, with the reason when the client library refused whoever serves the pipes.
int fail_to_connect(context& c) {
    const std::string why = NVClientHelper::connectError(c.helper);
    return fail(c, exit_not_connected, "not_connected",
                "cannot connect to the service " + std::string(service_name) + (why.empty() ? "" : ": " + why));
}

int run_status(context& c) {
    const bool running = !c.helper->is_stopped();
    c.out.add("service", value::of(std::string(service_name)));
    c.out.add("installed", value::of(true));
    c.out.add("running", value::of(running));
    if (running) {
        if (!c.helper->connect(connect_timeout_ms))
            return fail_to_connect(c);
        const bool compatible = c.helper->proto_compatible();
        c.protocol = NVClientHelper::protocolVersion(c.helper);
        const uint32_t version = c.helper->get_service_version();
        if (version == 0) return fail(c, exit_not_connected, "no_reply", "the service did not answer");
        char text[32];
        snprintf(text, sizeof text, "%u.%u.%u", version >> 16, (version >> 8) & 0xFF, version & 0xFF);
        c.out.add("compatible", value::of(compatible));
        c.out.add("protocol_version", value::of(static_cast<uint64_t>(c.protocol)));
        c.out.add("service_version", value::of(static_cast<uint64_t>(version)));
        c.out.add("service_version_text", value::of(std::string(text)));
    }
    return finish(c);
}

// The gate's own message, from a gated call that the library refuses before sending (called only
// while the stored version is below `protocol`).
std::string gate_message(context& c, uint32_t protocol) {
    NVClientHelper::result r;
    if (protocol >= NVClientHelper::notification_protocol) {
        (void)c.helper->unsubscribe_as("", "", "", 0, 0, 0, &r);
    } else {
        (void)c.helper->is_file_quarantined("", &r);
    }
    return r.message;
}

int run(int argc, char** argv) {
    context c;
    std::vector<std::string> words;
    bool help = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json") {
            c.json = true;
        } else if (a == "--help" || a == "-h") {
            help = true;
        } else {
            words.push_back(a);
        }
    }
    if (words.empty() || words[0] == "help") {
        fputs(general_help().c_str(), help || !words.empty() ? stdout : stderr);
        return help || !words.empty() ? exit_ok : exit_usage;
    }
    size_t used = 0;
    c.cmd = find_command(words, used);
    if (c.cmd == nullptr) {
        fprintf(stderr, "%s: unknown command: %s\n\n%s", program, words[0].c_str(), general_help().c_str());
        return exit_usage;
    }
    c.out.command = c.cmd->name;
    if (help) {
        fputs(command_help(*c.cmd).c_str(), stdout);
        return exit_ok;
    }
    for (size_t i = used; i < words.size(); ++i) {
        const std::string& w = words[i];
        if (w.size() > 2 && w.compare(0, 2, "--") == 0) {
            if (listed(c.cmd->flag_options, w)) {
                c.options[w].push_back("");
            } else if (listed(c.cmd->value_options, w) && i + 1 < words.size()) {
                c.options[w].push_back(words[++i]);
            } else {
                return usage_error(c, listed(c.cmd->value_options, w) ? w + " needs a value" : "unknown option: " + w);
            }
        } else {
            c.args.push_back(w);
        }
    }
    const int n = static_cast<int>(c.args.size());
    if (n < c.cmd->min_args || (c.cmd->max_args >= 0 && n > c.cmd->max_args))
        return usage_error(c, n < c.cmd->min_args ? "missing arguments" : "too many arguments");
    const std::string length_problem = check_lengths(c);
    if (!length_problem.empty()) return usage_error(c, length_problem);
    if (c.cmd->check != nullptr) {
        const std::string problem = c.cmd->check(c);
        if (!problem.empty()) return usage_error(c, problem);
    }

    c.helper = NVClientHelper::createHelper();
    struct release {
        invchelper* h;
        ~release() { NVClientHelper::releaseHelper(h); }
    } releaser{c.helper};
    if (!c.helper->is_installed())
        return fail(c, exit_not_installed, "not_installed",
                    "the service " + std::string(service_name) + " is not installed");
    if (c.cmd->run == nullptr) {
        // status: learns the protocol only from a running service, so that it never starts one.
        return run_status(c);
    }
    if (!c.helper->connect(connect_timeout_ms))
        return fail_to_connect(c);
    // Asked once; the gated commands are judged by it.
    (void)c.helper->proto_compatible();
    c.protocol = NVClientHelper::protocolVersion(c.helper);
    if (c.protocol < c.cmd->protocol)
        return fail(c, exit_unsupported, "unsupported", gate_message(c, c.cmd->protocol));
    return c.cmd->run(c);
}

}  // namespace

std::string context::option(const std::string& name, const std::string& fallback) const {
    const auto it = options.find(name);
    return it == options.end() || it->second.empty() ? fallback : it->second.back();
}

const std::vector<std::string>& context::all(const std::string& name) const {
    static const std::vector<std::string> none;
    const auto it = options.find(name);
    return it == options.end() ? none : it->second;
}

int finish(context& c) {
    const std::string text = c.json ? to_json(c.out) : to_text(c.out);
    fputs(text.c_str(), stdout);
    return exit_ok;
}

int fail(context& c, int code, const char* error, const std::string& message) {
    fprintf(stderr, "%s: %s\n", program, message.c_str());
    if (c.json) {
        report r;
        r.command = c.out.command;
        r.add("ok", value::of(false));
        r.add("error", value::of(std::string(error)));
        r.add("message", value::of(message));
        r.add("exit_code", value::of(static_cast<uint64_t>(code)));
        fputs(to_json(r).c_str(), stdout);
    }
    return code;
}

int finish_status(context& c, bool ok, const NVClientHelper::result& r) {
    if (ok) {
        c.out.top.insert(c.out.top.begin(), {"ok", value::of(true)});
        if (!r.message.empty() && c.out.items.empty()) c.out.add("message", value::of(r.message));
        return finish(c);
    }
    if (r.ok == no_reply) return fail(c, exit_not_connected, "no_reply", "no reply from the service");
    return fail(c, exit_refused, "refused", r.message.empty() ? "the service refused the request" : r.message);
}

int finish_query(context& c, bool ok) {
    if (!ok) return fail(c, exit_not_connected, "no_reply", "no readable reply from the service");
    return finish(c);
}

int usage_error(context& c, const std::string& message) {
    fprintf(stderr, "%s: %s\n%s", program, message.c_str(), command_help(*c.cmd).c_str());
    return exit_usage;
}

}  // namespace halvernctl

int main(int argc, char** argv) { return halvernctl::run(argc, argv); }
