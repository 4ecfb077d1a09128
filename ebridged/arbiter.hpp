// The arbiter of match rules: follows the rules of all users with the store client, has the library's calculation decide
// whose rules hold, and writes each rule's result into its record. service.hpp is its neighbour, on the same handle.
//
// Table. A record is an item of the library's rule table, which is one for the process: the first arbiter has it, and
// while it does nobody else writes there. The item's database is the one that its record was last heard from.
//
// Start. The rules of each database are followed. No verdict is given before all of them are read: then every key is
// calculated, and those are published whose results are not what the records say.
//
// Changes. A changed rule's key is noted, once however often it changes, and calculated by a pass that comes when what
// waits now has been heard. A change of the result alone changes nothing: results are written here, or by the hardware's
// side. Whether rules of equal priority win depends on the order of the registry: when new users move the others in it,
// the keys that rules share are calculated again.
//
// Writes. The calculation does not look at what the store refuses, so results are written here, each with word of how it
// went: what could not be written is noted again, and written as things stand then. So many are under way and no more;
// the next passes wait for their answers. What waits is never more than there are keys.
//
// As in service.hpp callbacks can be broken off for lack of memory and carry a number instead of a pointer.
#pragma once

#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ebridged.h"
#include "followed_tables.hpp"
#include "numbers.hpp"
#include "qz_mom.h"
#include "rules.hpp"
#include "service_log.hpp"

namespace ebridged
{

class arbiter : followed_tables::follower
{
  public:
    arbiter(qz_mom_handle *handle, const ebridged_options *options);
    ~arbiter() override;
    arbiter(const arbiter &) = delete;
    arbiter &operator=(const arbiter &) = delete;

    int32_t start();
    // Its part of it.
    void stat(ebridged_stat *out) const;

  private:
    // Keys, each by one of its rules, and whether they are published whatever comes out.
    using noted_keys = std::unordered_map<sw_ematch_item *, bool, rival_hash, are_rivals>;

    static int32_t on_written(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static void on_pass(void *number);
    static void on_retry(void *number);
    void *number_arg() const;

    void all_read() override;
    // changes
    void heard(int tag, const qz_mom_notification &msg, bool live) override;
    void rule_written(uint32_t db, const UBridge__EmatchEntry &record, bool publish);
    void rule_removed(uint32_t db, const UBridge__EmatchEntry &record);
    sw_ematch_item *find(const UBridge__EmatchEntry &record) const;
    void keep(sw_ematch_item *stored);
    void drop(sw_ematch_item *rule);
    void note(sw_ematch_item *rule, bool publish);
    template <typename Visit>
    void for_each_key(Visit visit) const;
    // verdicts
    void pass();
    void tell_of_start();
    void follow_order();
    bool decide(noted_keys::iterator noted);
    void tell(const sw_ematch_item &rule) const;
    int32_t write_result(const sw_ematch_item &rule);
    void write_failed(const qz_mom_notification &msg);
    size_t waiting() const { return noted_.size() + deciding_.size(); }
    void schedule();
    void retry_later();

    qz_mom_handle *const handle_;
    const service_log log;
    bool has_table_ = false;
    const numbers<arbiter *>::own number_;  // for callbacks
    bool serving_ = false;                  // every rule is read
    bool told_of_start_ = false;            // the first keys are decided
    std::unordered_multiset<sw_ematch_item *, rival_hash, are_rivals> rules_;
    size_t keys_ = 0;                                  // among these rules
    size_t contested_ = 0;                             // keys of several rules
    std::vector<const sw_ebridge_list_item *> users_;  // in their order, as of the last pass
    noted_keys deciding_;                              // these first, so that no key waits for ever
    noted_keys noted_;
    size_t under_way_ = 0;  // results that were sent and are not answered
    bool pass_pending_ = false;
    bool retry_pending_ = false;
    uint64_t calculations_ = 0;
    uint64_t results_ = 0;
    followed_tables followed_;
};

}  // namespace ebridged
