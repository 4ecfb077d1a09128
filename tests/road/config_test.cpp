// Reading configurations: what is taken, and the one line about what is not.
#include "config.hpp"

#include <gmock/gmock.h>

#include "config_file.hpp"

using namespace ebridge_tool;
using config_text::printable;
using config_text::printable_url;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

switch_config read(std::string_view text)
{
    switch_config config;
    std::string error;
    EXPECT_TRUE(parse_config("file", text, &config, &error)) << error;
    return config;
}

std::string error_of(std::string_view text)
{
    switch_config config;
    std::string error;
    EXPECT_FALSE(parse_config("file", text, &config, &error)) << text;
    EXPECT_EQ(error.find('\n'), std::string::npos);
    return error;
}

}  // namespace

TEST(Config, VlansAndMapsKeepTheirOrderAndKeys)
{
    const switch_config config = read(R"({
        "VXLAN_TUNNEL_MAP": {"vtep|b": {"vni": "20", "vlan": "Vlan010"}, "vtep|a": {"vni": 16777215, "vlan": "Vlan7"}},
        "VLAN": {"Vlan10": {"vlanid": "10", "members": ["Ethernet0"]}, "Vlan007": {"vlanid": 7}}})");
    ASSERT_EQ(config.vlans->size(), 2U);
    EXPECT_EQ((*config.vlans)[0].key, "Vlan10");
    EXPECT_EQ((*config.vlans)[1].number, 7U);
    ASSERT_EQ(config.vxlan_maps->size(), 2U);
    EXPECT_EQ((*config.vxlan_maps)[0].key, "vtep|b");
    EXPECT_EQ((*config.vxlan_maps)[0].vlan, 10U);
    EXPECT_EQ((*config.vxlan_maps)[1].vni, 0xffffffU);
}

TEST(Config, ATableThatIsMissingIsNotAnEmptyOne)
{
    EXPECT_FALSE(read("{}").vlans);
    EXPECT_TRUE(read(R"({"VLAN": {}})").vlans);
    EXPECT_THAT(*read(R"({"VLAN": {}})").vlans, IsEmpty());
}

TEST(Config, TablesWithoutMeaningAreCounted)
{
    const switch_config config =
        read(R"({"QUEUE": {"a": {}, "b": [1, {"c": 2}]}, "LIST": [1, [2], 3], "WORD": "x", "NOTHING": null, "E": {}})");
    std::vector<std::string> counts;
    for (const skipped_table &table : config.skipped)
        counts.push_back(table.name + std::to_string(table.entries));
    EXPECT_THAT(counts, ElementsAre("QUEUE2", "LIST3", "WORD1", "NOTHING1", "E0"));
}

TEST(Config, MapsNeedNoVlanTable)
{
    EXPECT_EQ(read(R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan9"}}})").vxlan_maps->size(), 1U);
}

TEST(Config, MapsNeedTheirTunnelOnlyWhereTunnelsAreTold)
{
    const char *const map = R"("VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan9"}})";
    read("{" + std::string(map) + "}");
    const switch_config config =
        read("{" + std::string(map) + R"(, "VXLAN_TUNNEL": {"s": {}, "t": {"src_ip": "::1"}}})");
    EXPECT_EQ(config.vxlan_maps->size(), 1U);
    EXPECT_EQ((*config.vxlan_maps)[0].tunnel, "t");
}

TEST(Config, PortsAndLagsKeepTheirOrder)
{
    const switch_config config = read(R"({
        "PORTCHANNEL_MEMBER": {"PortChannel0002|Ethernet4": {}, "PortChannel7|Ethernet8": {}},
        "PORTCHANNEL": {"PortChannel0002": {"mtu": "9100", "members": ["Ethernet4"]}, "PortChannel7": {}},
        "PORT": {"Ethernet8": {"mtu": 1}, "Ethernet4": {"mtu": "65535"}, "Ethernet0": {}}})");
    ASSERT_EQ(config.ports->size(), 3U);
    EXPECT_EQ((*config.ports)[0].key, "Ethernet8");
    EXPECT_TRUE((*config.ports)[1].in_lag);
    EXPECT_FALSE((*config.ports)[2].in_lag);
    ASSERT_EQ(config.lags->size(), 2U);
    EXPECT_EQ((*config.lags)[0].number, 2U);
    EXPECT_EQ((*config.lags)[1].key, "PortChannel7");
    ASSERT_EQ(config.skipped.size(), 1U) << "nothing is requested for members";
    EXPECT_EQ(config.skipped[0].entries, 2U);
}

