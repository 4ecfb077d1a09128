// The rules that are measured. See rule_set.hpp.
#include "rule_set.hpp"

#include <algorithm>
#include <stdexcept>

#include "rule_results.hpp"

namespace bench
{

namespace
{

constexpr int PORTS = 48;
constexpr int GROUPS = USERS / RIVALS;  // of users that have the same keys

uint64_t heard;

int32_t count_verdict(UBridge__EmatchEntry *)
{
    ++heard;
    return 0;
}

}  // namespace

std::string user_name(int user) { return "user_" + std::to_string(user); }

rule_message::rule_message(int user, int nth) : rule_message()
{
    const int key = GROUPS * nth + user % GROUPS;
    user_ = user_name(user);
    index_.t_user = user_.data();
    index_.match_type = U_BRIDGE__MATCH_TYPE__PORT_OVID;
    index_.match_flag = U_BRIDGE__MATCH_FLAG__EMATCH_INGRESS;
    index_.match_priority = (key * 7 + user * 3 + key / 64) % 8;
    index_.eport = U_BRIDGE__EPORT_TYPE__PORT << 24 | (key % PORTS + 1);
    index_.evlan1 = key / PORTS;
    entry_.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__REPLACE_OVID;
    entry_.new_evlan1 = nth % 4094 + 1;
}

void register_user(qz_mom_handle *handle, int user)
{
    const std::string name = user_name(user);
    ebridge_args args{};
    args.user_name = name.c_str();
    args.handle = handle;
    args.mom_db = SW_EBRIDGE_APP_DB;
    args.ematch_mom_db = RULE_DB;
    args.ematch_reply = count_verdict;
    if (sw_ebridge_init(&args) != 0 || sw_ematch_subscribe(name.c_str(), nullptr, nullptr) != 0)
        throw std::runtime_error("a user cannot be registered");
}

uint64_t heard_verdicts() { return heard; }

void audit::start(qz_mom_handle *handle)
{
    const rule_message any;
    if (qz_mom_scan(handle, RULE_DB, &any.entry().base, 0, on_rule, this) != 0)
        throw std::runtime_error("the rules cannot be read");
}

int32_t audit::on_rule(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *to = static_cast<audit *>(self);
    to->done_ = msg->end == QZ_MOM_END_SCAN;
    if (msg->cmd != QZ_MOM_CMD_HMSET)
        return 0;
    const auto *entry =
        reinterpret_cast<const UBridge__EmatchEntry *>(static_cast<const qz_mom_hash_value *>(msg->value)->record);
    to->keys_[{entry->index->eport, entry->index->evlan1}].push_back(
        {entry->index->t_user, entry->index->match_priority, static_cast<int32_t>(entry->result)});
    ++to->found_;
    return 0;
}

void audit::check(int rules) const
{
    if (found_ != rules)
        throw std::runtime_error(std::to_string(found_) + " rules are there");
    const auto order = support::users_in_order();
    for (auto [key, rivals] : keys_) {
        std::ranges::sort(rivals, {},
                          [&](const found_rule &each) { return std::ranges::find(order, each.user) - order.begin(); });
        std::vector<int32_t> priorities, results;
        for (const found_rule &each : rivals) {
            priorities.push_back(each.priority);
            results.push_back(each.result);
        }
        if (results != support::results_of(priorities))
            throw std::runtime_error("a result is wrong");
    }
}

}  // namespace bench
