// "ebridge show ematch": rules in words, what came of each, and the program on a real server.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>

#include "child.hpp"
#include "qz_mom.h"
#include "redis_server.hpp"
#include "rule_words.hpp"
#include "rules.hpp"
#include "show_ematch.hpp"
#include "show_program.hpp"
#include "store_link.hpp"
#include "verdicts.hpp"

using namespace ebridge_tool;
using namespace road;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace
{

constexpr int32_t SUCCESS = U_BRIDGE__MATCH_RESULT__SUCCESS;
constexpr int32_t LOST = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
constexpr int32_t NO_ROOM = U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH;

// A port with an outer VLAN, sent to an evlan.
sw_ematch_item port_rule(int32_t vlan, int32_t priority, int32_t result)
{
    sw_ematch_item item{};
    item.match_type = U_BRIDGE__MATCH_TYPE__PORT_OVID;
    item.match_flag = U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS;
    item.match_priority = priority;
    item.evlan1 = vlan;
    item.eport = 0x10000001;
    item.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN;
    item.new_evlan1 = 0x20000001;
    item.result = result;
    return item;
}

void set_ip(sw_ematch_item *item, const char *text)
{
    item->ip_ver = std::strchr(text, ':') ? 1 : 0;
    ASSERT_EQ(inet_pton(item->ip_ver ? AF_INET6 : AF_INET, text, item->ip), 1);
}

uint32_t v4(const char *text)
{
    uint32_t word = 0;
    EXPECT_EQ(inet_pton(AF_INET, text, &word), 1);
    return word;
}

// "name text, name text".
std::string joined(const std::vector<rule_field> &fields)
{
    std::string text;
    for (const rule_field &field : fields)
        text += (text.empty() ? "" : ", ") + std::string(field.name) + ' ' + field.text;
    return text;
}

// "user state", and "<user" whom it lost to, for each rule of a key.
std::vector<std::string> states(const judged_key &key)
{
    constexpr const char *NAMES[] = {"holds", "lost", "no room", "undecided", "not compared", "ignored"};
    std::vector<std::string> result;
    for (const judged_rule &of : key.rules)
        result.push_back(of.rule.user + ' ' + NAMES[static_cast<size_t>(of.state)] +
                         (of.lost_to ? '<' + of.lost_to->user : ""));
    return result;
}

// Three users, in the order in which the registry of this process walks them.
std::vector<std::string> three_users()
{
    std::vector<std::string> users = {"acl", "mirror", "qos"};
    const walk_order order(users);
    std::ranges::sort(users, {}, [&](const std::string &user) { return order.place(user); });
    return users;
}

// One key, and its only judgement.
judged_key judge_one(const std::vector<match_rule> &rules)
{
    const std::vector<judged_key> keys = judge(rules, "");
    EXPECT_EQ(keys.size(), 1U);
    return keys.empty() ? judged_key{} : keys[0];
}

// A rule as a record of its user, with its result.
class owned_rule
{
  public:
    owned_rule(const std::string &user, const sw_ematch_item &rule) : item_(rule)
    {
        user.copy(owner_.user_name, sizeof owner_.user_name - 1);
        item_.user = &owner_;
        item_.current_result = rule.result;
        key_.emplace(item_);
        entry_ = *reinterpret_cast<const UBridge__EmatchEntry *>(key_->message());
        EXPECT_EQ(sw_ematch_copy_entry(&entry_, &item_, 0), 0);
    }
    owned_rule(const owned_rule &) = delete;
    owned_rule &operator=(const owned_rule &) = delete;

    const ProtobufCMessage *record() const { return &entry_.base; }

  private:
    sw_ebridge_list_item owner_{};
    sw_ematch_item item_;
    std::optional<ebridged::rule_record> key_{};  // and the result
    UBridge__EmatchEntry entry_{};                // and the action
};

// Writes rules into a store, as their users and a deciding service do, and hears verdicts.
class rule_writer
{
  public:
    explicit rule_writer(const std::string &url)
    {
        const uint32_t databases[] = {4, 5};
        std::string error;
        EXPECT_EQ(link_.open(url, databases, &error), 0) << error;
    }

    // Without a verdict.
    void publish(const std::string &user, const sw_ematch_item &item, uint32_t db = 4)
    {
        publish(owned_rule(user, item).record(), db);
    }
    void publish(const ProtobufCMessage *record, uint32_t db)
    {
        constexpr uint32_t FIELDS[] = {6, 11, 12, 14, 15, 16, 17, 18};
        call([&] { return qz_mom_hmset(handle(), db, record, FIELDS, std::size(FIELDS), on_written, this); });
    }
    void write(const std::string &user, const sw_ematch_item &item, uint32_t db = 4)
    {
        const owned_rule of(user, item);
        publish(of.record(), db);
        call([&] { return qz_mom_hmupdate(handle(), db, of.record(), &RESULT, 1, on_written, this); });
    }
    void remove(const std::string &user, const sw_ematch_item &item)
    {
        const owned_rule of(user, item);
        call([&] { return qz_mom_del(handle(), 4, of.record(), on_written, this); });
    }
    void wait()
    {
        EXPECT_TRUE(link_.wait_until([this] { return written_ == called_; }, PATIENCE));
    }

    void listen()
    {
        const qz_mom_msg_cb callback = on_verdict;
        void *const self = this;
        ASSERT_EQ(qz_mom_subscribe_field(handle(), 4, &ebridged::all_rules().base, 0, &RESULT, &callback, &self, 1), 0);
    }
    // Waits for another verdict until the condition holds.
    bool listen_until(const std::function<bool()> &condition)
    {
        for (;;) {
            const size_t before = heard_;
            if (condition())
                return true;
            if (!link_.wait_until([&] { return heard_ > before; }, PATIENCE))
                return false;
        }
    }

  private:
    static constexpr int64_t PATIENCE = 30'000'000;
    static constexpr uint32_t RESULT = 30;

    qz_mom_handle *handle() const { return link_.handle(); }
    void call(const std::function<int32_t()> &write)
    {
        ASSERT_EQ(link_.patiently(write, PATIENCE), 0);
        ++called_;
        if (called_ - written_ > 1000)
            wait();
    }
    static int32_t on_written(qz_mom_handle *, const qz_mom_notification *msg, void *self)
    {
        EXPECT_EQ(msg->error, 0);
        ++static_cast<rule_writer *>(self)->written_;
        static_cast<rule_writer *>(self)->link_.happened();
        return 0;
    }
    static int32_t on_verdict(qz_mom_handle *, const qz_mom_notification *, void *self)
    {
        ++static_cast<rule_writer *>(self)->heard_;
        static_cast<rule_writer *>(self)->link_.happened();
        return 0;
    }

    store_link link_{};
    size_t called_ = 0;
    size_t written_ = 0;
    size_t heard_ = 0;
};

std::vector<match_rule> read(const ematch_query &query)
{
    std::vector<match_rule> rules;
    std::string error;
    EXPECT_EQ(read_match_rules(query, &rules, &error), 0) << error;
    return rules;
}

outcome show_ematch(std::vector<std::string> arguments) { return show("ematch", std::move(arguments)); }

}  // namespace

