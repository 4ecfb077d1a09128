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

TEST_F(StoreContract, NumbersOfAllSizesComeBackAsTheyWereWritten)
{
    auto *writer = open();
    listener hears;
    follow(open(), any_session(), hears);
    std::vector<session> written;
    for (const int32_t value : {1, 127, 128, 16383, 16384, INT32_MAX, -1, -128, INT32_MIN, 0}) {
        written.push_back({.request_value = value, .reply_value = value});
        ASSERT_EQ(0, hmset(writer, written.back(), {6, 10}));
    }
    settle();
    EXPECT_EQ(written, sessions(hears.changes()));
    EXPECT_EQ(std::vector<session>{written.back()}, scan(writer, any_session()));
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

TEST_F(StoreContract, AWriterThatFollowsHearsEachChangeBeforeItsAnswerAndAnswersInCallOrder)
{
    auto *writer = open();
    listener hears;
    follow(writer, any_session(), hears);
    const std::vector<uint32_t> field{6};
    for (int32_t n = 0; n < 200; ++n) {
        const session_record record({.keyid = n % 7, .request_value = n});
        ASSERT_EQ(0, qz_mom_hmset(writer, app_db, record.message(), field.data(), 1, listener::hear, &hears));
    }
    settle();
    size_t changes = 0, answers = 0;
    for (const heard &each : hears.all) {
        if (each.cmd == QZ_MOM_CMD_HSET) {
            ++changes;
        } else if (each.cmd == QZ_MOM_CMD_NONE) {
            EXPECT_EQ("u_bridge.evlan_session:app:32:" + std::to_string(answers % 7), each.key);
            EXPECT_LE(++answers, changes);
        }
    }
    EXPECT_EQ(200u, answers);
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
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
    ASSERT_EQ(1u, found.changes().size());
    const auto &record = reinterpret_cast<const UBridge__EvlanSessionRange &>(*found.changes()[0].record);
    EXPECT_EQ(U_BRIDGE__EVLAN_TYPE__VXLAN, record.index);
    EXPECT_EQ(5, record.evlan_id_min);
    EXPECT_EQ("u_bridge.evlan_session_range:32", found.changes()[0].key);
}

// A match rule whose addresses are not set, each in one of the ways in which that can be said.
class addressless_rule
{
  public:
    enum bytes_form { absent, empty, zeros };
    enum ip_form { no_ip, no_form, zero_v4 };

    addressless_rule(bytes_form mac, bytes_form mask, ip_form ip)
    {
        entry.index = &index_;
        index_.t_user = name_;
        index_.mac = of(mac, mac_);
        index_.mask = of(mask, mask_);
        index_.ip = ip == no_ip ? nullptr : &ip_;
        if (ip == zero_v4) {
            ip_.ip_case = P_LIBPUB__IP__IP_V4;
            ip_.v4 = &v4_;
        }
    }
    addressless_rule(const addressless_rule &) = delete;
    addressless_rule &operator=(const addressless_rule &) = delete;

    // All there are, as long as the test runs.
    static const std::vector<std::unique_ptr<addressless_rule>> &all()
    {
        static const auto *rules = [] {
            auto *made = new std::vector<std::unique_ptr<addressless_rule>>;
            for (const bytes_form mac : {absent, empty, zeros})
                for (const bytes_form mask : {absent, empty, zeros})
                    for (const ip_form ip : {no_ip, no_form, zero_v4})
                        made->push_back(std::make_unique<addressless_rule>(mac, mask, ip));
            return made;
        }();
        return *rules;
    }

    void set_number(int32_t number) { index_.match_id = number; }
    const ProtobufCMessage *message() const { return &entry.base; }
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;

  private:
    PLibpub__Mac *of(bytes_form form, PLibpub__Mac &message)
    {
        if (form == zeros)
            message.data = {sizeof zeros_, zeros_};
        return form == absent ? nullptr : &message;
    }

    char name_[4] = "app";
    uint8_t zeros_[6] = {};
    PLibpub__Mac mac_ = P_LIBPUB__MAC__INIT, mask_ = P_LIBPUB__MAC__INIT;
    PLibpub__Ip ip_ = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4_ = P_LIBPUB__IPV4__INIT;
    UBridge__EmatchIndex index_ = U_BRIDGE__EMATCH_INDEX__INIT;
};

class RuleContract : public StoreContract
{
  protected:
    // The rules of the store, in the order of their numbers.
    std::vector<UBridge__EmatchEntry> rules(qz_mom_handle *by)
    {
        listener found;
        UBridge__EmatchIndex any = U_BRIDGE__EMATCH_INDEX__INIT;
        UBridge__EmatchEntry pattern = U_BRIDGE__EMATCH_ENTRY__INIT;
        pattern.index = &any;
        EXPECT_EQ(0, qz_mom_scan(by, app_db, &pattern.base, 0, listener::hear, &found));
        run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
        found_ = found.changes();
        std::vector<UBridge__EmatchEntry> entries;
        for (const heard &each : found_)
            entries.push_back(reinterpret_cast<const UBridge__EmatchEntry &>(*each.record));
        std::sort(entries.begin(), entries.end(),
                  [](const auto &a, const auto &b) { return a.index->match_id < b.index->match_id; });
        return entries;
    }

  private:
    std::vector<heard> found_;  // keeps what the entries point to
};

// Addresses that are not set name the same record, however "not set" is written.
TEST_F(RuleContract, ZeroAddressAndNoAddressAreTheSameKey)
{
    auto *writer = open();
    int32_t written = 0;
    for (const auto &rule : addressless_rule::all()) {
        rule->entry.new_evlan1 = ++written;
        ASSERT_EQ(0, qz_mom_set(writer, app_db, rule->message(), nullptr, nullptr));
    }
    const auto found = rules(writer);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(27, written);
    EXPECT_EQ(27, found[0].new_evlan1);
}

// The owner of a rule says so in one way, whoever writes its result in another.
TEST_F(RuleContract, ResultReachesTheRuleHoweverItsMissingAddressesAreWritten)
{
    auto *writer = open();
    listener hears;
    addressless_rule pattern(addressless_rule::absent, addressless_rule::absent, addressless_rule::no_ip);
    const uint32_t rule_field = 11, result_field = 30;
    const qz_mom_msg_cb hear = listener::hear;
    void *const to = &hears;
    ASSERT_EQ(0, qz_mom_subscribe_field(writer, app_db, pattern.message(), 0, &result_field, &hear, &to, 1));
    run_until([&] { return hears.count(QZ_MOM_CMD_SUBSCRIBED) == 1; });
    int32_t number = 0;
    for (const auto &by_owner : addressless_rule::all()) {
        for (const auto &by_decider : addressless_rule::all()) {
            by_owner->set_number(++number);
            by_owner->entry.new_evlan1 = number;
            ASSERT_EQ(0, qz_mom_hmset(writer, app_db, by_owner->message(), &rule_field, 1, nullptr, nullptr));
            by_decider->set_number(number);
            by_decider->entry.result = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
            ASSERT_EQ(0, qz_mom_hmupdate(writer, app_db, by_decider->message(), &result_field, 1, nullptr, nullptr));
        }
        settle();
    }
    const auto found = rules(writer);
    ASSERT_EQ(27u * 27u, found.size());
    EXPECT_EQ(found.size(), hears.changes().size());
    for (size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(static_cast<int32_t>(i) + 1, found[i].new_evlan1);
        EXPECT_EQ(U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY, found[i].result);
    }
}

TEST_F(RuleContract, RuleIsRewrittenAndRemovedHoweverItsMissingAddressesAreWritten)
{
    auto *writer = open();
    const uint32_t rule_field = 11;
    int32_t written = 0;
    for (const auto &rule : addressless_rule::all()) {
        rule->set_number(0);
        rule->entry.new_evlan1 = ++written;
        ASSERT_EQ(0, qz_mom_hmset(writer, app_db, rule->message(), &rule_field, 1, nullptr, nullptr));
    }
    const auto found = rules(writer);
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(27, found[0].new_evlan1);
    for (const auto &rule : addressless_rule::all()) {
        const addressless_rule whole(addressless_rule::zeros, addressless_rule::zeros, addressless_rule::zero_v4);
        ASSERT_EQ(0, qz_mom_hmset(writer, app_db, whole.message(), &rule_field, 1, nullptr, nullptr));
        ASSERT_EQ(0, qz_mom_del(writer, app_db, rule->message(), nullptr, nullptr));
        EXPECT_TRUE(rules(writer).empty());
    }
}

}  // namespace contract
