// The verdict about the match rules of a run. See evaluation.hpp.
#include "config_file.hpp"
#include "entry_verdicts.hpp"
#include "evaluation.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

std::string heard_text(int32_t result)
{
    return result == 0   ? "its user heard that it holds"
           : result == 1 ? "its user heard that it has lost"
                         : "its user heard the result " + std::to_string(result);
}

std::string refusal(const published_rule &of)
{
    return of.asked.code != 0 ? "it cannot be published, code " + std::to_string(of.asked.code) : "no verdict";
}

bool is_decided(const published_rule &of) { return of.asked.code == 0 && of.is_heard(); }

// "ACL_RULE|in|rule: ", and which of several users.
std::string name_of(const rule_book &rules, const published_rule &of)
{
    return (of.tells_order() ? "order of the users: " : printable("ACL_RULE|" + rules.entry_of(of) + ": ")) +
           (rules.users().size() > 1 ? rules.user_of(of) + ": " : "");
}

void count(const published_rule &of, verdict_kind made, rule_result *into)
{
    ++into->published;
    if (!of.is_compared())
        ++into->shadowed;
    else if (of.asked.heard)
        ++(of.asked.result == 0 ? into->holding : into->lost);
    into->verified += made == verdict_kind::verified;
}

// The place of the table of ACL rules; where there is none, that of a next one.
template <typename Table>
size_t place_of_rules(const std::vector<Table> &tables)
{
    return static_cast<size_t>(std::ranges::find(tables, "ACL_RULE", &Table::name) - tables.begin());
}

}  // namespace

std::string difference(const published_rule &of)
{
    if (!of.is_as_calculated())
        return heard_text(of.asked.result) + (of.lost_to.empty()
                                                  ? ", and by the calculation it holds"
                                                  : ", and by the calculation it loses to " + of.lost_to);
    if (of.tells_order())
        return "";  // it is gone when the observer reads
    if (!of.seen.found)
        return "the observer's scan does not find the rule";
    if (!of.seen.equal)
        return "the rule that the observer reads is not the one that was published";
    if (of.is_compared() && of.seen.result != of.asked.result)
        return "the observer reads another result than its user heard";
    return "";
}

void evaluate(const rule_book &rules, run_result *result)
{
    entry_verdicts<verdict_kind> entries(result->tables.size());
    if (place_of_rules(result->tables) < result->tables.size())
        for (const std::string &user : rules.users())
            result->rules.push_back({.name = user});
    for (size_t i = 0; i < rules.size(); ++i) {
        const published_rule &of = rules.at(i);
        const std::string what = is_decided(of) ? difference(of) : refusal(of);
        const verdict_kind made = verdict_of(is_decided(of), what);
        if (made != verdict_kind::verified)
            result->problems.push_back(name_of(rules, of) + text_of(made) + what);
        if (of.tells_order())
            continue;
        count(of, made, &result->rules[of.user]);
        entries.add(place_of_rules(result->tables), of.entry, made);
    }
    entries.for_each([result](size_t table, verdict_kind made) { count(made, &result->tables[table]); });
}

void evaluate_restart(const rule_book &rules, run_result *result)
{
    entry_verdicts<kept_verdict> entries(result->restarted.size());
    for (size_t i = 0; i < rules.size(); ++i) {
        const published_rule &of = rules.at(i);
        std::string what;
        if (of.dropped)
            what = of.seen.found ? "the rule is still there" : "";
        else
            what = is_decided(of) ? difference(of) : refusal(of);
        if (!what.empty())
            result->problems.push_back(name_of(rules, of) + (of.dropped ? "dropped: " : "kept: ") +
                                       (of.dropped ? "" : text_of(verdict_of(is_decided(of), what))) + what);
        if (!of.tells_order())
            entries.add(place_of_rules(result->restarted), of.entry, kept_verdict_of(of.dropped, what));
    }
    entries.for_each([result](size_t table, kept_verdict made) { count(made, &result->restarted[table]); });
}

}  // namespace ebridge_tool
