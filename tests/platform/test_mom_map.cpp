// The map files of the store client, and the URLs of groups: what is understood, what is refused, and what is said of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>

#include "redis_map.hpp"
#include "temporary_file.hpp"

namespace
{

using namespace mom;

const std::string SECRET = "open-sesame";

const std::string GOOD = R"({
  "INSTANCES": {
    "redis": {"hostname": "127.0.0.1", "port": 6380, "unix_socket_path": "/run/redis.sock", "persistence": "yes"},
    "remote": {"hostname": "10.0.0.2", "port": 6381, "username": "app", "password": ")" +
                         SECRET + R"("},
    "plain": {"hostname": "db", "unix_socket_path": ""},
    "group": {"sentinels": ["10.0.0.3", "10.0.0.4:26380", "[::1]:7"], "group": "board", "password": ")" +
                         SECRET + R"("}
  },
  "DATABASES": {
    "APPL_DB": {"id": 0, "separator": ":", "instance": "redis"},
    "APPL_AGAIN": {"id": 0, "instance": "redis"},
    "ASIC_DB": {"id": 4, "separator": ":", "instance": "remote"},
    "COUNTERS_DB": {"id": 8, "instance": "plain"},
    "STATE_DB": {"id": 200, "instance": "group"}
  },
  "VERSION": "1.0"
})";

std::optional<redis_map> parse(const std::string &text, map_fault &fault)
{
    return parse_map(text, std::filesystem::temp_directory_path().string(), fault);
}

// "WHERE: WHAT" of a text that is refused; "" when it is not.
std::string fault_of(const std::string &text)
{
    map_fault fault;
    return parse(text, fault) ? "" : fault.where + ": " + fault.what;
}

// A file with the one database 4 on an instance of these members.
std::string with_instance(const std::string &members)
{
    return R"({"INSTANCES": {"i": {)" + members + R"(}}, "DATABASES": {"d": {"id": 4, "instance": "i"}}})";
}

// A file with one instance "i" and these databases.
std::string with_databases(const std::string &members)
{
    return R"({"INSTANCES": {"i": {"hostname": "h"}, "j": {"hostname": "k"}}, "DATABASES": {)" + members + "}}";
}

TEST(DatabaseMap, EachDatabaseHasTheInstanceThatItNames)
{
    map_fault fault;
    const auto map = parse(GOOD, fault);
    ASSERT_TRUE(map) << fault.where << ": " << fault.what;
    ASSERT_EQ(4u, map->size());
    EXPECT_EQ("/run/redis.sock", map->at(0)->server.path);
    EXPECT_EQ(6380, map->at(0)->server.port);
    EXPECT_EQ("", map->at(4)->server.path);
    EXPECT_EQ("10.0.0.2", map->at(4)->server.host);
    EXPECT_EQ(6381, map->at(4)->server.port);
    EXPECT_EQ("app", map->at(4)->server.user);
    EXPECT_EQ(SECRET, map->at(4)->server.password);
    EXPECT_EQ("db", map->at(8)->server.host);
    EXPECT_EQ(6379, map->at(8)->server.port);
    EXPECT_FALSE(map->contains(1));
}

TEST(DatabaseMap, AnInstanceMayBeAGroup)
{
    map_fault fault;
    const auto map = parse(GOOD, fault);
    ASSERT_TRUE(map);
    const redis_instance &group = *map->at(200);
    EXPECT_EQ("board", group.group);
    EXPECT_EQ(SECRET, group.server.password);
    ASSERT_EQ(3u, group.sentinels.size());
    EXPECT_EQ("10.0.0.3", group.sentinels[0].host);
    EXPECT_EQ(26379, group.sentinels[0].port);
    EXPECT_EQ(26380, group.sentinels[1].port);
    EXPECT_EQ("::1", group.sentinels[2].host);
    EXPECT_EQ(7, group.sentinels[2].port);
    EXPECT_EQ("", group.sentinels[2].password);  // who we are there is not who we are here
}

