// A store that does nothing by itself: it notes what the service asks of it, answers with the codes that a test sets,
// and leaves it to the test when each callback comes and what it says. Linked in place of the platform libraries.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "qz_mom.h"
#include "u_bridge.pb-c.h"

namespace scripted
{

// Sessions here are of type 32, which exists as evlan and as eport. An eport's key is (1, KEYID).
enum class table { evlan, eport, rules, claims, pvids };

// A match rule: those of the same outer VLAN have the same key.
struct rule {
    std::string user;
    int32_t vlan = 0;
    int32_t priority = 0;
    int32_t result = 0;
    std::string mac{};  // bytes; "" none
    std::string v6{};
};

// What a user sets for a port.
struct claim {
    std::string user;
    int32_t port = 0;
    int32_t pvid = 0;
};

// A record of the table of default VLANs.
struct pvid_entry {
    int32_t port = 0;
    int32_t old_pvid = 0;
    int32_t new_pvid = 0;
    std::string user{};
};

// A callback that the service gave away, for records of a table.
struct listener {
    qz_mom_msg_cb cb = nullptr;
    void *args = nullptr;
    table of = table::evlan;
};

// A write: "hmupdate 4 a/32/7 0x20000001", "hmset 8 ...", "del 8 a/32/7", of a rule "hmupdate 4 USER/VLAN/PRIORITY = RESULT",
// of a default VLAN "set 4 PORT: OLD -> NEW" and "del 4 PORT"; and who hears how it went.
struct store_write {
    std::string text;
    listener done;
};

struct store {
    std::map<std::string, listener> follows;  // "subscribe_field 4 evlan_session", "scan 4 eport_session_range"
    std::vector<store_write> writes;          // accepted ones
    std::map<std::string, int32_t> codes;  // what calls of this name ("set", or "set 4") return, 0 when it is not there
    std::vector<std::pair<qz_thread_call_func, void *>> timers;
    std::vector<std::pair<qz_thread_call_func, void *>> posted;  // calls
    size_t room = SIZE_MAX;                                      // so many writes are noted, then they are refused
    // Callbacks, posted calls and timers run out of memory at their first allocation, then at their second and so on, and are made again until
    // they have all they need.
    bool lacks_memory = false;

    qz_mom_handle *handle();
    std::vector<std::string> texts() const;
    void run_timers();
    // Calls, and those that they post.
    void run_posted();

    void confirm(const listener &to, uint32_t db) const;
    void end_scan(const listener &to, uint32_t db, int32_t error = 0) const;
    // A session of the listener's table as it stands; request_value, unless given, any id of type 32.
    void written(const listener &to, uint32_t db, const char *user, uint32_t keyid, uint32_t reply_value = 0,
                 uint32_t request_value = 0x20000000) const;
    void removed(const listener &to, uint32_t db, const char *user, uint32_t keyid) const;
    // A rule as it stands; `fields`: those that were written.
    void rule_written(const listener &to, uint32_t db, const rule &which,
                      const char *fields = "action_type,flag") const;
    void rule_removed(const listener &to, uint32_t db, const rule &which, int32_t cmd = QZ_MOM_CMD_DEL) const;
    // A default VLAN that a user has set, or of the table, written or removed.
    void claim_told(const listener &to, uint32_t db, const claim &which, int32_t cmd = QZ_MOM_CMD_HSET) const;
    void entry_told(const listener &to, uint32_t db, const pvid_entry &which, int32_t cmd = QZ_MOM_CMD_SET) const;
    // The outcome of an accepted write.
    void write_done(const store_write &which, uint32_t db, int32_t error = 0) const;
    void write_done(const store_write &which, uint32_t db, const char *user, uint32_t keyid, int32_t error) const;
    void write_done(const store_write &which, uint32_t db, const rule &of, int32_t error = 0) const;
};

store &the_store();

}  // namespace scripted
