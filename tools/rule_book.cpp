// The match rules of a run. See rule_book.hpp.
#include "rule_book.hpp"

#include <algorithm>

#include "config_file.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

constexpr int32_t LEVELS = 8;

// What rules that contest each other have in common: all of the key but the user and the priority.
std::string contested_key(sw_ematch_item item)
{
    item.match_priority = 0;
    constexpr size_t BEGIN = offsetof(sw_ematch_item, match_type), END = offsetof(sw_ematch_item, action_type);
    return {reinterpret_cast<const char *>(&item) + BEGIN, END - BEGIN};
}

}  // namespace

// ---- what is published ----------------------------------------------------------------------------------------------

rule_book::rule_book(const switch_config &config, std::vector<std::string> users, run_result *result)
    : config_(&config), users_(std::move(users)), unheard_(users_.size())
{
    if (!config.acl_rules)
        return;
    std::vector<expressed_rule> expressed;
    const priority_levels levels(*config.acl_rules);
    for (const acl_rule &rule : *config.acl_rules)
        expressed.push_back(express(rule, levels));
    spread(expressed, result);
    add_order_rules();
    calculate();
}

// Rules of equal keys meet, those of the highest priority first, and are dealt out.
void rule_book::spread(const std::vector<expressed_rule> &expressed, run_result *result)
{
    const std::vector<acl_rule> &rules = *config_->acl_rules;
    std::vector<std::string> reasons;
    std::vector<std::vector<candidate>> candidates;
    for (size_t entry = 0; entry < expressed.size(); ++entry) {
        reasons.push_back(expressed[entry].reason);
        for (const sw_ematch_item &item : expressed[entry].rules) {
            const size_t key = key_of(item);
            candidates.resize(contests_.size());
            candidates[key].push_back({entry, item});
        }
    }
    for (size_t key = 0; key < candidates.size(); ++key) {
        std::ranges::stable_sort(candidates[key], std::ranges::greater(),
                                 [&](const candidate &of) { return rules[of.entry].priority; });
        deal_out(key, std::move(candidates[key]), &reasons);
        add_rivals(key);
    }
    std::vector<bool> published(rules.size());
    for (const published_rule &rule : rules_)
        published[rule.entry] = true;
    table_result table{.name = "ACL_RULE", .not_expressed = 0};
    for (size_t entry = 0; entry < rules.size(); ++entry) {
        ++(published[entry] ? table.requested : *table.not_expressed);
        if (!reasons[entry].empty())
            result->notes.push_back(printable("ACL_RULE|" + rules[entry].key) +
                                    (published[entry] ? ": partly not expressed: " : ": not expressed: ") +
                                    reasons[entry]);
    }
    result->tables.push_back(std::move(table));
}

size_t rule_book::key_of(const sw_ematch_item &item)
{
    const auto [at, fresh] = keys_.emplace(contested_key(item), contests_.size());
    if (fresh)
        contests_.emplace_back();
    return at->second;
}

void rule_book::deal_out(size_t key, std::vector<candidate> candidates, std::vector<std::string> *reasons)
{
    for (size_t turn = 0; turn < candidates.size(); ++turn) {
        bool published = false;
        for (size_t user = 0; user < users_.size() && !published; ++user)
            published = publish(key, (key + turn + user) % users_.size(), candidates[turn]);
        if (published)
            continue;
        const size_t twin = find(users_[0], candidates[turn].item);
        (*reasons)[candidates[turn].entry] =
            printable("ACL_RULE|" + entry_of(rules_[twin])) + " has the same match and level";
    }
}

// Those of the first rule, which has the highest priority.
void rule_book::add_rivals(size_t key)
{
    const size_t users = users_.size();
    const size_t wanted = std::min(users, 2 + key % 2);
    const candidate first{rules_[contests_[key].rules[0]].entry, rules_[contests_[key].rules[0]].item};
    for (size_t turn = contests_[key].rules.size(); turn < wanted; ++turn) {
        candidate rival = first;
        const auto step = static_cast<int32_t>((key + turn) % (LEVELS - 1));
        rival.item.match_priority = (first.item.match_priority + 1 + step) % LEVELS;
        publish(key, (key + turn) % users, rival);
    }
}

// The key is that of the two users alone, in whatever run: of one that was killed such rules may be left.
void rule_book::add_order_rules()
{
    constexpr size_t MANY_USERS = 100;
    std::vector<bool> publishes(users_.size());
    for (const published_rule &rule : rules_)
        publishes[rule.user] = true;
    sw_ematch_item item{};
    for (size_t one = 0; one < users_.size(); ++one)
        for (size_t other = one + 1; publishes[one] && other < users_.size(); ++other) {
            if (!publishes[other])
                continue;
            item.match_id = static_cast<int32_t>((one + 1) * MANY_USERS + other + 1);
            const size_t key = key_of(item);
            publish(key, one, {published_rule::NO_ENTRY, item});
            publish(key, other, {published_rule::NO_ENTRY, item});
        }
}

