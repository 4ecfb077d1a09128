// Core: the registry of users, initialisation, and the store sessions that lead from a connected database over the
// subscriptions to the first scan. Neighbours: libsw_ebridge_evlan and libsw_ebridge_eport (what the subscriptions
// deliver), connecting.hpp.
#include <cstdlib>

#include "connecting.hpp"
#include "export.hpp"
#include "keyed_cache.hpp"
#include "list.hpp"
#include "names.hpp"
#include "print.hpp"
#include "tables.hpp"
#include "users.hpp"

// ---- registry -----------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ebridge_list_init(void)
{
    static bool created = false;
    const uint32_t missing = sw::make_tables<sw_ebridge_list_item>(created, sw_ebridge_list_item_hash_init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG(error, "Assert:HASH[%d] init failed.", missing);
    return -1;
}

SW_EXPORT sw_ebridge_list_item *sw_ebridge_list_item_get_inst(uint32_t table, const char *user_name)
{
    if (table >= SW_EBRIDGE_SLOTS) {
        SW_LOG(error, "Assert:Bad inst[%d].", table);
        return nullptr;
    }
    if (user_name == nullptr) {
        SW_LOG(error, "Assert:Bad user NULL.");
        return nullptr;
    }
    if (!sw::family<sw_ebridge_list_item>::exists(table)) {
        SW_LOG(error, "Assert:List uninit.");
        return nullptr;
    }
    sw_ebridge_list_item key = {};
    sw::copy_name(key.user_name, user_name);
    return sw_ebridge_list_item_hash_find(table, &key);
}

SW_EXPORT sw_ebridge_list_item *sw_ebridge_list_item_get(const char *user_name)
{
    return sw_ebridge_list_item_get_inst(0, user_name);
}

SW_EXPORT int32_t sw_ebridge_list_add_inst(uint32_t table, const sw_ebridge_list_item *record)
{
    if (record == nullptr) {
        SW_LOG(error, "Assert:Bad list");
        return -2;
    }
    sw_ebridge_list_item user = *record;
    sw::copy_name(user.user_name, record->user_name);
    SW_LOG(info, "user: %s, reg mom_db: 0x%x.", user.user_name, user.mod_db);
    // The record is overwritten in place, its list heads with it: what is linked there has to let go first.
    if (sw_ebridge_list_item *existing = sw_ebridge_list_item_hash_find(table, &user); existing != nullptr) {
        sw::list_scatter(&existing->eport_maps);
        sw::list_scatter(&existing->evlan_maps);
    }
    sw_ebridge_list_item *stored = nullptr;
    sw_ebridge_list_item_cache_create(table, &stored, &user);
    if (stored == nullptr) {
        SW_LOG(error, "Assert:DL_HASH_CREATE fail.");
        return -5;
    }
    sw::list_init(&stored->eport_maps);
    sw::list_init(&stored->evlan_maps);
    return 0;
}

SW_EXPORT int32_t sw_ebridge_list_add(const sw_ebridge_list_item *record)
{
    return sw_ebridge_list_add_inst(0, record);
}

SW_EXPORT int32_t sw_ebridge_list_for_each(uint32_t table, sw_ebridge_list_item_visitor visitor, void *arg)
{
    if (!sw::family<sw_ebridge_list_item>::exists(table)) {
        SW_LOG(error, "Assert:No user table[%d].", table);
        return -1;
    }
    if (visitor == nullptr) {
        SW_LOG(error, "Assert:Bad visitor.");
        return -2;
    }
    // The cache's walk ends at any result but 0; this one only at -6.
    struct adapter {
        sw_ebridge_list_item_visitor visitor;
        void *arg;
    } adapted = {visitor, arg};
    sw_ebridge_list_item_hash_traverse(
        table,
        [](sw_ebridge_list_item *user, void *adapted_arg, int32_t position) -> int32_t {
            const auto *to = static_cast<adapter *>(adapted_arg);
            return to->visitor(user, to->arg, position) == SW_EBRIDGE_WALK_STOP ? SW_EBRIDGE_WALK_STOP : 0;
        },
        &adapted);
    return 0;
}

// One block a user: settings first, then the callbacks that are set, by address, then the housekeeping.
static int32_t dump_user(sw_ebridge_list_item *user, void *arg, int32_t position)
{
    using sw::address;
    using sw::print;
    print("user: %s (table %u, slot %d)\n", user->user_name, *static_cast<uint32_t *>(arg), position);
    print("  mom_handle: %p, mod_db: %u, evlan_attr_mom_db: %u, eport_attr_mom_db: %u, ematch_mom_db: %u\n",
          static_cast<void *>(user->mom_handle), user->mod_db, user->evlan_attr_mom_db, user->eport_attr_mom_db,
          user->ematch_mom_db);
    print("  evlan_data_type: %u, eport_data_type: %u, auto_subscribe: %u, auto_scan: %u\n", user->evlan_data_type,
          user->eport_data_type, user->auto_subscribe, user->auto_scan);
    print("  vlan_reply: %p, evlan_reply: %p, eport_reply: %p\n", address(user->vlan_reply), address(user->evlan_reply),
          address(user->eport_reply));
    print("  evlan_release_reply: %p, eport_release_reply: %p, ematch_reply: %p, pvid_change: %p\n",
          address(user->evlan_release_reply), address(user->eport_release_reply), address(user->ematch_reply),
          address(user->pvid_change));
    print("  sda_evlan_create: %p, sda_evlan_destroy: %p, sda_eport_create: %p, sda_eport_destroy: %p\n",
          address(user->sda_evlan_create), address(user->sda_evlan_destroy), address(user->sda_eport_create),
          address(user->sda_eport_destroy));
    print("  sda_vlan_port_change: %p, sda_vlan_fid_change: %p\n", address(user->sda_vlan_port_change),
          address(user->sda_vlan_fid_change));
    print("  subscribe_callback: %p, subscribe_args: %p, scan_callback: %p, scan_args: %p\n",
          address(user->subscribe_callback), user->subscribe_args, address(user->scan_callback), user->scan_args);
    for (int i = 0; i < 8; ++i)
        print("%s%p%s", i == 0 ? "  mom_ds_args: " : "", user->mom_ds_args[i], i == 7 ? "\n" : ", ");
    print("  eport_maps: %s, evlan_maps: %s, age_timer_armed: %u, stat: %d\n",
          user->eport_maps.next == &user->eport_maps ? "empty" : "linked",
          user->evlan_maps.next == &user->evlan_maps ? "empty" : "linked", user->age_timer_armed, user->stat);
    return 0;
}

SW_EXPORT int32_t sw_ebridge_list_item_ut_dump(void)
{
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table)
        sw_ebridge_list_item_hash_traverse(table, dump_user, &table);
    return 0;
}

