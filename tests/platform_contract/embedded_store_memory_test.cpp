// The embedded store without memory: a call either happens or returns a code and leaves everything as it was, and
// nothing that was accepted is lost on its way to those who follow it.
#include "failing_new.hpp"
#include "qz_mom_embedded.h"
#include "store_fixture.hpp"

namespace contract
{

class WithoutMemory : public StoreTest
{
  protected:
    // Makes the call with ever more memory until it succeeds. Before that each attempt has to leave things as they are.
    void until_it_succeeds(const std::function<int32_t()> &call)
    {
        const auto before = scan(handle, any_session());
        const size_t heard_before = hears.all.size();
        for (int64_t allowed = 0; allowed < 1000; ++allowed) {
            allocations_left = allowed;
            const int32_t code = call();
            allocations_left = -1;
            if (code == 0) {
                EXPECT_GT(allowed, 0) << "nothing has been tried";
                return settle();
            }
            ASSERT_EQ(QZ_MOM_ENOMEM, code);
            settle();
            ASSERT_EQ(before, scan(handle, any_session())) << allowed;
            ASSERT_EQ(heard_before, hears.all.size()) << allowed;
        }
        FAIL() << "never succeeds";
    }

    const std::string long_name = "a user whose name is too long to be kept without memory";
    listener hears;
    qz_mom_handle *handle = open();
};

TEST_F(WithoutMemory, WritesHappenOrDoNot)
{
    follow(handle, any_session(), hears);
    settle();
    const session_record record({.user = long_name, .request_value = 5, .request = 1});
    const uint32_t both[] = {6, 8};
    const auto hmset_both = [&] {
        return qz_mom_hmset(handle, app_db, record.message(), both, 2, listener::hear, &hears);
    };
    until_it_succeeds(hmset_both);
    until_it_succeeds(hmset_both);
    until_it_succeeds([&] { return qz_mom_del(handle, app_db, record.message(), listener::hear, &hears); });
    until_it_succeeds([&] { return qz_mom_set(handle, app_db, record.message(), listener::hear, &hears); });
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_HMSET, 0, QZ_MOM_CMD_HMSET, 0, QZ_MOM_CMD_DEL, 0,
                                    QZ_MOM_CMD_SET, 0}),
              hears.commands());
}

TEST_F(WithoutMemory, FollowingHappensOrDoesNot)
{
    const session_record pattern({.user = long_name, .type = 0});
    until_it_succeeds([&] { return qz_mom_subscribe(handle, app_db, pattern.message(), 0, listener::hear, &hears); });
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED}), hears.commands());
    until_it_succeeds([&] { return qz_mom_scan(handle, app_db, pattern.message(), 0, listener::hear, &hears); });
    EXPECT_EQ(1u, hears.ends(QZ_MOM_END_SCAN));
    until_it_succeeds([&] { return qz_mom_unsubscribe(handle, app_db, pattern.message(), listener::hear, &hears); });
    EXPECT_EQ(QZ_MOM_CMD_UNSUBSCRIBED, hears.all.back().cmd);
}

TEST_F(WithoutMemory, MarksAreSetOnAllRecordsOrOnNone)
{
    for (int32_t keyid = 0; keyid < 5; ++keyid)
        hmset(handle, {.user = long_name, .keyid = keyid}, {6});
    settle();
    const session_record pattern({.user = long_name, .type = 0});
    const qz_mom_timeval later{60, 0};
    const auto mark = [&] {
        return qz_mom_pexpire(handle, app_db, pattern.message(), QZ_MOM_EXPIRE_PATTERN, &later, listener::hear, &hears);
    };
    until_it_succeeds(mark);
    EXPECT_EQ(0u, hears.ends(QZ_MOM_END_EXPIRY));
    until_it_succeeds(mark);
    EXPECT_EQ(1u, hears.ends(QZ_MOM_END_EXPIRY));
    until_it_succeeds([&] {
        return qz_mom_del_expire(handle, app_db, pattern.message(), QZ_MOM_EXPIRE_PATTERN, listener::hear, &hears);
    });
    EXPECT_EQ(3u, hears.ends(QZ_MOM_END_EXPIRY));
    EXPECT_TRUE(scan(handle, any_session()).empty());
}

TEST_F(WithoutMemory, HandlesOpenOrDoNot)
{
    qz_mom_handle *other = nullptr;
    until_it_succeeds([&] { return qz_mom_client_open("mem:another one with a long name", master_, &other); });
    qz_mom_client_close(other);
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_embedded_count("another one with a long name", 0));
}

// What callbacks with no memory to spare have heard: the key ids, in order.
struct tally {
    int32_t keyids[64] = {};
    int32_t count = 0;
    int32_t ends = 0;
    static int32_t hear(qz_mom_handle *, const qz_mom_notification *msg, void *args)
    {
        auto &all = *static_cast<tally *>(args);
        all.ends += msg->end == QZ_MOM_END_SCAN ? 1 : 0;
        if (msg->value == nullptr || all.count == 64)
            return 0;
        const auto *record = static_cast<const qz_mom_hash_value *>(msg->value)->record;
        all.keyids[all.count++] = reinterpret_cast<const UBridge__EvlanSession *>(record)->index->keyid;
        return 0;
    }
};

TEST_F(WithoutMemory, DeliveryAndScansGoOnWhenThereIsMemoryAgain)
{
    tally heard;
    for (int32_t keyid = 0; keyid < 20; ++keyid)
        hmset(handle, {.user = long_name, .keyid = keyid}, {6});
    const session_record pattern({.user = long_name, .type = 0});
    EXPECT_EQ(0, qz_mom_scan(handle, app_db, pattern.message(), 0, tally::hear, &heard));
    EXPECT_EQ(0, qz_mom_subscribe(handle, app_db, pattern.message(), 0, tally::hear, &heard));
    for (int32_t keyid = 20; keyid < 40; ++keyid)
        hmset(handle, {.user = long_name, .keyid = keyid}, {6});
    for (int64_t allowed = 0; allowed < 200; ++allowed) {
        allocations_left = allowed % 40;
        qz_thread_run_pending(master_, 1);
        allocations_left = -1;
        qz_thread_advance(master_, allowed % 3 == 0 ? 10000 : 0);
    }
    hmset(handle, {.user = "somebody else"}, {6});
    settle();
    // The scan was queued first, so its one piece is read when the changes already wait: it comes behind them.
    ASSERT_EQ(60, heard.count);
    EXPECT_EQ(1, heard.ends);
    for (int32_t i = 0; i < 20; ++i)
        EXPECT_EQ(20 + i, heard.keyids[i]);
}

}  // namespace contract
