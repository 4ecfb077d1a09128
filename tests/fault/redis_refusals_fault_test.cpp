// What a user of the Redis store sees when the server refuses, when somebody else has been at its data, and when what was
// missed is more than the newest content: the news that follow from it, and that nothing is taken for done that was not.
#include <signal.h>

#include <filesystem>
#include <fstream>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

class RedisRefusals : public FaultTest
{
  protected:
    // Writes have been answered when this returns. What was done to the data may have cost the connection meanwhile.
    int32_t answered(const session &what)
    {
        listener answer;
        run_until([&] {
            return qz_mom_hmset(writer, app_db, session_record(what).message(), REQUEST.data(),
                                static_cast<uint32_t>(REQUEST.size()), listener::hear, &answer) == QZ_MOM_OK;
        });
        run_until([&] { return !answer.all.empty(); });
        return answer.all.empty() ? QZ_MOM_EDOWN : answer.all.front().error;
    }

    // Soon what the follower was told is what the server holds.
    void expect_agreement()
    {
        wait_for_answers();
        for (int tries = 0; tries < 50 && seen() != store(); ++tries)
            pass_time(100);
        expect_view_equals_store();
    }
};

TEST_F(RedisRefusals, AnEmptiedStoreIsNoticedAlsoWhenItIsWrittenAtOnce)
{
    for (int32_t i = 1; i <= 5; ++i)
        EXPECT_EQ(0, answered(numbered(i)));
    store_server().commands(app_db, "FLUSHALL");
    for (int32_t i = 101; i <= 140; ++i)
        EXPECT_EQ(0, answered(numbered(i)));
    run_until([&] { return told.count(QZ_MOM_CMD_DEL) == 5; });
    expect_agreement();
}

TEST_F(RedisRefusals, AFieldThatWentBackToItsDefaultMeanwhileIsHeardByItsFollower)
{
    listener field;
    EXPECT_EQ(0, follow_field(reader, any_session(), 8, field));
    write(numbered(1));
    settle();
    store_server().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    change_behind_the_back(
        {{"SELECT", "4"}, {"DEL", "mom:lives"}, {"HSET", "u_bridge.evlan_session:app:32:1", "8", ""}});
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    run_until([&] { return sessions(field.changes()).back().request == 0; });
    EXPECT_EQ(0, sessions(field.changes()).back().request);
}

TEST_F(RedisRefusals, AnExpiryCallThatIsRefusedEndsWithAnError)
{
    write(numbered(1));
    settle();
    store_server().commands(app_db, "CONFIG SET maxmemory 1");
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, expired));
    run_until([&] { return !expired.all.empty(); });
    store_server().commands(app_db, "CONFIG SET maxmemory 0");
    settle();
    ASSERT_EQ(1u, expired.ends(QZ_MOM_END_EXPIRY));
    EXPECT_NE(0, expired.all.front().error);
    EXPECT_EQ(1u, expired.all.size());
}

TEST_F(RedisRefusals, AScanWhileATableIsReadAnewFindsAllThatIsThere)
{
    constexpr int32_t COUNT = 5000, CHANGED = 300;
    for (int32_t i = 1; i <= COUNT; ++i)
        write(numbered(i));
    settle();
    store_server().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    std::vector<std::vector<std::string>> calls{{"SELECT", "4"}, {"DEL", "mom:lives"}};
    for (int32_t i = 1; i <= CHANGED; ++i) {
        calls.push_back({"DEL", "u_bridge.evlan_session:app:32:" + std::to_string(i)});
        calls.push_back({"HSET", "u_bridge.evlan_session:app:32:" + std::to_string(COUNT + i), "8", "@\x01"});
    }
    change_behind_the_back(calls);
    store_server().start();
    run_until_events({QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE});
    const auto found = scan(reader, any_session());
    EXPECT_EQ(static_cast<size_t>(COUNT), found.size());
    EXPECT_EQ(CHANGED + 1, found.front().keyid);
    EXPECT_EQ(COUNT + CHANGED, found.back().keyid);
}

