// The client library against a peer that plays the service: the bytes of every request, the
// decoding of every reply, the protocol gates, input refused before sending, release.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/invchelper.h"
#include "client/nvchelper.h"
#include "mcl/encoding.h"
#include "service/message_ids.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/service_double.h"

using NVClientHelper::result;

namespace {

// A payload built field by field.
struct bytes {
    mcl::binary_t b;
    bytes& u8(uint8_t v) { return mcl::write_byte(b, v), *this; }
    bytes& u32(uint32_t v) { return mcl::write_u32(b, v), *this; }
    bytes& u64(uint64_t v) { return mcl::write_u64(b, v), *this; }
    bytes& str(const std::string& v) { return mcl::write_string(b, v), *this; }
    bytes& wstr(const std::wstring& v) { return mcl::write_wstring(b, v), *this; }
    bytes& list(const std::vector<std::string>& v) { return mcl::write_string_list(b, v), *this; }
    std::string hex() const { return mcl::to_hex(b).c_str(); }
};

std::string hex(const mcl::binary_t& b) { return mcl::to_hex(b).c_str(); }

class client_library : public ::testing::Test {
protected:
    void SetUp() override {
        static int counter = 0;
        name_ = "nv_client_test_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(++counter);
        service_ = std::make_unique<nv_test::service_double>(name_.c_str());
        ASSERT_TRUE(service_->start_listening());
        helper_ = NVClientHelper::createHelper();
    }
    void TearDown() override {
        if (helper_ != nullptr) NVClientHelper::releaseHelper(helper_);
        service_.reset();
    }
    // Connects to the double rather than the installed service.
    bool connect() { return dynamic_cast<nvchelper*>(helper_)->connect(name_.c_str(), 10000); }
    bool connect_compatible() { return connect() && helper_->proto_compatible(); }
    nv_test::recorded_request last() {
        auto all = service_->received();
        return all.empty() ? nv_test::recorded_request{} : all.back();
    }

