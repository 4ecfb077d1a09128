// The flow of "ebridge run": subscribe, request in slices, wait for every answer, read back, compare. See run.hpp.
#include "run.hpp"

#include <chrono>

#include "evaluation.hpp"
#include "session.hpp"
#include "spread.hpp"

namespace ebridge_tool
{

namespace
{

// Requester, observer and, where the options say so, the allocator in this process.
bool run_here(const run_options &options, request_book *requests, rule_book *rules, run_result *out, std::string *error)
{
    session users(requests, rules, {.requester = 0, .observer = true}, {});
    if (!users.open(options, error)) {
        out->store_missing = users.store_missing();
        return false;
    }
    users.request_all(options);
    users.describe_all(options);
    users.publish_rules(options);
    if (!users.read_back(error))
        return false;
    users.note_tables();
    evaluate(*requests, out);
    evaluate(*rules, out);
    out->dump = dump_tables;
    return true;
}

}  // namespace

bool run_result::all_equal() const { return problems.empty(); }

bool run_config(const switch_config &config, const run_options &options, run_result *out, std::string *error)
{
    const auto start = std::chrono::steady_clock::now();
    const bool spread = options.users > 0;
    request_book requests(config, spread ? options.users : 1, out);
    rule_book rules(config, requests.users(), out);
    if (!(spread ? run_spread(options, &requests, &rules, out, error)
                 : run_here(options, &requests, &rules, out, error)))
        return false;
    out->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return true;
}

}  // namespace ebridge_tool
