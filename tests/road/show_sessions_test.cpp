// "ebridge show sessions", "show ids", "show holder", "show evlans", "show eports" and "show users": what is counted, and
// the program on a real server.
#include "show_sessions.hpp"

#include <gmock/gmock.h>
#include <signal.h>

#include "child.hpp"
#include "record_writer.hpp"
#include "redis_server.hpp"
#include "show_program.hpp"

using namespace ebridge_tool;
using namespace road;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace
{

constexpr uint32_t VLAN = U_BRIDGE__EVLAN_TYPE__VLAN, VXLAN = U_BRIDGE__EVLAN_TYPE__VXLAN;
constexpr uint32_t PORT = U_BRIDGE__EPORT_TYPE__PORT, AP = U_BRIDGE__EPORT_TYPE__AP;

shown_session granted(const char *user, id_kind kind, uint32_t key, int32_t id)
{
    return {.db = 4, .kind = kind, .key1 = key, .user = user, .requested = true, .answered = true, .answer = id};
}

// min, max, in use and free of a type.
std::vector<uint32_t> usage(const std::vector<shown_session> &sessions, const std::vector<shown_range> &ranges,
                            const char *type)
{
    const std::vector<id_usage> all = usage_of(sessions, ranges, find_bridge_type(type));
    if (all.size() != 1)
        return {};
    const id_usage &of = all.front();
    return {of.min, of.max, static_cast<uint32_t>(of.in_use), static_cast<uint32_t>(of.free)};
}

using numbers = std::vector<uint32_t>;

// What applications and a service leave behind, in words that are easily told.
void fill(const support::redis_server &redis)
{
    record_writer of(redis.url());
    const auto both = [&of](const ProtobufCMessage &asked, const ProtobufCMessage &mirror) {
        of.set(4, asked);
        of.set(8, mirror);
    };
    both(evlan_session("app", VXLAN, 5010, 0x20000000).answered(0x20000005).message(),
         evlan_session("app", VXLAN, 5010, 0x20000000).answered(0x20000005, 4).message());
    both(evlan_session("second", VXLAN, 5010, 0x20000000).answered(0x20000005).message(),
         evlan_session("second", VXLAN, 5010, 0x20000000).answered(0x20000005, 4).message());
    of.set(4, evlan_session("app", VLAN, 101, 0x10000065).answered(0x10000065).message());
    of.set(4, eport_session("app", PORT, 0, 1'000'100, 0x10000065).answered(0x10000065).message());
    of.set(4, eport_session("app", AP, 0, 7).answered(-1).message());
    of.set(4, evlan_session("late", VXLAN, 1).message());
    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EVLAN_TYPE__VXLAN;
    range.evlan_id_min = 1;
    range.evlan_id_max = 10;
    of.set(4, range.base);
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    index.t_user = const_cast<char *>("app");
    index.evlan_id = 0x20000005;
    UBridge__EvlanAttrOverlay overlay = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    overlay.vnid = 5010;
    UBridge__Evlan evlan = U_BRIDGE__EVLAN__INIT;
    evlan.index = &index;
    evlan.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
    evlan.attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
    evlan.overlay = &overlay;
    of.set(8, evlan.base);
    of.wait();
}

}  // namespace

// ---- what is counted ------------------------------------------------------------------------------------------------

TEST(ShownIds, AnIdIsCountedOnceHoweverManyHoldIt)
{
    const std::vector<shown_session> sessions = {
        granted("a", {false, VXLAN}, 7, 0x20000001), granted("b", {false, VXLAN}, 7, 0x20000001),
        granted("b", {false, VXLAN}, 8, 0x20ffffff), granted("b", {false, VXLAN}, 9, -1)};
    EXPECT_EQ(usage(sessions, {}, "VXLAN"), (numbers{1, 0xffffff, 2, 0xffffff - 2}));
    EXPECT_EQ(usage(sessions, {}, "VLAN"), (numbers{1, 4094, 0, 4094}));
    EXPECT_EQ(usage(sessions, {}, "VXLAN_AC"), (numbers{1, 0xffffff, 0, 0xffffff}));
    EXPECT_EQ(usage_of(sessions, {}, find_bridge_type("32")).size(), 2U);  // VXLAN and AP
    EXPECT_EQ(usage_of(sessions, {}, {}).size(), 25U);
}