// ---- initialisation -----------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ebridge_attr_db_init(uint32_t table, const char *user_name)
{
    if (const int32_t rv = sw_ebridge_list_init(); rv != 0) {
        SW_LOG(error, "Assert:sw_ebridge_list_init failed.");
        return rv;
    }
    if (sw_eport_db_init() != 0) {
        SW_LOG(error, "Assert:sw_eport_attr_db_init failed");
        return -1;
    }
    if (sw_evlan_db_init() != 0) {
        SW_LOG(error, "Assert:sw_evlan_attr_db_init failed");
        return -1;
    }
    if (user_name != nullptr && sw_ebridge_list_item_get_inst(table, user_name) == nullptr) {
        sw_ebridge_list_item blank = {};
        sw::copy_name(blank.user_name, user_name);
        sw_ebridge_list_add_inst(table, &blank);
    }
    return 0;
}

SW_EXPORT int32_t sw_ebridge_map_db_init(uint32_t table)
{
    if (sw_eport_index_map_db_init() != 0) {
        SW_LOG(error, "Assert:sw_eport_db_init fail.");
        return -1;
    }
    if (sw_evlan_index_map_db_init() != 0) {
        SW_LOG(error, "Assert:sw_evlan_db_init fail.");
        return -1;
    }
    SW_LOG(info, "db_init, hash_id: %d.", table);
    return 0;
}

