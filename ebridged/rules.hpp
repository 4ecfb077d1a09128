// Match rules as the arbiter meets them: which rules are rivals, and their records.
#pragma once

#include "sw_ebridge.h"

namespace ebridged
{

// Rules are rivals when they match the same traffic: when all of their keys but the user and the priority is the same.
struct rival_hash {
    size_t operator()(const sw_ematch_item *rule) const;
};
struct are_rivals {
    bool operator()(const sw_ematch_item *a, const sw_ematch_item *b) const noexcept;
};

// A pattern that matches the records of all rules. It lives as long as the process.
const UBridge__EmatchEntry &all_rules();

// Whether the rule's record can be told from its item. An item has 6 bytes of a mac or mask, and an IPv4 or IPv6 address: of a
// record with anything else the result would go to another one.
bool names_its_record(const UBridge__EmatchIndex &index);

// The item of a record, without its user. An IPv6 address of zeros is none: so says the record's name.
sw_ematch_item item_of(const UBridge__EmatchEntry &record);

// The record of a rule on the stack, with its result. It points into the rule that it is made from.
class rule_record
{
  public:
    explicit rule_record(const sw_ematch_item &rule);
    rule_record(const rule_record &) = delete;
    rule_record &operator=(const rule_record &) = delete;

    const ProtobufCMessage *message() const { return &entry_.base; }
    const UBridge__EmatchIndex *index() const { return &index_; }

  private:
    char user_[SW_EBRIDGE_NAME_SIZE] = {};
    PLibpub__Mac mac_ = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask_ = P_LIBPUB__MAC__INIT;
    PLibpub__Ipv4 v4_ = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6_ = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip_ = P_LIBPUB__IP__INIT;
    UBridge__EmatchIndex index_ = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry_ = U_BRIDGE__EMATCH_ENTRY__INIT;
};

// "user a, match type 7, priority 3", for a log line.
struct rule_words {
    explicit rule_words(const UBridge__EmatchIndex &index);
    char text[128];
};

}  // namespace ebridged
