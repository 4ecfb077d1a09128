// The program ebridge as a user runs it: exit status, standard output, standard error.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "child.hpp"
#include "run.hpp"

using namespace road;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

outcome ebridge(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), EBRIDGE_PROGRAM);
    return run(std::move(arguments));
}

outcome ebridge_json(const std::string &content)
{
    const temporary_file file(content);
    return ebridge({"run", "--json", file.path()});
}

// Bad input: status 2, nothing on standard output, one line on standard error.
void expect_bad_input(const outcome &seen, const std::string &what)
{
    EXPECT_EQ(seen.status, 2);
    EXPECT_THAT(seen.out, IsEmpty());
    EXPECT_THAT(seen.err, StartsWith("ebridge: "));
    EXPECT_THAT(seen.err, HasSubstr(what));
    EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
}

// "seconds" differs from run to run: it is cut off after its name.
std::string without_seconds(const std::string &json) { return json.substr(0, json.find("\"seconds\":")); }

constexpr const char *THREE_MAPS = R"({"VLAN": {"Vlan10": {}, "Vlan20": {}},
    "VXLAN_TUNNEL_MAP": {"vtep|one": {"vni": "100", "vlan": "Vlan10"},
                         "vtep|two": {"vni": "200", "vlan": "Vlan20"},
                         "vtep|three": {"vni": "300", "vlan": "Vlan20"}},
    "QUEUE": {"Ethernet0|3": {}, "Ethernet4|3": {}}})";

// Each table that ids are requested for.
constexpr const char *SWITCH = R"({
    "PORT": {"Ethernet0": {"lanes": "0,1"}, "Ethernet2": {"lanes": "2"}, "Ethernet3": {"lanes": "3"}},
    "PORTCHANNEL": {"PortChannel1": {}}, "PORTCHANNEL_MEMBER": {"PortChannel1|Ethernet3": {}},
    "VLAN": {"Vlan10": {}, "Vlan20": {}},
    "VXLAN_TUNNEL": {"v4": {"src_ip": "10.0.0.1", "dst_ip": "10.0.0.2"}, "v6": {"src_ip": "2001:db8::1"}},
    "VXLAN_TUNNEL_MAP": {"v4|one": {"vni": "100", "vlan": "Vlan10"}, "v6|two": {"vni": "200", "vlan": "Vlan20"},
                         "v6|three": {"vni": "300", "vlan": "Vlan20"}}})";

constexpr const char *PORT_LIST =
    "# name    lanes alias\n"
    "Ethernet0 8,9   one\n"
    "Ethernet2 10    two\n"
    "Ethernet3 11    three\n";

}  // namespace

TEST(EbridgeRun, JsonIsOneObjectOfWhatWasDone)
{
    const outcome seen = ebridge_json(THREE_MAPS);
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(without_seconds(seen.out), R"({"tables":{"VLAN":{"requested":2,"granted":2,"refused":0,"verified":2},)"
                                         R"("VXLAN_TUNNEL_MAP":{"requested":3,"granted":3,"refused":0,"verified":3}},)"
                                         R"("skipped":{"QUEUE":2},)"
                                         R"("ids":{"evlan":{"requested":5,"granted":5,"refused":0,"verified":5},)"
                                         R"("eport":{"requested":3,"granted":3,"refused":0,"verified":3}},)");
    EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), '\n'), 1);
    EXPECT_THAT(seen.out, testing::EndsWith("}\n"));
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST(EbridgeRun, ATableForPeopleNamesTheSame)
{
    const temporary_file file(THREE_MAPS);
    const outcome seen = ebridge({"run", file.path()});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, StartsWith("TABLE             REQUESTED    GRANTED    REFUSED   VERIFIED\n"
                                     "VLAN                      2          2          0          2\n"
                                     "VXLAN_TUNNEL_MAP          3          3          0          3\n"
                                     "QUEUE                     2  skipped\n"
                                     "IDS\n"
                                     "evlan                     5          5          0          5\n"
                                     "eport                     3          3          0          3\n"));
    EXPECT_THAT(seen.out, testing::EndsWith(" seconds\n"));
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST(EbridgeRun, WhatIsRefusedIsNamedAndTheStatusIsOne)
{
    const temporary_file file(THREE_MAPS);
    const outcome seen = ebridge({"run", "--json", "--range", "VXLAN=7-8", "--range", "16=10-10", file.path()});
    EXPECT_EQ(seen.status, 1);
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"requested":2,"granted":1,"refused":1,"verified":1})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("VXLAN_TUNNEL_MAP":{"requested":3,"granted":2,"refused":1,"verified":2})"));
    EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), '\n'), 1);
    EXPECT_THAT(seen.err, HasSubstr("VLAN|Vlan20: refused: id 0x10000014 cannot be given\n"));
    EXPECT_THAT(seen.err, HasSubstr("VXLAN_TUNNEL_MAP|vtep|three: refused: no id left\n"));
    EXPECT_THAT(seen.err, testing::Not(HasSubstr("vtep|one")));
}