TEST(Config, AMemberInTheTableOfLagsIsOneToo)
{
    const switch_config config =
        read(R"({"PORT": {"a": {}, "b": {}}, "PORTCHANNEL": {"PortChannel1": {"members": ["b"]}}})");
    EXPECT_FALSE((*config.ports)[0].in_lag);
    EXPECT_TRUE((*config.ports)[1].in_lag);
}

TEST(Config, MembersAreLookedUpInAListOfPortsWhereThereIsOne)
{
    const char *const text =
        R"({"PORTCHANNEL": {"PortChannel1": {}}, "PORTCHANNEL_MEMBER": {"PortChannel1|swp3": {}}})";
    const auto only = [](const char *name) { return [name](const std::string &port) { return port == name; }; };
    switch_config config;
    std::string error;
    EXPECT_TRUE(parse_config("file", text, &config, &error, only("swp3"))) << error;
    EXPECT_FALSE(parse_config("file", text, &config, &error, only("swp4")));
    EXPECT_EQ(error, "file:1: PORTCHANNEL_MEMBER|PortChannel1|swp3: \"swp3\" is no port");
}

TEST(Config, TunnelsHaveAddressesOfEitherVersion)
{
    const switch_config config = read(R"({"VXLAN_TUNNEL": {
        "old": {"src_ip": "10.0.0.1", "dst_ip": "10.0.0.2", "mtu": "9000"},
        "new": {"src_ip": "2001:db8::1", "dst_ip": "2001:db8::2"},
        "group": {"src_ip": "10.0.0.1", "dst_ip": "239.1.1.1"}, "none": {}}})");
    const std::vector<tunnel_entry> &tunnels = *config.tunnels;
    ASSERT_EQ(tunnels.size(), 4U);
    EXPECT_FALSE(tunnels[0].source->v6);
    EXPECT_EQ(tunnels[0].source->bytes, (std::array<uint8_t, 16>{10, 0, 0, 1}));
    EXPECT_EQ(tunnels[0].destination->bytes[3], 2);
    EXPECT_EQ(tunnels[0].mtu, 9000U);
    EXPECT_TRUE(tunnels[1].source->v6);
    EXPECT_EQ(tunnels[1].source->bytes,
              (std::array<uint8_t, 16>{0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
    EXPECT_FALSE(tunnels[3].source);
    EXPECT_FALSE(tunnels[3].destination);
    EXPECT_EQ(tunnels[3].mtu, 0U);
}

TEST(Config, MembersOfVlansAreReadWithTheirTagging)
{
    const switch_config config = read(R"({"VLAN_MEMBER": {"Vlan7|a": {"tagging_mode": "untagged"},
        "Vlan8|PortChannel3": {"tagging_mode": "tagged", "x": ["y"]}}, "PORT": {"a": {}}, "PORTCHANNEL":
        {"PortChannel3": {}}, "VLAN": {"Vlan7": {"members": ["b"]}, "Vlan8": {}}})");
    const std::vector<vlan_member> &members = *config.vlan_members;
    ASSERT_EQ(members.size(), 2U);
    EXPECT_EQ(members[0].key, "Vlan7|a");
    EXPECT_EQ(members[0].vlan, 7U);
    EXPECT_EQ(members[0].port, "a");
    EXPECT_TRUE(members[0].untagged);
    EXPECT_EQ(members[1].port, "PortChannel3");
    EXPECT_FALSE(members[1].untagged);
    EXPECT_THAT(config.skipped, IsEmpty());
}

