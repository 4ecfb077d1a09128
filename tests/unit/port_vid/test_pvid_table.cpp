// The table of default VLANs: reading it, following it, looking up in what is kept of it.
#include "port_vid_fixture.hpp"

namespace
{

using namespace port_vid_test;
using PvidScan = PortVidTest;
using PvidSubscribe = PortVidTest;
using PvidGet = PortVidTest;

constexpr char all_records[] = "u_bridge.pvid_table{index{}}";

void expect_pair(const recording::call &made, sw_ebridge_mom_func func, const void *arg)
{
    ASSERT_NE(pair_of(made), nullptr);
    EXPECT_EQ(pair_of(made)->func, func);
    EXPECT_EQ(pair_of(made)->arg, arg);
}

std::string subscribe_line(const void *func, const void *arg)
{
    return line("info", "pvid_subscribe", format("User 'app' subscribe PVID, func is %p, args is %p.", func, arg));
}

// ---- scan

TEST_F(PvidScan, ReadsTheTableOfTheDataPlaneWhateverTheUsersDatabase)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_table_scan("app", user_func, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(std::string("qz_mom_scan 8 ") + all_records));
    expect_call(only_call(), "qz_mom_scan", 8, all_records);
    EXPECT_EQ(only_call().flags, 0u);
    EXPECT_EQ(only_call().callback, address(sw_vlan_mom_msg_port_vid_changed));
    expect_pair(only_call(), user_func, &user_argument);
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidScan, HasAPairOfItsOwnEachTime)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_table_scan("app", nullptr, nullptr), 0);
    EXPECT_EQ(sw_vlan_pvid_table_scan("app", user_func, nullptr), 0);
    expect_pair(recording::calls().at(0), nullptr, nullptr);
    expect_pair(recording::calls().at(1), user_func, nullptr);
}

TEST_F(PvidScan, ThatIsRefusedFreesItsPairAndTellsNobody)
{
    add_user();
    recording::set_result("qz_mom_scan", -105);
    const auto blocks = freed_by([] { EXPECT_EQ(sw_vlan_pvid_table_scan("app", user_func, nullptr), 0); });
    EXPECT_THAT(blocks, ElementsAre(only_call().args));
    EXPECT_THAT(recording::logged(), IsEmpty());
    EXPECT_THAT(func_calls, IsEmpty());
}

TEST_F(PvidScan, WithoutMemoryAsksNothing)
{
    add_user();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_vlan_pvid_table_scan("app", user_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(),
                ElementsAre(line("error", "pvid_table_scan", "Assert:malloc sw_ebridge_scan_args[0] failed.")));
}

