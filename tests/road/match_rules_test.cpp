// Access lists: what of them is read, and which match rules they become.
#include "match_rules.hpp"

#include <arpa/inet.h>
#include <gmock/gmock.h>

using namespace ebridge_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// With two ports, a LAG and two access lists of either stage.
constexpr const char *SWITCH = R"("PORT": {"Ethernet0": {}, "Ethernet4": {}}, "PORTCHANNEL": {"PortChannel2": {}},
    "ACL_TABLE": {"in": {"type": "L3", "stage": "ingress", "ports": ["Ethernet0", "PortChannel2"]},
                  "out": {"type": "L3", "stage": "EGRESS"}, "self": {"type": "CTRLPLANE"}})";

std::string config_of(const std::string &rules)
{
    return "{" + std::string(SWITCH) + ",\"ACL_RULE\": {" + rules + "}}";
}

std::vector<acl_rule> read(const std::string &rules)
{
    switch_config config;
    std::string error;
    EXPECT_TRUE(parse_config("file", config_of(rules), &config, &error)) << error;
    return config.acl_rules.value_or(std::vector<acl_rule>());
}

// Fields of one rule, without its priority.
acl_rule rule_of(const std::string &fields)
{
    std::vector<acl_rule> rules = read(R"("in|r": {"PRIORITY": "1", )" + fields + "}");
    EXPECT_EQ(rules.size(), 1U);
    return rules.empty() ? acl_rule{} : rules[0];
}

std::string error_of(const std::string &text)
{
    switch_config config;
    std::string error;
    EXPECT_FALSE(parse_config("file", text, &config, &error)) << text;
    return error;
}

expressed_rule express(const acl_rule &rule) { return express(rule, priority_levels({rule})); }
expressed_rule express(const std::string &fields) { return express(rule_of(fields)); }

// The only match rule of these fields.
sw_ematch_item made_of(const std::string &fields)
{
    const expressed_rule made = express(fields);
    EXPECT_EQ(made.reason, "") << fields;
    EXPECT_EQ(made.rules.size(), 1U) << fields;
    return made.rules.empty() ? sw_ematch_item{} : made.rules[0];
}

std::string reason_of(const std::string &fields)
{
    const expressed_rule made = express(fields);
    EXPECT_THAT(made.rules, IsEmpty()) << fields;
    return made.reason;
}

// As in the records: network byte order.
uint32_t v4(const char *text)
{
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1);
    return address.s_addr;
}

std::string address_of(const sw_ematch_item &item)
{
    char text[INET6_ADDRSTRLEN] = "";
    return inet_ntop(item.ip_ver == 0 ? AF_INET : AF_INET6, item.ip, text, sizeof text);
}

std::vector<int32_t> levels_of(const std::vector<uint32_t> &priorities)
{
    std::vector<acl_rule> rules;
    for (const uint32_t priority : priorities) {
        rules.emplace_back();
        rules.back().priority = priority;
    }
    const priority_levels levels(rules);
    std::vector<int32_t> found;
    for (const uint32_t priority : priorities)
        found.push_back(levels.of(priority));
    return found;
}

}  // namespace

// ---- reading --------------------------------------------------------------------------------------------------------

