// "ebridge watch": records in words, lines and objects, filters, and the program on real servers that come and go.
#include "watch.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "child.hpp"
#include "patient_output.hpp"
#include "record_text.hpp"
#include "record_writer.hpp"
#include "redis_server.hpp"
#include "s_bridge.pb-c.h"
#include "show_program.hpp"

using namespace ebridge_tool;
using namespace road;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

constexpr int VXLAN = U_BRIDGE__EVLAN_TYPE__VXLAN;
constexpr timespec HEARD{1'772'360'430, 123'456'789};  // 2026-03-01 10:20:30 UTC

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(text.substr(at, end - at));
    return lines;
}

// Without their times: after the third blank.
std::vector<std::string> untimed(const std::string &text)
{
    std::vector<std::string> lines = lines_of(text);
    for (std::string &line : lines)
        line.erase(0, line.find("  ") + 2);
    return lines;
}

// Behind this name.
std::string word_of(const std::string &line, const std::string &name)
{
    const size_t at = line.find(name) + name.size();
    return line.substr(at, line.find(' ', at) - at);
}

// An evlan with attributes of an overlay.
struct overlay_evlan {
    overlay_evlan()
    {
        index.t_user = const_cast<char *>("app");
        index.evlan_id = 0x20000005;
        overlay.vnid = 5010;
        overlay.mapping_evlan = 0x1000000a;
        record.index = &index;
        record.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
        record.attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
        record.overlay = &overlay;
    }
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    UBridge__EvlanAttrOverlay overlay = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    UBridge__Evlan record = U_BRIDGE__EVLAN__INIT;
};

// What a notification of a write of fields points to.
struct written_fields {
    written_fields(const ProtobufCMessage &record, const char *key, const char *fields)
        : value{0, const_cast<ProtobufCMessage *>(&record)}, msg{4,      key,
                                                                 fields, QZ_MOM_CMD_HMSET,
                                                                 &value, QZ_MOM_END_NONE,
                                                                 0}
    {
    }
    qz_mom_hash_value value;
    qz_mom_notification msg;
};

// A watch of an embedded store, or of a server, that has everything that it says.
class collected
{
  public:
    explicit collected(const watch_query &query)
        : watch_(query, [this](std::string_view lines) {
              text_ += lines;
              return true;
          })
    {
        std::string error;
        EXPECT_EQ(watch_.follow(&error), 0) << error;
    }
    // Once it has ended by its count.
    std::vector<std::string> lines()
    {
        watch_.run();
        return untimed(text_);
    }

  private:
    std::string text_{};
    watch watch_;
};

child watching(const std::string &url, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {EBRIDGE_PROGRAM, "watch", "--store", url});
    return child(std::move(arguments));
}

outcome run_watch(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {EBRIDGE_PROGRAM, "watch"});
    return run(std::move(arguments));
}

}  // namespace

// ---- records in words -----------------------------------------------------------------------------------------------

