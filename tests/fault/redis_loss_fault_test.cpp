// What a loss leaves half done: a table that was being read, marks that the server has not kept, news that waited.
#include <filesystem>
#include <functional>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

const std::vector<int32_t> TWICE_LOST_AND_BACK{QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE, QZ_MOM_RECONNECT_ERROR,
                                               QZ_MOM_RECONNECT_DONE};

class RedisLoss : public FaultTest
{
  protected:
    static uintmax_t size_kept() { return std::filesystem::file_size(file_of_the_server()); }
    // The server is killed, and what it did since its file was so long was not in there yet.
    void lose_what_is_behind(
        uintmax_t size, const std::function<void()> &meanwhile = [] {})
    {
        events.clear();
        store_server().kill();
        run_until_events({QZ_MOM_RECONNECT_ERROR});
        std::filesystem::resize_file(file_of_the_server(), size);
        meanwhile();
        store_server().start();
        run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    }
    // What was to be made again is done when something newer is.
    std::map<std::string, session> store_after(const session &newer)
    {
        write(newer);
        settle();
        expect_view_equals_store();
        return store();
    }
};

// A server answers what it was asked in the same round as it reads it, when more than its socket took is waiting there:
// before the file is written.
TEST_F(RedisLoss, WhatTheServerHadAnsweredAndNotKeptIsWrittenAgain)
{
    write(numbered(1));
    write(numbered(2));
    settle();
    const auto kept = size_kept();
    exchange(writer, numbered(2, 7));
    EXPECT_EQ(0, del(writer, numbered(1)));
    exchange(writer, numbered(2, 8));
    exchange(writer, numbered(3));
    lose_what_is_behind(kept);
    const auto found = store_after(numbered(4));
    EXPECT_EQ(8, found.at("app2").request_value);
    EXPECT_FALSE(found.contains("app1"));
    EXPECT_TRUE(found.contains("app3"));
}

TEST_F(RedisLoss, SoAreTheLastEightCallsAndAgainWhenThatIsLostToo)
{
    wait_for_answers();
    const auto kept = size_kept();
    for (int32_t i = 1; i <= 12; ++i)
        exchange(writer, numbered(i, i));
    for (int32_t times = 0; times < 3; ++times) {
        lose_what_is_behind(kept);
        run_until([&] { return store().contains("app12"); });
        EXPECT_EQ(8u, store().size());
        EXPECT_FALSE(store().contains("app4"));
    }
    EXPECT_EQ(9u, store_after(numbered(20)).size());
}

// The server comes back and is asked to write them again, and is gone once more before it has done so.
TEST_F(RedisLoss, WhatIsBeingWrittenAgainIsNotLostWithTheNextLoss)
{
    wait_for_answers();
    const auto kept = size_kept();
    const auto hangs =
        [code = changed_function("function verbs.write()\n", "function verbs.write()\nwhile true do end\n")] {
            change_behind_the_back({{"FUNCTION", "LOAD", "REPLACE", code}});
        };
    for (int32_t i = 1; i <= 3; ++i)
        exchange(writer, numbered(i, i));
    lose_what_is_behind(kept, hangs);
    lose_what_is_behind(kept);
    EXPECT_EQ(4u, store_after(numbered(4)).size());
    lose_what_is_behind(kept, hangs);
    store_server().kill();
    store_server().forget();
    events.clear();
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    EXPECT_EQ(1u, store_after(numbered(5)).size());
}

TEST_F(RedisLoss, AnEmptiedServerIsNotFilledAgain)
{
    write(numbered(1));
    settle();
    store_server().kill();
    store_server().forget();
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    EXPECT_EQ(1u, store_after(numbered(2)).size());
}

// Somebody else may have written there since.
TEST_F(RedisLoss, WhatTheServerHasKeptIsNotWrittenAgain)
{
    exchange(writer, numbered(1));
    EXPECT_EQ("", call_with_writes("other", 1, 1, {"h", "u_bridge.evlan_session:app:32:1", "6", std::string{'0', 9}}));
    store_server().commands(app_db, "CLIENT KILL TYPE pubsub");
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    EXPECT_EQ(9, store_after(numbered(2)).at("app1").request_value);
    lose_what_is_behind(size_kept());
    EXPECT_EQ(9, store_after(numbered(3)).at("app1").request_value);
}

// As after ten minutes by its clock, which may have been set meanwhile.
TEST_F(RedisLoss, NothingIsWrittenAgainForAServerThatHasForgottenWhatWasDone)
{
    for (int32_t i = 1; i <= 12; ++i)
        exchange(writer, numbered(1, i));
    EXPECT_EQ("", call_with_writes("other", 1, 1, {"h", "u_bridge.evlan_session:app:32:1", "6", std::string{'0', 99}}));
    store_server().commands(app_db,
                            "EVAL \"for _, f in ipairs(redis.call('HKEYS', KEYS[1])) do if f:sub(1, 5) == 'done:' "
                            "then redis.call('HDEL', KEYS[1], f) end end\" 1 mom:state\n"
                            "XTRIM mom:log MAXLEN 1");
    load_function_anew();
    store_server().commands(app_db, "CLIENT KILL TYPE pubsub");
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    EXPECT_EQ(99, store_after(numbered(2)).at("app1").request_value);
}

