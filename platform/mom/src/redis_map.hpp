// Which Redis instance holds which database: all on one that a URL names, or as a map file says.
//
// A map file is JSON. Upper case or lower case in the names of the two tables; members not named here are ignored.
//   {"INSTANCES": {"redis":  {"hostname": "127.0.0.1", "port": 6379, "unix_socket_path": "/run/redis/redis.sock"},
//                  "remote": {"hostname": "10.0.0.2", "port": 6379, "username": "u", "password_path": "secret"},
//                  "group":  {"sentinels": ["10.0.0.3:26379", "10.0.0.4:26379"], "group": "mymaster"}},
//    "DATABASES": {"APPL_DB": {"id": 0, "instance": "redis"}, ...}}
#ifndef MOM_REDIS_MAP_HPP
#define MOM_REDIS_MAP_HPP

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "redis_address.hpp"

namespace mom
{

// By the number of the database.
using redis_map = std::map<uint32_t, std::shared_ptr<const redis_instance>>;

// What an operator is told: where it is wrong and what. Never holds a value of the file: one may be a password.
struct map_fault {
    std::string where;  // "line 3, column 7" or "/DATABASES/APPL_DB/id"
    std::string what;
};

// `folder`: where relative names of password files begin.
std::optional<redis_map> parse_map(std::string_view text, const std::string &folder, map_fault &fault);

// The map of a URL: file:///path/to/map.json, or one of redis_instance::parse. Nothing when it is no such URL, or the
// file makes no sense; then `fault` says why in one line.
std::optional<redis_map> map_of_url(std::string_view url, std::string &fault);

}  // namespace mom
#endif
