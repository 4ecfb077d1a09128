// The tables of evlans and eports, as far as they are alike: local databases, the merge across users, index maps and
// their dumps. `Kind` is one of twins.hpp.
#pragma once

#include "keyed_cache.hpp"
#include "print.hpp"
#include "tables.hpp"
#include "twins.hpp"

namespace sw
{

// ---- the cache families, by record --------------------------------------------------------------------------------

// The exported calls, not their templates: those are compiled in one place, for speed.
template <class Record>
struct cache;

#define SW_CACHE(record, name)                                  \
    template <>                                                 \
    struct cache<record> {                                      \
        static constexpr auto init = name##_hash_init;          \
        static constexpr auto find = name##_hash_find;          \
        static constexpr auto traverse = name##_hash_traverse;  \
        static constexpr auto destroy = name##_cache_destroy;   \
        static record *create(uint32_t table, const record *of) \
        {                                                       \
            record *stored = nullptr;                           \
            name##_cache_create(table, &stored, of);            \
            return stored;                                      \
        }                                                       \
    }

SW_CACHE(sw_evlan_attr, sw_evlan);
SW_CACHE(sw_eport_attr, sw_eport);
SW_CACHE(sw_evlan_index_map, sw_evlan_index_map);
SW_CACHE(sw_eport_index_map, sw_eport_index_map);

#undef SW_CACHE

// ---- all families that exist once per slot ------------------------------------------------------------------------

// Makes the six tables of a family. 0, or -1 with the reason logged. The text of the index maps lacks its conversion
// letter and is kept so.
inline constexpr char kTableMissing[] = "Assert:HASH[%d] init failed.";
inline constexpr char kMapMissing[] = "Assert:HASH[%] init failed.";

template <class Record>
int32_t init_slots(site where, bool &created, const char *missing_text)
{
    const uint32_t missing = make_tables<Record>(created, cache<Record>::init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG_UNCHECKED_AT(where, error, missing_text, missing);
    return -1;
}

// ---- local database -----------------------------------------------------------------------------------------------

// The record of a user who is registered in the slot, or null.
template <class Kind>
typename Kind::attr *find_attr(uint32_t inst, const char *user_name, uint32_t id)
{
    if (sw_ebridge_list_item_get_inst(inst, user_name) == nullptr)
        return nullptr;
    typename Kind::attr key;  // what is not of the key is not read
    copy_name(key.user_name, user_name);
    Kind::set_id(key, id);
    return cache<typename Kind::attr>::find(inst, &key);
}

// Stores a new record over one of the same key. Null without memory.
template <class Kind>
typename Kind::attr *store_attr(site where, uint32_t inst, const typename Kind::attr &fresh)
{
    typename Kind::attr *stored = cache<typename Kind::attr>::create(inst, &fresh);
    if (stored == nullptr) {
        Kind::log_not_inserted(where, inst, fresh.user_name, Kind::id_of(fresh));
        return nullptr;
    }
    Kind::link_attr(*stored);
    Kind::log_inserted(where, *stored);
    return stored;
}

// The existing or a new record. *created (may be null) is set to 1 when one is made.
template <class Kind>
typename Kind::attr *insert_attr(site where, uint32_t inst, const char *user_name, typename Kind::attr *given,
                                 uint8_t *created)
{
    if (sw_ebridge_list_item_get_inst(inst, user_name) == nullptr) {
        SW_LOG_AT(where, error, Kind::no_user_to_insert, printable(user_name));
        return nullptr;
    }
    if (given == nullptr) {
        SW_LOG_AT(where, error, Kind::no_record);
        return nullptr;
    }
    if (typename Kind::attr *existing = Kind::find_attr(inst, user_name, Kind::id_of(*given)); existing != nullptr)
        return existing;
    typename Kind::attr *stored = store_attr<Kind>(where, inst, Kind::fresh(user_name, *given));
    if (stored != nullptr && created != nullptr)
        *created = 1;
    return stored;
}

// Takes a record out and frees it. Null is an absent one.
template <class Kind>
void remove_attr(site where, uint32_t inst, typename Kind::attr *record)
{
    if (record == nullptr)
        return;
    SW_LOG_AT(where, info, Kind::removed, record->user_name, Kind::id_of(*record));
    Kind::unlink_attr(*record);
    cache<typename Kind::attr>::destroy(inst, record);
}

// The two arguments of a copy or a comparison. False with the missing one logged.
template <class Kind>
bool both_given(site where, const typename Kind::attr *dst, const typename Kind::attr *src)
{
    if (dst == nullptr) {
        SW_LOG_AT(where, error, Kind::no_dst);
        return false;
    }
    if (src == nullptr) {
        SW_LOG_AT(where, error, Kind::no_src);
        return false;
    }
    return true;
}

// A value that says something replaces the merged one.
template <class Value>
void take_value(Value &into, const Value &from)
{
    if (from != Value{})
        into = from;
}

// Walks the users of slot 0 in the registry's order and lets `take` add each one's record to the merged one. False when
// no user holds the id.
template <class Kind, void (*take)(typename Kind::attr &into, const typename Kind::attr &from)>
bool merge_users(site where, typename Kind::attr &into)
{
    struct merge {
        site where;
        typename Kind::attr *into;
        uint32_t found;
    } merging = {where, &into, 0};
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *arg, int32_t) -> int32_t {
            auto *to = static_cast<merge *>(arg);
            const uint32_t id = Kind::id_of(*to->into);
            const typename Kind::attr *record = Kind::find_attr(0, user->user_name, id);
            if (record == nullptr)
                return 0;
            SW_LOG_AT(to->where, info, Kind::merged, user->user_name, id);
            ++to->found;
            take(*to->into, *record);
            return 0;
        },
        &merging);
    return merging.found != 0;
}

