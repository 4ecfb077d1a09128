// What only the embedded store has: a clock that tests drive, seeded interleaving, lost connections, foreign data.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "drawn_calls.hpp"
#include "qz_mom_embedded.h"
#include "store_fixture.hpp"

namespace contract
{
namespace
{

constexpr const char *name = "contract";

// Runs a master until all that is due is done.
void run(qz_thread_master *master)
{
    while (qz_thread_run_pending(master, 0) > 0) {
    }
}

struct lost_and_found {
    std::vector<std::pair<uint32_t, int32_t>> events;
    static int32_t hear(qz_mom_handle *, uint32_t db, int32_t type, void *args)
    {
        static_cast<lost_and_found *>(args)->events.emplace_back(db, type);
        return 77;
    }
};

}  // namespace

class EmbeddedStore : public StoreTest
{
  protected:
    EmbeddedStore() { EXPECT_EQ("mem:contract", store_url()) << "these tests are of the embedded store alone"; }
};

TEST_F(EmbeddedStore, ThirtyMinutesOfAgingTakeNoTimeAndEndToTheMicrosecond)
{
    auto *handle = open();
    listener hears;
    follow(handle, any_session(), hears);
    for (int32_t keyid = 1; keyid <= 100; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    EXPECT_EQ(0, expire(handle, {.user = "app", .type = 0}, QZ_MOM_EXPIRE_PATTERN, {1800, 0}, hears));
    hmset(handle, {.keyid = 50}, {6});
    qz_thread_advance(master_, 1800 * INT64_C(1000000) - 1);
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_EXPIRED));
    qz_thread_advance(master_, 1);
    EXPECT_EQ(99u, hears.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_EQ(1u, hears.ends(QZ_MOM_END_EXPIRY));
    EXPECT_EQ(1, qz_mom_embedded_count(name, app_db)) << "the renewed session";
}

TEST_F(EmbeddedStore, MarksFireInTheOrderOfTheirTimes)
{
    auto *handle = open();
    listener hears, ends;
    follow(handle, any_session(), hears);
    const int32_t seconds[] = {5, 3, 9, 3, 1, 40};
    for (int32_t keyid = 0; keyid < 6; ++keyid) {
        hmset(handle, {.keyid = keyid}, {6});
        expire(handle, {.keyid = keyid}, QZ_MOM_EXPIRE_EVLAN_SESSION, {seconds[keyid], 0}, ends);
    }
    qz_thread_advance(master_, INT64_C(9000000));
    std::vector<int32_t> order;
    for (const auto &each : sessions(hears.changes()))
        order.push_back(each.keyid);
    order.erase(order.begin(), order.begin() + 6);
    EXPECT_EQ((std::vector<int32_t>{4, 1, 3, 0, 2}), order);
}

TEST_F(EmbeddedStore, OneTimerServesAllMarks)
{
    auto *handle = open();
    settle();
    for (int32_t keyid = 0; keyid < 1000; ++keyid) {
        const qz_mom_timeval delay{40, 0};
        hmset(handle, {.keyid = keyid}, {6});
        ASSERT_EQ(0, qz_mom_pexpire_sync(handle, app_db, session_record({.keyid = keyid}).message(),
                                         QZ_MOM_EXPIRE_EVLAN_SESSION, &delay));
    }
    EXPECT_EQ(40000000, qz_thread_next_due(master_));
    settle();
    EXPECT_LE(qz_thread_advance(master_, 40000000), 10);
    EXPECT_EQ(1, qz_mom_embedded_count(name, app_db)) << "the fence of the tests";
}

TEST_F(EmbeddedStore, MarksGoOnByTheNextHandlesClockWhenTheOldestCloses)
{
    auto *other_master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_thread_advance(other_master, 5000000);
    auto *oldest = open();
    qz_mom_handle *next = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:contract", other_master, &next));
    listener hears;
    follow(next, any_session(), hears);
    hmset(oldest, {}, {6});
    const qz_mom_timeval delay{10, 0};
    ASSERT_EQ(0, qz_mom_pexpire_sync(oldest, app_db, session_record({}).message(), QZ_MOM_EXPIRE_PATTERN, &delay));
    qz_thread_advance(other_master, 60000000);
    qz_thread_advance(master_, 4000000);
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_EXPIRED));
    close(oldest);
    qz_thread_advance(master_, 60000000);
    qz_thread_advance(other_master, 6000000 - 1);
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_EXPIRED));
    qz_thread_advance(other_master, 1);
    EXPECT_EQ(1u, hears.count(QZ_MOM_CMD_EXPIRED));
    qz_mom_client_close(next);
    qz_thread_master_free(other_master);
}

