// The requests of a run and their evaluation. See requests.hpp.
#include "requests.hpp"

#include <algorithm>
#include <cstring>

#include "ports.hpp"
#include "sw_ebridge.h"

namespace ebridge_tool
{

namespace
{

constexpr const char *REQUESTER = "ebridge_run";

uint32_t any_id(uint32_t type) { return type << 24; }

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

uint32_t vlan_id(uint32_t number) { return any_id(U_BRIDGE__EVLAN_TYPE__VLAN) | number; }

// A tunnel is known by its name alone, which has to give the same key whatever other tunnels there are: FNV-1a.
uint64_t name_number(const std::string &name)
{
    uint64_t hash = 0xcbf29ce484222325U;
    for (char c : name)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    return hash;
}

app_key tunnel_key(const tunnel_entry &tunnel)
{
    const uint64_t number = name_number(tunnel.key);
    return {id_kind::eport, U_BRIDGE__EPORT_TYPE__VXLAN_PW, static_cast<uint32_t>(number >> 32),
            static_cast<uint32_t>(number)};
}

}  // namespace

const char *table_of(role as)
{
    constexpr const char *TABLES[] = {"PORT",         "PORTCHANNEL",      "VLAN",
                                      "VXLAN_TUNNEL", "VXLAN_TUNNEL_MAP", "VXLAN_TUNNEL_MAP"};
    static_assert(std::size(TABLES) == ROLES);
    return TABLES[static_cast<size_t>(as)];
}

// ---- what is requested ----------------------------------------------------------------------------------------------

request_book::request_book(const switch_config &config, size_t users, run_result *result) : config_(&config)
{
    for (size_t user = 1; user <= users; ++user)
        users_.push_back(users == 1 ? REQUESTER : REQUESTER + ('_' + std::to_string(user)));
    for (id_kind kind : {id_kind::evlan, id_kind::eport})
        result->kinds.push_back({.name = kind_name(kind)});
    add_tables(result);
    count_maps();
    list_all();
    for (request &each : requests_) {
        const auto named = [&](const table_result &table) { return table.name == table_of(each.as); };
        each.table = static_cast<size_t>(std::ranges::find_if(result->tables, named) - result->tables.begin());
        ++result->kinds[static_cast<size_t>(each.app.kind)].requested;
    }
    deal_out(users);
    for (size_t i = 0; i < requests_.size(); ++i)
        by_key_.emplace(requests_[i].app, i);
    recount();
}

void request_book::add_tables(run_result *result)
{
    const auto add = [&](role as, const auto &entries) {
        if (entries)
            result->tables.push_back({.name = table_of(as), .requested = entries->size()});
    };
    add(role::port, config_->ports);
    add(role::lag, config_->lags);
    add(role::vlan, config_->vlans);
    add(role::tunnel, config_->tunnels);
    add(role::map, config_->vxlan_maps);
}

template <typename Entry, typename Key>
void request_book::list(role as, const std::optional<std::vector<Entry>> &entries, const Key &key_of)
{
    first_[static_cast<size_t>(as)] = requests_.size();
    for (size_t entry = 0; entries && entry < entries->size(); ++entry) {
        const Entry &from = (*entries)[entry];
        const std::pair<app_key, uint32_t> asked = key_of(from);
        requests_.push_back({.as = as,
                             .table = 0,
                             .entry = entry,
                             .key = from.key,
                             .user = 0,
                             .app = asked.first,
                             .wanted = asked.second});
    }
}

// A wanted id where the configuration names one, otherwise any of the type.
void request_book::list_all()
{
    using asked = std::pair<app_key, uint32_t>;
    list(role::port, config_->ports, [](const port_entry &port) {
        return asked({id_kind::eport, U_BRIDGE__EPORT_TYPE__PORT, 0, port.ifx}, port_id(port.phyid));
    });
    list(role::lag, config_->lags, [](const lag_entry &lag) {
        return asked({id_kind::eport, U_BRIDGE__EPORT_TYPE__AP, 0, lag.ifx}, port_id(lag.phyid));
    });
    list(role::vlan, config_->vlans, [](const vlan_entry &vlan) {
        return asked({id_kind::evlan, U_BRIDGE__EVLAN_TYPE__VLAN, vlan.number}, vlan_id(vlan.number));
    });
    list(role::tunnel, config_->tunnels,
         [](const tunnel_entry &tunnel) { return asked(tunnel_key(tunnel), any_id(U_BRIDGE__EPORT_TYPE__VXLAN_PW)); });
    list(role::map, config_->vxlan_maps, [](const vxlan_map_entry &map) {
        return asked({id_kind::evlan, U_BRIDGE__EVLAN_TYPE__VXLAN, map.vni}, any_id(U_BRIDGE__EVLAN_TYPE__VXLAN));
    });
    list(role::circuit, config_->vxlan_maps, [](const vxlan_map_entry &map) {
        return asked({id_kind::eport, U_BRIDGE__EPORT_TYPE__VXLAN_AC, map.vlan, map.vni},
                     any_id(U_BRIDGE__EPORT_TYPE__VXLAN_AC));
    });
}

// Entries go to the users in turns. What is described by the id of another request goes to the same user: nobody else
// is told that id in time.
void request_book::deal_out(size_t users)
{
    size_t turn = 0;
    for (request &each : requests_) {
        if (each.as == role::tunnel || each.as == role::circuit)
            continue;
        each.user = turn;
        turn = turn + 1 < users ? turn + 1 : 0;
    }
    const size_t maps = first_[static_cast<size_t>(role::map)];
    for (request &each : requests_) {
        if (each.as == role::circuit)
            each.user = requests_[maps + each.entry].user;
        if (each.as != role::tunnel)
            continue;
        const std::optional<size_t> map = only_map((*config_->tunnels)[each.entry]);
        each.user = map ? requests_[maps + *map].user : turn;
        turn = map || turn + 1 < users ? turn + !map : 0;
    }
}

void request_book::count_maps()
{
    maps_of_.clear();
    for (size_t map = 0; config_->vxlan_maps && map < config_->vxlan_maps->size(); ++map)
        if (const vxlan_map_entry &each = (*config_->vxlan_maps)[map]; !each.dropped)
            maps_of_[each.tunnel].push_back(map);
}

std::optional<size_t> request_book::only_map(const tunnel_entry &tunnel) const
{
    const auto maps = maps_of_.find(tunnel.key);
    return maps != maps_of_.end() && maps->second.size() == 1 ? std::optional(maps->second[0]) : std::nullopt;
}

size_t request_book::find(const app_key &key) const
{
    const auto found = by_key_.find(key);
    return found == by_key_.end() ? size() : found->second;
}

size_t request_book::find_user(const char *name) const
{
    return static_cast<size_t>(std::ranges::find(users_, name) - users_.begin());
}

const config_item &request_book::item_of(const request &of) const
{
    switch (of.as) {
        case role::port:
            return (*config_->ports)[of.entry];
        case role::lag:
            return (*config_->lags)[of.entry];
        case role::vlan:
            return (*config_->vlans)[of.entry];
        case role::tunnel:
            return (*config_->tunnels)[of.entry];
        default:
            return (*config_->vxlan_maps)[of.entry];
    }
}

// ---- what belongs to an id ------------------------------------------------------------------------------------------

uint32_t request_book::id_of(role as, size_t entry) const
{
    const int32_t reply = requests_[first_[static_cast<size_t>(as)] + entry].requester.reply;
    return reply == -1 ? 0 : word(reply);
}

sw_evlan_attr request_book::evlan_attributes(const request &of) const
{
    sw_evlan_attr made{};
    user_of(of).copy(made.user_name, sizeof made.user_name - 1);
    made.evlan_id = word(of.requester.reply);
    made.type = of.app.type;
    if (of.as == role::vlan) {
        made.attr.underlay.fid = static_cast<int32_t>((*config_->vlans)[of.entry].number);
    } else {
        const vxlan_map_entry &map = (*config_->vxlan_maps)[of.entry];
        made.attr.overlay.vnid = static_cast<int32_t>(map.vni);
        made.attr.overlay.mapping_evlan = static_cast<int32_t>(vlan_id(map.vlan));
    }
    return made;
}

sw_eport_attr request_book::eport_attributes(const request &of) const
{
    sw_eport_attr made{};
    user_of(of).copy(made.user_name, sizeof made.user_name - 1);
    made.eport_id = word(of.requester.reply);
    made.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL;
    if (of.as == role::port && (*config_->ports)[of.entry].in_lag)
        made.vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_NONE;  // its LAG filters
    if (of.as == role::tunnel)
        describe_wire((*config_->tunnels)[of.entry], &made);
    if (of.as == role::circuit)
        describe_circuit(of.entry, &made);
    return made;
}

// A wire whose tunnel has one map alone ends at its circuit; one of several leads to evlans that only the VNI of a frame
// tells.
void request_book::describe_wire(const tunnel_entry &tunnel, sw_eport_attr *out) const
{
    auto &made = out->attr.overlay;
    if (tunnel.source) {
        std::copy(tunnel.source->bytes.begin(), tunnel.source->bytes.end(), made.sip.address);
        made.sip.is_ipv6 = tunnel.source->v6;
    }
    if (tunnel.destination && !tunnel.destination->v6)
        std::memcpy(&made.dip, tunnel.destination->bytes.data(), sizeof made.dip);
    made.mtu = tunnel.mtu;
    made.split_horizon = 1;  // what came over the overlay does not go back into it
    if (const std::optional<size_t> map = only_map(tunnel)) {
        made.evlan_id = id_of(role::circuit, *map);
        made.peer_mode = made.evlan_id != 0;
    }
}

void request_book::describe_circuit(size_t map, sw_eport_attr *out) const
{
    const vxlan_map_entry &from = (*config_->vxlan_maps)[map];
    auto &made = out->attr.overlay;
    made.match_vid = from.vlan;
    made.is_tagged = 1;
    made.evlan_id = id_of(role::map, map);
    if (!config_->vlans)
        return;
    const auto vlan = std::ranges::find(*config_->vlans, from.vlan, &vlan_entry::number);
    if (vlan != config_->vlans->end())
        made.mtu = vlan->mtu;
}

attributes request_book::wanted_attributes(const request &of) const
{
    return of.app.kind == id_kind::evlan ? attributes_of(evlan_attributes(of)) : attributes_of(eport_attributes(of));
}

// ---- what is known --------------------------------------------------------------------------------------------------

bool request_book::is_settled(const request &of) const
{
    const requester_facts &asked = of.requester;
    if (!asked.answered || asked.reply == -1 || until_ == patience::answered)
        return asked.answered;
    return of.observer.heard == asked.reply &&
           (until_ == patience::heard || attributes_.contains({of.app.kind, of.user, asked.reply}));
}

void request_book::count(const request &of, bool add)
{
    const auto change = [add](size_t *number, bool counts) { *number += add ? counts : -static_cast<size_t>(counts); };
    if (of.dropped)
        return change(&left_, of.observer.heard != -1);
    change(&wanted_, true);
    change(&settled_, is_settled(of));
    change(&answered_, of.requester.answered);
}

void request_book::recount()
{
    wanted_ = settled_ = answered_ = left_ = 0;
    for (const request &each : requests_)
        count(each, true);
}

void request_book::set(size_t index, const requester_facts &facts)
{
    request &of = requests_[index];
    count(of, false);
    of.requester = facts;
    if (facts.reply != -1)
        by_id_[{of.app.kind, of.user, facts.reply}] = index;
    count(of, true);
}

void request_book::set(size_t index, const observer_facts &facts)
{
    count(requests_[index], false);
    requests_[index].observer = facts;
    count(requests_[index], true);
}

void request_book::set(const held_id &of, const attributes *found)
{
    const auto whose = by_id_.find(of);
    if (whose != by_id_.end())
        count(requests_[whose->second], false);
    if (found)
        attributes_[of] = *found;
    else
        attributes_.erase(of);
    if (whose != by_id_.end())
        count(requests_[whose->second], true);
}

void request_book::forget_attributes()
{
    attributes_.clear();
    recount();
}

const attributes *request_book::find_attributes(const held_id &of) const
{
    const auto found = attributes_.find(of);
    return found == attributes_.end() ? nullptr : &found->second;
}

void request_book::wait_for(patience what)
{
    until_ = what;
    recount();
}

void request_book::restart(const switch_config &reduced)
{
    config_ = &reduced;
    count_maps();
    attributes_.clear();
    for (request &each : requests_) {
        each.dropped = item_of(each).dropped;
        each.id_before = each.requester.reply;
        each.removals_before = each.observer.removals;
        each.requester = {};
    }
    recount();
}

}  // namespace ebridge_tool
