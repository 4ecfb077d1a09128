// The VLANs of ports of a run. See member_book.hpp.
#include "member_book.hpp"

#include <algorithm>

#include "config_file.hpp"
#include "ports.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

using config_text::printable;

bool vlan_port::is_seen() const
{
    const bool same_vlans =
        seen.found == is_wanted() && seen.vlans == vlans && seen.untagged == untagged && seen.multicast == vlans;
    return same_vlans && seen.claimed == pvid && (seen.pvid == pvid || (pvid == 0 && seen.contested));
}

member_book::member_book(const switch_config &config, const request_book &requests, run_result *result)
    : config_(&config), users_(requests.users())
{
    if (!config.vlan_members)
        return;
    result->tables.push_back({.name = "VLAN_MEMBER", .requested = config.vlan_members->size()});
    list_ports(requests);
    note_wanted();
    for (const vlan_port &port : ports_)
        if (port.pvid != 0 && std::ranges::count_if(port.members, [this](size_t i) { return entry(i).untagged; }) > 1)
            result->notes.push_back(printable(port.name) + ": untagged in several VLANs, " + port.untagged.text() +
                                    ": the lowest is its default VLAN");
}

// Who has requested a port publishes its VLANs; ports that nobody has requested go to the users in turns.
void member_book::list_ports(const request_book &requests)
{
    size_t turn = 0;
    for (size_t i = 0; i < config_->vlan_members->size(); ++i) {
        const vlan_member &member = entry(i);
        const uint32_t eport = port_id(member.phyid);
        const auto [at, fresh] = by_eport_.emplace(eport, ports_.size());
        if (fresh) {
            const size_t request = requests.find({id_kind::eport, eport >> 24, 0, member.ifx});
            const bool requested = request < requests.size();
            const size_t user = requested ? requests.at(request).user : turn++ % users_.size();
            by_ifx_.emplace(member.ifx, ports_.size());
            ports_.push_back({.name = member.port, .eport = eport, .ifx = member.ifx, .user = user, .members = {}});
        }
        ports_[at->second].members.push_back(i);
    }
}

void member_book::note_wanted()
{
    for (vlan_port &port : ports_) {
        port.vlans = port.untagged = {};
        port.pvid = 0;
        for (size_t i : port.members) {
            const vlan_member &member = entry(i);
            if (member.dropped)
                continue;
            port.vlans.add(member.vlan);
            if (!member.untagged)
                continue;
            port.untagged.add(member.vlan);
            const auto vlan = static_cast<int32_t>(member.vlan);
            port.pvid = port.pvid == 0 ? vlan : std::min(port.pvid, vlan);
        }
    }
}

namespace
{

size_t find(const std::unordered_map<uint32_t, size_t> &ports, uint32_t number)
{
    const auto found = ports.find(number);
    return found == ports.end() ? ports.size() : found->second;
}

}  // namespace

size_t member_book::find_ifx(uint32_t ifx) const { return find(by_ifx_, ifx); }

size_t member_book::find_eport(uint32_t eport) const { return find(by_eport_, eport); }

bool member_book::is_published(size_t user) const
{
    return std::ranges::all_of(ports_, [user](const vlan_port &of) { return of.user != user || of.is_published(); });
}

bool member_book::is_settled(size_t user) const
{
    return std::ranges::all_of(ports_, [user](const vlan_port &of) { return of.user != user || of.is_settled(); });
}

bool member_book::is_seen() const
{
    return std::ranges::all_of(ports_, [](const vlan_port &of) { return !of.is_published() || of.is_seen(); });
}

void member_book::restart(const switch_config &reduced)
{
    config_ = &reduced;
    for (vlan_port &port : ports_)
        port.asked = {};
    if (reduced.vlan_members)
        note_wanted();
}

}  // namespace ebridge_tool
