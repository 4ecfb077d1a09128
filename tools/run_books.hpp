// All that a run asks for, and what became of it.
#pragma once

#include "member_book.hpp"
#include "requests.hpp"
#include "rule_book.hpp"

namespace ebridge_tool
{

// Made together, since each one adds its tables to the result in their order, and since users are dealt out once. The
// configuration must outlive them.
struct run_books {
    request_book requests;
    member_book members;
    rule_book rules;

    run_books(const switch_config &config, size_t users, run_result *result)
        : requests(config, users, result), members(config, requests, result), rules(config, requests.users(), result)
    {
    }
    // The requesters begin anew, with the same configuration in which some entries are dropped.
    void restart(const switch_config &reduced)
    {
        requests.restart(reduced);
        members.restart(reduced);
        rules.restart(reduced);
    }
};

}  // namespace ebridge_tool
