// What the fields of access lists mean. See config_acl.hpp.
#include "config_acl.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <iterator>

namespace ebridge_tool
{

using namespace config_text;

namespace
{

constexpr uint32_t MAX_PRIORITY = 999'999;
constexpr uint32_t MAX_VLAN = 4094;
constexpr uint32_t IPV4 = 0x0800, ARP = 0x0806, IPV6 = 0x86dd;

// "Ethernet0,Ethernet4", or a list of names.
std::optional<std::vector<std::string>> names_of(const config_field &field)
{
    if (field.list)
        return field.items;
    if (!field.scalar)
        return std::nullopt;
    std::vector<std::string> names;
    for (size_t begin = 0; begin <= field.text.size();) {
        const size_t end = std::min(field.text.find(',', begin), field.text.size());
        names.push_back(field.text.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

// A decimal number, or a hexadecimal one after 0x.
std::optional<uint32_t> number_of(std::string_view text)
{
    if (!text.starts_with("0x") && !text.starts_with("0X"))
        return whole_number(text);
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), number, 16);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// Bits behind the prefix are taken off, as a switch does.
void cut_to(uint32_t length, ip_address *address)
{
    for (uint32_t bit = length; bit < 8 * address->bytes.size(); ++bit)
        address->bytes[bit / 8] &= static_cast<uint8_t>(~(0x80U >> bit % 8));
}

// "10.0.0.0/8"; without a length the address alone.
std::optional<ip_prefix> prefix_of(const std::string &text, bool v6)
{
    const size_t slash = std::min(text.find('/'), text.size());
    ip_prefix prefix{.address = {.bytes = {}, .v6 = v6}, .length = v6 ? 128U : 32U};
    if (inet_pton(v6 ? AF_INET6 : AF_INET, text.substr(0, slash).c_str(), prefix.address.bytes.data()) != 1)
        return std::nullopt;
    if (slash < text.size()) {
        const std::optional<uint32_t> length = whole_number(std::string_view(text).substr(slash + 1));
        if (!length || *length > prefix.length)
            return std::nullopt;
        prefix.length = *length;
    }
    cut_to(prefix.length, &prefix.address);
    return prefix;
}

// Reads the fields of one rule.
class rule_reader
{
  public:
    rule_reader(const port_test &is_port, acl_rule *out, std::string *error)
        : is_port_(is_port), out_(out), error_(error)
    {
    }

    bool priority(const config_field &field);
    bool action(const config_field &field);
    bool in_ports(const config_field &field);
    bool vlan(const config_field &field) { return vlan(field, &out_->vlan); }
    bool inner_vlan(const config_field &field) { return vlan(field, &out_->inner_vlan); }
    bool ether_type(const config_field &field);
    bool ip_type(const config_field &field);
    bool source_v4(const config_field &field) { return prefix(field, false, &out_->source); }
    bool source_v6(const config_field &field) { return prefix(field, true, &out_->source); }
    bool destination_v4(const config_field &field) { return prefix(field, false, &out_->destination); }
    bool destination_v6(const config_field &field) { return prefix(field, true, &out_->destination); }
    bool range_of_all(const config_field &field);
    bool description(const config_field &) { return true; }
    bool other(const config_field &field)
    {
        out_->others.push_back(field.name);
        return true;
    }
    bool is_whole() const { return has_priority_ || fail("PRIORITY is missing"); }

  private:
    bool fail(const std::string &what) const
    {
        *error_ = what;
        return false;
    }
    bool vlan(const config_field &field, uint32_t *out) const;
    bool prefix(const config_field &field, bool v6, std::optional<ip_prefix> *out) const;
    bool ether_type(const config_field &field, uint32_t type);

    const port_test &is_port_;
    acl_rule *out_;
    std::string *error_;
    bool has_priority_ = false;
};

bool rule_reader::priority(const config_field &field)
{
    const std::optional<uint32_t> number = field.scalar ? whole_number(field.text) : std::nullopt;
    if (!number || *number > MAX_PRIORITY)
        return fail(field.quoted() + " is not a number from 0 to 999999");
    has_priority_ = true;
    out_->priority = *number;
    return true;
}

bool rule_reader::action(const config_field &field)
{
    if (!field.scalar || field.text.empty())
        return fail(field.quoted() + " is not the name of an action");
    out_->action = field.text;
    return true;
}

bool rule_reader::in_ports(const config_field &field)
{
    const std::optional<std::vector<std::string>> names = names_of(field);
    if (!names || names->empty())
        return fail(field.name + " is not a list of names");
    for (const std::string &name : *names) {
        if (!is_port_(name))
            return fail('"' + name + "\" is no port");
        if (std::ranges::find(out_->in_ports, name, &acl_port::name) == out_->in_ports.end())
            out_->in_ports.push_back({.name = name});
    }
    return true;
}

bool rule_reader::vlan(const config_field &field, uint32_t *out) const
{
    const uint32_t number = field.scalar ? whole_number(field.text).value_or(0) : 0;
    if (number == 0 || number > MAX_VLAN)
        return fail(field.quoted() + " is not a number from 1 to 4094");
    if (*out != 0 && *out != number)
        return fail(field.quoted() + " is another VLAN than the one told before");
    *out = number;
    return true;
}

bool rule_reader::ether_type(const config_field &field)
{
    const uint32_t type = field.scalar ? number_of(field.text).value_or(0) : 0;
    if (type < 0x600 || type > 0xffff)
        return fail(field.quoted() + " is not a number from 0x0600 to 0xffff");
    return ether_type(field, type);
}

// Where two fields tell different types the later one is left over.
bool rule_reader::ether_type(const config_field &field, uint32_t type)
{
    if (out_->ether_type && *out_->ether_type != type)
        return other(field);
    out_->ether_type = type;
    return true;
}

// Some of these are ether types in other words.
bool rule_reader::ip_type(const config_field &field)
{
    const auto is = [&field](std::string_view name) { return field.scalar && field.text == name; };
    if (is("ANY"))
        return true;
    const uint32_t type = is("IPV4ANY") ? IPV4 : is("IPV6ANY") ? IPV6 : is("ARP") ? ARP : 0;
    return type != 0 ? ether_type(field, type) : other(field);
}

bool rule_reader::prefix(const config_field &field, bool v6, std::optional<ip_prefix> *out) const
{
    const std::optional<ip_prefix> read = field.scalar ? prefix_of(field.text, v6) : std::nullopt;
    if (!read)
        return fail(field.quoted() + (v6 ? " is not an IPv6" : " is not an IPv4") + " address or prefix");
    for (const std::optional<ip_prefix> &before : {out_->source, out_->destination})
        if (before && before->address.v6 != v6)
            return fail("addresses of IPv4 and of IPv6");
    *out = read;
    return true;
}

bool rule_reader::range_of_all(const config_field &field)
{
    return (field.scalar && field.text == "0-65535") || other(field);
}

struct rule_field {
    std::string_view name;
    bool (rule_reader::*read)(const config_field &);
};
constexpr rule_field RULE_FIELDS[] = {{"PRIORITY", &rule_reader::priority},
                                      {"PACKET_ACTION", &rule_reader::action},
                                      {"IN_PORTS", &rule_reader::in_ports},
                                      {"VLAN_ID", &rule_reader::vlan},
                                      {"OUTER_VLAN_ID", &rule_reader::vlan},
                                      {"INNER_VLAN_ID", &rule_reader::inner_vlan},
                                      {"INNER_VLAN", &rule_reader::inner_vlan},
                                      {"ETHER_TYPE", &rule_reader::ether_type},
                                      {"IP_TYPE", &rule_reader::ip_type},
                                      {"SRC_IP", &rule_reader::source_v4},
                                      {"DST_IP", &rule_reader::destination_v4},
                                      {"SRC_IPV6", &rule_reader::source_v6},
                                      {"DST_IPV6", &rule_reader::destination_v6},
                                      {"L4_SRC_PORT_RANGE", &rule_reader::range_of_all},
                                      {"L4_DST_PORT_RANGE", &rule_reader::range_of_all},
                                      {"RULE_DESCRIPTION", &rule_reader::description}};

bool fail(std::string *error, const std::string &what)
{
    *error = what;
    return false;
}

std::string lower_case(std::string text)
{
    for (char &c : text)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return text;
}

}  // namespace

bool read_acl_table(const config_entry &entry, const port_test &is_port, acl_table *out, std::string *error)
{
    if (const config_field *stage = entry.find("stage")) {
        const std::string name = stage->scalar ? lower_case(stage->text) : "";
        if (name != "ingress" && name != "egress")
            return fail(error, stage->quoted() + " is neither ingress nor egress");
        out->egress = name == "egress";
    }
    if (const config_field *type = entry.find("type"))
        out->of_switch = type->scalar && lower_case(type->text) == "ctrlplane";
    const config_field *ports = entry.find("ports");
    if (!ports || (ports->scalar && ports->text.empty()))
        return true;
    const std::optional<std::vector<std::string>> names = names_of(*ports);
    if (!names)
        return fail(error, "ports is not a list of names");
    const auto missing = std::ranges::find_if_not(*names, is_port);
    return missing == names->end() || fail(error, '"' + *missing + "\" is no port");
}

bool read_acl_rule(const config_entry &entry, const port_test &is_port, acl_rule *out, std::string *error)
{
    rule_reader reader(is_port, out, error);
    for (const config_field &field : entry.fields) {
        const auto known = std::ranges::find(RULE_FIELDS, field.name, &rule_field::name);
        if (!(known == std::end(RULE_FIELDS) ? reader.other(field) : (reader.*known->read)(field)))
            return false;
    }
    return reader.is_whole();
}

}  // namespace ebridge_tool
