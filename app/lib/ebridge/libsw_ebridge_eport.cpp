// Eports: the tables of the local database and of the index map. Their contents come with the eport protocol.
#include "export.hpp"
#include "logging.hpp"
#include "tables.hpp"

SW_EXPORT int32_t sw_eport_db_init(void)
{
    static bool created = false;
    const uint32_t missing = sw::make_tables<sw_eport_attr>(created, sw_eport_hash_init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG(error, "Assert:HASH[%d] init failed.", missing);
    return -1;
}

// The text lacks its conversion letter, as on the evlan side.
SW_EXPORT int32_t sw_eport_index_map_db_init(void)
{
    static bool created = false;
    const uint32_t missing = sw::make_tables<sw_eport_index_map>(created, sw_eport_index_map_hash_init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG_UNCHECKED_AT(SW_HERE, error, "Assert:HASH[%] init failed.", missing);
    return -1;
}