TEST(Config, MembersTellThePortsWhereNothingElseDoes)
{
    const char *const members = R"("VLAN": {"Vlan7": {}}, "VLAN_MEMBER": {"Vlan7|a": {"tagging_mode": "tagged"},
        "Vlan7|PortChannel3": {"tagging_mode": "tagged"}})";
    EXPECT_EQ(read("{" + std::string(members) + "}").vlan_members->size(), 2U);
    const char *const rule = R"(, "ACL_RULE": {"t|r": {"PRIORITY": "1", "IN_PORTS": "a,PortChannel3"}}})";
    EXPECT_EQ(read("{" + std::string(members) + rule).acl_rules->size(), 1U);
    EXPECT_EQ(error_of("{" + std::string(members) + R"(, "PORTCHANNEL": {}})"),
              "file:2: VLAN_MEMBER|Vlan7|PortChannel3: \"PortChannel3\" is no port");
}

TEST(Config, WithAPortLagOrVlanItsMembershipsAreDropped)
{
    switch_config config = read(R"({"PORT": {"a": {}, "b": {}}, "PORTCHANNEL": {"PortChannel1": {}},
        "VLAN": {"Vlan1": {}, "Vlan2": {}}, "VLAN_MEMBER": {"Vlan1|a": {"tagging_mode": "tagged"},
        "Vlan2|a": {"tagging_mode": "tagged"}, "Vlan1|b": {"tagging_mode": "tagged"},
        "Vlan2|b": {"tagging_mode": "tagged"}, "Vlan1|PortChannel1": {"tagging_mode": "tagged"}}})");
    const auto dropped = [&config] {
        std::string keys;
        for (const vlan_member &member : *config.vlan_members)
            keys += member.dropped ? member.key + ' ' : "";
        return keys;
    };
    std::string error;
    EXPECT_TRUE(drop_entry("VLAN_MEMBER|Vlan2|b", &config, &error));
    EXPECT_EQ(dropped(), "Vlan2|b ");
    EXPECT_TRUE(drop_entry("PORT|a", &config, &error));
    EXPECT_EQ(dropped(), "Vlan1|a Vlan2|a Vlan2|b ");
    EXPECT_TRUE(drop_entry("PORTCHANNEL|PortChannel1", &config, &error));
    EXPECT_EQ(dropped(), "Vlan1|a Vlan2|a Vlan2|b Vlan1|PortChannel1 ");
    EXPECT_TRUE(drop_entry("VLAN|Vlan1", &config, &error));
    EXPECT_EQ(dropped(), "Vlan1|a Vlan2|a Vlan1|b Vlan2|b Vlan1|PortChannel1 ");
}

TEST(Config, WhatIsDroppedIsMarkedAndLeavesTheRestAlone)
{
    switch_config config = read(R"({"PORT": {"a": {}, "b": {}}, "PORTCHANNEL": {"PortChannel1": {}},
        "PORTCHANNEL_MEMBER": {"PortChannel1|a": {}, "PortChannel1|b": {}}, "VLAN": {"Vlan1": {}, "Vlan2": {}},
        "VXLAN_TUNNEL": {"t": {}}, "VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan1"}}})");
    std::string error;
    for (const char *entry : {"PORT|b", "PORTCHANNEL|PortChannel1", "PORTCHANNEL_MEMBER|PortChannel1|a", "VLAN|Vlan2",
                              "VXLAN_TUNNEL|t", "VXLAN_TUNNEL_MAP|t|m"})
        EXPECT_TRUE(drop_entry(entry, &config, &error)) << entry << error;
    EXPECT_FALSE((*config.ports)[0].dropped);
    EXPECT_FALSE((*config.ports)[0].in_lag) << "it has left its LAG";
    EXPECT_TRUE((*config.ports)[1].dropped);
    EXPECT_TRUE((*config.ports)[1].in_lag);
    EXPECT_TRUE((*config.lags)[0].dropped);
    EXPECT_FALSE((*config.vlans)[0].dropped);
    EXPECT_TRUE((*config.vlans)[1].dropped);
    EXPECT_TRUE((*config.tunnels)[0].dropped);
    EXPECT_TRUE((*config.vxlan_maps)[0].dropped);
}

