// The match rules of a session of "ebridge run": publishing them, hearing verdicts, reading them. See session.hpp.
//
// Nobody asks for a verdict: who decides follows the records, and writes it into them. So nothing is heard of a rule as long
// as a rule of the user's earlier life stands above it, and those have to go before anybody waits.
#include <algorithm>
#include <cstring>

#include "session.hpp"

namespace ebridge_tool
{

namespace
{

// A rule as a record of its user.
class rule_record
{
  public:
    rule_record(const sw_ematch_item &item, const char *user)
    {
        if (item.ip_ver == 0)
            ip_.v4 = &v4_;
        else
            ip_.v6 = &v6_;
        index_.ip = &ip_;
        index_.t_user = const_cast<char *>(user);
        entry_.index = &index_;
        sw_ematch_copy_entry(&entry_, &item, 0);
    }
    rule_record(const rule_record &) = delete;
    rule_record &operator=(const rule_record &) = delete;

    const UBridge__EmatchEntry &entry() const { return entry_; }

  private:
    PLibpub__Ipv4 v4_ = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6_ = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip_ = P_LIBPUB__IP__INIT;
    UBridge__EmatchIndex index_ = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry_ = U_BRIDGE__EMATCH_ENTRY__INIT;
};

sw_ematch_item item_of(const UBridge__EmatchEntry &record)
{
    sw_ematch_item item{};
    sw_ematch_entry_to_db_item(&item, &record, 0);
    return item;
}

// All that a user writes: not the result, nor what follows it.
bool is_same_rule(const sw_ematch_item &one, const sw_ematch_item &other)
{
    return std::memcmp(&one, &other, offsetof(sw_ematch_item, result)) == 0;
}

}  // namespace

void session::add_rules()
{
    for (size_t i : own_rules()) {
        rule_facts facts = rules_->at(i).asked;
        facts.sent = true;
        rules_->set(i, facts);
        const rule_record record(rules_->at(i).item, requester());
        const int32_t code = patiently([&] { return sw_ematch_entry_add(&record.entry()); });
        facts = rules_->at(i).asked;  // a verdict may have come
        facts.code = code;
        rules_->set(i, facts);
    }
}

void session::publish_rules(const run_options &options)
{
    if (rules_->empty())
        return;
    const auto mark = [&] { return sw_ematch_aging_flag_set(requester(), nullptr, nullptr, nullptr); };
    const bool marked = patiently(mark) == 0;
    add_rules();
    const auto clean = [&] { return sw_ematch_aged_data_delete(requester(), nullptr, nullptr); };
    if (marked && std::ranges::all_of(own_rules(), [&](size_t i) { return rules_->at(i).asked.code == 0; }))
        patiently(clean);
    wait_for_verdicts(options);
}

void session::wait_for_verdicts(const run_options &options)
{
    progress_teller progress(options, requests_->wanted() + rules_->wanted());
    const auto all_heard = [&] {
        progress.at(requests_->settled() + rules_->settled());
        return rules_->unheard_of(users_.requester) == 0;
    };
    wait_until(all_heard);
    progress.last(requests_->settled() + rules_->settled());
}

void session::remove_order_rules()
{
    bool removed = false;
    for (size_t i : own_rules()) {
        if (!rules_->at(i).tells_order())
            continue;
        const rule_record record(rules_->at(i).item, requester());
        patiently([&] { return sw_ematch_entry_del(&record.entry()); });
        removed = true;
    }
    if (removed)
        wait_for_writes(SW_EBRIDGE_APP_DB);
}

void session::decided(const UBridge__EmatchEntry &record)
{
    const size_t index = rules_->find(record.index->t_user, item_of(record));
    if (index == rules_->size() || !rules_->at(index).asked.sent)
        return;
    rule_facts facts = rules_->at(index).asked;
    facts.heard = true;
    facts.result = static_cast<int32_t>(record.result);
    rules_->set(index, facts);
    if (listener_.decided)
        listener_.decided(this, index);
    happened();
}

int32_t session::on_rules_read(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    of->ended_ += msg->end == QZ_MOM_END_SCAN;
    if (msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET)
        if (const ProtobufCMessage *record = static_cast<const qz_mom_hash_value *>(msg->value)->record)
            of->note_rule(reinterpret_cast<const UBridge__EmatchEntry &>(*record), msg->key);
    of->happened();
    return 0;
}

void session::note_rule(const UBridge__EmatchEntry &record, const char *key)
{
    if (!record.index)
        return;
    const sw_ematch_item item = item_of(record);
    const size_t index = rules_->find(record.index->t_user, item);
    if (index < rules_->size()) {
        rules_->set(index, rule_sight{.found = true,
                                      .equal = is_same_rule(item, rules_->at(index).item),
                                      .result = static_cast<int32_t>(record.result)});
        return;
    }
    other_rule other{.user = {}, .item = item};
    std::strncpy(other.user, record.index->t_user, sizeof other.user - 1);
    rules_->add_other(other);
    if (requests_->find_user(record.index->t_user) < requests_->users().size())
        strangers_.emplace_back(key);
}

}  // namespace ebridge_tool
