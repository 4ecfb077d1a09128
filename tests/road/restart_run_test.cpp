// "ebridge run --restart": users that are killed and started again with less, over a real server.
#include <gmock/gmock.h>

#include "child.hpp"
#include "store_view.hpp"

using namespace road;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

const std::string LEAF = std::string(EXAMPLES_DIR) + "/leaf.json";
constexpr const char *NOT_EXPRESSED =
    "ACL_RULE|SERVERS|RULE_60: not expressed: no type of match rule has an outer VLAN and a destination\n"
    "ACL_RULE|SERVERS_V6|RULE_10: not expressed: match rules have no IPv6 prefixes\n";

class RestartRun : public testing::Test
{
  protected:
    RestartRun() { EXPECT_TRUE(service.wait_for_error_text("serving")); }

    outcome ebridge(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {EBRIDGE_PROGRAM, "run", "--json", "--store", redis.url()});
        return run(std::move(arguments));
    }

    // A restart of users of `config`, which have deleted at once what these entries stand for.
    outcome restart(const std::string &config, const std::vector<std::string> &without,
                    const std::string &users = "1") const
    {
        std::vector<std::string> arguments{"--restart", "--delete-now", "--users", users};
        for (const std::string &entry : without)
            arguments.insert(arguments.end(), {"--without", entry});
        arguments.push_back(config);
        return ebridge(std::move(arguments));
    }

    store_view store() const
    {
        store_view all = read_store(redis, 4);
        all.merge(read_store(redis, 8, "u_bridge.ev"));  // mirrored sessions have the keys of theirs
        all.merge(read_store(redis, 8, "u_bridge.ep"));
        return all;
    }

    const support::redis_server redis;
    child service{{EBRIDGED_PROGRAM, "--store", redis.url()}};
};

}  // namespace

TEST_F(RestartRun, ExactlyWhatWasDroppedGoesAndNoOtherIdChanges)
{
    ASSERT_EQ(ebridge({LEAF}).status, 0);
    store_view expected = store();
    const outcome seen = restart(LEAF, {"PORT|Ethernet3", "PORTCHANNEL|PortChannel2", "VLAN|Vlan10",
                                        "VXLAN_TUNNEL|vtep", "VXLAN_TUNNEL_MAP|vtep|map_5101_Vlan101"});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(seen.err, NOT_EXPRESSED);
    EXPECT_THAT(seen.out, HasSubstr(R"("restarted":{"PORT":{"kept":51,"unchanged":51,"dropped":1,"gone":1},)"
                                    R"("PORTCHANNEL":{"kept":2,"unchanged":2,"dropped":1,"gone":1},)"
                                    R"("VLAN":{"kept":39,"unchanged":39,"dropped":1,"gone":1},)"
                                    R"("VXLAN_TUNNEL":{"kept":2,"unchanged":2,"dropped":1,"gone":1},)"
                                    R"("VXLAN_TUNNEL_MAP":{"kept":19,"unchanged":19,"dropped":1,"gone":1},)"
                                    R"("VLAN_MEMBER":{"kept":243,"unchanged":243,"dropped":19,"gone":19},)"
                                    R"("ACL_RULE":{"kept":11,"unchanged":11,"dropped":0,"gone":0}},)"));
    const store_view left = store();
    // Six sessions and their attributes; the VLANs of the port and of the LAG; and default VLANs, each of which is in the
    // table, too: of these two, and of the LAGs that were untagged in the VLAN.
    EXPECT_EQ(expected.size() - left.size(), 12U + 2 + 2 * 4);
    for (const auto &[key, reply] : left)
        EXPECT_EQ(expected[key], reply) << key;
    for (const char *gone : {"u_bridge.evlan_session:ebridge_run:16:10", "u_bridge.evlan:ebridge_run:268435466",
                             "u_bridge.evlan_session:ebridge_run:32:5101", "u_bridge.eport:ebridge_run:268435460"})
        EXPECT_FALSE(left.contains(gone)) << gone;
    EXPECT_EQ(marks(redis, 4), ":0");
    EXPECT_EQ(marks(redis, 8), ":0");
}