    std::string name_;
    std::unique_ptr<nv_test::service_double> service_;
    invchelper* helper_ = nullptr;
};

const HKEY hklm = HKEY_LOCAL_MACHINE;
constexpr uint64_t hklm_value = 0xFFFFFFFF80000002ull;
constexpr uint64_t hkcu_value = 0xFFFFFFFF80000001ull;
const std::string own = "NVCHCTRLOFFLOAD";

struct request_case {
    const char* method;
    std::function<bool(invchelper*, result*)> call;
    uint32_t id;
    mcl::binary_t payload;
};

TEST_F(client_library, every_status_request_sends_its_fields_and_returns_the_reply) {
    ASSERT_TRUE(connect_compatible());
    NVClientHelper::reg_key_rule key{true, HKEY_CURRENT_USER, L"Software\\K", "owner", {"s1", "s2"}, 0};
    const std::vector<request_case> cases = {
        {"protect_service", [](invchelper* h, result* r) { return h->protect_service("svcA", r); },
         msg::protect_services, bytes().u32(1).u8(1).u8(1).str("svcA").b},
        {"protect_process", [](invchelper* h, result* r) { return h->protect_process("C:\\p\\a.exe", r); },
         msg::protect_processes, bytes().u32(1).u8(1).wstr(L"C:\\p\\a.exe").b},
        {"protect_reg_key", [](invchelper* h, result* r) { return h->protect_reg_key(hklm, L"Software\\X", 2, r); },
         msg::protect_reg_keys, bytes().u32(1).u8(1).u64(hklm_value).wstr(L"Software\\X").str("").list({}).u32(2).b},
        {"unprotect_service", [](invchelper* h, result* r) { return h->unprotect_service("svcA", r); },
         msg::protect_services, bytes().u32(1).u8(0).u8(0).str("svcA").b},
        {"unprotect_process", [](invchelper* h, result* r) { return h->unprotect_process("C:\\p\\a.exe", r); },
         msg::protect_processes, bytes().u32(1).u8(0).wstr(L"C:\\p\\a.exe").b},
        {"unprotect_reg_key", [](invchelper* h, result* r) { return h->unprotect_reg_key(hklm, L"Software\\X", r); },
         msg::protect_reg_keys, bytes().u32(1).u8(0).u64(hklm_value).wstr(L"Software\\X").str("").list({}).u32(0).b},
        {"protect_services",
         [](invchelper* h, result* r) { return h->protect_services({{true, false, "a"}, {false, true, "b"}}, r); },
         msg::protect_services, bytes().u32(2).u8(1).u8(0).str("a").u8(0).u8(1).str("b").b},
        {"protect_processes",
         [](invchelper* h, result* r) { return h->protect_processes({{true, L"C:\\x.exe"}, {false, L"C:\\y.exe"}}, r); },
         msg::protect_processes, bytes().u32(2).u8(1).wstr(L"C:\\x.exe").u8(0).wstr(L"C:\\y.exe").b},
        {"protect_reg_keys", [key](invchelper* h, result* r) { return h->protect_reg_keys({key}, r); },
         msg::protect_reg_keys,
         bytes().u32(1).u8(1).u64(hkcu_value).wstr(L"Software\\K").str("owner").list({"s1", "s2"}).u32(0).b},
        {"disable_driver_protection", [](invchelper* h, result* r) { return h->disable_driver_protection(r); },
         msg::disable_driver_protection, {}},
        {"enable_driver_protection", [](invchelper* h, result* r) { return h->enable_driver_protection(r); },
         msg::enable_driver_protection, {}},
        {"set_protection_enabled", [](invchelper* h, result* r) { return h->set_protection_enabled(false, r); },
         msg::set_protection_enabled, bytes().u8(0).b},
        {"start_service", [](invchelper* h, result* r) { return h->start_service({"svc", {"-a", "b"}}, r); },
         msg::service_ctrl_start_service, bytes().str("svc").list({"-a", "b"}).b},
        {"stop_service", [](invchelper* h, result* r) { return h->stop_service("svc", r); },
         msg::service_ctrl_stop_service, bytes().str("svc").b},
        {"recover_service_dacl", [](invchelper* h, result* r) { return h->recover_service_dacl("svc", r); },
         msg::service_ctrl_recover_dacl, bytes().str("svc").b},
        {"recover_folder_dacl", [](invchelper* h, result* r) { return h->recover_folder_dacl("C:\\f", r); },
         msg::recover_folder_dacl, bytes().str("C:\\f").b},
        {"restore_driver_protection", [](invchelper* h, result* r) { return h->restore_driver_protection(true, r); },
         msg::restore_driver_protection, bytes().u8(1).b},
        {"create_quarantine_container",
         [](invchelper* h, result* r) { return h->create_quarantine_container("C:\\q", {"s"}, r); },
         msg::create_quarantine_container, bytes().str("C:\\q").list({"s"}).b},
        {"add_quarantine_files", [](invchelper* h, result* r) { return h->add_quarantine_files("C:\\q", {"C:\\a"}, r); },
         msg::quarantine_files, bytes().u32(0).str("C:\\q").list({"C:\\a"}).b},
        {"remove_quarantine_files",
         [](invchelper* h, result* r) { return h->remove_quarantine_files("C:\\q", {"C:\\q\\a.1.QUA"}, r); },
         msg::quarantine_files, bytes().u32(1).str("C:\\q").list({"C:\\q\\a.1.QUA"}).b},
        {"restore_quarantine_files",
         [](invchelper* h, result* r) { return h->restore_quarantine_files("C:\\q", {"C:\\q\\a.1.QUA", "x"}, r); },
         msg::quarantine_files, bytes().u32(2).str("C:\\q").list({"C:\\q\\a.1.QUA", "x"}).b},
        {"quarantine_files", [](invchelper* h, result* r) { return h->quarantine_files(7, "C:\\q", {}, r); },
         msg::quarantine_files, bytes().u32(7).str("C:\\q").list({}).b},
        {"remove_quarantine_container",
         [](invchelper* h, result* r) { return h->remove_quarantine_container(2, "C:\\q", r); },
         msg::remove_quarantine_container, bytes().u32(2).str("C:\\q").b},
        {"is_file_quarantined", [](invchelper* h, result* r) { return h->is_file_quarantined("C:\\f", r); },
         msg::is_file_quarantined, bytes().str("C:\\f").b},
        {"block_file_access", [](invchelper* h, result* r) { return h->block_file_access("C:\\f", r); },
         msg::block_file_access, bytes().str("C:\\f").b},
        {"unblock_file_access", [](invchelper* h, result* r) { return h->unblock_file_access("C:\\f", r); },
         msg::unblock_file_access, bytes().str("C:\\f").b},
        {"block_files_access",
         [](invchelper* h, result* r) { return h->block_files_access(0, {"s"}, {"C:\\f1", "C:\\f2"}, r); },
         msg::block_files_access, bytes().u32(0).list({"s"}).list({"C:\\f1", "C:\\f2"}).b},
        {"is_file_access_blocked", [](invchelper* h, result* r) { return h->is_file_access_blocked("C:\\f", r); },
         msg::is_file_access_blocked, bytes().str("C:\\f").b},
        {"subscribe", [](invchelper* h, result* r) { return h->subscribe("ev", "C:\\f", 3, 0, 1, r); },
         msg::subscribe_irp_notification, bytes().u8(0).str(own).str("ev").str("C:\\f").u8(3).u8(0).u32(1).b},
        {"subscribe_as", [](invchelper* h, result* r) { return h->subscribe_as("me", "ev", "", 0xFF, 0xFF, 0, r); },
         msg::subscribe_irp_notification, bytes().u8(0).str("me").str("ev").str("").u8(0xFF).u8(0xFF).u32(0).b},
        {"unsubscribe", [](invchelper* h, result* r) { return h->unsubscribe("ev", "C:\\f", 3, 0, 1, r); },
         msg::subscribe_irp_notification, bytes().u8(1).str(own).str("ev").str("C:\\f").u8(3).u8(0).u32(1).b},
        {"unsubscribe_as", [](invchelper* h, result* r) { return h->unsubscribe_as("me", "ev", "C:\\f", 3, 0, 1, r); },
         msg::subscribe_irp_notification, bytes().u8(1).str("me").str("ev").str("C:\\f").u8(3).u8(0).u32(1).b},
    };
    for (const request_case& c : cases) {
        SCOPED_TRACE(c.method);
        service_->set_reply(c.id, bytes().u8(1).str("done").b);
        result r;
        EXPECT_TRUE(c.call(helper_, &r));
        EXPECT_EQ(r.ok, 1);
        EXPECT_EQ(r.message, "done");
        EXPECT_EQ(last().id, c.id);
        EXPECT_EQ(hex(last().payload), hex(c.payload));

        service_->set_reply(c.id, bytes().u8(0).str("Invalid path.").b);
        EXPECT_FALSE(c.call(helper_, &r));
        EXPECT_EQ(r.ok, 0);
        EXPECT_EQ(r.message, "Invalid path.");
        EXPECT_TRUE(c.call(helper_, nullptr) == false);  // the refusal without a record
    }
    // One request pinned byte for byte: a one-service list, both flags on, then "svcA" and 00.
    service_->set_reply(msg::protect_services, bytes().u8(1).str("").b);
    ASSERT_TRUE(helper_->protect_service("svcA"));
    EXPECT_EQ(hex(last().payload), "0100000001017376634100");
}

TEST_F(client_library, queries_send_their_fields_and_decode_the_replies) {
    ASSERT_TRUE(connect_compatible());
    service_->set_reply(msg::query_protected_services,
                        bytes().u32(1).u8(1).u8(1).str("D:(A;;RP;;;SY)").str("D:P").str("svc").str("S-1-5-80-1")
                            .wstr(L"C:\\svc\\svc.exe").wstr(L"C:\\svc").b);
    std::vector<NVClientHelper::protected_service_info> services;
    ASSERT_TRUE(helper_->query_protected_services(services));
    ASSERT_EQ(services.size(), 1u);
    EXPECT_TRUE(services[0].valid && services[0].process_protected);
    EXPECT_EQ(services[0].service_sddl, "D:(A;;RP;;;SY)");
    EXPECT_EQ(services[0].folder_sddl, "D:P");
    EXPECT_EQ(services[0].name, "svc");
    EXPECT_EQ(services[0].sid, "S-1-5-80-1");
    EXPECT_EQ(services[0].image_path, L"C:\\svc\\svc.exe");
    EXPECT_EQ(services[0].folder, L"C:\\svc");
    EXPECT_EQ(last().id, msg::query_protected_services);
    EXPECT_TRUE(last().payload.empty());

    service_->set_reply(msg::query_protected_processes,
                        bytes().u32(2).u8(1).str("D:1").wstr(L"C:\\a\\a.exe").wstr(L"C:\\a").u8(1).str("").wstr(L"C:\\b.exe")
                            .wstr(L"C:\\").b);
    std::vector<NVClientHelper::protected_process_info> processes;
    ASSERT_TRUE(helper_->query_protected_processes(processes));
    ASSERT_EQ(processes.size(), 2u);
    EXPECT_EQ(processes[0].folder_sddl, "D:1");
    EXPECT_EQ(processes[1].image_path, L"C:\\b.exe");
    EXPECT_EQ(processes[1].folder, L"C:\\");

    service_->set_reply(msg::get_protected_reg_keys, bytes().u32(1).u8(1).str("D:old").str("D:new").u64(hklm_value)
                                                         .wstr(L"software\\x").str("own").list({"s1"}).b);
    std::vector<NVClientHelper::protected_reg_key_info> keys;
    ASSERT_TRUE(helper_->get_protected_reg_keys(keys));
    ASSERT_EQ(keys.size(), 1u);
    EXPECT_EQ(keys[0].original_sddl, "D:old");
    EXPECT_EQ(keys[0].current_sddl, "D:new");
    EXPECT_EQ(keys[0].root, hklm_value);
    EXPECT_EQ(keys[0].path, L"software\\x");
    EXPECT_EQ(keys[0].owner, "own");
    EXPECT_EQ(keys[0].services, std::vector<std::string>{"s1"});

    service_->set_reply(msg::get_quarantined_files, bytes().u32(1).str("a.txt.0102030405060708.QUA").str("C:\\d\\a.txt").b);
    std::vector<NVClientHelper::quarantined_file> files;
    ASSERT_TRUE(helper_->get_quarantined_files("C:\\q", files));
    EXPECT_EQ(hex(last().payload), bytes().str("C:\\q").hex());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].archive_name, "a.txt.0102030405060708.QUA");
    EXPECT_EQ(files[0].recorded_path, "C:\\d\\a.txt");

    service_->set_reply(msg::get_quarantine_containers, bytes().list({"c:\\q\\", "c:\\r\\"}).b);
    std::vector<std::string> containers;
    ASSERT_TRUE(helper_->get_quarantine_containers(containers));
    EXPECT_TRUE(last().payload.empty());
    EXPECT_EQ(containers, (std::vector<std::string>{"c:\\q\\", "c:\\r\\"}));

    service_->set_reply(msg::query_irp_notification_data, bytes().u32(1).u64(7).u64(0x01DB000000000000ull)
                                                              .str("c:\\d\\f.txt").u8(3).u8(0).u64(1234)
                                                              .str("C:\\evil.exe").str("Evil").u32(1).b);
    std::vector<NVClientHelper::notification_data> notes;
    ASSERT_TRUE(helper_->query_notification_data(notes));
    EXPECT_EQ(hex(last().payload), bytes().str(own).hex());
    ASSERT_TRUE(helper_->query_notification_data_as("me", notes));
    EXPECT_EQ(hex(last().payload), bytes().str("me").hex());
    ASSERT_EQ(notes.size(), 1u);
    EXPECT_EQ(notes[0].sequence, 7u);
    EXPECT_EQ(notes[0].time, 0x01DB000000000000ull);
    EXPECT_EQ(notes[0].file_path, "c:\\d\\f.txt");
    EXPECT_EQ(notes[0].major_function, 3);
    EXPECT_EQ(notes[0].minor_function, 0);
    EXPECT_EQ(notes[0].process_id, 1234u);
    EXPECT_EQ(notes[0].process_image, "C:\\evil.exe");
    EXPECT_EQ(notes[0].process_description, "Evil");
    EXPECT_EQ(notes[0].irp_denied, 1u);

    // A reply cut short is not decoded.
    service_->set_reply(msg::query_protected_services, bytes().u32(2).u8(1).b);
    EXPECT_FALSE(helper_->query_protected_services(services));
    service_->set_reply(msg::service_ctrl_stop_service, bytes().u8(1).b);  // no message
    result r{7, "untouched"};
    EXPECT_FALSE(helper_->stop_service("svc", &r));
    EXPECT_EQ(r.message, "untouched");
}

