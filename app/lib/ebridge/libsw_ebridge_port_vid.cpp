// Port default VLANs: setting a user's own, and the process-wide cache of what counts, which comes with the pvid table.
#include <cstdlib>

#include "aging.hpp"
#include "arrays.hpp"
#include "export.hpp"
#include "keyed_cache.hpp"
#include "print.hpp"
#include "users.hpp"

SW_EXPORT int32_t sw_vlan_pvid_db_init(void)
{
    static bool created = false;
    if (created)
        return 0;
    created = true;
    const int32_t rv = sw_vlan_pvid_entry_hash_init(1);
    if (rv != 0)
        SW_LOG(error, "Assert:sw_vlan_pvid_entry_hash_init() failed.");
    return rv;
}

// ---- counters -----------------------------------------------------------------------------------------------------

#define SW_PVID_COUNTER(name, text)                                                                          \
    static constinit int32_t pvid_count_##name = 0;                                                          \
    SW_EXPORT void sw_brg_stat_pvid_count_##name##_inc(void) { ++pvid_count_##name; }                        \
    SW_EXPORT void sw_brg_stat_pvid_count_##name##_dec(void) { --pvid_count_##name; }                        \
    SW_EXPORT void sw_brg_stat_pvid_count_##name##_reset(void) { pvid_count_##name = 0; }                    \
    SW_EXPORT int32_t sw_brg_stat_pvid_count_##name##_get(void) { return pvid_count_##name; }                \
    SW_EXPORT void sw_brg_stat_pvid_count_##name##_set(int32_t new_value) { pvid_count_##name = new_value; } \
    SW_EXPORT int32_t sw_brg_stat_pvid_count_##name##_print(void) { return sw::print(text, pvid_count_##name); }

SW_PVID_COUNTER(subscribe, "  pvid_count_subscribe: %d\n")
SW_PVID_COUNTER(set, "  pvid_count_set: %d\n")
SW_PVID_COUNTER(get, "  pvid_count_get: %d\n")
SW_PVID_COUNTER(delete, "  pvid_count_delete: %d\n")
SW_PVID_COUNTER(nums, "  pvid_count_nums: %d\n")

#undef SW_PVID_COUNTER

SW_EXPORT int32_t sw_vlan_pvid_stats_print(void)
{
    sw_brg_stat_pvid_count_subscribe_print();
    sw_brg_stat_pvid_count_set_print();
    sw_brg_stat_pvid_count_get_print();
    sw_brg_stat_pvid_count_delete_print();
    sw_brg_stat_pvid_count_nums_print();
    return 0;
}

// ---- a user's own -------------------------------------------------------------------------------------------------

namespace
{

// A user's record of one port; of port 0, a pattern of all of the user's.
struct port_vid_record {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVid record = U_BRIDGE__PORT_VID__INIT;
    explicit port_vid_record(sw_ebridge_list_item &user, uint32_t port = 0)
    {
        index.t_user = user.user_name;
        index.port = static_cast<decltype(index.port)>(port);
        record.index = &index;
    }
    port_vid_record(const port_vid_record &) = delete;
    port_vid_record &operator=(const port_vid_record &) = delete;
};

void keep_locally(const sw_ebridge_list_item &user, uint32_t port, int32_t vid)
{
    const auto pvid = static_cast<uint16_t>(vid);
    if (sw_eport_attr *stored = sw_eport_db_get_item(0, user.user_name, port); stored != nullptr) {
        stored->attr.underlay.pvid = pvid;
        return;
    }
    sw_eport_attr made;
    sw_eport_init(&made, user.user_name, port);
    made.attr.underlay.pvid = pvid;
    sw_eport_db_insert_item(0, user.user_name, &made);
}

}  // namespace

SW_EXPORT int32_t sw_vlan_pvid_set(const char *user_name, uint32_t port, int32_t vid)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "user: %s, ifx: %d, vid: %d.", user->user_name, port, vid);
    keep_locally(*user, port, vid);
    if (vid < 0)
        return 0;
    port_vid_record own(*user, port);
    int32_t rv = 0;
    if (vid == 0) {
        SW_LOG(debug, "deleting port vid.");
        rv = qz_mom_del(user->mom_handle, user->mod_db, &own.record.base, nullptr, nullptr);
        sw_brg_stat_pvid_count_delete_inc();
    } else {
        SW_LOG(debug, "setting port vid.");
        own.record.pvid = vid;
        const uint32_t fields[] = {6};  // pvid
        rv = qz_mom_hmset(user->mom_handle, user->mod_db, &own.record.base, fields, sw::count_of(fields), nullptr,
                          nullptr);
        sw_brg_stat_pvid_count_set_inc();
    }
    if (rv != 0)
        SW_LOG(error, "Assert:sw_vlan_pvid_set failed, rv: %d.", rv);
    return rv;
}

