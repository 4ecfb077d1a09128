// Port default VLANs: the process-wide cache. Its contents come with the pvid table's records.
#include "export.hpp"
#include "logging.hpp"

SW_EXPORT int32_t sw_vlan_pvid_db_init(void)
{
    static bool created = false;
    if (created)
        return 0;
    created = true;
    const int32_t rv = sw_vlan_pvid_entry_hash_init(1);
    if (rv != 0)
        SW_LOG(error, "Assert:sw_vlan_pvid_entry_hash_init() failed.");
    return rv;
}
