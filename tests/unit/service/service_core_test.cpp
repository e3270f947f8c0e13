#include "service/helper_service.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "mcl/event.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/service.h"
#include "protocol/catalogue.h"
#include "service/caller_policy.h"
#include "service/emergency_options.h"
#include "service/recovery_code.h"
#include "service/service_enforcement.h"
#include "tests/data/recovery_test_key.h"
#include "tests/helpers/process.h"
#include "tests/helpers/restricted.h"
#include "tests/unit/protocol/conformance.h"
#include "tools/recovery_code/signer.h"

namespace reg = mcl::mswin::reg;

namespace {

// What `token` may do with an object under `sddl`: AccessCheck for MAXIMUM_ALLOWED.
DWORD granted_to(HANDLE token, const char* sddl, GENERIC_MAPPING mapping) {
    mcl::mswin::security_descriptor descriptor;
    if (!mcl::mswin::security_descriptor::from_sddl(sddl, descriptor)) return ~0u;
    PRIVILEGE_SET privileges{};
    DWORD privileges_size = sizeof(privileges);
    DWORD granted = 0;
    BOOL allowed = FALSE;
    if (!AccessCheck(descriptor.get(), token, MAXIMUM_ALLOWED, &mapping, &privileges, &privileges_size, &granted, &allowed))
        return ~0u;
    return allowed ? granted : 0;
}

// That what a client asks of these is enough: caller_policy_test.sh, a restricted client served.
TEST(ObjectSecurity, OrdinaryUsersGetWhatAClientNeedsAdministratorsEverything) {
    const auto user = nv_test::restricted_token(/*impersonation=*/true);
    mcl::mswin::unique_kernel_handle own, admin;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_DUPLICATE, own.put()));
    ASSERT_TRUE(DuplicateToken(own.get(), SecurityImpersonation, admin.put()));
    ASSERT_TRUE(user);
    const GENERIC_MAPPING event{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE | EVENT_MODIFY_STATE,
                                STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, EVENT_ALL_ACCESS};
    const GENERIC_MAPPING mutex{STANDARD_RIGHTS_READ, STANDARD_RIGHTS_WRITE,
                                STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE, MUTEX_ALL_ACCESS};
    const GENERIC_MAPPING pipe{FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};
    const struct { const char* sddl; GENERIC_MAPPING mapping; DWORD ordinary; } cases[] = {
        {chelperservice::stop_events_sddl, event, 0},
        {chelperservice::instance_mutex_sddl, mutex, 0},
        {chelperservice::connecting_mutex_sddl, mutex, SYNCHRONIZE | MUTEX_MODIFY_STATE},
        {chelperservice::connected_event_sddl, event, SYNCHRONIZE | EVENT_MODIFY_STATE},
        {chelperservice::pipe_sddl, pipe, FILE_GENERIC_READ | (FILE_GENERIC_WRITE & ~FILE_CREATE_PIPE_INSTANCE)},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.ordinary, granted_to(user.get(), c.sddl, c.mapping)) << c.sddl;
        EXPECT_EQ(c.mapping.GenericAll, granted_to(admin.get(), c.sddl, c.mapping)) << c.sddl;
    }
}

