// Writes: order, wholeness, answers, and what subscribers hear of them.
#include <algorithm>

#include "store_fixture.hpp"

namespace contract
{

class StoreContract : public StoreTest
{
};

TEST_F(StoreContract, RequestAndReplyShareOneRecord)
{
    auto *asker = open();
    auto *answerer = open();
    listener hears;
    follow(asker, any_session(), hears);
    EXPECT_EQ(0, hmset(asker, {.keyid = 7, .request_value = 0x20000000, .request = 1}, {6, 7, 8}));
    EXPECT_EQ(0, hmset(answerer, {.keyid = 7, .reply_value = 0x20000001, .reply = 1}, {10, 11}));
    settle();
    const session asked{.keyid = 7, .request_value = 0x20000000, .request = 1};
    session answered = asked;
    answered.reply_value = 0x20000001;
    answered.reply = 1;
    EXPECT_EQ((std::vector<session>{asked, answered}), sessions(hears.changes()));
    EXPECT_EQ(std::vector<session>{answered}, scan(answerer, any_session()));
}

TEST_F(StoreContract, WritesOfOneHandleAreHeardByAllInCallOrder)
{
    auto *writer = open();
    std::vector<listener> hear(3);
    for (auto &each : hear)
        follow(open(), any_session(), each);
    for (int32_t value = 1; value <= 500; ++value)
        ASSERT_EQ(0, hmset(writer, {.request_value = value}, {6}));
    settle();
    for (const auto &each : hear) {
        const auto all = sessions(each.changes());
        ASSERT_EQ(500u, all.size());
        for (int32_t value = 1; value <= 500; ++value)
            EXPECT_EQ(value, all[static_cast<size_t>(value) - 1].request_value);
    }
}

TEST_F(StoreContract, SeveralFieldsAreSeenTogether)
{
    auto *writer = open();
    listener hears;
    follow(open(), any_session(), hears);
    hmset(writer, {.request_value = 1, .request = 1, .reply_value = 1, .reply = 1}, {6, 8, 10, 11});
    hmset(writer, {.request_value = 2, .request = 2, .reply_value = 2, .reply = 2}, {6, 8, 10, 11});
    settle();
    for (const auto &each : sessions(hears.changes())) {
        EXPECT_EQ(each.request_value, each.request);
        EXPECT_EQ(each.request_value, each.reply_value);
        EXPECT_EQ(each.request_value, each.reply);
    }
    EXPECT_EQ(2u, hears.changes().size());
}

TEST_F(StoreContract, NotificationNamesDatabaseKeyAndFields)
{
    auto *writer = open();
    listener hears;
    follow(writer, any_session(), hears);
    hmset(writer, {.keyid = 7, .request_value = 1}, {6, 7, 8});
    hmset(writer, {.keyid = 7, .request_value = 2}, {6});
    settle();
    const auto all = hears.changes();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(app_db, all[0].db);
    EXPECT_EQ("u_bridge.evlan_session:app:32:7", all[0].key);
    EXPECT_EQ("request_value,priority,request", all[0].field);
    EXPECT_EQ(QZ_MOM_CMD_HMSET, all[0].cmd);
    EXPECT_EQ("request_value", all[1].field);
    EXPECT_EQ(QZ_MOM_CMD_HSET, all[1].cmd);
    EXPECT_EQ(0, all[1].error);
}

TEST_F(StoreContract, FieldNamedTwiceCountsOnce)
{
    auto *writer = open();
    listener hears;
    follow(writer, any_session(), hears);
    hmset(writer, {.request_value = 2}, {6, 6});
    settle();
    ASSERT_EQ(1u, hears.changes().size());
    EXPECT_EQ("request_value", hears.changes()[0].field);
    EXPECT_EQ(QZ_MOM_CMD_HSET, hears.changes()[0].cmd);
}

TEST_F(StoreContract, OnlyNamedFieldsAreWritten)
{
    auto *writer = open();
    hmset(writer, {.request_value = 1, .request = 1, .reply_value = 99, .reply = 99}, {6, 8});
    settle();
    EXPECT_EQ((std::vector<session>{{.request_value = 1, .request = 1}}), scan(writer, any_session()));
}

TEST_F(StoreContract, FieldAtItsDefaultOverwrites)
{
    auto *writer = open();
    hmset(writer, {.request_value = 1, .request = 1}, {6, 8});
    hmset(writer, {.request_value = 0}, {6});
    settle();
    EXPECT_EQ((std::vector<session>{{.request = 1}}), scan(writer, any_session()));
}

TEST_F(StoreContract, SameUserInOtherDatabaseIsAnotherRecord)
{
    auto *writer = open();
    const session_record here({.request_value = 1});
    const uint32_t fields[] = {6};
    EXPECT_EQ(0, qz_mom_hmset(writer, 8, here.message(), fields, 1, nullptr, nullptr));
    settle();
    EXPECT_TRUE(scan(writer, any_session()).empty());
    EXPECT_EQ(0, qz_mom_del(writer, 8, here.message(), nullptr, nullptr));
}

TEST_F(StoreContract, WholeRecordIsReplacedAndHeardAsWritten)
{
    auto *writer = open();
    listener hears;
    follow_evlans(writer, hears);
    evlan_record first("app", 5, 77);
    UBridge__EvlanAttrUnderlay underlay = U_BRIDGE__EVLAN_ATTR_UNDERLAY__INIT;
    underlay.fid = 9;
    (*first).attr_case = U_BRIDGE__EVLAN__ATTR_UNDERLAY;
    (*first).underlay = &underlay;
    EXPECT_EQ(0, set(writer, first));
    EXPECT_EQ(0, set(writer, evlan_record("app", 5)));
    settle();
    const auto all = hears.changes();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(QZ_MOM_CMD_SET, all[0].cmd);
    const auto &before = reinterpret_cast<const UBridge__Evlan &>(*all[0].record);
    EXPECT_STREQ("app", before.index->t_user);
    EXPECT_EQ(5, before.index->evlan_id);
    EXPECT_EQ(77, before.class_id);
    ASSERT_EQ(U_BRIDGE__EVLAN__ATTR_UNDERLAY, before.attr_case);
    EXPECT_EQ(9, before.underlay->fid);
    const auto &after = reinterpret_cast<const UBridge__Evlan &>(*all[1].record);
    EXPECT_EQ(0, after.class_id);
    EXPECT_EQ(U_BRIDGE__EVLAN__ATTR__NOT_SET, after.attr_case);
}

TEST_F(StoreContract, WritingOneCaseOfAChoiceClearsTheOther)
{
    auto *writer = open();
    listener hears;
    follow_evlans(writer, hears);
    evlan_record written("app", 5);
    UBridge__EvlanAttrUnderlay underlay = U_BRIDGE__EVLAN_ATTR_UNDERLAY__INIT;
    underlay.fid = 9;
    UBridge__EvlanAttrOverlay overlay = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    overlay.vnid = 100;
    const uint32_t overlay_field = 9;
    (*written).attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
    (*written).overlay = &overlay;
    qz_mom_hmset(writer, app_db, written.message(), &overlay_field, 1, nullptr, nullptr);
    const uint32_t underlay_fields[] = {8, 9};
    (*written).attr_case = U_BRIDGE__EVLAN__ATTR_UNDERLAY;
    (*written).underlay = &underlay;
    qz_mom_hmset(writer, app_db, written.message(), underlay_fields, 1, nullptr, nullptr);
    qz_mom_hmset(writer, app_db, written.message(), underlay_fields, 2, nullptr, nullptr);
    settle();
    const auto all = hears.changes();
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ(100, reinterpret_cast<const UBridge__Evlan &>(*all[0].record).overlay->vnid);
    for (const auto &after : {all[1], all[2]}) {
        const auto &evlan = reinterpret_cast<const UBridge__Evlan &>(*after.record);
        ASSERT_EQ(U_BRIDGE__EVLAN__ATTR_UNDERLAY, evlan.attr_case);
        EXPECT_EQ(9, evlan.underlay->fid);
    }
}

TEST_F(StoreContract, RemovalCarriesTheRecordAsItLastWas)
{
    auto *writer = open();
    listener hears;
    follow(open(), any_session(), hears);
    const session last{.keyid = 7, .request_value = 3, .request = 1, .reply_value = 4, .reply = 1};
    hmset(writer, last, {6, 8, 10, 11});
    del(writer, {.keyid = 7});
    settle();
    const auto all = hears.changes();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(QZ_MOM_CMD_DEL, all[1].cmd);
    EXPECT_EQ("", all[1].field);
    EXPECT_EQ(last, sessions(all)[1]);
    EXPECT_TRUE(scan(writer, any_session()).empty());
}

TEST_F(StoreContract, RemovingWhatIsNotThereIsNoFailureAndNotHeard)
{
    auto *writer = open();
    listener hears, answer;
    follow(writer, any_session(), hears);
    EXPECT_EQ(0, qz_mom_del(writer, app_db, session_record({.keyid = 7}).message(), listener::hear, &answer));
    settle();
    EXPECT_TRUE(hears.changes().empty());
    ASSERT_EQ(1u, answer.all.size());
    EXPECT_EQ(0, answer.all[0].error);
}

TEST_F(StoreContract, UpdateWritesNothingWhereNoRecordIs)
{
    auto *writer = open();
    listener hears, answer;
    follow(writer, any_session(), hears);
    const uint32_t fields[] = {10, 11};
    EXPECT_EQ(
        0, qz_mom_hmupdate(writer, app_db, session_record({.reply = 1}).message(), fields, 2, listener::hear, &answer));
    settle();
    EXPECT_TRUE(hears.changes().empty());
    EXPECT_TRUE(scan(writer, any_session()).empty());
    ASSERT_EQ(1u, answer.all.size());
    EXPECT_EQ(0, answer.all[0].error);
}

TEST_F(StoreContract, UpdateOfARecordIsHeardLikeAnyWrite)
{
    auto *writer = open();
    listener hears;
    follow(writer, any_session(), hears);
    hmset(writer, {.request_value = 5}, {6});
    hmupdate(writer, {.reply_value = 6, .reply = 1}, {10, 11});
    settle();
    EXPECT_EQ((std::vector<session>{{.request_value = 5}, {.request_value = 5, .reply_value = 6, .reply = 1}}),
              sessions(hears.changes()));
    EXPECT_EQ(QZ_MOM_CMD_HMSET, hears.changes()[1].cmd);
}

TEST_F(StoreContract, EveryWriteAnswersOnceWithCommandZeroAndItsKey)
{
    auto *writer = open();
    listener answers;
    const session_record record({.keyid = 7});
    const uint32_t fields[] = {6};
    qz_mom_hmset(writer, app_db, record.message(), fields, 1, listener::hear, &answers);
    qz_mom_hmupdate(writer, app_db, record.message(), fields, 1, listener::hear, &answers);
    qz_mom_clear_expire(writer, app_db, record.message(), listener::hear, &answers);
    qz_mom_del(writer, app_db, record.message(), listener::hear, &answers);
    qz_mom_set(writer, app_db, record.message(), listener::hear, &answers);
    EXPECT_TRUE(answers.all.empty()) << "called from inside a call";
    settle();
    ASSERT_EQ(5u, answers.all.size());
    for (const auto &each : answers.all) {
        EXPECT_EQ(QZ_MOM_CMD_NONE, each.cmd);
        EXPECT_EQ(0, each.error);
        EXPECT_EQ(QZ_MOM_END_NONE, each.end);
        EXPECT_EQ("u_bridge.evlan_session:app:32:7", each.key);
        EXPECT_EQ(nullptr, each.record);
    }
}

// A store may refuse at once, or accept and tell the callback; either way the record stays as it was.
TEST_F(StoreContract, RecordKeepsTheFormInWhichItWasWritten)
{
    auto *writer = open();
    const uint32_t fields[] = {6};
    const auto refused = [&](const std::function<int32_t(listener &)> &call) {
        listener answer;
        int32_t code = call(answer);
        settle();
        if (code == 0 && answer.all.size() == 1)
            code = answer.all[0].error;
        return code;
    };
    const session_record hash({.keyid = 1, .request_value = 1});
    const session_record whole({.keyid = 2, .request_value = 2});
    ASSERT_EQ(0, qz_mom_hmset(writer, app_db, hash.message(), fields, 1, nullptr, nullptr));
    ASSERT_EQ(0, qz_mom_set(writer, app_db, whole.message(), nullptr, nullptr));
    listener hears;
    follow(writer, any_session(), hears);
    EXPECT_EQ(QZ_MOM_EFORM,
              refused([&](listener &to) { return qz_mom_set(writer, app_db, hash.message(), listener::hear, &to); }));
    EXPECT_EQ(QZ_MOM_EFORM, refused([&](listener &to) {
                  return qz_mom_hmset(writer, app_db, whole.message(), fields, 1, listener::hear, &to);
              }));
    EXPECT_EQ(QZ_MOM_EFORM, refused([&](listener &to) {
                  return qz_mom_hmupdate(writer, app_db, whole.message(), fields, 1, listener::hear, &to);
              }));
    EXPECT_TRUE(hears.changes().empty());
}

TEST_F(StoreContract, ArgumentsAreReadDuringTheCallOnly)
{
    auto *writer = open();
    listener hears;
    {
        const auto pattern = std::make_unique<session_record>(any_session());
        qz_mom_subscribe(writer, app_db, pattern->message(), 0, listener::hear, &hears);
        const auto record = std::make_unique<session_record>(session{.user = "a user of some length", .request = 1});
        const auto fields = std::make_unique<uint32_t>(8);
        qz_mom_hmset(writer, app_db, record->message(), fields.get(), 1, nullptr, nullptr);
    }
    settle();
    EXPECT_EQ((std::vector<session>{{.user = "a user of some length", .request = 1}}), sessions(hears.changes()));
}

TEST_F(StoreContract, NoticesWithoutKeyAreOneRecordEach)
{
    auto *writer = open();
    listener hears;
    UBridge__VlanEnd pattern = U_BRIDGE__VLAN_END__INIT;
    EXPECT_EQ(0, qz_mom_subscribe(writer, app_db, &pattern.base, 0, listener::hear, &hears));
    UBridge__VlanEnd notice = U_BRIDGE__VLAN_END__INIT;
    notice.timestamp = UINT64_MAX;
    notice.end = 1;
    EXPECT_EQ(0, qz_mom_set(writer, app_db, &notice.base, nullptr, nullptr));
    settle();
    ASSERT_EQ(1u, hears.changes().size());
    EXPECT_EQ("u_bridge.vlan_end", hears.changes()[0].key);
    const void *heard = hears.changes()[0].record.get();
    EXPECT_EQ(UINT64_MAX, static_cast<const UBridge__VlanEnd *>(heard)->timestamp);
    EXPECT_EQ(0, qz_mom_del(writer, app_db, &notice.base, nullptr, nullptr));
    settle();
    EXPECT_EQ(1u, hears.count(QZ_MOM_CMD_DEL));
}

TEST_F(StoreContract, KeyMayBeABareNumber)
{
    auto *writer = open();
    UBridge__EvlanSessionRange range = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    range.index = U_BRIDGE__EVLAN_TYPE__VXLAN;
    range.evlan_id_min = 5;
    const uint32_t fields[] = {6};
    EXPECT_EQ(0, qz_mom_hmset(writer, app_db, &range.base, fields, 1, nullptr, nullptr));
    UBridge__EvlanSessionRange pattern = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    pattern.index = U_BRIDGE__EVLAN_TYPE__VXLAN;
    listener found;
    EXPECT_EQ(0, qz_mom_scan(writer, app_db, &pattern.base, 0, listener::hear, &found));
    settle();
    ASSERT_EQ(1u, found.changes().size());
    const auto &record = reinterpret_cast<const UBridge__EvlanSessionRange &>(*found.changes()[0].record);
    EXPECT_EQ(U_BRIDGE__EVLAN_TYPE__VXLAN, record.index);
    EXPECT_EQ(5, record.evlan_id_min);
    EXPECT_EQ("u_bridge.evlan_session_range:32", found.changes()[0].key);
}

// Addresses that are not set name the same record, however "not set" is written.
TEST_F(StoreContract, ZeroAddressAndNoAddressAreTheSameKey)
{
    auto *writer = open();
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    entry.index = &index;
    entry.new_evlan1 = 1;
    ASSERT_EQ(0, qz_mom_set(writer, app_db, &entry.base, nullptr, nullptr));
    uint8_t zeros[6] = {};
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {sizeof zeros, zeros};
    index.mac = &mac;
    entry.new_evlan1 = 2;
    ASSERT_EQ(0, qz_mom_set(writer, app_db, &entry.base, nullptr, nullptr));
    listener found;
    qz_mom_scan(writer, app_db, &entry.base, 0, listener::hear, &found);
    settle();
    ASSERT_EQ(1u, found.changes().size());
    EXPECT_EQ(2, reinterpret_cast<const UBridge__EmatchEntry &>(*found.changes()[0].record).new_evlan1);
}

}  // namespace contract
