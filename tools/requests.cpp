// The requests of a run and their evaluation. See requests.hpp.
#include "requests.hpp"

#include <cstdio>

#include "sw_ebridge.h"

namespace ebridge_tool
{

namespace
{

constexpr const char *REQUESTER = "ebridge_run";

uint32_t any_id(uint32_t type) { return type << 24; }

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

uint64_t map_key(uint32_t type, uint32_t keyid) { return static_cast<uint64_t>(type) << 32 | keyid; }

std::vector<request> list_requests(const switch_config &config, run_result *result)
{
    std::vector<request> all;
    if (config.vlans) {
        result->tables.push_back({.name = "VLAN", .requested = config.vlans->size()});
        for (const vlan_entry &vlan : *config.vlans)
            all.push_back({.table = result->tables.size() - 1,
                           .key = vlan.key,
                           .user = 0,
                           .type = U_BRIDGE__EVLAN_TYPE__VLAN,
                           .keyid = vlan.number,
                           .wanted = any_id(U_BRIDGE__EVLAN_TYPE__VLAN) | vlan.number,
                           .vid = vlan.number});
    }
    if (config.vxlan_maps) {
        result->tables.push_back({.name = "VXLAN_TUNNEL_MAP", .requested = config.vxlan_maps->size()});
        for (const vxlan_map_entry &map : *config.vxlan_maps)
            all.push_back({.table = result->tables.size() - 1,
                           .key = map.key,
                           .user = 0,
                           .type = U_BRIDGE__EVLAN_TYPE__VXLAN,
                           .keyid = map.vni,
                           .wanted = any_id(U_BRIDGE__EVLAN_TYPE__VXLAN),
                           .vid = 0});
    }
    return all;
}

}  // namespace

request_book::request_book(const switch_config &config, size_t users, run_result *result)
    : requests_(list_requests(config, result))
{
    for (size_t user = 1; user <= users; ++user)
        users_.push_back(users == 1 ? REQUESTER : REQUESTER + ('_' + std::to_string(user)));
    size_t turn = 0;
    for (size_t i = 0; i < requests_.size(); ++i) {
        requests_[i].user = turn;
        turn = turn + 1 < users ? turn + 1 : 0;
        by_key_.emplace(map_key(requests_[i].type, requests_[i].keyid), i);
    }
}

size_t request_book::find(uint32_t type, uint32_t keyid) const
{
    const auto found = by_key_.find(map_key(type, keyid));
    return found == by_key_.end() ? size() : found->second;
}

bool request_book::is_settled(const request &of) const
{
    const requester_facts &asked = of.requester;
    return asked.answered && (!hearing_ || asked.reply == -1 || of.observer.heard == asked.reply);
}

template <typename Facts>
void request_book::replace(request &of, Facts request::*member, const Facts &facts)
{
    settled_ -= is_settled(of);
    answered_ -= of.requester.answered;
    of.*member = facts;
    settled_ += is_settled(of);
    answered_ += of.requester.answered;
}

void request_book::set(size_t index, const requester_facts &facts)
{
    replace(requests_[index], &request::requester, facts);
}

void request_book::set(size_t index, const observer_facts &facts)
{
    replace(requests_[index], &request::observer, facts);
}

// ---- evaluation -----------------------------------------------------------------------------------------------------

const char *difference(const request &of)
{
    const requester_facts &asked = of.requester;
    const observer_facts &seen = of.observer;
    if ((of.wanted & 0xffffff) != 0 && word(asked.reply) != of.wanted)
        return "granted another id than the one asked for";
    if (word(asked.reply) >> 24 != of.type)
        return "granted an id of another type";
    if (seen.heard != asked.reply)
        return seen.heard == -1 ? "the observer did not hear of the grant" : "the observer heard of another id";
    if (asked.map.id != asked.reply || seen.map.id != asked.reply)
        return "the key does not translate to the id";
    if (!asked.map.back || !seen.map.back)
        return "the id does not translate back to the key";
    if (!seen.held)
        return "the observer has no record of the id";
    if (!seen.found)
        return "the observer's scan does not find the session";
    const bool equal = seen.reply == 1 && seen.reply_value == asked.reply && word(seen.request_value) == of.wanted &&
                       seen.mom_db == SW_EBRIDGE_APP_DB;
    return equal ? nullptr : "the session that the observer reads is not the one that was granted";
}

namespace
{

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

}  // namespace

void evaluate(const request_book &requests, run_result *result)
{
    for (size_t i = 0; i < requests.size(); ++i) {
        const request &of = requests.at(i);
        table_result &table = result->tables[of.table];
        const std::string name = printable(table.name + '|' + of.key) + ": ";
        if (!of.requester.answered || of.requester.reply == -1) {
            ++table.refused;
            result->problems.push_back(name + "refused: " + refusal(of));
            continue;
        }
        ++table.granted;
        if (const char *what = difference(of))
            result->problems.push_back(name + "differs: " + what);
        else
            ++table.verified;
    }
}

}  // namespace ebridge_tool