TEST_F(RedisRefusals, ALogThatSomebodyBrokeIsBegunAnew)
{
    int32_t value = 0;
    for (const char *harm : {"SET mom:log x", "HDEL mom:state position", "SET mom:state x", "DEL mom:state",
                             "SET mom:marks x", "XADD mom:log * rows x", "DEL mom:log"}) {
        EXPECT_EQ(0, answered(numbered(1, ++value)));
        store_server().commands(app_db, harm);
        for (int32_t i = 2; i <= 10; ++i)
            write(numbered(i, ++value));
        expect_agreement();
        EXPECT_EQ(value, seen().at("app10").request_value) << harm;
    }
}

// As in the log, so in what it keeps of marks and locks.
TEST_F(RedisRefusals, WhatSomebodyWroteToAKeyOfTheStoreItselfGoes)
{
    lock_ear ear;
    auto *locker = open(url_);
    EXPECT_EQ(0, qz_mom_lock(locker, app_db, "x", lock_ear::hear, &ear));
    int32_t value = 0;
    for (const char *harm : {"SET mom:calls x", "SET mom:left x", "SET mom:marks x", "DEL mom:epoch\nLPUSH mom:epoch x",
                             "DEL mom:lock:x\nLPUSH mom:lock:x x"}) {
        listener ended;
        for (int32_t i = 1; i <= 10; ++i)
            EXPECT_EQ(0, answered(numbered(i, ++value))) << harm;
        EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, ended));
        wait_for_answers();
        store_server().commands(app_db, harm);
        EXPECT_EQ(0, del(writer, numbered(1)));
        for (int32_t i = 2; i <= 10; ++i)
            EXPECT_EQ(0, answered(numbered(i, ++value))) << harm;
        EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, ended));
        for (int32_t i = 2; i <= 10; ++i)
            EXPECT_EQ(0, answered(numbered(i, ++value))) << harm;
        expect_agreement();
        EXPECT_EQ(9u, view().size()) << harm;
    }
    run_until([&] { return !ear.all.empty() && ear.all.back() == 1; });
    close(locker);
}

TEST_F(RedisRefusals, AMarkThatTheServerRefusesIsNoSuccess)
{
    const qz_mom_timeval later{1000, 0};
    const auto mark = [&] {
        return qz_mom_pexpire_sync(writer, app_db, session_record(numbered(1)).message(), QZ_MOM_EXPIRE_EVLAN_SESSION,
                                   &later);
    };
    EXPECT_EQ(0, answered(numbered(1)));
    EXPECT_EQ(0, mark());
    store_server().commands(app_db, "CONFIG SET maxmemory 1");
    EXPECT_EQ(QZ_MOM_EDOWN, mark());
    store_server().commands(app_db, "CONFIG SET maxmemory 0");
    EXPECT_EQ(0, mark());
}

TEST_F(RedisRefusals, AnswersStayWithinTheQueue)
{
    EXPECT_EQ(0, qz_mom_set_queue_limits(writer, 1, 2, 40));
    listener answers;
    const session_record record(numbered(1));
    size_t taken = 0;
    int32_t code = 0;
    for (int tries = 0; tries < 1000 && code == 0; ++tries, taken += code == 0)
        code = qz_mom_hmset(writer, app_db, record.message(), REQUEST.data(), 2, listener::hear, &answers);
    EXPECT_EQ(QZ_MOM_EFULL, code);
    EXPECT_LE(taken, 40u);
    run_until([&] { return answers.all.size() == taken; });
    EXPECT_EQ(0, answered(numbered(2)));
}

TEST_F(RedisRefusals, ALimitBelowOneChangeStopsNobody)
{
    listener one, two;
    auto *small = open(url_);
    EXPECT_EQ(0, follow(small, any_session(), one));
    EXPECT_EQ(0, follow(small, any_session(), two));
    settle();
    EXPECT_EQ(0, qz_mom_set_queue_limits(small, 0, 1, 1));
    EXPECT_EQ(0, answered(numbered(1)));
    run_until([&] { return one.changes().size() == 1 && two.changes().size() == 1; });
}

