// Requests and grants: the library with a service process, and the bare floor below them.
#pragma once

#include <string>
#include <vector>

#include "processes.hpp"

namespace bench
{

struct grants {
    double rate;  // a second
    double p50;   // microseconds from request to grant heard
    double p99;
};

// What a requester asks for: `count` grants of keys from `first` on, with so many in flight.
struct demand {
    int first;
    int count;
    int in_flight;
};

// A requester waits for demands and answers each of them with three numbers.
grants ask(const process &requester, const demand &wanted);

// An application that requests evlans through the library; a service has to run.
process start_requester(const std::string &url);

// Plain hiredis: the requester writes a record and publishes it in one transaction; the responder hears that, and does
// the same with the answer, which the requester hears.
process start_raw_requester(const std::string &socket);
process start_raw_responder(const std::string &socket);

}  // namespace bench
