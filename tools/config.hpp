// Reading a switch configuration in the config_db.json form: an object of tables, a table an object of entries, an entry
// an object of fields. Everything but the port table is checked here, before anything is asked of the switch; ports.hpp
// has the rest. The meaning of each table is in config.cpp, that of the access lists in config_acl.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

// What all entries have.
struct config_item {
    std::string key;       // as the file has it
    size_t line = 0;       // of the file
    bool dropped = false;  // not wanted any more after a restart
};

struct port_entry : config_item {
    bool in_lag = false;  // a member of a LAG
    uint32_t ifx = 0;     // the port table's, see ports.hpp
    uint32_t phyid = 0;
};

struct lag_entry : config_item {
    uint32_t number;  // of "PortChannel2"
    uint32_t ifx = 0;
    uint32_t phyid = 0;
};

struct vlan_entry : config_item {
    uint32_t number;  // 1 to 4094
    uint32_t mtu;     // 0: not told
};

struct ip_address {
    std::array<uint8_t, 16> bytes{};  // IPv4 in the first four
    bool v6 = false;
};

// An address that has nothing behind its prefix. Of a length 0 any address of its IP version.
struct ip_prefix {
    ip_address address;
    uint32_t length = 0;  // 0 to 32 or 128

    bool is_any() const { return length == 0; }
    bool is_host() const { return length == (address.v6 ? 128U : 32U); }
};

struct tunnel_entry : config_item {
    std::optional<ip_address> source;
    std::optional<ip_address> destination;
    uint32_t mtu;  // 0: not told
};

struct vxlan_map_entry : config_item {
    std::string tunnel;
    uint32_t vni;  // 1 to 0xffffff
    uint32_t vlan;
};

struct lag_member : config_item {
    std::string port;
};

// A port in a VLAN.
struct vlan_member : config_item {
    uint32_t vlan;     // 1 to 4094
    std::string port;  // or LAG
    bool untagged;
    uint32_t ifx = 0;  // the port table's
    uint32_t phyid = 0;
};

struct acl_port {
    std::string name;    // of a port or LAG
    uint32_t phyid = 0;  // the port table's
};

// What is absent is not asked for.
struct acl_rule : config_item {
    bool egress = false;     // by the stage of its table
    bool of_switch = false;  // its table guards the switch itself and not what passes it
    uint32_t priority = 0;   // 0 to 999999, the highest wins
    std::string action{};    // "" none
    std::vector<acl_port> in_ports{};
    uint32_t vlan = 0;  // 1 to 4094
    uint32_t inner_vlan = 0;
    std::optional<uint32_t> ether_type{};
    std::optional<ip_prefix> source{};  // of one IP version, both
    std::optional<ip_prefix> destination{};
    std::vector<std::string> others{};  // names of further fields that change what it does
};

struct skipped_table {
    std::string name;
    size_t entries;
};

// Tables that the file does not have are absent, not empty.
struct switch_config {
    std::optional<std::vector<port_entry>> ports;
    std::optional<std::vector<lag_entry>> lags;
    std::optional<std::vector<vlan_entry>> vlans;
    std::optional<std::vector<tunnel_entry>> tunnels;
    std::optional<std::vector<vxlan_map_entry>> vxlan_maps;
    std::optional<std::vector<vlan_member>> vlan_members;
    std::optional<std::vector<acl_rule>> acl_rules;
    std::vector<lag_member> lag_members;
    std::vector<skipped_table> skipped;
};

// True and *out; or false and one line in *error that names the file, and where they are known the line, the table and
// the key. `name` stands for the file in messages. `is_port`: whether a port exists; empty: the table PORT tells.
bool parse_config(const std::string &name, std::string_view text, switch_config *out, std::string *error,
                  const std::function<bool(const std::string &)> &is_port = {});

// Marks the entry "TABLE|KEY" as dropped, with the memberships of a port, LAG or VLAN; and takes a port that leaves its LAG
// for that. False, with one line in *error,
// when there is no such entry or nothing is made of its table.
bool drop_entry(std::string_view table_and_key, switch_config *config, std::string *error);

}  // namespace ebridge_tool
