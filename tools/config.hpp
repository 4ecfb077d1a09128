// Reading a switch configuration in the config_db.json form: an object of tables, a table an object of entries, an entry
// an object of fields. Everything is checked here, before anything is asked of the switch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

struct vlan_entry {
    std::string key;  // "Vlan10", as the file has it
    uint32_t number;  // 1 to 4094
};

struct vxlan_map_entry {
    std::string key;  // "TUNNEL|MAP"
    uint32_t vni;     // 1 to 0xffffff
    uint32_t vlan;
};

struct skipped_table {
    std::string name;
    size_t entries;
};

// Tables that the file does not have are absent, not empty.
struct switch_config {
    std::optional<std::vector<vlan_entry>> vlans;
    std::optional<std::vector<vxlan_map_entry>> vxlan_maps;
    std::vector<skipped_table> skipped;
};

// True and *out; or false and one line in *error that names the file, and where they are known the line, the table and
// the key.
bool read_config(const std::string &path, switch_config *out, std::string *error);
// The same for a text; `name` stands for the file in messages.
bool parse_config(const std::string &name, std::string_view text, switch_config *out, std::string *error);

// Text of any origin, fit for one line of a message: control characters as \xNN, cut when it is long.
std::string printable(std::string_view text);

}  // namespace ebridge_tool
