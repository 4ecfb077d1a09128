// The resolver of default VLANs: follows what all users set for each port, and publishes one table of what counts: of each
// port the pvid that was set last, and when its user lets go, that of the one before. service.hpp is its neighbour.
//
// The table is written into each served database, where applications follow it, and into the data plane's, where they
// scan it. A record says what the port's pvid was before, too: what that database's record said.
//
// Start. The users' records and the tables are followed, as soon as there is a store: who stands by hears in which order
// pvids are set. Nothing is written before all is read and it is this one's turn; then what differs. Records do not say in
// which order they were set: of those that were there before, the one that the table shows counts as the last, before it
// the one that the table names as the pvid before, the others by name.
//
// Writes. What the store cannot take yet is remembered as "this port is due", and written as things stand then. Each
// table is followed, too: with the answer to the last write of a port, all that came of it has been heard. What is heard
// from then on is somebody else's, or a server's that has come back without its data. Whatever it is: a record that says
// something else than it should is due.
//
// As in service.hpp callbacks can be broken off for lack of memory and carry a number instead of a pointer.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "ebridged.h"
#include "followed_tables.hpp"
#include "numbers.hpp"
#include "qz_mom.h"
#include "service_log.hpp"
#include "u_bridge.pb-c.h"

namespace ebridged
{

class pvid_resolver : followed_tables::follower
{
  public:
    pvid_resolver(qz_mom_handle *handle, const ebridged_options *options);
    pvid_resolver(const pvid_resolver &) = delete;
    pvid_resolver &operator=(const pvid_resolver &) = delete;

    // Follows what there is.
    int32_t start() { return followed_.start(); }
    // From here on it writes. Again after it was broken off for lack of memory.
    void serve();
    // Its part of it.
    void stat(ebridged_stat *out) const;

  private:
    enum tag { CLAIMS, TABLE };
    // What one user set for a port.
    struct claim {
        uint32_t db = 0;
        std::string user;
        int32_t pvid = 0;
        uint64_t heard = 0;  // 0: was there before; else in the order of hearing
    };
    using port_id = int32_t;
    // A port in a database's table.
    struct entry {
        int32_t pvid = 0;        // that the record will say when all that was sent is applied; 0: no record
        int32_t heard = 0;       // that it said last
        int32_t before = 0;      // that it names as the one before
        uint32_t under_way = 0;  // writes without an answer
    };
    struct table {
        std::unordered_map<port_id, entry> entries;
        std::set<port_id> due;
        std::deque<port_id> sent;  // whose writes have no answer, in their order
    };

    static int32_t on_written(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static void on_retry(void *number);
    void *number_arg() const;

    void heard(int which, const qz_mom_notification &msg, bool live) override;
    // the start
    void all_read() override;
    entry shown_for(port_id port) const;
    void order_claims();
    void begin_serving();
    void compare(table &its);
    // changes
    void claim_heard(const qz_mom_notification &msg, bool live);
    void set(const claim &made, port_id port);
    void let_go(const claim &gone, port_id port);
    int32_t pvid_of(port_id port) const;
    void entry_heard(const qz_mom_notification &msg);
    void settle(table &its, port_id port);
    static void tidy(table &its, port_id port);
    // writes
    void put(port_id port);
    void write_due();
    void try_write_due();
    void write_due(uint32_t db, table &its);
    int32_t write(uint32_t db, table &its, port_id port);
    int32_t send(uint32_t db, table &its, port_id port, int32_t pvid);
    void answered(const qz_mom_notification &msg);
    size_t waiting() const;
    void retry_later();

    qz_mom_handle *const handle_;
    const service_log log;
    const numbers<pvid_resolver *>::own number_;  // for callbacks
    bool read_ = false;
    bool has_turn_ = false;
    bool serving_ = false;                                    // all is read, and it has its turn
    uint64_t heard_ = 0;                                      // changes of claims
    std::unordered_map<port_id, std::vector<claim>> claims_;  // the last one counts
    std::map<uint32_t, table> tables_;
    bool retry_pending_ = false;
    uint64_t written_ = 0;
    followed_tables followed_;
};

}  // namespace ebridged