TEST(RecordText, APersonReadsWhatIsSetAndIdsInHexadecimal)
{
    const evlan_session asked("app", VXLAN, 5010, 0x20000000);
    EXPECT_EQ(key_words(asked.message()), "keyid=5010");
    EXPECT_EQ(content_words(asked.message()), "request_value=0x20000000 request=1");
    EXPECT_EQ(content_words(asked.message(), "priority,request"), "priority=LEVEL_0 request=1");
    eport_session refused("app", U_BRIDGE__EPORT_TYPE__VXLAN_PW, 0x12345678, -2'000'000'000);
    EXPECT_EQ(key_words(refused.message()), "keyid1=0x12345678 keyid2=0x88ca6c00");
    EXPECT_EQ(content_words(refused.answered(-1).message()), "request=1 reply_value=-1 reply=1");
    const overlay_evlan evlan;
    EXPECT_EQ(key_words(evlan.record.base), "evlan_id=0x20000005");
    EXPECT_EQ(content_words(evlan.record.base), "overlay={vnid=5010 mapping_evlan=0x1000000a}");
    EXPECT_EQ(content_words(evlan.record.base, "underlay,class_id"), "class_id=0 underlay=-");
}

TEST(RecordText, BitmapsAreVlansAndLongListsAreCut)
{
    uint32_t words[129] = {0x42, 1};
    UBridge__Bitmap bitmap = U_BRIDGE__BITMAP__INIT;
    bitmap.value = words;
    bitmap.n_value = 2;
    UBridge__PortVlans record = U_BRIDGE__PORT_VLANS__INIT;
    record.vbmp = &bitmap;
    EXPECT_EQ(key_words(record.base), "");  // no key at all
    EXPECT_EQ(content_words(record.base), "vbmp=1,6,32");
    bitmap.n_value = 129;  // more than there are VLANs
    EXPECT_EQ(content_words(record.base), "vbmp={value=66,1,0,0,0,0,0,0,... (129)}");
    std::string user(300, 'x');
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    notice.notice_from = user.data();
    EXPECT_EQ(content_words(notice.base).size(), 243U);
    EXPECT_THAT(content_words(notice.base), EndsWith("xxx..."));
}

TEST(RecordText, AProgramReadsEverythingByName)
{
    const evlan_session asked("\xff", VXLAN, 5010, 0x20000000);
    EXPECT_EQ(record_json(asked.message()),
              "{\"index\":{\"t_user\":\"\xef\xbf\xbd\",\"type\":32,\"keyid\":5010},\"request_value\":536870912,"
              "\"priority\":\"LEVEL_0\",\"request\":1,\"release\":0,\"reply_value\":0,\"reply\":0,\"mom_db\":0}");
    overlay_evlan evlan;
    EXPECT_THAT(record_json(evlan.record.base),
                AllOf(HasSubstr(R"("type":"VXLAN","class_id":0,"overlay":{"vnid":5010)"), Not(HasSubstr("underlay"))));
    evlan.record.type = static_cast<UBridge__EvlanType>(77);  // nothing that has a name
    EXPECT_THAT(record_json(evlan.record.base), HasSubstr(R"("type":77)"));
    UBridge__CongestNotify notice = U_BRIDGE__CONGEST_NOTIFY__INIT;
    notice.timestamp = 0xffff'ffff'ffff'ffff;
    EXPECT_EQ(record_json(notice.base), R"({"notice_from":"","timestamp":18446744073709551615})");
    uint8_t bytes[] = {0, 0x1a, 0xff};
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {sizeof bytes, bytes};
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.mac = &mac;
    UBridge__EmatchEntry rule = U_BRIDGE__EMATCH_ENTRY__INIT;
    rule.index = &index;
    EXPECT_THAT(record_json(rule.base), HasSubstr(R"("mac":{"data":"001aff"})"));
    EXPECT_EQ(key_words(rule.base), "mac={data=001aff}");
    uint32_t words[] = {7, 0xffffffff};
    UBridge__VlanPreRequest request = U_BRIDGE__VLAN_PRE_REQUEST__INIT;
    request.vbmp = words;
    request.n_vbmp = 2;
    EXPECT_EQ(record_json(request.base), R"({"vbmp":[7,4294967295],"type":0})");
}

TEST(BridgeTables, AreFoundByTheirNamesAndThoseOfUsersWithoutThePackage)
{
    ASSERT_NE(find_table("evlan_session"), nullptr);
    EXPECT_EQ(find_table("evlan_session"), find_table("u_bridge.evlan_session"));
    ASSERT_NE(find_table("s_bridge.evlan"), nullptr);
    EXPECT_NE(find_table("s_bridge.evlan"), find_table("evlan"));
    EXPECT_EQ(table_name(*find_table("s_bridge.evlan")->record), "s_bridge.evlan");
    for (const char *name : {"", "evlan_", "bitmap", "s_bridge.", "EVLAN"})
        EXPECT_EQ(find_table(name), nullptr) << name;
}

TEST(BridgeTables, TypesAreFoundByNameAndByNumber)
{
    const evlan_session vlan("a", U_BRIDGE__EVLAN_TYPE__VLAN, 1);
    const eport_session port("a", U_BRIDGE__EPORT_TYPE__PORT, 0, 1);
    const auto is = [](const char *type, const ProtobufCMessage &record) {
        const auto found = find_bridge_type(type);
        return found && is_of(*found, *table_of(record), record);
    };
    EXPECT_TRUE(is("VLAN", vlan.message()));
    EXPECT_TRUE(is("vlan", vlan.message()));
    EXPECT_TRUE(is("16", vlan.message()));
    EXPECT_TRUE(is("16", port.message()));
    EXPECT_FALSE(is("VLAN", port.message()));
    EXPECT_FALSE(is("PORT", vlan.message()));
    for (const char *type : {"", "VLA", "VLANS", "15", "16 ", "-1"})
        EXPECT_EQ(find_bridge_type(type), std::nullopt) << type;
    const overlay_evlan evlan;
    EXPECT_TRUE(is("VXLAN", evlan.record.base));
    UBridge__EportSessionRange range = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EPORT_TYPE__AP;
    EXPECT_TRUE(is("AP", range.base));
    const UBridge__PvidTable pvid = U_BRIDGE__PVID_TABLE__INIT;
    EXPECT_FALSE(is("16", pvid.base));
}

// ---- lines ----------------------------------------------------------------------------------------------------------

class WatchLines : public testing::Test
{
  protected:
    WatchLines()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(WatchLines, OfAWriteTheFieldsThatWereWritten)
{
    const evlan_session asked("my app", VXLAN, 5010, 0x20000000);
    const written_fields heard(asked.message(), "KEY", "request_value,priority,request");
    EXPECT_EQ(change_line(heard.msg, change::fields, HEARD),
              "2026-03-01 10:20:30.123  4   fields   evlan_session  my app    VXLAN  keyid=5010  "
              "request_value=0x20000000 priority=LEVEL_0 request=1\n");
    EXPECT_THAT(change_object(heard.msg, change::fields, HEARD),
                StartsWith(R"({"time":"2026-03-01T10:20:30.123456Z","db":4,"change":"fields",)"
                           R"("table":"u_bridge.evlan_session","user":"my app","type":"VXLAN","key":"KEY",)"
                           R"("fields":["request_value","priority","request"],"record":{"index":{"t_user":"my app",)"));
}

TEST_F(WatchLines, OfARemovalTheRecordAsItLastWas)
{
    eport_session gone("a\nb", U_BRIDGE__EPORT_TYPE__VXLAN_AC, 3, 100);
    gone.answered(0x30000007);
    qz_mom_notification heard{8, "KEY", "", QZ_MOM_CMD_DEL, &gone.record, QZ_MOM_END_NONE, 0};
    EXPECT_EQ(change_of(heard, false), change::removed);
    EXPECT_EQ(change_line(heard, change::removed, HEARD),
              "2026-03-01 10:20:30.123  8   removed  eport_session  a\\x0ab    VXLAN_AC  keyid1=3 keyid2=100  "
              "request=1 reply_value=0x30000007 reply=1\n");
    heard.cmd = QZ_MOM_CMD_EXPIRED;
    EXPECT_EQ(change_of(heard, false), change::expired);
    EXPECT_THAT(change_object(heard, change::expired, HEARD),
                AllOf(HasSubstr(R"("change":"expired")"), HasSubstr(R"("user":"a\nb")"), Not(HasSubstr("fields"))));
}

TEST_F(WatchLines, ARecordWithoutUserAndOneThatCannotBeRead)
{
    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EVLAN_TYPE__VLAN;
    range.evlan_id_max = 99;
    qz_mom_notification heard{4, "KEY", "", QZ_MOM_CMD_SET, &range, QZ_MOM_END_NONE, 0};
    EXPECT_EQ(change_line(heard, change_of(heard, true), HEARD),
              "2026-03-01 10:20:30.123  4   is       evlan_session_range  -         VLAN  evlan_id_max=99\n");
    EXPECT_THAT(change_object(heard, change::set, HEARD), AllOf(HasSubstr(R"("type":"VLAN")"), Not(HasSubstr("user"))));
    heard.value = nullptr;
    EXPECT_EQ(change_line(heard, change::set, HEARD), "2026-03-01 10:20:30.123  4   set      KEY  (cannot be read)\n");
    EXPECT_EQ(change_object(heard, change::set, HEARD),
              R"({"time":"2026-03-01T10:20:30.123456Z","db":4,"change":"set","key":"KEY","record":null})"
              "\n");
}

TEST_F(WatchLines, GapsAreLinesOfTheirOwn)
{
    EXPECT_EQ(gap_line(gap::lost, 8, HEARD),
              "2026-03-01 10:20:30.123  -- connection to database 8 lost; changes may be told together\n");
    EXPECT_EQ(gap_line(gap::back, 8, HEARD), "2026-03-01 10:20:30.123  -- connection to database 8 is back\n");
    EXPECT_THAT(gap_line(gap::behind, 0, HEARD), EndsWith("-- the output is not read fast enough; changes may be told "
                                                          "together\n"));
    EXPECT_THAT(gap_line(gap::missed, 4, HEARD), EndsWith("-- changes of database 4 have left its log unheard; changes "
                                                          "may be told together\n"));
    EXPECT_THAT(gap_object(gap::missed, 4, HEARD), EndsWith(R"("gap":"missed","db":4})"
                                                            "\n"));
    EXPECT_EQ(gap_object(gap::lost, 8, HEARD), R"({"time":"2026-03-01T10:20:30.123456Z","gap":"lost","db":8})"
                                               "\n");
    EXPECT_EQ(gap_object(gap::behind, 0, HEARD), R"({"time":"2026-03-01T10:20:30.123456Z","gap":"behind"})"
                                                 "\n");
}

// ---- following ------------------------------------------------------------------------------------------------------

TEST(Watch, TellsEveryKindOfChangeInTheOrderInWhichTheyHappen)
{
    record_writer of("mem:watch");
    collected seen({.store = "mem:watch", .count = 5});
    evlan_session asked("app", VXLAN, 5010, 0x20000000);
    of.write(4, asked.message(), {6, 8});
    of.write(4, asked.answered(0x20000001).message(), {10});
    of.set(8, asked.message());
    of.remove(4, asked.message());
    of.expire(8, asked.message());
    const std::string head = "evlan_session  app       VXLAN  keyid=5010  ";
    // Each database's in its order, and by the embedded store all.
    EXPECT_THAT(
        seen.lines(),
        ElementsAre("4   fields   " + head + "request_value=0x20000000 request=1",
                    "4   fields   " + head + "reply_value=0x20000001",
                    "8   set      " + head + "request_value=0x20000000 request=1 reply_value=0x20000001 reply=1",
                    "4   removed  " + head + "request_value=0x20000000 request=1 reply_value=0x20000001",
                    "8   expired  " + head + "request_value=0x20000000 request=1 reply_value=0x20000001 reply=1"));
}

TEST(Watch, TellsOnlyWhatIsAskedFor)
{
    record_writer of("mem:watch");
    const std::string store = "mem:watch";
    collected users({.store = store, .user = "b", .count = 2});
    collected types({.store = store, .type = find_bridge_type("AP"), .count = 2});
    collected tables({.store = store, .databases = {8}, .tables = {find_table("eport_session")}, .count = 1});
    const evlan_session mine("a", VXLAN, 1), others("b", VXLAN, 2);
    const eport_session aggregate("b", U_BRIDGE__EPORT_TYPE__AP, 0, 3), port("a", U_BRIDGE__EPORT_TYPE__PORT, 0, 4);
    UBridge__EportSessionRange range = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EPORT_TYPE__AP;
    for (const ProtobufCMessage *each : {&mine.message(), &others.message(), &port.message(), &aggregate.message()})
        of.set(4, *each);
    of.set(4, range.base);
    of.set(8, port.message());
    EXPECT_THAT(users.lines(), ElementsAre(HasSubstr("  b         VXLAN  "), HasSubstr("  b         AP  ")));
    EXPECT_THAT(types.lines(),
                ElementsAre(HasSubstr("  b         AP  "), HasSubstr("eport_session_range  -         AP")));
    EXPECT_THAT(tables.lines(), ElementsAre(StartsWith("8   set      eport_session  a         PORT  ")));
}

TEST(Watch, TellsFirstWhatIsThereAndThatItWasTold)
{
    record_writer of("mem:watch");
    const evlan_session first("a", VXLAN, 1), second("b", VXLAN, 2);
    of.set(4, first.message());
    of.write(4, second.message(), {8});
    of.wait();
    // What changes before all is told changes neither that nor its count.
    collected seen({.store = "mem:watch", .tables = {find_table("evlan_session")}, .now = true, .count = 1});
    of.remove(4, first.message());
    of.remove(4, second.message());
    const std::vector<std::string> lines = seen.lines();
    EXPECT_EQ(std::ranges::count_if(lines, [](const auto &line) { return line.starts_with("4   removed"); }), 1);
    EXPECT_EQ(std::ranges::count_if(lines, [](const auto &line) { return line.starts_with("-- all that was"); }), 1);
}

// Many thousand changes while nobody reads, of which the server's log forgets those that were not heard.
TEST(Watch, OfWhatASlowReaderHasMissedItTellsTheNewestAndThatThereWasAGap)
{
    constexpr int RECORDS = 500, ROUNDS = 200;
    const support::redis_server redis;
    record_writer of("redis+unix:///" +
                     redis.socket());  // as another program: under the same URL all share what they hear
    std::atomic<bool> reads = false;
    std::map<std::string, std::string> newest;
    size_t gaps = 0, changes = 0;
    watch_query query{.store = redis.url(), .databases = {4}, .tables = {find_table("evlan_session")}};
    watch *running = nullptr;
    watch slow(query, [&](std::string_view text) {
        reads.wait(false);
        for (const std::string &line : untimed(std::string(text))) {
            if (line.starts_with("--")) {
                gaps += line.find("not read fast enough") != std::string::npos;
                continue;
            }
            ++changes;
            newest[word_of(line, "keyid=")] = word_of(line, "request_value=");
        }
        const std::string last = std::to_string(ROUNDS);
        const auto is_last = [&](const auto &each) { return each.second == last; };
        if (newest.size() == RECORDS && std::all_of(newest.begin(), newest.end(), is_last))
            running->end();
        return true;
    });
    running = &slow;
    std::string error;
    ASSERT_EQ(slow.follow(&error), 0) << error;
    std::thread reader([&] { slow.run(); });
    for (int round = 1; round <= ROUNDS; ++round)
        for (int key = 1; key <= RECORDS; ++key)
            of.write(4, evlan_session("app", VXLAN, key, static_cast<uint32_t>(round)).message(), {6});
    of.wait();
    redis.commands(4, "XTRIM mom:log MAXLEN 1");
    reads = true;
    reads.notify_all();
    reader.join();
    EXPECT_EQ(gaps, 1U);
    EXPECT_LT(changes, size_t{RECORDS} * ROUNDS);  // else there was nothing to miss
}

// ---- output ---------------------------------------------------------------------------------------------------------

namespace
{

struct a_pipe {
    a_pipe() { EXPECT_EQ(pipe(ends), 0); }
    ~a_pipe()
    {
        for (const int end : ends)
            if (end >= 0)
                close(end);
    }
    a_pipe(const a_pipe &) = delete;
    a_pipe &operator=(const a_pipe &) = delete;
    void leave(int end) { close(std::exchange(ends[end], -1)); }
    int ends[2];
};

}  // namespace

TEST(PatientOutput, WaitsForItsReader)
{
    a_pipe out, enough;
    patient_output to(out.ends[1], enough.ends[0]);
    EXPECT_TRUE(to.is_pipe());
    const std::string much(1'000'000, 'x');
    std::thread writing([&] {
        EXPECT_TRUE(to.write(much));
        out.leave(1);
    });
    std::string got;
    char block[4096];
    for (ssize_t some = 1; some > 0;) {
        some = read(out.ends[0], block, sizeof block);
        got.append(block, static_cast<size_t>(std::max<ssize_t>(some, 0)));
    }
    writing.join();
    EXPECT_EQ(got, much);
    EXPECT_FALSE(to.has_failed());
}

TEST(PatientOutput, WaitsNoMoreWhenSomebodyHasHadEnough)
{
    a_pipe out, enough;
    patient_output to(out.ends[1], enough.ends[0]);
    std::thread writing([&] { EXPECT_FALSE(to.write(std::string(1'000'000, 'x'))); });
    EXPECT_EQ(write(enough.ends[1], "", 1), 1);
    writing.join();
    EXPECT_FALSE(to.has_failed());
    EXPECT_FALSE(to.is_unread());
}

TEST(PatientOutput, KnowsAReaderThatHasGoneFromOutputThatCannotBeWritten)
{
    signal(SIGPIPE, SIG_IGN);
    a_pipe out, enough;
    patient_output to(out.ends[1], enough.ends[0]);
    out.leave(0);
    EXPECT_TRUE(to.is_unread());
    EXPECT_FALSE(to.write("x"));
    EXPECT_FALSE(to.has_failed());
    const int full = open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    patient_output nowhere(full, enough.ends[0]);
    EXPECT_FALSE(nowhere.is_pipe());
    EXPECT_FALSE(nowhere.write("x"));
    EXPECT_TRUE(nowhere.has_failed());
    close(full);
}

// ---- the program ----------------------------------------------------------------------------------------------------

TEST(WatchProgram, TellsWhatAServiceAndARunMakeOfAConfiguration)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    child people = watching(redis.url(), {});
    child programs = watching(redis.url(), {"--json", "--db", "8", "--type", "VXLAN"});
    for (child *each : {&people, &programs})
        ASSERT_TRUE(each->wait_for_error_text("ebridge: watching "));
    const temporary_file config(R"({"VLAN": {"Vlan10": {"vlanid": "10"}},
                                    "VXLAN_TUNNEL": {"vtep": {"src_ip": "10.0.0.1"}},
                                    "VXLAN_TUNNEL_MAP": {"vtep|map": {"vlan": "Vlan10", "vni": "5010"}}})");
    const outcome brought_up = run({EBRIDGE_PROGRAM, "run", config.path(), "--store", redis.url()});
    ASSERT_EQ(brought_up.status, 0) << brought_up.out << brought_up.err;
    ASSERT_TRUE(people.wait_for_text("mapping_evlan=0x1000000a"));
    ASSERT_TRUE(programs.wait_for_text(R"("mapping_evlan":268435466)"));
    people.signal(SIGINT);
    programs.signal(SIGTERM);
    const outcome told = people.finish(), objects = programs.finish();
    EXPECT_EQ(told.status, 0);
    EXPECT_EQ(objects.status, 0);
    EXPECT_THAT(told.err, StartsWith("ebridge: watching 26 tables of databases 4, 8\n"));
    EXPECT_THAT(untimed(told.out),
                testing::IsSupersetOf(
                    {"4   fields   evlan_session  ebridge_run  VLAN  keyid=10  request_value=0x1000000a "
                     "priority=LEVEL_0 request=1",
                     "4   fields   evlan_session  ebridge_run  VLAN  keyid=10  reply_value=0x1000000a reply=1",
                     "8   fields   evlan_session  ebridge_run  VLAN  keyid=10  request_value=0x1000000a "
                     "priority=LEVEL_0 request=1 reply_value=0x1000000a reply=1 mom_db=4"}));
    for (const std::string &line : lines_of(objects.out))
        EXPECT_THAT(line, AllOf(StartsWith("{\"time\":\"20"), HasSubstr(R"("db":8)"), HasSubstr(R"("type":"VXLAN")"),
                                EndsWith("}}")));
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

// Killed with a record that then goes, and one that is written anew; both by another program before the watch is back.
TEST(WatchProgram, SaysThatAConnectionWasLostAndTellsWhatHasChangedMeanwhile)
{
    support::redis_server redis;
    record_writer of(redis.url());
    const evlan_session goes("app", VXLAN, 1), stays("app", VXLAN, 2), is_new("app", VXLAN, 3);
    of.set(4, goes.message());
    of.set(4, stays.message());
    of.wait();
    child seen = watching(redis.url(), {"--db", "4"});
    ASSERT_TRUE(seen.wait_for_error_text("watching"));
    redis.kill();
    ASSERT_TRUE(seen.wait_for_text("-- connection to database 4 lost; changes may be told together\n"));
    redis.start();
    of.remove(4, goes.message());
    of.set(4, is_new.message());
    of.wait();
    ASSERT_TRUE(seen.wait_for_text("-- connection to database 4 is back\n"));
    ASSERT_TRUE(seen.wait_for_text("set      evlan_session  app       VXLAN  keyid=3"));
    seen.signal(SIGTERM);
    const outcome told = seen.finish();
    EXPECT_EQ(told.status, 0);
    EXPECT_THAT(told.out, HasSubstr("removed  evlan_session  app       VXLAN  keyid=1"));
}

TEST(WatchProgram, TellsWhatAServerThatComesBackEmptyHasLost)
{
    support::redis_server redis;
    {
        record_writer of(redis.url());
        of.set(4, evlan_session("app", VXLAN, 1).message());
        of.wait();
    }
    child seen = watching(redis.url(), {"--db", "4", "--json", "--count", "1"});
    ASSERT_TRUE(seen.wait_for_error_text("watching"));
    redis.kill();
    redis.forget();
    redis.start();
    const outcome told = seen.finish();
    EXPECT_EQ(told.status, 0);
    const std::vector<std::string> lines = lines_of(told.out);
    ASSERT_EQ(lines.size(), 3U) << told.out;
    EXPECT_THAT(lines[0], EndsWith(R"("gap":"lost","db":4})"));
    EXPECT_THAT(lines[1], EndsWith(R"("gap":"back","db":4})"));
    EXPECT_THAT(lines[2], HasSubstr(R"("change":"removed")"));
}

// Stopped for so long that the server gives up on it, and on what it has not heard.
TEST(WatchProgram, SaysThatChangesHaveLeftTheLogBeforeTheyWereHeard)
{
    const support::redis_server redis(
        "client-output-buffer-limit normal 256kb 0 0\nclient-output-buffer-limit pubsub 256kb 0 0\n");
    record_writer of(redis.url());
    child watching({EBRIDGE_PROGRAM, "watch", "--store", redis.url(), "--db", "4", "--table", "evlan_session"});
    ASSERT_TRUE(watching.wait_for_error_text("watching"));
    watching.signal(SIGSTOP);
    for (int round = 0; round < 200; ++round) {
        for (int key = 1; key <= 100; ++key)
            of.write(4, evlan_session("app", VXLAN, key, static_cast<uint32_t>(round)).message(), {6});
        of.wait();
    }
    redis.commands(4, "XTRIM mom:log MAXLEN 1");
    watching.signal(SIGCONT);
    EXPECT_TRUE(watching.wait_for_text("changes of database 4 have left its log unheard"));
    watching.signal(SIGINT);
    EXPECT_EQ(watching.finish().status, 0);
}

TEST(WatchProgram, EndsQuietlyWhenNobodyReadsAnyMore)
{
    const support::redis_server redis;
    child idle = watching(redis.url(), {});
    ASSERT_TRUE(idle.wait_for_error_text("watching"));
    idle.leave_output();
    const outcome seen = idle.finish();
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(lines_of(seen.err).size(), 1U) << seen.err;
}

TEST(WatchProgram, WhatIsNoRecordOfOursIsPassedOver)
{
    const support::redis_server redis;
    record_writer of(redis.url());
    of.set(4, evlan_session("app", VXLAN, 1).message());
    of.wait();
    redis.commands(4,
                   "SET u_bridge.evlan_session:garbage:1 x\nHSET u_bridge.evlan_session:app:32:9 8 zzzz\n"
                   "LPUSH u_bridge.evlan_session:list:32:1 a\nSET unknown y");
    child seen = watching(redis.url(), {"--db", "4", "--now", "--count", "1"});
    ASSERT_TRUE(seen.wait_for_text("all that was there has been told"));
    of.set(4, evlan_session("app", VXLAN, 2).message());
    of.wait();
    const outcome told = seen.finish();
    EXPECT_EQ(told.status, 0);
    EXPECT_THAT(untimed(told.out),
                ElementsAre("4   is       evlan_session  app       VXLAN  keyid=1  request=1", StartsWith("-- all"),
                            "4   set      evlan_session  app       VXLAN  keyid=2  request=1"));
    EXPECT_THAT(told.err, HasSubstr("skipped, not a record of ours"));
}

TEST(WatchProgram, WhatIsNotThereIsOneLine)
{
    const std::string nobody = "redis://127.0.0.1:" + std::to_string(support::free_port());
    expect_one_line(run_watch({"--store", nobody}), 3, nobody + ": the store cannot be reached");
    expect_one_line(run_watch({"--store", "nowhere:x", "--json"}), 3, "malformed URL");
}

TEST(WatchProgram, WrongUsageIsOneLine)
{
    const std::string see = " (see ebridge watch --help)\n", url = "redis://127.0.0.1:1";
    expect_one_line(run_watch({}), 2, "--store is required" + see);
    expect_one_line(run_watch({"--store", "mem:x"}), 2, "mem:x lives within one process, no other can read it" + see);
    expect_one_line(run_watch({"--store", url, "--db", "99"}), 2, url + ": no such database");
    expect_one_line(run_watch({"--store", url, "--table", "evlans"}), 2, "evlans is not a table");
    expect_one_line(run_watch({"--store", url, "--type", "OVID"}), 2, "OVID is not a type of evlans or eports");
    for (const char *count : {"0", "-1", "many"})
        expect_one_line(run_watch({"--store", url, "--count", count}), 2, see);
    expect_one_line(run_watch({"--store", url, "--type", "VLAN", "--table", "port_vid"}), 2, "no table is left" + see);
    expect_one_line(run_watch({"--store", url, "more"}), 2, see);
}

TEST(WatchProgram, HelpTeachesByExampleAndNamesTheStatuses)
{
    const outcome seen = run_watch({"--help"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, HasSubstr("ebridge watch --store redis://127.0.0.1"));
    EXPECT_THAT(seen.out, HasSubstr("Exit status:"));
    EXPECT_THAT(run({EBRIDGE_PROGRAM, "--help"}).out, HasSubstr("ebridge watch"));
}
