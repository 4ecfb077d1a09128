// The service against a store whose every callback the test times: the order of the start, what outweighs what, and
// writes that fail at once or later.
#include <gmock/gmock.h>

#include <utility>

#include "ebridged.h"
#include "scripted_store.hpp"

using namespace scripted;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class ServiceOrder : public testing::Test
{
  protected:
    ~ServiceOrder() override { ebridged_stop(service); }

    void start() { ASSERT_EQ(ebridged_start(store.handle(), nullptr, &service), 0); }
    // Up to the scans, none of which has delivered anything yet.
    void follow()
    {
        start();
        store.confirm(store.ranges.at("subscribe 4"), 4);
        store.confirm(live(), 4);
    }
    void end_scans()
    {
        store.end_scan(store.ranges.at("scan 4"), 4);
        store.end_scan(scan(), 4);
        store.end_scan(mirrors(), 8);
    }
    void serve()
    {
        follow();
        end_scans();
        ASSERT_EQ(stat().serving, 1U);
    }
    ebridged_stat stat() const
    {
        ebridged_stat now{};
        ebridged_get_stat(service, &now);
        return now;
    }
    const listener &live() { return store.follows.at("subscribe_field 4"); }
    const listener &scan() { return store.follows.at("scan 4"); }
    const listener &mirrors() { return store.follows.at("scan 8"); }

    scripted::store &store = the_store();
    ebridged_service *service = nullptr;
};

}  // namespace

TEST_F(ServiceOrder, NothingIsScannedBeforeBothSubscriptionsAreConfirmed)
{
    start();
    EXPECT_FALSE(store.follows.contains("scan 4"));
    store.confirm(live(), 4);
    EXPECT_FALSE(store.follows.contains("scan 4"));
    store.confirm(store.ranges.at("subscribe 4"), 4);
    EXPECT_TRUE(store.follows.contains("scan 4"));
    EXPECT_TRUE(store.ranges.contains("scan 4"));
}

TEST_F(ServiceOrder, NothingIsAnsweredBeforeEveryTableIsRead)
{
    follow();
    store.written(live(), 4, "a", 1);
    store.end_scan(scan(), 4);
    store.end_scan(store.ranges.at("scan 4"), 4);
    EXPECT_THAT(store.writes, IsEmpty());
    store.end_scan(mirrors(), 8);
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
}

TEST_F(ServiceOrder, ARemovalHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    store.removed(live(), 4, "a", 1);
    store.written(scan(), 4, "a", 1, 0x20000005);
    end_scans();
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(ServiceOrder, AWriteHeardDuringTheScanOutweighsTheScansCopy)
{
    follow();
    store.written(live(), 4, "a", 1, 0x20000007);
    store.written(scan(), 4, "a", 1, 0x20000005);
    end_scans();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000007", "hmset 8 a/32/1 0x20000007"));
}

TEST_F(ServiceOrder, ASessionRemovedAfterTheScanSawItIsNotTakenOver)
{
    follow();
    store.written(scan(), 4, "a", 1, 0x20000005);
    store.removed(live(), 4, "a", 1);
    end_scans();
    EXPECT_EQ(stat().keys, 0U);
}

TEST_F(ServiceOrder, GrantedIdsAreTakenOverBeforeAnythingIsDecided)
{
    follow();
    store.written(scan(), 4, "a", 1);
    store.written(scan(), 4, "b", 2, 0x20000001);
    end_scans();
    EXPECT_THAT(store.texts(), testing::IsSupersetOf({"hmupdate 4 a/32/1 0x20000002", "hmupdate 4 b/32/2 0x20000001"}));
}

TEST_F(ServiceOrder, AScanThatFailsIsMadeAgain)
{
    follow();
    const listener first = scan();
    store.follows.erase("scan 4");
    store.end_scan(first, 4, QZ_MOM_EDOWN);
    store.run_timers();
    ASSERT_TRUE(store.follows.contains("scan 4"));
    end_scans();
    EXPECT_EQ(stat().serving, 1U);
}

TEST_F(ServiceOrder, AStoreThatIsDownAtTheStartIsAskedAgain)
{
    store.codes = {{"subscribe", QZ_MOM_EDOWN}, {"subscribe_field", QZ_MOM_EDOWN}};
    start();
    store.run_timers();
    EXPECT_FALSE(store.follows.contains("subscribe_field 4"));
    store.codes.clear();
    store.run_timers();
    EXPECT_TRUE(store.follows.contains("subscribe_field 4"));
    EXPECT_TRUE(store.ranges.contains("subscribe 4"));
}

TEST_F(ServiceOrder, AnswersThatTheStoreRefusesComeLaterAndInOrder)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (uint32_t key : {1U, 2U})
        store.written(live(), 4, "a", key);
    EXPECT_THAT(store.writes, IsEmpty());
    EXPECT_EQ(stat().waiting, 4U);
    store.run_timers();
    EXPECT_THAT(store.writes, IsEmpty());
    store.codes = {{"hmset", QZ_MOM_EDOWN}};
    store.run_timers();
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001",
                                           "hmupdate 4 a/32/2 0x20000002", "hmset 8 a/32/2 0x20000002"));
    EXPECT_EQ(stat().waiting, 0U);
    EXPECT_THAT(store.timers, IsEmpty());
}

