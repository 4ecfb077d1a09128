// Match rules: the process-wide table of all users' items, conversions between items and records, and the decision which
// users' rules of one key hold. Publishing and replies are in libsw_ematch_session.cpp, printing in libsw_ematch_print.cpp.
#include "arrays.hpp"
#include "ematch.hpp"
#include "export.hpp"
#include "keyed_cache.hpp"
#include "names.hpp"
#include "users.hpp"

// ---- conversions --------------------------------------------------------------------------------------------------

namespace
{

void read_ip(sw_ematch_item &item, const PLibpub__Ip *from)
{
    if (const PLibpub__Ipv4 *v4 = sw::v4_of(from)) {
        std::memcpy(item.ip, &v4->data, sizeof v4->data);
        item.ip_ver = 0;
    } else if (const uint8_t *v6 = sw::v6_of(from)) {
        std::memcpy(item.ip, v6, sizeof item.ip);
        item.ip_ver = 1;
    }
}

// The record's bytes stay the item's.
void write_mac(PLibpub__Mac *to, const uint8_t (&from)[8])
{
    if (to != nullptr)
        to->data = {sw::kMacSize, const_cast<uint8_t *>(from)};
}

// False: the destination has an address, but not the message for this form of it.
bool write_ip(PLibpub__Ip *to, const sw_ematch_item &from)
{
    if (to == nullptr)
        return true;
    const auto &form = from.ip_ver != 0 ? p_libpub__ipv6__descriptor : p_libpub__ipv4__descriptor;
    if (to->v4 == nullptr || to->v4->base.descriptor != &form)
        return false;
    if (from.ip_ver != 0) {
        to->ip_case = P_LIBPUB__IP__IP_V6;
        to->v6->data = {sizeof from.ip, const_cast<uint8_t *>(from.ip)};
    } else {
        to->ip_case = P_LIBPUB__IP__IP_V4;
        to->v4->data = sw::ipv4_of(from);
    }
    return true;
}

// Whether a name may be written there: what a fresh record has is one text for all.
bool takes_name(const UBridge__EmatchIndex &index)
{
    return index.t_user != nullptr && index.t_user != protobuf_c_empty_string;
}

}  // namespace

SW_EXPORT sw_ematch_item *sw_ematch_entry_index_to_db_item(sw_ematch_item *item, const UBridge__EmatchIndex *index,
                                                           int32_t with_user)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad dst EMATCH.\n");
        return nullptr;
    }
    if (!sw::has_index(SW_HERE, index))
        return nullptr;
    if (with_user != 0)
        item->user = sw::as_user(index->t_user);
    item->match_type = index->match_type;
    item->match_flag = static_cast<uint32_t>(index->match_flag);
    item->match_priority = index->match_priority;
    item->evlan1 = index->evlan1;
    item->evlan2 = index->evlan2;
    item->eport = index->eport;
    item->ipv4 = index->ipv4;
    item->vnid = index->vnid;
    item->label = index->label;
    item->ip_mask = index->ip_mask;
    sw::read_mac(item->mac, index->mac);
    item->frame_type = index->frame_type;
    item->ether_type = index->ether_type;
    read_ip(*item, index->ip);
    item->match_id = index->match_id;
    sw::read_mac(item->mask, index->mask);
    return item;
}

SW_EXPORT sw_ematch_item *sw_ematch_entry_to_db_item(sw_ematch_item *item, const UBridge__EmatchEntry *entry,
                                                     int32_t with_user)
{
    if (!sw::has_key(SW_HERE, entry) || sw_ematch_entry_index_to_db_item(item, entry->index, with_user) == nullptr)
        return nullptr;
    item->action_type = static_cast<int32_t>(entry->action_type);
    item->new_evlan1 = entry->new_evlan1;
    item->new_evlan2 = entry->new_evlan2;
    item->new_eport = entry->new_eport;
    item->new_vnid = entry->new_vnid;
    item->new_pri = entry->new_pri;
    item->l3_iif = entry->l3_iif;
    item->flag = static_cast<int32_t>(entry->flag);
    item->result = static_cast<int32_t>(entry->result);
    return item;
}