// Else a session that is given up would come back without the mark that is to end it.
TEST_F(RedisLoss, WhatWasWrittenBeforeAMarkIsNotWrittenAgainAndWhatWasWrittenBehindItIs)
{
    write(numbered(1));
    settle();
    const auto kept = size_kept();
    exchange(writer, numbered(1, 2));
    wait_for_answers();
    exchange(writer, numbered(2));
    lose_what_is_behind(kept);
    const auto found = store_after(numbered(3));
    EXPECT_EQ(1, found.at("app1").request_value);
    EXPECT_TRUE(found.contains("app2"));
    EXPECT_EQ(2u, events.size());
}

// Whoever holds it now has not seen them.
TEST_F(RedisLoss, WritesUnderALockThatIsLostMeanwhileAreNotMadeAgain)
{
    lock_ear ear;
    auto *locker = open(url_);
    EXPECT_EQ(0, qz_mom_lock(locker, app_db, "x", lock_ear::hear, &ear));
    run_until([&] { return ear.all == std::vector<int32_t>{1}; });
    wait_for_answers();
    const auto kept = size_kept();
    exchange(locker, numbered(1));
    lose_what_is_behind(kept, [] { change_behind_the_back({{"SELECT", "4"}, {"SET", "mom:lock:x", "of another"}}); });
    EXPECT_EQ(1u, store_after(numbered(2)).size());
    store_server().commands(app_db, "DEL mom:lock:x");
    run_until([&] { return ear.all == std::vector<int32_t>{1, 0, 1}; });
    close(locker);
}

// It was answered as a failure: what was in the way is not, after the loss.
TEST_F(RedisLoss, AWriteThatWasRefusedIsNotMadeAgain)
{
    const std::string key = "u_bridge.evlan_session:app:32:1";
    wait_for_answers();
    const auto kept = size_kept();
    store_server().commands(app_db, "SET " + key + " text");
    exchange(writer, numbered(1));
    EXPECT_TRUE(contains(store_server().commands(app_db, "TYPE " + key), "+string"));
    exchange(writer, numbered(2));
    lose_what_is_behind(kept);
    const auto found = store_after(numbered(3));
    EXPECT_FALSE(found.contains("app1"));
    EXPECT_TRUE(found.contains("app2"));
}

// The place that it had come to means nothing to a server that was started anew.
TEST_F(RedisLoss, ATableThatWasBeingReadIsReadFromItsBeginning)
{
    constexpr int32_t COUNT = 8000;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    EXPECT_EQ(0, qz_mom_set_queue_limits(reader, 10, 20, 40));
    store_server().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    change_behind_the_back({{"SELECT", "4"}, {"DEL", "mom:lives"}});
    store_server().start();
    told.all.clear();
    run_until([&] { return told.changes().size() > 100; });
    store_server().kill();
    run_until([&] { return events.size() == 3; });
    store_server().start();
    run_until_events(TWICE_LOST_AND_BACK);
    EXPECT_EQ(static_cast<size_t>(COUNT), scan(writer, any_session()).size());
    run_until([&] { return view().size() == COUNT; });
    EXPECT_EQ(0u, told.count(QZ_MOM_CMD_DEL));
}

// The place that setting them had come to means nothing to a server that was started anew.
TEST_F(RedisLoss, MarksThatWereBeingSetAreSetOnEachRecordAndTheirCallEndsOnce)
{
    constexpr int32_t COUNT = 60000;
    fill_store(COUNT);
    listener marked;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, marked));
    const auto marks = [] {
        const std::string reply = store_server().commands(app_db, "ZCARD mom:marks");
        const size_t number = reply.find(':');
        return number == std::string::npos ? -1 : std::stoi(reply.substr(number + 1));
    };
    run_until([&] { return marks() > 0; });
    EXPECT_LT(marks(), COUNT) << "all marks were set before the server was killed";
    store_server().kill();
    store_server().start();
    run_until([&] { return marks() == COUNT; });
    EXPECT_EQ(0u, marked.ends(QZ_MOM_END_EXPIRY));
    listener deleted;
    run_until([&] {
        return qz_mom_del_expire(writer, app_db, session_record(any_session()).message(), QZ_MOM_EXPIRE_PATTERN,
                                 listener::hear, &deleted) == QZ_MOM_OK;
    });
    run_until([&] { return marked.ends(QZ_MOM_END_EXPIRY) == 1; });
    EXPECT_TRUE(scan(writer, any_session()).empty());
    settle();
    EXPECT_EQ(1u, marked.ends(QZ_MOM_END_EXPIRY));
}

