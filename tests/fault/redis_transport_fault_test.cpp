// How the client talks to the server: on whose thread, over which connections, with which rights, and what the server keeps
// of it.
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fault_fixture.hpp"

namespace contract
{
namespace
{

// Times that the process's other threads have gone to sleep so far.
uint64_t sleeps_of_other_threads()
{
    uint64_t sum = 0;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/self/task")) {
        if (thread.path().filename() == std::to_string(gettid()))
            continue;
        std::ifstream status(thread.path() / "status");
        for (std::string word; status >> word;) {
            uint64_t count = 0;
            if (word == "voluntary_ctxt_switches:" && status >> count)
                sum += count;
        }
    }
    return sum;
}

using RedisTransport = FaultTest;

TEST_F(RedisTransport, MessagesAreNotHandedFromThreadToThread)
{
    constexpr int32_t COUNT = 1000;
    exchange(writer, numbered(1));
    const uint64_t before = sleeps_of_other_threads();
    for (int32_t i = 1; i <= COUNT; ++i)
        exchange(writer, numbered(i % 10, i));
    EXPECT_GT(COUNT / 2u, sleeps_of_other_threads() - before);
}

TEST_F(RedisTransport, AChildProcessInheritsNoConnection)
{
    exchange(writer, numbered(1));
    int sockets = 0;
    for (const auto &each : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (!contains(std::filesystem::read_symlink(each.path(), gone).string(), "socket:"))
            continue;
        ++sockets;
        EXPECT_NE(0, fcntl(std::stoi(each.path().filename().string()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_LE(1, sockets);
}

TEST_F(RedisTransport, AHandleMayGoWithItsMasterWhileOthersStay)
{
    const std::string url = other_url_of_the_same(url_);
    qz_thread_master *first = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *leaving = nullptr;
    ASSERT_EQ(0, qz_mom_client_open(url.c_str(), first, &leaving));
    qz_mom_handle *staying = open(url);
    exchange(staying, numbered(1));
    qz_mom_client_close(leaving);
    qz_thread_master_free(first);
    exchange(staying, numbered(2));
    EXPECT_EQ(2u, scan(staying, any_session()).size());
    close(staying);
}

TEST_F(RedisTransport, AMasterOnTheDrivenClockIsReadFor)
{
    qz_thread_master *driven = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_mom_handle *handle = nullptr;
    listener hears;
    ASSERT_EQ(0, qz_mom_client_open(other_url_of_the_same(url_).c_str(), driven, &handle));
    ASSERT_EQ(0, qz_mom_subscribe(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &hears));
    run_until([&] {
        qz_thread_run_pending(driven, 0);
        return hears.count(QZ_MOM_CMD_SUBSCRIBED) == 1;
    });
    exchange(writer, numbered(1));
    run_until([&] {
        qz_thread_run_pending(driven, 0);
        return hears.changes().size() == 1;
    });
    qz_mom_client_close(handle);
    qz_thread_master_free(driven);
}

TEST_F(RedisTransport, AFollowerThatDoesNotReadHearsAllOfItInTheEnd)
{
    constexpr int32_t COUNT = 300;  // more calls than wait in the client, each an entry of the log
    qz_thread_master *idle = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *slow = nullptr;
    listener hears;
    ASSERT_EQ(0, qz_mom_client_open(other_url_of_the_same(url_).c_str(), idle, &slow));
    ASSERT_EQ(0, qz_mom_subscribe(slow, app_db, session_record(any_session()).message(), 0, listener::hear, &hears));
    run_until([&] {
        qz_thread_run_pending(idle, 0);
        return hears.count(QZ_MOM_CMD_SUBSCRIBED) == 1;
    });
    EXPECT_EQ(0, qz_mom_set_queue_limits(slow, 0, 1, 3));
    for (int32_t i = 1; i <= COUNT; ++i)
        exchange(writer, numbered(1, i));
    EXPECT_EQ(0, qz_mom_set_queue_limits(slow, 10, 100, 300));
    run_until([&] {
        qz_thread_run_pending(idle, 0);
        return hears.changes().size() == COUNT;
    });
    int32_t value = 0;
    for (const session &each : sessions(hears.changes()))
        EXPECT_EQ(++value, each.request_value);
    qz_mom_client_close(slow);
    qz_thread_master_free(idle);
}

// Whether so many clients hear the log of the database.
bool listeners(const char *count)
{
    return contains(store_server().commands(app_db, "PUBSUB NUMSUB mom:log:4"), count);
}

TEST_F(RedisTransport, WhoFollowsNothingAnyMoreIsNotPushedTo)
{
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    qz_mom_handle *handle = nullptr;
    listener hears;
    const session_record any(any_session());
    const auto run_own_until = [&](const std::function<bool()> &done) {
        run_until([&] {
            qz_thread_run_pending(master, 0);
            return done();
        });
    };
    ASSERT_EQ(0, qz_mom_client_open(other_url_of_the_same(url_).c_str(), master, &handle));
    for (size_t round = 1; round <= 2; ++round) {
        ASSERT_EQ(0, qz_mom_subscribe(handle, app_db, any.message(), 0, listener::hear, &hears));
        run_own_until([&] { return hears.count(QZ_MOM_CMD_SUBSCRIBED) == round && listeners(":2"); });
        exchange(writer, numbered(1));
        run_own_until([&] { return hears.changes().size() == round; });
        ASSERT_EQ(0, qz_mom_unsubscribe(handle, app_db, any.message(), listener::hear, &hears));
        run_own_until([&] { return listeners(":1"); });
        exchange(writer, numbered(1));
    }
    qz_mom_client_close(handle);
    qz_thread_master_free(master);
}

// Another handle of the same store stays open, and nobody lets go of anything later.
TEST_F(RedisTransport, NothingIsPushedForAHandleThatWasClosedInTheMiddle)
{
    fill_store(10'000);
    settle();
    const std::string url = other_url_of_the_same(url_);
    qz_thread_master *master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    const auto run_own_until = [&](const std::function<bool()> &done) {
        run_until([&] {
            qz_thread_run_pending(master, 0);
            return done();
        });
    };
    qz_mom_handle *leaving = nullptr, *staying = nullptr;
    ASSERT_EQ(0, qz_mom_client_open(url.c_str(), master, &staying));

    listener found;
    const session_record any(any_session());
    found.also = [&](qz_mom_handle *by, const qz_mom_notification &) {
        if (found.all.size() == 200)
            qz_mom_client_close(by);
    };
    ASSERT_EQ(0, qz_mom_client_open(url.c_str(), master, &leaving));
    ASSERT_EQ(0, qz_mom_scan(leaving, app_db, any.message(), 0, listener::hear, &found));
    run_own_until([&] { return found.all.size() >= 200; });
    run_own_until([] { return listeners(":1"); });

    listener ended;
    ASSERT_EQ(0, qz_mom_client_open(url.c_str(), master, &leaving));
    EXPECT_EQ(0, expire(leaving, any_session(), QZ_MOM_EXPIRE_PATTERN, {1000, 0}, ended));
    run_own_until([] { return listeners(":2"); });
    qz_mom_client_close(leaving);
    run_own_until([] { return listeners(":1"); });
    EXPECT_EQ(200u, found.all.size());
    EXPECT_TRUE(ended.all.empty());
    qz_mom_client_close(staying);
    qz_thread_master_free(master);
}

// ---- rights ---------------------------------------------------------------------------------------------------------

std::string as_user(std::string url)
{
    constexpr std::string_view scheme = "redis+unix://";
    return url.insert(scheme.size(), "app:secret@");
}

TEST_F(RedisTransport, AUserNeedsKeysCommandsAndTheChannelOfTheLog)
{
    store_server().commands(app_db, "ACL SETUSER app on >secret ~* &mom:* +@all");
    followed by(as_user(url_));
    by.write(numbered(1));
    by.settle();
    by.expect_view_equals_store();
}

TEST_F(RedisTransport, AUserWithoutTheChannelIsRefusedBeforeAnythingIsWritten)
{
    store_server().commands(app_db, "ACL SETUSER app on >secret ~* resetchannels +@all");
    qz_mom_handle *handle = open(as_user(url_));
    EXPECT_EQ(0, hmset(handle, numbered(7), REQUEST));
    const qz_mom_timeval later{1000, 0};
    EXPECT_EQ(QZ_MOM_EDOWN, qz_mom_pexpire_sync(handle, app_db, session_record(numbered(7)).message(),
                                                QZ_MOM_EXPIRE_EVLAN_SESSION, &later));
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS u_bridge.evlan_session:app:32:7"), ":0"));
    close(handle);
}

// Else whoever has no password would have all rights of the user whom nobody names.
TEST_F(RedisTransport, AUserWithoutAPasswordHasHisOwnRights)
{
    store_server().commands(app_db, "ACL SETUSER app on nopass ~elsewhere +@all");
    std::string url = as_user(url_);
    url.erase(url.find("secret"), 6);
    qz_mom_handle *handle = open(url);
    EXPECT_EQ(0, hmset(handle, numbered(7), REQUEST));
    const qz_mom_timeval later{1000, 0};
    EXPECT_EQ(QZ_MOM_EDOWN, qz_mom_pexpire_sync(handle, app_db, session_record(numbered(7)).message(),
                                                QZ_MOM_EXPIRE_EVLAN_SESSION, &later));
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS u_bridge.evlan_session:app:32:7"), ":0"));
    close(handle);
}

// ---- what the server keeps ------------------------------------------------------------------------------------------

TEST_F(RedisTransport, MarksAreMetAlsoWhenItIsForgottenThatThereAreAny)
{
    listener expired;
    exchange(writer, numbered(1));
    EXPECT_EQ(0, expire(writer, numbered(1), QZ_MOM_EXPIRE_EVLAN_SESSION, {1, 0}, expired));
    wait_for_answers();
    load_function_anew();
    exchange(writer, numbered(1, 5));
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    pass_time(1500);
    EXPECT_EQ(1u, view().size());
    expect_view_equals_store();
}

TEST_F(RedisTransport, AFenceIsALockByItsNameAndItsToken)
{
    store_server().commands(app_db, "SET mom:lock:x T\nSET mom:lock:y U");
    EXPECT_EQ("kl", call_with_writes("tester", 1, 1, {"f", "x", "T", "s", "one", "v", "f", "y", "T", "s", "two", "v"}));
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS one"), ":1"));
    EXPECT_TRUE(contains(store_server().commands(app_db, "EXISTS two"), ":0"));
}

// Of one handle they are one write: who clears a mark and writes the record is likely to be the same.
TEST_F(RedisTransport, AMarkIsClearedAlsoWhenTheNextWriteIsThatOfAnotherHandleWhoseLockIsLost)
{
    lock_ear ear;
    listener expired;
    const session_record record(numbered(1));
    auto *locker = open(url_);
    EXPECT_EQ(0, qz_mom_lock(locker, app_db, "x", lock_ear::hear, &ear));
    run_until([&] { return ear.all == std::vector<int32_t>{1}; });
    exchange(writer, numbered(1));
    EXPECT_EQ(0, expire(writer, numbered(1), QZ_MOM_EXPIRE_EVLAN_SESSION, {1000, 0}, expired));
    wait_for_answers();
    store_server().commands(app_db, "SET mom:lock:x \"of another\"");
    EXPECT_EQ(0, qz_mom_clear_expire(writer, app_db, record.message(), nullptr, nullptr));
    EXPECT_EQ(0, hmset(locker, numbered(1, 7), REQUEST));
    run_until([&] { return expired.ends(QZ_MOM_END_EXPIRY) == 1; });
    settle();
    EXPECT_EQ(1, store().at("app1").request_value);
    close(locker);
}

TEST_F(RedisTransport, ClientsThatAreLongGoneAreForgotten)
{
    const auto has = [](const std::string &client) {
        return contains(store_server().commands(app_db, "HEXISTS mom:state done:" + client), ":1");
    };
    // It changes nothing, so that no entry of the log says who has called.
    EXPECT_FALSE(contains(call_with_writes("young", 1, 1, {"u", "missing", "6", "x"}), "ERR"));
    store_server().commands(app_db, "HSET mom:state done:old \"5 1\"");
    EXPECT_TRUE(has("young"));
    EXPECT_TRUE(has("old"));
    qz_mom_handle *stranger = open(other_url_of_the_same(url_));
    exchange(stranger, numbered(1));
    EXPECT_TRUE(has("young"));
    EXPECT_FALSE(has("old"));
    close(stranger);
}

}  // namespace
}  // namespace contract
