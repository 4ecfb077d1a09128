// The verdict about a run. See evaluation.hpp.
#include "evaluation.hpp"

#include <algorithm>
#include <cstdio>
#include <unordered_set>

#include "config_file.hpp"
#include "entry_verdicts.hpp"
#include "sw_ebridge.h"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

const char *map_difference(const request &of)
{
    const requester_facts &asked = of.requester;
    const observer_facts &seen = of.observer;
    if ((of.wanted & 0xffffff) != 0 && word(asked.reply) != of.wanted)
        return "granted another id than the one asked for";
    if ((of.wanted & 0xffffff) == 0 && word(asked.reply) >> 24 != of.app.type)
        return "granted an id of another type";
    if (seen.heard != asked.reply)
        return seen.heard == -1 ? "the observer did not hear of the grant" : "the observer heard of another id";
    if (asked.map.id != asked.reply || seen.map.id != asked.reply)
        return "the key does not translate to the id";
    if (!asked.map.back || !seen.map.back)
        return "the id does not translate back to the key";
    if (!asked.held)
        return "the requester has no record of the id";
    // An eport's record has the requester's name, and the library looks into those of its own users alone.
    if (!seen.held && of.app.kind == id_kind::evlan)
        return "the observer has no record of the id";
    return nullptr;
}

const char *session_difference(const request &of)
{
    const observer_facts &seen = of.observer;
    if (!seen.found)
        return "the observer's scan does not find the session";
    const bool equal = seen.reply == 1 && seen.reply_value == of.requester.reply &&
                       word(seen.request_value) == of.wanted && seen.mom_db == SW_EBRIDGE_APP_DB;
    return equal ? nullptr : "the session that the observer reads is not the one that was granted";
}

std::string attribute_difference(const request_book &requests, const request &of)
{
    if (of.requester.attr_code != 0)
        return "the attributes cannot be set, code " + std::to_string(of.requester.attr_code);
    const attributes *read = requests.find_attributes({of.app.kind, of.user, of.requester.reply});
    if (!read)
        return "the observer does not find the attributes";
    const char *field = different_field(of.app.kind, requests.wanted_attributes(of), *read);
    return field ? std::string("the observer reads another ") + field + " than was set" : "";
}

std::string refusal(const request &of)
{
    if (of.requester.code != 0)
        return "it cannot be requested, code " + std::to_string(of.requester.code);
    if (!of.requester.answered)
        return "no answer";
    if ((of.wanted & 0xffffff) == 0)
        return "no id left";
    char text[64];
    std::snprintf(text, sizeof text, "id 0x%08x cannot be given", of.wanted);
    return text;
}

bool is_granted(const request &of) { return of.requester.answered && of.requester.reply != -1; }

// "TABLE|KEY: ", and where an entry has several ids which of them it is about.
std::string name_of(const request &of)
{
    return printable(std::string(table_of(of.as)) + '|' + of.key + ": ") + (of.as == role::circuit ? "circuit: " : "");
}

}  // namespace

std::string difference(const request_book &requests, const request &of)
{
    if (const char *what = map_difference(of))
        return what;
    if (const char *what = session_difference(of))
        return what;
    return attribute_difference(requests, of);
}

void evaluate(const request_book &requests, run_result *result)
{
    entry_verdicts<verdict_kind> entries(result->tables.size());
    for (size_t i = 0; i < requests.size(); ++i) {
        const request &of = requests.at(i);
        const std::string what = is_granted(of) ? difference(requests, of) : refusal(of);
        const verdict_kind made = verdict_of(is_granted(of), what);
        if (made != verdict_kind::verified)
            result->problems.push_back(name_of(of) + text_of(made) + what);
        count(made, &result->kinds[static_cast<size_t>(of.app.kind)]);
        entries.add(of.table, of.entry, made);
    }
    entries.for_each([result](size_t table, verdict_kind made) { count(made, &result->tables[table]); });
}

// ---- evaluation of a restart ----------------------------------------------------------------------------------------

namespace
{

std::string kept_difference(const request_book &requests, const request &of)
{
    if (of.id_before == -1)
        return "was not granted before the restart";
    if (!is_granted(of))
        return "refused: " + refusal(of);
    if (of.requester.reply != of.id_before) {
        char text[80];
        std::snprintf(text, sizeof text, "the id was 0x%08x and is 0x%08x", word(of.id_before),
                      word(of.requester.reply));
        return text;
    }
    if (of.observer.removals != of.removals_before)
        return "the observer heard of its removal";
    const std::string what = difference(requests, of);
    return what.empty() ? what : "differs: " + what;
}

const char *dropped_difference(const request_book &requests, const request &of)
{
    if (of.observer.found)
        return "the session is still there";
    if (of.id_before == -1)
        return nullptr;
    if (of.observer.heard != -1)
        return "the observer did not hear of its removal";
    return requests.find_attributes({of.app.kind, of.user, of.id_before}) ? "the attributes are still there" : nullptr;
}

}  // namespace

void evaluate_restart(const request_book &requests, run_result *result)
{
    entry_verdicts<kept_verdict> entries(result->tables.size());
    for (const table_result &table : result->tables)
        result->restarted.push_back({.name = table.name});
    for (size_t i = 0; i < requests.size(); ++i) {
        const request &of = requests.at(i);
        std::string what = of.dropped ? "" : kept_difference(requests, of);
        if (const char *left = of.dropped ? dropped_difference(requests, of) : nullptr)
            what = left;
        if (!what.empty())
            result->problems.push_back(name_of(of) + (of.dropped ? "dropped: " : "kept: ") + what);
        entries.add(of.table, of.entry, kept_verdict_of(of.dropped, what));
    }
    entries.for_each([result](size_t table, kept_verdict made) { count(made, &result->restarted[table]); });
}

std::vector<std::string> left_attributes(const request_book &requests)
{
    std::unordered_set<held_id, words_hash> known;
    for (size_t i = 0; i < requests.size(); ++i) {
        const request &of = requests.at(i);
        known.insert({of.app.kind, of.user, of.dropped ? of.id_before : of.requester.reply});
    }
    std::vector<std::string> left;
    for (const auto &[id, ignored] : requests.all_attributes()) {
        if (known.contains(id))
            continue;
        char text[96];
        std::snprintf(text, sizeof text, "%s: attributes of %s 0x%08x are left over", requests.users()[id.user].c_str(),
                      kind_name(id.kind), word(id.id));
        left.emplace_back(text);
    }
    std::ranges::sort(left);
    return left;
}

}  // namespace ebridge_tool
