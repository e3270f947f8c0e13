// driver_ctl: drives the VQRMonitor simulator for tests and for people.
//
//   driver_ctl state                          switches, rules, volumes, counters (JSON)
//   driver_ctl journal                        every message in arrival order (JSON)
//   driver_ctl inject MAJOR MINOR PID FILE [TYPE]
//                                             an IRP-denied notification (type 1 unless given)
//                                             to the notification clients; prints {"delivered":n}
//   driver_ctl inject-raw HEX                 one notification of exactly these bytes (header
//                                             included); prints {"delivered":n}
//   driver_ctl unload | load | reset | quit
//   driver_ctl unload-on-send                 the driver unloads as the next command message
//                                             arrives, failing that send with 0x80070006
//   driver_ctl stop-message on|off            whether the driver sends the stop message when
//                                             feature 16 goes off and when it unloads (on after
//                                             reset)
//   driver_ctl wait-ready [MS]                waits until a simulator serves (default 10000 ms)
//
// Exit codes: 0 done, 1 no simulator or a refused request, 2 usage, 3 nobody got the
// notification (no client, or notifications switched off).
#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "mcl/encoding.h"
#include "mcl/mswin/unique_handle.h"
#include "tools/driver_sim/sim_channel.h"
#include "tools/driver_sim/sim_client.h"

namespace {

using mcl::mswin::unique_kernel_handle;
namespace op = vqr::sim::op;

int usage() {
    fprintf(stderr,
            "usage: driver_ctl state | journal | inject MAJOR MINOR PID FILE [TYPE] | unload | load | reset | quit"
            " | inject-raw HEX | unload-on-send | stop-message on|off | wait-ready [MS]\n");
    return 2;
}

// Sends one request and reads the answer; false (with a message) when no simulator answers.
bool transact(const mcl::binary_t& request, mcl::binary_t& answer) {
    unique_kernel_handle pipe;
    DWORD err = vqr::sim::open_channel(pipe);
    if (err != ERROR_SUCCESS) {
        fprintf(stderr, "driver_ctl: no simulator (error %lu)\n", err);
        return false;
    }
    err = vqr::sim::exchange(pipe.get(), request, answer, /*longest=*/64 * 1024 * 1024);
    if (err != ERROR_SUCCESS) {
        fprintf(stderr, "driver_ctl: the simulator did not answer (error %lu)\n", err);
        return false;
    }
    return true;
}

int print_text(uint32_t which) {
    mcl::binary_t request, answer;
    mcl::write_u32(request, which);
    std::string json;
    uint32_t pos = 0;
    if (!transact(request, answer) || !mcl::read_string(json, answer, pos)) return 1;
    printf("%s\n", json.c_str());
    return 0;
}

int simple(uint32_t which) {
    mcl::binary_t request, answer;
    mcl::write_u32(request, which);
    uint32_t hr = 0, pos = 0;
    if (!transact(request, answer) || !mcl::read_u32(hr, answer, pos)) return 1;
    return hr == 0 ? 0 : 1;
}

int inject(int argc, wchar_t** argv) {
    if (argc < 6) return usage();
    const uint32_t type = argc > 6 ? wcstoul(argv[6], nullptr, 0) : 1;
    const mcl::binary_t request = vqr::sim::inject_request(type, static_cast<uint8_t>(wcstoul(argv[2], nullptr, 0)),
                                                           static_cast<uint8_t>(wcstoul(argv[3], nullptr, 0)),
                                                           wcstoul(argv[4], nullptr, 0), argv[5]);
    mcl::binary_t answer;
    uint32_t hr = 0, delivered = 0;
    if (!transact(request, answer) || !vqr::sim::read_inject_answer(answer, hr, delivered)) return 1;
    if (hr != 0) {
        fprintf(stderr, "driver_ctl: notification refused (0x%08X)\n", hr);
        return 1;
    }
    printf("{\"delivered\":%u}\n", delivered);
    return delivered > 0 ? 0 : 3;
}

int inject_raw(int argc, wchar_t** argv) {
    if (argc < 3 || wcslen(argv[2]) % 2 != 0) return usage();
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::inject_raw);
    for (const wchar_t* p = argv[2]; *p != L'\0'; p += 2) {
        const wchar_t pair[3] = {p[0], p[1], L'\0'};
        const uint8_t byte = static_cast<uint8_t>(wcstoul(pair, nullptr, 16));
        request.append(&byte, 1);
    }
    uint32_t hr = 0, delivered = 0;
    if (!transact(request, answer) || !vqr::sim::read_inject_answer(answer, hr, delivered) || hr != 0) return 1;
    printf("{\"delivered\":%u}\n", delivered);
    return delivered > 0 ? 0 : 3;
}

int stop_message(int argc, wchar_t** argv) {
    if (argc < 3 || (wcscmp(argv[2], L"on") != 0 && wcscmp(argv[2], L"off") != 0)) return usage();
    mcl::binary_t request, answer;
    mcl::write_u32(request, op::stop_message);
    mcl::write_u32(request, wcscmp(argv[2], L"on") == 0 ? 1 : 0);
    uint32_t hr = 0, pos = 0;
    if (!transact(request, answer) || !mcl::read_u32(hr, answer, pos)) return 1;
    return hr == 0 ? 0 : 1;
}

int wait_ready(int argc, wchar_t** argv) {
    const DWORD ms = argc > 2 ? wcstoul(argv[2], nullptr, 0) : 10000;
    unique_kernel_handle ready(CreateEventW(nullptr, TRUE, FALSE, vqr::sim::ready_event_name));
    if (!ready) return 1;
    return WaitForSingleObject(ready.get(), ms) == WAIT_OBJECT_0 ? 0 : 1;
}

}  // namespace

int main() {
    int argc = 0;
    wchar_t** argv = CommandLineToArgvW(GetCommandLineW(), &argc);
    mcl::mswin::unique_local<wchar_t**> owner(argv);
    if (argv == nullptr || argc < 2) return usage();
    const std::wstring command = argv[1];
    struct entry {
        const wchar_t* name;
        int (*run)(int, wchar_t**);
    };
    static const entry commands[] = {
        {L"state", [](int, wchar_t**) { return print_text(op::state); }},
        {L"journal", [](int, wchar_t**) { return print_text(op::journal); }},
        {L"inject", inject},
        {L"inject-raw", inject_raw},
        {L"unload", [](int, wchar_t**) { return simple(op::unload); }},
        {L"load", [](int, wchar_t**) { return simple(op::load); }},
        {L"reset", [](int, wchar_t**) { return simple(op::reset); }},
        {L"quit", [](int, wchar_t**) { return simple(op::quit); }},
        {L"unload-on-send", [](int, wchar_t**) { return simple(op::unload_on_send); }},
        {L"stop-message", stop_message},
        {L"wait-ready", wait_ready},
    };
    for (const auto& e : commands)
        if (command == e.name) return e.run(argc, argv);
    return usage();
}
