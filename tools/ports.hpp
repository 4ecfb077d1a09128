// Reading a configuration file, with the port table that belongs to it.
#pragma once

#include <cstdint>
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

}  // namespace ebridge_tool
