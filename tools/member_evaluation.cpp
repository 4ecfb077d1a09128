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

// What is wrong with the port and with none of its entries. Of entries that were dropped each tells for itself.
std::string oddity(const member_book &members, const vlan_port &port)
{
    vlan_set known = port.vlans;
    for (size_t i : port.members)
        known.add(members.entry(i).vlan);
    vlan_set more = port.seen.vlans;
    more -= known;
    if (!more.empty())
        return "the observer reads VLANs that nobody asked for: " + more.text();
    vlan_set marks = port.seen.untagged;
    marks |= port.seen.multicast;
    marks -= port.seen.vlans;
    if (!marks.empty())
        return "the observer reads marks of VLANs that the port does not carry: " + marks.text();
    if (port.pvid != 0 || port.is_seen())
        return "";
    if (port.seen.claimed != 0)
        return "the observer reads that the default VLAN " + std::to_string(port.seen.claimed) + " is asked for";
    return port.seen.pvid != 0 && !port.seen.contested
               ? "the observer reads the default VLAN " + std::to_string(port.seen.pvid)
               : "";
}

std::string difference(const vlan_port &port, const vlan_member &member)
{
    if (!port.seen.found)
        return "the observer does not find the VLANs of " + port.name;
    if (!port.seen.vlans.has(member.vlan))
        return "the observer does not find the VLAN on the port";
    if (port.seen.untagged.has(member.vlan) != member.untagged)
        return member.untagged ? "the observer reads that it is tagged" : "the observer reads that it is untagged";
    if (!port.seen.multicast.has(member.vlan))
        return "the observer does not find the multicast mark";
    return gives_pvid(port, member) ? pvid_difference(port) : "";
}

std::string left_over(const vlan_port &port, const vlan_member &member)
{
    if (port.seen.vlans.has(member.vlan))
        return "the VLAN is still on the port";
    if (member.untagged && port.seen.claimed == static_cast<int32_t>(member.vlan))
        return "it is still asked for as default VLAN";
    if (member.untagged && port.pvid == 0 && port.seen.pvid == static_cast<int32_t>(member.vlan) &&
        !port.seen.contested)
        return "it is still the default VLAN";
    return "";
}

std::string name_of(const vlan_member &member) { return printable(std::string(TABLE) + '|' + member.key + ": "); }

struct judged_member {
    const vlan_member *member;
    bool refused;
    std::string what;  // is wrong; "" nothing
};

std::vector<judged_member> judge(const member_book &members, const vlan_port &port)
{
    std::vector<judged_member> all;
    for (size_t i : port.members) {
        const vlan_member &member = members.entry(i);
        const std::string refused = member.dropped ? "" : refusal(port, member);
        if (!refused.empty())
            all.push_back({&member, true, refused});
        else
            all.push_back({&member, false, member.dropped ? left_over(port, member) : difference(port, member)});
    }
    if (std::ranges::any_of(all, [](const judged_member &of) { return !of.what.empty(); }))
        return all;
    const auto kept = std::ranges::find_if(all, [](const judged_member &of) { return !of.member->dropped; });
    (kept == all.end() ? all.front() : *kept).what = oddity(members, port);
    return all;
}

template <typename Visit>
void for_each_member(const member_book &members, const Visit &visit)
{
    for (size_t i = 0; i < members.size(); ++i)
        for (const judged_member &of : judge(members, members.at(i)))
            visit(of);
}

}  // namespace

void evaluate(const member_book &members, run_result *result)
{
    for_each_member(members, [result](const judged_member &of) {
        const verdict_kind made = verdict_of(!of.refused, of.what);
        if (made != verdict_kind::verified)
            result->problems.push_back(name_of(*of.member) + text_of(made) + printable(of.what));
        count(made, &result->tables[place_of_members(result->tables)]);
    });
}

void evaluate_restart(const member_book &members, run_result *result)
{
    for_each_member(members, [result](const judged_member &of) {
        const bool dropped = of.member->dropped;
        if (!of.what.empty())
            result->problems.push_back(name_of(*of.member) + (dropped ? "dropped: " : "kept: ") +
                                       (dropped ? "" : text_of(verdict_of(!of.refused, of.what))) + printable(of.what));
        count(kept_verdict_of(dropped, of.what), &result->restarted[place_of_members(result->restarted)]);
    });
}

}  // namespace ebridge_tool