TEST(AclConfig, EveryFieldOfARuleIsRead)
{
    const std::vector<acl_rule> rules = read(R"(
        "in|one": {"PRIORITY": 999999, "PACKET_ACTION": "FORWARD", "IN_PORTS": "Ethernet4,PortChannel2,Ethernet4",
                   "VLAN_ID": "4094", "INNER_VLAN_ID": 1, "ETHER_TYPE": "0x88cc", "RULE_DESCRIPTION": "text"},
        "out|two": {"PRIORITY": "0", "SRC_IP": "10.1.2.3/16", "DST_IP": "192.0.2.1", "IN_PORTS": ["Ethernet0"]},
        "self|three": {"PRIORITY": "5", "DST_IPV6": "2001:db8:ffff::/33", "TCP_FLAGS": "0x2/0x2", "DSCP": "46"})");
    ASSERT_EQ(rules.size(), 3U);
    EXPECT_EQ(rules[0].key, "in|one");
    EXPECT_EQ(rules[0].priority, 999999U);
    EXPECT_EQ(rules[0].action, "FORWARD");
    ASSERT_EQ(rules[0].in_ports.size(), 2U) << "one is named twice";
    EXPECT_EQ(rules[0].in_ports[1].name, "PortChannel2");
    EXPECT_EQ(rules[0].vlan, 4094U);
    EXPECT_EQ(rules[0].inner_vlan, 1U);
    EXPECT_EQ(rules[0].ether_type, 0x88ccU);
    EXPECT_FALSE(rules[0].egress);
    EXPECT_THAT(rules[0].others, IsEmpty());
    EXPECT_TRUE(rules[1].egress);
    EXPECT_EQ(rules[1].action, "");
    EXPECT_EQ(rules[1].source->length, 16U);
    EXPECT_EQ(rules[1].source->address.bytes, (std::array<uint8_t, 16>{10, 1}));
    EXPECT_TRUE(rules[1].destination->is_host());
    EXPECT_FALSE(rules[1].of_switch);
    EXPECT_TRUE(rules[2].of_switch);
    EXPECT_EQ(rules[2].destination->address.bytes, (std::array<uint8_t, 16>{0x20, 1, 0x0d, 0xb8, 0x80}));
    EXPECT_THAT(rules[2].others, ElementsAre("TCP_FLAGS", "DSCP"));
}

TEST(AclConfig, ListsAreNeededOnlyWhereListsAreTold)
{
    switch_config config;
    std::string error;
    EXPECT_TRUE(parse_config("file", R"({"ACL_RULE": {"any|r": {"PRIORITY": "1", "VLAN_ID": "7"}}})", &config, &error));
    EXPECT_EQ(config.acl_rules->size(), 1U);
    EXPECT_THAT(config.skipped, IsEmpty());
    ASSERT_TRUE(parse_config("file", R"({"ACL_TABLE": {"a": {"ports": ["Ethernet0"]}}})", &config, &error)) << error;
    EXPECT_FALSE(config.acl_rules);
    ASSERT_EQ(config.skipped.size(), 1U) << "nothing is made of the lists themselves";
}

TEST(AclConfig, ARangeOfAllPortsAndAnyIpTypeAskForNothing)
{
    EXPECT_THAT(rule_of(R"("L4_SRC_PORT_RANGE": "0-65535", "IP_TYPE": "ANY")").others, IsEmpty());
    EXPECT_THAT(rule_of(R"("L4_SRC_PORT_RANGE": "0-65534", "IP_TYPE": "NON_IP")").others,
                ElementsAre("L4_SRC_PORT_RANGE", "IP_TYPE"));
}

TEST(AclConfig, SomeIpTypesAreEtherTypes)
{
    EXPECT_EQ(rule_of(R"("IP_TYPE": "IPV4ANY")").ether_type, 0x0800U);
    EXPECT_EQ(rule_of(R"("IP_TYPE": "IPV6ANY", "ETHER_TYPE": "34525")").ether_type, 0x86ddU);
    EXPECT_EQ(rule_of(R"("IP_TYPE": "ARP")").ether_type, 0x0806U);
    EXPECT_THAT(rule_of(R"("IP_TYPE": "ARP", "ETHER_TYPE": "2048")").others, ElementsAre("ETHER_TYPE"));
}