TEST_F(EmbeddedStore, DueMarkWaitsForRoomInTheQueuesOfItsFollowers)
{
    auto *other_master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    auto *handle = open();
    qz_mom_handle *slow = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:contract", other_master, &slow));
    listener hears;
    follow(slow, any_session(), hears);
    run(other_master);
    ASSERT_EQ(0, qz_mom_set_queue_limits(slow, 0, 1, 2));
    hmset(handle, {.keyid = 1}, {6});
    hmset(handle, {.keyid = 2}, {6});
    listener end;
    EXPECT_EQ(0, expire(handle, any_session(), QZ_MOM_EXPIRE_PATTERN, {1, 0}, end));
    qz_thread_advance(master_, 2000000);
    EXPECT_EQ(2u, qz_mom_queue_depth(slow));
    EXPECT_EQ(0u, end.ends(QZ_MOM_END_EXPIRY));
    run(other_master);
    qz_thread_advance(master_, 1000000);
    run(other_master);
    EXPECT_EQ(2u, hears.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_EQ(1u, end.ends(QZ_MOM_END_EXPIRY));
    qz_mom_client_close(slow);
    qz_thread_master_free(other_master);
}

// Three handles follow ten writes each; the order in which their callbacks run is what the seed decides.
class Interleaving : public EmbeddedStore
{
  protected:
    // For each call the number of the handle and the value that it heard.
    std::vector<std::pair<int, int32_t>> order_with(uint64_t seed)
    {
        std::vector<std::pair<int, int32_t>> order;
        std::vector<listener> hear(3);
        std::vector<qz_mom_handle *> handles;
        for (int i = 0; i < 3; ++i) {
            handles.push_back(open());
            follow(handles.back(), any_session(), hear[static_cast<size_t>(i)]);
        }
        settle();
        for (int i = 0; i < 3; ++i) {
            hear[static_cast<size_t>(i)].also = [i, &order](qz_mom_handle *, const qz_mom_notification &msg) {
                const auto *holder = static_cast<const qz_mom_hash_value *>(msg.value);
                order.emplace_back(i, session_of(*holder->record).request_value);
            };
        }
        EXPECT_EQ(0, qz_mom_embedded_seed(name, seed));
        for (int32_t value = 1; value <= 10; ++value)
            hmset(handles[0], {.request_value = value}, {6});
        settle();
        for (auto *handle : handles)
            close(handle);
        return order;
    }
};

TEST_F(Interleaving, SameSeedGivesTheSameOrder)
{
    for (uint64_t seed = 1; seed <= 20; ++seed)
        EXPECT_EQ(order_with(seed), order_with(seed));
}

TEST_F(Interleaving, SeedsDifferAndZeroIsTheOrderOfArrival)
{
    const auto arrival = order_with(0);
    ASSERT_EQ(30u, arrival.size());
    for (size_t i = 0; i < arrival.size(); ++i)
        EXPECT_EQ((std::pair<int, int32_t>(static_cast<int>(i % 3), static_cast<int32_t>(i / 3) + 1)), arrival[i]);
    EXPECT_NE(arrival, order_with(1));
    EXPECT_NE(order_with(1), order_with(2));
}

TEST_F(Interleaving, EachHandleKeepsItsOwnOrder)
{
    for (uint64_t seed = 1; seed <= 20; ++seed) {
        std::vector<int32_t> last(3, 0);
        for (const auto &[handle, value] : order_with(seed))
            EXPECT_EQ(++last[static_cast<size_t>(handle)], value);
        EXPECT_EQ(std::vector<int32_t>(3, 10), last);
    }
}

TEST_F(EmbeddedStore, LostConnectionHoldsBackWhatWaitsAndRefusesCalls)
{
    auto *handle = open();
    listener hears;
    lost_and_found connection;
    hears.also = [&](qz_mom_handle *, const qz_mom_notification &) { connection.events.emplace_back(0, 0); };
    EXPECT_EQ(0, qz_mom_client_set_reconnect_cb(handle, 8, lost_and_found::hear, &connection));
    EXPECT_EQ(0, qz_mom_client_set_reconnect_cb(
                     handle, 4, [](qz_mom_handle *, uint32_t, int32_t, void *) { return 0; }, nullptr));
    EXPECT_EQ(0, qz_mom_client_set_reconnect_cb(handle, 4, lost_and_found::hear, &connection));
    follow(handle, any_session(), hears);
    hmset(handle, {.request = 1}, {8});
    EXPECT_EQ(0, qz_mom_embedded_lose(name));
    EXPECT_EQ(0, qz_mom_embedded_lose(name));
    run(master_);
    EXPECT_EQ((std::vector<std::pair<uint32_t, int32_t>>{{4, 1}, {8, 1}}), connection.events);
    EXPECT_EQ(QZ_MOM_EDOWN, hmset(handle, {.request = 2}, {8}));
    EXPECT_EQ(QZ_MOM_EDOWN, hmupdate(handle, {.request = 2}, {8}));
    EXPECT_EQ(QZ_MOM_EDOWN, del(handle, {}));
    EXPECT_EQ(QZ_MOM_EDOWN, set(handle, evlan_record("app", 1)));
    EXPECT_EQ(QZ_MOM_EDOWN, follow(handle, any_session(), hears));
    EXPECT_EQ(QZ_MOM_EDOWN, expire(handle, {}, QZ_MOM_EXPIRE_PATTERN, {1, 0}, hears));
    EXPECT_TRUE(hears.all.empty());
    EXPECT_EQ(0, qz_mom_embedded_restore(name));
    EXPECT_EQ(0, qz_mom_embedded_restore(name));
    run(master_);
    EXPECT_EQ((std::vector<std::pair<uint32_t, int32_t>>{{4, 1}, {8, 1}, {4, 2}, {8, 2}, {0, 0}, {0, 0}}),
              connection.events);
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_HSET}), hears.commands());
}