SW_EXPORT int32_t sw_ematch_index_copy(UBridge__EmatchIndex *dst, const sw_ematch_item *src, int32_t with_user)
{
    if (dst == nullptr) {
        SW_LOG(error, "Assert:Bad dst EMATCH index.\n");
        return -2;
    }
    if (src == nullptr) {
        SW_LOG(error, "Assert:Bad src EMATCH index.\n");
        return -2;
    }
    const bool names_user = with_user != 0 && src->user != nullptr;
    if ((names_user && !takes_name(*dst)) || !write_ip(dst->ip, *src)) {
        SW_LOG(error, "Assert:Bad dst EMATCH index.\n");
        return -2;
    }
    if (names_user) {
        const char *name = sw::user_name_of(*src);
        const size_t length = strnlen(name, SW_EBRIDGE_NAME_SIZE - 1);
        std::memmove(dst->t_user, name, length);
        dst->t_user[length] = '\0';
    }
    dst->match_type = src->match_type;
    dst->match_flag = static_cast<int32_t>(src->match_flag);
    dst->match_priority = src->match_priority;
    dst->evlan1 = src->evlan1;
    dst->evlan2 = src->evlan2;
    dst->eport = src->eport;
    dst->ipv4 = src->ipv4;
    dst->vnid = src->vnid;
    dst->label = src->label;
    dst->ip_mask = src->ip_mask;
    write_mac(dst->mac, src->mac);
    dst->frame_type = src->frame_type;
    dst->ether_type = src->ether_type;
    write_mac(dst->mask, src->mask);
    dst->match_id = src->match_id;
    return 0;
}

SW_EXPORT int32_t sw_ematch_copy_entry(UBridge__EmatchEntry *dst, const sw_ematch_item *src, int32_t with_user)
{
    if (src == nullptr) {
        SW_LOG(error, "Assert:Bad src EMATCH.\n");
        return -2;
    }
    if (dst == nullptr) {
        SW_LOG(error, "Assert:Bad dst EMATCH.\n");
        return -2;
    }
    if (dst->index == nullptr) {
        SW_LOG(error, "Assert:Bad dst EMATCH index.\n");
        return -2;
    }
    if (const int32_t rv = sw_ematch_index_copy(dst->index, src, with_user); rv != 0)
        return rv;
    dst->action_type = static_cast<UBridge__EmatchActionType>(src->action_type);
    dst->new_evlan1 = src->new_evlan1;
    dst->new_evlan2 = src->new_evlan2;
    dst->new_eport = src->new_eport;
    dst->new_vnid = src->new_vnid;
    dst->new_pri = src->new_pri;
    dst->l3_iif = src->l3_iif;
    dst->flag = static_cast<UBridge__FlagType>(src->flag);
    return 0;
}

// ---- the table ----------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_ebridge_match_db_init(int32_t list, const char *user_name)
{
    if (const int32_t rv = sw_ebridge_list_init(); rv != 0) {
        SW_LOG(error, "Assert:EBIDGE user list init failed.\n");
        return rv;
    }
    if (!sw::family<sw_ematch_item>::exists(0) && sw_ematch_item_hash_init(1) != 0) {
        SW_LOG(error, "Assert:EMatch DB init failed.\n");
        return -1;
    }
    const auto table = static_cast<uint32_t>(list);
    if (user_name != nullptr && sw_ebridge_list_item_get_inst(table, user_name) == nullptr) {
        sw_ebridge_list_item blank = {};
        sw::copy_name(blank.user_name, user_name);
        sw_ebridge_list_add_inst(table, &blank);
    }
    return 0;
}

static sw_ematch_item *find_item(sw_ebridge_list_item *user, const UBridge__EmatchIndex &index)
{
    sw_ematch_item key = {};
    sw_ematch_entry_index_to_db_item(&key, &index, 0);
    key.user = user;
    return sw_ematch_item_hash_find(0, &key);
}

SW_EXPORT sw_ematch_item *sw_ematch_db_hash_insert_item(const char *user_name, sw_ematch_item *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad src EMATCH.\n");
        return nullptr;
    }
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return nullptr;
    // A stored item may be handed in, another user's, too: its key stays.
    sw_ematch_item wanted = *item;
    wanted.user = user;
    if (sw_ematch_item_hash_find(0, item) != item)
        item->user = user;
    sw_ematch_item *stored = nullptr;
    sw_ematch_item_cache_create(0, &stored, &wanted);
    if (stored == nullptr) {
        SW_LOG(error, "sw_ematch_item DL_CACHE_CREATE failed.");
        return nullptr;
    }
    SW_LOG(debug, "sw_ematch_db_hash_insert_item: %d.", sw_bridge_printf_ematch_item(stored));
    return stored;
}

SW_EXPORT sw_ematch_item *sw_ematch_db_hash_get_item(const char *user_name, const UBridge__EmatchIndex *index)
{
    if (!sw::has_index(SW_HERE, index))
        return nullptr;
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    return user != nullptr ? find_item(user, *index) : nullptr;
}

SW_EXPORT int32_t sw_ematch_db_hash_del_item(const char *user_name, const UBridge__EmatchIndex *index)
{
    if (!sw::has_index(SW_HERE, index))
        return -2;
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    if (const sw_ematch_item *item = find_item(user, *index); item != nullptr) {
        SW_LOG(debug, "sw_ematch_db_hash_del_item: %d.", sw_bridge_printf_ematch_item(item));
        sw_ematch_item_cache_destroy(0, item);
    } else {
        SW_LOG(warning, "match_type: 0x%x, match_flag: 0x%x, match_priority: %d not in ematch db hash.",
               static_cast<uint32_t>(index->match_type), static_cast<uint32_t>(index->match_flag),
               index->match_priority);
    }
    return 0;
}