// ---- rules in words -------------------------------------------------------------------------------------------------

TEST(RuleWords, AKeyIsToldByTheFieldsThatAreSet)
{
    EXPECT_EQ(joined(key_fields({})), "");
    EXPECT_EQ(joined(key_fields(port_rule(10, 5, SUCCESS))), "in-port 0x10000001, ovid 10");

    sw_ematch_item all{};
    all.match_type = U_BRIDGE__MATCH_TYPE__LABEL;
    all.match_flag = U_BRIDGE__MATCH_FLAG__EMATCH_EGRESS;
    all.eport = 0x1c000001;
    all.evlan1 = 4095;
    all.evlan2 = 0x10001000;
    all.ether_type = 0x800;
    all.frame_type = 3;
    all.ipv4 = v4("10.0.0.1");
    all.ip_mask = v4("255.0.255.0");
    const uint8_t mac[8] = {0, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    std::ranges::copy(mac, all.mac);
    all.mask[0] = 0xff;
    set_ip(&all, "2001:db8::1");
    all.vnid = 5010;
    all.label = -1;
    all.match_id = 7;
    EXPECT_EQ(
        joined(key_fields(all)),
        "out-port 0x1c000001, ovid 4095, ivid 0x10001000, ether-type 0x0800, frame-type 3, ip 2001:db8::1, ipv4 "
        "10.0.0.1, ip-mask 255.0.255.0, mac 00:11:22:aa:bb:cc, mac-mask ff:00:00:00:00:00, vnid 5010, label -1, id 7");
}

TEST(RuleWords, AddressesHaveTheNamesThatTheirTypeGivesThem)
{
    struct row {
        UBridge__MatchType type;
        const char *ip;
        const char *ipv4;
        const char *mask;
        const char *text;
    };
    const row rows[] = {
        {U_BRIDGE__MATCH_TYPE__SIP, "10.0.0.1", nullptr, nullptr, "source 10.0.0.1"},
        {U_BRIDGE__MATCH_TYPE__SIP, "2001:db8::1", nullptr, nullptr, "source 2001:db8::1"},
        {U_BRIDGE__MATCH_TYPE__DIP, "10.0.0.1", nullptr, nullptr, "destination 10.0.0.1"},
        {U_BRIDGE__MATCH_TYPE__SIP_DIP, "10.0.0.1", "10.0.0.2", nullptr, "source 10.0.0.1, destination 10.0.0.2"},
        {U_BRIDGE__MATCH_TYPE__IP_MASK, "10.0.0.0", nullptr, "255.0.0.0", "source 10.0.0.0/8"},
        {U_BRIDGE__MATCH_TYPE__IP_MASK, nullptr, "10.1.0.0", "255.255.0.0", "destination 10.1.0.0/16"},
        {U_BRIDGE__MATCH_TYPE__IP_MASK, nullptr, nullptr, "128.0.0.0", "source 0.0.0.0/1"},
        {U_BRIDGE__MATCH_TYPE__IP_MASK, "10.0.0.1", nullptr, "255.255.255.255", "source 10.0.0.1/32"},
        {U_BRIDGE__MATCH_TYPE__IP_MASK, "10.0.0.1", nullptr, "0.0.0.255", "source 10.0.0.1, ip-mask 0.0.0.255"},
        {U_BRIDGE__MATCH_TYPE__OVID, nullptr, nullptr, "255.0.0.0", "ip-mask 255.0.0.0"},
    };
    for (const row &of : rows) {
        sw_ematch_item item{};
        item.match_type = of.type;
        if (of.ip)
            set_ip(&item, of.ip);
        item.ipv4 = of.ipv4 ? v4(of.ipv4) : 0;
        item.ip_mask = of.mask ? v4(of.mask) : 0;
        EXPECT_EQ(joined(key_fields(item)), of.text);
    }
}

TEST(RuleWords, TypesFlagsAndActionsHaveTheirNamesOrTheirNumbers)
{
    EXPECT_EQ(match_type_name(9), "PORT_OVID_IVID");
    EXPECT_EQ(match_type_name(99), "99");
    EXPECT_EQ(action_name(3), "TO_EVLAN");
    EXPECT_EQ(result_name(1), "FAIL_PRIORITY");
    EXPECT_EQ(result_name(9), "9");
    EXPECT_THAT(match_flag_names(0), IsEmpty());
    EXPECT_THAT(match_flag_names(1 | 8 | 256 | 0x8000), ElementsAre("ingress", "vxlan", "l3_subif", "0x8000"));
    EXPECT_EQ(match_type_of("port_ovid"), 7);
    EXPECT_EQ(match_type_of("EMATCH_PORT"), 1);
    EXPECT_EQ(match_type_of("24"), 24);
    for (const char *text : {"", "25", "-1", "7x", "PORT", "port ovid"})
        EXPECT_EQ(match_type_of(text), std::nullopt) << text;

    sw_ematch_item item{};
    EXPECT_EQ(joined(action_fields(item)), "");
    item.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__ADD_OVID_IVID;
    item.new_evlan1 = 100;
    item.new_evlan2 = 200;
    item.new_eport = 0x30000002;
    item.new_vnid = 5010;
    item.new_pri = 6;
    item.l3_iif = 12;
    item.flag = U_BRIDGE__FLAG_TYPE__AP_SPLIT;
    EXPECT_EQ(joined(action_fields(item)),
              "ovid 100, ivid 200, eport 0x30000002, vnid 5010, pri 6, l3-iif 12, flag AP_SPLIT");
    item.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN;
    item.new_evlan1 = 0x20000001;
    EXPECT_THAT(joined(action_fields(item)), StartsWith("evlan 0x20000001, "));
}

// ---- what came of them ----------------------------------------------------------------------------------------------

TEST(ShowEmatch, TheThreeUsersExamplesAreExplained)
{
    const std::vector<std::string> user = three_users();
    struct row {
        int32_t priorities[3];
        int32_t results[3];
        std::vector<std::string> states;
    };
    const row rows[] = {
        {{5, 3, 2}, {SUCCESS, SUCCESS, LOST}, {user[0] + " holds", user[1] + " holds", user[2] + " lost<" + user[1]}},
        {{5, 3, 4}, {SUCCESS, LOST, SUCCESS}, {user[0] + " holds", user[1] + " lost<" + user[2], user[2] + " holds"}},
        {{4, 4, 4}, {SUCCESS, SUCCESS, LOST}, {user[0] + " holds", user[1] + " holds", user[2] + " lost<" + user[1]}},
        {{5, 3, 2}, {SUCCESS, NO_ROOM, LOST}, {user[0] + " holds", user[1] + " no room", user[2] + " lost<" + user[1]}},
    };
    for (const row &of : rows) {
        std::vector<match_rule> rules;
        for (size_t i = 0; i < 3; ++i)
            rules.push_back({user[i], port_rule(10, of.priorities[i], of.results[i])});
        for (int turn = 0; turn < 3; ++turn) {
            std::rotate(rules.begin(), rules.begin() + 1, rules.end());
            const judged_key key = judge_one(rules);
            EXPECT_EQ(key.explained, explanation::complete);
            EXPECT_THAT(states(key), testing::UnorderedElementsAreArray(of.states));
        }
    }
}

TEST(ShowEmatch, OfTwoUsersTheResultsTellWhoCameFirst)
{
    const std::vector<std::string> user = three_users();
    const judged_key as_here = judge_one({{user[0], port_rule(10, 4, SUCCESS)}, {user[1], port_rule(10, 4, LOST)}});
    EXPECT_EQ(as_here.explained, explanation::complete);
    EXPECT_THAT(states(as_here), UnorderedElementsAre(user[0] + " holds", user[1] + " lost<" + user[0]));
    const judged_key elsewhere = judge_one({{user[0], port_rule(10, 4, LOST)}, {user[1], port_rule(10, 4, SUCCESS)}});
    EXPECT_EQ(elsewhere.explained, explanation::complete);
    EXPECT_THAT(states(elsewhere), UnorderedElementsAre(user[1] + " holds", user[0] + " lost<" + user[1]));
}

// Here 4 wins over 3 and holds. It lost elsewhere, which only 5 can have done; 3 may have lost to either.
TEST(ShowEmatch, ResultsOfAnotherOrderAreExplainedByIt)
{
    const std::vector<std::string> user = three_users();
    const judged_key rising = judge_one(
        {{user[0], port_rule(10, 5, SUCCESS)}, {user[1], port_rule(10, 4, LOST)}, {user[2], port_rule(10, 3, LOST)}});
    EXPECT_EQ(rising.explained, explanation::complete);
    EXPECT_THAT(states(rising), ElementsAre(user[0] + " holds", user[1] + " lost<" + user[0], user[2] + " lost"));
}

TEST(ShowEmatch, WhereNobodyLostNobodyHasDecided)
{
    const std::vector<std::string> user = three_users();
    const judged_key two = judge_one({{user[0], port_rule(10, 4, SUCCESS)}, {user[1], port_rule(10, 5, SUCCESS)}});
    EXPECT_EQ(two.explained, explanation::none);
    EXPECT_THAT(states(two), UnorderedElementsAre(user[0] + " undecided", user[1] + " undecided"));
    const judged_key one = judge_one({{user[0], port_rule(10, 4, SUCCESS)}});
    EXPECT_EQ(one.explained, explanation::complete);
    EXPECT_THAT(states(one), ElementsAre(user[0] + " holds"));
}

TEST(ShowEmatch, ResultsOfOtherRulesAreToldAsTheyStandAndNobodyIsNamed)
{
    const std::vector<std::string> user = three_users();
    // The higher priority cannot lose to the lower; one alone cannot lose; nor can all, nor by a result that nobody knows.
    const judged_key wrong = judge_one({{user[0], port_rule(10, 5, LOST)}, {user[1], port_rule(10, 4, SUCCESS)}});
    EXPECT_EQ(wrong.explained, explanation::differs);
    EXPECT_THAT(states(wrong), ElementsAre(user[0] + " lost", user[1] + " holds"));
    const judged_key alone = judge_one({{user[0], port_rule(10, 5, LOST)}});
    EXPECT_EQ(alone.explained, explanation::differs);
    EXPECT_THAT(states(alone), ElementsAre(user[0] + " lost"));
    const judged_key all = judge_one({{user[0], port_rule(10, 5, LOST)}, {user[1], port_rule(10, 4, LOST)}});
    EXPECT_EQ(all.explained, explanation::differs);
    const judged_key unknown = judge_one({{user[0], port_rule(10, 5, 7)}, {user[1], port_rule(10, 4, LOST)}});
    EXPECT_EQ(unknown.explained, explanation::differs);
    EXPECT_THAT(states(unknown), ElementsAre(user[0] + " undecided", user[1] + " lost"));
    // A third rule has come since the two were decided.
    const judged_key third = judge_one({{user[0], port_rule(10, 5, SUCCESS)},
                                        {user[1], port_rule(10, 3, LOST)},
                                        {user[2], port_rule(10, 2, SUCCESS)}});
    EXPECT_EQ(third.explained, explanation::differs);
    EXPECT_THAT(states(third), ElementsAre(user[0] + " holds", user[1] + " lost", user[2] + " holds"));
}

TEST(ShowEmatch, OfOneUsersPrioritiesOnlyTheHighestIsCompared)
{
    const std::vector<std::string> user = three_users();
    const judged_key key = judge_one({{user[0], port_rule(10, 2, SUCCESS)},
                                      {user[0], port_rule(10, 6, SUCCESS)},
                                      {user[1], port_rule(10, 5, LOST)}});
    EXPECT_EQ(key.explained, explanation::complete);
    EXPECT_THAT(states(key), ElementsAre(user[0] + " holds", user[1] + " lost<" + user[0], user[0] + " not compared"));
}

TEST(ShowEmatch, RulesThatNobodyDecidesAreInNobodysWay)
{
    const std::string too_long(SW_EBRIDGE_NAME_SIZE, 'u');
    const judged_key key = judge_one({{"acl", port_rule(10, 8, SUCCESS)},
                                      {"acl", port_rule(10, -1, SUCCESS)},
                                      {"acl", port_rule(10, 4, LOST)},
                                      {"qos", port_rule(10, 5, SUCCESS)},
                                      {too_long, port_rule(10, 7, SUCCESS)}});
    EXPECT_EQ(key.explained, explanation::complete);
    EXPECT_THAT(states(key),
                ElementsAre("acl ignored", too_long + " ignored", "qos holds", "acl lost<qos", "acl ignored"));
    const judged_key alone = judge_one({{"acl", port_rule(10, 4, SUCCESS), false}});
    EXPECT_EQ(alone.explained, explanation::complete);
    EXPECT_THAT(states(alone), ElementsAre("acl ignored"));
}

// All that a key consists of tells keys apart; user, priority and action do not.
TEST(ShowEmatch, RulesForOtherTrafficAreOtherKeysInTheirOrder)
{
    std::vector<match_rule> rules;
    const auto add = [&](auto change) {
        sw_ematch_item item = port_rule(10, 1, SUCCESS);
        change(item);
        rules.push_back({"acl", item});
    };
    add([](auto &item) { item.match_id = 1; });
    add([](auto &item) { item.label = 1; });
    add([](auto &item) { item.vnid = 1; });
    add([](auto &item) { item.frame_type = 1; });
    add([](auto &item) { item.mask[5] = 1; });
    add([](auto &item) { item.mac[5] = 1; });
    add([](auto &item) { item.ip_mask = v4("255.0.0.0"); });
    add([](auto &item) { item.ipv4 = v4("10.0.0.1"); });
    add([](auto &item) { item.ipv4 = v4("9.0.0.2"); });
    add([](auto &item) { item.ip[15] = 1; });
    add([](auto &item) { item.ip_ver = 1; });
    add([](auto &item) { item.ether_type = 1; });
    add([](auto &item) { item.evlan2 = 1; });
    add([](auto &item) { item.evlan1 = 11; });
    add([](auto &item) { item.eport = 0x10000002; });
    add([](auto &item) { item.match_flag = 3; });
    add([](auto &item) { item.match_type = 8; });
    add([](auto &) {});
    add([](auto &item) { item.action_type = 1; });
    rules.back().user = "qos";
    std::vector<std::string> texts;
    for (const judged_key &key : judge(rules, ""))
        texts.push_back(std::to_string(key.rules.size()) + ' ' + joined(key_fields(key.rules[0].rule.item)));
    const std::string port = "in-port 0x10000001, ovid 10";
    EXPECT_THAT(
        texts,
        ElementsAre("2 " + port, "1 " + port + ", id 1", "1 " + port + ", label 1", "1 " + port + ", vnid 1",
                    "1 " + port + ", frame-type 1", "1 " + port + ", mac-mask 00:00:00:00:00:01",
                    "1 " + port + ", mac 00:00:00:00:00:01", "1 " + port + ", ip-mask 255.0.0.0",
                    "1 " + port + ", ipv4 9.0.0.2", "1 " + port + ", ipv4 10.0.0.1", "1 " + port + ", ip 0.0.0.0",
                    "1 " + port + ", ip ::", "1 " + port + ", ether-type 0x0001", "1 " + port + ", ivid 1",
                    "1 in-port 0x10000001, ovid 11", "1 in-port 0x10000002, ovid 10", "1 " + port, "1 " + port));
    EXPECT_THAT(judge(rules, "qos"), testing::SizeIs(1));
    EXPECT_THAT(judge(rules, "nobody"), IsEmpty());
}

// ---- reading --------------------------------------------------------------------------------------------------------

TEST(ShowEmatch, ReadsWhatUsersHaveWrittenAndOthersHaveDecided)
{
    rule_writer store("mem:show");
    sw_ematch_item six = port_rule(10, 7, LOST);
    set_ip(&six, "2001:db8::1");
    six.mac[0] = 2;
    six.ether_type = 0x86dd;
    six.ipv4 = v4("10.0.0.1");
    store.write("acl", port_rule(10, 5, SUCCESS));
    store.write("name with blanks, / and \xc3\xbc", six);
    store.write("qos", port_rule(20, 3, NO_ROOM), 5);
    store.wait();

    const std::vector<match_rule> one = read({.store = "mem:show"});
    ASSERT_EQ(one.size(), 2U);
    std::vector<match_rule> all = read({.store = "mem:show", .databases = {4, 5}});
    std::ranges::sort(all, {}, &match_rule::user);
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].user, "acl");
    EXPECT_EQ(all[1].user, "name with blanks, / and \xc3\xbc");
    EXPECT_EQ(all[2].user, "qos");
    sw_ematch_item expected[] = {port_rule(10, 5, SUCCESS), six, port_rule(20, 3, NO_ROOM)};
    for (size_t i = 0; i < 3; ++i) {
        expected[i].mom_db = i == 2 ? 5 : 4;
        EXPECT_EQ(std::memcmp(&all[i].item, &expected[i], offsetof(sw_ematch_item, final_result)), 0) << all[i].user;
    }
}