TEST_F(EmbeddedStore, ADatabaseThatIsAskedForDuringALossIsConnectedBehindIt)
{
    auto *handle = open();
    int calls = 0;
    const auto count = [](qz_mom_handle *, void *of) { return ++*static_cast<int *>(of); };
    EXPECT_EQ(0, qz_mom_embedded_lose(name));
    EXPECT_EQ(0, qz_mom_client_connect(handle, app_db, count, &calls));
    run(master_);
    EXPECT_EQ(0, calls);
    EXPECT_EQ(0, qz_mom_embedded_restore(name));
    run(master_);
    EXPECT_EQ(1, calls);
}

TEST_F(EmbeddedStore, ANoticeThatGoesAheadIsTakenOverDuringALossAndHeardBehindIt)
{
    auto *handle = open();
    listener hears;
    follow_evlans(handle, hears);
    run(master_);
    EXPECT_EQ(0, qz_mom_embedded_lose(name));
    EXPECT_EQ(0, qz_mom_set_ahead(handle, app_db, evlan_record("app", 1).message()));
    run(master_);
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_SET));
    EXPECT_EQ(0, qz_mom_embedded_restore(name));
    run(master_);
    EXPECT_EQ(1u, hears.count(QZ_MOM_CMD_SET));
}

TEST_F(EmbeddedStore, MarksRunOnWhileTheConnectionIsLost)
{
    auto *handle = open();
    listener hears, end;
    follow(handle, any_session(), hears);
    hmset(handle, {}, {6});
    expire(handle, {}, QZ_MOM_EXPIRE_PATTERN, {10, 0}, end);
    EXPECT_EQ(0, qz_mom_embedded_lose(name));
    qz_thread_advance(master_, 20000000);
    EXPECT_EQ(0, qz_mom_embedded_count(name, app_db));
    EXPECT_TRUE(hears.all.empty());
    EXPECT_EQ(0, qz_mom_embedded_restore(name));
    run(master_);
    EXPECT_EQ(1u, hears.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_EQ(1u, end.ends(QZ_MOM_END_EXPIRY));
}

// A timer of the clock that goes would be taken for one that fires soon enough.
TEST_F(EmbeddedStore, MarksGoOnByTheNextHandlesClockAlsoWhereThatIsBehind)
{
    auto *first_master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_thread_advance(first_master, 7000000);
    qz_mom_handle *first = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:clocks", first_master, &first));
    qz_mom_handle *second = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:clocks", master_, &second));
    listener hears, end;
    follow(second, any_session(), hears);
    hmset(first, {}, {6});
    expire(first, {}, QZ_MOM_EXPIRE_PATTERN, {10, 0}, end);
    qz_thread_advance(first_master, 4000000);
    qz_mom_client_close(first);
    qz_thread_master_free(first_master);
    qz_thread_advance(master_, 5900000);
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_EXPIRED));
    qz_thread_advance(master_, 200000);
    EXPECT_EQ(1u, hears.count(QZ_MOM_CMD_EXPIRED));
    qz_mom_client_close(second);
}

