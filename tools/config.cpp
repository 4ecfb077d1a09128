// Reading a switch configuration: what its tables mean. See config.hpp.
#include "config.hpp"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

#include "config_acl.hpp"
#include "config_tables.hpp"

namespace ebridge_tool
{

using namespace config_text;

namespace
{

constexpr uint32_t MAX_VLAN = 4094;
constexpr uint32_t MAX_VNI = 0xffffff;
constexpr uint32_t MAX_LAG = 999'999;
constexpr uint32_t MAX_MTU = 65'535;

// The number of "Vlan10" where the prefix is "Vlan"; nothing when it names none up to `max`.
std::optional<uint32_t> number_of(std::string_view name, std::string_view prefix, uint32_t max)
{
    if (!name.starts_with(prefix))
        return std::nullopt;
    const std::optional<uint32_t> number = whole_number(name.substr(prefix.size()));
    return number <= max ? number : std::nullopt;
}

// 0 when it is no VLAN's.
uint32_t vlan_number(std::string_view name) { return number_of(name, "Vlan", MAX_VLAN).value_or(0); }

std::optional<ip_address> read_address(const std::string &text)
{
    ip_address address;
    if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1)
        return address;
    address.v6 = true;
    if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) == 1)
        return address;
    return std::nullopt;
}

bool is_unspecified(const ip_address &address)
{
    return std::ranges::all_of(address.bytes, [](uint8_t byte) { return byte == 0; });
}

// Multicast and the broadcast address are no sender's.
bool is_group(const ip_address &address) { return address.bytes[0] >= (address.v6 ? 0xff : 0xe0); }

// Two halves of a key, both there; nothing otherwise.
std::optional<std::pair<std::string, std::string>> halves(const std::string &key)
{
    const size_t bar = key.find('|');
    if (bar == 0 || bar == std::string::npos || bar + 1 == key.size())
        return std::nullopt;
    return std::pair(key.substr(0, bar), key.substr(bar + 1));
}

// Gives tables their meaning. A fault is set once, by the first thing that makes no sense.
class interpreter
{
  public:
    interpreter(switch_config *out, const std::function<bool(const std::string &)> &is_port, config_fault *fault)
        : out_(out), is_port_(is_port), fault_(fault)
    {
    }

    bool port(const config_table &table, const config_entry &entry);
    bool lag(const config_table &table, const config_entry &entry);
    bool membership(const config_table &table, const config_entry &entry);
    bool vlan(const config_table &table, const config_entry &entry);
    bool vlan_membership(const config_table &table, const config_entry &entry);
    bool tunnel(const config_table &table, const config_entry &entry);
    bool vxlan_map(const config_table &table, const config_entry &entry);
    bool acl(const config_table &table, const config_entry &entry);
    bool rule(const config_table &table, const config_entry &entry);
    // The table is there, if only empty.
    void begin(const config_table &table);
    // After all tables.
    void note_members();

  private:
    bool fail(const config_table &table, const config_entry &entry, const std::string &what)
    {
        *fault_ = {entry.line, table.place(entry) + what};
        return false;
    }
    bool mtu(const config_table &table, const config_entry &entry, uint32_t *out);
    bool address(const config_table &table, const config_entry &entry, const char *name,
                 std::optional<ip_address> *out);
    bool join(const config_table &table, const config_entry &entry, const std::string &lag, const std::string &port);
    bool is_port_or_lag(const std::string &name) const;
    // The same where that is told; anything else is one.
    bool is_known_port(const std::string &name) const;

    switch_config *out_;
    const std::function<bool(const std::string &)> &is_port_;
    config_fault *fault_;
    std::set<std::string> ports_;
    std::map<uint32_t, std::string> lag_keys_;  // number -> entry that defines it
    std::map<std::string, std::string> lag_of_;
    std::set<std::string> tunnels_;
    std::map<uint32_t, std::string> vlan_keys_;
    std::map<std::pair<uint32_t, std::string>, std::string> member_keys_;  // VLAN and port -> entry
    std::map<uint32_t, std::string> vni_keys_;
    bool has_acls_ = false;  // the table ACL_TABLE
    std::map<std::string, acl_table> acls_;
};