namespace
{

sw_ebridge_list_item instance_from(const ebridge_args &args)
{
    sw_ebridge_list_item user = {};
    sw::copy_name(user.user_name, args.user_name);
    user.mom_handle = args.handle;
    user.mod_db = args.mom_db;
    user.evlan_attr_mom_db = args.evlan_attr_mom_db;
    user.eport_attr_mom_db = args.eport_attr_mom_db;
    user.ematch_mom_db = args.ematch_mom_db;
    user.evlan_data_type = args.evlan_data_type;
    user.eport_data_type = args.eport_data_type;
    user.auto_subscribe = args.auto_subscribe;
    user.auto_scan = args.auto_scan;
    user.vlan_reply = args.vlan_reply;
    user.evlan_reply = args.evlan_reply;
    user.eport_reply = args.eport_reply;
    user.evlan_release_reply = args.evlan_release_reply;
    user.eport_release_reply = args.eport_release_reply;
    user.ematch_reply = args.ematch_reply;
    user.pvid_change = args.pvid_change;
    user.sda_evlan_create = args.sda_evlan_create;
    user.reserved_evlan = args.reserved_evlan;
    user.sda_evlan_destroy = args.sda_evlan_destroy;
    user.sda_eport_create = args.sda_eport_create;
    user.reserved_eport = args.reserved_eport;
    user.sda_eport_destroy = args.sda_eport_destroy;
    user.sda_vlan_port_change = args.sda_vlan_port_change;
    user.sda_vlan_fid_change = args.sda_vlan_fid_change;
    return user;
}

int32_t check_args(sw::site where, const ebridge_args *args)
{
    if (args == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad args.");
        return -2;
    }
    if (args->user_name == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad username.");
        return -2;
    }
    if (strnlen(args->user_name, SW_EBRIDGE_NAME_SIZE) == SW_EBRIDGE_NAME_SIZE) {
        SW_LOG_AT(where, error, "Assert:Bad user_name, limit the user_name to 32 characters.");
        return -2;
    }
    return 0;
}

int32_t init_tables(sw::site where, uint32_t table, const char *user_name)
{
    if (const int32_t rv = sw_ebridge_map_db_init(table); rv != 0) {
        SW_LOG_AT(where, error, "Assert:sw_ebridge_map_db_init() failed.");
        return rv;
    }
    if (const int32_t rv = sw_ebridge_attr_db_init(table, user_name); rv != 0) {
        SW_LOG_AT(where, error, "Assert:sw_ebridge_attr_db_init() failed.");
        return rv;
    }
    if (const int32_t rv = sw_vlan_pvid_db_init(); rv != 0) {
        SW_LOG_AT(where, error, "Assert:sw_vlan_pvid_db_init() failed.");
        return rv;
    }
    if (const int32_t rv = sw_ebridge_match_db_init(static_cast<int32_t>(table), user_name); rv != 0) {
        SW_LOG_AT(where, error, "Assert:sw_ebridge_match_db_init failed.");
        return rv;
    }
    return 0;
}

// ---- store sessions: connecting -----------------------------------------------------------------------------------

// Both process-wide words are only ever OR-ed into: a later cycle finds its bits set and proceeds at once.
constinit uint32_t connected_db_flags = 0;
constinit uint32_t subscribing_flags_setted[8] = {};

uint32_t db_flag(uint32_t db) { return db == SW_EBRIDGE_APP_DB ? sw::kAppDbFlag : sw::kUdpDbFlag; }

// New arguments of a connection to `db`, or null with the reason logged.
sw_ebridge_connecting_args *make_connecting_args(sw::site where, uint32_t db, const char *user_name)
{
    auto *list = static_cast<sw::list_args *>(std::calloc(1, sizeof(sw::list_args)));
    if (list == nullptr) {
        SW_LOG_AT(where, error, "Assert:malloc list_args failed.");
        return nullptr;
    }
    sw::copy_name(list->user_name, user_name);
    list->db_flags = db_flag(db);
    auto *ca = static_cast<sw_ebridge_connecting_args *>(std::calloc(1, sizeof(sw_ebridge_connecting_args)));
    if (ca == nullptr) {
        std::free(list);
        SW_LOG_AT(where, error, "malloc sw_ebridge_connect_args failed.");
        return nullptr;
    }
    ca->args = list->db_flags;
    ca->args2 = list;
    return ca;
}

// The connect step: asks the store for a database; `connected` then owns the arguments.
int32_t sw_ebridge_alloc_connecting_args(uint32_t db, const char *user_name, qz_mom_handle *handle,
                                         qz_mom_connected_cb connected)
{
    sw_ebridge_connecting_args *ca = make_connecting_args(SW_HERE, db, user_name);
    if (ca == nullptr)
        return -1;
    SW_LOG(info, "connect_args: (p: %p), db_flags: 0x%x, list_args: (p: %p).", static_cast<void *>(ca), ca->args,
           ca->args2);
    const int32_t rv = qz_mom_client_connect(handle, db, connected, ca);
    if (rv != 0)
        sw::free_connecting_args(ca);
    return rv;
}

// The data connection goes to database 8 when either data type is set; the reconnect handler only when both are. The
// difference is deliberate.
int32_t connect_data(sw::site where, const ebridge_args &args)
{
    if (args.evlan_data_type != 0 || args.eport_data_type != 0) {
        const int32_t rv = sw_ebridge_alloc_connecting_args(SW_EBRIDGE_UDP_DB, args.user_name, args.handle,
                                                            sw_ebridge_mom_connected_callback);
        if (rv != 0)
            SW_LOG_AT(where, error, "Assert:sw_ebridge_alloc_connecting_args failed.");
        return rv;
    }
    const int32_t rv =
        sw_ebridge_alloc_connecting_args(args.mom_db, args.user_name, args.handle, sw_ebridge_mom_connected_callback);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:sw_ebridge connecting_db failed.");
    return rv;
}

int32_t open_connections(sw::site where, const ebridge_args &args)
{
    if (args.mom_db != 0) {
        const int32_t rv = sw_ebridge_alloc_connecting_args(args.mom_db, args.user_name, args.handle,
                                                            sw_ebridge_mom_connected_for_congestion_callback);
        if (rv != 0) {
            SW_LOG_AT(where, error, "Assert:sw_ebridge congestion connect failed.");
            return rv;
        }
    }
    if (args.auto_subscribe == 0 && args.auto_scan == 0)
        return 0;
    if (const int32_t rv = connect_data(where, args); rv != 0)
        return rv;
    const int32_t rv = sw_bridge_reg_reconnect(args.user_name);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:sw_bridge_reg_reconnect failed.");
    return rv;
}

}  // namespace

