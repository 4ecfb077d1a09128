// The rules that are measured: those of eight users, with four rivals for each key, and what their results have to be.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sw_ebridge.h"

namespace bench
{

constexpr int USERS = 8;
constexpr int RIVALS = 4;  // users that have a rule of the same key
constexpr uint32_t RULE_DB = 4;

std::string user_name(int user);

// The record of a rule: a port and an outer VLAN; of the keys that a user has it is the `nth`.
class rule_message
{
  public:
    rule_message() { entry_.index = &index_; }  // a pattern that matches all of them
    rule_message(int user, int nth);
    rule_message(const rule_message &) = delete;
    rule_message &operator=(const rule_message &) = delete;

    const UBridge__EmatchEntry &entry() const { return entry_; }
    const UBridge__EmatchIndex &index() const { return index_; }

  private:
    std::string user_;
    UBridge__EmatchIndex index_ = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry_ = U_BRIDGE__EMATCH_ENTRY__INIT;
};

// Registers a user; what is decided on its rules is counted.
void register_user(qz_mom_handle *handle, int user);
uint64_t heard_verdicts();

// Reads all results from a store and compares them with the decision made once more, in the order of the users of this
// process.
class audit
{
  public:
    void start(qz_mom_handle *handle);
    bool done() const { return done_; }
    // Throws unless so many rules are there and each result is as it should be.
    void check(int rules) const;

  private:
    struct found_rule {
        std::string user;
        int32_t priority;
        int32_t result;
    };
    static int32_t on_rule(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);

    std::map<std::pair<int32_t, int32_t>, std::vector<found_rule>> keys_;
    int found_ = 0;
    bool done_ = false;
};

}  // namespace bench
