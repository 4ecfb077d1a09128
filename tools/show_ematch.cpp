// The match rules of a store: reading them, and what came of each. See show_ematch.hpp; show_ematch_text.cpp has the words.
#include "show_ematch.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

#include "order_search.hpp"
#include "rules.hpp"
#include "table_scan.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

// ---- reading --------------------------------------------------------------------------------------------------------

int32_t read_match_rules(const ematch_query &query, std::vector<match_rule> *out, std::string *error)
{
    store_link link;
    if (const int32_t code = link.open(query.store, query.databases, error); code != 0)
        return code;
    UBridge__EmatchEntry pattern = ebridged::all_rules();
    UBridge__EmatchIndex index = *pattern.index;
    index.match_type = query.type.value_or(0);  // 0 is any
    pattern.index = &index;
    const auto take = [&](uint32_t db, const ProtobufCMessage &record) {
        const auto &entry = reinterpret_cast<const UBridge__EmatchEntry &>(record);
        match_rule rule{entry.index->t_user, ebridged::item_of(entry), ebridged::names_its_record(*entry.index)};
        rule.item.mom_db = db;
        if (!query.type || rule.item.match_type == *query.type)
            out->push_back(std::move(rule));
    };
    const int32_t code = read_table(&link, query.databases, pattern.base, query.patience_usec, take);
    if (code != 0)
        *error = std::string("the match rules cannot be read: ") + qz_mom_strerror(code);
    return code;
}

// ---- what came of them ----------------------------------------------------------------------------------------------

