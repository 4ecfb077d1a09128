// Bounds: what happens when a handle does not keep up.
#include "store_fixture.hpp"

namespace contract
{

class Queues : public StoreTest
{
};

TEST_F(Queues, WriteThatWouldPassTheHardLimitIsRefusedAndNothingHappens)
{
    if (!driven_)
        GTEST_SKIP() << "needs a store whose queues fill without the master running";
    auto *slow = open();
    auto *writer = open();
    listener hears;
    follow(slow, any_session(), hears);
    settle();
    const size_t confirmed = hears.all.size();
    ASSERT_EQ(0, qz_mom_set_queue_limits(slow, 1, 5, 10));
    for (int32_t value = 1; value <= 10; ++value)
        ASSERT_EQ(0, hmset(writer, {.request_value = value}, {6}));
    EXPECT_EQ(10u, qz_mom_queue_depth(slow));
    EXPECT_EQ(QZ_MOM_EFULL, hmset(writer, {.request_value = 11}, {6}));
    EXPECT_EQ(QZ_MOM_EFULL, del(writer, {}));
    EXPECT_EQ(QZ_MOM_EFULL, follow(slow, any_session(), hears));
    EXPECT_EQ(QZ_MOM_EFULL,
              qz_mom_scan(slow, app_db, session_record(any_session()).message(), 0, listener::hear, &hears));
    run_until([&] { return qz_mom_queue_depth(slow) == 0; });
    EXPECT_EQ(confirmed + 10, hears.all.size());
    settle();
    EXPECT_EQ((std::vector<session>{{.request_value = 10}}), scan(slow, any_session()));
    EXPECT_EQ(0, hmset(writer, {.request_value = 12}, {6}));
}

TEST_F(Queues, WritesThatNobodySlowFollowsGoOn)
{
    if (!driven_)
        GTEST_SKIP() << "needs a store whose queues fill without the master running";
    auto *slow = open();
    auto *writer = open();
    listener hears;
    follow(slow, any_session(), hears);
    settle();
    ASSERT_EQ(0, qz_mom_set_queue_limits(slow, 0, 1, 1));
    ASSERT_EQ(0, hmset(writer, {}, {6}));
    EXPECT_EQ(QZ_MOM_EFULL, hmset(writer, {}, {6}));
    EXPECT_EQ(0, set(writer, evlan_record("app", 1)));
    EXPECT_EQ(0, qz_mom_del(writer, app_db, evlan_record("app", 1).message(), nullptr, nullptr));
    run_until([&] { return qz_mom_queue_depth(slow) == 0; });
}

TEST_F(Queues, MarksAreHeardInTurnsBeginningWithTheHighOne)
{
    if (!driven_)
        GTEST_SKIP() << "needs a store whose queues fill without the master running";
    static std::vector<std::pair<int32_t, uint32_t>> told;
    told.clear();
    auto *slow = open();
    auto *writer = open();
    listener hears;
    follow(slow, any_session(), hears);
    settle();
    ASSERT_EQ(0, qz_mom_set_queue_limits(slow, 2, 5, 100));
    const auto tell = [](qz_mom_handle *, int32_t above, uint32_t depth, void *) { told.emplace_back(above, depth); };
    ASSERT_EQ(0, qz_mom_set_queue_cb(slow, tell, nullptr));
    for (int round = 0; round < 2; ++round) {
        for (int32_t value = 0; value < 4; ++value)
            hmset(writer, {}, {6});
        run_until([&] { return qz_mom_queue_depth(slow) == 0; });
    }
    EXPECT_TRUE(told.empty()) << "the high mark was never reached";
    for (int32_t value = 0; value < 8; ++value)
        hmset(writer, {}, {6});
    EXPECT_TRUE(told.empty()) << "called from inside a call";
    run_until([&] { return qz_mom_queue_depth(slow) == 0; });
    settle();
    EXPECT_EQ((std::vector<std::pair<int32_t, uint32_t>>{{1, 8}, {0, 2}}), told);
    ASSERT_EQ(0, qz_mom_set_queue_cb(slow, nullptr, nullptr));
    for (int32_t value = 0; value < 8; ++value)
        hmset(writer, {}, {6});
    settle();
    EXPECT_EQ(2u, told.size());
}

// It says so once for each notification, also for that with which the queue falls to the low mark.
TEST_F(Queues, WhoListensAgainHearsTheMarksInTurns)
{
    if (!driven_)
        GTEST_SKIP() << "needs a store whose queues fill without the master running";
    static std::vector<int32_t> told;
    told.clear();
    auto *handle = open();
    static const qz_mom_queue_cb tell = [](qz_mom_handle *, int32_t above, uint32_t, void *) { told.push_back(above); };
    const auto listen = [](qz_mom_handle *self, const qz_mom_notification *, void *) {
        return qz_mom_set_queue_cb(self, tell, nullptr);
    };
    ASSERT_EQ(0, qz_mom_set_queue_limits(handle, 2, 5, 100));
    ASSERT_EQ(0, qz_mom_set_queue_cb(handle, tell, nullptr));
    for (int i = 0; i < 8; ++i)
        ASSERT_EQ(0, qz_mom_clear_expire(handle, app_db, session_record({}).message(), listen, nullptr));
    run_until([&] { return qz_mom_queue_depth(handle) == 0; });
    settle();
    EXPECT_EQ((std::vector<int32_t>{1, 0}), told);
}

TEST_F(Queues, LimitsThatMakeNoSenseAreRefused)
{
    auto *handle = open();
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_queue_limits(handle, 5, 5, 10));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_queue_limits(handle, 1, 11, 10));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_queue_limits(nullptr, 1, 2, 3));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_set_queue_cb(nullptr, nullptr, nullptr));
    EXPECT_EQ(0, qz_mom_set_queue_limits(handle, 1, 2, 2));
    EXPECT_EQ(0u, qz_mom_queue_depth(nullptr));
}

}  // namespace contract
