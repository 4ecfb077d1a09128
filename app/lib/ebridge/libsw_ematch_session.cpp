// Match rules as records: publishing a user's own, hearing the verdicts on them, and their aging.
#include "aging.hpp"
#include "arrays.hpp"
#include "ematch.hpp"
#include "export.hpp"
#include "names.hpp"
#include "users.hpp"

namespace
{

// What an owner writes: all of a rule but its result, which is the deciding process's.
constexpr uint32_t kRuleFields[] = {6, 11, 12, 14, 15, 16, 17, 18};

// A copy of the caller's record in which no sub-message is missing. It points into the caller's.
struct whole_rule {
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask = P_LIBPUB__MAC__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    UBridge__EmatchIndex index;
    UBridge__EmatchEntry entry;

    explicit whole_rule(const UBridge__EmatchEntry &of) : index(*of.index), entry(of)
    {
        entry.index = &index;
        if (!sw::has_bytes(index.mac))
            index.mac = &mac;
        if (!sw::has_bytes(index.mask))
            index.mask = &mask;
        if (index.ip == nullptr || index.ip->ip_case == P_LIBPUB__IP__IP__NOT_SET || index.ip->v4 == nullptr) {
            ip.ip_case = P_LIBPUB__IP__IP_V4;
            ip.v4 = &v4;
            index.ip = &ip;
        }
    }
    whole_rule(const whole_rule &) = delete;
    whole_rule &operator=(const whole_rule &) = delete;
};

// A record that stands for all rules, or for all those of one user.
struct rule_pattern {
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    rule_pattern() { entry.index = &index; }
    explicit rule_pattern(sw_ebridge_list_item &user) : rule_pattern() { index.t_user = user.user_name; }
    rule_pattern(const rule_pattern &) = delete;
    rule_pattern &operator=(const rule_pattern &) = delete;
};

void log_index(sw::site where, const UBridge__EmatchIndex &index)
{
    SW_LOG_AT(where, debug, "index evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d.",
              static_cast<uint32_t>(index.evlan1), static_cast<uint32_t>(index.evlan2),
              static_cast<uint32_t>(index.eport), index.ipv4, index.vnid, index.label);
}

// Logs a rule that is to be written or removed, and looks its user up.
const sw_ebridge_list_item *owner_of(sw::site where, const whole_rule &rule, const char *text)
{
    SW_LOG_UNCHECKED_AT(where, debug, text, sw_bridge_printf_udp_ematch(&rule.entry));
    log_index(where, rule.index);
    return sw::find_user(where, rule.index.t_user);
}

// Calls `visit` for each registered user.
template <typename Visitor>
void for_each_user(Visitor visit)
{
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *arg, int32_t) {
            (*static_cast<Visitor *>(arg))(*user);
            return 0;
        },
        &visit);
}

}  // namespace

