// Timing of writes, whoever makes and hears them.
#pragma once

#include <vector>

#include "processes.hpp"
#include "redis_server.hpp"
#include "report.hpp"

namespace bench
{

// From the word to the writer until everybody has heard everything. The writer has said that it is ready, the
// subscribers are about to; each says in the end that it is through.
figure time_writes(const support::redis_server &server, const process &writer, const std::vector<process> &subscribers,
                   int count);
// Of plain pipelined HSET that nobody hears; with `formatted` put together by hiredis from a format string.
figure raw_writes(const support::redis_server &server, int count, bool formatted = false);

}  // namespace bench