// Whoever takes off the first marks of a call while its last ones are still to be set does not end it.
TEST_F(RedisLoss, AnExpiryCallGoesOnUntilItsLastMarkIsSet)
{
    fill_store(5000);
    const std::vector<std::string> any{"u_bridge.evlan_session:*", "0", "app", "", ""};
    std::vector<std::string> mark{"mark", "4", "one", "1", "1"}, sweep{"sweep", "4", "other", "1", "1"};
    mark.insert(mark.end(), any.begin(), any.end());
    mark.insert(mark.end(), {"1000000000", "one:1", "0", ""});
    sweep.insert(sweep.end(), any.begin(), any.end());
    const std::string first = call(mark);
    EXPECT_TRUE(first.starts_with('m')) << "all marks were set in one piece: " << first;
    call(sweep);
    EXPECT_NE(std::string::npos, store_server().commands(app_db, "ZCARD mom:marks").find(":0"));
    EXPECT_NE(std::string::npos, store_server().commands(app_db, "HEXISTS mom:left one:1").find(":1"));
}

// A mark is no entry of the log: that it is gone does not show in the log's position.
TEST_F(RedisLoss, AnExpiryCallWhoseMarksTheServerHasNotKeptEnds)
{
    write(numbered(1));
    write(numbered(2));
    settle();
    wait_for_answers();
    store_server().commands(app_db, "CONFIG SET appendonly no");
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1, 0}, expired));
    pass_time(300);
    store_server().kill();
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    EXPECT_EQ(2u, view().size());
}

// The server is back with a copy of its data in which the call has marks still to set. Its client has had the last answer.
TEST_F(RedisLoss, AnExpiryCallEndsThoughTheServerIsBackInTheMidstOfSettingItsMarks)
{
    write(numbered(1));
    write(numbered(2));
    listener ended;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, ended));
    settle();
    wait_for_answers();
    store_server().commands(app_db,
                            "EVAL \"for _, id in ipairs(redis.call('HKEYS', 'mom:left')) do redis.call('HINCRBY', "
                            "'mom:left', id, 1099511627776) end\" 0\n"
                            "CLIENT KILL TYPE normal\nCLIENT KILL TYPE pubsub");
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    settle();
    EXPECT_EQ(0u, ended.ends(QZ_MOM_END_EXPIRY));
    for (int32_t i = 1; i <= 2; ++i)
        EXPECT_EQ(0, del(writer, numbered(i)));
    run_until([&] { return ended.ends(QZ_MOM_END_EXPIRY) == 1; });
}

// Behind one loss the server has the marks, behind the next it has not: what it said first, while the changes before that
// still waited for room, counts no more.
TEST_F(RedisLoss, AnExpiryCallEndsThoughItsMarksWereThereAtTheLossBefore)
{
    write(numbered(1));
    settle();
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, expired));
    settle();
    EXPECT_EQ(0, qz_mom_set_queue_limits(reader, 1, 2, 4));
    // Nobody runs the master, until the second loss is over, too.
    const auto be_lost_and_back = [this](const std::string &also) {
        store_server().commands(app_db, also + "CLIENT KILL TYPE normal\nCLIENT KILL TYPE pubsub");
        for (int i = 1; i <= 10 && also.empty(); ++i)
            call_with_writes("other", i, i,
                             {"h", "u_bridge.evlan_session:other:32:" + std::to_string(i), "8", "@\x01"});
        int answers = 0;
        while (answers < 2) {  // the first call may have been made before the loss, the second one is behind it
            const int32_t code = mark_nothing();
            ASSERT_TRUE(code == QZ_MOM_OK || code == QZ_MOM_EDOWN) << code;
            answers += code == QZ_MOM_OK ? 1 : 0;
        }
        EXPECT_EQ(4u, qz_mom_queue_depth(reader));
    };
    be_lost_and_back("");
    be_lost_and_back("FLUSHALL\n");
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
}

// That a lock is held is told when no table is being read any more.
TEST_F(RedisLoss, ALockIsToldOfAlsoWhenTheTableThatWasBeingReadIsLetGo)
{
    close(reader);
    close(writer);
    fill_store(60'000);
    const std::string url = other_url_of_the_same(url_);
    for (int round = 0; round < 3; ++round) {
        qz_mom_handle *holder = open(url);
        qz_mom_handle *follower = open(url);
        listener follows;
        lock_ear ear;
        EXPECT_EQ(0, follow(follower, any_session(), follows));
        EXPECT_EQ(0, qz_mom_lock(holder, app_db, "service", lock_ear::hear, &ear));
        run_until([&] { return follows.count(QZ_MOM_CMD_SUBSCRIBED) == 1; });
        pass_time(5 * round);
        close(follower);
        run_until([&] { return !ear.all.empty(); });
        EXPECT_EQ(std::vector<int32_t>{1}, ear.all);
        close(holder);
    }
}

}  // namespace
}  // namespace contract