TEST(EbridgeRun, PortsLagsTunnelsAndMapsAreReadBackWithTheirAttributes)
{
    const outcome seen = ebridge_json(SWITCH);
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(without_seconds(seen.out), R"({"tables":{"PORT":{"requested":3,"granted":3,"refused":0,"verified":3},)"
                                         R"("PORTCHANNEL":{"requested":1,"granted":1,"refused":0,"verified":1},)"
                                         R"("VLAN":{"requested":2,"granted":2,"refused":0,"verified":2},)"
                                         R"("VXLAN_TUNNEL":{"requested":2,"granted":2,"refused":0,"verified":2},)"
                                         R"("VXLAN_TUNNEL_MAP":{"requested":3,"granted":3,"refused":0,"verified":3}},)"
                                         R"("skipped":{"PORTCHANNEL_MEMBER":1},)"
                                         R"("ids":{"evlan":{"requested":5,"granted":5,"refused":0,"verified":5},)"
                                         R"("eport":{"requested":9,"granted":9,"refused":0,"verified":9}},)");
}

TEST(EbridgeRun, MembersOfVlansArePublishedAndReadBackWithTheirDefaultVlans)
{
    const outcome seen = ebridge_json(R"({"PORT": {"a": {"lanes": "0"}, "b": {"lanes": "1"}},
        "PORTCHANNEL": {"PortChannel1": {}}, "VLAN": {"Vlan10": {}, "Vlan20": {}}, "VLAN_MEMBER": {
        "Vlan10|a": {"tagging_mode": "untagged"}, "Vlan20|a": {"tagging_mode": "tagged"},
        "Vlan20|PortChannel1": {"tagging_mode": "untagged"}}})");
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"requested":2,"granted":2,"refused":0,"verified":2},)"
                                    R"("VLAN_MEMBER":{"requested":3,"granted":3,"refused":0,"verified":3}})"));
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST(EbridgeRun, MembersTellThePortsWhereTheConfigurationHasNone)
{
    const outcome seen = ebridge_json(R"({"VLAN": {"Vlan10": {}, "Vlan9": {}}, "VLAN_MEMBER": {
        "Vlan10|Ethernet4": {"tagging_mode": "untagged"}, "Vlan10|swp1": {"tagging_mode": "tagged"},
        "Vlan9|Ethernet4": {"tagging_mode": "untagged"}, "Vlan10|PortChannel7": {"tagging_mode": "untagged"}}})");
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN_MEMBER":{"requested":4,"granted":4,"refused":0,"verified":4})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("eport":{"requested":0,"granted":0,"refused":0,"verified":0})"));
    EXPECT_EQ(seen.err, "Ethernet4: untagged in several VLANs, 9-10: the lowest is its default VLAN\n");
}

