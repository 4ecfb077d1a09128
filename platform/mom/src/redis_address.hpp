// Where Redis servers are, and the URLs that say so.
#ifndef MOM_REDIS_ADDRESS_HPP
#define MOM_REDIS_ADDRESS_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mom
{

// Where a server is and who we are there.
struct redis_address {
    std::string host;
    uint16_t port = 6379;
    std::string path;  // of a unix socket; then host and port do not count
    std::string user;
    std::string password;
    bool master_only = false;  // what answers there is wanted only while it is a master

    // Takes HOST[:PORT]; an IPv6 address stands in brackets. False when it is malformed.
    bool take_place(std::string_view text);
};

// What holds databases: one server, or a group of which Sentinel says who the master is.
struct redis_instance {
    redis_address server;  // of a group: only who we are there
    std::string group;     // empty: one server
    std::vector<redis_address> sentinels;

    // redis://[user:password@]host[:port], redis+unix://[user:password@]/path or
    // redis+sentinel://[user:password@]host[:port][,host[:port]...]/group. Nothing when the URL is malformed.
    static std::optional<redis_instance> parse(std::string_view url);
    // Takes HOST[:PORT] of one more sentinel. False when it is malformed.
    bool add_sentinel(std::string_view text);
};

}  // namespace mom
#endif