// ---- a user's own rules -------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ematch_entry_add(const UBridge__EmatchEntry *entry)
{
    if (!sw::has_key(SW_HERE, entry))
        return -2;
    const whole_rule rule(*entry);
    const sw_ebridge_list_item *user = owner_of(SW_HERE, rule, "qz_mom_hmset udp_ematch_entry: %d.");
    if (user == nullptr)
        return -2;
    const int32_t rv = qz_mom_hmset(user->mom_handle, user->ematch_mom_db, &rule.entry.base, kRuleFields,
                                    sw::count_of(kRuleFields), nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_hmset failed, rv: %d\n", rv);
    return rv;
}

SW_EXPORT int32_t sw_ematch_entry_del(const UBridge__EmatchEntry *entry)
{
    if (!sw::has_key(SW_HERE, entry))
        return -2;
    const whole_rule rule(*entry);
    const sw_ebridge_list_item *user = owner_of(SW_HERE, rule, "qz_mom_del udp_ematch_entry: %d.");
    if (user == nullptr)
        return -2;
    const int32_t rv = qz_mom_del(user->mom_handle, user->ematch_mom_db, &rule.entry.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_del failed, rv: %d\n", rv);
    return rv;
}

// ---- verdicts -----------------------------------------------------------------------------------------------------

namespace
{

int32_t scan(sw::site where, sw_ebridge_list_item &user, uint32_t db, sw_ebridge_mom_func callback, void *args)
{
    user.scan_callback = callback;
    user.scan_args = args;
    SW_LOG_AT(where, debug, "scan ematch_entry, user: %s, db: %d, func_callback: %p, args: %p.", user.user_name, db,
              sw::address(callback), args);
    const rule_pattern all;
    const int32_t rv = qz_mom_scan(user.mom_handle, db, &all.entry.base, 0, sw_ematch_mom_session_reply, nullptr);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_scan failed, rv: %d\n", rv);
    return rv;
}

int32_t subscribe(sw::site where, sw_ebridge_list_item &user, uint32_t db, sw_ebridge_mom_func callback, void *args)
{
    user.subscribe_callback = callback;
    user.subscribe_args = args;
    SW_LOG_AT(where, debug, "user: %s, func_callback: %p, args: %p.", user.user_name, sw::address(callback), args);
    const rule_pattern all;
    const qz_mom_msg_cb callbacks[] = {sw_ematch_mom_session_reply};
    const int32_t rv = qz_mom_subscribe_field(user.mom_handle, db, &all.entry.base, 0, sw::kResultField, callbacks,
                                              nullptr, sw::count_of(sw::kResultField));
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_subscribe_field failed, rv: %d\n", rv);
    return rv;
}

}  // namespace

SW_EXPORT int32_t sw_ematch_scan_with_db(const char *user_name, int32_t db, sw_ebridge_mom_func callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    return user != nullptr ? scan(SW_HERE, *user, static_cast<uint32_t>(db), callback, args) : -2;
}

SW_EXPORT int32_t sw_ematch_scan(const char *user_name, sw_ebridge_mom_func callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    return user != nullptr ? scan(SW_HERE, *user, user->ematch_mom_db, callback, args) : -2;
}

SW_EXPORT int32_t sw_ematch_subscribe_with_db(const char *user_name, int32_t db, sw_ebridge_mom_func callback,
                                              void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    return user != nullptr ? subscribe(SW_HERE, *user, static_cast<uint32_t>(db), callback, args) : -2;
}

SW_EXPORT int32_t sw_ematch_subscribe(const char *user_name, sw_ebridge_mom_func callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    return user != nullptr ? subscribe(SW_HERE, *user, user->ematch_mom_db, callback, args) : -2;
}

SW_EXPORT int32_t sw_ematch_mom_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    if (msg == nullptr) {
        SW_LOG(error, "Assert:MOM msg is NULL.\n");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG(error, "Assert:MOM error is %d.\n", msg->error);
        return -2;
    }
    SW_LOG(debug, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p\n", msg->db, msg->key, msg->field, msg->cmd, args);
    const sw::site here = SW_HERE;
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        for_each_user([&](const sw_ebridge_list_item &user) {
            if (user.subscribe_callback == nullptr)
                return;
            SW_LOG_AT(here, debug, "subscribe callback, t_user: %s.", user.user_name);
            user.subscribe_callback(ctx, msg, user.subscribe_args);
        });
        return 0;
    }
    if (msg->end == QZ_MOM_END_SCAN) {
        for_each_user([&](const sw_ebridge_list_item &user) {
            if (user.scan_callback == nullptr)
                return;
            SW_LOG_AT(here, debug, "scan callback, t_user: %s.", user.user_name);
            user.scan_callback(ctx, msg, user.scan_args);
        });
        return 0;
    }
    if (msg->cmd != QZ_MOM_CMD_HSET && msg->cmd != QZ_MOM_CMD_HMSET)
        return 0;
    const auto *hash = static_cast<const qz_mom_hash_value *>(msg->value);
    if (hash == nullptr) {
        SW_LOG(error, "Assert:MOM hash is NULL.\n");
        return 1;
    }
    if (hash->error != 0) {
        SW_LOG(error, "Assert:MOM hash error is %d.\n", hash->error);
        return 1;
    }
    if (hash->record == nullptr) {
        SW_LOG(error, "Assert:MOM DB[%d], KEY[%s], CMD[%d] value is NULL.\n", msg->db, msg->key, msg->cmd);
        return -2;
    }
    sw_ematch_session_reply(reinterpret_cast<const UBridge__EmatchEntry *>(hash->record));
    return 0;
}

SW_EXPORT int32_t sw_ematch_session_reply(const UBridge__EmatchEntry *entry)
{
    if (!sw::has_key(SW_HERE, entry))
        return -2;
    const sw::site here = SW_HERE;
    for_each_user([&](const sw_ebridge_list_item &user) {
        if (user.ematch_reply == nullptr || !sw::same_name(user.user_name, entry->index->t_user))
            return;
        SW_LOG_AT(here, debug, "reply ematch: %d.", sw_bridge_printf_udp_ematch(entry));
        log_index(here, *entry->index);
        user.ematch_reply(const_cast<UBridge__EmatchEntry *>(entry));
    });
    return 0;
}

// ---- aging --------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ematch_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                           qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "user_name: %s, aging_timer: %p, func_callback: %p, args: %p\n", user->user_name,
           static_cast<const void *>(aging_timer), sw::address(callback), args);
    const rule_pattern own(*user);
    const int32_t rv = qz_mom_pexpire(user->mom_handle, user->ematch_mom_db, &own.entry.base, QZ_MOM_EXPIRE_PATTERN,
                                      sw::aging_time(aging_timer), callback, args);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_pexpire failed, user: %s, mom_handle: %p, ematch_mom_db: %d, rv: %d\n",
               user->user_name, static_cast<void *>(user->mom_handle), user->ematch_mom_db, rv);
    return rv;
}

SW_EXPORT int32_t sw_ematch_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "deleting aged data\n");
    const rule_pattern own(*user);
    const int32_t rv = qz_mom_del_expire(user->mom_handle, user->ematch_mom_db, &own.entry.base, QZ_MOM_EXPIRE_PATTERN,
                                         callback, args);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_del_expire failed, user: %s, rv: %d\n", user->user_name, rv);
    return rv;
}
