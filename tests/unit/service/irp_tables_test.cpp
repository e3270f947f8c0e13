#include "service/irp_tables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

irp::subscribe_request request(const std::string& sub, const std::string& path, uint8_t major, uint8_t minor,
                               uint32_t type, bool remove = false) {
    return {remove, sub, "Global\\" + sub, path, {major, minor, type}};
}

// A filter covered by the any filter, or there already, changes nothing: driver_port_test.sh.
TEST(IrpTables, SubscribeAddsCoversAndRemovesFilters) {
    using o = irp::subscribe_outcome;
    irp::tables t;
    struct { const char* label; irp::subscribe_request r; o want; } steps[] = {
        {"removing from an unknown subscriber", request("a", "c:\\f", 3, 0, 1, true), o::unchanged},
        {"new subscriber", request("a", "c:\\f", 0xFF, 0xFF, 0), o::added},
        {"removing a filter that is not there", request("a", "c:\\f", 3, 0, 1, true), o::unchanged},
        {"new file", request("a", "c:\\g", 3, 0, 1), o::added},
        {"another minor", request("a", "c:\\g", 3, 2, 1), o::added},
        {"a wider filter is appended", request("a", "c:\\g", 3, 0xFF, 0), o::added},
        {"removing from an unknown file", request("a", "c:\\h", 3, 0, 1, true), o::unchanged},
        {"removing the equal filter", request("a", "c:\\g", 3, 0, 1, true), o::removed},
        {"removing it twice", request("a", "c:\\g", 3, 0, 1, true), o::unchanged},
        {"the emptied entry stays", request("a", "c:\\f", 0xFF, 0xFF, 0, true), o::removed},
        {"and takes a filter again", request("a", "c:\\f", 5, 5, 1), o::added},
    };
    for (const auto& s : steps) EXPECT_EQ(s.want, t.subscribe(s.r)) << s.label;
    // Filters of c:\g now: {3,2,1} and {3,0xFF,0}.
    EXPECT_EQ(1u, t.choose("c:\\g", 3, 9).size());
    EXPECT_EQ(0u, t.choose("c:\\g", 4, 2).size());
    EXPECT_EQ(0u, t.choose("c:\\f", 3, 0).size());
    EXPECT_EQ(1u, t.choose("c:\\f", 5, 5).size());
}

TEST(IrpTables, ChooseFallsBackToAnyFileOncePerSubscriber) {
    irp::tables t;
    for (const auto& r : {request("b", irp::any_file, 0xFF, 0xFF, 0), request("a", "c:\\f", 3, 0xFF, 1),
                          request("a", "c:\\f", 0xFF, 0xFF, 0), request("a", irp::any_file, 7, 7, 0),
                          request("c", "c:\\other", 0xFF, 0xFF, 0)})
        ASSERT_EQ(irp::subscribe_outcome::added, t.subscribe(r));
    const auto names = [&t](const std::string& path, uint8_t major, uint8_t minor) {
        std::string out;
        for (const irp::subscription* s : t.choose(path, major, minor)) out += s->subscriber;
        return out;
    };
    EXPECT_EQ("ab", names("c:\\f", 3, 0));  // name order, each once
    EXPECT_EQ("b", names("c:\\g", 3, 0)) << "a's any-file filter is {7, 7, 0}";
    EXPECT_EQ("ab", names("", 7, 7)) << "a name that matched no volume reaches any-file subscribers";
}

TEST(IrpTables, TableSizeIsBounded) {
    irp::tables t;
    for (size_t i = 0; i < irp::max_subscribers; ++i)
        ASSERT_EQ(irp::subscribe_outcome::added, t.subscribe(request("s" + std::to_string(i), "p", 1, 1, 1)));
    EXPECT_EQ(irp::subscribe_outcome::refused_full, t.subscribe(request("one more", "p", 1, 1, 1)));
    for (size_t i = 1; i < irp::max_files_per_subscriber; ++i)
        ASSERT_EQ(irp::subscribe_outcome::added, t.subscribe(request("s0", "p" + std::to_string(i), 1, 1, 1)));
    EXPECT_EQ(irp::subscribe_outcome::refused_full, t.subscribe(request("s0", "one more", 1, 1, 1)));
    for (uint8_t i = 2; i <= irp::max_filters_per_file; ++i)
        ASSERT_EQ(irp::subscribe_outcome::added, t.subscribe(request("s1", "p", i, 1, 1)));
    EXPECT_EQ(irp::subscribe_outcome::refused_full, t.subscribe(request("s1", "p", 0xFE, 1, 1)));
}

irp::record rec(uint64_t sequence, uint64_t time) {
    irp::record r;
    r.sequence = sequence;
    r.time = time;
    return r;
}

TEST(IrpTables, SequencesStayUniqueAndRecordsExpireAfter300Seconds) {
    irp::tables t;
    uint64_t counter = 100;
    const uint64_t now = 50000000000ULL;
    EXPECT_EQ(1u, t.store("a", rec(1, now - irp::record_lifetime - 1), counter).sequence);  // just over 300 s
    EXPECT_EQ(100u, t.store("b", rec(1, now), counter).sequence) << "a held sequence takes the counter";
    EXPECT_EQ(101u, counter);
    t.store("a", rec(2, now - irp::record_lifetime), counter);  // exactly 300 s: kept
    t.store("a", rec(4, now + 5), counter);                      // the clock went back: kept
    t.purge(now);
    auto got = t.collect("a");
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(2u, got[0].sequence);
    EXPECT_TRUE(t.collect("a").empty()) << "collected once";
    EXPECT_EQ(3u, t.stored()) << "collected records stay until they expire";
    t.purge(now + irp::record_lifetime + 6);
    EXPECT_EQ(0u, t.stored());
    EXPECT_EQ(0u, t.held_by("a"));
}

// When a subscription ends 300 seconds after its connection (irp_notifications_test), its records
// go with it; one whose subscriber came back on another connection meanwhile stays.
TEST(IrpTables, AnEndedSubscriptionTakesItsRecordsAndOneHeldAgainStays) {
    irp::tables t;
    const int first = 0, second = 0;  // two connections, told apart by address
    const uint64_t now = 50000000000ULL;
    uint64_t counter = 100;
    for (const char* name : {"a", "b"}) {
        irp::subscribe_request r = request(name, "p", 1, 1, 1);
        r.holder = &first;
        ASSERT_EQ(irp::subscribe_outcome::added, t.subscribe(r));
        t.store(name, rec(name[0], now), counter);
    }
    t.release(&first, now);
    EXPECT_EQ(1u, t.collect("b", &second).size());
    EXPECT_EQ(std::vector<std::string>{"a"}, t.end_released(now + irp::record_lifetime + 1));
    EXPECT_EQ(0u, t.held_by("a"));
    EXPECT_EQ(1u, t.stored());
    ASSERT_EQ(1u, t.choose("p", 1, 1).size());
    EXPECT_EQ("b", t.choose("p", 1, 1)[0]->subscriber);
}

}  // namespace