SW_EXPORT int32_t sw_vlan_port_vid_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                                  qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    const port_vid_record own(*user);
    return sw::mark_records(SW_HERE, *user, user->mod_db, own.record.base, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_vlan_pvid_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    const port_vid_record own(*user);
    return sw::mark_records_sync(SW_HERE, *user, user->mod_db, own.record.base, aging_timer,
                                 "Assert:Aging all PVID of '%s' in db[%d] failed, global is %p, error is %d.\n");
}

SW_EXPORT int32_t sw_vlan_pvid_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "delete aged data\n");
    const port_vid_record own(*user);
    qz_mom_del_expire(user->mom_handle, user->mod_db, &own.record.base, QZ_MOM_EXPIRE_PATTERN, callback, args);
    return 0;
}

// ---- the table ----------------------------------------------------------------------------------------------------

namespace
{

sw_vlan_pvid_entry *find_entry(uint32_t ifx)
{
    const sw_vlan_pvid_entry key = {.ifx = ifx, .new_pvid = 0, .old_pvid = 0};
    return sw_vlan_pvid_entry_hash_find(0, &key);
}

// The pair that goes with a scan or subscription until its end. Null without memory.
sw_ebridge_callback_args *make_pair(sw_ebridge_mom_func callback, void *args)
{
    auto *pair = static_cast<sw_ebridge_callback_args *>(std::malloc(sizeof(sw_ebridge_callback_args)));
    if (pair != nullptr)
        *pair = {.arg = args, .func = callback};
    return pair;
}

// A record that stands for all of the table.
struct table_pattern {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PvidTable record = U_BRIDGE__PVID_TABLE__INIT;
    table_pattern() { record.index = &index; }
    table_pattern(const table_pattern &) = delete;
    table_pattern &operator=(const table_pattern &) = delete;
};

void tell(const sw_ebridge_callback_args &pair, qz_mom_handle *ctx, const qz_mom_notification *msg)
{
    if (pair.func != nullptr)
        pair.func(ctx, msg, pair.arg);
}

// The interface of a table record. False, with the reason logged, when it has none.
bool read_ifx(sw::site where, const UBridge__PvidTable &record, uint32_t *ifx)
{
    UBridge__EportIndex port = U_BRIDGE__EPORT_INDEX__INIT;
    port.eport_id = record.index->port;
    UBridge__EportAppIndex app = U_BRIDGE__EPORT_APP_INDEX__INIT;
    if (sw_eport_udp2app(&port, &app) != 0) {
        SW_LOG_AT(where, error, "Assert:sw_eport_udp2app failed");
        return false;
    }
    *ifx = static_cast<uint32_t>(app.keyid2);
    return true;
}

// Takes a written record into the cache. 0; -4 without memory.
int32_t take_written(sw::site where, sw_vlan_pvid_entry &change, const UBridge__PvidTable &record)
{
    change.new_pvid = static_cast<uint16_t>(record.new_pvid);
    change.old_pvid = static_cast<uint16_t>(record.old_pvid);
    const bool is_new = find_entry(change.ifx) == nullptr;
    sw_vlan_pvid_entry *stored = nullptr;
    sw_vlan_pvid_entry_cache_create(0, &stored, &change);
    if (stored == nullptr) {
        SW_LOG_AT(where, error, "Assert:insert the (ifx = %d, new_pvid=%d, old_pvid=%d) into the pvid_db failed.",
                  change.ifx, record.new_pvid, record.old_pvid);
        SW_LOG_AT(where, error, "Assert:set_pvid(%d) failed", record.new_pvid);
        return -4;
    }
    if (is_new)
        sw_brg_stat_pvid_count_nums_inc();
    return 0;
}

// Takes a removed record out of the cache: the port's last pvid is the old one now.
void take_removed(sw_vlan_pvid_entry &change)
{
    const sw_vlan_pvid_entry *entry = find_entry(change.ifx);
    if (entry == nullptr)
        return;
    change.old_pvid = entry->new_pvid;
    sw_vlan_pvid_entry_cache_destroy(0, entry);
    sw_brg_stat_pvid_count_nums_dec();
}

// Applies the change of a table record, and tells it.
int32_t take_change(sw::site where, qz_mom_handle *ctx, const qz_mom_notification *msg,
                    const sw_ebridge_callback_args &pair)
{
    const auto *record = static_cast<const UBridge__PvidTable *>(msg->value);
    if (record == nullptr || record->index == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad pvid.");
        return -2;
    }
    sw_vlan_pvid_entry change = {};
    if (!read_ifx(where, *record, &change.ifx))
        return -1;
    if (msg->cmd != QZ_MOM_CMD_SET)
        take_removed(change);
    else if (const int32_t rv = take_written(where, change, *record); rv != 0)
        return rv;
    SW_LOG_AT(where, info, "eport_id: 0x%x, ifx: %d, new_pvid: %d, old_pvid: %d, args(p: %p), args2(p, %p).",
              static_cast<uint32_t>(record->index->port), change.ifx, uint32_t{change.new_pvid},
              uint32_t{change.old_pvid}, pair.arg, sw::address(pair.func));
    tell(pair, ctx, msg);
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *arg, int32_t) -> int32_t {
            auto told = *static_cast<const sw_vlan_pvid_entry *>(arg);  // each user's own: it may write there
            return user->pvid_change != nullptr ? user->pvid_change(told.ifx, told.new_pvid, told.old_pvid, &told) : 0;
        },
        &change);
    return 0;
}

}  // namespace