// The tables that mean something, in the order in which they refer to each other.
struct meaning {
    std::string_view table;
    bool (interpreter::*read)(const config_table &, const config_entry &);
    bool requested;  // ids are, for its entries
};
constexpr meaning MEANINGS[] = {{"PORT", &interpreter::port, true},
                                {"PORTCHANNEL", &interpreter::lag, true},
                                {"PORTCHANNEL_MEMBER", &interpreter::membership, false},
                                {"VLAN", &interpreter::vlan, true},
                                {"VLAN_MEMBER", &interpreter::vlan_membership, true},
                                {"VXLAN_TUNNEL", &interpreter::tunnel, true},
                                {"VXLAN_TUNNEL_MAP", &interpreter::vxlan_map, true},
                                {"ACL_TABLE", &interpreter::acl, false},
                                {"ACL_RULE", &interpreter::rule, true}};

const meaning *meaning_of(std::string_view table)
{
    const meaning *found = std::ranges::find(MEANINGS, table, &meaning::table);
    return found == std::end(MEANINGS) ? nullptr : found;
}

bool is_meant(std::string_view table) { return meaning_of(table) != nullptr; }

void interpreter::begin(const config_table &table)
{
    if (table.name == "PORT")
        out_->ports.emplace();
    else if (table.name == "PORTCHANNEL")
        out_->lags.emplace();
    else if (table.name == "VLAN")
        out_->vlans.emplace();
    else if (table.name == "VLAN_MEMBER")
        out_->vlan_members.emplace();
    else if (table.name == "VXLAN_TUNNEL")
        out_->tunnels.emplace();
    else if (table.name == "VXLAN_TUNNEL_MAP")
        out_->vxlan_maps.emplace();
    else if (table.name == "ACL_TABLE")
        has_acls_ = true;
    else if (table.name == "ACL_RULE")
        out_->acl_rules.emplace();
}

// 0 when there is none.
bool interpreter::mtu(const config_table &table, const config_entry &entry, uint32_t *out)
{
    const config_field *field = entry.find("mtu");
    *out = field && field->scalar ? whole_number(field->text).value_or(0) : 0;
    return !field || (*out >= 1 && *out <= MAX_MTU) ||
           fail(table, entry, field->quoted() + " is not a number from 1 to 65535");
}

// ---- ports and LAGs -------------------------------------------------------------------------------------------------

bool interpreter::port(const config_table &table, const config_entry &entry)
{
    if (uint32_t ignored = 0; !mtu(table, entry, &ignored))
        return false;
    ports_.insert(entry.key);
    out_->ports->push_back({{entry.key, entry.line}});
    return true;
}

bool interpreter::lag(const config_table &table, const config_entry &entry)
{
    const std::optional<uint32_t> number = number_of(entry.key, "PortChannel", MAX_LAG);
    if (!number)
        return fail(table, entry, "the name must be PortChannel0 to PortChannel999999");
    if (uint32_t ignored = 0; !mtu(table, entry, &ignored))
        return false;
    const auto [first, fresh] = lag_keys_.emplace(*number, entry.key);
    if (!fresh)
        return fail(table, entry, "has the number of " + first->second + " already");
    out_->lags->push_back({{entry.key, entry.line}, *number});
    const config_field *members = entry.find("members");
    if (members && !members->list)
        return fail(table, entry, "members is not a list of names");
    return !members || std::ranges::all_of(members->items, [&](const std::string &name) {
        return join(table, entry, entry.key, name);
    });
}

bool interpreter::membership(const config_table &table, const config_entry &entry)
{
    const auto names = halves(entry.key);
    if (!names)
        return fail(table, entry, "the key must be PORTCHANNEL|PORT");
    if (out_->lags && std::ranges::find(*out_->lags, names->first, &config_item::key) == out_->lags->end())
        return fail(table, entry, '"' + names->first + "\" is not in the table PORTCHANNEL");
    if (!join(table, entry, names->first, names->second))
        return false;
    out_->lag_members.push_back({{entry.key, entry.line}, names->second});
    return true;
}