SW_EXPORT int32_t sw_ematch_db_hash_each_item(const char *user_name, sw_ematch_item_func callback, void *args)
{
    if (!sw::family<sw_ematch_item>::exists(0)) {
        SW_LOG(error, "Assert:EMATCH DB not inited.\n");
        return -5;
    }
    if (callback == nullptr) {
        SW_LOG(error, "Assert:Bad visitor.");
        return -2;
    }
    if (user_name == nullptr) {
        sw_ematch_item_hash_traverse(0, callback, args);
        return 0;
    }
    // One user's walk goes on whatever the visitor returns.
    struct user_walk {
        const char *user_name;
        sw_ematch_item_func callback;
        void *args;
    } walk = {user_name, callback, args};
    sw_ematch_item_hash_traverse(
        0,
        [](sw_ematch_item *item, void *arg, int32_t position) {
            const auto *to = static_cast<user_walk *>(arg);
            if (sw::same_name(sw::user_name_of(*item), to->user_name))
                to->callback(item, to->args, position);
            return 0;
        },
        &walk);
    return 0;
}

SW_EXPORT sw_ematch_item *sw_ematch_db_verify(int32_t list, const UBridge__EmatchIndex *index)
{
    if (!sw::has_index(SW_HERE, index))
        return nullptr;
    if (index->t_user == nullptr) {
        SW_LOG(error, "Assert:Bad args EMATCH user.\n");
        return nullptr;
    }
    if (sw_ebridge_match_db_init(list, index->t_user) != 0)
        return nullptr;
    if (sw_ematch_item *item = sw_ematch_db_hash_get_item(index->t_user, index))
        return item;
    sw_ematch_item made = {};
    sw_ematch_entry_index_to_db_item(&made, index, 0);
    return sw_ematch_db_hash_insert_item(index->t_user, &made);
}

// The three comparisons of bytes are the wrong way round, and stay so: callers rely on what it says, and an item is not
// the same as itself.
SW_EXPORT int32_t sw_ematch_db_hash_cmp_key(const sw_ematch_item *a, const sw_ematch_item *b)
{
    if (a == nullptr || b == nullptr)
        return -1;
    if (a->match_type != b->match_type || a->match_flag != b->match_flag || a->evlan1 != b->evlan1 ||
        a->evlan2 != b->evlan2 || a->eport != b->eport || a->ipv4 != b->ipv4 || a->vnid != b->vnid ||
        a->label != b->label || a->frame_type != b->frame_type || a->ether_type != b->ether_type ||
        a->match_id != b->match_id)
        return -1;
    const bool same_mac = std::memcmp(a->mac, b->mac, sw::kMacSize) == 0;
    const bool same_mask = std::memcmp(a->mask, b->mask, sw::kMacSize) == 0;
    const bool same_ip = std::memcmp(a->ip, b->ip, sizeof a->ip) == 0 && a->ip_ver == b->ip_ver;
    return same_mac || same_mask || same_ip ? -1 : 0;
}

// ---- deciding among users -----------------------------------------------------------------------------------------

