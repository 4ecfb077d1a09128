// What the server's function keeps of calls and loads, in its own language and in the log: a server that forgets the first
// or has lost some of the second does nothing twice and passes nothing over.
#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <numeric>
#include <set>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

constexpr int32_t BETWEEN_NOTES = 256;  // entries of the log between two notes of mom:state

const std::string KEY = "u_bridge.evlan_session:app:32:1";

// Number 8 of a session, as it stands on the wire.
std::string request(int value) { return {'@', static_cast<char>(value)}; }

class RedisCalls : public FaultTest
{
  protected:
    // Writes one number after the other to a record, at least so many, until `done`, and some more.
    void write_on(
        int32_t count, const std::function<bool()> &done = [] { return true; })
    {
        const int32_t end = next_ + count;
        while ((next_ < end || !done()) && !HasFailure()) {
            write(numbered(1, next_++));
            if (next_ % 16 == 0)
                pass_time(1);
        }
    }

    // Entries of the log that tell nobody here of anything.
    void others_write(int32_t entries)
    {
        for (const int last = others_ + entries; others_ < last;) {
            ++others_;
            call_with_writes("other", others_, others_, {"h", "elsewhere", "6", "x"});
        }
    }

    // Each of them was told once, in its order.
    static void expect_all_told(const listener &to, int32_t from, int32_t until)
    {
        std::vector<int32_t> wanted, heard;
        for (int32_t i = from; i < until; ++i)
            wanted.push_back(i);
        for (const session &each : sessions(to.changes()))
            heard.push_back(each.request_value);
        EXPECT_EQ(wanted, heard);
    }
    void run_until_last_told()
    {
        run_until(
            [&] { return !told.changes().empty() && sessions(told.changes()).back().request_value == next_ - 1; });
        settle();
    }
    void expect_all_told()
    {
        run_until_last_told();
        expect_all_told(told, 1, next_);
        expect_view_equals_store();
    }

    int32_t next_ = 1;

  private:
    int others_ = 0;
};

// ---- numbered calls -------------------------------------------------------------------------------------------------

struct forgetting {
    const char *name;
    void (*act)();
};

void flush_functions() { store_server().commands(app_db, "FUNCTION FLUSH"); }

void load_anew() { load_function_anew(); }

void start_anew()
{
    store_server().kill();
    store_server().start();
}

class RedisForgets : public RedisCalls, public testing::WithParamInterface<std::tuple<forgetting, int32_t>>
{
  protected:
    // Other clients' entries, and the server has forgotten, and has a function again.
    void others_write_and_the_server_forgets()
    {
        const auto &[how, entries] = GetParam();
        others_write(entries);
        how.act();
        run_until([] { return contains(store_server().commands(app_db, "FUNCTION LIST"), "mom_"); });
    }
};

TEST_P(RedisForgets, ACallThatIsMadeAgainIsNotDoneAgain)
{
    const auto value = [] { return store_server().commands(app_db, "HGET " + KEY + " 8"); };
    call_with_writes("one", 1, 1, {"h", KEY, "8", request(11)});
    call_with_writes("two", 1, 1, {"h", KEY, "8", request(12)});
    others_write_and_the_server_forgets();
    EXPECT_TRUE(contains(call_with_writes("one", 1, 1, {"h", KEY, "8", request(11)}), "again"));
    EXPECT_TRUE(contains(value(), request(12)));
    EXPECT_TRUE(contains(call_with_writes("one", 3, 2, {"h", KEY, "8", request(13)}), "BUSY"));
    EXPECT_TRUE(contains(value(), request(12)));
    EXPECT_FALSE(contains(call_with_writes("one", 2, 2, {"h", KEY, "8", request(14)}), "again"));
    EXPECT_TRUE(contains(value(), request(14)));
    others_write_and_the_server_forgets();
    EXPECT_TRUE(contains(call_with_writes("two", 1, 1, {"h", KEY, "8", request(12)}), "again"));
    EXPECT_TRUE(contains(call_with_writes("one", 2, 2, {"h", KEY, "8", request(14)}), "again"));
    EXPECT_TRUE(contains(value(), request(14)));
}

