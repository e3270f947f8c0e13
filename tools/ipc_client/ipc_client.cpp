// nv_ipc_client: sends requests to the service (or any listening peer) and prints the replies.
//
//   nv_ipc_client [-n NAME] [-t MS] version          protocol and service version, decoded
//   nv_ipc_client [-n NAME] [-t MS] call MESSAGE [KEY=VALUE ...]
//                                                    one request from named fields; prints the
//                                                    reply's fields (tools/ipc_client/named_fields.h)
//   nv_ipc_client encode MESSAGE [KEY=VALUE ...]     prints that request's payload in hex
//   nv_ipc_client encode-reply MESSAGE [KEY=VALUE ...]
//                                                    prints the payload of a reply to MESSAGE
//   nv_ipc_client [-n NAME] [-t MS] send ID [HEX]    one request; prints the reply payload in hex
//   nv_ipc_client [-n NAME] [-t MS] post ID [HEX]    one post, no reply
//   nv_ipc_client [-n NAME] [-t MS] hold SECONDS     stays connected, idle, for a while
//
// HEX may be @FILE: the hex text is read from that file (for payloads longer than a command
// line). With -m FILE, send writes the request's round trip in milliseconds to FILE.
// NAME defaults to the service's endpoint; ID is hexadecimal (0x1000009 or 1000009). Exit codes:
// 0 success, 1 usage, 2 no connection, 3 no reply within the time-out, 4 a reply that does not
// decode in its layout (printed in hex).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "mcl/encoding.h"
#include "mcl/ipc/peer.h"
#include "mcl/log.h"
#include "mcl/mswin/service.h"
#include "tools/ipc_client/named_fields.h"

namespace {

void usage() {
    fprintf(stderr,
            "usage: nv_ipc_client [-n NAME] [-t MS] version\n"
            "       nv_ipc_client [-n NAME] [-t MS] call MESSAGE [KEY=VALUE ...]\n"
            "       nv_ipc_client encode MESSAGE [KEY=VALUE ...]\n"
            "       nv_ipc_client encode-reply MESSAGE [KEY=VALUE ...]\n"
            "       nv_ipc_client [-n NAME] [-t MS] send ID [HEX]\n"
            "       nv_ipc_client [-n NAME] [-t MS] post ID [HEX]\n"
            "       nv_ipc_client [-n NAME] [-t MS] hold SECONDS\n"
            "messages and their keys:\n%s",
            named_fields::describe().c_str());
}

bool parse_hex(const char* text, mcl::binary_t& out) {
    const size_t n = strlen(text);
    if (n % 2 != 0) return false;
    for (size_t i = 0; i < n; i += 2) {
        char pair[3] = {text[i], text[i + 1], 0};
        char* end = nullptr;
        const unsigned long v = strtoul(pair, &end, 16);
        if (end != pair + 2) return false;
        const unsigned char byte = static_cast<unsigned char>(v);
        out.append(&byte, 1);
    }
    return true;
}

bool read_hex_file(const char* path, std::string& text) {
    FILE* f = fopen(path, "rb");
    if (f == nullptr) return false;
    char chunk[4096];
    size_t n = 0;
    while ((n = fread(chunk, 1, sizeof(chunk), f)) > 0) text.append(chunk, n);
    fclose(f);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return true;
}

bool parse_payload(const char* arg, mcl::binary_t& out) {
    if (arg[0] != '@') return parse_hex(arg, out);
    std::string text;
    return read_hex_file(arg + 1, text) && parse_hex(text.c_str(), out);
}

bool parse_id(const char* text, uint32_t& id) {
    char* end = nullptr;
    const unsigned long v = strtoul(text, &end, 16);
    if (end == text || *end != 0) return false;
    id = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string name = mcl::mswin::service::default_name;
    int timeout_ms = 10000;
    const char* timing_file = nullptr;
    int i = 1;
    for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
        if (strcmp(argv[i], "-n") == 0) {
            name = argv[i + 1];
        } else if (strcmp(argv[i], "-t") == 0) {
            timeout_ms = atoi(argv[i + 1]);
        } else if (strcmp(argv[i], "-m") == 0) {
            timing_file = argv[i + 1];
        } else {
            usage();
            return 1;
        }
    }
    if (i >= argc) {
        usage();
        return 1;
    }
    const std::string command = argv[i];
    uint32_t id = 0;
    mcl::binary_t payload;
    if (command == "send" || command == "post") {
        if (i + 1 >= argc || !parse_id(argv[i + 1], id) || (i + 2 < argc && !parse_payload(argv[i + 2], payload))) {
            usage();
            return 1;
        }
    } else if (command == "encode-reply") {
        std::string error;
        if (i + 1 >= argc ||
            !named_fields::encode_reply(argv[i + 1], std::vector<std::string>(argv + i + 2, argv + argc), payload, error)) {
            if (!error.empty()) fprintf(stderr, "nv_ipc_client: %s\n", error.c_str());
            usage();
            return 1;
        }
        printf("%s\n", mcl::to_hex(payload).c_str());
        return 0;
    } else if (command == "call" || command == "encode") {
        std::string error;
        if (i + 1 >= argc ||
            !named_fields::encode_request(argv[i + 1], std::vector<std::string>(argv + i + 2, argv + argc), id, payload,
                                          error)) {
            if (!error.empty()) fprintf(stderr, "nv_ipc_client: %s\n", error.c_str());
            usage();
            return 1;
        }
        if (command == "encode") {
            printf("%s\n", mcl::to_hex(payload).c_str());
            return 0;
        }
    } else if (command == "hold") {
        if (i + 1 >= argc) {
            usage();
            return 1;
        }
    } else if (command != "version") {
        usage();
        return 1;
    }

