// "ebridge show vlan": which VLANs the ports of a store carry, by whose will, and the ports' default VLANs. Only reads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vlan_set.hpp"

namespace ebridge_tool
{

struct vlan_query {
    std::string store{};  // URL
    std::vector<uint32_t> databases{4};
    std::string user{};                  // only what this one has published; "" all
    std::optional<uint32_t> port{};      // only this one, as known_port() (ports.hpp) has it
    std::optional<uint32_t> vlan{};      // only what is about this one
    int64_t patience_usec = 30'000'000;  // without anything heard
};

// The VLANs of a port as a user has published them.
struct vlan_record {
    uint32_t db = 0;
    uint32_t port = 0;
    std::string user{};
    vlan_set vlans{};
    vlan_set untagged{};  // of these
};

// A default VLAN of a port: a user's, or the one that counts, which is nobody's.
struct pvid_record {
    uint32_t db = 0;
    uint32_t port = 0;
    std::string user{};
    uint32_t pvid = 0;
};

struct vlan_records {
    std::vector<vlan_record> vlans{};
    std::vector<pvid_record> set{};
    std::vector<pvid_record> counting{};
    std::vector<std::string> faults{};  // a line for each record that makes no sense; it is in none of the others
};

// Reads what a query asks for, but for the VLAN. Ports are as known_port() has them. 0, or a qz_mom_code and a line in *error.
int32_t read_vlans(const vlan_query &query, vlan_records *out, std::string *error);

// What users who say the same say of a port.
struct port_share {
    std::vector<std::string> users{};  // nobody: something counts that none of those who were asked for has set
    vlan_set vlans{};
    vlan_set untagged{};
    uint32_t pvid = 0;  // that they have set; 0 none
};

struct port_view {
    uint32_t db = 0;
    uint32_t port = 0;
    std::string name{};
    uint32_t pvid = 0;  // that counts; 0 none
    std::vector<port_share> shares{};
};

// What was read, by port and database. Of these only the shares of the user and about the VLAN of the query, and of their
// VLANs only that one.
std::vector<port_view> ports_of(vlan_records records, const vlan_query &query);

// For people, with a line's end; on request with databases.
std::string vlans_by_port(const std::vector<port_view> &ports, bool with_db);
// `only`: the VLAN of the query that the ports were asked for with, if any.
std::string ports_by_vlan(const std::vector<port_view> &ports, bool with_db, std::optional<uint32_t> only);
// As "bridge -compressvlans -json vlan show" of iproute2 tells it, an object for each share:
// [{"ifname": NAME, "vlans": [{"vlan": 2, "vlanEnd": 5, "flags": ["PVID", "Egress Untagged"]}], "users": [NAME], "db": n,
//   "port": n, "pvid": n, "pvid_set": n}]
std::string vlan_json(const std::vector<port_view> &ports);

}  // namespace ebridge_tool