TEST(EbridgeRun, MembersThatMakeNoSenseAreOneLine)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {"Vlan11|a": {"tagging_mode": "tagged"}}})");
    expect_bad_input(ebridge({"run", file.path()}), "VLAN_MEMBER|Vlan11|a: \"Vlan11\" is not in the table VLAN");
    const temporary_file far(R"({"VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {
        "Vlan10|Ethernet1000000": {"tagging_mode": "tagged"}}})");
    expect_bad_input(ebridge({"run", far.path()}), far.path() +
                                                       ": the ports in VLAN_MEMBER: PORT|Ethernet1000000: the "
                                                       "number in the name is above 999999");
    const temporary_file blank(R"({"VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {
        "Vlan10|swp 1": {"tagging_mode": "tagged"}}})");
    expect_bad_input(ebridge({"run", blank.path()}), "PORT|swp 1: the name must be 1 to 64 characters, no blank");
}

TEST(EbridgeRun, ACircuitThatIsRefusedIsToldApartFromItsMap)
{
    const temporary_file file(SWITCH);
    const outcome seen = ebridge({"run", "--json", "--range", "VXLAN_AC=1-2", "--range", "PORT=1-3", file.path()});
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(seen.err,
              "PORT|Ethernet3: refused: id 0x10000004 cannot be given\n"
              "VXLAN_TUNNEL_MAP|v6|three: circuit: refused: no id left\n");
    EXPECT_THAT(seen.out, HasSubstr(R"("VXLAN_TUNNEL_MAP":{"requested":3,"granted":2,"refused":1,"verified":2})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("evlan":{"requested":5,"granted":5,"refused":0,"verified":5})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("eport":{"requested":9,"granted":7,"refused":2,"verified":7})"));
}

TEST(EbridgeRun, AListOfPortsStandsInForTheConfigurationsOwn)
{
    const temporary_file list(PORT_LIST);
    const temporary_file file(R"({"PORT": {"Ethernet0": {}, "Ethernet2": {}}, "PORTCHANNEL": {"PortChannel7": {}},
                                  "PORTCHANNEL_MEMBER": {"PortChannel7|Ethernet3": {}}})");
    const outcome seen = ebridge({"run", "--json", "--ports", list.path(), file.path()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("PORT":{"requested":2,"granted":2,"refused":0,"verified":2})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("PORTCHANNEL":{"requested":1,"granted":1,"refused":0,"verified":1})"));
    expect_bad_input(ebridge({"run", file.path()}),
                     "PORTCHANNEL_MEMBER|PortChannel7|Ethernet3: \"Ethernet3\" is no port");
    const temporary_file alone("{\n\"PORT\": {\"Ethernet0\": {}}}");
    expect_bad_input(ebridge({"run", alone.path()}), alone.path() + ":2: PORT|Ethernet0: lanes is missing");
}

TEST(EbridgeRun, PortsThatMakeNoSenseAreOneLine)
{
    const temporary_file list(PORT_LIST);
    const temporary_file file("{\"VLAN\": {\"Vlan1\": {}},\n\"PORT\": {\"Ethernet9\": {}}}");
    expect_bad_input(ebridge({"run", "--ports", list.path(), file.path()}),
                     file.path() + ":2: PORT|Ethernet9: is not in the list of ports");
    const temporary_file member(R"({"PORTCHANNEL_MEMBER": {"PortChannel1|Ethernet9": {}}})");
    expect_bad_input(ebridge({"run", "--ports", list.path(), member.path()}), "\"Ethernet9\" is no port");
    const temporary_file broken("# name lanes\nEthernet0 x\n");
    expect_bad_input(ebridge({"run", "--ports", broken.path(), file.path()}), broken.path() + ":2: Ethernet0: ");
    expect_bad_input(ebridge({"run", "--ports", "/nowhere/ports", file.path()}), "/nowhere/ports: No such file");
    const temporary_file empty("");
    expect_bad_input(ebridge({"run", "--ports", empty.path(), file.path()}), empty.path() + ":1: no ports");
}

TEST(EbridgeRun, AConfigurationMayComeThroughAPipe)
{
    const outcome seen = run({"/bin/sh", "-c",
                              std::string("printf '%s' '{\"PORT\": {\"Ethernet0\": {\"lanes\": \"0\"}}}' | ") +
                                  EBRIDGE_PROGRAM + " run --json /dev/stdin"});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("PORT":{"requested":1,"granted":1,"refused":0,"verified":1})"));
}

TEST(EbridgeRun, NothingThatHasMeaningIsNothingToDo)
{
    for (const char *text : {"{}", R"({"QUEUE": {}})"}) {
        const outcome seen = ebridge_json(text);
        EXPECT_EQ(seen.status, 0);
        EXPECT_THAT(seen.out, StartsWith(R"({"tables":{},"skipped":{)"));
    }
    EXPECT_THAT(ebridge_json(R"({"VLAN": {}})").out,
                StartsWith(R"({"tables":{"VLAN":{"requested":0,"granted":0,"refused":0,"verified":0}},"skipped":{},)"));
}

TEST(EbridgeRun, AllVlansAreGranted)
{
    std::string text = "{\"VLAN\": {";
    for (int vid = 1; vid <= 4094; ++vid)
        text += (vid > 1 ? ",\"Vlan" : "\"Vlan") + std::to_string(vid) + "\": {}";
    const outcome seen = ebridge_json(text + "}}");
    EXPECT_EQ(seen.status, 0) << seen.err.substr(0, 500);
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"requested":4094,"granted":4094,"refused":0,"verified":4094})"));
}

