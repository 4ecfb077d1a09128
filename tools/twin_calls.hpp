// The library's calls for evlans and eports, side by side: what is done with the one is done with the other.
#pragma once

#include "sw_ebridge.h"

namespace ebridge_tool
{

struct twin_calls {
    decltype(&sw_evlan_subscribe_with_db) subscribe;
    decltype(&sw_evlan_data_scan_with_db) scan;
    decltype(&sw_evlan_aging_flag_set) mark_sessions;
    decltype(&sw_evlan_attr_aging_flag_set) mark_attributes;
    decltype(&sw_evlan_aged_data_delete) delete_sessions;
    decltype(&sw_evlan_no_request_clear) delete_sessions_now;
    decltype(&sw_evlan_attr_aged_data_delete) delete_attributes;
};

inline constexpr twin_calls TWINS[] = {
    {sw_evlan_subscribe_with_db, sw_evlan_data_scan_with_db, sw_evlan_aging_flag_set, sw_evlan_attr_aging_flag_set,
     sw_evlan_aged_data_delete, sw_evlan_no_request_clear, sw_evlan_attr_aged_data_delete},
    {sw_eport_subscribe_with_db, sw_eport_data_scan_with_db, sw_eport_aging_flag_set, sw_eport_attr_aging_flag_set,
     sw_eport_aged_data_delete, sw_eport_no_request_clear, sw_eport_attr_aged_data_delete}};

// Patterns that match the attribute records of everybody.
extern const ProtobufCMessage *const ALL_ATTRIBUTES[2];

}  // namespace ebridge_tool