TEST(Config, WhatCannotBeDroppedIsNamed)
{
    switch_config config = read(R"({"VLAN": {"Vlan1": {}}, "ACL_TABLE": {"x": {}}})");
    const std::pair<const char *, const char *> cases[] = {
        {"VLAN|Vlan2", "VLAN|Vlan2: the configuration has no such entry"},
        {"VLAN|", "VLAN|: the configuration has no such entry"},
        {"VLAN", "VLAN: the configuration has no such entry"},
        {"PORT|Ethernet0", "PORT|Ethernet0: the configuration has no such entry"},
        {"ACL_TABLE|x", "ACL_TABLE|x: nothing is made of such a table, so that nothing of it can be dropped"},
        {"", ": nothing is made of such a table, so that nothing of it can be dropped"},
    };
    for (const auto &[entry, line] : cases) {
        std::string error;
        EXPECT_FALSE(drop_entry(entry, &config, &error));
        EXPECT_EQ(error, line);
    }
}

TEST(Config, AByteOrderMarkIsNoMistake) { EXPECT_TRUE(read("\xef\xbb\xbf{\"VLAN\": {\"Vlan1\": {}}}").vlans); }

TEST(Config, WhatMakesNoSenseIsNamed)
{
    const std::pair<const char *, const char *> cases[] = {
        {R"({"VLAN": {"Vlan0": {}}})", "file:1: VLAN|Vlan0: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan4095": {}}})", "file:1: VLAN|Vlan4095: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan": {}}})", "file:1: VLAN|Vlan: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"vlan5": {}}})", "file:1: VLAN|vlan5: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan5a": {}}})", "file:1: VLAN|Vlan5a: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan-5": {}}})", "file:1: VLAN|Vlan-5: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan 5": {}}})", "file:1: VLAN|Vlan 5: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan4294967297": {}}})", "file:1: VLAN|Vlan4294967297: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan5\u0000": {}}})", R"(file:1: VLAN|Vlan5\x00: has a NUL character)"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0.1\u0000x"}}})", "file:1: VXLAN_TUNNEL|t: has a NUL character"},
        {R"({"ACL_RULE": {"t|a": {"PRIORITY": "1", "SRC_IP": "10.0.0.1\u0000/8"}}})",
         "file:1: ACL_RULE|t|a: has a NUL character"},
        {R"({"VLAN": {"": {}}})", "file:1: VLAN|: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan5": {"vlanid": "6"}}})", "file:1: VLAN|Vlan5: vlanid \"6\" is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": 5.0}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": ["5"]}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": null}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {"{\"VLAN\":\n {\"Vlan10\": {},\n  \"Vlan010\": {}}}", "file:3: VLAN|Vlan010: is the same VLAN as Vlan10"},
        {R"({"VLAN": {"Vlan10": {}, "Vlan10": {}}})", "file:1: VLAN|Vlan10: stands there twice"},
        {R"({"VLAN": {}, "VLAN": {}})", "file:1: VLAN: stands there twice"},
        {R"({"PORT": {"a": {}, "a": {}}})", "file:1: PORT|a: stands there twice"},
        {R"({"PORT": {"a": {"b": {"c": 1, "c": 2}}}})", "file:1: PORT|a: \"c\" stands there twice"},
        {R"({"QUEUE": {"a": {}, "a": {}}})", "file:1: QUEUE: \"a\" stands there twice"},
        {R"({"PORT": ["a"]})", "file:1: PORT: must be an object of entries"},
        {R"({"PORT": {"a": "up"}})", "file:1: PORT|a: must be an object of fields"},
        {R"({"PORT": {"a": {"mtu": "0"}}})", "file:1: PORT|a: mtu \"0\" is not a number from 1 to 65535"},
        {R"({"PORT": {"a": {"mtu": 65536}}})", "file:1: PORT|a: mtu \"65536\" is not a number from 1 to 65535"},
        {R"({"PORT": {"a": {"mtu": ["1500"]}}})", "file:1: PORT|a: mtu is not a number from 1 to 65535"},
        {R"({"PORTCHANNEL": {"LAG1": {}}})",
         "file:1: PORTCHANNEL|LAG1: the name must be PortChannel0 to PortChannel999999"},
        {R"({"PORTCHANNEL": {"PortChannel": {}}})",
         "file:1: PORTCHANNEL|PortChannel: the name must be PortChannel0 to PortChannel999999"},
        {R"({"PORTCHANNEL": {"PortChannel1000000": {}}})",
         "file:1: PORTCHANNEL|PortChannel1000000: the name must be PortChannel0 to PortChannel999999"},
        {R"({"PORTCHANNEL": {"PortChannel1": {"mtu": "big"}}})",
         "file:1: PORTCHANNEL|PortChannel1: mtu \"big\" is not a number from 1 to 65535"},
        {"{\"PORTCHANNEL\": {\"PortChannel1\": {},\n\"PortChannel01\": {}}}",
         "file:2: PORTCHANNEL|PortChannel01: has the number of PortChannel1 already"},
        {R"({"PORTCHANNEL": {"PortChannel1": {"members": "a"}}})",
         "file:1: PORTCHANNEL|PortChannel1: members is not a list of names"},
        {R"({"PORT": {}, "PORTCHANNEL": {"PortChannel1": {"members": ["a"]}}})",
         "file:1: PORTCHANNEL|PortChannel1: \"a\" is no port"},
        {R"({"PORTCHANNEL_MEMBER": {"PortChannel1": {}}})",
         "file:1: PORTCHANNEL_MEMBER|PortChannel1: the key must be PORTCHANNEL|PORT"},
        {R"({"PORTCHANNEL_MEMBER": {"PortChannel1|a": {}}, "PORTCHANNEL": {"PortChannel2": {}}})",
         "file:1: PORTCHANNEL_MEMBER|PortChannel1|a: \"PortChannel1\" is not in the table PORTCHANNEL"},
        {R"({"PORTCHANNEL_MEMBER": {"PortChannel1|a": {}}, "PORT": {"b": {}}})",
         "file:1: PORTCHANNEL_MEMBER|PortChannel1|a: \"a\" is no port"},
        {R"({"PORTCHANNEL_MEMBER": {"PortChannel1|a": {}, "PortChannel2|a": {}}})",
         "file:1: PORTCHANNEL_MEMBER|PortChannel2|a: a is a member of PortChannel1 already"},
        {R"({"VLAN": {"Vlan5": {"mtu": "-1"}}})", "file:1: VLAN|Vlan5: mtu \"-1\" is not a number from 1 to 65535"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"10.0.0\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0.256"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"10.0.0.256\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0.1/32"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"10.0.0.1/32\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "0.0.0.0"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"0.0.0.0\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "224.0.0.5"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"224.0.0.5\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "255.255.255.255"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"255.255.255.255\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "ff02::1"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"ff02::1\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "2001:db8:::1"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip \"2001:db8:::1\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": ["10.0.0.1"]}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"dst_ip": "::"}}})",
         "file:1: VXLAN_TUNNEL|t: dst_ip \"::\" is not the address of a switch"},
        {R"({"VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0.1", "dst_ip": "2001:db8::1"}}})",
         "file:1: VXLAN_TUNNEL|t: src_ip and dst_ip are not of the same IP version"},
        {R"({"VXLAN_TUNNEL": {"t": {"mtu": "1e3"}}})",
         "file:1: VXLAN_TUNNEL|t: mtu \"1e3\" is not a number from 1 to 65535"},
        {R"({"VLAN": {"Vlan1": {"vlanid": "1", "vlanid": "1"}}})", "file:1: VLAN|Vlan1: \"vlanid\" stands there twice"},
        {R"({"VLAN": []})", "file:1: VLAN: must be an object of entries"},
        {R"({"VLAN": "Vlan5"})", "file:1: VLAN: must be an object of entries"},
        {R"({"VLAN": {"Vlan5": []}})", "file:1: VLAN|Vlan5: must be an object of fields"},
        {R"({"VLAN": {"Vlan5": "5"}})", "file:1: VLAN|Vlan5: must be an object of fields"},
        {R"({"VLAN_MEMBER": {"Vlan1": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1: the key must be VLAN|PORT"},
        {R"({"VLAN_MEMBER": {"Vlan1|": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|: the key must be VLAN|PORT"},
        {R"({"VLAN_MEMBER": {"vlan|a": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|vlan|a: \"vlan\" is not Vlan1 to Vlan4094"},
        {R"({"VLAN_MEMBER": {"Vlan2|a": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan2|a: \"Vlan2\" is not in the table VLAN"},
        {R"({"VLAN_MEMBER": {"Vlan2|a": {"tagging_mode": "tagged"}}})",
         "file:1: VLAN_MEMBER|Vlan2|a: \"Vlan2\" is not in the table VLAN"},
        {R"({"VLAN_MEMBER": {"Vlan1|a": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}, "PORT": {"b": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|a: \"a\" is no port"},
        {R"({"VLAN_MEMBER": {"Vlan1|PortChannelX": {"tagging_mode": "tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|PortChannelX: \"PortChannelX\" is no port"},
        {R"({"VLAN_MEMBER": {"Vlan1|a": {}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|a: tagging_mode is missing"},
        {R"({"VLAN_MEMBER": {"Vlan1|a": {"tagging_mode": "priority_tagged"}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|a: tagging_mode \"priority_tagged\" is neither tagged nor untagged"},
        {R"({"VLAN_MEMBER": {"Vlan1|a": {"tagging_mode": ["tagged"]}}, "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan1|a: tagging_mode is neither tagged nor untagged"},
        {R"({"VLAN_MEMBER": {"Vlan1|a": {"tagging_mode": "tagged"}, "Vlan01|a": {"tagging_mode": "untagged"}},
             "VLAN": {"Vlan1": {}}})",
         "file:1: VLAN_MEMBER|Vlan01|a: is the same member as Vlan1|a"},
        {R"({"VXLAN_TUNNEL_MAP": {"m": {"vni": "5", "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|m: the key must be TUNNEL|MAP"},
        {R"({"VXLAN_TUNNEL_MAP": {"|m": {"vni": "5", "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP||m: the key must be TUNNEL|MAP"},
        {R"({"VXLAN_TUNNEL": {"s": {}}, "VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: the tunnel \"t\" is not in the table VXLAN_TUNNEL"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan9"}}, "VXLAN_TUNNEL": {}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: the tunnel \"t\" is not in the table VXLAN_TUNNEL"},
        {R"({"VXLAN_TUNNEL": ["t"]})", "file:1: VXLAN_TUNNEL: must be an object of entries"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vlan": "Vlan9"}}})", "file:1: VXLAN_TUNNEL_MAP|t|m: vni is missing"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "9"}}})", "file:1: VXLAN_TUNNEL_MAP|t|m: vlan is missing"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "0", "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: vni \"0\" is not a number from 1 to 16777215"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "16777216", "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: vni \"16777216\" is not a number from 1 to 16777215"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": -4, "vlan": "Vlan9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: vni \"-4\" is not a number from 1 to 16777215"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "4", "vlan": "9"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: vlan \"9\" is not Vlan1 to Vlan4094"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "4", "vlan": "Vlan9"}}, "VLAN": {"Vlan8": {}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|m: vlan \"Vlan9\" is not in the table VLAN"},
        {R"({"VXLAN_TUNNEL_MAP": {"t|m": {"vni": "4", "vlan": "Vlan9"}, "t|n": {"vni": 4, "vlan": "Vlan8"}}})",
         "file:1: VXLAN_TUNNEL_MAP|t|n: vni \"4\" is that of t|m already"},
        {"[]", "file:1: the top level must be an object of tables"},
        {"17", "file:1: the top level must be an object of tables"},
        {"", "file: the file is empty"},
        {" \n\t", "file: the file is empty"},
    };
    for (const auto &[text, error] : cases)
        EXPECT_EQ(error_of(text), error);
}

