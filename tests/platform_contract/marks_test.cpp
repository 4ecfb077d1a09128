// Expiry marks: when they fire, what clears them, and the one end of every expiry call.
#include <algorithm>

#include "store_fixture.hpp"

namespace contract
{

class Marks : public StoreTest
{
  protected:
    static constexpr int32_t pattern = QZ_MOM_EXPIRE_PATTERN;
    static constexpr int32_t evlan = QZ_MOM_EXPIRE_EVLAN_SESSION;
    static constexpr qz_mom_timeval soon{1, 0};
    static constexpr qz_mom_timeval later{3600, 0};
    // Longer than `soon`, with the second that a store may take on top.
    static constexpr int64_t past_soon = 2500;

    void wait_for_end(const listener &of, size_t ends = 1)
    {
        run_until([&] { return of.ends(QZ_MOM_END_EXPIRY) >= ends; });
        settle();
        EXPECT_EQ(ends, of.ends(QZ_MOM_END_EXPIRY));
    }

    int32_t delete_marked(qz_mom_handle *by, const session &what, int32_t mode, listener &to)
    {
        return qz_mom_del_expire(by, app_db, session_record(what).message(), mode, listener::hear, &to);
    }
};

TEST_F(Marks, ExpiryCarriesTheRecordAsItLastWasAndThenTheCallEnds)
{
    auto *handle = open();
    listener hears;
    follow(handle, any_session(), hears);
    const session last{.keyid = 7, .request_value = 3, .request = 1};
    hmset(handle, last, {6, 8});
    EXPECT_EQ(0, expire(handle, {.keyid = 7}, evlan, soon, hears));
    settle();
    EXPECT_EQ(0u, hears.count(QZ_MOM_CMD_EXPIRED));
    pass_time(past_soon);
    wait_for_end(hears);
    ASSERT_EQ(4u, hears.all.size());
    EXPECT_EQ(QZ_MOM_CMD_EXPIRED, hears.all[2].cmd);
    EXPECT_EQ("", hears.all[2].field);
    EXPECT_EQ(last, session_of(*hears.all[2].record));
    EXPECT_EQ(QZ_MOM_END_EXPIRY, hears.all[3].end);
    EXPECT_EQ(QZ_MOM_CMD_NONE, hears.all[3].cmd);
    EXPECT_EQ("u_bridge.evlan_session:app:32:7", hears.all[3].key);
    EXPECT_TRUE(scan(handle, any_session()).empty());
}

TEST_F(Marks, PatternMarksAllThatMatchAndEndsOnce)
{
    auto *handle = open();
    listener hears, end;
    follow(handle, any_session(), hears);
    for (int32_t keyid = 1; keyid <= 5; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    hmset(handle, {.user = "other", .keyid = 1}, {6});
    EXPECT_EQ(0, expire(handle, {.user = "app", .type = 0}, pattern, soon, end));
    pass_time(past_soon);
    wait_for_end(end);
    EXPECT_EQ(5u, hears.count(QZ_MOM_CMD_EXPIRED));
    EXPECT_EQ((std::vector<session>{{.user = "other", .keyid = 1}}), scan(handle, any_session()));
}

TEST_F(Marks, ExactModeMarksTheOneRecordEvenWithFieldsAtTheirDefault)
{
    auto *handle = open();
    listener end;
    hmset(handle, {.keyid = 0, .request = 1}, {8});
    hmset(handle, {.keyid = 5, .request = 1}, {8});
    EXPECT_EQ(0, expire(handle, {.keyid = 0}, evlan, {0, 0}, end));
    wait_for_end(end);
    EXPECT_EQ((std::vector<session>{{.keyid = 5, .request = 1}}), scan(handle, any_session()));
}

TEST_F(Marks, DelayZeroFiresAtOnce)
{
    auto *handle = open();
    listener hears;
    follow(handle, any_session(), hears);
    hmset(handle, {.request = 1}, {8});
    listener end;
    EXPECT_EQ(0, expire(handle, {}, evlan, {0, 0}, end));
    hmset(handle, {.reply = 1}, {11});
    wait_for_end(end);
    EXPECT_EQ((std::vector<session>{{.request = 1}, {.request = 1}, {.reply = 1}}), sessions(hears.changes()));
}

TEST_F(Marks, CallThatMatchesNothingEndsAtOnce)
{
    auto *handle = open();
    listener one, all;
    EXPECT_EQ(0, expire(handle, {}, evlan, later, one));
    EXPECT_EQ(0, expire(handle, any_session(), pattern, later, all));
    EXPECT_TRUE(one.all.empty()) << "called from inside a call";
    wait_for_end(one);
    wait_for_end(all);
}

TEST_F(Marks, WritesClearTheMarkAndUpdatesDoNot)
{
    auto *handle = open();
    listener set_end, update_end, whole_end;
    hmset(handle, {.keyid = 1}, {6});
    hmset(handle, {.keyid = 2}, {6});
    set(handle, evlan_record("app", 3));
    expire(handle, {.keyid = 1}, evlan, soon, set_end);
    expire(handle, {.keyid = 2}, evlan, soon, update_end);
    qz_mom_pexpire(handle, app_db, evlan_record("app", 3).message(), pattern, &soon, listener::hear, &whole_end);
    hmset(handle, {.keyid = 1, .request = 1}, {8});
    hmupdate(handle, {.keyid = 2, .request = 1}, {8});
    set(handle, evlan_record("app", 3, 1));
    wait_for_end(set_end);
    wait_for_end(whole_end);
    EXPECT_EQ(0u, update_end.ends(QZ_MOM_END_EXPIRY));
    pass_time(past_soon);
    wait_for_end(update_end);
    EXPECT_EQ((std::vector<session>{{.keyid = 1, .request = 1}}), scan(handle, any_session()));
    EXPECT_EQ(0, qz_mom_del(handle, app_db, evlan_record("app", 3).message(), nullptr, nullptr));
}

TEST_F(Marks, NewerMarkReplacesTheOlderOneAndEndsItsCall)
{
    auto *handle = open();
    listener first, second;
    hmset(handle, {}, {6});
    expire(handle, {}, evlan, soon, first);
    expire(handle, {}, evlan, later, second);
    wait_for_end(first);
    pass_time(past_soon);
    settle();
    EXPECT_EQ(1u, scan(handle, any_session()).size());
    EXPECT_EQ(0u, second.ends(QZ_MOM_END_EXPIRY));
    del(handle, {});
    wait_for_end(second);
    wait_for_end(first);
}

TEST_F(Marks, ClearingTakesTheMarkOffAndEndsItsCall)
{
    auto *handle = open();
    listener end, answer, none;
    hmset(handle, {}, {6});
    expire(handle, {}, evlan, soon, end);
    EXPECT_EQ(0, qz_mom_clear_expire(handle, app_db, session_record({}).message(), listener::hear, &answer));
    EXPECT_EQ(0, qz_mom_clear_expire(handle, app_db, session_record({.keyid = 9}).message(), listener::hear, &none));
    wait_for_end(end);
    pass_time(past_soon);
    settle();
    EXPECT_EQ(1u, scan(handle, any_session()).size());
    EXPECT_EQ(1u, answer.all.size());
    EXPECT_EQ(1u, none.all.size());
    EXPECT_EQ(0, none.all[0].error);
}

// Who asks again for a record does both, one right behind the other.
TEST_F(Marks, ClearingAndWritingARecordIsHeardAsOneWriteAndEndsTheCall)
{
    auto *handle = open();
    listener hears, end, written;
    follow(handle, any_session(), hears);
    hmset(handle, {.request_value = 3}, {6});
    expire(handle, {}, evlan, soon, end);
    const uint32_t field = 8;
    EXPECT_EQ(0, qz_mom_clear_expire(handle, app_db, session_record({}).message(), nullptr, nullptr));
    EXPECT_EQ(
        0, qz_mom_hmset(handle, app_db, session_record({.request = 1}).message(), &field, 1, listener::hear, &written));
    wait_for_end(end);
    pass_time(past_soon);
    settle();
    EXPECT_EQ((std::vector<session>{{.request_value = 3}, {.request_value = 3, .request = 1}}),
              sessions(hears.changes()));
    ASSERT_EQ(1u, written.all.size());
    EXPECT_EQ(0, written.all[0].error);
}

TEST_F(Marks, ClearingIsDoneAlsoWhenTheWriteBehindItCannotBe)
{
    auto *handle = open();
    listener marked, done, written;
    const evlan_record whole("app", 3);
    set(handle, whole);
    EXPECT_EQ(0, qz_mom_pexpire(handle, app_db, whole.message(), pattern, &later, listener::hear, &marked));
    const uint32_t field = 6;
    EXPECT_EQ(0, qz_mom_clear_expire(handle, app_db, whole.message(), nullptr, nullptr));
    const int32_t code = qz_mom_hmset(handle, app_db, whole.message(), &field, 1, listener::hear, &written);
    EXPECT_EQ(0, qz_mom_del_expire(handle, app_db, whole.message(), pattern, listener::hear, &done));
    wait_for_end(marked);
    wait_for_end(done);
    EXPECT_EQ(QZ_MOM_EFORM, code != 0 || written.all.empty() ? code : written.all[0].error);
    listener hears;
    EXPECT_EQ(0, qz_mom_scan(handle, app_db, whole.message(), 0, listener::hear, &hears));
    run_until([&] { return hears.ends(QZ_MOM_END_SCAN) == 1; });
    EXPECT_EQ(1u, hears.changes().size());
    EXPECT_EQ(0, qz_mom_del(handle, app_db, whole.message(), nullptr, nullptr));
}

TEST_F(Marks, ClearingWithACallbackIsAnsweredOnItsOwn)
{
    auto *handle = open();
    std::vector<std::string> order;
    listener cleared, written;
    cleared.also = [&](auto...) { order.emplace_back("cleared"); };
    written.also = [&](auto...) { order.emplace_back("written"); };
    const session_record record({.request = 1});
    const uint32_t field = 8;
    EXPECT_EQ(0, qz_mom_clear_expire(handle, app_db, record.message(), listener::hear, &cleared));
    EXPECT_EQ(0, qz_mom_hmset(handle, app_db, record.message(), &field, 1, listener::hear, &written));
    run_until([&] { return order.size() == 2; });
    settle();
    EXPECT_EQ((std::vector<std::string>{"cleared", "written"}), order);
}

// A clearing is not the neighbour's, whose key begins like its own.
TEST_F(Marks, ClearingOneRecordAndWritingAnotherLeavesEachItsOwn)
{
    auto *handle = open();
    listener end, done;
    for (const int32_t keyid : {1, 12, 3})
        hmset(handle, {.keyid = keyid}, {6});
    expire(handle, any_session(), pattern, later, end);
    qz_mom_clear_expire(handle, app_db, session_record({.keyid = 1}).message(), nullptr, nullptr);
    hmset(handle, {.keyid = 12}, {6});
    EXPECT_EQ(0, delete_marked(handle, any_session(), pattern, done));
    wait_for_end(done);
    wait_for_end(end);
    EXPECT_EQ((std::vector<session>{{.keyid = 1}, {.keyid = 12}}), scan(handle, any_session()));
}

// Enough that a store may set them little by little.
TEST_F(Marks, WritesBehindAMarkOfManyRecordsClearItWhereTheyWrite)
{
    constexpr int32_t count = 9000;
    auto *handle = open();
    listener end, done, absent;
    for (int32_t keyid = 1; keyid <= count; ++keyid) {
        ASSERT_EQ(0, hmset(handle, {.keyid = keyid}, {6}));
        if (keyid % 1000 == 0)
            settle();
    }
    EXPECT_EQ(0, expire(handle, {.user = "nobody"}, evlan, later, absent));
    EXPECT_EQ(0, expire(handle, {.user = "app", .type = 0}, pattern, later, end));
    for (int32_t keyid = 1; keyid <= count; keyid += 2)
        ASSERT_EQ(0, hmset(handle, {.keyid = keyid}, {6}));
    EXPECT_EQ(0, delete_marked(handle, {.user = "app", .type = 0}, pattern, done));
    wait_for_end(done);
    wait_for_end(end);
    const auto kept = scan(handle, any_session());
    EXPECT_EQ(static_cast<size_t>(count / 2), kept.size());
    EXPECT_TRUE(std::ranges::all_of(kept, [](const session &each) { return each.keyid % 2 == 1; }));
}

TEST_F(Marks, OneCallOverSeveralRecordsEndsWithTheLastOfThem)
{
    auto *handle = open();
    listener end;
    for (int32_t keyid = 1; keyid <= 4; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    expire(handle, any_session(), pattern, soon, end);
    hmset(handle, {.keyid = 1}, {6});
    del(handle, {.keyid = 2});
    qz_mom_clear_expire(handle, app_db, session_record({.keyid = 3}).message(), nullptr, nullptr);
    settle();
    EXPECT_EQ(0u, end.ends(QZ_MOM_END_EXPIRY));
    pass_time(past_soon);
    wait_for_end(end);
    EXPECT_EQ((std::vector<session>{{.keyid = 1}, {.keyid = 3}}), scan(handle, any_session()));
}

TEST_F(Marks, DeletingMarkedRecordsTakesExactlyThoseStillMarked)
{
    auto *handle = open();
    listener hears, marked, done;
    for (int32_t keyid = 1; keyid <= 4; ++keyid)
        hmset(handle, {.keyid = keyid}, {6});
    expire(handle, {.user = "app", .type = 0}, pattern, later, marked);
    hmset(handle, {.keyid = 2, .request = 1}, {8});
    hmupdate(handle, {.keyid = 3, .request = 1}, {8});
    hmset(handle, {.keyid = 5}, {6});
    follow(handle, any_session(), hears);
    EXPECT_EQ(0, delete_marked(handle, {.user = "app", .type = 0}, pattern, done));
    wait_for_end(done);
    wait_for_end(marked);
    EXPECT_EQ(1u, done.all.size());
    EXPECT_EQ((std::vector<session>{{.keyid = 1}, {.keyid = 3, .request = 1}, {.keyid = 4}}),
              sessions(hears.changes()));
    EXPECT_EQ(3u, hears.count(QZ_MOM_CMD_DEL));
    EXPECT_EQ((std::vector<session>{{.keyid = 2, .request = 1}, {.keyid = 5}}), scan(handle, any_session()));
}

TEST_F(Marks, DeletingOneMarkedRecordLeavesTheOthers)
{
    auto *handle = open();
    listener end, done;
    hmset(handle, {.keyid = 1}, {6});
    hmset(handle, {.keyid = 2}, {6});
    expire(handle, any_session(), pattern, later, end);
    EXPECT_EQ(0, delete_marked(handle, {.keyid = 1}, evlan, done));
    wait_for_end(done);
    EXPECT_EQ((std::vector<session>{{.keyid = 2}}), scan(handle, any_session()));
    EXPECT_EQ(0u, end.ends(QZ_MOM_END_EXPIRY));
    del(handle, {.keyid = 2});
    wait_for_end(end);
}

TEST_F(Marks, MarksOfOneHandleFireAfterItHasClosed)
{
    auto *leaving = open();
    auto *staying = open();
    listener hears, nobody;
    follow(staying, any_session(), hears);
    hmset(leaving, {.request = 1}, {8});
    expire(leaving, {}, evlan, soon, nobody);
    close(leaving);
    pass_time(past_soon);
    run_until([&] { return hears.count(QZ_MOM_CMD_EXPIRED) == 1; });
    settle();
    EXPECT_TRUE(nobody.all.empty());
}

TEST_F(Marks, SynchronousMarkIsSetWhenTheCallReturns)
{
    auto *handle = open();
    listener done;
    hmset(handle, {.keyid = 1}, {6});
    settle();
    EXPECT_EQ(0, qz_mom_pexpire_sync(handle, app_db, session_record(any_session()).message(), pattern, &later));
    EXPECT_EQ(0, delete_marked(handle, any_session(), pattern, done));
    wait_for_end(done);
    EXPECT_TRUE(scan(handle, any_session()).empty());
}

TEST_F(Marks, EportSessionsHaveAModeOfTheirOwn)
{
    auto *handle = open();
    UBridge__EportAppIndex index = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession record = U_BRIDGE__EPORT_SESSION__INIT;
    char user[] = "app";
    index.t_user = user;
    index.type = 16;
    record.index = &index;
    const uint32_t fields[] = {6};
    listener end;
    EXPECT_EQ(0, qz_mom_hmset(handle, app_db, &record.base, fields, 1, nullptr, nullptr));
    EXPECT_EQ(0,
              qz_mom_pexpire(handle, app_db, &record.base, QZ_MOM_EXPIRE_EPORT_SESSION, &soon, listener::hear, &end));
    EXPECT_EQ(QZ_MOM_EINVAL, qz_mom_pexpire(handle, app_db, &record.base, evlan, &soon, listener::hear, &end));
    pass_time(past_soon);
    wait_for_end(end);
}

}  // namespace contract