TEST_F(client_library, versions_and_stop) {
    ASSERT_TRUE(connect());
    EXPECT_EQ(helper_->get_service_version(), 196653u);
    EXPECT_TRUE(helper_->proto_compatible());
    EXPECT_EQ(NVClientHelper::protocolVersion(helper_), 5u);
    const auto sent = service_->received();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].id, msg::service_version);
    EXPECT_TRUE(sent[0].payload.empty());
    EXPECT_EQ(sent[1].id, msg::protocol_compatible);
    EXPECT_EQ(hex(sent[1].payload), "05000000");

    EXPECT_TRUE(helper_->request_stop());
    ASSERT_TRUE(service_->wait_for(3, 10000));
    EXPECT_EQ(last().id, msg::stop_service);
    EXPECT_TRUE(last().payload.empty());

    // A version reply cut short gives 0; a compatibility reply saying no is stored but false.
    service_->set_reply(msg::service_version, bytes().u8(1).b);
    EXPECT_EQ(helper_->get_service_version(), 0u);
    service_->set_reply(msg::protocol_compatible, bytes().u8(0).u32(4).b);
    EXPECT_FALSE(helper_->proto_compatible());
    EXPECT_EQ(NVClientHelper::protocolVersion(helper_), 4u);
}

TEST_F(client_library, gates_refuse_locally_until_the_service_speaks_the_protocol) {
    ASSERT_TRUE(connect());
    const std::string call_first = "Please call proto_compatible() API to confirm the feature is suppported by service.";
    result r;
    EXPECT_FALSE(helper_->block_file_access("C:\\f", &r));
    EXPECT_EQ(r.ok, 0);
    EXPECT_EQ(r.message, call_first);
    EXPECT_FALSE(helper_->block_file_access("C:\\f"));
    r = {};
    EXPECT_FALSE(helper_->subscribe("ev", "", 0xFF, 0xFF, 0, &r));
    EXPECT_EQ(r.message, call_first);
    std::vector<std::string> containers;
    EXPECT_FALSE(helper_->get_quarantine_containers(containers));
    EXPECT_TRUE(service_->received().empty());

    service_->set_protocol(3);
    ASSERT_TRUE(helper_->proto_compatible());
    r = {};
    EXPECT_TRUE(helper_->is_file_quarantined("C:\\f", &r));
    service_->set_reply(msg::get_quarantine_containers, bytes().list({}).b);
    EXPECT_TRUE(helper_->get_quarantine_containers(containers));
    const std::string too_old =
        "Service does not support the feature, current IPC protocol version : 3, minimum required version: 5";
    struct gated {
        const char* method;
        std::function<bool(invchelper*, result*)> call;
    };
    const std::vector<gated> notification_methods = {
        {"subscribe", [](invchelper* h, result* x) { return h->subscribe("ev", "", 0xFF, 0xFF, 0, x); }},
        {"subscribe_as", [](invchelper* h, result* x) { return h->subscribe_as("me", "ev", "", 0xFF, 0xFF, 0, x); }},
        {"unsubscribe", [](invchelper* h, result* x) { return h->unsubscribe("ev", "", 0xFF, 0xFF, 0, x); }},
        {"unsubscribe_as", [](invchelper* h, result* x) { return h->unsubscribe_as("me", "ev", "", 0xFF, 0xFF, 0, x); }},
    };
    for (const gated& g : notification_methods) {
        SCOPED_TRACE(g.method);
        r = {};
        EXPECT_FALSE(g.call(helper_, &r));
        EXPECT_EQ(r.ok, 0);
        EXPECT_EQ(r.message, too_old);
    }
    std::vector<NVClientHelper::notification_data> notes;
    EXPECT_FALSE(helper_->query_notification_data(notes));
    EXPECT_FALSE(helper_->query_notification_data_as("me", notes));
    const auto sent = service_->received();
    ASSERT_EQ(sent.size(), 3u);  // compatibility, is_file_quarantined, get_quarantine_containers
    EXPECT_EQ(sent[1].id, msg::is_file_quarantined);
}