TEST(ShowEmatch, ReadsThatARuleHasAMacOfAnotherLength)
{
    rule_writer store("mem:show");
    uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7};
    std::string user = "acl";
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {sizeof bytes, bytes};
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.t_user = user.data();
    index.mac = &mac;
    UBridge__EmatchEntry odd = U_BRIDGE__EMATCH_ENTRY__INIT;
    odd.index = &index;
    store.publish(&odd.base, 4);
    store.publish("qos", port_rule(10, 5, SUCCESS));
    store.wait();
    std::vector<match_rule> rules = read({.store = "mem:show"});
    std::ranges::sort(rules, {}, &match_rule::user);
    ASSERT_EQ(rules.size(), 2U);
    EXPECT_FALSE(rules[0].whole);
    EXPECT_TRUE(rules[1].whole);
}

TEST(ShowEmatch, ReadsOneTypeAlone)
{
    rule_writer store("mem:show");
    sw_ematch_item none{};
    store.write("acl", none);
    store.write("acl", port_rule(10, 5, SUCCESS));
    store.wait();
    EXPECT_THAT(read({.store = "mem:show"}), testing::SizeIs(2));
    for (const int32_t type : {0, 7}) {
        const std::vector<match_rule> rules = read({.store = "mem:show", .type = type});
        ASSERT_EQ(rules.size(), 1U);
        EXPECT_EQ(rules[0].item.match_type, type);
    }
    EXPECT_THAT(read({.store = "mem:show", .type = 8}), IsEmpty());
}

