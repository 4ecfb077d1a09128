// Following: what whole and field subscribers hear, confirmations, connections.
#include <algorithm>
#include <map>

#include "store_fixture.hpp"

namespace contract
{

class Following : public StoreTest
{
  protected:
    int32_t unsubscribe(qz_mom_handle *by, const session &pattern, listener &to)
    {
        return qz_mom_unsubscribe(by, app_db, session_record(pattern).message(), listener::hear, &to);
    }
};

TEST_F(Following, ConfirmationComesFirstAndOnce)
{
    auto *handle = open();
    listener hears;
    EXPECT_EQ(0, follow(handle, any_session(), hears));
    hmset(handle, {.request = 1}, {8});
    EXPECT_TRUE(hears.all.empty()) << "called from inside a call";
    settle();
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_HSET}), hears.commands());
    EXPECT_EQ("u_bridge.evlan_session::0:0", hears.all[0].key);
    EXPECT_EQ(app_db, hears.all[0].db);
    EXPECT_EQ(0, hears.all[0].error);
    EXPECT_EQ(nullptr, hears.all[0].record);
}

TEST_F(Following, RepeatedSubscriptionReplacesTheEarlierOne)
{
    auto *handle = open();
    listener whole, field;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, follow(handle, any_session(), whole));
        EXPECT_EQ(0, follow_field(handle, any_session(), 8, field));
    }
    hmset(handle, {.request = 1}, {8});
    settle();
    EXPECT_EQ(3u, whole.count(QZ_MOM_CMD_SUBSCRIBED));
    EXPECT_EQ(3u, field.count(QZ_MOM_CMD_SUBSCRIBED));
    EXPECT_EQ(1u, whole.changes().size());
    EXPECT_EQ(1u, field.changes().size());
}

TEST_F(Following, OtherArgumentIsAnotherSubscription)
{
    auto *handle = open();
    listener one, two;
    follow(handle, any_session(), one);
    follow(handle, any_session(), two);
    follow(handle, {.user = "app", .type = 0}, one);
    hmset(handle, {.request = 1}, {8});
    settle();
    EXPECT_EQ(2u, one.changes().size());
    EXPECT_EQ(1u, two.changes().size());
}

TEST_F(Following, PatternFieldsAtTheirDefaultMatchAnything)
{
    auto *handle = open();
    listener user, type, both, exact;
    follow(handle, {.user = "app", .type = 0}, user);
    follow(handle, {.user = "", .type = 32}, type);
    follow(handle, {.user = "app", .type = 32}, both);
    follow(handle, {.user = "app", .type = 32, .keyid = 2}, exact);
    hmset(handle, {.user = "app", .type = 32, .keyid = 1}, {6});
    hmset(handle, {.user = "app", .type = 32, .keyid = 2}, {6});
    hmset(handle, {.user = "app", .type = 16, .keyid = 1}, {6});
    hmset(handle, {.user = "apple", .type = 32, .keyid = 1}, {6});
    settle();
    EXPECT_EQ(3u, user.changes().size());
    EXPECT_EQ(3u, type.changes().size());
    EXPECT_EQ(2u, both.changes().size());
    EXPECT_EQ((std::vector<session>{{.keyid = 2}}), sessions(exact.changes()));
}

TEST_F(Following, RecordsAndDatabasesAreKeptApart)
{
    auto *handle = open();
    listener here;
    follow(handle, any_session(), here);
    EXPECT_EQ(0, set(handle, evlan_record("app", 1)));
    const uint32_t fields[] = {8};
    EXPECT_EQ(0, qz_mom_hmset(handle, 8, session_record({.request = 1}).message(), fields, 1, nullptr, nullptr));
    settle();
    EXPECT_TRUE(here.changes().empty());
    qz_mom_del(handle, 8, session_record({}).message(), nullptr, nullptr);
}

TEST_F(Following, FieldSubscriberHearsEveryWriteThatNamesTheFieldChangedOrNot)
{
    auto *handle = open();
    listener reply;
    follow_field(handle, any_session(), 11, reply);
    hmset(handle, {.request_value = 1, .request = 1}, {6, 8});
    hmset(handle, {.reply = 1}, {11});
    hmset(handle, {.reply = 1}, {11});
    hmupdate(handle, {.reply_value = 5, .reply = 1}, {10, 11});
    hmset(handle, {.reply_value = 6}, {10});
    settle();
    const auto all = reply.changes();
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_HSET, QZ_MOM_CMD_HSET, QZ_MOM_CMD_HMSET}),
              reply.commands());
    for (const auto &each : all)
        EXPECT_EQ("reply", each.field);
    EXPECT_EQ((session{.request_value = 1, .request = 1, .reply_value = 5, .reply = 1}), sessions(all)[2]);
}

