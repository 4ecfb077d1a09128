// Aging of a user's port records: marking all of them, and deleting those that are still marked.
#include "port_vlans_fixture.hpp"

namespace
{

using namespace port_vlans_test;
using PortVlansAging = PortVlansTest;

constexpr char own_records[] = "u_bridge.port_vlans{index{t_user:\"app\"}}";

TEST_F(PortVlansAging, MarksTheUsersRecords)
{
    add_user();
    EXPECT_EQ(sw_vlan_ports_aging_flag_set("app", &two_seconds, ended, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre("debug sw_vlan_ports_aging_flag_set: " +
                                         format("user_name: app, aging_timer: %p, func_callback: %p, args: %p.",
                                                static_cast<const void *>(&two_seconds), address(ended),
                                                static_cast<void *>(&user_argument)),
                                     std::string("qz_mom_pexpire 6 ") + own_records));
    expect_pattern_call(only_call(), "qz_mom_pexpire", own_db, own_records);
    expect_delay(only_call(), two_seconds);
    expect_callback(only_call(), ended, &user_argument);
}

TEST_F(PortVlansAging, MarksAtOnceWithoutCallback)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync("app", &two_seconds), 0);
    EXPECT_THAT(trace(),
                ElementsAre(line("debug", "aging_flag_set_sync",
                                 format("user_name: app, aging_timer: %p\n", static_cast<const void *>(&two_seconds))),
                            std::string("qz_mom_pexpire_sync 6 ") + own_records));
    expect_pattern_call(only_call(), "qz_mom_pexpire_sync", own_db, own_records);
    expect_delay(only_call(), two_seconds);
}

TEST_F(PortVlansAging, WithoutTimerLastsHalfAnHour)
{
    add_user();
    EXPECT_EQ(sw_vlan_ports_aging_flag_set("app", nullptr, nullptr, nullptr), 0);
    expect_default_delay(only_call());
    expect_callback(only_call(), nullptr, nullptr);
    EXPECT_TRUE(
        traced("debug sw_vlan_ports_aging_flag_set: user_name: app, aging_timer: (nil), func_callback: (nil), "
               "args: (nil)."));
    recording::reset();
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync("app", nullptr), 0);
    expect_default_delay(only_call());
    EXPECT_TRUE(traced(line("debug", "aging_flag_set_sync", "user_name: app, aging_timer: (nil)\n")));
}

TEST_F(PortVlansAging, DeletesWhatIsStillMarked)
{
    add_user();
    EXPECT_EQ(sw_vlan_port_aged_data_delete("app", ended, &user_argument), 0);
    EXPECT_THAT(trace(), ElementsAre(line("debug", "aged_data_delete", "deleting aged data."),
                                     std::string("qz_mom_del_expire 6 ") + own_records));
    expect_pattern_call(only_call(), "qz_mom_del_expire", own_db, own_records);
    expect_callback(only_call(), ended, &user_argument);
}

TEST_F(PortVlansAging, ThatFailsTellsTheStoresCode)
{
    add_user();
    recording::set_result("qz_mom_pexpire", -105);
    recording::set_result("qz_mom_pexpire_sync", -104);
    recording::set_result("qz_mom_del_expire", -103);
    void *handle = recording::other_handle();
    EXPECT_EQ(sw_vlan_ports_aging_flag_set("app", nullptr, ended, nullptr), -105);
    EXPECT_EQ(trace().back(), format("error sw_vlan_ports_aging_flag_set: Assert:qz_mom_pexpire failed, user: app, "
                                     "mom_handle: %p, mom_db: 6, rv: -105.",
                                     handle));
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync("app", nullptr), -104);
    EXPECT_EQ(
        trace().back(),
        line("error", "aging_flag_set_sync",
             format("Assert:Aging all PortVlans of 'app' in db[6] failed, global is %p, error is -104.\n", handle)));
    EXPECT_EQ(sw_vlan_port_aged_data_delete("app", ended, nullptr), -103);
    EXPECT_EQ(trace().back(),
              line("error", "aged_data_delete", "Assert:qz_mom_del_expire failed, user: app, rv: -103."));
    EXPECT_THAT(errors(), SizeIs(3));
}

TEST_F(PortVlansAging, RefusesUnknownUsers)
{
    add_user();
    EXPECT_EQ(sw_vlan_ports_aging_flag_set("nobody", nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync("nobody", nullptr), -2);
    EXPECT_EQ(sw_vlan_port_aged_data_delete("nobody", ended, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre(std::string("error sw_vlan_ports_aging_flag_set: ") + no_such_user,
                                     line("error", "aging_flag_set_sync", no_such_user),
                                     line("error", "aged_data_delete", no_such_user)));
    EXPECT_EQ(sw_vlan_ports_aging_flag_set(nullptr, nullptr, ended, nullptr), -2);
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync(nullptr, nullptr), -2);
    EXPECT_EQ(sw_vlan_port_aged_data_delete(nullptr, ended, nullptr), -2);
    EXPECT_THAT(errors(), testing::Contains("Assert:No user named 'NULL'.\n").Times(3));
    EXPECT_THAT(recording::calls(), IsEmpty());
}

TEST_F(PortVlansAging, LeavesTheLocalRecords)
{
    add_user();
    const port_sets sets{vlans({1}), vlans({2}), vlans({3})};
    hold(sets);
    EXPECT_EQ(sw_vlan_ports_aging_flag_set("app", nullptr, ended, nullptr), 0);
    EXPECT_EQ(sw_vlan_port_aging_flag_set_sync("app", nullptr), 0);
    EXPECT_EQ(sw_vlan_port_aged_data_delete("app", ended, nullptr), 0);
    EXPECT_EQ(local(port_3), sets);
}

}  // namespace
