// A match rule in words. See rule_words.hpp.
#include "rule_words.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>

#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

namespace
{

constexpr uint32_t MAX_VLAN = 4095;  // what is larger is an id with its type

std::string name_of(const ProtobufCEnumDescriptor &names, int32_t value)
{
    const auto *found = protobuf_c_enum_descriptor_get_value(&names, value);
    return found ? found->name : std::to_string(value);
}

// Letters and digits of ASCII: no locale has a say.
std::string with_case(std::string_view text, bool upper)
{
    std::string result(text);
    const char from = upper ? 'a' : 'A';
    for (char &c : result)
        if (c >= from && c <= from + 25)
            c = static_cast<char>(c ^ 0x20);
    return result;
}

std::string hex(uint32_t value, int digits)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*x", digits, value);
    return text;
}

std::string mac_text(const uint8_t (&mac)[8])
{
    char text[20];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

std::string address_text(int family, const void *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(family, address, text, sizeof text);
    return text;
}

// Words of IPv4 stand in network byte order.
std::string v4_text(uint32_t word) { return address_text(AF_INET, &word); }

bool is_zero(std::span<const uint8_t> bytes)
{
    return std::ranges::all_of(bytes, [](uint8_t byte) { return byte == 0; });
}

// Gathers the fields that are set.
class field_list
{
  public:
    void add_id(const char *name, int32_t id)
    {
        const auto number = static_cast<uint32_t>(id);
        add_number(name, number, number <= MAX_VLAN ? std::to_string(number) : hex(number, 8));
    }
    void add_hex(const char *name, uint32_t value, int digits) { add_number(name, value, hex(value, digits)); }
    void add_decimal(const char *name, int64_t value) { add_number(name, value, std::to_string(value)); }
    void add_mac(const char *name, const uint8_t (&mac)[8])
    {
        if (!is_zero(mac))
            add_text(name, mac_text(mac));
    }
    void add_text(const char *name, std::string text) { fields_.push_back({name, std::move(text)}); }

    std::vector<rule_field> take() { return std::move(fields_); }

  private:
    void add_number(const char *name, int64_t number, std::string text)
    {
        if (number != 0)
            fields_.push_back({name, std::move(text), number});
    }

    std::vector<rule_field> fields_{};
};

const char *port_name(const sw_ematch_item &item)
{
    constexpr uint32_t BOTH = U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS | U_BRIDGE__MATCH_FLAG__EMATCH_EGRESS;
    if (item.match_type == U_BRIDGE__MATCH_TYPE__EPORT || item.match_type == U_BRIDGE__MATCH_TYPE__EPORT_OVID)
        return "eport";
    return (item.match_flag & BOTH) == U_BRIDGE__MATCH_FLAG__EMATCH_EGRESS ? "out-port" : "in-port";
}

void add_vlans(const sw_ematch_item &item, field_list *fields)
{
    switch (item.match_type) {
        case U_BRIDGE__MATCH_TYPE__EVLAN:
            fields->add_id("evlan", item.evlan1);
            fields->add_id("evlan2", item.evlan2);
            break;
        case U_BRIDGE__MATCH_TYPE__RANGE_OVID:
        case U_BRIDGE__MATCH_TYPE__RANGE_IVID:
        case U_BRIDGE__MATCH_TYPE__PORT_RANGE_OVID:
        case U_BRIDGE__MATCH_TYPE__PORT_RANGE_IVID:
            fields->add_id("evlan1", item.evlan1);
            fields->add_id("evlan2", item.evlan2);
            break;
        default:
            fields->add_id("ovid", item.evlan1);
            fields->add_id("ivid", item.evlan2);
            break;
    }
}

bool is_one_of(int32_t type, std::initializer_list<int32_t> types)
{
    return std::ranges::find(types, type) != types.end();
}

const char *ip_name(int32_t type)
{
    if (is_one_of(type, {U_BRIDGE__MATCH_TYPE__SIP, U_BRIDGE__MATCH_TYPE__SIP_DIP, U_BRIDGE__MATCH_TYPE__IP_MASK}))
        return "source";
    return type == U_BRIDGE__MATCH_TYPE__DIP ? "destination" : "ip";
}

const char *ipv4_name(int32_t type)
{
    const bool destination = is_one_of(type, {U_BRIDGE__MATCH_TYPE__SIP_DIP, U_BRIDGE__MATCH_TYPE__IP_MASK});
    return destination ? "destination" : "ipv4";
}

// A mask of leading bits stands behind the address, as people write it; any other by itself.
void add_addresses(const sw_ematch_item &item, field_list *fields)
{
    const uint32_t mask = ntohl(item.ip_mask);
    const bool leading = mask != 0 && std::countl_one(mask) + std::countr_zero(mask) == 32;
    std::string length = leading ? '/' + std::to_string(std::popcount(mask)) : "";
    const bool masked_zero = item.match_type == U_BRIDGE__MATCH_TYPE__IP_MASK && item.ipv4 == 0;
    if (item.ip_ver != 0)
        fields->add_text(ip_name(item.match_type), address_text(AF_INET6, item.ip));
    else if (!is_zero(item.ip) || masked_zero)
        fields->add_text(ip_name(item.match_type), address_text(AF_INET, item.ip) + std::exchange(length, ""));
    if (item.ipv4 != 0)
        fields->add_text(ipv4_name(item.match_type), v4_text(item.ipv4) + std::exchange(length, ""));
    if (mask != 0 && (!leading || !length.empty()))
        fields->add_text("ip-mask", v4_text(item.ip_mask));
}

}  // namespace