// Every request that does not decode is answered with a reply that the client reads as a
// failure, never with silence or the request's own bytes. The dispatcher is handed a listening
// connection whose client is this process.
TEST(RequestDispatch, EveryUndecodableRequestGetsItsRoutesFailureReply) {
    const std::string path = std::string(mcl::ipc_channel::pipe_prefix) + nv_test::unique_name("nv_dispatch");
    mcl::share_ptr<mcl::ipc_connection> server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    mcl::share_ptr<mcl::ipc_connection> client(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    ASSERT_TRUE(server->open(path.c_str()) && client->open(path.c_str()) && server->reader().listen());
    const auto handle = [&](uint32_t id, mcl::binary_t& payload) {
        return chelperservice::instance().msg_handler()(server.get(), id, payload);
    };
    protocol::for_each_message([&](auto m) {
        using message = decltype(m);
        using request_t = typename message::request;
        using reply_t = typename message::reply;
        if constexpr (!std::is_same_v<reply_t, protocol::no_reply>) {
            if constexpr (std::is_same_v<request_t, protocol::no_fields>) {
                // The payload is ignored: any request is answered in the reply's layout.
                mcl::binary_t payload;
                ASSERT_EQ(1, handle(message::id, payload)) << m.name;
                reply_t reply;
                EXPECT_TRUE(protocol::decode(payload, reply)) << m.name;
            } else {
                for (const nv_test::malformed& bad : nv_test::malformed_payloads<request_t>()) {
                    request_t decoded;
                    if (nv_test::accepted(bad.payload, decoded)) continue;  // handled as a request
                    mcl::binary_t payload = bad.payload;
                    ASSERT_EQ(1, handle(message::id, payload)) << m.name << " " << bad.what;
                    EXPECT_TRUE(nv_test::reads_as_failure<reply_t>(payload)) << m.name << " " << bad.what;
                }
            }
        }
    });
}

TEST(ImageFolder, PathsAndCommandLines) {
    struct { const wchar_t* in; const wchar_t* want; } cases[] = {
        {L"\"\\\\server\\share\\app.exe\" -x", L"\\\\server\\share"}, {L"junk before C:\\A\\b.exe", L"C:\\A"},
        {L"C:\\app.exe", L"C:"}, {L"app.exe", L"app.exe"}, {L"", L""},
    };
    for (const auto& c : cases) EXPECT_EQ(process_protection::image_folder_of(c.in), c.want) << std::wstring(c.in).c_str();
}

TEST(CallerPolicy, AnImageLiesInAFolderOnlyBelowItsBackslash) {
    struct { const wchar_t* image; const wchar_t* folder; bool in; } cases[] = {
        {L"C:\\nv\\a.exe", L"C:\\nv", true}, {L"c:\\NV\\sub\\a.exe", L"C:\\nv", true},
        {L"C:\\nvx\\a.exe", L"C:\\nv", false}, {L"C:\\nv.exe", L"C:\\nv", false}, {L"C:\\nv\\", L"C:\\nv", false},
        {L"C:\\nv", L"C:\\nv", false}, {L"C:\\a.exe", L"", false}, {L"", L"C:\\nv", false},
    };
    for (const auto& c : cases) EXPECT_EQ(c.in, image_in_folder(c.image, c.folder)) << c.image << " in " << c.folder;
}

TEST(KillProcessByPath, EveryProcessOfThatImageOnly) {
    const std::string copy = ::testing::TempDir() + nv_test::unique_name("nv_kill_") + ".exe";
    const std::string original = nv_test::bin_dir() + "nv_test_helper.exe";
    ASSERT_TRUE(CopyFileA(original.c_str(), copy.c_str(), FALSE));
    auto hold = [](const std::string& exe) {
        return nv_test::start("\"" + exe + "\" hold-mutex " + nv_test::unique_name("Global\\nv_kill_") + " 60000 none");
    };
    nv_test::child a = hold(copy), b = hold(copy), other = hold(original);
    Sleep(500);
    std::string upper = copy;
    CharUpperBuffA(&upper[0], static_cast<DWORD>(upper.size()));
    chelperservice::killProcessByPath(upper);  // the comparison ignores case
    EXPECT_EQ(a.wait(10000), 9u);
    EXPECT_EQ(b.wait(10000), 9u);
    EXPECT_EQ(other.wait(0), static_cast<DWORD>(STILL_ACTIVE));
    other.kill();
    DeleteFileA(copy.c_str());
}

// What "-s stop" and the setup tasks rely on when the manager does not know the service.
TEST(ServiceControl, StopWithFallbackSignalsTheStopEventOfAMissingService) {
    const std::string name = nv_test::unique_name("nv_missing_svc");
    mcl::event stop_event;
    ASSERT_EQ(0, stop_event.create(mcl::mswin::service::stop_event_name(name).c_str()));
    EXPECT_FALSE(mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/false, 1));
    EXPECT_FALSE(stop_event.is_set()) << "no fallback, no signal";
    EXPECT_FALSE(mcl::mswin::service::stop(name.c_str(), /*event_fallback=*/true, 1));
    EXPECT_TRUE(stop_event.is_set());
}