// More than a queue holds and more than one piece of a scan: 20,000 keys, two users for each.
TEST(ShowEmatch, TensOfThousandsOfRulesAreReadWhole)
{
    constexpr int32_t KEYS = 20'000;
    rule_writer store("mem:show");
    const std::vector<std::string> user = three_users();
    for (int32_t i = 0; i < KEYS; ++i) {
        sw_ematch_item item = port_rule(1 + i % 4094, i % 8, SUCCESS);
        item.match_id = i;
        store.write(user[0], item);
        item.result = LOST;
        store.write(user[1], item);
    }
    store.wait();
    const std::vector<judged_key> keys = judge(read({.store = "mem:show"}), "");
    ASSERT_EQ(keys.size(), static_cast<size_t>(KEYS));
    for (const judged_key &key : keys)
        ASSERT_THAT(states(key), UnorderedElementsAre(user[0] + " holds", user[1] + " lost<" + user[0]));
    const std::string table = ematch_table(keys, false);
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 3 * KEYS + 3);
    EXPECT_THAT(table, testing::EndsWith("\n20000 keys, 40000 rules: holds 20000, lost 20000\n"));
    EXPECT_THAT(ematch_json(keys),
                testing::EndsWith(R"("totals":{"keys":20000,"rules":40000,"holds":20000,"lost":20000,)"
                                  R"("no_room":0,"undecided":0,"not_compared":0,"ignored":0}})"));
}