TEST_P(RedisForgets, WhatWasRefusedIsAnsweredTheSameWhenItIsAskedAgain)
{
    const std::vector<std::string> writes{"h", KEY, "8", request(1), "h", "text", "8", request(1)};
    store_server().commands(app_db, "SET text x");
    EXPECT_EQ("kf", call_with_writes("one", 1, 1, writes));
    EXPECT_EQ("", call_with_writes("one", 2, 1, {"h", KEY, "8", request(2)}));
    others_write_and_the_server_forgets();
    store_server().commands(app_db, "DEL text");
    EXPECT_EQ("again\nkf", call_with_writes("one", 1, 1, writes));
    EXPECT_EQ("again", call_with_writes("one", 2, 1, {"h", KEY, "8", request(2)}));
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS text"), ":0"));
}

// No entry of the log says that it was made.
TEST_P(RedisForgets, ACallThatChangedNothingIsNotDoneLater)
{
    EXPECT_EQ("", call_with_writes("one", 1, 1, {"u", KEY, "8", request(1)}));
    others_write_and_the_server_forgets();
    call_with_writes("two", 1, 1, {"h", KEY, "6", "x"});
    EXPECT_TRUE(contains(call_with_writes("one", 1, 1, {"u", KEY, "8", request(1)}), "again"));
    EXPECT_TRUE(contains(store_server().commands(app_db, "HEXISTS " + KEY + " 8"), ":0"));
}

// The follower takes them where they were left, and so does who follows from elsewhere.
TEST_P(RedisForgets, EachChangeIsToldOnce)
{
    followed elsewhere(other_url_of_the_same(url_));
    write_on(20);
    others_write_and_the_server_forgets();
    write_on(20);
    others_write_and_the_server_forgets();
    write_on(20);
    run_until_last_told();
    expect_all_told(told, 1, next_);
    elsewhere.run_until([&] { return elsewhere.told.changes().size() >= static_cast<size_t>(next_ - 1); });
    expect_all_told(elsewhere.told, 1, next_);
}

// Few entries: all of them are behind the last note. Many: a note lies between.
INSTANTIATE_TEST_SUITE_P(
    All, RedisForgets,
    testing::Combine(testing::Values(forgetting{"Flushed", flush_functions}, forgetting{"LoadedAnew", load_anew},
                                     forgetting{"Killed", start_anew}),
                     testing::Values(2, BETWEEN_NOTES + 20)),
    [](const auto &of) { return std::get<0>(of.param).name + std::to_string(std::get<1>(of.param)); });

// No client sends more texts at once than this.
TEST_F(RedisCalls, ALargeCallIsCarriedOutAndToldWhole)
{
    std::vector<std::string> writes;
    for (int32_t i = 1; i <= 1000; ++i)
        writes.insert(writes.end(), {"h", "u_bridge.evlan_session:app:32:" + std::to_string(i), "8", request(i % 100)});
    EXPECT_EQ("", call_with_writes("one", 1, 1, writes));
    run_until([&] { return told.changes().size() >= 1000; });
    EXPECT_EQ(1000u, view().size());
    expect_view_equals_store();
}

// A record with more fields than any of the project's own: its key, and the rest all numbers.
struct wide_record {
    static constexpr uint32_t FIELDS = 60, FIRST_ID = 6;

    ProtobufCMessage base;
    int32_t index;
    std::array<int32_t, FIELDS> values;

    static const ProtobufCMessageDescriptor &type();
};

