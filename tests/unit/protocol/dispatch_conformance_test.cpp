// The service's dispatcher against the codec: every request that does not decode is answered
// with a reply that the client reads as a failure, never with silence or the request's own
// bytes; and what the client library encodes is what the service decodes.
#include <windows.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

#include "client/request_codec.h"
#include "protocol/catalogue.h"
#include "service/helper_service.h"
#include "tests/unit/protocol/conformance.h"

namespace {

TEST(DispatchConformance, EveryUndecodableRequestGetsItsRoutesFailureReply) {
    const std::string path = std::string(mcl::ipc_channel::pipe_prefix) + "nv_conformance_" + std::to_string(GetCurrentProcessId());
    mcl::share_ptr<mcl::ipc_connection> server(new mcl::ipc_connection(mcl::ipc_connection::listen_type));
    mcl::share_ptr<mcl::ipc_connection> client(new mcl::ipc_connection(mcl::ipc_connection::connect_type));
    ASSERT_TRUE(server->open(path.c_str()));
    ASSERT_TRUE(client->open(path.c_str()));
    chelperservice::helper_msg_handler& handler = chelperservice::instance().msg_handler();

    protocol::for_each_message([&](auto m) {
        using message = decltype(m);
        using request_t = typename message::request;
        using reply_t = typename message::reply;
        if constexpr (!std::is_same_v<reply_t, protocol::no_reply>) {
            if constexpr (std::is_same_v<request_t, protocol::no_fields>) {
                // The payload is ignored: any request is answered in the reply's layout.
                mcl::binary_t payload;
                ASSERT_EQ(1, handler(server.get(), message::id, payload)) << m.name;
                reply_t reply;
                EXPECT_TRUE(protocol::decode(payload, reply)) << m.name;
            } else {
                for (const nv_test::malformed& bad : nv_test::malformed_payloads<request_t>()) {
                    request_t decoded;
                    if (nv_test::accepted(bad.payload, decoded)) continue;  // handled as a request
                    mcl::binary_t payload = bad.payload;
                    ASSERT_EQ(1, handler(server.get(), message::id, payload)) << m.name << " " << bad.what;
                    EXPECT_TRUE(nv_test::reads_as_failure<reply_t>(payload)) << m.name << " " << bad.what;
                }
            }
        }
    });
}

TEST(DispatchConformance, WhatTheClientEncodesTheServiceDecodes) {
    NVClientHelper::result r;
    mcl::binary_t wire;
    ASSERT_TRUE(nvclient_codec::encode_service_rules(wire, {{true, false, "nv_a"}, {false, true, "nv_b"}}, &r));
    protocol::protect_services_request services;
    ASSERT_TRUE(protocol::decode(wire, services));
    ASSERT_EQ(2u, services.rules.size());
    EXPECT_TRUE(services.rules[0].protectService && !services.rules[0].protectProcess);
    EXPECT_EQ("nv_b", services.rules[1].name);

    wire.clear();
    ASSERT_TRUE(nvclient_codec::encode_process_path(wire, true, "C:\\nv\\a.exe", &r));
    protocol::protect_processes_request processes;
    ASSERT_TRUE(protocol::decode(wire, processes));
    ASSERT_EQ(1u, processes.rules.size());
    EXPECT_EQ(L"C:\\nv\\a.exe", processes.rules[0].imagePath);

    wire.clear();
    NVClientHelper::reg_key_rule key;
    key.root = HKEY_LOCAL_MACHINE;
    key.path = L"SOFTWARE\\nv";
    key.owner = "nv_owner";
    key.services = {"nv_a"};
    key.level = NVClientHelper::level_write;
    ASSERT_TRUE(nvclient_codec::encode_reg_key_rules(wire, {key}, &r));
    protocol::protect_reg_keys_request keys;
    ASSERT_TRUE(protocol::decode(wire, keys));
    ASSERT_EQ(1u, keys.entries.size());
    EXPECT_EQ(0xFFFFFFFF80000002ULL, keys.entries[0].root);
    EXPECT_EQ(1, keys.entries[0].action);
    EXPECT_EQ(L"SOFTWARE\\nv", keys.entries[0].path);
    EXPECT_EQ(std::vector<std::string>{"nv_a"}, keys.entries[0].services);
    EXPECT_EQ(2u, keys.entries[0].level);
}

}  // namespace
