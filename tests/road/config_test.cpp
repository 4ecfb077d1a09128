// Reading configurations: what is taken, and the one line about what is not.
#include "config.hpp"

#include <gmock/gmock.h>

using namespace ebridge_tool;
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
        read(R"({"PORT": {"a": {}, "b": [1, {"c": 2}]}, "LIST": [1, [2], 3], "WORD": "x", "NOTHING": null, "E": {}})");
    std::vector<std::string> counts;
    for (const skipped_table &table : config.skipped)
        counts.push_back(table.name + std::to_string(table.entries));
    EXPECT_THAT(counts, ElementsAre("PORT2", "LIST3", "WORD1", "NOTHING1", "E0"));
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
    ASSERT_EQ(config.skipped.size(), 1U) << "nothing is requested for tunnels";
    EXPECT_EQ(config.skipped[0].name, "VXLAN_TUNNEL");
    EXPECT_EQ(config.skipped[0].entries, 2U);
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
        {R"({"VLAN": {"": {}}})", "file:1: VLAN|: the name must be Vlan1 to Vlan4094"},
        {R"({"VLAN": {"Vlan5": {"vlanid": "6"}}})", "file:1: VLAN|Vlan5: vlanid \"6\" is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": 5.0}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": ["5"]}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {R"({"VLAN": {"Vlan5": {"vlanid": null}}})", "file:1: VLAN|Vlan5: vlanid is not the number of the name"},
        {"{\"VLAN\":\n {\"Vlan10\": {},\n  \"Vlan010\": {}}}", "file:3: VLAN|Vlan010: is the same VLAN as Vlan10"},
        {R"({"VLAN": {"Vlan10": {}, "Vlan10": {}}})", "file:1: VLAN|Vlan10: stands there twice"},
        {R"({"VLAN": {}, "VLAN": {}})", "file:1: VLAN: stands there twice"},
        {R"({"PORT": {"a": {}, "a": {}}})", "file:1: PORT: \"a\" stands there twice"},
        {R"({"PORT": {"a": {"b": {"c": 1, "c": 2}}}})", "file:1: PORT: \"c\" stands there twice"},
        {R"({"VLAN": {"Vlan1": {"vlanid": "1", "vlanid": "1"}}})", "file:1: VLAN|Vlan1: \"vlanid\" stands there twice"},
        {R"({"VLAN": []})", "file:1: VLAN: must be an object of entries"},
        {R"({"VLAN": "Vlan5"})", "file:1: VLAN: must be an object of entries"},
        {R"({"VLAN": {"Vlan5": []}})", "file:1: VLAN|Vlan5: must be an object of fields"},
        {R"({"VLAN": {"Vlan5": "5"}})", "file:1: VLAN|Vlan5: must be an object of fields"},
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
        {"vni": "4", "vlan": "Vlan10"}}, "PORT": {"a": [1, 2.5e3, true, null, "\u00fc"]}})";
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