namespace
{

// What two rules have in common that are for the same traffic, in the order in which they are shown.
auto key_of(const sw_ematch_item &item)
{
    return std::tuple(item.match_type, item.match_flag, item.eport, item.evlan1, item.evlan2, item.ether_type,
                      item.ip_ver, std::to_array(item.ip), ntohl(item.ipv4), ntohl(item.ip_mask),
                      std::to_array(item.mac), std::to_array(item.mask), item.frame_type, item.vnid, item.label,
                      item.match_id);
}

bool same_key(const match_rule &a, const match_rule &b) { return key_of(a.item) == key_of(b.item); }

claim claim_of(const judged_rule &of) { return {of.rule.user, of.rule.item.match_priority}; }

std::vector<verdict> verdicts_of(const std::vector<judged_rule> &rules)
{
    std::vector<claim> claims;
    std::ranges::transform(rules, std::back_inserter(claims), claim_of);
    return decide(claims);
}

bool is_result_of(int32_t result, const verdict &decided)
{
    const bool won = result == U_BRIDGE__MATCH_RESULT__SUCCESS || result == U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH;
    const bool lost = result == U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    return decided.result == NOT_COMPARED || (decided.result == 0 ? won : lost);
}

bool are_results_of(const std::vector<judged_rule> &rules, const std::vector<verdict> &decided)
{
    for (size_t i = 0; i < rules.size(); ++i)
        if (!is_result_of(rules[i].rule.item.result, decided[i]))
            return false;
    return true;
}

// Of several users always one loses.
bool nobody_has_decided(const std::vector<judged_rule> &rules, const std::vector<verdict> &decided)
{
    size_t compared = 0;
    for (size_t i = 0; i < rules.size(); ++i) {
        if (decided[i].result == NOT_COMPARED)
            continue;
        ++compared;
        if (rules[i].rule.item.result != U_BRIDGE__MATCH_RESULT__SUCCESS)
            return false;
    }
    return compared > 1;
}

rule_state state_of(int32_t result, const verdict &decided, explanation explained)
{
    if (decided.result == NOT_COMPARED)
        return rule_state::not_compared;
    if (explained == explanation::none)
        return rule_state::undecided;
    switch (result) {
        case U_BRIDGE__MATCH_RESULT__SUCCESS:
            return rule_state::holds;
        case U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY:
            return rule_state::lost;
        case U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH:
            return rule_state::no_room;
        default:
            return rule_state::undecided;  // a result that nobody knows says nothing
    }
}

// Where another order of the users explains the results, who lost to whom in it. False when there is none.
bool find_another_order(const std::vector<judged_rule> &rules, std::vector<verdict> *decided)
{
    std::vector<size_t> compared;
    std::vector<contender> contenders;
    for (size_t i = 0; i < rules.size(); ++i) {
        if ((*decided)[i].result == NOT_COMPARED)
            continue;
        const sw_ematch_item &item = rules[i].rule.item;
        const bool lost = item.result == U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
        if (!lost && !is_result_of(item.result, {0, -1}))
            return false;
        compared.push_back(i);
        contenders.push_back({item.match_priority, lost});
    }
    const found_order found = find_order(contenders);
    for (size_t k = 0; k < found.order.size(); ++k) {
        const int winner = found.lost_to[k];
        (*decided)[compared[k]] = {contenders[k].lost ? 1 : 0,
                                   winner < 0 ? -1 : static_cast<int>(compared[static_cast<size_t>(winner)])};
    }
    return !found.order.empty();
}

// `rules` in walk order.
explanation explain(const std::vector<judged_rule> &rules, std::vector<verdict> *decided)
{
    *decided = verdicts_of(rules);
    if (nobody_has_decided(rules, *decided))
        return explanation::none;
    const bool explained = are_results_of(rules, *decided) || find_another_order(rules, decided);
    return explained ? explanation::complete : explanation::differs;
}

// Strongest first.
bool stands_before(const judged_rule &a, const judged_rule &b)
{
    const auto place = [](const judged_rule &of) {
        return std::tuple(-int64_t{of.rule.item.match_priority}, std::string_view(of.rule.user), of.rule.item.mom_db);
    };
    return place(a) < place(b);
}

bool takes_part(const match_rule &of)
{
    const int32_t priority = of.item.match_priority;
    return of.whole && of.user.size() < SW_EBRIDGE_NAME_SIZE && priority >= 0 &&
           priority <= U_BRIDGE__MATCH_PRIORITY__EMATCH_LEVEL_7;
}

// `rules` in walk order.
void judge(judged_key *key)
{
    const auto plays = [](const judged_rule &of) { return takes_part(of.rule); };
    const auto end = std::stable_partition(key->rules.begin(), key->rules.end(), plays);
    std::vector<judged_rule> ignored(std::make_move_iterator(end), std::make_move_iterator(key->rules.end()));
    key->rules.erase(end, key->rules.end());
    std::vector<verdict> decided;
    key->explained = explain(key->rules, &decided);
    for (size_t i = 0; i < key->rules.size(); ++i) {
        judged_rule &of = key->rules[i];
        of.state = state_of(of.rule.item.result, decided[i], key->explained);
        if (key->explained == explanation::complete && decided[i].lost_to >= 0)
            of.lost_to = claim_of(key->rules[static_cast<size_t>(decided[i].lost_to)]);
    }
    for (judged_rule &of : ignored) {
        of.state = rule_state::ignored;
        key->rules.push_back(std::move(of));
    }
    std::ranges::sort(key->rules, stands_before);
}

walk_order order_of(const std::vector<match_rule> &rules)
{
    std::set<std::string> users;
    for (const match_rule &rule : rules)
        if (takes_part(rule))
            users.insert(rule.user);
    return walk_order({users.begin(), users.end()});
}

}  // namespace

std::vector<judged_key> judge(std::vector<match_rule> rules, const std::string &user)
{
    const walk_order order = order_of(rules);
    std::ranges::sort(rules, {}, [&](const match_rule &rule) {
        return std::tuple(key_of(rule.item), order.place(rule.user), rule.item.match_priority, rule.item.mom_db);
    });
    std::vector<judged_key> keys;
    for (auto begin = rules.begin(); begin != rules.end();) {
        const auto end =
            std::find_if_not(begin, rules.end(), [&](const match_rule &of) { return same_key(*begin, of); });
        const auto is_users = [&](const match_rule &of) { return user.empty() || of.user == user; };
        if (std::any_of(begin, end, is_users)) {
            judged_key key;
            std::transform(begin, end, std::back_inserter(key.rules),
                           [](match_rule &of) { return judged_rule{std::move(of)}; });
            judge(&key);
            keys.push_back(std::move(key));
        }
        begin = end;
    }
    return keys;
}

}  // namespace ebridge_tool
