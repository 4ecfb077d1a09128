// The producer, a process of its own: writes sessions as fast as the store takes them over.
#pragma once

#include <string>
#include <vector>

#include "processes.hpp"

namespace bench
{

constexpr int WRITES = 200'000;
constexpr uint32_t FLOOD_DB = 4;
constexpr uint32_t HIGH_MARK = 16384, LOW_MARK = 4096;  // the defaults of congestion control

// Stops at the high mark until the low one is told; or writes on, and tries again after a millisecond when it is refused.
enum class manners { listens, does_not };

struct depth_at {
    double seconds;
    double depth;
};

struct flood_figures {
    double seconds = 0;    // until the server has answered all writes
    double processor = 0;  // seconds, of the producer
    double refused = 0;    // calls
    double deepest = 0;    // writes that waited
    double peak = 0;       // resident bytes of the producer
    double marks = 0;      // high marks
    double probes = 0;     // writes of another user of the process, now and then, of which it waits for the answer
    double probe_median = 0;
    double probe_longest = 0;
    double probes_refused = 0;
    double wrong = 0;  // records that are not as they were written last
    std::vector<depth_at> depths;
};

// The child. It says when it is ready, floods when it is told to, says when all is answered, and counts what is wrong
// when it is told to, before it hands over its figures.
void be_the_producer(const channel &parent, const std::string &url, manners of);
flood_figures take_figures(const process &producer);

}  // namespace bench
