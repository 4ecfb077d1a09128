// What a user of a group of servers sees while its master dies, is demoted or was wrongly named, and while its sentinels
// say nothing.
#include <algorithm>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

const std::vector<int32_t> LOST_AND_BACK{QZ_MOM_RECONNECT_ERROR, QZ_MOM_RECONNECT_DONE};

std::string sentinels_and(const std::vector<int> &ports)
{
    std::string places;
    for (const int port : ports)
        places += "127.0.0.1:" + std::to_string(port) + ',';
    return "redis+sentinel://" + places + "127.0.0.1:" + std::to_string(store_group().sentinel_port(0)) + "/board";
}

std::string bulk(const std::string &text) { return '$' + std::to_string(text.size()) + "\r\n" + text + "\r\n"; }

using RedisFailover = FaultTest;

TEST_F(RedisFailover, TheReplicaTakesOverFromAKilledMaster)
{
    for (int32_t i = 1; i <= 20; ++i)
        write(numbered(i));
    settle();
    store_group().master().kill();
    run_until_events({QZ_MOM_RECONNECT_ERROR});
    EXPECT_EQ(QZ_MOM_EDOWN, hmset(writer, numbered(21), REQUEST));
    run_until_events(LOST_AND_BACK);
    write(numbered(22));
    settle();
    EXPECT_TRUE(view().contains("u_bridge.evlan_session:app:32:22"));
    EXPECT_FALSE(view().contains("u_bridge.evlan_session:app:32:21"));
    EXPECT_NE(std::string::npos, store_group().replica().commands(app_db, "ROLE").find("master"));
    expect_view_equals_store();
    EXPECT_EQ(1u, told.count(QZ_MOM_CMD_SUBSCRIBED));
    EXPECT_EQ(LOST_AND_BACK, events);
}

TEST_F(RedisFailover, AReplicaThatHasAllOfTheLogIsFollowedOn)
{
    for (int32_t i = 1; i <= 20; ++i)
        write(numbered(i));
    settle();
    wait_for_answers();
    store_group().bring_in_step();
    store_group().master().kill();
    run_until_events(LOST_AND_BACK);
    write(numbered(21));
    settle();
    EXPECT_EQ(21u, told.changes().size());
    expect_view_equals_store();
}

// Replication is asynchronous: the master has acknowledged what its successor has never heard of. Who wrote it is gone.
TEST_F(RedisFailover, WhatTheNewMasterLacksIsToldAsChangedAndRemoved)
{
    for (int32_t i = 1; i <= 30; ++i)
        write(numbered(i, 1));
    qz_mom_handle *leaves = open(other_url_of_the_same(url_));
    settle();
    store_group().cut_replication();
    for (int32_t i = 1; i <= 10; ++i)
        EXPECT_EQ(0, hmset(leaves, numbered(i, 2), REQUEST));
    for (int32_t i = 11; i <= 20; ++i)
        EXPECT_EQ(0, del(leaves, numbered(i)));
    for (int32_t i = 31; i <= 40; ++i)
        EXPECT_EQ(0, hmset(leaves, numbered(i, 3), REQUEST));
    settle();
    close(leaves);
    EXPECT_EQ(30u, view().size());
    told.all.clear();
    store_group().master().kill();
    run_until_events(LOST_AND_BACK);
    run_until([&] { return told.changes().size() >= 40; });
    settle();
    EXPECT_EQ(40u, told.changes().size());
    std::map<int32_t, int32_t> back;
    std::map<int32_t, int32_t> gone;
    for (const auto &each : told.changes()) {
        const session what = session_of(*each.record);
        (each.cmd == QZ_MOM_CMD_DEL ? gone : back)[what.keyid] = what.request_value;
    }
    EXPECT_EQ(30u, back.size());
    EXPECT_EQ(10u, gone.size());
    for (int32_t i = 1; i <= 30; ++i)
        EXPECT_EQ(1, back[i]) << i;
    for (int32_t i = 31; i <= 40; ++i)
        EXPECT_EQ(3, gone[i]) << i;
}

TEST_F(RedisFailover, WhatTheNewMasterLacksOfTheNewestWritesIsWrittenAgain)
{
    write(numbered(1, 1));
    write(numbered(2, 1));
    settle();
    store_group().cut_replication();
    exchange(writer, numbered(1, 2));
    EXPECT_EQ(0, del(writer, numbered(2)));
    exchange(writer, numbered(3, 2));
    store_group().master().kill();
    run_until_events(LOST_AND_BACK);
    run_until([&] { return store().contains("app3"); });
    EXPECT_EQ(2, store().at("app1").request_value);
    EXPECT_FALSE(store().contains("app2"));
    settle();
    expect_view_equals_store();
}

