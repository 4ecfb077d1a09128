// The calculation alone, on a table of so many rules: what one more rule costs.
#pragma once

namespace bench
{

struct calculation_cost {
    double microseconds;  // of processor time, a rule that comes
    double bytes;         // of heap, a rule in the table
};

// Enters rules into tables of `rules` others, at random keys, and calculates each key once. Throws std::runtime_error.
calculation_cost cost_of_one_more_rule(int rules);

}  // namespace bench