namespace
{

// The winner of the last calculation, with its user's name.
struct named_item {
    sw_ematch_item item;
    alignas(sw_ebridge_list_item) char user_name[SW_EBRIDGE_NAME_SIZE];
};
constinit named_item final_ematch_item = {};

void remember(const sw_ematch_item &item)
{
    final_ematch_item.item = item;
    sw::copy_name(final_ematch_item.user_name, sw::user_name_of(item));
    final_ematch_item.item.user = sw::as_user(final_ematch_item.user_name);
}

// A walk over the users with the key that is decided.
struct calculation {
    sw::site where;
    qz_mom_handle *const mom_handle;
    sw_ematch_item key;
    sw_ematch_item *previous;  // found before, in this walk
};

constexpr int32_t kHighestPriority = 7;

// The user's item of the key: that of the highest priority, and if it has none within the range that of the key's own.
sw_ematch_item *item_of(sw_ematch_item key, sw_ebridge_list_item *user)
{
    key.user = user;
    const int32_t own = key.match_priority;
    for (key.match_priority = kHighestPriority; key.match_priority >= 0; --key.match_priority)
        if (sw_ematch_item *item = sw_ematch_item_hash_find(0, &key))
            return item;
    key.match_priority = own;
    return own < 0 || own > kHighestPriority ? sw_ematch_item_hash_find(0, &key) : nullptr;
}

// Compares each item with the one found before it, not with the best so far. So an item that lost is set back when the
// next one does not beat it, and more than one may win. Programs know it so: it stays.
int32_t decide(sw_ebridge_list_item *user, void *arg, int32_t)
{
    auto *walk = static_cast<calculation *>(arg);
    sw_ematch_item *item = item_of(walk->key, user);
    if (item == nullptr)
        return 0;
    SW_LOG_AT(walk->where, debug, "calc_final_values,ebridge_list_item user: %s: %d, ", user->user_name,
              sw_bridge_printf_ematch_item(item));
    const bool first = walk->previous == nullptr;
    const bool wins = first || item->match_priority > walk->previous->match_priority;
    if (!first)
        walk->previous->final_result = wins ? U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY : U_BRIDGE__MATCH_RESULT__SUCCESS;
    item->final_result = wins ? U_BRIDGE__MATCH_RESULT__SUCCESS : U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    if (wins)
        remember(*item);
    walk->previous = item;
    return 0;
}

// Publishes what was decided, also where it is what it was. A write that the store refuses does not keep the others from
// being made; it is logged.
int32_t publish_result(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const auto *walk = static_cast<calculation *>(arg);
    sw_ematch_item *item = item_of(walk->key, user);
    if (item == nullptr)
        return 0;
    SW_LOG_AT(walk->where, debug, "user %s ematch result changes from %d to %d.", user->user_name, item->current_result,
              item->final_result);
    item->current_result = item->final_result;
    sw_ematch_result_reply(walk->mom_handle, item);
    return 0;
}

}  // namespace

SW_EXPORT sw_ematch_item *sw_ematch_calc_final_values(qz_mom_handle *mom_handle, const UBridge__EmatchIndex *index,
                                                      int32_t publish)
{
    // The index is read first: it may point into the last winner.
    calculation walk = {SW_HERE, mom_handle, {}, nullptr};
    const bool usable = sw::has_index(SW_HERE, index);
    if (usable)
        sw_ematch_entry_index_to_db_item(&walk.key, index, 0);
    const int32_t rv = usable ? sw_ebridge_match_db_init(0, index->t_user) : 0;
    final_ematch_item = {};
    final_ematch_item.item.user = sw::as_user(final_ematch_item.user_name);
    if (rv != 0)
        SW_LOG(error, "Assert:sw_ebridge_match_db_init failed.\n");
    if (!usable || rv != 0)
        return nullptr;
    sw_ebridge_list_for_each(0, decide, &walk);
    if (publish != 0) {
        SW_LOG(debug, "a second ematch result scan started.");
        sw_ebridge_list_for_each(0, publish_result, &walk);
    }
    if (walk.previous == nullptr)
        return nullptr;
    SW_LOG(debug, "calc_final_values,final_ematch_item: %d, ", sw_bridge_printf_ematch_item(&final_ematch_item.item));
    return &final_ematch_item.item;
}

SW_EXPORT int32_t sw_ematch_result_reply(qz_mom_handle *mom_handle, sw_ematch_item *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad src EMATCH.\n");
        return -2;
    }
    char user_name[SW_EBRIDGE_NAME_SIZE] = {};
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask = P_LIBPUB__MAC__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;
    PLibpub__Ip ip = P_LIBPUB__IP__INIT;
    if (item->ip_ver != 0)
        ip.v6 = &v6;
    else
        ip.v4 = &v4;
    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    index.t_user = user_name;
    index.mac = &mac;
    index.mask = &mask;
    index.ip = &ip;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;
    entry.index = &index;
    sw_ematch_index_copy(&index, item, 1);
    SW_LOG(
        debug,
        "mom_handle: %p, mom_db: %d, reply priority result to user: %s, match_type: 0x%x, match_flag: 0x%x, match_priority: %d, evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d, current_result: %d, .",
        static_cast<void *>(mom_handle), item->mom_db, user_name, static_cast<uint32_t>(index.match_type),
        static_cast<uint32_t>(index.match_flag), index.match_priority, static_cast<uint32_t>(index.evlan1),
        static_cast<uint32_t>(index.evlan2), static_cast<uint32_t>(index.eport), index.ipv4, index.vnid, index.label,
        item->current_result);
    entry.result = static_cast<UBridge__MatchResult>(item->current_result);
    // Operators know the line by this name, though the call is an update: it leaves marks alone and makes no record.
    SW_LOG(debug, "qz_mom_hmset udp_ematch_entry: %d.", sw_bridge_printf_udp_ematch(&entry));
    const int32_t rv = qz_mom_hmupdate(mom_handle, item->mom_db, &entry.base, sw::kResultField,
                                       sw::count_of(sw::kResultField), nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_hmupdate failed, rv: %d\n", rv);
    return rv;
}
