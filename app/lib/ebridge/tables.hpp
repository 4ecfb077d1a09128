// Tables that exist once per slot and are made together, once per process.
#pragma once

#include "keyed_cache.hpp"

namespace sw
{

// Makes the tables of a family on the first call (`created` is the family's own flag; a failure is not retried) and
// returns the number of the first one that is missing, SW_EBRIDGE_SLOTS when none is.
template <typename Record>
uint32_t make_tables(bool &created, int32_t (*init)(uint32_t))
{
    if (!created) {
        created = true;
        init(SW_EBRIDGE_SLOTS);
    }
    uint32_t table = 0;
    while (table < SW_EBRIDGE_SLOTS && family<Record>::exists(table))
        ++table;
    return table;
}

}  // namespace sw