TEST_F(Following, FieldSubscriberHearsWholeWritesRemovalsAndExpiries)
{
    auto *handle = open();
    listener field, end;
    follow_field(handle, any_session(), 11, field);
    EXPECT_EQ(0, qz_mom_set(handle, app_db, session_record({.keyid = 1, .request = 1}).message(), nullptr, nullptr));
    del(handle, {.keyid = 1});
    hmset(handle, {.keyid = 2, .request = 1}, {8});
    expire(handle, {.keyid = 2}, QZ_MOM_EXPIRE_EVLAN_SESSION, {0, 0}, end);
    run_until([&] { return end.ends(QZ_MOM_END_EXPIRY) == 1; });
    settle();
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_SET, QZ_MOM_CMD_DEL, QZ_MOM_CMD_EXPIRED}),
              field.commands());
    EXPECT_EQ((session{.keyid = 2, .request = 1}), sessions(field.changes())[2]);
}

TEST_F(Following, EachFieldHasItsOwnCallbackAndOneConfirmationComesToTheFirst)
{
    auto *handle = open();
    listener value, reply;
    const uint32_t fields[] = {10, 11};
    const qz_mom_msg_cb cbs[] = {listener::hear, listener::hear};
    void *const args[] = {&value, &reply};
    EXPECT_EQ(0,
              qz_mom_subscribe_field(handle, app_db, session_record(any_session()).message(), 0, fields, cbs, args, 2));
    hmset(handle, {.reply_value = 1}, {10});
    hmset(handle, {.reply_value = 1, .reply = 1}, {10, 11});
    settle();
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_SUBSCRIBED, QZ_MOM_CMD_HSET, QZ_MOM_CMD_HMSET}), value.commands());
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_HMSET}), reply.commands());
    EXPECT_EQ("reply", reply.all[0].field);
}

TEST_F(Following, FieldSubscriptionsWithoutArgumentsGetNull)
{
    static void *seen;
    seen = &seen;
    auto *handle = open();
    const uint32_t field = 11;
    const qz_mom_msg_cb cb = [](qz_mom_handle *, const qz_mom_notification *, void *args) { return seen = args, 0; };
    EXPECT_EQ(
        0, qz_mom_subscribe_field(handle, app_db, session_record(any_session()).message(), 0, &field, &cb, nullptr, 1));
    settle();
    EXPECT_EQ(nullptr, seen);
}

TEST_F(Following, UnsubscriptionIsConfirmedAndTheLastWord)
{
    auto *handle = open();
    listener whole, field;
    follow(handle, any_session(), whole);
    follow_field(handle, any_session(), 8, field);
    hmset(handle, {.request = 1}, {8});
    EXPECT_EQ(0, unsubscribe(handle, any_session(), whole));
    EXPECT_EQ(0, unsubscribe(handle, any_session(), field));
    hmset(handle, {.request = 2}, {8});
    settle();
    for (const auto *each : {&whole, &field}) {
        ASSERT_FALSE(each->all.empty());
        EXPECT_EQ(1u, each->count(QZ_MOM_CMD_UNSUBSCRIBED));
        EXPECT_EQ(QZ_MOM_CMD_UNSUBSCRIBED, each->all.back().cmd);
        EXPECT_LE(each->changes().size(), 1u);
    }
}

TEST_F(Following, UnsubscriptionOfNothingIsConfirmedToo)
{
    auto *handle = open();
    listener other, none;
    follow(handle, any_session(), other);
    EXPECT_EQ(0, unsubscribe(handle, any_session(), none));
    EXPECT_EQ(0, unsubscribe(handle, {.user = "app", .type = 0}, other));
    hmset(handle, {.request = 1}, {8});
    settle();
    EXPECT_EQ((std::vector<int32_t>{QZ_MOM_CMD_UNSUBSCRIBED}), none.commands());
    EXPECT_EQ(1u, other.changes().size());
}