// A stop request takes its service off the list while a pass works on its copy of it: that pass
// does not start the service again. The service's program is absent, so each start fails and a
// failed start shows as the retry's request for the driver port.
TEST(ServiceEnforcement, APassStartsNoServiceTakenOffTheListMeanwhile) {
    const std::string name = nv_test::unique_name("nv_enforced_svc");
    mcl::mswin::unique_sc_handle manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    mcl::mswin::unique_sc_handle svc(CreateServiceA(manager.get(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                                                    SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                                    SERVICE_ERROR_IGNORE, "C:\\nv\\absent.exe", nullptr, nullptr,
                                                    nullptr, nullptr, nullptr));
    ASSERT_TRUE(svc) << GetLastError();
    struct host : enforcement_host {
        service_enforcement* enforcement = nullptr;
        bool take_off = false;
        std::atomic<int> passes{0}, failed_starts{0};
        mcl::mswin::unique_kernel_handle open_port() override {
            failed_starts++;
            return {};
        }
        void send_image_rule(HANDLE, const std::wstring&, bool) override {}
        std::wstring service_image(const std::string& service) override {
            if (take_off) (void)enforcement->remove(service);
            passes++;
            return L"C:\\nv\\absent.exe";
        }
    };
    for (const bool take_off : {false, true}) {
        SCOPED_TRACE(take_off ? "taken off during the pass" : "listed");
        host h;
        h.take_off = take_off;
        service_enforcement enforcement(h, "own");
        h.enforcement = &enforcement;
        enforcement.add(name);
        ASSERT_TRUE(enforcement.start());
        for (int i = 0; i < 1000 && (h.passes == 0 || (!take_off && h.failed_starts == 0)); ++i) Sleep(10);
        enforcement.stop(10);
        EXPECT_GT(h.passes, 0);
        EXPECT_EQ(h.failed_starts > 0, !take_off);
    }
    EXPECT_TRUE(DeleteService(svc.get()));
}

// A value as the registry holds it.
struct option_value { const char* name; DWORD type; std::string data; };

option_value dword(const char* name, uint32_t n) { return {name, REG_DWORD, std::string(reinterpret_cast<char*>(&n), 4)}; }
option_value text(const char* name, const char* s) { return {name, REG_SZ, std::string(s, strlen(s) + 1)}; }
option_value binary(const char* name, const std::string& bytes) { return {name, REG_BINARY, bytes}; }

TEST(EmergencyOptions, ConsumedInOrderAndGuardedByTheCode) {
    const std::string key = "Software\\NvTest\\" + nv_test::unique_name("emergency");
    const auto present = [&](const char* name) {
        mcl::binary_t data;
        return reg::read_value(key, name, data);
    };
    struct {
        const char* label;
        std::vector<option_value> values;
        bool emergency, uninstall, disable;
        std::vector<std::string> calls, left;
    } cases[] = {
        {"disableProtection 0", {text("code", "good"), dword("disableProtection", 0)}, true, false, false, {"code good"}, {}},
        {"a valid code unlocks everything",
         {text("code", "good"), dword("uninstallService", 0), dword("disableProtection", 7), text("serv", "svcA"),
          text("fold", "C:\\Program Files\\x")},
         true, false, true, {"code good", "serv svcA", "fold C:\\Program Files\\x"}, {}},
        {"a rejected code leaves the others",
         {text("code", "bad"), dword("disableProtection", 1), text("serv", "svcB"), text("fold", "C:\\y")},
         false, false, false, {"code bad"}, {"disableProtection", "fold", "serv"}},
        {"numbers are the first four bytes, whatever the type",
         {text("code", "good"), binary("disableProtection", std::string("\1\0\0\0\11\11", 6)),
          binary("uninstallService", std::string("\0\0\0\0\1", 5))},
         true, false, true, {"code good"}, {}},
    };
    for (const auto& c : cases) {
        for (const option_value& v : c.values)
            ASSERT_TRUE(reg::write_value(key, v.name, v.data.data(), static_cast<DWORD>(v.data.size()), v.type));
        std::vector<std::string> calls;
        emergency_actions actions;
        actions.check_code = [&](const std::string& code) {
            calls.push_back("code " + code);
            EXPECT_FALSE(present("code")) << "deleted before it is checked";
            return code == "good";
        };
        actions.unprotect_service = [&](const std::string& name) {
            calls.push_back("serv " + name);
            EXPECT_FALSE(present("serv")) << "deleted before its action";
            EXPECT_TRUE(present("fold")) << "fold comes after serv";
        };
        actions.restore_folder = [&](const std::wstring& folder) {
            calls.push_back("fold " + std::string(folder.begin(), folder.end()));
            EXPECT_FALSE(present("fold"));
        };
        const emergency_start start = consume_emergency_options(key, actions);
        EXPECT_EQ((std::vector<bool>{c.emergency, c.uninstall, c.disable}),
                  (std::vector<bool>{start.emergency, start.uninstall, start.disable})) << c.label;
        EXPECT_EQ(c.calls, calls) << c.label;
        std::vector<std::string> left;
        reg::list_values(key, left);
        std::sort(left.begin(), left.end());
        EXPECT_EQ(c.left, left) << c.label;
        (void)reg::remove(HKEY_LOCAL_MACHINE, key, nullptr);
    }
}

TEST(RecoveryCode, OnlyAnUnexpiredCodeSignedForThisMachineIsAccepted) {
    const std::string machine = "19487ca1-b523-4f5c-99a0-5e2aba76551a";
    const std::vector<unsigned char> key(std::begin(nv_test::recovery_test_private_key),
                                         std::end(nv_test::recovery_test_private_key));
    std::string valid;
    ASSERT_TRUE(nv_tools::make_recovery_code(key, machine, "20270131", valid));
    std::string tampered = valid;
    tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
    std::string other_date = valid;
    other_date.replace(0, 8, "20991231");

    struct { const char* label; std::string code, machine_id, today; bool accepted; } cases[] = {
        {"valid on its last day", valid, machine, "20270131", true},
        {"machine id in capitals", valid, "19487CA1-B523-4F5C-99A0-5E2ABA76551A", "20261123", true},
        {"expired", valid, machine, "20270201", false},
        {"another machine", valid, "00000000-b523-4f5c-99a0-5e2aba76551a", "20261123", false},
        {"no machine id", valid, "", "20261123", false},
        {"signature altered", tampered, machine, "20261123", false},
        {"expiry moved", other_date, machine, "20261123", false},
        {"no signature", "20270131-", machine, "20261123", false},
        {"no dash", "20270131" + valid.substr(9), machine, "20261123", false},
        {"odd hex", valid.substr(0, valid.size() - 1), machine, "20261123", false},
        {"not hex", "20270131-XYZ0", machine, "20261123", false},
        {"bad date", "2027013A-" + valid.substr(9), machine, "20261123", false},
        {"empty", "", machine, "20261123", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.accepted, nv::verify_recovery_code(c.code, c.machine_id, nv_test::recovery_test_public_key,
                                                       sizeof(nv_test::recovery_test_public_key), c.today))
            << c.label;
}

}  // namespace
