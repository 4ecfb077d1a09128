// See store_view.hpp.
#include "store_view.hpp"

#include <sstream>

namespace road
{

store_view read_store(const support::redis_server &redis, int database, const std::string &with)
{
    const std::string answer =
        redis.commands(database,
                       "EVAL \"local all = {'begin'} for _, key in ipairs(redis.call('KEYS', 'u_bridge.*')) do "
                       "local reply = redis.call('TYPE', key).ok == 'hash' and redis.call('HGET', key, '10') or '' "
                       "all[#all + 1] = key .. ' ' .. string.gsub(reply or '', '.', "
                       "function(byte) return string.format('%02x', string.byte(byte)) end) end "
                       "all[#all + 1] = 'end' return table.concat(all, '\\\\n')\" 0");
    std::istringstream lines(answer);
    store_view view;
    std::string line;
    while (std::getline(lines, line) && line != "begin") {
    }
    while (std::getline(lines, line) && line != "end\r") {
        const size_t blank = line.find(' ');
        if (line.find(with) != std::string::npos)
            view[line.substr(0, blank)] = line.substr(blank + 1);
    }
    return view;
}

std::string marks(const support::redis_server &redis, int database)
{
    const std::string answer = redis.commands(database, "ZCARD mom:marks");
    const size_t begin = answer.find(':');
    return answer.substr(begin, answer.find('\r', begin) - begin);
}

}  // namespace road