TEST_F(Following, CallbacksMayCallTheClient)
{
    auto *handle = open();
    listener hears;
    int depth = 0;
    hears.also = [&](qz_mom_handle *by, const qz_mom_notification &msg) {
        EXPECT_EQ(1, ++depth) << "nested";
        if (msg.cmd == QZ_MOM_CMD_HSET && hears.changes().size() < 10) {
            EXPECT_EQ(0, hmset(by, {.request_value = static_cast<int32_t>(hears.all.size())}, {6}));
        }
        --depth;
    };
    follow(handle, any_session(), hears);
    hmset(handle, {}, {6});
    settle();
    run_until([&] { return hears.changes().size() == 10; });
}

TEST_F(Following, ClosedHandleHearsNothingMore)
{
    auto *closing = open();
    auto *other = open();
    listener gone, stays;
    follow(closing, any_session(), gone);
    follow(other, any_session(), stays);
    hmset(other, {.request = 1}, {8});
    close(closing);
    hmset(other, {.request = 2}, {8});
    settle();
    EXPECT_TRUE(gone.all.empty());
    EXPECT_EQ(2u, stays.changes().size());
}

TEST_F(Following, HandleMayBeClosedInItsOwnCallback)
{
    auto *closing = open();
    auto *other = open();
    listener hears;
    hears.also = [&](qz_mom_handle *by, const qz_mom_notification &msg) {
        close(by);
        EXPECT_STRNE("", msg.key);
    };
    follow(closing, any_session(), hears);
    hmset(other, {.request = 1}, {8});
    run_until([&] { return !hears.all.empty(); });
    settle();
    EXPECT_EQ(1u, hears.all.size());
}

TEST_F(Following, ConnectedCallbackRunsOncePerCall)
{
    static int calls;
    static qz_mom_handle *seen;
    calls = 0;
    auto *handle = open();
    const auto count = [](qz_mom_handle *by, void *args) {
        seen = by;
        return ++*static_cast<int *>(args);
    };
    EXPECT_EQ(0, qz_mom_client_connect(handle, 4, count, &calls));
    EXPECT_EQ(0, qz_mom_client_connect(handle, 8, count, &calls));
    EXPECT_EQ(0, calls) << "called from inside a call";
    run_until([&] { return calls == 2; });
    settle();
    EXPECT_EQ(2, calls);
    EXPECT_EQ(handle, seen);
}

// Who begins to follow has the table read for him, which may take several turns when it is large. What is written
// meanwhile is heard as at any other time: each change once, in its order, with all that the record held then.
TEST_F(Following, WhoBeginsToFollowWhileTwoWriteTheSameRecordsHearsEachOfTheirStatesInOrder)
{
    constexpr int32_t OTHERS = 4000, RECORDS = 8;
    auto *asker = open();
    auto *answerer = open();
    auto *follower = open();
    for (int32_t i = 0; i < OTHERS; ++i)
        ASSERT_EQ(0, hmset(asker, {.keyid = RECORDS + i, .request_value = 1}, {6}));
    settle();
    listener hears;
    int32_t round = 0;
    const auto write_on = [&](int32_t end) {
        while (round < end) {
            ++round;
            for (int32_t i = 0; i < RECORDS; ++i) {
                ASSERT_EQ(0, hmset(asker, {.keyid = i, .request_value = round}, {6}));
                ASSERT_EQ(0, hmset(answerer, {.keyid = i, .reply_value = round}, {10}));
            }
            pass_time(1);
        }
    };
    write_on(20);
    follow(follower, any_session(), hears);
    write_on(200);
    settle();
    std::map<int32_t, std::vector<int32_t>> states;
    for (const session &each : sessions(hears.changes()))
        states[each.keyid].push_back(state_by_two_hands(each));
    ASSERT_EQ(static_cast<size_t>(RECORDS), states.size());
    for (const auto &[keyid, heard] : states) {
        EXPECT_EQ(2 * round, heard.back());
        EXPECT_EQ(static_cast<size_t>(heard.back() - heard.front() + 1), heard.size());
        EXPECT_TRUE(std::ranges::is_sorted(heard));
    }
    EXPECT_EQ(static_cast<size_t>(OTHERS + RECORDS), scan(follower, any_session()).size());
}

}  // namespace contract
