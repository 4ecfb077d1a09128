// Changes of VLANs that the chip driver tells the users of a unit.
#include "sda_fixture.hpp"

namespace
{

using namespace sda_test;
using SdaVlanPorts = SdaTest;
using SdaVlanFid = SdaTest;

TEST_F(SdaVlanPorts, AreToldToTheUsersOfTheUnit)
{
    add_user(0, "elsewhere");
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    for (const auto &[op, word] : {std::pair{1u, "add"}, {0u, "del"}, {2u, "del"}, {UINT32_MAX, "del"}})
        EXPECT_THAT(
            traced_by(0, [op = op] { return sda_vlan_ports_notify(1, 10, 0x8000005, op); }),
            ElementsAre(format("info sda_vlan_ports_notify: notify vlan_port change to bridge, unit: 1, vid: 10 %s "
                               "lphyid: 0x8000005\n",
                               word),
                        format("bridge hears ports 1: VLAN 10 port 0x8000005 op %u", op)));
}

// A callback's result would end the walk if anyone looked at it.
TEST_F(SdaVlanPorts, AreToldToEveryone)
{
    for (const char *name : {"a", "b", "c"})
        add_user(5, name);
    EXPECT_EQ(sda_vlan_ports_notify(5, 4094, 7, 0), 0);
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a hears ports 5: VLAN 4094 port 0x7 op 0",
                                                       "b hears ports 5: VLAN 4094 port 0x7 op 0",
                                                       "c hears ports 5: VLAN 4094 port 0x7 op 0"));
}

TEST_F(SdaVlanPorts, OfAUnitWithoutUsersAreNobodysConcern)
{
    EXPECT_THAT(traced_by(0, [] { return sda_vlan_ports_notify(0, 10, 5, 1); }), IsEmpty());  // before any set-up
    start_without_users();
    EXPECT_THAT(traced_by(0, [] { return sda_vlan_ports_notify(1, 10, 5, 1); }), IsEmpty());
}

TEST_F(SdaVlanPorts, OfAUnitThatIsNotThereAreRefused)
{
    start_without_users();
    EXPECT_THAT(traced_by(-2, [] { return sda_vlan_ports_notify(no_unit, 10, 5, 1); }),
                ElementsAre("error sda_vlan_ports_notify: Assert:Bad inst 6."));
}

TEST_F(SdaVlanFid, IsToldToTheUsersOfTheUnit)
{
    add_user(0, "elsewhere");
    add_user(1, "bridge");
    add_user(1, "deaf", no_callbacks);
    EXPECT_THAT(traced_by(0, [] { return sda_vlan_fid_notify(1, 10, 11, 12); }),
                ElementsAre("info sda_vlan_fid_notify: notify vlan_port change to bridge, unit: 1, vid: 10, "
                            "old_fid: 11, new_fid: 12\n",
                            "bridge hears fid 1: VLAN 10 11 to 12"));
}

TEST_F(SdaVlanFid, IsToldToEveryone)
{
    for (const char *name : {"a", "b", "c"})
        add_user(5, name);
    EXPECT_EQ(sda_vlan_fid_notify(5, 1, 2, 3), 0);
    EXPECT_THAT(heard(), testing::UnorderedElementsAre("a hears fid 5: VLAN 1 2 to 3", "b hears fid 5: VLAN 1 2 to 3",
                                                       "c hears fid 5: VLAN 1 2 to 3"));
}

TEST_F(SdaVlanFid, OfAUnitWithoutUsersIsNobodysConcern)
{
    EXPECT_THAT(traced_by(0, [] { return sda_vlan_fid_notify(0, 10, 11, 12); }), IsEmpty());  // before any set-up
    start_without_users();
    EXPECT_THAT(traced_by(0, [] { return sda_vlan_fid_notify(1, 10, 11, 12); }), IsEmpty());
}

TEST_F(SdaVlanFid, OfAUnitThatIsNotThereIsRefused)
{
    start_without_users();
    EXPECT_THAT(traced_by(-2, [] { return sda_vlan_fid_notify(no_unit, 10, 11, 12); }),
                ElementsAre("error sda_vlan_fid_notify: Assert:Bad inst 6."));
}

}  // namespace
