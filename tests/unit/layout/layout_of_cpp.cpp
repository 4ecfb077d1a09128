// Sizes and offsets of records, pinned for the 32-bit target and beside it for 64-bit ones. A wrong row does not compile;
// the numbers of the other target are checked by the build for it.
#include "layout.h"

#include "connecting.hpp"
#include "keyed_cache.hpp"
#include "libcgstctrl.h"
#include "sw_ebridge.h"

#include "layouts.inc"

// ---- the library's own: what travels through callbacks, and the head of a keyed cache

RECORD(sw::list_args, 68, 68)
LAYOUT(sw::list_args, user_name, 0, 0)
LAYOUT(sw::list_args, db_flags, 32, 32)
LAYOUT(sw::list_args, subscribing_flags, 36, 36)

RECORD(sw::subscribing_args, 12, 24)
LAYOUT(sw::subscribing_args, bit, 0, 0)
LAYOUT(sw::subscribing_args, list, 4, 8)
LAYOUT(sw::subscribing_args, next, 8, 16)

RECORD(sw::keyed_cache, 32, 48)
LAYOUT(sw::keyed_cache, bucket_count, 0, 0)
LAYOUT(sw::keyed_cache, size, 4, 4)
LAYOUT(sw::keyed_cache, occupied, 8, 8)
LAYOUT(sw::keyed_cache, upper_bound, 12, 12)
LAYOUT(sw::keyed_cache, flags, 16, 16)
LAYOUT(sw::keyed_cache, keys, 20, 24)
LAYOUT(sw::keyed_cache, hashes, 24, 32)
LAYOUT(sw::keyed_cache, control, 28, 40)

// ---- keys: how many bytes of a cached record are hashed and compared

#define KEY(type, bytes32, bytes64) \
    static_assert(sw::record_key<type>::length == ON_TARGET(bytes32, bytes64), "key of " #type);

KEY(sw_ebridge_list_item, 32, 32)
KEY(sw_evlan_attr, 36, 36)
KEY(sw_eport_attr, 36, 36)
KEY(sw_ematch_item, 92, 96)
KEY(sw_evlan_index_map, 16, 16)
KEY(sw_eport_index_map, 20, 20)
KEY(sw_vlan_pvid_entry, 4, 4)