// ---- words for all of it --------------------------------------------------------------------------------------------

TEST(ShowEmatch, TheTableHasABlockForEachKey)
{
    std::vector<match_rule> rules = {{"qos", port_rule(10, 3, LOST)},
                                     {"acl", port_rule(10, 5, SUCCESS)},
                                     {"two\nlines", port_rule(20, 3, LOST)},
                                     {"acl", port_rule(30, 1, SUCCESS)},
                                     {"qos", port_rule(30, 1, SUCCESS)}};
    rules[1].item.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__UNUSED;
    rules[1].item.new_evlan1 = 0;
    EXPECT_EQ(ematch_table(judge(rules, ""), false),
              "KEY\n"
              "  USER          PRIORITY  RESULT           ACTION\n"
              "PORT_OVID ingress  in-port 0x10000001  ovid 10\n"
              "  acl                  5  holds            UNUSED\n"
              "  qos                  3  lost to acl (5)  TO_EVLAN  evlan 0x20000001\n"
              "PORT_OVID ingress  in-port 0x10000001  ovid 20\n"
              "  two\\x0alines         3  lost             TO_EVLAN  evlan 0x20000001\n"
              "  (not what comes of these rules, in any order of their users that is known)\n"
              "PORT_OVID ingress  in-port 0x10000001  ovid 30\n"
              "  acl                  1  undecided        TO_EVLAN  evlan 0x20000001\n"
              "  qos                  1  undecided        TO_EVLAN  evlan 0x20000001\n"
              "3 keys, 5 rules: holds 1, lost 2, undecided 2\n");
    EXPECT_EQ(ematch_table({}, false), "0 keys, 0 rules\n");
}

