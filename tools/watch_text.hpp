// The lines of "ebridge watch": what has happened to a record, and where the account has a gap.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include "qz_mom.h"

namespace ebridge_tool
{

// What a line says of a record.
enum class change : uint8_t {
    none,     // no record: a confirmation, an end
    is,       // it is there, found by a scan
    set,      // written whole
    fields,   // some of its fields were
    removed,  // as it last was
    expired,  // as it last was
};
change change_of(const qz_mom_notification &msg, bool is_scan);
// The record that a notification carries; null when it has none, or none that can be read.
const ProtobufCMessage *record_of(const qz_mom_notification &msg);

// Where changes may be told together, or late.
enum class gap : uint8_t { lost, back, missed, behind, caught_up };

// With a line's end. The time is the one at which it was heard.
std::string change_line(const qz_mom_notification &msg, change what, const timespec &heard);
std::string gap_line(gap what, uint32_t db, const timespec &heard);
std::string told_line(const timespec &heard);  // what was there has been told
// The same for programs:
// {"time": "2026-03-01T10:20:30.123456Z", "db": 4, "change": "fields", "table": "u_bridge.evlan_session", "user": "app",
//  "type": "VXLAN", "key": KEY TEXT, "fields": ["request"], "record": {...}}
// {"time": ..., "gap": "lost", "db": 4}, {"time": ..., "gap": "behind"}, {"time": ..., "told": "all that was there"}
std::string change_object(const qz_mom_notification &msg, change what, const timespec &heard);
std::string gap_object(gap what, uint32_t db, const timespec &heard);
std::string told_object(const timespec &heard);

}  // namespace ebridge_tool
