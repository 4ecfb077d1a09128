// See show_program.hpp.
#include "show_program.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <utility>

namespace road
{

outcome show(const std::string &view, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), {EBRIDGE_PROGRAM, "show", view});
    return run(std::move(arguments));
}

void expect_one_line(const outcome &seen, int status, const std::string &what)
{
    EXPECT_EQ(seen.status, status);
    EXPECT_THAT(seen.out, testing::IsEmpty());
    EXPECT_THAT(seen.err, testing::StartsWith("ebridge: "));
    EXPECT_THAT(seen.err, testing::HasSubstr(what));
    EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
}

std::string all_content(const support::redis_server &redis)
{
    std::string all;
    for (const int db : {4, 5, 8})
        all += redis.commands(db,
                              "EVAL \"local keys, all = redis.call('KEYS', '*'), '' table.sort(keys) "
                              "for _, key in ipairs(keys) do if key ~= 'mom:state' then all = all .. key .. ' ' .. "
                              "redis.sha1hex(redis.call('DUMP', key)) .. ';' end end return all\" 0");
    return all;
}

}  // namespace road