TEST(EbridgeRun, TheExampleIsBroughtUpWhole)
{
    const outcome seen = ebridge({"run", "--json", EXAMPLES_DIR "/leaf.json"});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"requested":40,"granted":40,"refused":0,"verified":40})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("VXLAN_TUNNEL_MAP":{"requested":20,"granted":20,"refused":0,"verified":20})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("PORT":{"requested":52,"granted":52,"refused":0,"verified":52})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("PORTCHANNEL":{"requested":3,"granted":3,"refused":0,"verified":3})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("ACL_RULE":{"requested":11,"granted":11,"refused":0,"verified":11,)"
                                    R"("not_expressed":2})"));
}

// ---- match rules ----------------------------------------------------------------------------------------------------

namespace
{

constexpr const char *RULES = R"({
    "PORT": {"Ethernet0": {"lanes": "0"}, "Ethernet4": {"lanes": "4"}}, "ACL_TABLE": {"in": {"stage": "ingress"}},
    "ACL_RULE": {"in|ports": {"PRIORITY": "100", "IN_PORTS": "Ethernet0,Ethernet4", "VLAN_ID": "7"},
                 "in|six": {"PRIORITY": "200", "PACKET_ACTION": "DROP", "DST_IPV6": "2001:db8::1"},
                 "in|web": {"PRIORITY": "300", "SRC_IP": "10.0.0.1", "L4_DST_PORT": "80"},
                 "in|low": {"PRIORITY": "300", "SRC_IP": "10.0.0.0/8"},
                 "in|high": {"PRIORITY": "9000", "SRC_IP": "10.0.0.0/8"},
                 "in|again": {"PRIORITY": "300", "SRC_IP": "10.0.0.0/8"}}})";

}  // namespace