const ProtobufCMessageDescriptor &wide_record::type()
{
    static const auto names = [] {
        std::array<std::string, FIELDS + 1> made{"index"};
        for (uint32_t i = 1; i <= FIELDS; ++i)
            made[i] = "value_" + std::to_string(100 + i);
        return made;
    }();
    static const auto fields = [] {
        std::array<ProtobufCFieldDescriptor, FIELDS + 1> made{};
        for (uint32_t i = 0; i <= FIELDS; ++i) {
            made[i].name = names[i].c_str();
            made[i].id = FIRST_ID - 1 + i;
            made[i].label = PROTOBUF_C_LABEL_NONE;
            made[i].type = PROTOBUF_C_TYPE_INT32;
            made[i].offset = static_cast<unsigned>(offsetof(wide_record, index) + i * sizeof(int32_t));
        }
        return made;
    }();
    static const auto by_name = [] {
        std::array<unsigned, FIELDS + 1> made{};
        std::iota(made.begin(), made.end(), 0u);
        return made;
    }();
    static const std::array<ProtobufCIntRange, 2> ranges{{{FIRST_ID - 1, 0}, {0, FIELDS + 1}}};
    static const ProtobufCMessageDescriptor all{PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC,
                                                "elsewhere.wide",
                                                "wide",
                                                "wide",
                                                "elsewhere",
                                                sizeof(wide_record),
                                                FIELDS + 1,
                                                fields.data(),
                                                by_name.data(),
                                                1,
                                                ranges.data(),
                                                nullptr,
                                                nullptr,
                                                nullptr,
                                                nullptr};
    return all;
}

// As many of them as go in one call of narrow records hold more texts than the server's language can take at once.
TEST_F(RedisCalls, WritesOfWideRecordsAreDoneHoweverManyAreMadeAtOnce)
{
    constexpr int32_t RECORDS = 300;
    std::vector<uint32_t> ids(wide_record::FIELDS);
    std::iota(ids.begin(), ids.end(), wide_record::FIRST_ID);
    listener answers;
    for (int32_t key = 1; key <= RECORDS; ++key) {
        wide_record record{{&wide_record::type(), 0, nullptr}, key, {}};
        record.values.fill(key);
        EXPECT_EQ(
            0, qz_mom_hmset(writer, app_db, &record.base, ids.data(), wide_record::FIELDS, listener::hear, &answers));
    }
    run_until([&] { return answers.all.size() == RECORDS; });
    for (const heard &each : answers.all)
        EXPECT_EQ(0, each.error) << each.key;
    for (const int32_t key : {1, RECORDS / 2, RECORDS}) {
        const std::string count = store_server().commands(app_db, "HLEN elsewhere.wide:" + std::to_string(key));
        EXPECT_TRUE(contains(count, ":60\r\n")) << count;
    }
}

// A user who may not touch the second of two records.
TEST_F(RedisCalls, WhatACallThatFailedHasLeftIsNotToldByTheNext)
{
    store_server().commands(app_db, "SET mine x\nSET other x\nACL SETUSER limited on >p ~mom:* ~mine &* +@all");
    const std::string writes = writes_of("one", 1, 1, {"d", "mine", "d", "other"});
    const std::string refused =
        store_server().commands(app_db, "AUTH limited p\n" + encoded({"FCALL", function_name(), "0", writes}));
    EXPECT_TRUE(contains(refused, "\r\n-")) << refused;
    EXPECT_EQ("", call_with_writes("two", 1, 1, {"s", "next", "x"}));
    const std::string newest = store_server().commands(app_db, "XREVRANGE mom:log + - COUNT 1");
    EXPECT_TRUE(contains(newest, "next") && !contains(newest, "mine")) << newest;
    store_server().commands(app_db, "ACL DELUSER limited");
}

// A user who may write to the log, and not to its channel any more.
TEST_F(RedisCalls, AnEntryThatCouldNotBePushedIsHeardOfAtTheNextTick)
{
    store_server().commands(app_db, "ACL SETUSER quiet on >p ~* resetchannels +@all");
    EXPECT_TRUE(contains(store_server().commands(app_db, "AUTH quiet p\nPUBLISH mom:log:4 0"), "-NOPERM"));
    write(numbered(1, 5));
    settle();
    const std::string writes = writes_of("one", 1, 1, {"h", KEY, "6", std::string{'0', 6}});
    const std::string done =
        store_server().commands(app_db, "AUTH quiet p\n" + encoded({"FCALL", function_name(), "0", writes}));
    EXPECT_FALSE(contains(done, "\r\n-")) << done;
    run_until([&] { return sessions(told.changes()).back().request_value == 6; });
    expect_view_equals_store();
    EXPECT_TRUE(events.empty());
    store_server().commands(app_db, "ACL DELUSER quiet");
}

