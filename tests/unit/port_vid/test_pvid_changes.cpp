// What comes of the table: the cache, the program's function, and the users who are told.
#include <cstdlib>

#include <map>
#include <random>

#include "port_vid_fixture.hpp"

namespace
{

using namespace port_vid_test;
using PvidNotice = PortVidTest;
using PvidWritten = PortVidTest;
using PvidRemoved = PortVidTest;
using PvidTold = PortVidTest;

// A pair as a scan or a subscription makes it.
sw_ebridge_callback_args *own_pair(const sw_ebridge_callback_args &like)
{
    auto *pair = static_cast<sw_ebridge_callback_args *>(std::malloc(sizeof(sw_ebridge_callback_args)));
    *pair = like;
    return pair;
}

// "WHAT callback, args(p: %p), args2(p, %p)."
std::string callback_of(const char *what, const sw_ebridge_callback_args &pair)
{
    return callback_line(
        "info", format("%s callback, args(p: %p), args2(p, %p).", what, pair.arg, reinterpret_cast<void *>(pair.func)));
}

std::string change_line(int32_t eport, uint32_t ifx, uint32_t new_pvid, uint32_t old_pvid,
                        const sw_ebridge_callback_args &pair)
{
    return callback_line(
        "info",
        format("eport_id: 0x%x, ifx: %u, new_pvid: %u, old_pvid: %u, args(p: %p), args2(p, %p).",
               static_cast<uint32_t>(eport), ifx, new_pvid, old_pvid, pair.arg, reinterpret_cast<void *>(pair.func)));
}

void expect_func_call(const qz_mom_notification &msg)
{
    ASSERT_EQ(func_calls.size(), 1u);
    EXPECT_EQ(func_calls[0].ctx, recording::other_handle());
    EXPECT_EQ(func_calls[0].msg, &msg);
    EXPECT_EQ(func_calls[0].arg, &user_argument);
}

// A user whose first call found no memory for the table. It is not made later.
void add_user_without_table()
{
    recording::fail_allocation(1, true);
    EXPECT_EQ(sw_vlan_pvid_db_init(), -1);
    recording::fail_allocation(0);
    add_user();
    start_over();
}

const int32_t removals[] = {QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED};

// ---- messages that are no change

TEST_F(PvidNotice, ThatIsMissingOrAnErrorIsRefused)
{
    add_user();
    table_record record(port_1, 10, 0);
    table_notice bad(QZ_MOM_CMD_SET, record);
    bad.error = -105;
    const table_notice good(QZ_MOM_CMD_SET, record);
    const auto blocks = freed_by([&] {
        EXPECT_EQ(sw_vlan_mom_msg_port_vid_changed(recording::handle(), nullptr, &with_func), -2);
        EXPECT_EQ(sw_vlan_mom_msg_port_vid_changed(recording::handle(), nullptr, nullptr), -2);
        EXPECT_EQ(deliver(bad, &with_func), -2);
        EXPECT_EQ(deliver(bad, nullptr), -2);
        EXPECT_EQ(deliver(good, nullptr), -2);
    });
    EXPECT_THAT(trace(), ElementsAre(refusal("Assert:MOM msg is NULL.\n"), refusal("Assert:MOM msg is NULL.\n"),
                                     refusal("Assert:MOM error is -105.\n"), refusal("Assert:MOM error is -105.\n"),
                                     refusal("Assert:MOM, args is NULL.")));
    EXPECT_THAT(blocks, IsEmpty());
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(sw_vlan_pvid_entry_hash_size(0), 0u);
}

TEST_F(PvidNotice, OfAnErrorKeepsThePairAlsoAtTheEnd)
{
    add_user();
    for (const int32_t command : {QZ_MOM_CMD_UNSUBSCRIBED, QZ_MOM_CMD_NONE}) {
        notice bad(command);
        bad.error = -105;
        bad.end = QZ_MOM_END_SCAN;
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(bad, &with_func), -2); }), IsEmpty());
    }
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(PvidNotice, OfTheUnsubscriptionFreesThePair)
{
    add_user();
    for (const qz_mom_end end : {QZ_MOM_END_NONE, QZ_MOM_END_SCAN}) {
        recording::reset();
        sw_ebridge_callback_args *pair = own_pair(with_func);
        notice over(QZ_MOM_CMD_UNSUBSCRIBED);
        over.end = end;
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(over, pair), 0); }), ElementsAre(pair));
        EXPECT_THAT(trace(), ElementsAre(callback_line(
                                 "warning", format("unsubscribe from DB[4], args is %p.", static_cast<void *>(pair)))));
    }
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(PvidNotice, OfTheConfirmationIsPassedOnAndKeepsThePair)
{
    add_user();
    notice confirmed(QZ_MOM_CMD_SUBSCRIBED);
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(confirmed, &with_func), 0); }), IsEmpty());
    EXPECT_THAT(trace(),
                ElementsAre(arrival(confirmed, &with_func), callback_of("subscribe", with_func), "user function"));
    expect_func_call(confirmed);
    recording::reset();
    confirmed.end = QZ_MOM_END_SCAN;  // a confirmation all the same
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(confirmed, &without_func), 0); }), IsEmpty());
    EXPECT_THAT(trace(), ElementsAre(arrival(confirmed, &without_func), callback_of("subscribe", without_func)));
}