TEST_F(PvidScan, RefusesUnknownUsers)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_table_scan("nobody", user_func, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "pvid_table_scan", no_such_user)));
    EXPECT_EQ(sw_vlan_pvid_table_scan(nullptr, user_func, nullptr), -2);
    EXPECT_EQ(trace().back(), line("error", "pvid_table_scan", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

// ---- subscribe

TEST_F(PvidSubscribe, FollowsTheTableOfTheUsersOwnDatabase)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_subscribe("app", user_func, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(subscribe_line(address(user_func), &user_argument),
                                     std::string("qz_mom_subscribe 6 ") + all_records));
    expect_call(only_call(), "qz_mom_subscribe", own_db, all_records);
    EXPECT_EQ(only_call().flags, 0u);
    EXPECT_EQ(only_call().callback, address(sw_vlan_mom_msg_port_vid_changed));
    expect_pair(only_call(), user_func, &user_argument);
    EXPECT_EQ(counts(), "subscribe 1 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidSubscribe, HasAPairOfItsOwnEachTime)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_subscribe("app", nullptr, nullptr), 0);
    EXPECT_EQ(sw_vlan_pvid_subscribe("app", user_func, &user_argument), 0);
    EXPECT_EQ(trace().front(), subscribe_line(nullptr, nullptr));
    expect_pair(recording::calls().at(0), nullptr, nullptr);
    expect_pair(recording::calls().at(1), user_func, &user_argument);
    EXPECT_EQ(counts(), "subscribe 2 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidSubscribe, ThatIsRefusedFreesItsPairAndCounts)
{
    add_user();
    recording::set_result("qz_mom_subscribe", -105);
    const auto blocks = freed_by([] { EXPECT_EQ(sw_vlan_pvid_subscribe("app", user_func, nullptr), -105); });
    EXPECT_THAT(blocks, ElementsAre(only_call().args));
    EXPECT_EQ(trace().back(), line("error", "pvid_subscribe", "qz_mom_subscribe failed, rv: -105."));
    EXPECT_EQ(counts(), "subscribe 1 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidSubscribe, WithoutMemoryAsksNothing)
{
    add_user();
    recording::fail_allocation(1);
    EXPECT_EQ(sw_vlan_pvid_subscribe("app", user_func, nullptr), -4);
    recording::fail_allocation(0);
    EXPECT_THAT(trace(), ElementsAre(subscribe_line(address(user_func), nullptr),
                                     line("error", "pvid_subscribe", "Assert:Malloc failed.")));
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidSubscribe, RefusesUnknownUsers)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_subscribe("nobody", user_func, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "pvid_subscribe", no_such_user)));
    EXPECT_EQ(sw_vlan_pvid_subscribe(nullptr, user_func, nullptr), -2);
    EXPECT_EQ(trace().back(), line("error", "pvid_subscribe", "Assert:No user named 'NULL'.\n"));
    EXPECT_THAT(recording::calls(), IsEmpty());
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

// ---- look-up

TEST_F(PvidGet, TellsTheCurrentOneWhoeverAsks)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 5), 0);
    EXPECT_EQ(write(port_2, 4095, 0), 0);
    recording::reset();
    for (const char *name : {"app", "nobody", static_cast<const char *>(nullptr)}) {
        int32_t pvid = -7;
        EXPECT_EQ(sw_vlan_pvid_get(name, ifx_1, &pvid), 0);
        EXPECT_EQ(pvid, 10);
        EXPECT_EQ(sw_vlan_pvid_get(name, ifx_2, &pvid), 0);
        EXPECT_EQ(pvid, 4095);
    }
    EXPECT_THAT(trace(), IsEmpty());
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 6 delete 0 nums 2");
}

TEST_F(PvidGet, OfAPortNeverSeenIs0)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    int32_t pvid = -7;
    EXPECT_EQ(sw_vlan_pvid_get("app", ifx_2, &pvid), 0);
    EXPECT_EQ(pvid, 0);
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 1 delete 0 nums 1");
    EXPECT_FALSE(is_cached(ifx_2));
}

TEST_F(PvidGet, TakesInterfacesNotEportIds)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 0), 0);
    int32_t pvid = -7;
    EXPECT_EQ(sw_vlan_pvid_get("app", port_1, &pvid), 0);
    EXPECT_EQ(pvid, 0);
}

TEST_F(PvidGet, IsNeverNegative)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, -1, 0), 0);
    int32_t pvid = -7;
    EXPECT_EQ(sw_vlan_pvid_get("app", ifx_1, &pvid), 0);
    EXPECT_EQ(pvid, 0xffff);
}

TEST_F(PvidGet, NeedsAPlaceForTheResult)
{
    add_user();
    EXPECT_EQ(sw_vlan_pvid_get("app", ifx_1, nullptr), -2);
    EXPECT_EQ(sw_vlan_pvid_get(nullptr, ifx_1, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(line("error", "pvid_get", "Assert:Bad pvid of user[app]."),
                                     line("error", "pvid_get", "Assert:Bad pvid of user[NULL].")));
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidGet, BeforeAnyUserIsThereFindsNothing)
{
    int32_t pvid = -7;
    EXPECT_EQ(sw_vlan_pvid_get("app", ifx_1, &pvid), 0);
    EXPECT_EQ(pvid, 0);
}

}  // namespace