TEST(EbridgeRun, AclRulesArePublishedAndReadBackAndTheRestIsNamed)
{
    const temporary_file file(RULES);
    const outcome seen = ebridge({"run", file.path()});
    EXPECT_EQ(seen.status, 0) << "what cannot be expressed is no failure: " << seen.err;
    EXPECT_EQ(seen.err,
              "ACL_RULE|in|web: not expressed: match rules have no L4_DST_PORT\n"
              "ACL_RULE|in|again: not expressed: ACL_RULE|in|low has the same match and level\n");
    EXPECT_THAT(seen.out, HasSubstr("ACL_RULE             4          4          0          4  2 not expressed\n"));
    EXPECT_THAT(seen.out, HasSubstr("RULES        PUBLISHED    HOLDING       LOST   SHADOWED   VERIFIED\n"
                                    "ebridge_run          5          4          0          1          5\n"));
    EXPECT_THAT(ebridge_json(RULES).out,
                testing::AllOf(HasSubstr(R"("ACL_RULE":{"requested":4,"granted":4,"refused":0,"verified":4,)"
                                         R"("not_expressed":2}},"skipped":{"ACL_TABLE":1},)"),
                               HasSubstr(R"("rules":{"ebridge_run":{"published":5,"holding":4,"lost":0,"shadowed":1,)"
                                         R"("verified":5}},)")));
}

TEST(EbridgeRun, PortsOfRulesAreThoseOfTheListOfPorts)
{
    const temporary_file list(PORT_LIST);
    const temporary_file file(R"({"PORTCHANNEL": {"PortChannel2": {}}, "ACL_RULE": {
        "t|r": {"PRIORITY": "1", "IN_PORTS": "Ethernet3,PortChannel2"}}})");
    const outcome seen = ebridge({"run", "--json", "--ports", list.path(), file.path()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("published":2,"holding":2)"));
    expect_bad_input(ebridge({"run", file.path()}), "ACL_RULE|t|r: \"Ethernet3\" is no port");
}

TEST(EbridgeRun, RulesThatNobodyDecidesAreRefused)
{
    ebridge_tool::switch_config config;
    ebridge_tool::run_result result;
    std::string error;
    const char *const text = R"({"ACL_RULE": {"t|r": {"PRIORITY": "1", "VLAN_ID": "7"}}})";
    ASSERT_TRUE(ebridge_tool::parse_config("file", text, &config, &error));
    ASSERT_TRUE(ebridge_tool::run_config(config, {.patience_usec = 1000, .serve = false}, &result, &error)) << error;
    EXPECT_THAT(result.problems, testing::ElementsAre("ACL_RULE|t|r: refused: no verdict"));
    EXPECT_EQ(result.tables[0].refused, 1U);
    EXPECT_FALSE(result.all_equal());
}

TEST(EbridgeRun, ManyRulesAreDecided)
{
    std::string text = "{\"ACL_RULE\": {";
    for (int i = 0; i < 20'000; ++i)
        text += std::string(i > 0 ? "," : "") + "\"t|" + std::to_string(i) + "\": {\"PRIORITY\": \"" +
                std::to_string(i % 10'000) + "\", \"SRC_IP\": \"10.0." + std::to_string(i % 50) + '.' +
                std::to_string(i / 50 % 200) + "\"}";
    const outcome seen = ebridge_json(text + "}}");
    EXPECT_EQ(seen.status, 0) << seen.err.substr(0, 500);
    EXPECT_THAT(seen.out, HasSubstr(R"("holding":10000,"lost":0,)"));
}

TEST(EbridgeRun, DumpEndsWithUsersAndTables)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {}}, "PORT": {"Ethernet4": {"lanes": "9"}}})");
    const outcome seen = ebridge({"run", "--dump", file.path()});
    EXPECT_EQ(seen.status, 0);
    const size_t seconds = seen.out.find(" seconds\n");
    const size_t users = seen.out.find("ebridge_observer");
    const size_t attributes = seen.out.find("<evlan attr db");
    const size_t map = seen.out.find("<evlan index map db");
    const size_t eports = seen.out.find("<eport index map db");
    EXPECT_LT(seconds, users);
    EXPECT_LT(users, attributes);
    EXPECT_LT(attributes, map);
    EXPECT_LT(map, eports);
    ASSERT_NE(eports, std::string::npos);
    EXPECT_THAT(seen.out.substr(attributes),
                HasSubstr("ebridge_run, 0x1000000a, type:16, ClassID:0, SVL:false, FID:10."));
    EXPECT_THAT(seen.out.substr(map), HasSubstr("appIndex[0xa] map to UDPIndex[0x1000000a]"));
    EXPECT_THAT(seen.out.substr(eports), HasSubstr("appIndex is 0x0+0xf4244, UDPIndex is 0x10000005"));
}