// One port may be named as the member of a LAG in both of its tables.
bool interpreter::join(const config_table &table, const config_entry &entry, const std::string &lag,
                       const std::string &port)
{
    if (is_port_ ? !is_port_(port) : out_->ports && !ports_.contains(port))
        return fail(table, entry, '"' + port + "\" is no port");
    const auto [first, fresh] = lag_of_.emplace(port, lag);
    return fresh || first->second == lag || fail(table, entry, port + " is a member of " + first->second + " already");
}

void interpreter::note_members()
{
    if (out_->ports)
        for (port_entry &port : *out_->ports)
            port.in_lag = lag_of_.contains(port.key);
}

bool interpreter::is_port_or_lag(const std::string &name) const
{
    const std::optional<uint32_t> number = number_of(name, "PortChannel", MAX_LAG);
    const auto lag = number ? lag_keys_.find(*number) : lag_keys_.end();
    return (lag != lag_keys_.end() && lag->second == name) || (is_port_ ? is_port_(name) : ports_.contains(name));
}

bool interpreter::is_known_port(const std::string &name) const
{
    const bool lags_told = out_->lags && number_of(name, "PortChannel", MAX_LAG);
    return (!is_port_ && !out_->ports && !lags_told) || is_port_or_lag(name);
}

// ---- VLANs and VXLAN ------------------------------------------------------------------------------------------------

bool interpreter::vlan(const config_table &table, const config_entry &entry)
{
    const uint32_t number = vlan_number(entry.key);
    if (number == 0)
        return fail(table, entry, "the name must be Vlan1 to Vlan4094");
    const config_field *vlanid = entry.find("vlanid");
    if (vlanid && (!vlanid->scalar || whole_number(vlanid->text) != number))
        return fail(table, entry, vlanid->quoted() + " is not the number of the name");
    uint32_t mtu_told = 0;
    if (!mtu(table, entry, &mtu_told))
        return false;
    const auto [first, fresh] = vlan_keys_.emplace(number, entry.key);
    if (!fresh)
        return fail(table, entry, "is the same VLAN as " + first->second);
    out_->vlans->push_back({{entry.key, entry.line}, number, mtu_told});
    return true;
}

// Ports are those of the file or of a list; where neither tells them, they are taken as they come. VLANs are the file's.
bool interpreter::vlan_membership(const config_table &table, const config_entry &entry)
{
    const auto names = halves(entry.key);
    if (!names)
        return fail(table, entry, "the key must be VLAN|PORT");
    const auto &[vlan, port] = *names;
    const uint32_t number = vlan_number(vlan);
    if (number == 0)
        return fail(table, entry, '"' + vlan + "\" is not Vlan1 to Vlan4094");
    if (!vlan_keys_.contains(number))
        return fail(table, entry, '"' + vlan + "\" is not in the table VLAN");
    const bool no_lag = port.starts_with("PortChannel") && !number_of(port, "PortChannel", MAX_LAG);
    if (!is_known_port(port) || no_lag)
        return fail(table, entry, '"' + port + "\" is no port");
    const config_field *mode = entry.find("tagging_mode");
    if (!mode)
        return fail(table, entry, "tagging_mode is missing");
    const bool untagged = mode->scalar && mode->text == "untagged";
    if (!untagged && !(mode->scalar && mode->text == "tagged"))
        return fail(table, entry, mode->quoted() + " is neither tagged nor untagged");
    const auto [first, fresh] = member_keys_.emplace(std::pair(number, port), entry.key);
    if (!fresh)
        return fail(table, entry, "is the same member as " + first->second);
    if (!is_port_ && !out_->ports)
        ports_.insert(port);  // as if the table PORT had it
    out_->vlan_members->push_back({{entry.key, entry.line}, number, port, untagged});
    return true;
}