TEST_F(RedisFailover, WritesGoOnOverAFailoverAndTheViewEqualsTheStore)
{
    constexpr int32_t KEYS = 100, ROUNDS = 60;
    for (int32_t round = 1; round <= ROUNDS; ++round) {
        if (round == 20)
            store_group().master().kill();
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
    EXPECT_EQ(LOST_AND_BACK, events);
}

TEST_F(RedisFailover, AMasterThatIsDemotedAliveIsLeft)
{
    write(numbered(1));
    settle();
    EXPECT_NE(std::string::npos, store_group().sentinel(0).commands(0, "SENTINEL FAILOVER board").find("+OK"));
    int32_t key = 1;
    run_until([&] {
        hmset(writer, numbered(++key % 50), REQUEST);
        return events == LOST_AND_BACK;
    });
    write(numbered(100));
    settle();
    EXPECT_NE(std::string::npos, store_group().replica().commands(app_db, "ROLE").find("master"));
    expect_view_equals_store();
}

TEST_F(RedisFailover, AnExpiryCallEndsOnceAcrossAFailover)
{
    write(numbered(1));
    write(numbered(2));
    listener expired;
    EXPECT_EQ(0, expire(writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {1, 0}, expired));
    settle();
    store_group().master().kill();
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    settle();
    pass_time(300);
    EXPECT_EQ(1u, expired.ends(QZ_MOM_END_EXPIRY));
    EXPECT_TRUE(view().empty());
    expect_view_equals_store();
}

// One that nobody is at, one that takes connections and says nothing, one that is no sentinel.
class SilentSentinels : public FaultTest
{
  protected:
    SilentSentinels() : SilentSentinels(std::make_unique<support::scripted_server>("")) {}

    std::unique_ptr<support::scripted_server> mute_;

  private:
    explicit SilentSentinels(std::unique_ptr<support::scripted_server> mute)
        : FaultTest(sentinels_and({support::free_port(), mute->port()})), mute_(std::move(mute))
    {
    }
};

TEST_F(SilentSentinels, ArePassedOverAtTheStartAndAfterALoss)
{
    write(numbered(1));
    settle();
    EXPECT_GE(mute_->taken(), 1);
    store_group().master().kill();
    run_until_events(LOST_AND_BACK);
    write(numbered(2));
    settle();
    expect_view_equals_store();
}

// A sentinel of old times: it names a server that is a replica. That one has what a store begins with, so that it would
// serve as far as reading goes.
class WrongSentinel : public FaultTest
{
  protected:
    WrongSentinel() : WrongSentinel(std::make_unique<support::scripted_server>(naming_the_replica())) {}

    std::unique_ptr<support::scripted_server> wrong_;

  private:
    static std::string naming_the_replica()
    {
        store_group().master().commands(app_db, "SET mom:epoch drawn");
        store_group().bring_in_step();
        return "*2\r\n" + bulk("127.0.0.1") + bulk(std::to_string(store_group().replica_port()));
    }

    explicit WrongSentinel(std::unique_ptr<support::scripted_server> wrong)
        : FaultTest(sentinels_and({wrong->port()})), wrong_(std::move(wrong))
    {
    }
};

TEST_F(WrongSentinel, ItsReplicaIsNotTakenForTheMaster)
{
    write(numbered(1));
    settle();
    EXPECT_NE(std::string::npos, store_group().replica().commands(app_db, "ROLE").find("slave"));
    EXPECT_GE(wrong_->taken(), 1);
    EXPECT_EQ(std::vector<int32_t>(), events);  // nor used until it refused a write
    expect_view_equals_store();
}

class FailoverBare : public StoreTest
{
};

TEST_F(FailoverBare, CallsWaitWhileNoSentinelIsThereAndAreDoneOnceOneIs)
{
    auto &sentinel = store_group().sentinel(0);
    sentinel.kill();
    qz_mom_handle *handle = nullptr;
    ASSERT_EQ(0, qz_mom_client_open(store_url().c_str(), master_, &handle));
    listener answer;
    EXPECT_EQ(0, qz_mom_hmset(handle, app_db, session_record(numbered(1)).message(), REQUEST.data(), 2, listener::hear,
                              &answer));
    pass_time(200);
    EXPECT_TRUE(answer.all.empty());
    sentinel.start();
    run_until([&] { return answer.all.size() == 1; });
    EXPECT_EQ(0, answer.all[0].error);
    qz_mom_client_close(handle);
}

TEST_F(FailoverBare, AGroupThatNoSentinelKnowsIsNeverConnected)
{
    qz_mom_handle *handle = nullptr;
    const std::string url = "redis+sentinel://127.0.0.1:" + std::to_string(store_group().sentinel_port(0)) + "/other";
    ASSERT_EQ(0, qz_mom_client_open(url.c_str(), master_, &handle));
    const qz_mom_timeval delay{1000, 0};
    EXPECT_EQ(QZ_MOM_EDOWN, qz_mom_pexpire_sync(handle, app_db, session_record(numbered(1)).message(),
                                                QZ_MOM_EXPIRE_EVLAN_SESSION, &delay));
    qz_mom_client_close(handle);
}

// Two of three agree that the master is gone, though the third sentinel has died with it.
TEST(RedisFailoverByMajority, TheGroupOutlivesItsMasterAndASentinel)
{
    support::redis_group group(3);
    followed by(group.url());
    by.write(numbered(1));
    by.settle();
    group.sentinel(0).kill();
    group.master().kill();
    by.run_until_events(LOST_AND_BACK);
    by.write(numbered(2));
    by.settle();
    by.expect_view_equals_store();
}

// A server, named by its own URL, that has been a replica while nobody was connected: same process, same epoch, and a
// log that has gone on under the same numbers with other changes.
TEST(RedisHistory, AServerThatTookOverAnothersHistoryIsComparedAnew)
{
    support::redis_group group;
    support::redis_server &first = group.master();
    support::redis_server &second = group.replica();
    group.sentinel(0).kill();  // the roles are changed by hand
    followed here(first.url());
    for (int32_t i = 1; i <= 10; ++i)
        here.write(numbered(i));
    here.settle();
    {
        followed leaves(other_url_of_the_same(first.url()));
        group.cut_replication();
        for (int32_t i = 1; i <= 3; ++i)
            leaves.write(numbered(100 + i));
        leaves.settle();
    }
    here.settle();
    ASSERT_EQ(13u, here.view().size());

    first.commands(app_db, "CONFIG SET requirepass shut");
    first.commands(app_db, "AUTH shut\nCLIENT KILL TYPE normal SKIPME yes\nCLIENT KILL TYPE pubsub");
    here.run_until_events({QZ_MOM_RECONNECT_ERROR});
    second.commands(app_db, "REPLICAOF NO ONE");
    {
        followed there(second.url());
        for (int32_t i = 1; i <= 20; ++i) {
            there.write(numbered(200 + i));
            there.settle();
        }
    }
    first.commands(app_db, "AUTH shut\nREPLICAOF 127.0.0.1 " + std::to_string(group.replica_port()));
    here.run_until([&] {
        return first.commands(app_db, "AUTH shut\nINFO replication").find("master_link_status:up") != std::string::npos;
    });
    first.commands(app_db, "AUTH shut\nREPLICAOF NO ONE\nCONFIG SET requirepass \"\"");
    here.run_until_events(LOST_AND_BACK);
    here.run_until([&] { return here.view().size() == 30; });
    here.settle();
    here.expect_view_equals_store();
}

// The server's process has lived through it with what it kept of the time before: that there are no marks.
TEST(RedisHistory, AServerThatIsMasterOnceMoreKnowsTheMarksThatWereSetMeanwhile)
{
    support::redis_group group;
    support::redis_server &first = group.master();
    support::redis_server &second = group.replica();
    group.sentinel(0).kill();  // the roles are changed by hand
    const auto is_following = [](const support::redis_server &server) {
        return contains(server.commands(app_db, "INFO replication"), "master_link_status:up");
    };
    followed here(first.url());
    here.write(numbered(1));
    here.write(numbered(2));
    here.settle();

    group.bring_in_step();
    second.commands(app_db, "REPLICAOF NO ONE");
    first.commands(app_db, "REPLICAOF 127.0.0.1 " + std::to_string(group.replica_port()));
    here.run_until([&] { return here.events.size() == 1 && is_following(first); });
    listener ended;
    {
        followed there(second.url());
        EXPECT_EQ(0, there.expire(there.writer, any_session(), QZ_MOM_EXPIRE_PATTERN, {3, 0}, ended));
        there.settle();
    }
    support::redis_group::bring_in_step(second);
    first.commands(app_db, "REPLICAOF NO ONE");
    here.run_until_events(LOST_AND_BACK);
    here.write(numbered(1, 2));
    here.run_until([&] { return here.told.count(QZ_MOM_CMD_EXPIRED) > 0; });
    here.settle();
    here.pass_time(500);
    EXPECT_EQ(1u, here.told.count(QZ_MOM_CMD_EXPIRED));
    ASSERT_EQ(1u, here.view().size());
    EXPECT_EQ(2, here.view().begin()->second.request_value);
    here.expect_view_equals_store();
}

}  // namespace
}  // namespace contract