// False when the user has such a rule already.
bool rule_book::publish(size_t key, size_t user, const candidate &of)
{
    if (find(users_[user], of.item) != size())
        return false;
    contests_[key].rules.push_back(size());
    rules_.push_back({.entry = of.entry, .user = user, .key = key, .item = of.item});
    return true;
}

size_t rule_book::find(const std::string &user, const sw_ematch_item &item) const
{
    const auto key = keys_.find(contested_key(item));
    if (key == keys_.end())
        return size();
    for (size_t index : contests_[key->second].rules)
        if (rules_[index].item.match_priority == item.match_priority && user_of(rules_[index]) == user)
            return index;
    return size();
}

// ---- what should come of it -----------------------------------------------------------------------------------------

void rule_book::add_other(const other_rule &other)
{
    const auto key = keys_.find(contested_key(other.item));
    if (key == keys_.end())
        return;
    contests_[key->second].others.push_back(others_.size());
    others_.push_back(other);
}

void rule_book::forget_others()
{
    for (contest &each : contests_)
        each.others.clear();
    others_.clear();
}

// Those of this run's wanted rules first, then the others.
std::vector<claim> rule_book::claims_of(const contest &of) const
{
    std::vector<claim> claims;
    for (size_t index : of.rules)
        if (!rules_[index].dropped)
            claims.push_back({user_of(rules_[index]), rules_[index].item.match_priority});
    for (size_t index : of.others)
        claims.push_back({others_[index].user, others_[index].item.match_priority});
    return claims;
}

// The more others were met before a user, the later it is walked.
std::vector<std::string> rule_book::walk() const
{
    std::vector<size_t> met_before(users_.size());
    for (const published_rule &rule : rules_)
        if (rule.tells_order() && rule.asked.heard)
            met_before[rule.user] += rule.asked.result != 0;
    std::vector<size_t> order;
    for (size_t user = 0; user < users_.size(); ++user)
        order.push_back(user);
    std::ranges::stable_sort(order, {}, [&](size_t user) { return met_before[user]; });
    std::vector<std::string> walk;
    for (size_t user : order)
        walk.push_back(users_[user]);
    return walk;
}

void rule_book::calculate()
{
    const walked_places order(walk());
    for (const contest &each : contests_)
        calculate(each, order);
    wanted_ = settled_ = as_calculated_ = 0;
    std::ranges::fill(unheard_, 0);
    for (const published_rule &each : rules_)
        count(each, true);
}

void rule_book::calculate(const contest &of, const walked_places &walk)
{
    const std::vector<claim> claims = claims_of(of);
    std::vector<published_rule *> rules;
    std::vector<int32_t> heard;
    for (size_t index : of.rules)
        if (!rules_[index].dropped) {
            rules.push_back(&rules_[index]);
            heard.push_back(rules_[index].asked.heard ? rules_[index].asked.result : NOT_COMPARED);
        }
    heard.resize(claims.size(), NOT_COMPARED);
    const std::vector<verdict> verdicts =
        of.others.empty() ? decide_walked(claims, walk) : decide_as_heard(claims, heard, walk);
    for (size_t i = 0; i < rules.size(); ++i) {
        const int lost_to = verdicts[i].lost_to;
        rules[i]->expected = verdicts[i].result;
        rules[i]->lost_to = lost_to < 0 ? "" : claims[static_cast<size_t>(lost_to)].user;
    }
}

// ---- what is known --------------------------------------------------------------------------------------------------

void rule_book::count(const published_rule &of, bool add)
{
    if (of.dropped)
        return;
    const auto change = [add](size_t *number, bool counts) { *number += add ? counts : -static_cast<size_t>(counts); };
    change(&wanted_, true);
    change(&settled_, of.is_settled());
    change(&as_calculated_, of.asked.code != 0 || of.is_as_calculated());
    change(&unheard_[of.user], !of.is_settled());
}

void rule_book::set(size_t index, const rule_facts &facts)
{
    count(rules_[index], false);
    rules_[index].asked = facts;
    count(rules_[index], true);
}

void rule_book::restart(const switch_config &reduced)
{
    config_ = &reduced;
    for (published_rule &each : rules_) {
        each.dropped = !each.tells_order() && (*reduced.acl_rules)[each.entry].dropped;
        each.asked = {};
    }
    forget_others();
    calculate();
}

}  // namespace ebridge_tool