SW_EXPORT int32_t sw_ebridge_init(const ebridge_args *args) { return sw_ebridge_init_inst(0, args); }

SW_EXPORT int32_t sw_ebridge_init_inst(uint32_t table, const ebridge_args *args)
{
    const sw::site here = SW_HERE;
    if (const int32_t rv = check_args(here, args); rv != 0)
        return rv;
    lib_vlan_debug_init(args);
    SW_LOG(info, "ebridge_args->handle: %p, mom_db: 0x%x.", static_cast<void *>(args->handle), args->mom_db);
    sw_ebridge_list_init();

    const sw_ebridge_list_item user = instance_from(*args);
    const bool known = sw_ebridge_list_item_get_inst(table, args->user_name) != nullptr;
    if (const int32_t rv = sw_ebridge_list_add_inst(table, &user); rv != 0)
        return rv;
    if (known) {
        SW_LOG(warning, "init twice, name: %s.", args->user_name);
        return 0;
    }
    if (const int32_t rv = init_tables(here, table, args->user_name); rv != 0)
        return rv;
    if (const int32_t rv = open_connections(here, *args); rv != 0)
        return rv;
    SW_LOG(info, "sw_ebridge_init successful.");
    return 0;
}

// ---- store sessions: connected, subscribed, reconnected -----------------------------------------------------------