// ---- index map ----------------------------------------------------------------------------------------------------

template <class Item>
void set_key(Item &item, sw_index_map_kind kind, const decltype(Item::key) &key)
{
    item.kind = static_cast<uint32_t>(kind);
    std::memcpy(item.key, key, sizeof item.key);
}

template <class Kind>
void set_app_key(typename Kind::map_item &item, const typename Kind::app_index &app)
{
    decltype(item.key) key;
    Kind::key_of(app, key);
    set_key(item, SW_INDEX_MAP_APP2UDP, key);
}

template <class Kind>
void set_udp_key(typename Kind::map_item &item, uint32_t id)
{
    set_key(item, SW_INDEX_MAP_UDP2APP, {id});
}

// A zeroed item with the application's key.
template <class Kind>
typename Kind::map_item app_item(const typename Kind::app_index &app)
{
    typename Kind::map_item item = {};
    set_app_key<Kind>(item, app);
    return item;
}

// A zeroed item with a bridge id as its key.
template <class Kind>
typename Kind::map_item udp_item(uint32_t id)
{
    typename Kind::map_item item = {};
    set_udp_key<Kind>(item, id);
    return item;
}

// The reverse item's value: the application's key.
template <class Kind>
void set_app_value(typename Kind::map_item &item, const typename Kind::app_index &app)
{
    decltype(item.key) key;
    Kind::key_of(app, key);
    std::memcpy(item.value, key, Kind::key_words * sizeof key[0]);
}

// Whether a reverse item leads back to the key of that item.
template <class Kind>
bool leads_to(const typename Kind::map_item &reverse, const typename Kind::map_item &item)
{
    return std::memcmp(reverse.value, item.key, Kind::key_words * sizeof item.key[0]) == 0;
}

// The line that tells of an item, in logs and dumps: its text, or false for a kind that has none. Defined beside the
// texts.
bool describe(char (&text)[kMessageSize], const char *prefix, const sw_evlan_index_map &item);
bool describe(char (&text)[kMessageSize], const char *prefix, const sw_eport_index_map &item);

template <class Item>
void log_change(site where, const char *prefix, const Item &item)
{
    char text[kMessageSize];
    if (admits(info) && describe(text, prefix, item))
        SW_LOG_AT(where, info, "%s", text);
}

// The stored item of a key, or null.
template <class Kind>
typename Kind::map_item *get_map_item(site where, uint32_t inst, const typename Kind::map_item *key)
{
    return Kind::good_map_arguments(where, inst, key) ? cache<typename Kind::map_item>::find(inst, key) : nullptr;
}

