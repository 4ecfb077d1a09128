// What "ebridge show ematch" tells of the match rules: a table for people, an object for programs. See show_ematch.hpp.
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "config_file.hpp"
#include "json_text.hpp"
#include "rule_words.hpp"
#include "show_ematch.hpp"
#include "text_columns.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

constexpr std::string_view NAME_OF_STATE[] = {"holds", "lost", "no room", "undecided", "not compared", "ignored"};
constexpr std::string_view NAME_OF_EXPLANATION[] = {"explained", "none", "unexplained"};
constexpr std::string_view DIFFERS = "  (not what comes of these rules, in any order of their users that is known)\n";

std::string_view name_of(rule_state state) { return NAME_OF_STATE[static_cast<size_t>(state)]; }

struct tally {
    size_t rules = 0;
    std::array<size_t, std::size(NAME_OF_STATE)> in_state{};
};

tally count(const std::vector<judged_key> &keys)
{
    tally all;
    for (const judged_key &key : keys) {
        all.rules += key.rules.size();
        for (const judged_rule &rule : key.rules)
            ++all.in_state[static_cast<size_t>(rule.state)];
    }
    return all;
}

// ---- for people -----------------------------------------------------------------------------------------------------

std::string state_text(const judged_rule &of)
{
    if (!of.lost_to)
        return std::string(name_of(of.state));
    return "lost to " + printable(of.lost_to->user) + " (" + std::to_string(of.lost_to->priority) + ')';
}

std::string words(const std::string &name, const std::vector<rule_field> &fields)
{
    std::string text = name;
    for (const rule_field &field : fields)
        text += std::string("  ") + field.name + ' ' + field.text;
    return text;
}

std::string key_text(const sw_ematch_item &item)
{
    std::string flags;
    for (const std::string &flag : match_flag_names(item.match_flag))
        flags += (flags.empty() ? " " : ",") + flag;
    return words(match_type_name(item.match_type) + flags, key_fields(item));
}

// The cells of a rule's line.
text_columns::cells row_of(const judged_rule &of)
{
    const sw_ematch_item &item = of.rule.item;
    return {"  " + printable(of.rule.user), std::to_string(item.mom_db), std::to_string(item.match_priority),
            state_text(of), words(action_name(item.action_type), action_fields(item))};
}

std::string summary(const std::vector<judged_key> &keys)
{
    const tally all = count(keys);
    std::string text = counted(keys.size(), "key") + ", " + counted(all.rules, "rule");
    const char *before = ": ";
    for (size_t i = 0; i < all.in_state.size(); ++i) {
        if (all.in_state[i] == 0)
            continue;
        text += before + std::string(NAME_OF_STATE[i]) + ' ' + std::to_string(all.in_state[i]);
        before = ", ";
    }
    return text + '\n';
}

}  // namespace

std::string ematch_table(const std::vector<judged_key> &keys, bool with_db)
{
    text_columns columns({{"  USER"}, {"DB", true, with_db}, {"PRIORITY", true}, {"RESULT"}, {"ACTION"}});
    for (const judged_key &key : keys)
        for (const judged_rule &rule : key.rules)
            columns.fit(row_of(rule));
    std::string text = keys.empty() ? "" : "KEY\n" + columns.head();
    for (const judged_key &key : keys) {
        text += key_text(key.rules.front().rule.item) + '\n';
        for (const judged_rule &rule : key.rules)
            text += columns.line(row_of(rule));
        if (key.explained == explanation::differs)
            text += DIFFERS;
    }
    return text + summary(keys);
}

// ---- for programs ---------------------------------------------------------------------------------------------------

namespace
{

using json = nlohmann::ordered_json;

// Names of fields as programs like them.
std::string member_name(std::string_view name)
{
    std::string result(name);
    std::ranges::replace(result, '-', '_');
    std::ranges::replace(result, ' ', '_');
    return result;
}

void add_fields(const std::vector<rule_field> &fields, json *object)
{
    for (const rule_field &field : fields)
        (*object)[member_name(field.name)] = field.number ? json(*field.number) : json(field.text);
}

json key_object(const sw_ematch_item &item)
{
    json object{{"type", match_type_name(item.match_type)}, {"flags", match_flag_names(item.match_flag)}};
    add_fields(key_fields(item), &object);
    return object;
}

json rule_object(const judged_rule &of)
{
    const sw_ematch_item &item = of.rule.item;
    json object{
        {"user", of.rule.user}, {"db", item.mom_db}, {"priority", item.match_priority}, {"state", name_of(of.state)}};
    if (of.lost_to)
        object["lost_to"] = {{"user", of.lost_to->user}, {"priority", of.lost_to->priority}};
    object["result"] = result_name(item.result);
    json action{{"type", action_name(item.action_type)}};
    add_fields(action_fields(item), &action);
    object["action"] = std::move(action);
    return object;
}

}  // namespace

// Key by key, so that what is held beside the text is one key's.
std::string ematch_json(const std::vector<judged_key> &keys)
{
    std::string text = R"({"keys":[)";
    for (const judged_key &key : keys) {
        json object{{"key", key_object(key.rules.front().rule.item)},
                    {"verdicts", NAME_OF_EXPLANATION[static_cast<size_t>(key.explained)]}};
        for (const judged_rule &of : key.rules)
            object["rules"].push_back(rule_object(of));
        text += (&key == &keys.front() ? "" : ",") + json_text(object);
    }
    const tally all = count(keys);
    json totals{{"keys", keys.size()}, {"rules", all.rules}};
    for (size_t i = 0; i < all.in_state.size(); ++i)
        totals[member_name(NAME_OF_STATE[i])] = all.in_state[i];
    return text + R"(],"totals":)" + json_text(totals) + '}';
}

}  // namespace ebridge_tool
