// The verdict about the VLANs of ports. See evaluation.hpp.
#include "config_file.hpp"
#include "entry_verdicts.hpp"
#include "evaluation.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

constexpr const char *TABLE = "VLAN_MEMBER";

template <typename Table>
size_t place_of_members(const std::vector<Table> &tables)
{
    return static_cast<size_t>(std::ranges::find(tables, TABLE, &Table::name) - tables.begin());
}

bool gives_pvid(const vlan_port &port, const vlan_member &member)
{
    return static_cast<int32_t>(member.vlan) == port.pvid;
}

std::string refusal(const vlan_port &port, const vlan_member &member)
{
    if (port.asked.code != 0)
        return "the VLANs of " + port.name + " cannot be published, code " + std::to_string(port.asked.code);
    if (!gives_pvid(port, member))
        return "";
    if (port.asked.pvid_code != 0)
        return "the default VLAN cannot be set, code " + std::to_string(port.asked.pvid_code);
    return port.asked.pvid == 0 ? "nobody has made it the default VLAN" : "";
}

std::string pvid_difference(const vlan_port &port)
{
    if (port.asked.pvid != port.pvid)
        return "its user heard the default VLAN " + std::to_string(port.asked.pvid);
    if (port.seen.claimed != port.pvid)
        return "the observer does not find that it was asked for as default VLAN";
    return port.seen.pvid == port.pvid ? "" : "the observer reads the default VLAN " + std::to_string(port.seen.pvid);
}

// VLANs that nobody asked for are told of once, with the port's first entry.
std::string surplus(const vlan_port &port, const vlan_member &member, const member_book &members)
{
    if (&members.entry(port.members[0]) != &member)
        return "";
    vlan_set more = port.seen.vlans;
    more -= port.vlans;
    for (size_t i : port.members)
        if (members.entry(i).dropped)
            more -= vlan_set(members.entry(i).vlan);
    return more.empty() ? "" : "the observer reads VLANs that nobody asked for: " + more.text();
}

std::string difference(const member_book &members, const vlan_port &port, const vlan_member &member)
{
    if (!port.seen.found)
        return "the observer does not find the VLANs of " + port.name;
    if (!port.seen.vlans.has(member.vlan))
        return "the observer does not find the VLAN on the port";
    if (port.seen.untagged.has(member.vlan) != member.untagged)
        return member.untagged ? "the observer reads that it is tagged" : "the observer reads that it is untagged";
    if (!port.seen.multicast.has(member.vlan))
        return "the observer does not find the multicast mark";
    const std::string pvid = gives_pvid(port, member) ? pvid_difference(port) : "";
    return pvid.empty() ? surplus(port, member, members) : pvid;
}

std::string left_over(const vlan_port &port, const vlan_member &member)
{
    if (port.seen.vlans.has(member.vlan))
        return "the VLAN is still on the port";
    if (member.untagged && port.seen.claimed == static_cast<int32_t>(member.vlan))
        return "it is still asked for as default VLAN";
    return "";
}

std::string name_of(const vlan_member &member) { return printable(std::string(TABLE) + '|' + member.key + ": "); }

template <typename Visit>
void for_each_member(const member_book &members, const Visit &visit)
{
    for (size_t i = 0; i < members.size(); ++i)
        for (size_t member : members.at(i).members)
            visit(members.at(i), members.entry(member));
}

}  // namespace

void evaluate(const member_book &members, run_result *result)
{
    for_each_member(members, [&](const vlan_port &port, const vlan_member &member) {
        const std::string refused = refusal(port, member);
        const std::string what = refused.empty() ? difference(members, port, member) : refused;
        const verdict_kind made = verdict_of(refused.empty(), what);
        if (made != verdict_kind::verified)
            result->problems.push_back(name_of(member) + text_of(made) + printable(what));
        count(made, &result->tables[place_of_members(result->tables)]);
    });
}

void evaluate_restart(const member_book &members, run_result *result)
{
    for_each_member(members, [&](const vlan_port &port, const vlan_member &member) {
        const std::string refused = member.dropped ? "" : refusal(port, member);
        std::string what = refused;
        if (what.empty())
            what = member.dropped ? left_over(port, member) : difference(members, port, member);
        if (!what.empty())
            result->problems.push_back(name_of(member) + (member.dropped ? "dropped: " : "kept: ") +
                                       (member.dropped ? "" : text_of(verdict_of(refused.empty(), what))) +
                                       printable(what));
        count(kept_verdict_of(member.dropped, what), &result->restarted[place_of_members(result->restarted)]);
    });
}

}  // namespace ebridge_tool
