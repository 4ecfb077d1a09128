// The flow of "ebridge run" over several processes: one for each requester, one for the observer. See run.hpp.
#pragma once

#include "requests.hpp"
#include "rule_book.hpp"

namespace ebridge_tool
{

// Fills the books with what requesters and observer report, restarts the requesters where the options say so, and evaluates
// both. False when the run itself failed, with one line in *error and out->store_missing; otherwise out->dump prints the
// observer's tables.
bool run_spread(const run_options &options, request_book *requests, rule_book *rules, run_result *out,
                std::string *error);

}  // namespace ebridge_tool
