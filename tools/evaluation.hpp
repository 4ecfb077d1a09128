// What a comparison of all that requesters and observer learned says.
#pragma once

#include <string>
#include <vector>

#include "member_book.hpp"
#include "requests.hpp"
#include "rule_book.hpp"

namespace ebridge_tool
{

// What reads differently from what was asked and granted; empty when all is equal. For granted requests.
std::string difference(const request_book &requests, const request &of);
// Counts each entry into its table and each request into its kind, and names what was refused or differs.
void evaluate(const request_book &requests, run_result *result);
// After a restart: whether exactly what was dropped has gone, and what is kept is as it was.
void evaluate_restart(const request_book &requests, run_result *result);
// The same of match rules, each counted for its user. The calculation has been made in the order of the process that decides.
std::string difference(const published_rule &of);
void evaluate(const rule_book &rules, run_result *result);
void evaluate_restart(const rule_book &rules, run_result *result);
// The same of ports in VLANs, each counted as an entry of its table.
void evaluate(const member_book &members, run_result *result);
void evaluate_restart(const member_book &members, run_result *result);
// A line for each id of which the observer reads attributes and that belongs to no request.
std::vector<std::string> left_attributes(const request_book &requests);

}  // namespace ebridge_tool