namespace sw
{

int32_t check_connecting_args(site where, sw_ebridge_connecting_args *ca)
{
    if (ca == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad global.");
        return -2;
    }
    if (ca->args != 0 && ca->args2 != nullptr)
        return 0;
    if (ca->args == 0)
        SW_LOG_AT(where, error, "Assert:Bad global args.");
    else
        SW_LOG_AT(where, error, "Assert:Bad global args2.");
    free_connecting_args(ca);
    return -2;
}

void note_connected(site where, uint32_t &current_db_flags, const sw_ebridge_connecting_args *ca)
{
    SW_LOG_AT(
        where, info,
        "sw_ebridge_connecting_args: (p: %p), sw_ebridge_connecting_args->args: (p: %p), sw_ebridge_connecting_args->args2: (p: %p).",
        static_cast<const void *>(ca), reinterpret_cast<void *>(static_cast<uintptr_t>(ca->args)), ca->args2);
    const auto *list = static_cast<const list_args *>(ca->args2);
    current_db_flags |= ca->args;
    SW_LOG_AT(where, info, "current db_flags: 0x%x, all_db_flags: 0x%x, user: %s.", current_db_flags, list->db_flags,
              list->user_name);
}

void free_connecting_args(sw_ebridge_connecting_args *ca)
{
    std::free(ca->args2);
    std::free(ca);
}

}  // namespace sw

