// The calculation alone. See calculation.hpp.
#include "calculation.hpp"

#include <malloc.h>

#include <algorithm>
#include <ctime>
#include <random>
#include <stdexcept>
#include <vector>

#include "processes.hpp"
#include "rule_set.hpp"

namespace bench
{

namespace
{

constexpr int MORE = 20000;  // calculations; of a small table each key is calculated several times

double processor_now()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void enter(const rule_message &message)
{
    sw_ematch_item item{};
    sw_ematch_entry_to_db_item(&item, &message.entry(), 0);
    if (!sw_ematch_db_hash_insert_item(message.index().t_user, &item))
        throw std::runtime_error("no memory for a rule");
}

calculation_cost run(int rules)
{
    for (int user = 0; user < USERS; ++user)
        sw_ebridge_match_db_init(0, user_name(user).c_str());
    const auto before = mallinfo2();
    for (int i = 0; i < rules; ++i)
        enter({i % USERS, i / USERS});
    const auto after = mallinfo2();
    std::minstd_rand random(1);
    std::vector<int> which(MORE);
    for (int &each : which)
        each = static_cast<int>(random() % static_cast<uint32_t>(rules));
    const double start = processor_now();
    for (const int i : which) {
        const rule_message message(i % USERS, i / USERS);
        enter(message);
        if (!sw_ematch_calc_final_values(nullptr, &message.index(), 0))
            throw std::runtime_error("a key was not decided");
    }
    return {1e6 * (processor_now() - start) / MORE,
            static_cast<double>(after.uordblks - before.uordblks + after.hblkhd - before.hblkhd) / rules};
}

}  // namespace

calculation_cost cost_of_one_more_rule(int rules)
{
    const process alone([rules](const channel &parent) {
        const calculation_cost cost = run(rules);
        parent.put(cost.microseconds);
        parent.put(cost.bytes);
    });
    calculation_cost cost{};
    cost.microseconds = alone.get();
    cost.bytes = alone.get();
    return cost;
}

}  // namespace bench