std::optional<int32_t> match_type_of(const std::string &text)
{
    const std::string name = with_case(text, true);
    if (const auto *found =
            protobuf_c_enum_descriptor_get_value_by_name(&u_bridge__match_type__descriptor, name.c_str()))
        return found->value;
    int32_t number = 0;
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    const bool whole = read.ec == std::errc() && read.ptr == end;
    if (whole && protobuf_c_enum_descriptor_get_value(&u_bridge__match_type__descriptor, number))
        return number;
    return std::nullopt;
}

std::string match_type_name(int32_t type) { return name_of(u_bridge__match_type__descriptor, type); }

std::string action_name(int32_t action) { return name_of(u_bridge__ematch_action_type__descriptor, action); }

std::string result_name(int32_t result) { return name_of(u_bridge__match_result__descriptor, result); }

std::vector<std::string> match_flag_names(uint32_t flags)
{
    constexpr std::string_view PREFIX = "EMATCH_";
    std::vector<std::string> names;
    const auto &all = u_bridge__match_flag__descriptor;
    for (const auto &value : std::span(all.values, all.n_values)) {
        const auto bit = static_cast<uint32_t>(value.value);
        if ((flags & bit) == 0)
            continue;
        names.push_back(with_case(std::string_view(value.name).substr(PREFIX.size()), false));
        flags &= ~bit;
    }
    if (flags != 0)
        names.push_back(hex(flags, 1));
    return names;
}

std::vector<rule_field> key_fields(const sw_ematch_item &item)
{
    field_list fields;
    fields.add_hex(port_name(item), static_cast<uint32_t>(item.eport), 8);
    add_vlans(item, &fields);
    fields.add_hex("ether-type", item.ether_type, 4);
    fields.add_decimal("frame-type", item.frame_type);
    add_addresses(item, &fields);
    fields.add_mac("mac", item.mac);
    fields.add_mac("mac-mask", item.mask);
    fields.add_decimal("vnid", item.vnid);
    fields.add_decimal("label", item.label);
    fields.add_decimal("id", item.match_id);
    return fields.take();
}

std::vector<rule_field> action_fields(const sw_ematch_item &item)
{
    field_list fields;
    fields.add_id(item.action_type == U_BRIDGE__EMATCH_ACTION_TYPE__TO_EVLAN ? "evlan" : "ovid", item.new_evlan1);
    fields.add_id("ivid", item.new_evlan2);
    fields.add_hex("eport", static_cast<uint32_t>(item.new_eport), 8);
    fields.add_decimal("vnid", item.new_vnid);
    fields.add_decimal("pri", item.new_pri);
    fields.add_decimal("l3-iif", item.l3_iif);
    if (item.flag != 0)
        fields.add_text("flag", name_of(u_bridge__flag_type__descriptor, item.flag));
    return fields.take();
}

}  // namespace ebridge_tool
