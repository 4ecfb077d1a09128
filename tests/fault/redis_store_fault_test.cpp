// What a user of the Redis store sees while the server is killed, emptied, stopped, or too slow to follow.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

using RedisFault = FaultTest;

TEST_F(RedisFault, AKilledServerIsToldOfAndRefusesUntilItIsBack)
{
    write(numbered(1));
    settle();
    store_server().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    EXPECT_EQ(QZ_MOM_EDOWN, hmset(writer, numbered(2), REQUEST));
    EXPECT_EQ(QZ_MOM_EDOWN, del(writer, numbered(1)));
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    write(numbered(3));
    settle();
    EXPECT_EQ(2u, view().size());
    expect_view_equals_store();
    EXPECT_EQ(1u, told.count(QZ_MOM_CMD_SUBSCRIBED));  // none for what the client repeats by itself
}

// An application that starts up just then would be refused, and has no way to take back what it has begun.
TEST_F(RedisFault, ADatabaseThatIsAskedForDuringALossIsConnectedBehindIt)
{
    int calls = 0;
    const auto count = [](qz_mom_handle *, void *of) { return ++*static_cast<int *>(of); };
    store_server().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    EXPECT_EQ(0, qz_mom_client_connect(writer, app_db, count, &calls));
    pass_time(50);
    EXPECT_EQ(0, calls);
    store_server().start();
    run_until([&] { return calls == 1; });
}

// Also what is written as it was before: so does a user who asks once more for what he has, and waits for his answer.
TEST_F(RedisFault, AServerThatIsBackWithItsDataIsFollowedOnFromWhereItWasLeft)
{
    namespace fs = std::filesystem;
    const fs::path way = store_server().folder() + "/way";
    fs::create_directory_symlink(store_server().folder(), way);
    const std::string file = fs::path(store_server().socket()).filename();
    followed late("redis+unix://" + (way / file).string());
    for (int32_t i = 1; i <= 20; ++i)
        write(numbered(i));
    late.run_until([&] { return late.view().size() == 20; });
    late.told.all.clear();
    store_server().kill();
    fs::remove(way);
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    write(numbered(7));
    del(writer, numbered(8));
    write(numbered(8));
    settle();
    fs::create_directory_symlink(store_server().folder(), way);
    late.run_until([&] { return late.told.changes().size() >= 3; });
    late.run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    std::vector<int32_t> heard;
    for (const session &each : sessions(late.told.changes()))
        heard.push_back(each.keyid);
    EXPECT_EQ((std::vector<int32_t>{7, 8, 8}), heard);
}

TEST_F(RedisFault, WhatAnEmptiedServerHasLostIsToldAsRemovedWithItsLastContent)
{
    for (int32_t i = 1; i <= 50; ++i)
        write(numbered(i, i));
    settle();
    wait_for_answers();
    told.all.clear();
    store_server().kill();
    store_server().forget();
    store_server().start();
    run_until([&] { return told.count(QZ_MOM_CMD_DEL) == 50; });
    std::map<int32_t, int32_t> values;
    for (const session &each : sessions(told.changes()))
        values[each.keyid] = each.request_value;
    for (int32_t i = 1; i <= 50; ++i)
        EXPECT_EQ(i, values[i]);
    write(numbered(51));
    settle();
    EXPECT_EQ(1u, view().size());
    expect_view_equals_store();
}

TEST_F(RedisFault, WritesUnderWayWhenTheServerDiesAreDoneInTheirOrder)
{
    constexpr int32_t KEYS = 100, ROUNDS = 60;
    for (int32_t round = 1; round <= ROUNDS; ++round) {
        if (round % 20 == 10) {
            store_server().kill();
            store_server().start();
        }
        for (int32_t key = 0; key < KEYS; ++key)
            write(numbered(key, round));
    }
    const auto newest = [&] {
        const auto seen = view();
        return seen.size() == KEYS &&
               std::ranges::all_of(seen, [](const auto &each) { return each.second.request_value == ROUNDS; });
    };
    run_until(newest);
    settle();
    EXPECT_TRUE(newest());
    expect_view_equals_store();
}