TEST_F(PvidNotice, OfTheScansEndIsPassedOnAndFreesThePair)
{
    add_user();
    for (const sw_ebridge_callback_args &like : {with_func, without_func}) {
        recording::reset();
        sw_ebridge_callback_args *pair = own_pair(like);
        notice over(QZ_MOM_CMD_NONE);
        over.end = QZ_MOM_END_SCAN;
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(over, pair), 0); }), ElementsAre(pair));
        strings wanted{arrival(over, pair), callback_of("scan end", like)};
        if (like.func != nullptr) {
            wanted.push_back("user function");
            expect_func_call(over);
        }
        EXPECT_EQ(trace(), wanted);
    }
    EXPECT_EQ(func_calls.size(), 1u);
}

TEST_F(PvidNotice, OfTheScansEndIsNoChangeWhateverElseItSays)
{
    add_user();
    start_over();
    table_record record(port_1, 10, 0);
    table_notice over(QZ_MOM_CMD_SET, record);
    over.end = QZ_MOM_END_SCAN;
    EXPECT_EQ(deliver(over, own_pair(without_func)), 0);
    EXPECT_FALSE(is_cached(ifx_1));
    EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(PvidNotice, OfAnythingElseIsIgnored)
{
    add_user();
    start_over();
    table_record record(port_1, 10, 0);
    for (const int32_t command : {0, 2, 4, 5, 6, 7, 26, 30, 31, -1}) {
        start_over();
        const session_notice other(command, record);
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(other, &with_func), 0); }), IsEmpty());
        EXPECT_THAT(trace(), ElementsAre(arrival(other, &with_func)));
    }
    notice over(QZ_MOM_CMD_NONE);
    over.end = QZ_MOM_END_EXPIRY;
    EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(over, &with_func), 0); }), IsEmpty());
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(sw_vlan_pvid_entry_hash_size(0), 0u);
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

// ---- changes that cannot be read