TEST(ShowEmatch, SeveralDatabasesHaveAColumn)
{
    sw_ematch_item item = port_rule(10, 5, SUCCESS);
    item.mom_db = 12;
    const std::string table = ematch_table(judge({{"acl", item}}, ""), true);
    EXPECT_THAT(table, HasSubstr("  USER  DB  PRIORITY  RESULT  ACTION\n"));
    EXPECT_THAT(table, HasSubstr("  acl   12         5  holds   TO_EVLAN"));
    EXPECT_THAT(table, HasSubstr("\n1 key, 1 rule: holds 1\n"));
}

TEST(ShowEmatch, TheObjectSaysTheSame)
{
    std::vector<match_rule> rules = {{"acl", port_rule(10, 5, SUCCESS)}, {"qos", port_rule(10, 3, LOST)}};
    for (match_rule &rule : rules)
        rule.item.mom_db = 4;
    EXPECT_EQ(
        ematch_json(judge(rules, "")),
        R"({"keys":[{"key":{"type":"PORT_OVID","flags":["ingress"],"in_port":268435457,"ovid":10},)"
        R"("verdicts":"explained","rules":[{"user":"acl","db":4,"priority":5,"state":"holds","result":"SUCCESS",)"
        R"("action":{"type":"TO_EVLAN","evlan":536870913}},{"user":"qos","db":4,"priority":3,"state":"lost",)"
        R"("lost_to":{"user":"acl","priority":5},"result":"FAIL_PRIORITY","action":{"type":"TO_EVLAN",)"
        R"("evlan":536870913}}]}],)"
        R"("totals":{"keys":1,"rules":2,"holds":1,"lost":1,"no_room":0,"undecided":0,"not_compared":0,"ignored":0}})");
    EXPECT_EQ(ematch_json({}),
              R"({"keys":[],"totals":{"keys":0,"rules":0,"holds":0,"lost":0,"no_room":0,"undecided":0,)"
              R"("not_compared":0,"ignored":0}})");
    EXPECT_THAT(ematch_json(judge({{"\xff", port_rule(1, 1, SUCCESS)}}, "")), HasSubstr("\"user\":\"\xef\xbf\xbd\""));
}

