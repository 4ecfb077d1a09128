// What a Redis store holds of the bridge, as an operator would look at it.
#pragma once

#include <map>
#include <string>

#include "redis_server.hpp"

namespace road
{

// Key text -> the encoded reply of a session (hexadecimal, "" none), or "" of other records.
using store_view = std::map<std::string, std::string>;

// All records of the packages in a database whose keys have this text in them.
store_view read_store(const support::redis_server &redis, int database, const std::string &with = "");

// Records that are marked to expire.
std::string marks(const support::redis_server &redis, int database);

}  // namespace road