TEST_F(RestartRun, SeveralUsersEachCleanUpTheirOwn)
{
    const outcome seen = restart(LEAF, {"VLAN|Vlan101", "VLAN|Vlan102", "PORT|Ethernet0", "PORT|Ethernet1"}, "4");
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("PORT":{"kept":50,"unchanged":50,"dropped":2,"gone":2})"));
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN":{"kept":38,"unchanged":38,"dropped":2,"gone":2})"));
}

TEST_F(RestartRun, ARestartWithNothingDroppedChangesNothing)
{
    const outcome first = restart(LEAF, {});
    EXPECT_EQ(first.status, 0) << first.err;
    const store_view before = store();
    const outcome seen = ebridge({"--restart", LEAF});  // nothing is left to wait for
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("PORT":{"kept":52,"unchanged":52,"dropped":0,"gone":0})"));
    EXPECT_EQ(store(), before);
}

TEST_F(RestartRun, ADefaultVlanOfAnEarlierRunGoesWithItsTag)
{
    const auto config = [](const char *mode) {
        return std::string(R"({"VLAN": {"Vlan7": {}}, "VLAN_MEMBER": {"Vlan7|a": {"tagging_mode": ")") + mode + "\"}}}";
    };
    const temporary_file untagged(config("untagged")), tagged(config("tagged"));
    ASSERT_EQ(ebridge({untagged.path()}).status, 0);
    const outcome seen = ebridge({tagged.path()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(redis.commands(4, "KEYS u_bridge.port_vid*"), HasSubstr("*0\r\n"));
}

TEST_F(RestartRun, MembersThatAreDroppedLeaveTheirPortsAlone)
{
    const temporary_file file(R"({"VLAN": {"Vlan7": {}, "Vlan8": {}}, "VLAN_MEMBER": {
        "Vlan7|a": {"tagging_mode": "untagged"}, "Vlan8|a": {"tagging_mode": "untagged"},
        "Vlan8|b": {"tagging_mode": "tagged"}}})");
    ASSERT_EQ(ebridge({file.path()}).status, 0);
    const outcome seen = restart(file.path(), {"VLAN_MEMBER|Vlan7|a", "VLAN_MEMBER|Vlan8|b"}, "2");
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("VLAN_MEMBER":{"kept":1,"unchanged":1,"dropped":2,"gone":2})"));
    EXPECT_EQ(marks(redis, 4), ":0");
}

TEST_F(RestartRun, RulesThatAreDroppedGoAndThoseThatHadLostToThemHold)
{
    const temporary_file file(R"({"ACL_RULE": {
        "t|high": {"PRIORITY": "9", "VLAN_ID": "7"}, "t|low": {"PRIORITY": "2", "VLAN_ID": "7"},
        "t|other": {"PRIORITY": "5", "SRC_IP": "10.0.0.1"}}})");
    const outcome first = restart(file.path(), {}, "2");
    EXPECT_EQ(first.status, 0) << first.err;
    const store_view before = store();
    const outcome seen = restart(file.path(), {"ACL_RULE|t|high"}, "2");
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr(R"("restarted":{"ACL_RULE":{"kept":2,"unchanged":2,"dropped":1,"gone":1}})"));
    EXPECT_EQ(before.size() - store().size(), 1U);
    EXPECT_EQ(marks(redis, 4), ":0");
}

TEST_F(RestartRun, WhatAnEarlierLifeLeftGoesToo)
{
    ASSERT_EQ(ebridge({LEAF}).status, 0);
    const temporary_file less(R"({"VLAN": {"Vlan101": {}}, "PORT": {"Ethernet0": {"lanes": "1"}}})");
    const outcome seen = restart(less.path(), {});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(store().size(), 4U) << "two sessions and their attributes";
}