TEST(AclConfig, WhatMakesNoSenseIsNamed)
{
    const std::pair<const char *, const char *> fields[] = {
        {R"("VLAN_ID": "1")", "PRIORITY is missing"},
        {R"("PRIORITY": "1000000")", "PRIORITY \"1000000\" is not a number from 0 to 999999"},
        {R"("PRIORITY": "-1")", "PRIORITY \"-1\" is not a number from 0 to 999999"},
        {R"("PRIORITY": 1.5)", "PRIORITY is not a number from 0 to 999999"},
        {R"("PRIORITY": "1", "VLAN_ID": "0")", "VLAN_ID \"0\" is not a number from 1 to 4094"},
        {R"("PRIORITY": "1", "VLAN_ID": "4095")", "VLAN_ID \"4095\" is not a number from 1 to 4094"},
        {R"("PRIORITY": "1", "INNER_VLAN_ID": "x")", "INNER_VLAN_ID \"x\" is not a number from 1 to 4094"},
        {R"("PRIORITY": "1", "VLAN_ID": "7", "OUTER_VLAN_ID": "8")",
         "OUTER_VLAN_ID \"8\" is another VLAN than the one told before"},
        {R"("PRIORITY": "1", "ETHER_TYPE": "0x5ff")", "ETHER_TYPE \"0x5ff\" is not a number from 0x0600 to 0xffff"},
        {R"("PRIORITY": "1", "ETHER_TYPE": "0x")", "ETHER_TYPE \"0x\" is not a number from 0x0600 to 0xffff"},
        {R"("PRIORITY": "1", "ETHER_TYPE": "65536")", "ETHER_TYPE \"65536\" is not a number from 0x0600 to 0xffff"},
        {R"("PRIORITY": "1", "SRC_IP": "10.0.0.0/33")", "SRC_IP \"10.0.0.0/33\" is not an IPv4 address or prefix"},
        {R"("PRIORITY": "1", "SRC_IP": "10.0.0.0/")", "SRC_IP \"10.0.0.0/\" is not an IPv4 address or prefix"},
        {R"("PRIORITY": "1", "SRC_IP": "10.0.0/8")", "SRC_IP \"10.0.0/8\" is not an IPv4 address or prefix"},
        {R"("PRIORITY": "1", "DST_IP": "2001:db8::1")", "DST_IP \"2001:db8::1\" is not an IPv4 address or prefix"},
        {R"("PRIORITY": "1", "DST_IPV6": "::/129")", "DST_IPV6 \"::/129\" is not an IPv6 address or prefix"},
        {R"("PRIORITY": "1", "SRC_IPV6": "10.0.0.1")", "SRC_IPV6 \"10.0.0.1\" is not an IPv6 address or prefix"},
        {R"("PRIORITY": "1", "SRC_IP": "10.0.0.1", "DST_IPV6": "::1")", "addresses of IPv4 and of IPv6"},
        {R"("PRIORITY": "1", "IN_PORTS": "Ethernet0,Ethernet9")", "\"Ethernet9\" is no port"},
        {R"("PRIORITY": "1", "IN_PORTS": "PortChannel02")", "\"PortChannel02\" is no port"},
        {R"("PRIORITY": "1", "IN_PORTS": "Ethernet0,")", "\"\" is no port"},
        {R"("PRIORITY": "1", "IN_PORTS": ["Ethernet0", {}])", "IN_PORTS is not a list of names"},
        {R"("PRIORITY": "1", "IN_PORTS": [])", "IN_PORTS is not a list of names"},
        {R"("PRIORITY": "1", "PACKET_ACTION": "")", "PACKET_ACTION \"\" is not the name of an action"},
    };
    for (const auto &[text, what] : fields)
        EXPECT_EQ(error_of(config_of(R"("in|r": {)" + std::string(text) + "}")),
                  "file:3: ACL_RULE|in|r: " + std::string(what));
    const std::pair<std::string, const char *> others[] = {
        {config_of(R"("r": {"PRIORITY": "1"})"), "file:3: ACL_RULE|r: the key must be TABLE|RULE"},
        {config_of(R"("on|r": {"PRIORITY": "1"})"),
         "file:3: ACL_RULE|on|r: the table \"on\" is not in the table ACL_TABLE"},
        {R"({"ACL_RULE": {"in|r": {"PRIORITY": "1", "IN_PORTS": "Ethernet0"}}})",
         "file:1: ACL_RULE|in|r: \"Ethernet0\" is no port"},
        {R"({"ACL_TABLE": {"in": {"stage": "both"}}})",
         "file:1: ACL_TABLE|in: stage \"both\" is neither ingress nor egress"},
        {R"({"PORT": {}, "ACL_TABLE": {"in": {"ports": ["Ethernet0"]}}})",
         "file:1: ACL_TABLE|in: \"Ethernet0\" is no port"},
        {R"({"ACL_TABLE": {"in": {"ports": {}}}})", "file:1: ACL_TABLE|in: ports is not a list of names"},
    };
    for (const auto &[text, line] : others)
        EXPECT_EQ(error_of(text), line);
}

