// The second process: hears with the store client what is published, and compares it.
#pragma once

#include <string>

#include "processes.hpp"

namespace bench
{

// Says that it follows; then, when it has heard a record of each port, that it has; then how many seconds it took to compare
// all VLANs of all ports, and how many of them were not as they should be.
void be_the_listener(const channel &parent, const std::string &url);

}  // namespace bench