class ForeignData : public EmbeddedStore
{
  protected:
    ForeignData() : folder_(std::filesystem::temp_directory_path() / ("qz_mom_test." + std::to_string(getpid())))
    {
        std::filesystem::create_directory(folder_);
        setenv("QZ_ZLOG_DIR", folder_.c_str(), 1);
    }
    ~ForeignData() override { std::filesystem::remove_all(folder_); }

    // The lines logged so far that name the key.
    size_t logged(const std::string &key) const
    {
        std::ifstream log(folder_ / "qz_mom.log");
        size_t found = 0;
        for (std::string line; std::getline(log, line);)
            found += line.find(key) != std::string::npos ? 1u : 0u;
        return found;
    }
    static void put(const char *key, const std::string &bytes, bool as_hash)
    {
        EXPECT_EQ(0, qz_mom_embedded_put_raw(name, app_db, key, bytes.data(), bytes.size(), as_hash ? 1 : 0));
    }

    const std::filesystem::path folder_;
};

TEST_F(ForeignData, IsOneLoggedLineWhateverItsKeyHolds)
{
    auto *handle = open();
    put("u_bridge.evlan_session:app:32:7\n2026-03-01 ERROR\x1b[2J\x7f", "", true);
    const std::string tail(5000, 'x');
    put(("u_bridge.evlan_session:long:" + tail).c_str(), "", true);
    EXPECT_TRUE(scan(handle, any_session()).empty());
    EXPECT_EQ(
        1u, logged("skipped, not a record of ours: u_bridge.evlan_session:app:32:7\\x0a2026-03-01 ERROR\\x1b[2J\\x7f"));
    EXPECT_EQ(1u, logged("evlan_session:long:" + tail));
}

TEST_F(ForeignData, ScanSkipsItWithOneLoggedLineEach)
{
    auto *handle = open();
    hmset(handle, {.keyid = 1, .request = 1}, {8});
    const std::string garbage(8, '\xff');
    const char *const bad_keys[] = {"u_bridge.evlan_session:app:32", "u_bridge.evlan_session:app:32:x",
                                    "u_bridge.evlan_session:app:32:7:9", "u_bridge.evlan_session:%zz:32:8"};
    for (const char *key : bad_keys)
        put(key, "", true);
    put("u_bridge.evlan_session:app:32:900", garbage, true);
    put("u_bridge.evlan_session:app:32:901", garbage, false);
    put("nothing of ours", garbage, false);
    EXPECT_EQ((std::vector<session>{{.keyid = 1, .request = 1}}), scan(handle, any_session()));
    for (const char *key : bad_keys)
        EXPECT_EQ(key == bad_keys[0] ? 5u : 1u, logged(key)) << key;  // the first is the beginning of all but one other
    EXPECT_EQ(1u, logged("32:900"));
    EXPECT_EQ(1u, logged("32:901"));
    EXPECT_EQ(0u, logged("nothing of ours"));
}

TEST_F(ForeignData, ReadableBytesUnderAGoodKeyAreARecord)
{
    auto *handle = open();
    put("u_bridge.evlan_session:app:32:7", {'\x30', '\x05'}, true);
    EXPECT_EQ((std::vector<session>{{.keyid = 7, .request_value = 5}}), scan(handle, any_session()));
    hmset(handle, {.keyid = 7, .request = 1}, {8});
    EXPECT_EQ((std::vector<session>{{.keyid = 7, .request_value = 5, .request = 1}}), scan(handle, any_session()));
}