TEST(DatabaseMap, TheTablesMayBeInLowerCase)
{
    EXPECT_EQ("",
              fault_of(R"({"instances": {"i": {"hostname": "h"}}, "databases": {"d": {"id": 4, "instance": "i"}}})"));
    EXPECT_EQ("",
              fault_of(R"({"instances": {"i": {"hostname": "h"}}, "DATABASES": {"d": {"id": 4, "instance": "i"}}})"));
}

TEST(DatabaseMap, APasswordMayStandInAFileBesideTheMap)
{
    const temporary_file secret(SECRET + "\nmore\n");
    for (const std::string &name : {secret.path(), secret.name()}) {
        map_fault fault;
        const auto map = parse(with_instance(R"("hostname": "h", "password_path": ")" + name + '"'), fault);
        ASSERT_TRUE(map) << fault.what;
        EXPECT_EQ(SECRET, map->at(4)->server.password);
    }
    const temporary_file empty("\n");
    EXPECT_EQ("/INSTANCES/i/password_path: no password in its first line",
              fault_of(with_instance(R"("hostname": "h", "password_path": ")" + empty.path() + '"')));
    EXPECT_EQ("/INSTANCES/i/password_path: cannot be read: No such file or directory",
              fault_of(with_instance(R"("hostname": "h", "password_path": "/nowhere/secret")")));
    EXPECT_EQ("/INSTANCES/i/password_path: cannot be read: not a file",
              fault_of(with_instance(R"("hostname": "h", "password_path": "/dev/zero")")));
}

TEST(DatabaseMap, WhatMakesNoSenseIsNamedWithItsPlace)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "line 1, column 1: not JSON"},
        {"{\n  \"INSTANCES\": nonsense}", "line 2, column 17: not JSON"},
        {"{\"a\": 1e999}", "/: holds a number that is out of range"},
        {"[]", "/: not an object"},
        {"4", "/: not an object"},
        {"{}", "/INSTANCES: is missing"},
        {R"({"INSTANCES": {}})", "/INSTANCES: not an object with members"},
        {R"({"instances": []})", "/instances: not an object with members"},
        {R"({"INSTANCES": {"i": {}}, "instances": {"i": {}}})", "/INSTANCES: stands in upper and in lower case"},
        {R"({"INSTANCES": {"i": {"hostname": "h"}}})", "/DATABASES: is missing"},
        {R"({"INSTANCES": {"i": 1}})", "/INSTANCES/i: not an object"},
        {with_instance(""), "/INSTANCES/i: has no unix_socket_path, no hostname and no sentinels"},
        {with_instance(R"("hostname": 1)"), "/INSTANCES/i/hostname: not a text"},
        {with_instance(R"("hostname": "h\u0000")"), "/INSTANCES/i/hostname: holds a null byte"},
        {with_instance(R"("hostname": "h", "port": 0)"), "/INSTANCES/i/port: not a number from 1 to 65535"},
        {with_instance(R"("hostname": "h", "port": 65536)"), "/INSTANCES/i/port: not a number from 1 to 65535"},
        {with_instance(R"("hostname": "h", "port": "6379")"), "/INSTANCES/i/port: not a number from 1 to 65535"},
        {with_instance(R"("hostname": "h", "port": -1)"), "/INSTANCES/i/port: not a number from 1 to 65535"},
        {with_instance(R"("hostname": "h", "username": "u")"), "/INSTANCES/i/username: stands without a password"},
        {with_instance(R"("hostname": "h", "password": "p", "password_path": "x")"),
         "/INSTANCES/i/password_path: stands beside a password"},
        {with_instance(R"("hostname": "h", "group": "g")"), "/INSTANCES/i/group: stands without sentinels"},
        {with_instance(R"("sentinels": ["a:1"])"), "/INSTANCES/i/sentinels: stands without a group"},
        {with_instance(R"("sentinels": [], "group": "g")"), "/INSTANCES/i/sentinels: not a list of \"host:port\""},
        {with_instance(R"("sentinels": "a:1", "group": "g")"), "/INSTANCES/i/sentinels: not a list of \"host:port\""},
        {with_instance(R"("sentinels": ["a:0"], "group": "g")"), "/INSTANCES/i/sentinels: not a list of \"host:port\""},
        {with_instance(R"("sentinels": [1], "group": "g")"), "/INSTANCES/i/sentinels: not a list of \"host:port\""},
        {with_databases(""), "/DATABASES: not an object with members"},
        {with_databases(R"("d": 4)"), "/DATABASES/d: not an object"},
        {with_databases(R"("d": {"instance": "i"})"), "/DATABASES/d: has no id"},
        {with_databases(R"("d": {"id": 4})"), "/DATABASES/d: has no instance"},
        {with_databases(R"("d": {"id": "4", "instance": "i"})"), "/DATABASES/d/id: not a number from 0 to 2147483647"},
        {with_databases(R"("d": {"id": 4.0, "instance": "i"})"), "/DATABASES/d/id: not a number from 0 to 2147483647"},
        {with_databases(R"("d": {"id": 2147483648, "instance": "i"})"),
         "/DATABASES/d/id: not a number from 0 to 2147483647"},
        {with_databases(R"("d": {"id": 4, "instance": "x"})"), "/DATABASES/d/instance: names no instance"},
        {with_databases(R"("d": {"id": 4, "instance": "i"}, "e": {"id": 4, "instance": "j"})"),
         "/DATABASES/e/id: is another database's on another instance"},
        {with_databases(R"("d": {"id": 4, "instance": "i"}, "d": {"id": 5, "instance": "i"})"),
         "/DATABASES/d: stands twice"},
        {with_databases(R"("d\n": {"id": 4})"), "/DATABASES/d?: has no instance"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(expected, fault_of(text)) << text;
}

// Whatever the damage: a map, or one line that names it and keeps the password to itself.
void expect_map_or_line(const std::string &text)
{
    map_fault fault;
    if (parse(text, fault))
        return;
    const std::string line = fault.where + ": " + fault.what;
    EXPECT_FALSE(fault.where.empty() || fault.what.empty()) << text;
    EXPECT_EQ(std::string::npos, line.find('\n')) << line;
    EXPECT_EQ(std::string::npos, line.find("sesame")) << line;
}

TEST(DatabaseMap, ADamagedFileIsNeitherFatalNorTellsThePassword)
{
    for (size_t at = 0; at < GOOD.size(); ++at) {
        expect_map_or_line(GOOD.substr(0, at));
        expect_map_or_line(GOOD.substr(at));
        expect_map_or_line(GOOD.substr(0, at) + GOOD.substr(at + 1));
        for (const char put : {'\n', '"', '{', ']', '\0', '9', '\xff'})
            expect_map_or_line(GOOD.substr(0, at) + put + GOOD.substr(at + 1));
    }
    std::minstd_rand random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string text = GOOD;
        for (unsigned changes = random() % 8 + 1; changes > 0; --changes) {
            const size_t at = random() % text.size();
            const size_t size = random() % 12;
            text.replace(at, size, GOOD.substr(random() % GOOD.size(), random() % 12));
        }
        expect_map_or_line(text);
    }
    expect_map_or_line(std::string(100000, '['));
    std::string deep;
    for (int i = 0; i < 20000; ++i)
        deep += "{\"a\":";
    expect_map_or_line(deep);
}

TEST(DatabaseMap, AUrlNamesItByItsAbsolutePath)
{
    const temporary_file file(GOOD);
    std::string fault;
    const auto map = map_of_url("file://" + file.path(), fault);
    ASSERT_TRUE(map) << fault;
    EXPECT_EQ(4u, map->size());

    EXPECT_FALSE(map_of_url("file://" + file.name(), fault));
    EXPECT_EQ("database map " + file.name() + ": not an absolute path", fault);
    EXPECT_FALSE(map_of_url("file:///nowhere/map.json", fault = ""));
    EXPECT_EQ("database map /nowhere/map.json: No such file or directory", fault);
    EXPECT_FALSE(map_of_url("file:///dev/zero", fault = ""));
    EXPECT_EQ("database map /dev/zero: not a file", fault);

    const temporary_file empty("{}");
    EXPECT_FALSE(map_of_url("file://" + empty.path(), fault = ""));
    EXPECT_EQ("database map " + empty.path() + ": /INSTANCES: is missing", fault);
    const temporary_file large(std::string((1U << 20) + 1, ' '));
    EXPECT_FALSE(map_of_url("file://" + large.path(), fault = ""));
    EXPECT_EQ("database map " + large.path() + ": larger than 1 MiB", fault);
}

TEST(StoreUrl, OfOneServerHoldsSixteenDatabases)
{
    std::string fault;
    const auto map = map_of_url("redis://u:p%40@[::1]:7000", fault);
    ASSERT_TRUE(map);
    EXPECT_EQ(16u, map->size());
    EXPECT_EQ("::1", map->at(15)->server.host);
    EXPECT_EQ(7000, map->at(15)->server.port);
    EXPECT_EQ("u", map->at(0)->server.user);
    EXPECT_EQ("p@", map->at(0)->server.password);
}

TEST(StoreUrl, OfASocketMayHoldAnAtSignInItsPath)
{
    for (const std::string path : {"/run/a@b/redis.sock", "/run/a@/redis.sock", "/run/a:b@c"}) {
        const auto plain = redis_instance::parse("redis+unix://" + path);
        ASSERT_TRUE(plain) << path;
        EXPECT_EQ(path, plain->server.path);
        EXPECT_EQ("", plain->server.user);
    }
    const auto by_user = redis_instance::parse("redis+unix://u:p@w@/run/a@b");
    ASSERT_TRUE(by_user);
    EXPECT_EQ("u", by_user->server.user);
    EXPECT_EQ("p@w", by_user->server.password);
    EXPECT_EQ("/run/a@b", by_user->server.path);
}

TEST(StoreUrl, OfAGroupNamesItsSentinelsAndTheGroup)
{
    const auto group = redis_instance::parse("redis+sentinel://u:p/w@a,b:7,[::1]:8/board");
    ASSERT_TRUE(group);
    EXPECT_EQ("board", group->group);
    EXPECT_EQ("u", group->server.user);
    EXPECT_EQ("p/w", group->server.password);
    ASSERT_EQ(3u, group->sentinels.size());
    EXPECT_EQ("a", group->sentinels[0].host);
    EXPECT_EQ(26379, group->sentinels[0].port);
    EXPECT_EQ("b", group->sentinels[1].host);
    EXPECT_EQ(7, group->sentinels[1].port);
    EXPECT_EQ("::1", group->sentinels[2].host);
    EXPECT_EQ(8, group->sentinels[2].port);
}

TEST(StoreUrl, OfNoSenseIsRefused)
{
    for (const char *url : {"redis+sentinel://",
                            "redis+sentinel://a",
                            "redis+sentinel://a/",
                            "redis+sentinel:///g",
                            "redis+sentinel://a,/g",
                            "redis+sentinel://,a/g",
                            "redis+sentinel://a:x/g",
                            "redis+sentinel://a:0/g",
                            "redis+sentinel://a:65536/g",
                            "redis+sentinel://u@a/g",
                            "redis+sentinel://u:%zz@a/g",
                            "redis+sentinel://a/g/h",
                            "redis+sentinel://a b/g",
                            "redis+sentinel:/a/g",
                            "redis://a,b",
                            "redis://a/g",
                            "redis://",
                            "redis://a:",
                            "redis+unix://x",
                            "redis+unix://u@/x",
                            "redis+unix://u:p@x",
                            "file:/x",
                            ""}) {
        std::string fault;
        EXPECT_FALSE(map_of_url(url, fault)) << url;
        EXPECT_EQ("", fault) << url;
    }
}

}  // namespace