// A thread that writes to a connection which was closed a moment ago gets this signal; by default it ends the process.
// The write comes before anything is read from the connection: the system would send SIGPIPE for it.
TEST_F(RedisFault, WritingToAClosedConnectionEndsNoProcess)
{
    write(numbered(1));
    settle();
    store_server().kill();
    const int32_t code = hmset(writer, numbered(2), REQUEST);
    EXPECT_TRUE(code == QZ_MOM_OK || code == QZ_MOM_EDOWN) << code;  // the latter: it was read after all
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    settle();
    EXPECT_EQ(code == QZ_MOM_OK ? 2u : 1u, view().size());
    expect_view_equals_store();
}

TEST_F(RedisFault, AServerThatAcceptsButNeverAnswersCountsAsLost)
{
    write(numbered(1));
    settle();
    store_server().signal(SIGSTOP);
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    EXPECT_EQ(QZ_MOM_EDOWN, hmset(writer, numbered(2), REQUEST));
    store_server().signal(SIGCONT);
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    write(numbered(2));
    settle();
    EXPECT_EQ(2u, view().size());
    expect_view_equals_store();
}

TEST_F(RedisFault, AnExpiryCallEndsOnceAcrossALoss)
{
    write(numbered(1));
    write(numbered(2));
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1, 0}, expired));
    settle();
    store_server().kill();
    store_server().start();
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    settle();
    pass_time(300);
    EXPECT_EQ(1u, expired.ends(QZ_MOM_END_EXPIRY));
    EXPECT_EQ(2u, told.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_TRUE(view().empty());
}

TEST_F(RedisFault, AnExpiryCallEndsWhenItsRecordsAreLost)
{
    write(numbered(1));
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, expired));
    settle();
    wait_for_answers();
    store_server().kill();
    store_server().forget();
    store_server().start();
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    EXPECT_EQ(1u, told.count(QZ_MOM_CMD_DEL));
}

// So many commands has the server executed, within functions, too.
int64_t executed(const std::string &command)
{
    const std::string all = store_server().commands(app_db, "INFO commandstats");
    const std::string line = "cmdstat_" + command + ":calls=";
    const size_t at = all.find(line);
    return at == std::string::npos ? 0 : std::stoll(all.substr(at + line.size()));
}

// Who comes back asks for all records again, and most of that is the writes themselves.
TEST_F(RedisFault, MarksOfManyRecordsCostTheServerFewCommands)
{
    constexpr int32_t COUNT = 1000;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    const auto of_marks = [] {
        return executed("zadd") + executed("zrem") + executed("hdel") + executed("hincrby") + executed("hget");
    };
    const int64_t before = of_marks();
    listener end;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, end));
    for (int32_t i = 1; i <= COUNT; ++i) {
        EXPECT_EQ(0, qz_mom_clear_expire(writer, app_db, session_record(numbered(i)).message(), nullptr, nullptr));
        EXPECT_EQ(0, hmset(writer, numbered(i), REQUEST));
    }
    run_until([&] { return end.ends(QZ_MOM_END_EXPIRY) == 1; });
    EXPECT_LT(of_marks() - before, COUNT / 5);
}

TEST_F(RedisFault, ClearingAMarkAndWritingTheRecordIsOneWrite)
{
    write(numbered(1));
    settle();
    EXPECT_EQ(0, qz_mom_clear_expire(writer, app_db, session_record(numbered(1)).message(), nullptr, nullptr));
    EXPECT_EQ(0, hmset(writer, numbered(1, 2), REQUEST));
    settle();
    // The log has what was sent: letter and key of each write.
    const std::string log = store_server().commands(app_db, "XRANGE mom:log - +");
    EXPECT_NE(std::string::npos, log.find("\xa1H\xbf")) << log;
    EXPECT_EQ(std::string::npos, log.find("\xa1"
                                          "c\xbf"))
        << log;
    expect_view_equals_store();
}