TEST(Config, WhatIsNoJsonIsToldWithItsLine)
{
    const std::pair<std::string, const char *> cases[] = {
        {"{\n\"VLAN\": {", "file:2: VLAN: not JSON: "},
        {"{\n\n\"VLAN\": {}} x", "file:3: not JSON: "},
        {"{\"VLAN\": {\"Vlan\xff\": {}}}", "file:1: VLAN: not JSON: "},
        {std::string("{\"VLAN\":\n {}}\0", 14), "file:2: not JSON: a NUL byte"},
        {"{\"A\": 1e999}", "file:1: A: number overflow"},
        {"{'VLAN': {}}", "file:1: not JSON: "},
        {"{\"VLAN\": {},}", "file:1: VLAN: not JSON: "},
    };
    for (const auto &[text, start] : cases)
        EXPECT_THAT(error_of(text), testing::StartsWith(start));
}

TEST(Config, DeepNestingIsRefusedWithoutFollowingIt)
{
    const std::string lists(10'000, '[');
    EXPECT_EQ(error_of("{\"X\": " + lists), "file:1: X: nested more than 64 levels deep");
    EXPECT_EQ(error_of(lists), "file:1: the top level must be an object of tables");
    std::string objects;
    for (int i = 0; i < 10'000; ++i)
        objects += "{\"VLAN\":";
    EXPECT_EQ(error_of(objects), "file:1: VLAN|VLAN: nested more than 64 levels deep");
}

TEST(Config, EveryCutOfAConfigurationIsAnErrorAndNoCrash)
{
    const std::string text = R"({"VLAN": {"Vlan10": {"vlanid": "10"}}, "VXLAN_TUNNEL_MAP": {"t|m":
        {"vni": "4", "vlan": "Vlan10"}}, "QUEUE": {"a": [1, 2.5e3, true, null, "\u00fc"]},
        "PORT": {"a": {"mtu": "1500"}}, "PORTCHANNEL": {"PortChannel1": {"members": ["a"]}},
        "VXLAN_TUNNEL": {"t": {"src_ip": "2001:db8::1"}}})";
    for (size_t length = 0; length < text.size(); ++length)
        error_of(text.substr(0, length));
    read(text);
}