TEST(AclConfig, RulesCanBeDroppedAndListsCannot)
{
    switch_config config;
    std::string error;
    ASSERT_TRUE(
        parse_config("file", config_of(R"("in|r": {"PRIORITY": "1"}, "in|s": {"PRIORITY": "1"})"), &config, &error));
    EXPECT_TRUE(drop_entry("ACL_RULE|in|s", &config, &error)) << error;
    EXPECT_FALSE((*config.acl_rules)[0].dropped);
    EXPECT_TRUE((*config.acl_rules)[1].dropped);
    EXPECT_FALSE(drop_entry("ACL_TABLE|in", &config, &error));
}

// ---- priorities -----------------------------------------------------------------------------------------------------

TEST(PriorityLevels, PrioritiesUpTo7AreLevels)
{
    EXPECT_THAT(levels_of({7, 0, 3, 3}), ElementsAre(7, 0, 3, 3));
    EXPECT_THAT(levels_of({}), IsEmpty());
}

TEST(PriorityLevels, UpTo8PrioritiesKeepTheirOrderWhole)
{
    EXPECT_THAT(levels_of({999999, 1, 9999, 1000}), ElementsAre(6, 0, 4, 2));
    EXPECT_THAT(levels_of({8, 7, 6, 5, 4, 3, 2, 1}), ElementsAre(7, 6, 5, 4, 3, 2, 1, 0));
    EXPECT_THAT(levels_of({500}), ElementsAre(0));
}

TEST(PriorityLevels, MorePrioritiesAreCutIntoEightPartsAndNeverChangePlaces)
{
    std::vector<uint32_t> priorities;
    for (uint32_t i = 0; i < 1000; ++i)
        priorities.push_back(i * i % 999983);
    std::ranges::sort(priorities);
    const std::vector<int32_t> levels = levels_of(priorities);
    EXPECT_TRUE(std::ranges::is_sorted(levels));
    for (int32_t level = 0; level < 8; ++level)
        EXPECT_EQ(std::ranges::count(levels, level), 125);
}

// ---- match rules ----------------------------------------------------------------------------------------------------

TEST(MatchRules, TheTypeSaysWhatIsAskedFor)
{
    const std::pair<const char *, int32_t> cases[] = {
        {R"("IN_PORTS": "Ethernet0")", U_BRIDGE__MATCH_TYPE__EMATCH_PORT},
        {R"("VLAN_ID": "10")", U_BRIDGE__MATCH_TYPE__OVID},
        {R"("INNER_VLAN_ID": "20")", U_BRIDGE__MATCH_TYPE__IVID},
        {R"("VLAN_ID": "10", "INNER_VLAN_ID": "20")", U_BRIDGE__MATCH_TYPE__OVID_IVID},
        {R"("IN_PORTS": "Ethernet0", "VLAN_ID": "10")", U_BRIDGE__MATCH_TYPE__PORT_OVID},
        {R"("IN_PORTS": "Ethernet0", "INNER_VLAN_ID": "20")", U_BRIDGE__MATCH_TYPE__PORT_IVID},
        {R"("IN_PORTS": "Ethernet0", "VLAN_ID": "10", "INNER_VLAN_ID": "20")", U_BRIDGE__MATCH_TYPE__PORT_OVID_IVID},
        {R"("ETHER_TYPE": "2054")", U_BRIDGE__MATCH_TYPE__PORT_FRM_ETH},
        {R"("ETHER_TYPE": "2054", "IN_PORTS": "Ethernet0")", U_BRIDGE__MATCH_TYPE__PORT_FRM_ETH},
        {R"("SRC_IP": "10.0.0.1")", U_BRIDGE__MATCH_TYPE__SIP},
        {R"("DST_IPV6": "2001:db8::1/128")", U_BRIDGE__MATCH_TYPE__DIP},
        {R"("SRC_IP": "10.0.0.1", "DST_IP": "10.0.0.2/32")", U_BRIDGE__MATCH_TYPE__SIP_DIP},
        {R"("SRC_IP": "10.0.0.0/24")", U_BRIDGE__MATCH_TYPE__IP_MASK},
        {R"("DST_IP": "10.0.0.0/8")", U_BRIDGE__MATCH_TYPE__IP_MASK},
    };
    for (const auto &[fields, type] : cases)
        EXPECT_EQ(made_of(fields).match_type, type) << fields;
}

