// The port table of this process: filled from a configuration or a list of ports, and what it says of ports.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "config.hpp"

namespace ebridge_tool
{

// Reads CONFIG and fills the port table of this process: from a list of ports (port_config.ini) where `ports_path` is
// not empty, with the LAGs of CONFIG beside them, else from CONFIG itself; where it has no table PORT the members of its
// VLANs tell the ports. All is checked then, and the ports and LAGs of *out have their numbers. False, with one line in *error, when anything makes no sense.
bool read_config(const std::string &path, const std::string &ports_path, switch_config *out, std::string *error);

// The eport id of a port or LAG, told by the port table alone: what the library's translation has to make of its interface
// index.
uint32_t port_id(uint32_t phyid);

// Fills the port table of this process from a list of ports or a configuration, with the numbers that read_config() gives
// them. False, with one line in *error, when it makes no sense.
bool read_port_table(const std::string &path, std::string *error);

// The number that a record names a port by is its eport id (port_id) or its interface index. Both become the eport id where
// the port table has the port; any other number stays what it is.
uint32_t known_port(uint32_t number);
// What the port is called: by its name, or by its number: ids in hexadecimal.
std::string port_name(uint32_t number);
// The port of that name, or with that number, decimal or hexadecimal (0x...).
std::optional<uint32_t> find_port(const std::string &text);

}  // namespace ebridge_tool