namespace
{

// A session table in one database: its bit in the subscription bitmap, and how it is subscribed and scanned. In the
// order in which the scans follow.
struct followed_table {
    uint32_t bit;
    uint32_t db_flag;
    int32_t db;
    bool (*wanted)(const sw_ebridge_list_item &user);
    int32_t (*subscribe)(const char *user_name, int32_t db, sw_ebridge_mom_func func, void *args);
    int32_t (*scan)(const char *user_name, int32_t db, sw_ebridge_mom_func func, void *args);
    const char *scan_text;
};

bool wants_evlan(const sw_ebridge_list_item &user) { return user.vlan_reply != nullptr || user.evlan_reply != nullptr; }
bool wants_eport(const sw_ebridge_list_item &user) { return user.eport_reply != nullptr; }

constexpr followed_table followed_tables[] = {
    {20, sw::kAppDbFlag, SW_EBRIDGE_APP_DB, wants_evlan, sw_evlan_subscribe_with_db, sw_evlan_data_scan_with_db,
     "begin to scan app_db evlan_data, user: %s."},
    {21, sw::kUdpDbFlag, SW_EBRIDGE_UDP_DB, wants_evlan, sw_evlan_subscribe_with_db, sw_evlan_data_scan_with_db,
     "begin to scan udp_db evlan_data, user: %s."},
    {84, sw::kAppDbFlag, SW_EBRIDGE_APP_DB, wants_eport, sw_eport_subscribe_with_db, sw_eport_data_scan_with_db,
     "begin to scan app_db eport_data, user: %s."},
    {85, sw::kUdpDbFlag, SW_EBRIDGE_UDP_DB, wants_eport, sw_eport_subscribe_with_db, sw_eport_data_scan_with_db,
     "begin to scan udp_db eport_data, user: %s."},
};

// Subscriptions are made database by database: the tables at these places, in this order.
constexpr uint32_t subscription_order[] = {0, 2, 1, 3};

bool has_bit(const uint32_t (&bitmap)[8], uint32_t bit) { return (bitmap[bit / 32] >> (bit % 32) & 1) != 0; }
void set_bit(uint32_t (&bitmap)[8], uint32_t bit) { bitmap[bit / 32] |= 1u << (bit % 32); }

// At info level, to standard output.
void print_flags(const char *heading, const uint32_t (&bitmap)[8])
{
    if (!sw::std_admits(sw::info))
        return;
    sw::print("%s", heading);
    sw::print_bitmap(bitmap, 8);
}

using sw::subscribing_args;

// The argument pair that the store hands back keeps pointing at a subscription's arguments afterwards, and two cycles can
// overlap when a connection comes back twice: a confirmation is therefore taken only for arguments that are still on this
// list, and those of an overtaken cycle are freed when the next one begins.
constinit subscribing_args *pending_subscriptions = nullptr;

subscribing_args **find_pending(const subscribing_args *wanted)
{
    subscribing_args **at = &pending_subscriptions;
    while (*at != nullptr && *at != wanted)
        at = &(*at)->next;
    return at;
}

void free_subscribing_args(subscribing_args *sa)
{
    subscribing_args **at = find_pending(sa);
    if (sa == nullptr || *at == nullptr)
        return;
    *at = sa->next;
    std::free(sa->list);
    std::free(sa);
}

// The subscription that is asked for now takes the place of an unconfirmed one of the same user and table.
void free_overtaken(const char *user_name, uint32_t bit)
{
    subscribing_args *pending = pending_subscriptions;
    while (pending != nullptr && (pending->bit != bit || !sw::same_name(pending->list->user_name, user_name)))
        pending = pending->next;
    if (pending != nullptr)
        free_subscribing_args(pending);
}

// The subscribe step: a copy of the connection's arguments that carries the bitmap, for one subscription.
subscribing_args *sw_ebridge_alloc_subscribing_args(uint32_t bit, const sw::list_args &list,
                                                    const uint32_t (&bitmap)[8])
{
    auto *copy = static_cast<sw::list_args *>(std::malloc(sizeof(sw::list_args)));
    if (copy == nullptr) {
        SW_LOG(error, "Assert:malloc list_args failed.");
        return nullptr;
    }
    *copy = list;
    std::memcpy(copy->subscribing_flags, bitmap, sizeof bitmap);
    auto *sa = static_cast<subscribing_args *>(std::malloc(sizeof(subscribing_args)));
    if (sa == nullptr) {
        std::free(copy);
        SW_LOG(error, "malloc sw_ebridge_subscribing_args failed.");
        return nullptr;
    }
    free_overtaken(list.user_name, bit);
    *sa = {.bit = bit, .list = copy, .next = pending_subscriptions};
    pending_subscriptions = sa;
    return sa;
}

// Subscribes every wanted table of the connected databases. A subscription that the store refuses frees its arguments,
// and the others go on. 0, or -4 without memory.
int32_t subscribe_tables(sw::site where, const sw::list_args &list, const uint32_t (&bitmap)[8])
{
    for (const uint32_t place : subscription_order) {
        const followed_table &table = followed_tables[place];
        if (!has_bit(bitmap, table.bit))
            continue;
        subscribing_args *sa = sw_ebridge_alloc_subscribing_args(table.bit, list, bitmap);
        if (sa == nullptr) {
            SW_LOG_AT(where, error, "get_sw_ebridge_subscribing_args failed, the flag = %d.", table.bit);
            return -4;
        }
        if (table.subscribe(list.user_name, table.db, sw_ebridge_mom_subscribed_callback, sa) != 0)
            free_subscribing_args(sa);
    }
    return 0;
}

// All databases are up: subscribes what the user has callbacks for.
int32_t begin_subscribing(sw::site where, const sw::list_args &list)
{
    const sw_ebridge_list_item *user = sw_ebridge_list_item_get(list.user_name);
    if (user == nullptr) {
        SW_LOG_AT(where, error, "No user named '%s'.", list.user_name);
        return -2;
    }
    SW_LOG_AT(where, info, "libsw_ebridge all db connected, subscribe data.");
    uint32_t bitmap[8] = {};
    for (const followed_table &table : followed_tables) {
        if ((connected_db_flags & table.db_flag) != 0 && table.wanted(*user))
            set_bit(bitmap, table.bit);
    }
    print_flags("subscribing_flags:", bitmap);
    return subscribe_tables(where, list, bitmap);
}

// Every subscription of the cycle is confirmed: scans the same tables.
void scan_tables(sw::site where, const sw::list_args &list)
{
    for (const followed_table &table : followed_tables) {
        if (!has_bit(list.subscribing_flags, table.bit))
            continue;
        SW_LOG_UNCHECKED_AT(where, info, table.scan_text, list.user_name);
        table.scan(list.user_name, table.db, nullptr, nullptr);
    }
}

// 0, or -2 with the reason logged and the arguments freed.
int32_t check_subscribed(sw::site where, const qz_mom_notification *msg, subscribing_args *sa)
{
    if (msg == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM msg is NULL.\n");
    } else if (msg->error != 0) {
        SW_LOG_AT(where, error, "Assert:MOM error is %d.\n", msg->error);
    } else if (sa == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM args is NULL.\n");
    } else {
        return 0;
    }
    free_subscribing_args(sa);
    return -2;
}

}  // namespace