// A key names an interface; its id tells whether that is a port or an aggregate of some.
TEST(ShownIds, AnIdCountsForItsOwnTypeNotForTheTypeOfItsKey)
{
    const std::vector<shown_session> sessions = {granted("a", {true, PORT}, 1, 0x20000001)};
    EXPECT_EQ(usage(sessions, {}, "PORT"), (numbers{1, 0xffffff, 0, 0xffffff}));
    EXPECT_EQ(usage(sessions, {}, "AP"), (numbers{1, 0xffffff, 1, 0xffffff - 1}));
}

TEST(ShownIds, ARangeLeavesOnlyItsOwnNumbersFree)
{
    const std::vector<shown_session> sessions = {granted("a", {false, VLAN}, 5, 0x10000005),
                                                 granted("a", {false, VLAN}, 50, 0x10000032)};
    const auto range = [](uint32_t min, uint32_t max) { return std::vector<shown_range>{{{false, VLAN}, min, max}}; };
    EXPECT_EQ(usage(sessions, range(1, 10), "VLAN"), (numbers{1, 10, 2, 9}));
    EXPECT_EQ(usage(sessions, range(0x10000001, 0x1000000a), "VLAN"), (numbers{1, 10, 2, 9}));  // written as ids
    EXPECT_EQ(usage(sessions, range(0, 0xffffff), "VLAN"), (numbers{1, 4094, 2, 4092}));
    EXPECT_EQ(usage(sessions, range(5, 5), "VLAN"), (numbers{5, 5, 2, 0}));
    EXPECT_EQ(usage(sessions, range(10, 9), "VLAN")[3], 0U);
    EXPECT_THAT(ids_table(usage_of(sessions, range(10, 9), find_bridge_type("VLAN"))), HasSubstr("  none  "));
}

TEST(ShownSessions, TheirStateIsWhatTheAnswerSays)
{
    shown_session of{};
    EXPECT_EQ(of.state(), session_state::idle);
    of.requested = true;
    of.answer = 0x20000001;  // not an answer yet
    EXPECT_EQ(of.state(), session_state::open);
    EXPECT_EQ(of.id(), 0U);
    of.answered = true;
    EXPECT_EQ(of.state(), session_state::granted);
    EXPECT_EQ(of.id(), 0x20000001U);
    of.answer = -1;
    EXPECT_EQ(of.state(), session_state::refused);
    EXPECT_EQ(of.id(), 0U);
}

// ---- the program ----------------------------------------------------------------------------------------------------