TEST_F(PvidNotice, OfAChangeNeedsItsRecord)
{
    add_user();
    start_over();
    table_record keyless(port_1, 10, 0);
    keyless.index = nullptr;
    for (const int32_t command : {QZ_MOM_CMD_SET, QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED}) {
        recording::reset();
        const notice bare(command);
        EXPECT_EQ(deliver(bare, &with_func), -2);
        EXPECT_THAT(trace(), ElementsAre(arrival(bare, &with_func), refusal("Assert:Bad pvid.")));
        EXPECT_EQ(deliver(table_notice(command, keyless), &with_func), -2);
        EXPECT_EQ(trace().back(), refusal("Assert:Bad pvid."));
    }
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(PvidNotice, OfAPortWithoutInterfaceIsRefused)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    for (const int32_t eport : {port_1, aggregate_3, circuit_4, 0}) {
        recording::reset();  // the table of ports is empty now
        EXPECT_EQ(write(eport, 20, 10, &with_func), -1);
        EXPECT_EQ(trace().back(), refusal("Assert:sw_eport_udp2app failed"));
        for (const int32_t command : removals)
            EXPECT_EQ(remove(eport, command, &with_func), -1);
        EXPECT_EQ(trace().back(), refusal("Assert:sw_eport_udp2app failed"));
        EXPECT_THAT(heard(), IsEmpty());
    }
    start_over();
    recording::set_result("libddm_get_ifx_by_phyid", 5);  // a failure all the same
    EXPECT_EQ(write(port_1, 20, 10, &with_func), -1);
    EXPECT_EQ(remove(port_1, QZ_MOM_CMD_DEL, &with_func), -1);
    EXPECT_THAT(errors(), Contains("Assert:sw_eport_udp2app failed").Times(2));
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(cached_text(ifx_1), "10 was 0");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

// ---- written records

TEST_F(PvidWritten, IsKeptAndTold)
{
    add_user();
    start_over();
    table_record record(port_1, 10, 5);
    const table_notice written(QZ_MOM_CMD_SET, record);
    EXPECT_EQ(deliver(written, &with_func), 0);
    EXPECT_THAT(trace(), ElementsAre(arrival(written, &with_func), "libddm_get_ifx_by_phyid 0 ",
                                     "info [app/lib/ebridge/libsw_ebridge_eport.cpp] sw_eport_udp2app: The ifx of "
                                     "phyid[0x7000001] is 0xb.",
                                     change_line(port_1, ifx_1, 10, 5, with_func), "user function",
                                     "app hears port 11: 10 was 5"));
    expect_func_call(written);
    EXPECT_EQ(cached_text(ifx_1), "10 was 5");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

TEST_F(PvidWritten, AgainReplacesTheEntryAndIsToldAgain)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(write(port_1, 20, 10), 0);
    EXPECT_EQ(write(port_1, 20, 10), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 11: 10 was 0", "app hears port 11: 20 was 10",
                                     "app hears port 11: 20 was 10"));
    EXPECT_EQ(cached_text(ifx_1), "20 was 10");
    EXPECT_EQ(sw_vlan_pvid_entry_hash_size(0), 1u);
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

// The service knows what it was, the cache may not.
TEST_F(PvidWritten, TakesTheOldOneFromTheRecord)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(write(port_1, 20, 99), 0);
    EXPECT_EQ(cached_text(ifx_1), "20 was 99");
    EXPECT_EQ(heard().back(), "app hears port 11: 20 was 99");
}

TEST_F(PvidWritten, OfTwoNamesForAPortIsOneEntry)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    recording::ports()[0].lphyid = 0x0c000009;
    EXPECT_EQ(write(0x20000009, 20, 10), 0);
    EXPECT_EQ(cached_text(ifx_1), "20 was 10");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

TEST_F(PvidWritten, IsOfSixteenBits)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 0x1000a, -1), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 11: 10 was 65535"));
    EXPECT_TRUE(traced(change_line(port_1, ifx_1, 10, 65535, without_func)));
    EXPECT_EQ(cached_text(ifx_1), "10 was 65535");
    EXPECT_EQ(write(port_2, 0xabcde, 0), 0);
    EXPECT_EQ(remove(port_2), 0);
    EXPECT_EQ(heard().back(), "app hears port 12: 0 was 48350");
}

TEST_F(PvidWritten, MayBe0)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 0, 10), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 11: 0 was 10"));
    EXPECT_EQ(cached_text(ifx_1), "0 was 10");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