TEST(MatchRules, PortsAndVlansStandWhereTheTypeHasThem)
{
    acl_rule rule = rule_of(R"("IN_PORTS": "Ethernet0,PortChannel2", "VLAN_ID": "10", "INNER_VLAN_ID": "20")");
    rule.in_ports[0].phyid = 0x07000005;
    rule.in_ports[1].phyid = 0x05000003;
    const expressed_rule made = express(rule);
    ASSERT_EQ(made.rules.size(), 2U) << "one for each port";
    EXPECT_EQ(made.rules[0].eport, 0x10000005);
    EXPECT_EQ(made.rules[1].eport, 0x20000003);
    for (const sw_ematch_item &each : made.rules) {
        EXPECT_EQ(each.user, nullptr);
        EXPECT_EQ(each.evlan1, 10);
        EXPECT_EQ(each.evlan2, 20);
        EXPECT_EQ(each.match_priority, 1);
        EXPECT_EQ(each.match_flag, U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS);
    }
}

TEST(MatchRules, AddressesAreInNetworkByteOrder)
{
    const sw_ematch_item source = made_of(R"("SRC_IP": "10.1.2.3")");
    EXPECT_EQ(address_of(source), "10.1.2.3");
    EXPECT_EQ(source.ip_mask, 0U);
    EXPECT_EQ(source.ipv4, 0U);
    const sw_ematch_item pair = made_of(R"("SRC_IP": "10.1.2.3", "DST_IP": "192.0.2.9")");
    EXPECT_EQ(address_of(pair), "10.1.2.3");
    EXPECT_EQ(pair.ipv4, v4("192.0.2.9"));
    const sw_ematch_item six = made_of(R"("SRC_IPV6": "2001:db8::7")");
    EXPECT_EQ(six.ip_ver, 1U);
    EXPECT_EQ(address_of(six), "2001:db8::7");
}

TEST(MatchRules, APrefixHasItsNetmaskAndTellsSourceFromDestination)
{
    const sw_ematch_item source = made_of(R"("SRC_IP": "10.255.255.255/12")");
    EXPECT_EQ(address_of(source), "10.240.0.0");
    EXPECT_EQ(source.ip_mask, v4("255.240.0.0"));
    EXPECT_EQ(source.ipv4, 0U);
    const sw_ematch_item destination = made_of(R"("DST_IP": "10.255.255.255/12")");
    EXPECT_EQ(address_of(destination), "0.0.0.0");
    EXPECT_EQ(destination.ip_mask, v4("255.240.0.0"));
    EXPECT_EQ(destination.ipv4, v4("10.240.0.0"));
    EXPECT_EQ(made_of(R"("SRC_IP": "0.0.0.0/1")").ip_mask, v4("128.0.0.0"));
    EXPECT_EQ(reason_of(R"("DST_IP": "0.0.0.0/1")"),
              "a destination with the address 0.0.0.0 cannot be told from a source");
}

TEST(MatchRules, AnyAddressIsAnEtherType)
{
    for (const char *fields : {R"("SRC_IP": "0.0.0.0/0")", R"("SRC_IP": "1.2.3.4/0", "DST_IP": "0.0.0.0/0")",
                               R"("DST_IP": "0.0.0.0/0", "ETHER_TYPE": "2048")"}) {
        const sw_ematch_item made = made_of(fields);
        EXPECT_EQ(made.match_type, U_BRIDGE__MATCH_TYPE__PORT_FRM_ETH);
        EXPECT_EQ(made.ether_type, 0x0800U);
        EXPECT_EQ(address_of(made), "0.0.0.0");
    }
    EXPECT_EQ(made_of(R"("SRC_IPV6": "::/0")").ether_type, 0x86ddU);
    EXPECT_EQ(made_of(R"("SRC_IP": "0.0.0.0/0", "DST_IP": "10.0.0.1")").match_type, U_BRIDGE__MATCH_TYPE__DIP);
}

