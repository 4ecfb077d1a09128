// "ebridge show ..." as a program, and what its tests look at.
#pragma once

#include <string>
#include <vector>

#include "child.hpp"
#include "redis_server.hpp"

namespace road
{

outcome show(const std::string &view, std::vector<std::string> arguments);

// It ended with this status, and said so in one line on standard error and nothing else.
void expect_one_line(const outcome &seen, int status, const std::string &what);

// Of each database, all keys with all that they hold; but for the state that every client moves on with the clock.
std::string all_content(const support::redis_server &redis);

}  // namespace road