bool interpreter::address(const config_table &table, const config_entry &entry, const char *name,
                          std::optional<ip_address> *out)
{
    const config_field *field = entry.find(name);
    if (!field)
        return true;
    if (field->scalar)
        *out = read_address(field->text);
    return (*out && !is_unspecified(**out)) || fail(table, entry, field->quoted() + " is not the address of a switch");
}

bool interpreter::tunnel(const config_table &table, const config_entry &entry)
{
    tunnel_entry read{{entry.key, entry.line}, {}, {}, 0};
    if (!address(table, entry, "src_ip", &read.source) || !address(table, entry, "dst_ip", &read.destination))
        return false;
    if (read.source && is_group(*read.source))
        return fail(table, entry, entry.find("src_ip")->quoted() + " is not the address of a switch");
    if (read.source && read.destination && read.source->v6 != read.destination->v6)
        return fail(table, entry, "src_ip and dst_ip are not of the same IP version");
    if (!mtu(table, entry, &read.mtu))
        return false;
    tunnels_.insert(entry.key);
    out_->tunnels->push_back(std::move(read));
    return true;
}

bool interpreter::vxlan_map(const config_table &table, const config_entry &entry)
{
    const auto names = halves(entry.key);
    if (!names)
        return fail(table, entry, "the key must be TUNNEL|MAP");
    if (out_->tunnels && !tunnels_.contains(names->first))
        return fail(table, entry, "the tunnel \"" + names->first + "\" is not in the table VXLAN_TUNNEL");
    const config_field *vni = entry.find("vni");
    const config_field *vlan = entry.find("vlan");
    if (!vni || !vlan)
        return fail(table, entry, vni ? "vlan is missing" : "vni is missing");
    const uint32_t vni_number = vni->scalar ? whole_number(vni->text).value_or(0) : 0;
    if (vni_number == 0 || vni_number > MAX_VNI)
        return fail(table, entry, vni->quoted() + " is not a number from 1 to 16777215");
    const uint32_t number = vlan->scalar ? vlan_number(vlan->text) : 0;
    if (number == 0)
        return fail(table, entry, vlan->quoted() + " is not Vlan1 to Vlan4094");
    if (out_->vlans && !vlan_keys_.contains(number))
        return fail(table, entry, vlan->quoted() + " is not in the table VLAN");
    const auto [first, fresh] = vni_keys_.emplace(vni_number, entry.key);
    if (!fresh)
        return fail(table, entry, vni->quoted() + " is that of " + first->second + " already");
    out_->vxlan_maps->push_back({{entry.key, entry.line}, names->first, vni_number, number});
    return true;
}

// ---- access lists ---------------------------------------------------------------------------------------------------

bool interpreter::acl(const config_table &table, const config_entry &entry)
{
    std::string error;
    const auto is_port = [this](const std::string &name) { return is_known_port(name); };
    return read_acl_table(entry, is_port, &acls_[entry.key], &error) || fail(table, entry, error);
}

bool interpreter::rule(const config_table &table, const config_entry &entry)
{
    const auto names = halves(entry.key);
    if (!names)
        return fail(table, entry, "the key must be TABLE|RULE");
    const auto acl = acls_.find(names->first);
    if (acl == acls_.end() && has_acls_)
        return fail(table, entry, "the table \"" + names->first + "\" is not in the table ACL_TABLE");
    acl_rule read{{entry.key, entry.line}};
    if (acl != acls_.end()) {
        read.egress = acl->second.egress;
        read.of_switch = acl->second.of_switch;
    }
    std::string error;
    const auto is_port = [this](const std::string &name) { return is_port_or_lag(name); };
    if (!read_acl_rule(entry, is_port, &read, &error))
        return fail(table, entry, error);
    out_->acl_rules->push_back(std::move(read));
    return true;
}