SW_EXPORT int32_t sw_ebridge_mom_connected_callback(qz_mom_handle *, void *connecting_args)
{
    const sw::site here = SW_HERE;
    auto *ca = static_cast<sw_ebridge_connecting_args *>(connecting_args);
    if (const int32_t rv = sw::check_connecting_args(here, ca); rv != 0)
        return rv;
    sw::note_connected(here, connected_db_flags, ca);
    const auto *list = static_cast<sw::list_args *>(ca->args2);
    const bool all_connected = list->db_flags == connected_db_flags;
    const int32_t rv = all_connected ? begin_subscribing(here, *list) : 0;
    sw::free_connecting_args(ca);
    return rv;
}

SW_EXPORT int32_t sw_ebridge_mom_subscribed_callback(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    const sw::site here = SW_HERE;
    auto *sa = static_cast<subscribing_args *>(args);
    if (const int32_t rv = check_subscribed(here, msg, sa); rv != 0)
        return rv;
    SW_LOG(info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd, args);
    if (msg->cmd != QZ_MOM_CMD_SUBSCRIBED)
        return msg->error;
    if (*find_pending(sa) == nullptr)
        return 0;
    set_bit(subscribing_flags_setted, sa->bit);
    print_flags("subscribing_flags_setted: ", subscribing_flags_setted);
    if (std::memcmp(subscribing_flags_setted, sa->list->subscribing_flags, sizeof subscribing_flags_setted) == 0)
        scan_tables(here, *sa->list);
    free_subscribing_args(sa);
    return 0;
}

SW_EXPORT int32_t sw_ebridge_mom_reconnect_cb(qz_mom_handle *handle, uint32_t db, int32_t type, void *instance)
{
    if (type == QZ_MOM_RECONNECT_ERROR) {
        SW_LOG(fatal, "rmc_connect_error received, db: %d reconnected, type: %d.", db, type);
        return 77;
    }
    if (instance == nullptr) {
        SW_LOG(error, "Assert:reconnect args failed.");
        return -2;
    }
    if (type != QZ_MOM_RECONNECT_DONE)
        return 0;
    const auto *user = static_cast<sw_ebridge_list_item *>(instance);
    sw_ebridge_connecting_args *ca = make_connecting_args(SW_HERE, db, user->user_name);
    if (ca == nullptr)
        return -1;
    SW_LOG(info, "reconnect_args: (p: %p), db_flags: 0x%x, list_args: (p: %p).", static_cast<void *>(ca), ca->args,
           ca->args2);
    return sw_ebridge_mom_connected_callback(handle, ca);
}

SW_EXPORT int32_t sw_bridge_reg_reconnect(const char *user_name)
{
    sw_ebridge_list_item *user = sw_ebridge_list_item_get_inst(0, user_name);
    if (user == nullptr) {
        SW_LOG(error, "Assert:sw_ebridge_list_item_get_inst(%s) failed.", sw::printable(user_name));
        return -2;
    }
    const bool both = user->evlan_data_type != 0 && user->eport_data_type != 0;
    const uint32_t db = both ? static_cast<uint32_t>(SW_EBRIDGE_UDP_DB) : user->mod_db;
    const int32_t rv = qz_mom_client_set_reconnect_cb(user->mom_handle, db, sw_ebridge_mom_reconnect_cb, user);
    if (rv != 0) {
        SW_LOG(error, "Assert:qz_mom_client_set_reconnect_cb() failed, rv = %d.", rv);
        return -3;
    }
    return 0;
}

SW_EXPORT int32_t sw_ebridge_data_subscribe(const char *user_name)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "User '%s' subscribe all data, vlan is %p, evlan is %p, eport is %p, pvid is %p.", user_name,
           sw::address(user->vlan_reply), sw::address(user->evlan_reply), sw::address(user->eport_reply),
           sw::address(user->pvid_change));
    if (wants_evlan(*user))
        sw_evlan_subscribe(user_name, nullptr, nullptr);
    if (wants_eport(*user))
        sw_eport_subscribe(user_name, nullptr, nullptr);
    if (user->pvid_change != nullptr)
        sw_vlan_pvid_subscribe(user_name, nullptr, nullptr);
    SW_LOG(info, "sw_ebridge_data_subscribe done.");
    return 0;
}