TEST_F(RedisFault, AStoreThatIsEmptiedBehindAnOpenConnectionIsNoticed)
{
    for (int32_t i = 1; i <= 5; ++i)
        write(numbered(i));
    settle();
    wait_for_answers();
    store_server().commands(app_db, "FLUSHALL");
    run_until([&] { return told.count(QZ_MOM_CMD_DEL) == 5; });
    write(numbered(9));
    settle();
    EXPECT_EQ(1u, view().size());
    expect_view_equals_store();
}

// The log is of a bounded length. Who was away for too long is told of all that is there now, within the bounds of his
// queue: what looks as it did may have been written anew.
TEST_F(RedisFault, AFollowerThatFallsBehindTheLogIsToldOfAllThatIsThere)
{
    constexpr int32_t COUNT = 400, REMOVED = 200;
    constexpr uint32_t HARD = 4;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    EXPECT_EQ(0, qz_mom_set_queue_limits(reader, 1, 2, HARD));
    // Nobody runs the reader's master meanwhile: its queue is full, and the log is not read on. Each call that waits
    // makes an entry of its own.
    const auto finish_call = [&] { EXPECT_EQ(0, mark_nothing()); };
    for (int32_t i = 1; i <= REMOVED + 50; ++i) {
        EXPECT_EQ(0, i <= REMOVED ? del(writer, numbered(i)) : hmset(writer, numbered(i, 2), REQUEST));
        if (i % 3 == 0)
            finish_call();
    }
    EXPECT_EQ(0, hmset(writer, numbered(COUNT), REQUEST));
    finish_call();
    store_server().commands(app_db, "XTRIM mom:log MAXLEN 0");
    uint32_t deepest = 0;
    const auto look = [&] { deepest = std::max(deepest, qz_mom_queue_depth(reader)); };
    told.also = [&](auto...) {
        look();
        std::this_thread::sleep_for(std::chrono::microseconds(500));  // others put in what they can meanwhile
    };
    run_until([&] { return view().size() == COUNT - REMOVED; });
    settle();
    EXPECT_LE(deepest, HARD);
    expect_view_equals_store();
    std::map<int32_t, int> times;
    for (const session &each : sessions(told.changes()))
        ++times[each.keyid];
    EXPECT_EQ(2, times[COUNT]);
    EXPECT_EQ(2, times[COUNT - 1]);
}

// Nobody runs the reader's master for a while: its queue stays within its limits, the writers go on, nothing is missed.
TEST_F(RedisFault, ASlowFollowerHoldsABoundedQueueAndHearsEverythingLater)
{
    std::vector<int32_t> marks;
    const auto note = [](qz_mom_handle *, int32_t above, uint32_t depth, void *args) {
        EXPECT_TRUE(above == 1 ? depth >= 20 : depth <= 10) << above << ' ' << depth;
        static_cast<std::vector<int32_t> *>(args)->push_back(above);
    };
    EXPECT_EQ(0, qz_mom_set_queue_limits(reader, 10, 20, 40));
    EXPECT_EQ(0, qz_mom_set_queue_cb(reader, note, &marks));
    told.all.clear();
    for (int32_t i = 1; i <= 500; ++i) {
        EXPECT_EQ(0, hmset(writer, numbered(i), REQUEST));
        if (i % 50 == 0) {
            EXPECT_EQ(0, mark_nothing());
        }
        EXPECT_LE(qz_mom_queue_depth(reader), 40u);
    }
    run_until([&] { return told.changes().size() == 500; });
    run_until([&] { return marks.size() >= 2 && marks.back() == 0; });
    for (size_t i = 0; i < marks.size(); ++i)
        EXPECT_EQ(i % 2 == 0 ? 1 : 0, marks[i]);
    expect_view_equals_store();
}

