// The application: puts the ports into their VLANs with the library.
#pragma once

#include <string>

#include "processes.hpp"

namespace bench
{

// A process: says that it is ready; told to, applies all VLANs to its tables and says how many seconds that took; told to
// again, publishes, and says how many seconds its calls took and then that the store has taken all.
void be_the_application(const channel &parent, const std::string &url);

// Microseconds of a call that adds one VLAN to a port's table, and of one that adds 4094; nothing is published.
struct add_cost {
    double one;
    double all;
};
add_cost cost_of_adding();

}  // namespace bench