TEST_F(PvidWritten, OfAggregatesAndCircuitsHasTheirInterface)
{
    add_user();
    start_over();
    sw_eport_index_map map{};
    map.kind = SW_INDEX_MAP_UDP2APP;
    map.key[0] = circuit_4;
    map.value[0] = 48;
    map.value[1] = 99;
    map.value[2] = ifx_4;
    ASSERT_NE(sw_eport_index_map_update_item(0, &map), nullptr);
    EXPECT_EQ(write(aggregate_3, 30, 0), 0);
    EXPECT_EQ(write(circuit_4, 40, 0), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 13: 30 was 0", "app hears port 14: 40 was 0"));
    EXPECT_EQ(cached_text(ifx_3), "30 was 0");
    EXPECT_EQ(cached_text(ifx_4), "40 was 0");
    EXPECT_EQ(remove(circuit_4), 0);
    EXPECT_EQ(heard().back(), "app hears port 14: 0 was 40");
}

TEST_F(PvidWritten, WithoutMemoryForAnEntryIsToldToNobody)
{
    add_user();
    start_over();
    int failures = 0;
    for (uint64_t nth = 1; nth < 20; ++nth) {
        start_over();
        recording::fail_allocation(nth);
        const int32_t rv = write(port_1, 0x1000a, -1, &with_func);
        recording::fail_allocation(0);
        if (rv == 0)
            break;
        ++failures;
        EXPECT_EQ(rv, -4);
        EXPECT_THAT(errors(),
                    ElementsAre("Assert:insert the (ifx = 11, new_pvid=65546, old_pvid=-1) into the pvid_db failed.",
                                "Assert:set_pvid(65546) failed"));
        EXPECT_EQ(trace().back(), refusal("Assert:set_pvid(65546) failed"));
        EXPECT_THAT(heard(), IsEmpty());
        EXPECT_THAT(func_calls, IsEmpty());
        EXPECT_FALSE(is_cached(ifx_1));
        EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
    }
    EXPECT_GE(failures, 2);
    EXPECT_EQ(cached_text(ifx_1), "10 was 65535");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

TEST_F(PvidWritten, WithoutTableIsToldToNobody)
{
    add_user_without_table();
    EXPECT_EQ(write(port_1, 10, 5, &with_func), -4);
    EXPECT_THAT(errors(), ElementsAre("Assert:insert the (ifx = 11, new_pvid=10, old_pvid=5) into the pvid_db failed.",
                                      "Assert:set_pvid(10) failed"));
    EXPECT_THAT(heard(), IsEmpty());
    EXPECT_THAT(func_calls, IsEmpty());
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidWritten, OfAKnownPortTakesNoMemory)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    recording::fail_allocation(1, true);
    EXPECT_EQ(write(port_1, 20, 10), 0);
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_EQ(recording::allocations(), 0u);
    recording::fail_allocation(0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 11: 10 was 0", "app hears port 11: 20 was 10",
                                     "app hears port 11: 0 was 20"));
}

// ---- removed records

TEST_F(PvidRemoved, FreesTheEntryAndTellsWhatItWas)
{
    add_user();
    for (const int32_t command : removals) {
        start_over();
        EXPECT_EQ(write(port_1, 10, 5), 0);
        EXPECT_EQ(write(port_2, 20, 0), 0);
        recording::sequence().clear();
        recording::log().clear();
        recording::calls().clear();
        func_calls.clear();
        table_record record(port_1, 77, 78);
        const table_notice gone(command, record);
        const sw_vlan_pvid_entry key = cached(ifx_1);
        const void *entry = sw_vlan_pvid_entry_hash_find(0, &key);
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(deliver(gone, &with_func), 0); }), ElementsAre(entry));
        const strings steps = trace();
        ASSERT_EQ(steps.size(), 6u);
        EXPECT_EQ(steps[0], arrival(gone, &with_func));
        EXPECT_EQ(steps[3], change_line(port_1, ifx_1, 0, 10, with_func));
        EXPECT_EQ(steps[4], "user function");
        EXPECT_EQ(steps[5], "app hears port 11: 0 was 10");
        expect_func_call(gone);
        EXPECT_FALSE(is_cached(ifx_1));
        EXPECT_EQ(cached_text(ifx_2), "20 was 0");
        EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
    }
}

TEST_F(PvidRemoved, OfAPortWithoutEntryIsToldWith0)
{
    add_user();
    for (const int32_t command : removals) {
        start_over();
        EXPECT_THAT(freed_by([&] { EXPECT_EQ(remove(port_1, command, &with_func), 0); }), IsEmpty());
        EXPECT_TRUE(traced(change_line(port_1, ifx_1, 0, 0, with_func)));
        EXPECT_THAT(heard(), ElementsAre("app hears port 11: 0 was 0"));
        EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
    }
    EXPECT_EQ(func_calls.size(), 2u);
}