// ---- the program ----------------------------------------------------------------------------------------------------

TEST(ShowEmatchProgram, ShowsWhatAServerHoldsAndWritesNothing)
{
    const support::redis_server redis;
    rule_writer store(redis.url());
    const std::vector<std::string> user = three_users();
    store.write(user[0], port_rule(10, 5, SUCCESS));
    store.write(user[1], port_rule(10, 3, LOST));
    store.write(user[2], port_rule(10, 4, SUCCESS));
    sw_ematch_item masked = port_rule(0, 1, SUCCESS);
    masked.match_type = U_BRIDGE__MATCH_TYPE__IP_MASK;
    masked.eport = 0;
    set_ip(&masked, "10.1.0.0");
    masked.ip_mask = v4("255.255.0.0");
    store.write(user[0], masked);
    store.write(user[1], port_rule(20, 1, SUCCESS), 5);
    store.wait();
    const std::string before = all_content(redis);

    const std::vector<judged_key> keys = judge(read({.store = redis.url()}), "");
    const outcome seen = show_ematch({"--store", redis.url()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(seen.out, ematch_table(keys, false));
    EXPECT_THAT(seen.out, HasSubstr("IP_MASK ingress  source 10.1.0.0/16\n"));
    EXPECT_THAT(seen.out, HasSubstr("lost to " + user[2] + " (4)"));
    EXPECT_THAT(seen.out, testing::EndsWith("\n2 keys, 4 rules: holds 3, lost 1\n"));
    EXPECT_THAT(seen.err, IsEmpty());

    const outcome object = show_ematch({"--json", "--store", redis.url()});
    EXPECT_EQ(object.status, 0) << object.err;
    EXPECT_EQ(object.out, ematch_json(keys) + '\n');
    EXPECT_THAT(object.err, IsEmpty());

    const outcome more =
        show_ematch({"--store", redis.url(), "--db", "5", "--db", "4", "--db", "5", "--user", user[1]});
    EXPECT_EQ(more.status, 0) << more.err;
    EXPECT_THAT(more.out, testing::EndsWith("\n2 keys, 4 rules: holds 3, lost 1\n"));
    EXPECT_THAT(more.out, HasSubstr("ovid 20\n"));
    EXPECT_THAT(show_ematch({"--store", redis.url(), "--type", "ip_mask"}).out,
                testing::EndsWith("\n1 key, 1 rule: holds 1\n"));
    EXPECT_EQ(show_ematch({"--store", redis.url(), "--user", "nobody"}).out, "0 keys, 0 rules\n");
    EXPECT_EQ(all_content(redis), before);
}

// A running service decides, in an order of users that is its own; whatever goes, the others are decided anew.
TEST(ShowEmatchProgram, ExplainsWhatARunningServiceDecides)
{
    constexpr int32_t KEYS = 64;
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    rule_writer store(redis.url());
    store.listen();
    const auto rule_of = [](size_t user, int32_t key) {
        const int32_t priorities[] = {key % 8, key / 8, (key * 5 + 3) % 8};
        return port_rule(1 + key, priorities[user], SUCCESS);
    };
    const std::vector<std::string> users = {"acl", "mirror", "qos"};
    for (size_t user = 0; user < users.size(); ++user)
        for (int32_t key = 0; key < KEYS; ++key)
            store.publish(users[user], rule_of(user, key));
    const auto all_explained = [&](size_t rules_of_a_key) {
        return std::ranges::all_of(judge(read({.store = redis.url()}), ""), [&](const judged_key &key) {
            return key.explained == explanation::complete && key.rules.size() == rules_of_a_key;
        });
    };
    const auto show = [&] { return show_ematch({"--store", redis.url()}).out; };
    ASSERT_TRUE(store.listen_until([&] { return all_explained(3); }));
    EXPECT_THAT(show(), HasSubstr("\n64 keys, 192 rules: holds "));
    EXPECT_THAT(show(), testing::Not(HasSubstr("undecided")));
    EXPECT_THAT(show(), testing::Not(HasSubstr("not what comes")));

    for (int32_t key = 0; key < KEYS; ++key)
        store.remove(users[0], rule_of(0, key));
    ASSERT_TRUE(store.listen_until([&] { return all_explained(2); }));
    EXPECT_THAT(show(), testing::EndsWith("\n64 keys, 128 rules: holds 64, lost 64\n"));

    for (int32_t key = 0; key < KEYS; ++key)
        store.remove(users[1], rule_of(1, key));
    ASSERT_TRUE(store.listen_until([&] { return all_explained(1); }));
    EXPECT_THAT(show(), testing::EndsWith("\n64 keys, 64 rules: holds 64\n"));
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

TEST(ShowEmatchProgram, AServerWithoutRulesShowsNone)
{
    const support::redis_server redis;
    const outcome seen = show_ematch({"--store", redis.url()});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(seen.out, "0 keys, 0 rules\n");
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST(ShowEmatchProgram, WhatIsNotThereIsOneLine)
{
    const std::string nobody = "redis://127.0.0.1:" + std::to_string(support::free_port());
    expect_one_line(show_ematch({"--store", nobody}), 3, nobody + ": the store cannot be reached");
    expect_one_line(show_ematch({"--store", "nowhere:x", "--json"}), 3, "malformed URL");
}

TEST(ShowEmatchProgram, WrongUsageIsOneLine)
{
    const std::string see = " (see ebridge show ematch --help)\n";
    expect_one_line(run({EBRIDGE_PROGRAM, "show"}), 2, "(see ebridge show --help)");
    expect_one_line(run({EBRIDGE_PROGRAM, "show", "nothing"}), 2, "(see ebridge show --help)");
    expect_one_line(show_ematch({}), 2, "--store is required" + see);
    expect_one_line(show_ematch({"--store", "mem:x"}), 2, "mem:x lives within one process, no other can read it" + see);
    const std::string url = "redis://127.0.0.1:1";
    expect_one_line(show_ematch({"--store", url, "--db", "four"}), 2, see);
    expect_one_line(show_ematch({"--store", url, "--db", "99"}), 2, url + ": no such database");
    expect_one_line(show_ematch({"--store", url, "--type", "PORTS"}), 2,
                    "PORTS is not a match type, such as PORT_OVID" + see);
    expect_one_line(show_ematch({"--store", url, "more"}), 2, see);
}

TEST(ShowEmatchProgram, HelpTeachesByExampleAndNamesTheStatuses)
{
    const outcome seen = show_ematch({"--help"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, HasSubstr("ebridge show ematch --store redis://127.0.0.1\n"));
    EXPECT_THAT(seen.out, HasSubstr("Exit status:"));
    EXPECT_THAT(run({EBRIDGE_PROGRAM, "--help"}).out, HasSubstr("ebridge show ematch"));
    EXPECT_EQ(run({EBRIDGE_PROGRAM, "show", "--help"}).status, 0);
}