TEST_F(RedisRefusals, ALockThatIsTakenAwayIsToldAndComesBackInTurns)
{
    lock_ear ear;
    auto *locker = open(url_);
    EXPECT_EQ(0, qz_mom_lock(locker, app_db, "x", lock_ear::hear, &ear));
    const auto removal = [&] {
        listener answer;
        const int32_t code = qz_mom_del(locker, app_db, session_record(numbered(1)).message(), listener::hear, &answer);
        if (code != 0)
            return code;
        run_until([&] { return !answer.all.empty(); });
        return answer.all.front().error;
    };
    run_until([&] { return ear.all == std::vector<int32_t>{1}; });
    EXPECT_EQ(0, removal());
    store_server().commands(app_db, "SET mom:lock:x somebody");
    EXPECT_EQ(QZ_MOM_EFENCED, removal());
    run_until([&] { return ear.all == std::vector<int32_t>{1, 0}; });
    store_server().commands(app_db, "DEL mom:lock:x");
    run_until([&] { return ear.all == std::vector<int32_t>{1, 0, 1}; });
    EXPECT_EQ(0, removal());
    store_server().kill();
    store_server().forget();
    store_server().start();
    run_until([&] { return ear.all == std::vector<int32_t>{1, 0, 1, 0, 1}; });
    close(locker);
}

// One that was lost before it could be told was never held.
TEST_F(RedisRefusals, ALockIsNotToldAsHeldAfterItIsLost)
{
    qz_thread_master *idle = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *slow = nullptr;
    listener hears;
    ASSERT_EQ(0, qz_mom_client_open(url_.c_str(), idle, &slow));
    ASSERT_EQ(0, qz_mom_subscribe(slow, app_db, session_record(any_session()).message(), 0, listener::hear, &hears));
    settle();
    EXPECT_EQ(0, qz_mom_set_queue_limits(slow, 0, 1, 3));
    for (int32_t i = 1; i <= 20; ++i) {
        write(numbered(i));
        pass_time(2);
    }
    lock_ear ear;
    auto *locker = open(url_);
    EXPECT_EQ(0, qz_mom_lock(locker, app_db, "x", lock_ear::hear, &ear));
    run_until([&] { return store_server().commands(app_db, "EXISTS mom:lock:x").find(":1") != std::string::npos; });
    store_server().commands(app_db, "SET mom:lock:x somebody");
    pass_time(600);
    EXPECT_EQ(0, qz_mom_set_queue_limits(slow, 10, 100, 300));
    run_until([&] { return view().size() == 20; });
    pass_time(300);
    EXPECT_TRUE(ear.all.empty());
    close(locker);
    qz_mom_client_close(slow);
    qz_thread_master_free(idle);
}

// The promise behind calls that are made again: each is carried out once, in its order, and answers the same again.
TEST_F(RedisRefusals, TheServerCarriesOutNumberedCallsOnceAndInTheirOrder)
{
    const auto write_one = [](int number, int oldest) {
        return call_with_writes("tester", number, oldest, {"h", "key", "6", "x"});
    };
    store_server().commands(app_db, "SET key text");
    EXPECT_EQ("f", write_one(1, 1));
    store_server().commands(app_db, "DEL key");
    EXPECT_EQ("again\nf", write_one(1, 1));  // now it could be done, but it was answered before
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS key"), ":0"));

    EXPECT_TRUE(contains(write_one(3, 2), "BUSY"));  // the second is still to come
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS key"), ":0"));
    EXPECT_FALSE(contains(write_one(2, 2), "again"));
    EXPECT_FALSE(contains(write_one(3, 2), "BUSY"));
    EXPECT_TRUE(contains(write_one(2, 2), "again"));
    EXPECT_FALSE(contains(write_one(5, 5), "BUSY"));  // the client has given the fourth up
    EXPECT_TRUE(contains(write_one(3, 3), "again"));
    EXPECT_FALSE(contains(write_one(6, 6), "again"));
}

}  // namespace
}  // namespace contract