TEST_F(client_library, a_request_before_connect_fails_at_once) {
    result r{7, "untouched"};
    const DWORD start = GetTickCount();
    EXPECT_FALSE(helper_->protect_service("svc", &r));
    EXPECT_FALSE(helper_->proto_compatible());
    EXPECT_EQ(helper_->get_service_version(), 0u);
    EXPECT_FALSE(helper_->request_stop());
    std::vector<NVClientHelper::protected_service_info> list;
    EXPECT_FALSE(helper_->query_protected_services(list));
    EXPECT_LT(GetTickCount() - start, 5000u);  // nothing waited for a reply
    EXPECT_EQ(r.ok, 7);
    EXPECT_EQ(r.message, "untouched");
}

TEST_F(client_library, input_over_its_limits_is_refused_before_anything_is_sent) {
    ASSERT_TRUE(connect_compatible());
    const std::string long_path(261, 'p');
    const std::vector<std::string> long_list(1025, "C:\\f");
    struct refusal {
        std::function<bool(invchelper*, result*)> call;
        std::string message;
    };
    const std::vector<refusal> cases = {
        {[&](invchelper* h, result* r) { return h->protect_process(long_path, r); },
         "Image path is too long: 261 characters, at most 260."},
        {[](invchelper* h, result* r) { return h->protect_service(std::string(257, 's'), r); },
         "Service name is too long: 257 characters, at most 256."},
        {[](invchelper* h, result* r) { return h->protect_reg_key(hklm, std::wstring(513, L'k'), 1, r); },
         "Registry key path is too long: 513 characters, at most 512."},
        {[&](invchelper* h, result* r) { return h->recover_folder_dacl(long_path, r); },
         "Path is too long: 261 characters, at most 260."},
        {[&](invchelper* h, result* r) { return h->add_quarantine_files("C:\\q", long_list, r); },
         "Path list is too long: 1025 entries, at most 1024."},
        {[&](invchelper* h, result* r) { return h->create_quarantine_container(long_path, {}, r); },
         "Container path is too long: 261 characters, at most 260."},
        {[&](invchelper* h, result* r) { return h->block_files_access(0, {}, long_list, r); },
         "Path list is too long: 1025 entries, at most 1024."},
        {[](invchelper* h, result* r) {
             return h->protect_processes(std::vector<NVClientHelper::process_rule>(1025, {true, L"C:\\a.exe"}), r);
         },
         "Process rule list is too long: 1025 entries, at most 1024."},
        {[](invchelper* h, result* r) { return h->block_file_access(std::string("C:\\a\0b", 6), r); },
         "Path contains a zero character."},
        {[&](invchelper* h, result* r) { return h->subscribe("ev", long_path, 0xFF, 0xFF, 0, r); },
         "Path is too long: 261 characters, at most 260."},
    };
    for (const refusal& c : cases) {
        SCOPED_TRACE(c.message);
        result r{1, ""};
        EXPECT_FALSE(c.call(helper_, &r));
        EXPECT_EQ(r.ok, 0);
        EXPECT_EQ(r.message, c.message);
    }
    // Frames keep their order: the version request is the second message the peer sees.
    EXPECT_EQ(helper_->get_service_version(), 196653u);
    const auto sent = service_->received();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].id, msg::service_version);
}