SW_EXPORT int32_t sw_vlan_pvid_get(const char *user_name, uint32_t ifx, int32_t *out)
{
    if (out == nullptr) {
        SW_LOG(error, "Assert:Bad pvid of user[%s].", sw::printable(user_name));
        return -2;
    }
    const sw_vlan_pvid_entry *entry = find_entry(ifx);
    *out = entry != nullptr ? entry->new_pvid : 0;
    sw_brg_stat_pvid_count_get_inc();
    return 0;
}

// The scan reads where the data plane looks, the subscription follows the user's own database: the service writes both.
SW_EXPORT int32_t sw_vlan_pvid_table_scan(const char *user_name, sw_ebridge_mom_func callback, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    sw_ebridge_callback_args *pair = make_pair(callback, args);
    if (pair == nullptr) {
        SW_LOG(error, "Assert:malloc sw_ebridge_scan_args[0] failed.");
        return -4;
    }
    const table_pattern all;
    // A refused scan has no end that would free the pair. The caller is not told.
    if (qz_mom_scan(user->mom_handle, SW_EBRIDGE_UDP_DB, &all.record.base, 0, sw_vlan_mom_msg_port_vid_changed, pair) !=
        0)
        std::free(pair);
    return 0;
}

SW_EXPORT int32_t sw_vlan_pvid_subscribe(const char *user_name, sw_ebridge_mom_func callback, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "User '%s' subscribe PVID, func is %p, args is %p.", user->user_name, sw::address(callback), args);
    sw_ebridge_callback_args *pair = make_pair(callback, args);
    if (pair == nullptr) {
        SW_LOG(error, "Assert:Malloc failed.");
        return -4;
    }
    const table_pattern all;
    const int32_t rv =
        qz_mom_subscribe(user->mom_handle, user->mod_db, &all.record.base, 0, sw_vlan_mom_msg_port_vid_changed, pair);
    if (rv != 0) {
        SW_LOG(error, "qz_mom_subscribe failed, rv: %d.", rv);
        std::free(pair);
    }
    sw_brg_stat_pvid_count_subscribe_inc();
    return rv;
}

SW_EXPORT int32_t sw_vlan_mom_msg_port_vid_changed(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    if (msg == nullptr) {
        SW_LOG(error, "Assert:MOM msg is NULL.\n");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG(error, "Assert:MOM error is %d.\n", msg->error);
        return -2;
    }
    auto *pair = static_cast<sw_ebridge_callback_args *>(args);
    if (pair == nullptr) {
        SW_LOG(error, "Assert:MOM, args is NULL.");
        return -2;
    }
    if (msg->cmd == QZ_MOM_CMD_UNSUBSCRIBED) {
        SW_LOG(warning, "unsubscribe from DB[%d], args is %p.", msg->db, args);
        std::free(pair);
        return 0;
    }
    SW_LOG(info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd, args);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        SW_LOG(info, "subscribe callback, args(p: %p), args2(p, %p).", pair->arg, sw::address(pair->func));
        tell(*pair, ctx, msg);
        return 0;
    }
    if (msg->end == QZ_MOM_END_SCAN) {
        SW_LOG(info, "scan end callback, args(p: %p), args2(p, %p).", pair->arg, sw::address(pair->func));
        tell(*pair, ctx, msg);
        std::free(pair);
        return 0;
    }
    if (msg->cmd != QZ_MOM_CMD_SET && msg->cmd != QZ_MOM_CMD_DEL && msg->cmd != QZ_MOM_CMD_EXPIRED)
        return 0;
    return take_change(SW_HERE, ctx, msg, *pair);
}

// ---- dump ---------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlan_pvid_ut_dump(int32_t ifx)
{
    sw::print("|--------------|----------|----------|\n");
    sw::print("| %12s | %8s | %8s |\n", "ifx", "new_pvid", "old_pvid");
    if (ifx <= 0) {
        sw::print("only non-zero pvid is displayed. \n");
        sw_vlan_pvid_entry_hash_traverse(
            0,
            [](sw_vlan_pvid_entry *entry, void *, int32_t) -> int32_t {
                sw::print("| %12d | %8u | %8u |\n", static_cast<int32_t>(entry->ifx), uint32_t{entry->new_pvid},
                          uint32_t{entry->old_pvid});
                return 0;
            },
            nullptr);
    } else {
        const sw_vlan_pvid_entry *entry = find_entry(static_cast<uint32_t>(ifx));
        const uint32_t new_pvid = entry != nullptr ? entry->new_pvid : 0;
        const uint32_t old_pvid = entry != nullptr ? entry->old_pvid : 0;
        sw::print("| %12d | %8u | %8u |\n", ifx, new_pvid, old_pvid);
    }
    sw::print("------------------------------------\n");
    return 0;
}