TEST(MatchRules, AnAddressSaysItsEtherType)
{
    const sw_ematch_item made = made_of(R"("SRC_IP": "10.0.0.1", "ETHER_TYPE": "0x0800")");
    EXPECT_EQ(made.match_type, U_BRIDGE__MATCH_TYPE__SIP);
    EXPECT_EQ(made.ether_type, 0U);
    EXPECT_EQ(reason_of(R"("SRC_IP": "10.0.0.1", "ETHER_TYPE": "0x86dd")"),
              "no frame of this ether type has such an address");
}

TEST(MatchRules, TheStageOfTheTableIsTheDirection)
{
    const std::vector<acl_rule> rules = read(R"("out|r": {"PRIORITY": "1", "VLAN_ID": "7"})");
    EXPECT_EQ(express(rules.at(0)).rules.at(0).match_flag, U_BRIDGE__MATCH_FLAG__EMATCH_EGRESS);
}

TEST(MatchRules, WhatPassesLeadsToItsVlanAndWhatIsDroppedNowhere)
{
    EXPECT_EQ(made_of(R"("VLAN_ID": "7", "PACKET_ACTION": "DROP")").action_type, U_BRIDGE__EMATCH_ACTION_TYPE__UNUSED);
    EXPECT_EQ(made_of(R"("VLAN_ID": "7")").action_type, U_BRIDGE__EMATCH_ACTION_TYPE__UNUSED);
    const sw_ematch_item forward = made_of(R"("VLAN_ID": "7", "PACKET_ACTION": "FORWARD")");
    EXPECT_EQ(forward.action_type, U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN);
    EXPECT_EQ(forward.new_evlan1, 0x10000007);
    const sw_ematch_item accept = made_of(R"("SRC_IP": "10.0.0.1", "PACKET_ACTION": "ACCEPT")");
    EXPECT_EQ(accept.action_type, U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN);
    EXPECT_EQ(accept.new_evlan1, 0);
}

TEST(MatchRules, WhatCannotBeExpressedHasAReason)
{
    const std::pair<const char *, const char *> cases[] = {
        {R"("RULE_DESCRIPTION": "all")", "it asks for nothing"},
        {R"("SRC_IP": "10.0.0.1", "L4_DST_PORT": "80", "IP_PROTOCOL": "6")",
         "match rules have no L4_DST_PORT, IP_PROTOCOL"},
        {R"("VLAN_ID": "1", "A\nB": "x")", "match rules have no A\\x0aB"},
        {R"("VLAN_ID": "1", "PACKET_ACTION": "REDIRECT:Ethernet0")", "match rules have no action REDIRECT:Ethernet0"},
        {R"("SRC_IPV6": "2001:db8::/64")", "match rules have no IPv6 prefixes"},
        {R"("SRC_IPV6": "::1", "DST_IPV6": "::2")", "no type of match rule has two IPv6 addresses"},
        {R"("SRC_IP": "10.0.0.0/8", "DST_IP": "10.0.0.1")", "no type of match rule has a prefix and another address"},
        {R"("SRC_IP": "10.0.0.1", "IN_PORTS": "Ethernet0")", "no type of match rule has a port and a source"},
        {R"("SRC_IP": "0.0.0.0/0", "VLAN_ID": "5", "IN_PORTS": "Ethernet0")",
         "no type of match rule has a port, an outer VLAN and an ether type"},
    };
    for (const auto &[fields, reason] : cases)
        EXPECT_EQ(reason_of(fields), reason);
    const std::vector<acl_rule> rules = read(R"("self|r": {"PRIORITY": "1", "SRC_IP": "10.0.0.1"})");
    EXPECT_EQ(express(rules.at(0)).reason, "its table guards the switch itself");
}
