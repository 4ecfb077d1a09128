// Access lists as match rules. See match_rules.hpp.
//
// A match rule has a type, which says what of it counts. What an ACL rule asks for, taken together, has to be one of these
// types: more would be left out, and the rule hold for more traffic than it should.
#include "match_rules.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "config_file.hpp"
#include "ports.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

constexpr int32_t LEVELS = 8;
constexpr uint32_t IPV4 = 0x0800, IPV6 = 0x86dd;

// What a rule can ask for.
constexpr uint32_t PORT = 1, OUTER = 2, INNER = 4, ETHER = 8, SOURCE = 16, DESTINATION = 32;

constexpr struct {
    uint32_t asked;
    const char *name;
} CONDITIONS[] = {{PORT, "a port"},         {OUTER, "an outer VLAN"}, {INNER, "an inner VLAN"},
                  {ETHER, "an ether type"}, {SOURCE, "a source"},     {DESTINATION, "a destination"}};

constexpr struct {
    uint32_t conditions;
    int32_t type;
} TYPES[] = {{PORT, U_BRIDGE__MATCH_TYPE__EMATCH_PORT},
             {OUTER, U_BRIDGE__MATCH_TYPE__OVID},
             {INNER, U_BRIDGE__MATCH_TYPE__IVID},
             {OUTER | INNER, U_BRIDGE__MATCH_TYPE__OVID_IVID},
             {PORT | OUTER, U_BRIDGE__MATCH_TYPE__PORT_OVID},
             {PORT | INNER, U_BRIDGE__MATCH_TYPE__PORT_IVID},
             {PORT | OUTER | INNER, U_BRIDGE__MATCH_TYPE__PORT_OVID_IVID},
             {ETHER, U_BRIDGE__MATCH_TYPE__PORT_FRM_ETH},
             {PORT | ETHER, U_BRIDGE__MATCH_TYPE__PORT_FRM_ETH},
             {SOURCE, U_BRIDGE__MATCH_TYPE__SIP},
             {DESTINATION, U_BRIDGE__MATCH_TYPE__DIP},
             {SOURCE | DESTINATION, U_BRIDGE__MATCH_TYPE__SIP_DIP}};

// An ACL rule in the terms of a match rule.
struct terms {
    uint32_t asked = 0;  // conditions
    uint32_t ether_type = 0;
    const ip_prefix *source = nullptr;
    const ip_prefix *destination = nullptr;

    const ip_prefix *either() const { return source ? source : destination; }
};

// A prefix of length 0 says no more than its IP version, which is an ether type; an address says its IP version too.
// False when no frame can be all of it.
bool find_terms(const acl_rule &rule, terms *out)
{
    out->ether_type = rule.ether_type.value_or(0);
    for (const std::optional<ip_prefix> *each : {&rule.source, &rule.destination}) {
        if (!*each)
            continue;
        const uint32_t type = (*each)->address.v6 ? IPV6 : IPV4;
        if (out->ether_type != 0 && out->ether_type != type)
            return false;
        out->ether_type = type;
        if (!(*each)->is_any())
            (each == &rule.source ? out->source : out->destination) = &**each;
    }
    if (out->either())
        out->ether_type = 0;
    out->asked = (rule.in_ports.empty() ? 0 : PORT) | (rule.vlan ? OUTER : 0) | (rule.inner_vlan ? INNER : 0) |
                 (out->ether_type ? ETHER : 0) | (out->source ? SOURCE : 0) | (out->destination ? DESTINATION : 0);
    return true;
}

// "a port, an outer VLAN and a source"
std::string names_of(uint32_t conditions)
{
    std::string text;
    for (const auto &[asked, name] : CONDITIONS) {
        if ((conditions & asked) == 0)
            continue;
        conditions -= asked;
        text += (text.empty() ? "" : conditions == 0 ? " and " : ", ") + std::string(name);
    }
    return text;
}

std::string list_of(const std::vector<std::string> &names)
{
    std::string text;
    for (const std::string &name : names)
        text += (text.empty() ? "" : ", ") + name;
    return printable(text);
}

// A rule's action; false when it has no twin. What passes goes on in the VLAN that it names, or in the one it is in.
bool find_action(const acl_rule &rule, sw_ematch_item *out)
{
    if (rule.action.empty() || rule.action == "DROP") {
        out->action_type = U_BRIDGE__EMATCH_ACTION_TYPE__UNUSED;
        return true;
    }
    out->action_type = U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN;
    if (rule.vlan != 0)
        out->new_evlan1 = static_cast<int32_t>(U_BRIDGE__EVLAN_TYPE__VLAN << 24 | rule.vlan);
    return rule.action == "FORWARD" || rule.action == "ACCEPT";
}