TEST_F(PvidRemoved, WithoutTableIsToldWith0)
{
    add_user_without_table();
    for (const int32_t command : removals) {
        start_over();
        EXPECT_EQ(remove(port_1, command), 0);
        EXPECT_THAT(heard(), ElementsAre("app hears port 11: 0 was 0"));
        EXPECT_THAT(errors(), IsEmpty());
    }
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidRemoved, ThenWrittenBeginsAnew)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_EQ(write(port_1, 20, 0), 0);
    EXPECT_EQ(cached_text(ifx_1), "20 was 0");
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

// ---- who is told

TEST_F(PvidTold, IsEveryUserOnceInTheirOrder)
{
    for (const char *name : {"a", "b", "c", "d", "e"})
        add_user(name);
    sw_ebridge_list_item elsewhere{};
    strcpy(elsewhere.user_name, "elsewhere");
    elsewhere.pvid_change = ears<5>::pvid_change;
    EXPECT_EQ(sw_ebridge_list_add_inst(1, &elsewhere), 0);
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(heard(), all_hear(ifx_1, 10, 0));
    EXPECT_THAT(heard(), SizeIs(5));
    start_over();
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_EQ(heard(), all_hear(ifx_1, 0, 10));
}

TEST_F(PvidTold, PassesOverUsersWithoutCallback)
{
    add_user("a");
    add_user("deaf", no_callbacks);
    add_user("b");
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a hears port 11: 10 was 0", "b hears port 11: 10 was 0"));
}

TEST_F(PvidTold, EndsWithTheUserWhoSaysSo)
{
    for (const char *name : {"a", "b", "c", "d"})
        add_user(name);
    const strings order = registry_order();
    for (size_t last = 0; last < order.size(); ++last) {
        start_over();
        answer_as(order[last], SW_EBRIDGE_WALK_STOP);
        table_record record(port_1, 10, 0);
        EXPECT_EQ(deliver(table_notice(QZ_MOM_CMD_SET, record), &with_func), 0);
        strings wanted = all_hear(ifx_1, 10, 0);
        wanted.resize(last + 1);
        EXPECT_EQ(heard(), wanted);
        EXPECT_EQ(func_calls.size(), last + 1);
        EXPECT_EQ(cached_text(ifx_1), "10 was 0");
        answer_as(order[last], 0);
    }
    start_over();
    answer_as(order[1], SW_EBRIDGE_WALK_STOP);
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_THAT(heard(), SizeIs(2));
    EXPECT_FALSE(is_cached(ifx_1));
}

TEST_F(PvidTold, GoesOnAfterAnyOtherAnswer)
{
    for (const char *name : {"a", "b", "c"})
        add_user(name);
    for (const int32_t answer : {-1, -2, -5, -7, 1, 6, INT32_MIN}) {
        start_over();
        for (const char *name : {"a", "b", "c"})
            answer_as(name, answer);
        EXPECT_EQ(write(port_1, 10, 0), 0);
        EXPECT_EQ(heard(), all_hear(ifx_1, 10, 0)) << answer;
    }
}

// The program's own function has another say.
TEST_F(PvidTold, WhateverTheProgramsFunctionReturns)
{
    add_user();
    start_over();
    sw_ebridge_callback_args stopping{
        nullptr, [](qz_mom_handle *, const qz_mom_notification *, void *) -> int32_t { return SW_EBRIDGE_WALK_STOP; }};
    EXPECT_EQ(write(port_1, 10, 0, &stopping), 0);
    EXPECT_THAT(heard(), ElementsAre("app hears port 11: 10 was 0"));
}