// Stores a copy of the item at the head of its user's list. Null without memory.
template <class Kind>
typename Kind::map_item *create_map_item(site where, uint32_t inst, const typename Kind::map_item &item)
{
    using items = cache<typename Kind::map_item>;
    // An existing item is replaced in place, its link with it: it leaves its list first.
    if (typename Kind::map_item *existing = items::find(inst, &item); existing != nullptr)
        list_unlink(&existing->link);
    typename Kind::map_item *stored = items::create(inst, &item);
    if (stored == nullptr) {
        typename Kind::map_item named = item;
        copy_name(named.user_name, item.user_name);  // the caller's may lack its end
        Kind::log_not_mapped(where, named);
        return nullptr;
    }
    list_init(&stored->link);
    copy_name(stored->user_name, item.user_name);
    if (sw_ebridge_list_item *user = sw_ebridge_list_item_get_inst(inst, stored->user_name); user != nullptr)
        list_add_head(&(user->*Kind::user_maps), &stored->link);
    log_change(where, "Insert ", *stored);
    return stored;
}

// Replaces what a reply brings of a stored item: values, owner, priority and the reply's database. Not ds_flag.
template <class Kind>
void replace_map_item(site where, typename Kind::map_item &stored, const typename Kind::map_item &item)
{
    std::memmove(stored.value, item.value, sizeof stored.value);  // it may be the stored item itself
    copy_name(stored.user_name, item.user_name);
    Kind::copy_carried(stored, item);
    stored.priority = item.priority;
    log_change(where, "Update ", stored);
}

// 0, also when absent.
template <class Kind>
int32_t delete_map_item(site where, uint32_t inst, const typename Kind::map_item *key)
{
    typename Kind::map_item *stored = cache<typename Kind::map_item>::find(inst, key);
    if (stored == nullptr)
        return 0;
    log_change(where, "Remove ", *stored);
    list_unlink(&stored->link);
    cache<typename Kind::map_item>::destroy(inst, stored);
    return 0;
}

// ---- dumps of the index map ---------------------------------------------------------------------------------------

inline bool passes(const sw_ebridge_dump_args &filter, uint32_t id)
{
    return (filter.type == 0 || filter.type == type_of(id)) && (filter.id == 0 || filter.id == id);
}

template <class Item>
uint32_t bridge_id_of(const Item &item)
{
    switch (item.kind) {
        case SW_INDEX_MAP_APP2UDP:
        case SW_INDEX_MAP_SDK2UDP:
            return item.value[0];
        case SW_INDEX_MAP_UDP2APP:
        case SW_INDEX_MAP_UDP2SDK:
            return item.key[0];
        default:
            return 0;
    }
}

// Prints an item that passes the filter and counts it; `end` follows its line.
template <class Kind>
int32_t dump_map_item(site where, const typename Kind::map_item *item, sw_ebridge_dump_args *filter, const char *end)
{
    if (item == nullptr) {
        SW_LOG_AT(where, error, Kind::no_dump_item);
        return 0;
    }
    if (filter == nullptr) {
        SW_LOG_AT(where, error, Kind::no_dump_args);
        return 0;
    }
    if (!passes(*filter, bridge_id_of(*item)))
        return 0;
    print("%s", kRule100);
    char text[kMessageSize];
    if (describe(text, "", *item))
        print("%s%s", text, end);
    ++filter->count;
    return 0;
}

// The running total up to a slot: it is not reset between slots, kept so on purpose.
template <class Kind>
void print_map_total(uint32_t inst, const sw_ebridge_dump_args &filter)
{
    print("%s", kRule100);
    print(Kind::map_total, inst, filter.count);
}

// Every slot's items, each slot with its total.
template <class Kind, int32_t (*dump)(typename Kind::map_item *, void *, int32_t)>
void dump_map_slots(sw_ebridge_dump_args filter)
{
    for (uint32_t inst = 0; inst < SW_EBRIDGE_SLOTS; ++inst) {
        if (!family<typename Kind::map_item>::exists(inst))
            continue;
        cache<typename Kind::map_item>::traverse(inst, dump, &filter);
        print_map_total<Kind>(inst, filter);
    }
}

}  // namespace sw
