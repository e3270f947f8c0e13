// The client library against a peer that plays the service, for what the real service cannot
// show (service_test.sh sends every method to it, against a missing service and an older
// protocol too): replies cut short or refusing, the gate before the protocol is known, input
// refused before sending, release of a foreign pointer.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "client/invchelper.h"
#include "client/nvchelper.h"
#include "mcl/encoding.h"
#include "protocol/message_ids.h"
#include "tests/helpers/log_capture.h"
#include "tests/helpers/process.h"
#include "tests/helpers/service_double.h"
#include "tests/unit/protocol/conformance.h"

using NVClientHelper::result;
namespace nvc = NVClientHelper;

namespace {

class client_library : public ::testing::Test {
protected:
    void SetUp() override { service_.start_listening(); }
    void TearDown() override { nvc::releaseHelper(helper_); }  // before the double stops
    // Connects to the double rather than the installed service.
    bool connect() { return dynamic_cast<nvchelper*>(helper_)->connect(name_.c_str(), 10000); }

    const std::string name_ = nv_test::unique_name("nv_client_test");
    nv_test::service_double service_{name_.c_str()};
    invchelper* const helper_ = nvc::createHelper();
};

TEST_F(client_library, replies_cut_short_or_refusing) {
    ASSERT_TRUE(connect());
    mcl::binary_t cut;  // one byte of a longer reply
    mcl::write_byte(cut, 1);
    // A version reply cut short gives 0; a compatibility reply saying no is stored but false.
    service_.set_reply(msg::service_version, cut);
    EXPECT_EQ(helper_->get_service_version(), 0u);
    service_.set_reply(msg::protocol_compatible, nv_test::encoded(protocol::compatibility_reply{0, 4}));
    EXPECT_FALSE(helper_->proto_compatible());
    EXPECT_EQ(nvc::protocolVersion(helper_), 4u);
    // Every status method has the one decoder (a refusal's message: service_test.sh): a reply
    // without its message is not decoded and leaves the record untouched.
    result r{7, "untouched"};
    service_.set_reply(msg::recover_folder_dacl, cut);
    EXPECT_FALSE(helper_->recover_folder_dacl("C:\\f", &r));
    EXPECT_EQ(std::make_pair(int{r.ok}, r.message), std::make_pair(7, std::string("untouched")));
    EXPECT_FALSE(helper_->recover_folder_dacl("C:\\f", nullptr));
}

// Gated requests until the protocol is known, then input over its limits (a service too old for a
// request: service_test.sh, protocol 3).
TEST_F(client_library, gates_and_limits_refuse_locally_before_anything_is_sent) {
    ASSERT_TRUE(connect());
    const std::string call_first = "Please call proto_compatible() API to confirm the feature is suppported by service.";
    result gated;
    EXPECT_FALSE(helper_->block_file_access("C:\\f", &gated));
    EXPECT_EQ(std::make_pair(int{gated.ok}, gated.message), std::make_pair(0, call_first));
    std::vector<std::string> containers;
    EXPECT_FALSE(helper_->get_quarantine_containers(containers));
    EXPECT_TRUE(service_.received().empty());

    ASSERT_TRUE(helper_->proto_compatible());
    const std::string long_path(261, 'p');
    const std::vector<std::string> long_list(1025, "C:\\f");
#define CALL(...) [&](result* r) { return helper_->__VA_ARGS__; }
    const std::vector<std::pair<std::function<bool(result*)>, std::string>> cases = {
        {CALL(protect_process(long_path, r)), "Image path is too long: 261 characters, at most 260."},
        {CALL(protect_service(std::string(257, 's'), r)), "Service name is too long: 257 characters, at most 256."},
        {CALL(protect_reg_key(HKEY_LOCAL_MACHINE, std::wstring(513, L'k'), 1, r)),
         "Registry key path is too long: 513 characters, at most 512."},
        {CALL(recover_folder_dacl(long_path, r)), "Path is too long: 261 characters, at most 260."},
        {CALL(add_quarantine_files("C:\\q", long_list, r)), "Path list is too long: 1025 entries, at most 1024."},
        {CALL(create_quarantine_container(long_path, {}, r)),
         "Container path is too long: 261 characters, at most 260."},
        {CALL(block_files_access(0, {}, long_list, r)), "Path list is too long: 1025 entries, at most 1024."},
        {CALL(protect_processes(std::vector<nvc::process_rule>(1025), r)),
         "Process rule list is too long: 1025 entries, at most 1024."},
        {CALL(block_file_access(std::string("C:\\a\0b", 6), r)), "Path contains a zero character."},
        {CALL(subscribe("ev", long_path, 0xFF, 0xFF, 0, r)), "Path is too long: 261 characters, at most 260."},
    };
#undef CALL
    for (const auto& [call, message] : cases) {
        result r{1, ""};
        EXPECT_FALSE(call(&r));
        EXPECT_EQ(std::make_pair(int{r.ok}, r.message), std::make_pair(0, message));
    }
    // Frames keep their order: the version request is the second message the peer sees.
    EXPECT_EQ(helper_->get_service_version(), 196653u);
    EXPECT_EQ(service_.received().size(), 2u);
}

// Not an nvchelper: only its type matters to releaseHelper.
using strings = std::vector<std::string>;
using str = const std::string&;
#define NO(name, ...) bool name(__VA_ARGS__) override { return false; }
class foreign_helper : public invchelper {
public:
    virtual ~foreign_helper() = default;
    bool is_installed() override { return true; }
    NO(is_stopped, void) NO(connect, int) NO(request_stop, void) NO(proto_compatible, void)
    uint32_t get_service_version() override { return 0; }
    NO(protect_service, str, result*) NO(protect_process, str, result*) NO(unprotect_service, str, result*)
    NO(unprotect_process, str, result*) NO(protect_reg_key, HKEY, const std::wstring&, uint32_t, result*)
    NO(unprotect_reg_key, HKEY, const std::wstring&, result*)
    NO(protect_services, const std::vector<nvc::service_rule>&, result*)
    NO(protect_processes, const std::vector<nvc::process_rule>&, result*)
    NO(protect_reg_keys, const std::vector<nvc::reg_key_rule>&, result*)
    NO(query_protected_services, std::vector<nvc::protected_service_info>&)
    NO(query_protected_processes, std::vector<nvc::protected_process_info>&)
    NO(get_protected_reg_keys, std::vector<nvc::protected_reg_key_info>&)
    NO(disable_driver_protection, result*) NO(enable_driver_protection, result*) NO(set_protection_enabled, bool, result*)
    NO(start_service, const nvc::start_request&, result*) NO(stop_service, str, result*)
    NO(recover_service_dacl, str, result*) NO(recover_folder_dacl, str, result*) NO(restore_driver_protection, bool, result*)
    NO(create_quarantine_container, str, const strings&, result*) NO(add_quarantine_files, str, const strings&, result*)
    NO(remove_quarantine_files, str, const strings&, result*) NO(restore_quarantine_files, str, const strings&, result*)
    NO(quarantine_files, uint32_t, str, const strings&, result*) NO(remove_quarantine_container, uint32_t, str, result*)
    NO(get_quarantined_files, str, std::vector<nvc::quarantined_file>&) NO(get_quarantine_containers, strings&)
    NO(is_file_quarantined, str, result*) NO(block_file_access, str, result*) NO(unblock_file_access, str, result*)
    NO(block_files_access, uint32_t, const strings&, const strings&, result*) NO(is_file_access_blocked, str, result*)
    NO(subscribe, str, str, uint8_t, uint8_t, uint32_t, result*) NO(subscribe_as, str, str, str, uint8_t, uint8_t, uint32_t, result*)
    NO(unsubscribe, str, str, uint8_t, uint8_t, uint32_t, result*)
    NO(unsubscribe_as, str, str, str, uint8_t, uint8_t, uint32_t, result*)
    NO(query_notification_data, std::vector<nvc::notification_data>&)
    NO(query_notification_data_as, str, std::vector<nvc::notification_data>&)
};

TEST_F(client_library, release_leaves_foreign_pointers_alone) {
    nv_test::log_capture log;
    foreign_helper foreign;
    nvc::releaseHelper(&foreign);
    EXPECT_EQ(log.count("[NVClientHelper::releaseHelper:"), 1u);
    EXPECT_TRUE(log.contains("] - Failed to convert incoming invchelper pointer to nvhelper"));
    EXPECT_TRUE(foreign.is_installed());  // still there
    EXPECT_EQ(nvc::protocolVersion(&foreign), 0u);
}

}  // namespace