TEST_F(RedisCalls, ARecordCanHaveAnyNumberOfFields)
{
    for (const int fields : {1, 6, 100, 101, 300}) {
        std::vector<std::string> write{"h", "elsewhere:" + std::to_string(fields), ""};
        for (int i = 1; i <= fields; ++i) {
            write[2] += (i > 1 ? "," : "") + std::to_string(i);
            write.push_back("v" + std::to_string(i));
        }
        EXPECT_EQ("", call_with_writes("one", fields, fields, write));
        const auto value = [&](int i) {
            return store_server().commands(app_db, "HGET " + write[1] + ' ' + std::to_string(i));
        };
        for (const int i : {1, fields / 2 + 1, fields})
            EXPECT_TRUE(contains(value(i), "\r\nv" + std::to_string(i) + "\r\n")) << fields << ", " << i;
        EXPECT_TRUE(contains(store_server().commands(app_db, "HLEN " + write[1]), ':' + std::to_string(fields)));
    }
}

// At each place between two notes: what is forgotten is read from the note, or from the entries behind it.
TEST_F(RedisCalls, WhereverTheServerForgetsItGoesOnFromThere)
{
    const auto done = [](int number) {
        return !contains(call_with_writes("one", number, number, {"h", KEY, "8", request(number % 100)}), "again");
    };
    for (int number = 1; number <= BETWEEN_NOTES + 10; ++number) {
        EXPECT_TRUE(done(number)) << number;
        if (number % 7 == 0 || number > BETWEEN_NOTES - 20)
            load_function_anew();
        EXPECT_FALSE(done(number)) << number;
    }
    settle();
    EXPECT_EQ(static_cast<size_t>(BETWEEN_NOTES + 10), told.changes().size());
}

// As one that was its replica for a while does: the log has come as far, in the same second, and tells of something else.
TEST_F(RedisCalls, AServerWhoseLogIsAnotherOnesByNowTakesItForWhatWasDone)
{
    const auto write = [](int number) { return call_with_writes("one", number, number, {"h", KEY, "8", request(1)}); };
    EXPECT_EQ("", write(1));
    const std::string replaces =
        "local newest = redis.call('XREVRANGE', KEYS[1], '+', '-', 'COUNT', 1)[1] redis.call('DEL', KEYS[1]) "
        "redis.call('XADD', KEYS[1], newest[1], newest[2][1], ARGV[1])";
    const std::string other = writes_of("one", 7, 7, {"h", KEY, "8", request(7)});
    store_server().commands(app_db, encoded({"EVAL", replaces, "1", "mom:log", other}));
    EXPECT_EQ("gone", call({"left", std::to_string(app_db), "two", "0", "0", "mark"}));
    EXPECT_EQ("again", write(7));
    EXPECT_EQ("", write(8));
}

TEST_F(RedisCalls, WritesGoOnWhileTheFunctionIsFlushedAndLoadedAnewAndTheServerDies)
{
    for (int round = 0; round < 3; ++round) {
        write_on(100);
        flush_functions();
        write_on(150);
        load_function_anew();
        write_on(150);
        start_anew();
    }
    write_on(100);
    expect_all_told();
}

// ---- tables that are being read -------------------------------------------------------------------------------------

// What the server says to a client that begins to read all sessions, goes on, or has read them: nothing, or "lapsed".
std::string reads(const std::string &client, const std::string &step)
{
    return call({"read", std::to_string(app_db), client, "0", "0", step, "u_bridge.evlan_session"});
}

// Whether the newest entry of the log says what was sent, or all that the record holds.
bool newest_is_whole()
{
    const std::string newest = store_server().commands(app_db, "XREVRANGE mom:log + - COUNT 1");
    const size_t field = newest.find('\n', newest.rfind("*2\r\n$") + 5) + 1;
    EXPECT_TRUE(contains(newest, "one")) << newest;
    EXPECT_TRUE(newest[field] == 's' || newest[field] == 'r') << newest;
    return newest[field] == 'r';
}

// So many times the server has looked for records.
int64_t pages_read()
{
    const std::string all = store_server().commands(app_db, "INFO commandstats");
    const std::string line = "cmdstat_scan:calls=";
    const size_t at = all.find(line);
    return at == std::string::npos ? 0 : std::stoll(all.substr(at + line.size()));
}