// As it stands in memory, which is network byte order.
uint32_t word_of(const ip_prefix &prefix)
{
    uint32_t word = 0;
    std::memcpy(&word, prefix.address.bytes.data(), sizeof word);
    return word;
}

uint32_t netmask(uint32_t length)
{
    uint32_t word = 0;
    uint8_t bytes[sizeof word] = {};
    for (uint32_t bit = 0; bit < length; ++bit)
        bytes[bit / 8] |= static_cast<uint8_t>(0x80U >> bit % 8);
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

void set_address(const ip_prefix &prefix, sw_ematch_item *out)
{
    out->ip_ver = prefix.address.v6;
    std::copy(prefix.address.bytes.begin(), prefix.address.bytes.end(), out->ip);
}

// The addresses of a rule; why it cannot have them, or null. A mask belongs to one address, and type and mask do not say
// to which: a source stands in `ip`, a destination in `ipv4`.
const char *find_addresses(const terms &of, sw_ematch_item *out)
{
    const ip_prefix *only = of.either();
    if (!only)
        return nullptr;
    const bool both = of.source && of.destination;
    if (both && only->address.v6)
        return "no type of match rule has two IPv6 addresses";
    if (only->address.v6 && !only->is_host())
        return "match rules have no IPv6 prefixes";
    if (both && !(of.source->is_host() && of.destination->is_host()))
        return "no type of match rule has a prefix and another address";
    if (both)
        out->ipv4 = word_of(*of.destination);
    if (both || only->is_host()) {
        set_address(*only, out);
        return nullptr;
    }
    out->match_type = U_BRIDGE__MATCH_TYPE__IP_MASK;
    out->ip_mask = netmask(only->length);
    if (of.source) {
        set_address(*of.source, out);
        return nullptr;
    }
    out->ipv4 = word_of(*of.destination);
    return out->ipv4 == 0 ? "a destination with the address 0.0.0.0 cannot be told from a source" : nullptr;
}

// All but the port. Why there is none, or "".
std::string make_rule(const acl_rule &rule, sw_ematch_item *out)
{
    if (rule.of_switch)
        return "its table guards the switch itself";
    if (!rule.others.empty())
        return "match rules have no " + list_of(rule.others);
    if (!find_action(rule, out))
        return "match rules have no action " + printable(rule.action);
    terms of;
    if (!find_terms(rule, &of))
        return "no frame of this ether type has such an address";
    if (of.asked == 0)
        return "it asks for nothing";
    const auto type = std::ranges::find_if(TYPES, [&](const auto &row) { return row.conditions == of.asked; });
    if (type == std::end(TYPES))
        return "no type of match rule has " + names_of(of.asked);
    out->match_type = type->type;
    out->match_flag = rule.egress ? U_BRIDGE__MATCH_FLAG__EMATCH_EGRESS : U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS;
    out->evlan1 = static_cast<int32_t>(rule.vlan);
    out->evlan2 = static_cast<int32_t>(rule.inner_vlan);
    out->ether_type = of.ether_type;
    const char *why = find_addresses(of, out);
    return why ? why : "";
}

}  // namespace

priority_levels::priority_levels(const std::vector<acl_rule> &rules)
{
    for (const acl_rule &rule : rules)
        occurring_.push_back(rule.priority);
    std::ranges::sort(occurring_);
    occurring_.erase(std::unique(occurring_.begin(), occurring_.end()), occurring_.end());
    if (!occurring_.empty() && occurring_.back() < LEVELS)
        occurring_.clear();
}

int32_t priority_levels::of(uint32_t priority) const
{
    if (occurring_.empty())
        return static_cast<int32_t>(priority);
    const auto place = std::ranges::lower_bound(occurring_, priority) - occurring_.begin();
    return static_cast<int32_t>(place * LEVELS / static_cast<std::ptrdiff_t>(occurring_.size()));
}

expressed_rule express(const acl_rule &rule, const priority_levels &levels)
{
    expressed_rule made;
    sw_ematch_item item{};
    made.reason = make_rule(rule, &item);
    if (!made.reason.empty())
        return made;
    item.match_priority = levels.of(rule.priority);
    for (const acl_port &port : rule.in_ports) {
        item.eport = static_cast<int32_t>(port_id(port.phyid));
        made.rules.push_back(item);
    }
    if (rule.in_ports.empty())
        made.rules.push_back(item);
    return made;
}

}  // namespace ebridge_tool
