// Memory: of a record, and of processes over a long run.
#pragma once

#include "report.hpp"

namespace bench
{

// What a follower, the server, and the server below a raw program need for each record.
void measure_memory_of_records(report &out);
// So many writes, heard by a subscriber, and again while a subscriber does not read: what the processes hold
// half-way, at the end, and at most.
void measure_memory_over_writes(report &out, int heard, int unheard);

}  // namespace bench