TEST_F(RedisCalls, WritesAreToldWholeWhileATableIsRead)
{
    int number = 0;
    const auto write_is_whole = [&] {
        ++number;
        call_with_writes("one", number, number, {"h", KEY, "8", request(number)});
        return newest_is_whole();
    };
    EXPECT_FALSE(write_is_whole());
    EXPECT_EQ("", reads("two", "begin"));
    EXPECT_TRUE(write_is_whole());
    EXPECT_EQ("", reads("two", "go on"));
    EXPECT_TRUE(write_is_whole());
    EXPECT_EQ("", reads("two", "end"));
    EXPECT_FALSE(write_is_whole());
}

// It has not seen that writes are to be told whole.
TEST_F(RedisCalls, WhoReadsIsRefusedByAServerThatHasForgottenIt)
{
    EXPECT_EQ("", reads("two", "begin"));
    load_function_anew();
    call_with_writes("one", 1, 1, {"h", KEY, "8", request(1)});
    EXPECT_FALSE(newest_is_whole());
    EXPECT_EQ("lapsed", reads("two", "go on"));
    EXPECT_EQ("", reads("two", "begin"));
    EXPECT_EQ("lapsed", reads("three", "go on"));
    call_with_writes("one", 2, 2, {"h", KEY, "8", request(2)});
    EXPECT_TRUE(newest_is_whole());
}

// What it has found so far is gone, and the place that it has come to lies elsewhere in what was written since.
TEST_F(RedisCalls, WhoReadsIsRefusedByAServerThatWasEmptied)
{
    call_with_writes("one", 1, 1, {"h", KEY, "8", request(1)});
    EXPECT_EQ("", reads("two", "begin"));
    EXPECT_EQ("", reads("two", "go on"));
    store_server().commands(app_db, "FLUSHALL");
    EXPECT_EQ("lapsed", reads("two", "go on"));
    EXPECT_EQ("", reads("two", "begin"));
    EXPECT_EQ("", reads("two", "go on"));
}

// Else writes would be told whole for ever because of one who will never go on. Half a minute is a second here.
TEST_F(RedisCalls, WhoReadsAndIsNotHeardOfForHalfAMinuteLapses)
{
    load_function_anew("LOADER_SECONDS = 30", "LOADER_SECONDS = 1");
    EXPECT_EQ("", reads("gone", "begin"));
    EXPECT_EQ("", reads("slow", "begin"));
    for (int i = 0; i < 30; ++i) {
        EXPECT_TRUE(call({"fire", std::to_string(app_db), "slow", "0", "0"}).starts_with("k"));
        pass_time(100);
    }
    EXPECT_EQ("lapsed", reads("gone", "go on"));
    EXPECT_EQ("", reads("slow", "go on"));
    call_with_writes("one", 1, 1, {"h", KEY, "8", request(1)});
    EXPECT_TRUE(newest_is_whole());
    EXPECT_EQ("", reads("slow", "end"));
    call_with_writes("one", 2, 2, {"h", KEY, "8", request(2)});
    EXPECT_FALSE(newest_is_whole());
}

TEST_F(RedisCalls, AClientThatIsGoneInTheMiddleOfATableKeepsNobodyFromGoingOn)
{
    fill_store(3000);
    EXPECT_EQ("", reads("gone", "begin"));
    write_on(40);
    run_until_last_told();
    expect_all_told(told, 1, next_);
    followed late(other_url_of_the_same(url_));
    write_on(40);
    run_until_last_told();
    expect_all_told(told, 1, next_);
    late.run_until([&] { return late.told.changes().size() >= 40; });
    expect_all_told(late.told, 41, next_);
    EXPECT_EQ(3000u, store().size());
}