// Tables that refer to others are read after them, wherever they stand.
bool interpret(const std::vector<config_table> &tables, interpreter *reader, switch_config *out)
{
    for (const config_table &table : tables) {
        const meaning *means = meaning_of(table.name);
        if (!means || !means->requested)
            out->skipped.push_back({table.name, table.count});
        reader->begin(table);
    }
    const bool sense = std::ranges::all_of(MEANINGS, [&](const meaning &means) {
        const auto table = std::ranges::find(tables, means.table, &config_table::name);
        return table == tables.end() || std::ranges::all_of(table->entries, [&](const config_entry &entry) {
                   return (reader->*means.read)(*table, entry);
               });
    });
    reader->note_members();
    return sense;
}

template <typename Entry>
bool drop(std::string_view key, std::vector<Entry> *entries)
{
    const auto found = std::ranges::find(*entries, key, &config_item::key);
    if (found == entries->end())
        return false;
    found->dropped = true;
    return true;
}

template <typename Entry>
bool drop(std::string_view key, std::optional<std::vector<Entry>> *table)
{
    return *table && drop(key, &**table);
}

void drop_members_if(switch_config *config, const std::function<bool(const vlan_member &)> &leaves)
{
    for (size_t i = 0; config->vlan_members && i < config->vlan_members->size(); ++i)
        if (vlan_member &member = (*config->vlan_members)[i]; leaves(member))
            member.dropped = true;
}

// A port or LAG.
template <typename Entry>
bool drop_port(std::string_view key, std::optional<std::vector<Entry>> *table, switch_config *config)
{
    if (!drop(key, table))
        return false;
    drop_members_if(config, [key](const vlan_member &member) { return member.port == key; });
    return true;
}

bool drop_vlan(std::string_view key, switch_config *config)
{
    if (!drop(key, &config->vlans))
        return false;
    const uint32_t number = vlan_number(key);
    drop_members_if(config, [number](const vlan_member &member) { return member.vlan == number; });
    return true;
}

bool drop_member(std::string_view key, switch_config *config)
{
    const auto found = std::ranges::find(config->lag_members, key, &config_item::key);
    if (found == config->lag_members.end())
        return false;
    found->dropped = true;
    if (config->ports)
        for (port_entry &port : *config->ports)
            port.in_lag = port.in_lag && port.key != found->port;
    return true;
}

}  // namespace

bool drop_entry(std::string_view table_and_key, switch_config *config, std::string *error)
{
    const size_t bar = std::min(table_and_key.find('|'), table_and_key.size());
    const std::string_view table = table_and_key.substr(0, bar);
    const std::string_view key = table_and_key.substr(std::min(bar + 1, table_and_key.size()));
    if (!is_meant(table) || table == "ACL_TABLE") {
        *error = printable(table_and_key) + ": nothing is made of such a table, so that nothing of it can be dropped";
        return false;
    }
    if ((table == "PORT" && drop_port(key, &config->ports, config)) ||
        (table == "PORTCHANNEL" && drop_port(key, &config->lags, config)) ||
        (table == "VLAN" && drop_vlan(key, config)) || (table == "VLAN_MEMBER" && drop(key, &config->vlan_members)) ||
        (table == "VXLAN_TUNNEL" && drop(key, &config->tunnels)) ||
        (table == "VXLAN_TUNNEL_MAP" && drop(key, &config->vxlan_maps)) ||
        (table == "ACL_RULE" && drop(key, &config->acl_rules)) ||
        (table == "PORTCHANNEL_MEMBER" && drop_member(key, config)))
        return true;
    *error = printable(table_and_key) + ": the configuration has no such entry";
    return false;
}

bool parse_config(const std::string &name, std::string_view text, switch_config *out, std::string *error,
                  const std::function<bool(const std::string &)> &is_port)
{
    config_fault fault;
    std::vector<config_table> tables;
    *out = {};
    interpreter reader(out, is_port, &fault);
    if (read_tables(text, is_meant, &tables, &fault) && interpret(tables, &reader, out))
        return true;
    *error = fault_line(name, fault);
    return false;
}

}  // namespace ebridge_tool
