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
bool run_here(const run_options &options, run_books *books, run_result *out, std::string *error)
{
    session users(books, {.requester = 0, .observer = true}, {});
    if (!users.open(options, error)) {
        out->store_missing = users.store_missing();
        return false;
    }
    users.request_all(options);
    users.describe_all();
    users.publish_members();
    users.publish_rules(options);
    users.wait_for_pvids();
    if (!users.read_back(error))
        return false;
    users.note_tables();
    evaluate(books->requests, out);
    evaluate(books->members, out);
    evaluate(books->rules, out);
    out->dump = dump_tables;
    return true;
}

}  // namespace

bool run_result::all_equal() const { return problems.empty(); }

bool run_config(const switch_config &config, const run_options &options, run_result *out, std::string *error)
{
    const auto start = std::chrono::steady_clock::now();
    const bool spread = options.users > 0;
    run_books books(config, spread ? options.users : 1, out);
    try {
        if (!(spread ? run_spread(options, &books, out, error) : run_here(options, &books, out, error)))
            return false;
    } catch (const store_lost &lost) {
        out->store_missing = true;
        *error = lost.what();
        return false;
    }
    out->seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return true;
}

}  // namespace ebridge_tool