TEST(Config, MessagesStayOnOneShortLine)
{
    EXPECT_EQ(error_of("{\"VLAN\": {\"a\\nb\\u001b\": {}}}"),
              "file:1: VLAN|a\\x0ab\\x1b: the name must be Vlan1 to Vlan4094");
    EXPECT_LT(error_of("{\"VLAN\": {\"" + std::string(100'000, 'x') + "\": {}}}").size(), 300U);
}

TEST(Config, PrintableTextKeepsWholeCharacters)
{
    EXPECT_EQ(printable("\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80"), "\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(printable("\xc3"), "\\xc3");
    EXPECT_EQ(printable("\x80\xff"), "\\x80\\xff");
    EXPECT_EQ(printable("\xc2\x85"), "\\xc2\\x85");
    EXPECT_EQ(printable("\t"), "\\x09");
    const std::string page = "\xe2\x80";
    EXPECT_EQ(printable(page + '\xae' + page + '\xa8'), "\\xe2\\x80\\xae\\xe2\\x80\\xa8");
    const char *const neighbours = "\xe2\x80\x90\xe2\x80\xa7\xe2\x80\xaf\xe2\x81\xa5";
    EXPECT_EQ(printable(neighbours), neighbours);
}

TEST(PrintableUrl, HasNoPassword)
{
    EXPECT_EQ(printable_url("redis://app:se@cr:et@host:x"), "redis://...@host:x");
    EXPECT_EQ(printable_url("redis+unix://app:secret@/run/redis.sock"), "redis+unix://...@/run/redis.sock");
    for (const char *url :
         {"redis://host:1", "redis+unix:///run/a@b.sock", "file:///etc/a@b.json", "mem:x@y", "@://", ""})
        EXPECT_EQ(printable_url(url), url);
}