// Answers nothing: only its type matters to releaseHelper.
class foreign_helper : public invchelper {
public:
    virtual ~foreign_helper() = default;
    bool is_installed() override { return true; }
    bool is_stopped() override { return false; }
    bool connect(int) override { return false; }
    bool request_stop() override { return false; }
    bool protect_service(const std::string&, result*) override { return false; }
    bool protect_process(const std::string&, result*) override { return false; }
    bool protect_reg_key(HKEY, const std::wstring&, uint32_t, result*) override { return false; }
    bool unprotect_service(const std::string&, result*) override { return false; }
    bool unprotect_process(const std::string&, result*) override { return false; }
    bool unprotect_reg_key(HKEY, const std::wstring&, result*) override { return false; }
    bool protect_services(const std::vector<NVClientHelper::service_rule>&, result*) override { return false; }
    bool protect_processes(const std::vector<NVClientHelper::process_rule>&, result*) override { return false; }
    bool protect_reg_keys(const std::vector<NVClientHelper::reg_key_rule>&, result*) override { return false; }
    bool query_protected_services(std::vector<NVClientHelper::protected_service_info>&) override { return false; }
    bool query_protected_processes(std::vector<NVClientHelper::protected_process_info>&) override { return false; }
    bool get_protected_reg_keys(std::vector<NVClientHelper::protected_reg_key_info>&) override { return false; }
    bool disable_driver_protection(result*) override { return false; }
    bool enable_driver_protection(result*) override { return false; }
    bool set_protection_enabled(bool, result*) override { return false; }
    bool proto_compatible() override { return false; }
    uint32_t get_service_version() override { return 0; }
    bool start_service(const NVClientHelper::start_request&, result*) override { return false; }
    bool stop_service(const std::string&, result*) override { return false; }
    bool recover_service_dacl(const std::string&, result*) override { return false; }
    bool recover_folder_dacl(const std::string&, result*) override { return false; }
    bool restore_driver_protection(bool, result*) override { return false; }
    bool create_quarantine_container(const std::string&, const std::vector<std::string>&, result*) override {
        return false;
    }
    bool add_quarantine_files(const std::string&, const std::vector<std::string>&, result*) override { return false; }
    bool remove_quarantine_files(const std::string&, const std::vector<std::string>&, result*) override { return false; }
    bool restore_quarantine_files(const std::string&, const std::vector<std::string>&, result*) override {
        return false;
    }
    bool quarantine_files(uint32_t, const std::string&, const std::vector<std::string>&, result*) override {
        return false;
    }
    bool remove_quarantine_container(uint32_t, const std::string&, result*) override { return false; }
    bool get_quarantined_files(const std::string&, std::vector<NVClientHelper::quarantined_file>&) override {
        return false;
    }
    bool get_quarantine_containers(std::vector<std::string>&) override { return false; }
    bool is_file_quarantined(const std::string&, result*) override { return false; }
    bool block_file_access(const std::string&, result*) override { return false; }
    bool unblock_file_access(const std::string&, result*) override { return false; }
    bool block_files_access(uint32_t, const std::vector<std::string>&, const std::vector<std::string>&,
                            result*) override {
        return false;
    }
    bool is_file_access_blocked(const std::string&, result*) override { return false; }
    bool subscribe(const std::string&, const std::string&, uint8_t, uint8_t, uint32_t, result*) override { return false; }
    bool subscribe_as(const std::string&, const std::string&, const std::string&, uint8_t, uint8_t, uint32_t,
                      result*) override {
        return false;
    }
    bool unsubscribe(const std::string&, const std::string&, uint8_t, uint8_t, uint32_t, result*) override {
        return false;
    }
    bool unsubscribe_as(const std::string&, const std::string&, const std::string&, uint8_t, uint8_t, uint32_t,
                        result*) override {
        return false;
    }
    bool query_notification_data(std::vector<NVClientHelper::notification_data>&) override { return false; }
    bool query_notification_data_as(const std::string&, std::vector<NVClientHelper::notification_data>&) override {
        return false;
    }
};

TEST_F(client_library, release_posts_the_disconnect_and_leaves_foreign_pointers_alone) {
    nv_test::log_capture log;
    foreign_helper foreign;
    NVClientHelper::releaseHelper(&foreign);
    EXPECT_EQ(log.count("[NVClientHelper::releaseHelper:"), 1u);
    EXPECT_TRUE(log.contains("] - Failed to convert incoming invchelper pointer to nvhelper"));
    EXPECT_TRUE(foreign.is_installed());  // still there
    EXPECT_EQ(NVClientHelper::protocolVersion(&foreign), 0u);

    ASSERT_TRUE(connect());
    NVClientHelper::releaseHelper(helper_);
    helper_ = nullptr;
    ASSERT_TRUE(service_->wait_for(1, 10000));
    EXPECT_EQ(last().id, msg::disconnect);
    EXPECT_TRUE(last().payload.empty());
    EXPECT_EQ(log.count("Failed to convert"), 1u);
}

}  // namespace