TEST_F(PvidTold, FindsTheCacheAsItIsAfterTheChange)
{
    add_user();
    start_over();
    strings seen;
    inside_callback = [&] {
        int32_t pvid = -7;
        EXPECT_EQ(sw_vlan_pvid_get("app", ifx_1, &pvid), 0);
        seen.push_back(format("%d of %d", pvid, sw_brg_stat_pvid_count_nums_get()));
    };
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(write(port_1, 20, 10), 0);
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_THAT(seen, ElementsAre("10 of 1", "20 of 1", "0 of 0"));
}

TEST_F(PvidTold, MaySetADefaultVlan)
{
    add_user("a");
    add_user("b");
    start_over();
    inside_callback = [] { EXPECT_EQ(sw_vlan_pvid_set("a", port_2, 30), 0); };
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(heard(), all_hear(ifx_1, 10, 0));
    EXPECT_EQ(recording::calls_of("qz_mom_hmset").size(), 2u);
}

TEST_F(PvidTold, OfAPortThatGoesMeanwhile)
{
    add_user("a");
    add_user("b");
    start_over();
    EXPECT_EQ(write(port_2, 5, 0), 0);
    start_over();
    inside_callback = [] { recording::ports().clear(); };
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(heard(), all_hear(ifx_1, 10, 0));
    inside_callback = nullptr;
    EXPECT_EQ(remove(port_1), -1);
    EXPECT_EQ(cached_text(ifx_1), "10 was 0");
    start_over();  // the port is back
    EXPECT_EQ(remove(port_1), 0);
    EXPECT_EQ(heard(), all_hear(ifx_1, 0, 10));
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 1");
}

TEST_F(PvidTold, NobodyWhereNobodyIs)
{
    EXPECT_EQ(sw_vlan_pvid_db_init(), 0);
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    EXPECT_EQ(cached_text(ifx_1), "10 was 0");
}

// ---- random runs

class PvidAtRandom : public PortVidTest, public testing::WithParamInterface<uint32_t>
{
};

struct known {
    uint32_t now, before;
};

// Writes and removals of a hundred ports, now and then without memory or of a port that is not there.
TEST_P(PvidAtRandom, CacheAndUsersAreAsAPlainMapWouldBe)
{
    SCOPED_TRACE(testing::Message() << "seed " << GetParam());
    std::mt19937 random(GetParam());
    const auto below = [&](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
    add_user();
    g_sw_vlan_file_zlog_level = 0;
    std::map<uint32_t, known> model;
    for (int step = 0; step < 4000 && !HasFailure(); ++step) {
        recording::reset();
        const uint32_t number = below(100), ifx = number * 1000;
        if (below(20) != 0)
            recording::ports().push_back({ifx, 0x07000000 | number, 0, 0, 0});
        const bool there = !recording::ports().empty(), starved = below(10) == 0, held = model.count(ifx) != 0;
        const auto eport = static_cast<int32_t>(0x10000000 | number);
        const known given{below(4096), below(4096)};
        strings wanted;
        int32_t rv = there ? 0 : -1;
        recording::fail_allocation(starved ? 1 : 0, true);
        if (below(3) != 0) {
            const int32_t result = write(eport, static_cast<int32_t>(given.now), static_cast<int32_t>(given.before));
            if (there && !held && starved)
                rv = -4;
            EXPECT_EQ(result, rv);
            if (rv == 0) {
                model[ifx] = given;
                wanted = all_hear(ifx, given.now, given.before);
            }
        } else {
            EXPECT_EQ(remove(eport, below(2) == 0 ? QZ_MOM_CMD_DEL : QZ_MOM_CMD_EXPIRED), rv);
            if (there) {
                wanted = all_hear(ifx, 0, held ? model[ifx].now : 0);
                model.erase(ifx);
            }
        }
        recording::fail_allocation(0);
        EXPECT_EQ(heard(), wanted);
        EXPECT_EQ(sw_brg_stat_pvid_count_nums_get(), static_cast<int32_t>(model.size()));
        EXPECT_EQ(sw_vlan_pvid_entry_hash_size(0), model.size());
        for (const auto &[of, entry] : model)
            EXPECT_EQ(cached_text(of), format("%u was %u", entry.now, entry.before));
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, PvidAtRandom, testing::Range(1u, 5u));

}  // namespace