TEST_F(ForeignData, KeyComesFromTheKeyTextWhateverTheBytesSay)
{
    auto *handle = open();
    const session_record other({.user = "other", .keyid = 1, .request = 1});
    std::string bytes(protobuf_c_message_get_packed_size(other.message()), '\0');
    protobuf_c_message_pack(other.message(), reinterpret_cast<uint8_t *>(bytes.data()));
    put("u_bridge.evlan_session:app:32:7", bytes, false);
    EXPECT_EQ((std::vector<session>{{.keyid = 7, .request = 1}}), scan(handle, any_session()));
}

TEST_F(ForeignData, PatternsNeitherMarkNorRemoveIt)
{
    auto *handle = open();
    put("u_bridge.evlan_session:app:32:x", "", true);
    listener end;
    EXPECT_EQ(0, expire(handle, any_session(), QZ_MOM_EXPIRE_PATTERN, {0, 0}, end));
    settle();
    EXPECT_EQ(1u, end.ends(QZ_MOM_END_EXPIRY));
    EXPECT_EQ(2, qz_mom_embedded_count(name, app_db)) << "it, and the fence of the tests";
}

TEST_F(EmbeddedStore, NamesAreStoresOfTheirOwnThatLiveAsLongAsAHandle)
{
    auto *here = open();
    qz_mom_handle *there = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:elsewhere", master_, &there));
    EXPECT_EQ(0, hmset(here, {}, {6}));
    EXPECT_EQ(1, qz_mom_embedded_count(name, app_db));
    EXPECT_EQ(0, qz_mom_embedded_count("elsewhere", app_db));
    qz_mom_client_close(there);
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_count("elsewhere", app_db));
    close(here);
    open();
    EXPECT_EQ(0, qz_mom_embedded_count(name, app_db));
}

TEST_F(EmbeddedStore, HasSixteenDatabases)
{
    auto *handle = open();
    const session_record record({});
    for (uint32_t db = 0; db < QZ_MOM_EMBEDDED_DATABASES; ++db)
        EXPECT_EQ(0, qz_mom_set(handle, db, record.message(), nullptr, nullptr));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_set(handle, QZ_MOM_EMBEDDED_DATABASES, record.message(), nullptr, nullptr));
    EXPECT_EQ(1, qz_mom_embedded_count(name, 15));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_embedded_count(name, 16));
}

TEST_F(EmbeddedStore, ControlsRefuseWhatMakesNoSense)
{
    for (const char *unknown : {"nobody", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_seed(unknown, 1));
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_lose(unknown));
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_restore(unknown));
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_count(unknown, 0));
        EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_put_raw(unknown, 0, "k", "v", 1, 0));
    }
    open();
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_put_raw(name, 0, nullptr, "v", 1, 0));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_put_raw(name, 0, "k", nullptr, 1, 0));
    EXPECT_EQ(QZ_MOM_EDB, qz_mom_embedded_put_raw(name, 16, "k", "v", 1, 0));
}

TEST_F(EmbeddedStore, ClosingWithCallsAndMarksPendingLeavesNothingBehind)
{
    auto *own_master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    qz_mom_handle *handle = nullptr;
    ASSERT_EQ(0, qz_mom_client_open("mem:short", own_master, &handle));
    listener hears;
    follow(handle, any_session(), hears);
    hmset(handle, {}, {6});
    expire(handle, {}, QZ_MOM_EXPIRE_PATTERN, {10, 0}, hears);
    qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &hears);
    qz_mom_client_close(handle);
    qz_thread_advance(own_master, 20000000);
    EXPECT_TRUE(hears.all.empty());
    ASSERT_EQ(0, qz_mom_client_open("mem:short", own_master, &handle));
    hmset(handle, {}, {6});
    expire(handle, {}, QZ_MOM_EXPIRE_PATTERN, {10, 0}, hears);
    qz_mom_client_close(handle);
    qz_thread_master_free(own_master);
    EXPECT_TRUE(hears.all.empty());
}

TEST_F(DrawnCalls, EndAsThePromisesSayInAnyInterleaving)
{
    open();  // as long as one is, the store goes on
    before_each_ = [](uint32_t seed) { EXPECT_EQ(0, qz_mom_embedded_seed(name, seed)); };
    run_sequences(30);
}

TEST_F(DrawnCalls, LoseNothingWithTheConnection)
{
    lose_ = [](uint32_t) { EXPECT_EQ(0, qz_mom_embedded_lose(name)); };
    bring_back_ = [] { EXPECT_EQ(0, qz_mom_embedded_restore(name)); };
    run_sequences(20);
}

}  // namespace contract
