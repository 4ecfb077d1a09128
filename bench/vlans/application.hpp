// The application: puts the ports into their VLANs with the library.
#pragma once

#include <string>

#include "processes.hpp"

namespace bench
{

// A process: says that it is ready; told to, applies all VLANs to its tables and says how many seconds that took; told to
// again, publishes, and says how many seconds its calls took and then that the store has taken all.
void be_the_application(const channel &parent, const std::string &url);

// Microseconds of a call that concerns one VLAN of a port, and of one that concerns 4094.
struct call_cost {
    double one;
    double all;
};
struct call_costs {
    call_cost add;      // to the port's table; nothing is published
    call_cost remove;   // from it, likewise
    call_cost publish;  // into an embedded store: a bitmap of one word, and of 128
};
call_costs costs_of_calls();

}  // namespace bench