TEST(EbridgeRun, WithJsonTheDumpDoesNotTouchStandardOutput)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {}}})");
    const outcome seen = ebridge({"run", "--json", "--dump", file.path()});
    EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), '\n'), 1) << seen.out;
    EXPECT_THAT(seen.err, HasSubstr("<evlan index map db"));
}

TEST(EbridgeRun, BrokenFilesAreOneLine)
{
    const std::pair<std::string, const char *> cases[] = {
        {"", "the file is empty"},
        {"not json", "not JSON"},
        {"{\"VLAN\": {\"Vlan10\": {}", "not JSON"},
        {std::string("{}\0{}", 5), "a NUL byte"},
        {"\xff\xfe{}", "not JSON"},
        {std::string(10'000, '['), "the top level must be an object"},
        {"{\"A\":" + std::string(10'000, '['), "nested more than 64 levels deep"},
        {R"({"VLAN": {"Vlan0": {}}})", "VLAN|Vlan0: "},
        {R"({"VLAN": {"Vlan4095": {}}})", "VLAN|Vlan4095: "},
        {R"({"VLAN": {"Vlan": {}}})", "VLAN|Vlan: "},
        {R"({"VLAN": {"Vlan5": {}, "Vlan5": {}}})", "VLAN|Vlan5: "},
        {R"({"VLAN": {"Vlan5": {}, "Vlan05": {}}})", "VLAN|Vlan05: "},
    };
    for (const auto &[text, what] : cases) {
        const temporary_file file(text);
        const outcome seen = ebridge({"run", "--json", file.path()});
        expect_bad_input(seen, what);
        EXPECT_THAT(seen.err, HasSubstr(file.path()));
    }
}

TEST(EbridgeRun, WhatCannotBeReadIsOneLine)
{
    const temporary_file file("{}");
    expect_bad_input(ebridge({"run", file.folder() + "/none.json"}), "none.json: No such file or directory");
    expect_bad_input(ebridge({"run", file.folder()}), "Is a directory");
    ASSERT_EQ(chmod(file.path().c_str(), 0), 0);
    if (geteuid() != 0)
        expect_bad_input(ebridge({"run", file.path()}), "Permission denied");
}

TEST(EbridgeRun, WrongUsageIsOneLine)
{
    expect_bad_input(ebridge({}), "subcommand");
    expect_bad_input(ebridge({"walk"}), "");
    expect_bad_input(ebridge({"run"}), "CONFIG");
    expect_bad_input(ebridge({"run", "--nonsense", "x"}), "nonsense");
    for (const char *range : {"VXLAN", "VXLAN=", "VXLAN=1", "VXLAN=5-4", "VXLAN=0-4", "NONE=1-2", "17=1-2", "=1-2",
                              "VXLAN=1-16777216", "VXLAN=1-2x", "VXLAN=a-b"})
        expect_bad_input(ebridge({"run", "--range", range, EXAMPLES_DIR "/leaf.json"}), range);
}

// A variable that was never set would otherwise choose the store inside, or ports of the configuration.
TEST(EbridgeRun, AnArgumentThatIsThereAndEmptyIsOneLine)
{
    for (const char *option : {"--store", "--ports", "--range"})
        expect_bad_input(ebridge({"run", option, "", EXAMPLES_DIR "/leaf.json"}), std::string(option) + ": is empty");
    expect_bad_input(ebridge({"run", ""}), "CONFIG: is empty");
    for (const char *option : {"--db", "--user", "--type"})
        expect_bad_input(ebridge({"show", "sessions", "--store", "redis://127.0.0.1:1", option, ""}),
                         std::string(option) + ": is empty");
}

TEST(EbridgeRun, AStoreOfOneProcessIsOneLine)
{
    expect_bad_input(ebridge({"run", "--store", "mem:x", EXAMPLES_DIR "/leaf.json"}),
                     "mem:x lives within one process, no other can read it");
}

TEST(EbridgeRun, ASubcommandThatThereIsNotIsNamed)
{
    expect_bad_input(ebridge({"walk"}), "subcommand is required, and \"walk\" is none (see ebridge --help)");
    expect_bad_input(ebridge({"show", "run"}), "subcommand is required, and \"run\" is none (see ebridge show --help)");
    expect_bad_input(ebridge({"show"}), "subcommand is required (see ebridge show --help)");
}

TEST(EbridgeRun, NumbersOutOfRangeAreToldWithTheirRange)
{
    for (const char *count : {"0", "-1", "99999999999999999999"})
        expect_bad_input(ebridge({"watch", "--store", "redis://127.0.0.1:1", "--count", count}),
                         std::string("--count: Value ") + count + " not in range 1 to 1000000000000");
    expect_bad_input(ebridge({"shell", "--pid", "0", "a", "b"}), "--pid: Value 0 not in range 1 to 2147483647");
}

// The number of a standard output that was closed must not become a file's or a socket's, which would get the result.
TEST(EbridgeRun, AResultThatNobodyCanGetIsStatusOne)
{
    for (const char *output : {">&-", "> /dev/full"})
        for (const char *words : {" run ", " run --dump ", " run --json ", " run --help "}) {
            const outcome seen =
                run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + words + EXAMPLES_DIR "/leaf.json " + output});
            EXPECT_EQ(seen.status, 1) << words << output;
            EXPECT_THAT(seen.err, HasSubstr("ebridge: ")) << words << output;
        }
}

TEST(EbridgeRun, HelpTeachesByExampleAndNamesTheStatuses)
{
    const outcome seen = ebridge({"run", "--help"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, HasSubstr("ebridge run --json leaf.json"));
    EXPECT_THAT(seen.out, HasSubstr("Exit status:"));
    EXPECT_EQ(ebridge({"--help"}).status, 0);
}

// The time may have passed before anybody waits for it. A run is once in the life of a process.
TEST(EbridgeRun, TheShortestPatienceEndsToo)
{
    ebridge_tool::switch_config config;
    std::string error;
    ASSERT_TRUE(ebridge_tool::parse_config("file", THREE_MAPS, &config, &error));
    for (int i = 0; i < 60; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            alarm(60);
            ebridge_tool::run_result result;
            const bool ran =
                ebridge_tool::run_config(config, {.patience_usec = 1 + i % 20, .serve = false}, &result, &error);
            _exit((ran ? !result.all_equal() : !error.empty()) ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(0, status) << "with " << 1 + i % 20 << " us";
    }
}

TEST(EbridgeRun, WithoutAnAllocatorEveryRequestIsUnanswered)
{
    ebridge_tool::switch_config config;
    ebridge_tool::run_result result;
    std::string error;
    ASSERT_TRUE(ebridge_tool::parse_config("file", THREE_MAPS, &config, &error));
    ASSERT_TRUE(ebridge_tool::run_config(config, {.patience_usec = 1000, .serve = false}, &result, &error)) << error;
    ASSERT_EQ(result.tables.size(), 2U);
    EXPECT_EQ(result.tables[0].refused, 2U);
    EXPECT_EQ(result.tables[1].refused, 3U);
    EXPECT_EQ(result.tables[1].granted, 0U);
    EXPECT_THAT(result.problems, testing::Contains("VXLAN_TUNNEL_MAP|vtep|two: refused: no answer"));
    EXPECT_THAT(result.problems, testing::Contains("VXLAN_TUNNEL_MAP|vtep|two: circuit: refused: no answer"));
    EXPECT_EQ(result.problems.size(), 8U);
    EXPECT_FALSE(result.all_equal());
}
