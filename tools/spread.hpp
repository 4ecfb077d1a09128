// The flow of "ebridge run" over several processes: one for each requester, one for the observer. See run.hpp.
#pragma once

#include "run_books.hpp"

namespace ebridge_tool
{

// Fills the books with what requesters and observer report, restarts the requesters where the options say so, and evaluates
// them. False when the run itself failed, with one line in *error and out->store_missing; otherwise out->dump prints the
// observer's tables.
bool run_spread(const run_options &options, run_books *books, run_result *out, std::string *error);

}  // namespace ebridge_tool