// Nobody runs the reader's master, and the reader goes on asking.
TEST_F(RedisFault, WhoAsksOnAndOnAndNeverListensIsRefused)
{
    EXPECT_EQ(0, qz_mom_set_queue_limits(reader, 10, 20, 40));
    listener found, ended;
    const session_record any(any_session());
    const auto ask = [&] { return qz_mom_scan(reader, app_db, any.message(), 0, listener::hear, &found); };
    size_t taken = 0;
    int32_t code = 0;
    while (taken < 1000 && (code = ask()) == 0) {
        ++taken;
        if (taken % 10 == 0) {
            EXPECT_EQ(0, mark_nothing());
        }
    }
    EXPECT_EQ(QZ_MOM_EFULL, code);
    EXPECT_LE(80u, taken);
    EXPECT_EQ(QZ_MOM_EFULL, follow(reader, any_session(), found));
    EXPECT_EQ(QZ_MOM_EFULL, qz_mom_unsubscribe(reader, app_db, any.message(), listener::hear, &found));
    const auto connected = [](qz_mom_handle *, void *) { return 0; };
    EXPECT_EQ(QZ_MOM_EFULL, qz_mom_client_connect(reader, app_db, connected, nullptr));
    EXPECT_EQ(QZ_MOM_EFULL, expire(reader, any_session(), QZ_MOM_EXPIRE_PATTERN, {1, 0}, ended));
    EXPECT_EQ(QZ_MOM_EFULL, qz_mom_del_expire(reader, app_db, any.message(), QZ_MOM_EXPIRE_PATTERN, nullptr, nullptr));
    EXPECT_EQ(0, hmset(reader, numbered(1), REQUEST)) << "it waits for the server, not for the reader";
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == taken; });
    EXPECT_EQ(0, ask());
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == taken + 1; });
    EXPECT_TRUE(ended.all.empty());
}

TEST_F(RedisFault, KeysAndBytesThatAreNotOursDisturbNobody)
{
    store_server().commands(app_db,
                            "SET u_bridge.evlan_session:app:32:1 x\nHSET u_bridge.evlan_session:app:32:2 name x\n"
                            "LPUSH u_bridge.evlan_session:app:32:3 x\nSET other x");
    write(numbered(4));
    settle();
    const auto found = scan(open(), any_session());
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(4, found[0].keyid);
}

// They are marked as little as they are read; an expiry call must neither remove them nor wait for them.
TEST_F(RedisFault, PatternsNeitherMarkNorRemoveKeysThatAreNotOurs)
{
    const std::string table = "u_bridge.evlan_session";
    const std::string letter = table + ":app:32:x", nothing = table + ":app::7", space = '"' + table + ":my app:32:7\"";
    store_server().commands(app_db, "SET " + letter + " x\nSET " + nothing + " x\nSET " + space + " x");
    write({.user = "my app", .type = 32, .keyid = -7});
    settle();
    listener later, now;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, later));
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {0, 0}, now));
    settle();
    EXPECT_EQ(1u, later.ends(QZ_MOM_END_EXPIRY));
    EXPECT_EQ(1u, now.ends(QZ_MOM_END_EXPIRY));
    EXPECT_EQ(1u, told.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_NE(std::string::npos,
              store_server().commands(app_db, "EXISTS " + letter + " " + nothing + " " + space).find(":3"));
}

// A host's name is looked up for each connection, on the side.
TEST(RedisByName, AServerIsFoundAndFoundAgainByTheNameOfItsHost)
{
    const int port = support::free_port();
    support::redis_server server("port " + std::to_string(port) + "\nbind 127.0.0.1\n");
    followed by("redis://localhost:" + std::to_string(port));
    by.write(numbered(1));
    by.settle();
    server.kill();
    by.run_until_events({QZ_MOM_RECONNECT_ERROR});
    server.start();
    by.run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    by.write(numbered(2));
    by.settle();
    by.expect_view_equals_store();
}

TEST(RedisByName, AHostThatNobodyKnowsRefusesAndBlocksNobody)
{
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("redis://nobody.invalid:6379", master, &handle));
    const qz_mom_timeval later{1000, 0};
    EXPECT_EQ(QZ_MOM_EDOWN, qz_mom_pexpire_sync(handle, app_db, session_record(numbered(1)).message(),
                                                QZ_MOM_EXPIRE_EVLAN_SESSION, &later));
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
}

}  // namespace
}  // namespace contract