// Changes were told in parts meanwhile, which are of no use to who does not know the rest: he is told of all records again.
TEST_F(RedisCalls, AFollowerWhoseLoadLapsesBeginsAnewAndHearsEveryState)
{
    fill_store(60'000);
    int64_t before = pages_read();
    EXPECT_EQ(60'000u, store().size());
    const int64_t pages = pages_read() - before;

    constexpr int32_t KEYID = 100'000;
    int32_t round = 0;
    const auto write_round = [&] {
        ++round;
        EXPECT_EQ(0, hmset(writer, {.keyid = KEYID, .request_value = round}, {6}));
        EXPECT_EQ(0, hmset(reader, {.keyid = KEYID, .reply_value = round}, {10}));
    };
    write_round();
    settle();
    listener hears;
    before = pages_read();
    auto *late = open(other_url_of_the_same(url_));
    EXPECT_EQ(0, follow(late, any_session(), hears));
    const auto write_until_read = [&](int64_t count) {
        run_until([&] {
            write_round();
            return pages_read() - before >= count;
        });
    };
    write_until_read(pages / 4);
    EXPECT_LT(pages_read() - before, pages) << "the table was read before the server forgot";
    load_function_anew();
    std::set<int32_t> untold;
    for (int32_t i = 1; i <= 60'000; i += 29) {
        EXPECT_EQ(0, hmset(writer, {.keyid = i, .request_value = 7}, {6}));
        untold.insert(i);
    }
    for (int i = 0; i < 100; ++i)
        write_round();
    settle();
    EXPECT_EQ(60'001u, scan(late, any_session()).size());  // waits for the end of the load
    std::vector<int32_t> states;
    for (const session &each : sessions(hears.changes())) {
        if (each.keyid == KEYID)
            states.push_back(state_by_two_hands(each));
        else
            EXPECT_EQ(1, each.request) << each.keyid;  // it was there before
        if (each.request_value == 7)
            untold.erase(each.keyid);
    }
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(2 * round, states.back());
    const auto leads_on = [](int32_t one, int32_t next) { return next == one || next == one + 1; };
    EXPECT_EQ(states.end(), std::ranges::adjacent_find(states, std::not_fn(leads_on)));
    EXPECT_EQ(std::set<int32_t>(), untold);
}

// What was there before went meanwhile, and came back with fewer fields: who follows one that is not among them has to hear.
TEST_F(RedisCalls, WhoFollowsAFieldHearsOfARecordThatIsMadeAnewWhileTheTableIsReadAgain)
{
    constexpr int32_t FIRST = 100'000, COUNT = 40;
    fill_store(20'000);
    listener hears;
    EXPECT_EQ(0, follow_field(reader, any_session(), 11, hears));
    std::string removals;
    for (int32_t i = FIRST; i < FIRST + COUNT; ++i) {
        EXPECT_EQ(0, hmset(writer, {.keyid = i, .request_value = 1, .reply = 5}, {6, 11}));
        removals += "DEL u_bridge.evlan_session:app:32:" + std::to_string(i) + '\n';
    }
    settle();
    EXPECT_EQ(size_t{COUNT}, hears.changes().size());
    auto *other = open(other_url_of_the_same(url_));
    settle();
    const int64_t before = pages_read();
    store_server().commands(app_db, removals + "DEL mom:log");  // all read their tables anew
    run_until([&] { return pages_read() - before >= 10; });
    for (int32_t i = FIRST; i < FIRST + COUNT; ++i)
        run_until([&] { return hmset(other, {.keyid = i, .request_value = 2}, {6}) == 0; });
    settle();
    EXPECT_EQ(20'000u + COUNT, scan(reader, any_session()).size());  // waits for the end of the load
    std::map<int32_t, int32_t> replies;
    for (const heard &each : hears.changes())
        replies[session_of(*each.record).keyid] = each.cmd == QZ_MOM_CMD_DEL ? 0 : session_of(*each.record).reply;
    for (int32_t i = FIRST; i < FIRST + COUNT; ++i)
        EXPECT_EQ(0, replies[i]) << i;
}

// It was believed to be in neither form, and so not to be ours.
TEST_F(RedisCalls, ARecordThatIsInTheOtherFormWheneverItIsLookedAtIsReadInTheEnd)
{
    write(numbered(7));
    settle();
    const std::string step = "local step, loader = ARGV[6], client .. ' ' .. ARGV[7]\n";
    load_function_anew(step, step + R"(
        if step == 'go on' and ARGV[7] == 'u_bridge.evlan_session' and call('INCR', 'looks') <= 3 then
            local key = 'u_bridge.evlan_session:app:32:7'
            local is_whole = call('TYPE', key).ok == 'string'
            call('DEL', key)
            call(unpack(is_whole and {'HSET', key, '8', '@\1'} or {'SET', key, '@\1'}))
        end
    )");
    const session now{.keyid = 7, .request = 1};
    EXPECT_EQ(std::vector<session>{now}, scan(open(other_url_of_the_same(url_)), any_session()));
    EXPECT_TRUE(contains(store_server().commands(app_db, "GET looks"), "4"));
}

// ---- what others do to the server's notes ---------------------------------------------------------------------------

TEST_F(RedisCalls, ANoteThatIsRemovedIsMadeUpForByTheLog)
{
    for (const int32_t entries : {20, BETWEEN_NOTES + 20}) {
        write_on(entries);
        call_with_writes("one", entries, entries, {"h", "elsewhere", "8", request(1)});
        store_server().commands(app_db, "DEL mom:state");
        write_on(20);
        load_function_anew();
        EXPECT_TRUE(contains(call_with_writes("one", entries, entries, {"h", "elsewhere", "8", request(2)}), "again"));
        write_on(20);
    }
    expect_all_told();
}

// Else each call would begin another log, and each follower compare all that he knows anew, for ever.
TEST_F(RedisCalls, ALogThatIsLedToTheEndOfAllNumbersBeginsAnewOnce)
{
    int number = 0;
    for (const char *end : {"9007199254740992", "9007199254740993", "18446744073709551614"}) {
        store_server().commands(app_db, std::string("XADD mom:log ") + end + "-0 s1 x");
        call({"fire", std::to_string(app_db), "one", "0", "0"});  // looks at the log
        for (int i = 0; i < 5; ++i, ++number)
            EXPECT_EQ("", call_with_writes("one", number + 1, number + 1, {"h", KEY, "8", request(number)}));
        EXPECT_TRUE(contains(store_server().commands(app_db, "XLEN mom:log"), ":5")) << end;
    }
    write_on(20);
    run_until_last_told();
    expect_view_equals_store();
}

// As nobody knows what was in it, what is there is told again; what comes behind it is told once.
class RedisLogRemoved : public RedisCalls, public testing::WithParamInterface<int32_t>
{
  protected:
    void expect_newest_told()
    {
        run_until_last_told();
        EXPECT_EQ(next_ - 1, sessions(told.changes()).back().request_value);
        std::vector<int32_t> heard;
        for (const session &each : sessions(told.changes()))
            heard.push_back(each.request_value);
        EXPECT_TRUE(std::ranges::is_sorted(heard));
        expect_view_equals_store();
    }

    // As any client asks every so often: the function looks whether the log is what it was.
    static void have_it_looked_at() { call({"fire", std::to_string(app_db), "one", "0", "0"}); }
};

TEST_P(RedisLogRemoved, TheNextWriteIsHeardOf)
{
    others_write(GetParam());
    write_on(20);
    expect_newest_told();
    store_server().commands(app_db, "DEL mom:log");
    write_on(20);
    expect_newest_told();
}

TEST_P(RedisLogRemoved, TheNextWriteIsHeardOfAlsoWhenThatWasNoticedBefore)
{
    others_write(GetParam());
    write_on(20);
    expect_newest_told();
    store_server().commands(app_db, "DEL mom:log");
    have_it_looked_at();
    write_on(20);
    expect_newest_told();
}

TEST_P(RedisLogRemoved, ALogThatIsCutToNothingIsGoneOnWith)
{
    others_write(GetParam());
    write_on(20);
    expect_newest_told();
    store_server().commands(app_db, "XTRIM mom:log MAXLEN 0");
    have_it_looked_at();
    const std::string answer = call_with_writes("one", 1, 1, {"h", "elsewhere", "6", "x"});
    EXPECT_FALSE(contains(answer, "ERR")) << answer;
    write_on(20);
    expect_newest_told();
}

INSTANTIATE_TEST_SUITE_P(After, RedisLogRemoved, testing::Values(0, BETWEEN_NOTES + 20));

}  // namespace
}  // namespace contract
