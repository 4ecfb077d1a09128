// The resolver of default VLANs: follows what all users set for each port, and publishes one table of what counts: of each
// port the pvid that was set last, and when its user lets go, that of the one before. service.hpp is its neighbour.
//
// The table is written into each served database, where applications follow it, and into the data plane's, where they
// scan it. A record says what the port's pvid was before, too: what that database's record said.
//
// Start. In each database the users' records are subscribed, then scanned, and the table is read. Nothing is written
// before; then what differs. Records do not say in which order they were set: of those that were there before, the one
// that the table shows counts as the last, the others by name.
//
// Writes. What the store cannot take yet is remembered as "this port is due", and written as things stand then. Where a
// table turns out to say something else than was written last, because a write failed or a server has come back without
// its data, it is read again, and what differs is written.
//
// As in service.hpp callbacks can be broken off for lack of memory and carry a number instead of a pointer.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ebridged.h"
#include "qz_mom.h"
#include "service_log.hpp"
#include "u_bridge.pb-c.h"

namespace ebridged
{

class pvid_resolver
{
  public:
    pvid_resolver(qz_mom_handle *handle, const ebridged_options *options);
    ~pvid_resolver();
    pvid_resolver(const pvid_resolver &) = delete;
    pvid_resolver &operator=(const pvid_resolver &) = delete;

    int32_t start();
    // Its part of it.
    void stat(ebridged_stat *out) const;

  private:
    enum class what { follow_claims, read_claims, follow_table, read_table };
    enum class progress { waiting, under_way, done };
    struct task {
        uint32_t db;
        what to_do;
        progress state = progress::waiting;
    };
    // What one user set for a port.
    struct claim {
        uint32_t db = 0;
        std::string user;
        int32_t pvid = 0;
        uint64_t heard = 0;  // 0: was there before; else in the order of hearing
    };
    using port_id = int32_t;
    // The pvids that a database's table shows, by port.
    using shown_table = std::unordered_map<port_id, int32_t>;

    static int32_t on_claim(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_claim_scan(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_table(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_table_scan(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_written(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static void on_retry(void *number);
    void *number_arg() const;

    // the start
    int32_t advance();
    bool may_begin(const task &which) const;
    int32_t begin(const task &which);
    task &task_of(uint32_t db, what to_do);
    void finish(uint32_t db, what done, int32_t error);
    void go_on(uint32_t db, what done);
    bool is_read(uint32_t db);
    void order_claims();
    void compare(uint32_t db);
    // changes
    void claim_heard(const qz_mom_notification &msg, bool live);
    void entry_read(const qz_mom_notification &msg);
    void entry_heard(const qz_mom_notification &msg);
    void read_again(uint32_t db);
    void set(const claim &made, port_id port);
    void let_go(const claim &gone, port_id port);
    int32_t pvid_of(port_id port) const;
    // writes
    void put(port_id port);
    void write_due();
    int32_t write(uint32_t db, port_id port);
    void retry_later();

    qz_mom_handle *const handle_;
    const service_log log;
    const uintptr_t number_;  // for callbacks
    std::vector<task> tasks_;
    bool serving_ = false;
    uint64_t heard_ = 0;                                            // changes of claims
    std::unordered_map<port_id, std::vector<claim>> claims_;        // the last one counts
    std::set<std::tuple<uint32_t, std::string, port_id>> changed_;  // until serving: what a scan says of them is older
    std::map<uint32_t, shown_table> tables_;
    std::set<std::pair<uint32_t, port_id>> due_;
    bool retry_pending_ = false;
    uint64_t written_ = 0;
};

}  // namespace ebridged