    mcl::ipc_peer peer(name.c_str(), nullptr);
    if (!peer.connect(name.c_str(), timeout_ms)) {
        fprintf(stderr, "nv_ipc_client: cannot connect to \"%s\"\n", name.c_str());
        return 2;
    }
    const auto connection = peer.connections().front();
    int result = 0;
    if (command == "hold") {
        Sleep(static_cast<DWORD>(atoi(argv[i + 1])) * 1000);
    } else if (command == "post") {
        peer.post(id, payload, connection);
        Sleep(200);  // let the write thread hand the frame to the pipe
    } else if (command == "call") {
        std::vector<std::string> lines;
        if (!peer.send(id, payload, connection, timeout_ms)) {
            fprintf(stderr, "nv_ipc_client: no reply to message %X\n", id);
            result = 3;
        } else if (!named_fields::decode_reply(id, payload, lines)) {
            fprintf(stderr, "nv_ipc_client: the reply to message %X does not decode\n", id);
            printf("%s\n", mcl::to_hex(payload).c_str());
            result = 4;
        } else {
            for (const std::string& line : lines) printf("%s\n", line.c_str());
        }
    } else if (command == "send") {
        LARGE_INTEGER frequency{}, before{}, after{};
        QueryPerformanceFrequency(&frequency);
        QueryPerformanceCounter(&before);
        const bool replied = peer.send(id, payload, connection, timeout_ms);
        QueryPerformanceCounter(&after);
        if (replied && timing_file != nullptr) {
            FILE* f = fopen(timing_file, "w");
            if (f != nullptr) {
                fprintf(f, "%.3f\n", static_cast<double>(after.QuadPart - before.QuadPart) * 1000.0 / frequency.QuadPart);
                fclose(f);
            }
        }
        if (replied) {
            printf("%s\n", mcl::to_hex(payload).c_str());
        } else {
            fprintf(stderr, "nv_ipc_client: no reply to message %X\n", id);
            result = 3;
        }
    } else {
        mcl::binary_t compat;
        mcl::write_u32(compat, 5);
        mcl::binary_t version;
        uint8_t ok = 0;
        uint32_t protocol = 0, packed = 0, pos = 0;
        if (!peer.send(0x1000009, compat, connection, timeout_ms) || !mcl::read_byte(ok, compat, pos) ||
            !mcl::read_u32(protocol, compat, pos) || !peer.send(0x100000a, version, connection, timeout_ms) ||
            !mcl::read_u32(packed, version, pos = 0)) {
            fprintf(stderr, "nv_ipc_client: no reply to the version requests\n");
            result = 3;
        } else {
            printf("protocol version: %u (compatible: %s)\n", protocol, ok ? "yes" : "no");
            printf("service version: %u (%u.%u.%u)\n", packed, packed >> 16, (packed >> 8) & 0xFF, packed & 0xFF);
        }
    }
    mcl::binary_t none;
    peer.post(0x1000000, none, connection);  // disconnect, as a client does before it closes
    Sleep(50);
    peer.close();
    return result;
}