TEST_F(ServiceOrder, WhatIsDueTwiceIsWrittenOnceAsThingsStandThen)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    for (int again = 0; again < 100; ++again)
        store.written(live(), 4, "a", 1);
    EXPECT_EQ(stat().waiting, 2U);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
}

TEST_F(ServiceOrder, AnAnswerThatWaitsIsNotWrittenOnceItsSessionIsGone)
{
    serve();
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.codes.clear();
    store.run_timers();
    EXPECT_THAT(store.texts(), testing::Each("del 8 a/32/1"));
}

// The answer to the first request is applied after the second one was written, so it answers that.
TEST_F(ServiceOrder, ASessionRequestedAgainWhileItsAnswerIsUnderWayKeepsTheId)
{
    serve();
    store.written(live(), 4, "a", 1);
    const std::vector<store_write> first = std::exchange(store.writes, {});
    for (int again = 0; again < 2; ++again) {
        store.removed(live(), 4, "a", 1);
        store.written(live(), 4, "a", 1);
        EXPECT_THAT(store.texts(),
                    ElementsAre("del 8 a/32/1", "hmupdate 4 a/32/1 0x20000001", "hmset 8 a/32/1 0x20000001"));
        store.writes.clear();
    }
}

TEST_F(ServiceOrder, AnIdRestsOnceItsAnswerIsDone)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.write_done(store.writes[0], 4, "a", 1, 0);
    store.removed(live(), 4, "a", 1);
    store.writes.clear();
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000002", "hmset 8 a/32/1 0x20000002"));
}

TEST_F(ServiceOrder, AnIdWhoseAnswerIsUnderWayCanBeAnothersMeanwhile)
{
    serve();
    store.written(live(), 4, "a", 1);
    store.removed(live(), 4, "a", 1);
    store.written(live(), 4, "b", 2, 0, 0x20000001);
    store.writes.clear();
    store.written(live(), 4, "a", 1);
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000002", "hmset 8 a/32/1 0x20000002"));
}

TEST_F(ServiceOrder, AWriteThatFailsLaterIsMadeAgain)
{
    serve();
    store.written(live(), 4, "a", 1);
    const std::vector<store_write> first = std::exchange(store.writes, {});
    ASSERT_EQ(first.size(), 2U);
    store.write_done(first[0], 4, "a", 1, QZ_MOM_EDOWN);
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmupdate 4 a/32/1 0x20000001"));
    store.writes.clear();
    store.write_done(first[1], 8, "a", 1, QZ_MOM_EDOWN);
    store.run_timers();
    EXPECT_THAT(store.texts(), ElementsAre("hmset 8 a/32/1 0x20000001"));
}

TEST_F(ServiceOrder, AWriteThatCanNeverSucceedIsNotMadeAgain)
{
    serve();
    store.written(live(), 4, "a", 1);
    const std::vector<store_write> first = std::exchange(store.writes, {});
    store.write_done(first[0], 4, "a", 1, QZ_MOM_EFORM);
    store.write_done(first[1], 8, "a", 1, 0);
    EXPECT_THAT(store.timers, IsEmpty());
    store.codes = {{"hmupdate", QZ_MOM_EFORM}};
    store.written(live(), 4, "a", 2);
    EXPECT_THAT(store.texts(), ElementsAre("hmset 8 a/32/2 0x20000002"));
    EXPECT_EQ(stat().waiting, 0U);
}

TEST_F(ServiceOrder, CallbacksAfterTheEndDoNothing)
{
    serve();
    store.written(live(), 4, "a", 1);
    const std::vector<store_write> pending = store.writes;
    store.codes = {{"hmupdate", QZ_MOM_EFULL}};
    store.written(live(), 4, "a", 2);
    ebridged_stop(service);
    service = nullptr;
    store.writes.clear();
    store.codes.clear();
    store.written(live(), 4, "a", 3);
    store.end_scan(scan(), 4);
    store.write_done(pending[0], 4, "a", 1, QZ_MOM_EDOWN);
    store.run_timers();
    EXPECT_THAT(store.writes, IsEmpty());
}
