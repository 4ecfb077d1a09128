// Scans: each record that is there throughout comes once, then one end.
#include <algorithm>
#include <set>

#include "store_fixture.hpp"

namespace contract
{

class Scans : public StoreTest
{
};

TEST_F(Scans, EmptyTableEndsOnce)
{
    auto *handle = open();
    listener found;
    EXPECT_EQ(0, qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &found));
    EXPECT_TRUE(found.all.empty()) << "called from inside a call";
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
    ASSERT_EQ(1u, found.all.size());
    EXPECT_EQ(QZ_MOM_END_SCAN, found.all[0].end);
    EXPECT_EQ(QZ_MOM_CMD_NONE, found.all[0].cmd);
    EXPECT_EQ(app_db, found.all[0].db);
    EXPECT_EQ("u_bridge.evlan_session::0:0", found.all[0].key);
}

TEST_F(Scans, FindsBothFormsWithTheirCommands)
{
    auto *handle = open();
    hmset(handle, {.keyid = 1, .request = 1}, {8});
    qz_mom_set(handle, app_db, session_record({.keyid = 2, .request = 2}).message(), nullptr, nullptr);
    listener found;
    qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &found);
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
    auto all = found.changes();
    std::sort(all.begin(), all.end(), [](const auto &a, const auto &b) { return a.key < b.key; });
    EXPECT_EQ((std::vector<session>{{.keyid = 1, .request = 1}, {.keyid = 2, .request = 2}}), sessions(all));
    EXPECT_EQ(QZ_MOM_CMD_HMSET, all[0].cmd);
    EXPECT_EQ(QZ_MOM_CMD_SET, all[1].cmd);
    EXPECT_EQ("u_bridge.evlan_session:app:32:1", all[0].key);
}

TEST_F(Scans, PatternNarrowsTheScan)
{
    auto *handle = open();
    for (const char *user : {"a", "app", "apple", "b", "0", "app:32"}) {
        for (int32_t type : {16, 32, 320})
            hmset(handle, {.user = user, .type = type, .keyid = 1}, {6});
    }
    EXPECT_EQ(18u, scan(handle, any_session()).size());
    EXPECT_EQ(3u, scan(handle, {.user = "app", .type = 0}).size());
    EXPECT_EQ(6u, scan(handle, {.user = "", .type = 32}).size());
    EXPECT_EQ((std::vector<session>{{.user = "app", .type = 32, .keyid = 1}}),
              scan(handle, {.user = "app", .type = 32}));
    EXPECT_EQ(3u, scan(handle, {.user = "0", .type = 0}).size());
    EXPECT_EQ(1u, scan(handle, {.user = "app:32", .type = 32, .keyid = 1}).size());
    EXPECT_TRUE(scan(handle, {.user = "ap", .type = 0}).empty());
}

TEST_F(Scans, DeliversALargeTableOnceThoughTheQueueIsSmall)
{
    auto *handle = open();
    constexpr int32_t records = 3000;
    for (int32_t keyid = 1; keyid <= records; ++keyid)
        ASSERT_EQ(0, hmset(handle, {.keyid = keyid, .request_value = keyid}, {6}));
    settle();
    ASSERT_EQ(0, qz_mom_set_queue_limits(handle, 1, 10, 20));
    listener hears;
    hears.also = [](qz_mom_handle *by, const qz_mom_notification &) { EXPECT_LE(qz_mom_queue_depth(by), 20u); };
    EXPECT_EQ(0, qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &hears));
    run_until([&] { return hears.ends(QZ_MOM_END_SCAN) == 1; });
    const auto found = sessions(hears.changes());
    std::set<int32_t> keys;
    for (const auto &each : found)
        keys.insert(each.keyid);
    EXPECT_EQ(static_cast<size_t>(records), found.size());
    EXPECT_EQ(static_cast<size_t>(records), keys.size());
}

// Records come and go while the scan runs; those that stay are delivered once, whatever happens around them.
TEST_F(Scans, RecordsThatExistThroughoutComeOnceWhileOthersComeAndGo)
{
    auto *handle = open();
    auto *other = open();
    constexpr int32_t records = 1000;
    for (int32_t keyid = 1; keyid <= records; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    listener found;
    int32_t turn = 0;
    found.also = [&](qz_mom_handle *, const qz_mom_notification &) {
        ++turn;
        del(other, {.keyid = records + turn % 50});
        del(other, {.keyid = 2 * ((turn * 7) % (records / 2)) + 2});
        hmset(other, {.keyid = records + (turn + 25) % 50}, {6});
    };
    EXPECT_EQ(0, qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &found));
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
    settle();
    std::multiset<int32_t> keys;
    for (const auto &each : sessions(found.changes()))
        keys.insert(each.keyid);
    for (int32_t keyid = 1; keyid <= records; keyid += 2)
        EXPECT_EQ(1u, keys.count(keyid)) << keyid;
    EXPECT_EQ(QZ_MOM_END_SCAN, found.all.back().end);
}

// What a scan shows of a record is never older than a change of it that was heard before.
TEST_F(Scans, NeverShowsOlderContentThanWasHeardBefore)
{
    auto *handle = open();
    auto *writer = open();
    constexpr int32_t records = 500;
    for (int32_t keyid = 1; keyid <= records; ++keyid)
        hmset(writer, {.keyid = keyid}, {6});
    std::vector<int32_t> newest(records + 1, 0);
    listener hears;
    int32_t value = 0;
    hears.also = [&](qz_mom_handle *, const qz_mom_notification &) {
        const heard &last = hears.all.back();
        if (last.record == nullptr)
            return;
        const session seen = session_of(*last.record);
        EXPECT_GE(seen.request_value, newest[static_cast<size_t>(seen.keyid)]);
        newest[static_cast<size_t>(seen.keyid)] = seen.request_value;
        if (value == 2000)
            return;
        ++value;
        ASSERT_EQ(0, hmset(writer, {.keyid = value % records + 1, .request_value = value}, {6}));
    };
    follow(handle, any_session(), hears);
    qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &hears);
    run_until([&] { return hears.ends(QZ_MOM_END_SCAN) == 1 && value == 2000; });
    settle();
}

TEST_F(Scans, TwoScansBothEnd)
{
    auto *handle = open();
    for (int32_t keyid = 1; keyid <= 200; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    listener one, two;
    qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &one);
    qz_mom_scan(handle, app_db, session_record(any_session()).message(), 0, listener::hear, &two);
    run_until([&] { return one.ends(QZ_MOM_END_SCAN) == 1 && two.ends(QZ_MOM_END_SCAN) == 1; });
    EXPECT_EQ(200u, one.changes().size());
    EXPECT_EQ(200u, two.changes().size());
}

}  // namespace contract