TEST(ShowSessionsProgram, ShowsWhoAskedForWhatAndWritesNothing)
{
    const support::redis_server redis;
    fill(redis);
    const std::string before = all_content(redis);
    const outcome seen = show("sessions", {"--store", redis.url()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_THAT(seen.err, IsEmpty());
    EXPECT_EQ(seen.out,
              "KIND   TYPE         KEY  USER    WANTED      STATE    ID\n"
              "evlan  VLAN         101  app     0x10000065  granted  0x10000065\n"
              "evlan  VXLAN          1  late    any         open     -\n"
              "evlan  VXLAN       5010  app     any         granted  0x20000005\n"
              "evlan  VXLAN       5010  second  any         granted  0x20000005\n"
              "eport  PORT   0+1000100  app     0x10000065  granted  0x10000065\n"
              "eport  AP           0+7  app     any         refused  -\n"
              "6 sessions of 3 users: open 1, granted 4, refused 1\n");
    EXPECT_EQ(
        show("sessions", {"--store", redis.url(), "--user", "late", "--json"}).out,
        R"([{"db":4,"kind":"evlan","type":"VXLAN","keyid":1,"user":"late","wanted":0,"priority":0,"state":"open",)"
        R"("mom_db":0}])"
        "\n");
    EXPECT_EQ(show("sessions", {"--store", redis.url(), "--type", "AP", "--json"}).out,
              R"([{"db":4,"kind":"eport","type":"AP","keyid1":0,"keyid2":7,"user":"app","wanted":0,"priority":0,)"
              R"("state":"refused","answer":-1,"mom_db":0}])"
              "\n");
    EXPECT_EQ(show("sessions", {"--store", redis.url(), "--user", "nobody"}).out, "0 sessions of 0 users\n");
    EXPECT_EQ(all_content(redis), before);
}

TEST(ShowSessionsProgram, ShowsIdsInUseAndWhoHoldsOne)
{
    const support::redis_server redis;
    fill(redis);
    EXPECT_EQ(show("ids", {"--store", redis.url(), "--type", "VXLAN"}).out,
              "KIND   TYPE   NUMBER  RANGE  IN USE  FREE\n"
              "evlan  VXLAN      32   1-10       1  9\n"
              "1 id in use\n");
    EXPECT_EQ(show("ids", {"--store", redis.url(), "--type", "VLAN", "--json"}).out,
              R"([{"kind":"evlan","type":"VLAN","min":1,"max":4094,"in_use":1,"free":4093}])"
              "\n");
    for (const char *id : {"0x20000005", "536870917"})
        EXPECT_EQ(show("holder", {id, "--store", redis.url()}).out,
                  "KIND   TYPE    KEY  USER    DB  MOM_DB\n"
                  "evlan  VXLAN  5010  app      4  -\n"
                  "evlan  VXLAN  5010  app      8  4\n"
                  "evlan  VXLAN  5010  second   4  -\n"
                  "evlan  VXLAN  5010  second   8  4\n"
                  "0x20000005: 1 key, 4 sessions\n");
    EXPECT_THAT(show("holder", {"0x10000065", "--store", redis.url(), "--db", "4"}).out,
                EndsWith("0x10000065: 2 keys, 2 sessions\n"));  // an evlan and an eport
    EXPECT_EQ(show("holder", {"0x20000006", "--store", redis.url()}).out, "nobody holds 0x20000006\n");
    EXPECT_EQ(show("holder", {"7", "--store", redis.url(), "--json"}).out, "[]\n");
}

TEST(ShowSessionsProgram, ShowsAttributesAndUsers)
{
    const support::redis_server redis;
    fill(redis);
    EXPECT_EQ(show("evlans", {"--store", redis.url()}).out,
              "ID          TYPE   USER  ATTRIBUTES\n"
              "0x20000005  VXLAN  app   overlay={vnid=5010}\n"
              "1 evlan, 1 record\n");
    EXPECT_THAT(show("evlans", {"--store", redis.url(), "--json", "--user", "app", "--type", "vxlan"}).out,
                AllOf(StartsWith(R"([{"id":536870917,"db":8,"user":"app","type":"VXLAN","record":{"index":)"),
                      HasSubstr(R"("overlay":{"vnid":5010,)"), EndsWith("}}}]\n")));
    EXPECT_EQ(show("evlans", {"--store", redis.url(), "--type", "VLAN"}).out, "0 evlans, 0 records\n");
    EXPECT_EQ(show("eports", {"--store", redis.url()}).out, "0 eports, 0 records\n");
    EXPECT_EQ(show("users", {"--store", redis.url()}).out,
              "USER    SESSIONS  ATTRIBUTES  RULES  PORT-VLANS  PVIDS  OTHERS\n"
              "app            4           1      0           0      0  0\n"
              "late           1           0      0           0      0  0\n"
              "second         1           0      0           0      0  0\n"
              "3 users\n");
    EXPECT_THAT(
        show("users", {"--store", redis.url(), "--json"}).out,
        StartsWith(R"([{"user":"app","sessions":4,"attributes":1,"rules":0,"port_vlans":0,"pvids":0,"others":0},)"));
}

TEST(ShowSessionsProgram, ShowsWhatAServiceHasAnsweredARun)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const outcome brought_up =
        run({EBRIDGE_PROGRAM, "run", std::string(EXAMPLES_DIR) + "/leaf.json", "--store", redis.url()});
    ASSERT_EQ(brought_up.status, 0) << brought_up.err;
    const outcome sessions = show("sessions", {"--store", redis.url(), "--type", "VLAN"});
    EXPECT_THAT(sessions.out, AllOf(HasSubstr("   101  ebridge_run  0x10000065  granted  0x10000065\n"),
                                    testing::Not(HasSubstr("open"))));
    EXPECT_THAT(show("holder", {"0x10000065", "--store", redis.url(), "--db", "8"}).out,
                HasSubstr("evlan  VLAN  101  ebridge_run   8  4\n"));
    EXPECT_THAT(show("evlans", {"--store", redis.url()}).out,
                HasSubstr("0x10000065  VLAN   ebridge_run  underlay={fid=101}\n"));
    EXPECT_THAT(show("users", {"--store", redis.url()}).out, HasSubstr("ebridge_run"));
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

TEST(ShowSessionsProgram, WhatIsNoRecordOfOursIsPassedOver)
{
    const support::redis_server redis;
    fill(redis);
    redis.commands(4,
                   "SET u_bridge.evlan_session:garbage:1 x\nHSET u_bridge.evlan_session:bad:32:9 8 zzzz\n"
                   "LPUSH u_bridge.eport_session:list:32:1:1 a");
    const outcome seen = show("sessions", {"--store", redis.url()});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, EndsWith("6 sessions of 3 users: open 1, granted 4, refused 1\n"));
    EXPECT_THAT(seen.err, HasSubstr("skipped, not a record of ours"));
}

TEST(ShowSessionsProgram, WrongUsageIsOneLine)
{
    const std::string url = "redis://127.0.0.1:1";
    for (const char *view : {"sessions", "ids", "evlans", "eports", "users"}) {
        const std::string see = std::string(" (see ebridge show ") + view + " --help)\n";
        expect_one_line(show(view, {}), 2, "--store is required" + see);
        expect_one_line(show(view, {"--store", "mem:x"}), 2, "no other can read it" + see);
        expect_one_line(show(view, {"--store", url, "--db", "99"}), 2, url + ": no such database");
        expect_one_line(show(view, {"--store", url, "more"}), 2, see);
    }
    expect_one_line(show("sessions", {"--store", url, "--type", "OVID"}), 2, "OVID is not a type of evlans or eports");
    for (const char *id : {"0", "0x", "-1", "12x", "4294967296", "VLAN"})
        expect_one_line(show("holder", {id, "--store", url}), 2,
                        "is no id, such as 0x10000065 (see ebridge show holder");
    const std::string nobody = "redis://127.0.0.1:" + std::to_string(support::free_port());
    expect_one_line(show("sessions", {"--store", nobody}), 3, nobody + ": the store cannot be reached");
}

TEST(ShowSessionsProgram, HelpTeachesByExampleAndNamesTheStatuses)
{
    for (const std::string view : {"sessions", "ids", "holder", "evlans", "eports", "users"}) {
        const outcome seen = show(view, {"--help"});
        EXPECT_EQ(seen.status, 0);
        EXPECT_THAT(seen.out, AllOf(HasSubstr("--store redis://127.0.0.1"), HasSubstr("Exit status:"))) << view;
    }
    EXPECT_THAT(run({EBRIDGE_PROGRAM, "show", "--help"}).out, HasSubstr("ebridge show sessions"));
}