TEST_F(RestartRun, OtherNumbersOfUsersLeaveNothingBehindEither)
{
    ASSERT_EQ(ebridge({"--users", "4", LEAF}).status, 0);
    const outcome seen = restart(LEAF, {"VXLAN_TUNNEL|vtep", "PORTCHANNEL|PortChannel1"}, "3");
    EXPECT_EQ(seen.status, 0) << seen.err;
}

TEST_F(RestartRun, WhatOthersReferToCanBeDroppedAlone)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {"mtu": "9000"}}, "VXLAN_TUNNEL": {"t": {"src_ip": "10.0.0.1"}},
                                  "VXLAN_TUNNEL_MAP": {"t|m": {"vni": "5", "vlan": "Vlan10"}}})");
    const outcome seen = restart(file.path(), {"VLAN|Vlan10"});
    EXPECT_EQ(seen.status, 0) << seen.err;
    const outcome next = restart(file.path(), {"VXLAN_TUNNEL_MAP|t|m"});
    EXPECT_EQ(next.status, 0) << next.err;
    EXPECT_THAT(next.out, HasSubstr(R"("VXLAN_TUNNEL":{"kept":1,"unchanged":1,"dropped":0,"gone":0})"));
}

TEST_F(RestartRun, TheTableForPeopleEndsWithTheRestart)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {}, "Vlan20": {}}})");
    const outcome seen = run({EBRIDGE_PROGRAM, "run", "--store", redis.url(), "--restart", "--delete-now", "--without",
                              "VLAN|Vlan20", file.path()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.out, HasSubstr("\nRESTARTED       KEPT  UNCHANGED    DROPPED       GONE\n"
                                    "VLAN               1          1          1          1\n"));
}

TEST_F(RestartRun, ATerminalIsToldHowFarItIs)
{
    const temporary_file file(R"({"VLAN": {"Vlan10": {}}})");
    child running({EBRIDGE_PROGRAM, "run", "--store", redis.url(), "--restart", "--delete-now", file.path()}, true);
    for (const char *what :
         {"restart: ebridge_run: marked", "restart: ebridge_run: refreshed", "ebridge_run: deleting"})
        EXPECT_TRUE(running.wait_for_error_text(what));
    EXPECT_EQ(running.finish().status, 0);
}

TEST(RestartUsage, WrongUsageIsOneLineAndAsksNobody)
{
    const std::vector<std::string> away{EBRIDGE_PROGRAM, "run", "--store", "redis+unix:///nowhere/socket", LEAF};
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{"--restart", "--without", "VLAN|Vlan11"}, "--without VLAN|Vlan11: the configuration has no such entry"},
        {{"--restart", "--without", "VLAN|Vlan10", "--without", "VLAN"}, "--without VLAN: the configuration has no"},
        {{"--restart", "--without", "ACL_TABLE|SERVERS"}, "--without ACL_TABLE|SERVERS: nothing is made of such"},
        {{"--restart", "--without", "VLAN_MEMBER|x\ny"}, "VLAN_MEMBER|x\\x0ay: the configuration has no such entry"},
        {{"--restart", "--without", "QUEUE|x\ny"}, "QUEUE|x\\x0ay: nothing is made"},
        {{"--without", "VLAN|Vlan10"}, "--without requires --restart"},
        {{"--delete-now"}, "--delete-now requires --restart"},
    };
    for (const auto &[more, line] : cases) {
        std::vector<std::string> command = away;
        command.insert(command.end(), more.begin(), more.end());
        const outcome seen = run(std::move(command));
        EXPECT_EQ(seen.status, 2);
        EXPECT_THAT(seen.err, HasSubstr(line));
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
        EXPECT_THAT(seen.out, IsEmpty());
    }
    const outcome embedded = run({EBRIDGE_PROGRAM, "run", "--restart", LEAF});
    EXPECT_EQ(embedded.status, 2);
    EXPECT_THAT(embedded.err, HasSubstr("--restart requires --store"));
}
