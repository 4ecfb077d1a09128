// Evlans, in the order of their life: ids and the local database, the index map, request and release, the allocator's
// replies, scan and subscribe. Neighbours: libsw_ebridge (users, connections), libsw_ebridge_ds (counters, delays).
//
// The road of a grant: sw_vlan_mom_msg_evlan_session_reply() hears the session, sw_evlan_session_reply() sorts it,
// sw_evlan_session_reply_db_update() turns it into index map entries, sw_evlan_session_reply_add_foreach() tells the
// users.
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "arrays.hpp"
#include "export.hpp"
#include "keyed_cache.hpp"
#include "libsw_ebridge_ds.hpp"
#include "list.hpp"
#include "logging.hpp"
#include "names.hpp"
#include "print.hpp"
#include "tables.hpp"

namespace
{

constexpr uint32_t kNumberMask = 0xffffff;
constexpr uint32_t kVlan = U_BRIDGE__EVLAN_TYPE__VLAN;
constexpr uint32_t kL3IntfSub = U_BRIDGE__EVLAN_TYPE__L3INTF_SUB;
constexpr uint32_t kNoId = 0xffffffff;  // the allocator's refusal
constexpr int32_t kFirstVid = 1;
constexpr int32_t kLastVid = 4094;

uint32_t type_of(uint32_t evlan_id) { return evlan_id >> 24; }
uint32_t vlan_id_of(int32_t vid) { return kVlan << 24 | static_cast<uint32_t>(vid); }

// Looks up the user of a record field or an argument; its absence is logged for the caller.
sw_ebridge_list_item *find_user(const sw::site &where, const char *user_name)
{
    sw_ebridge_list_item *user = sw_ebridge_list_item_get(user_name);
    if (user == nullptr)
        SW_LOG_AT(where, error, "Assert:No user named '%s'.\n", sw::printable(user_name));
    return user;
}

}  // namespace

// ---- ids ----------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_type_underlay(uint32_t evlan_type)
{
    return evlan_type == kVlan || evlan_type == kL3IntfSub ? 1 : 0;
}

SW_EXPORT int32_t sw_evlan_id_underlay(uint32_t evlan_id) { return sw_evlan_type_underlay(type_of(evlan_id)); }

// ---- local database -----------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_db_init(void)
{
    static bool created = false;
    const uint32_t missing = sw::make_tables<sw_evlan_attr>(created, sw_evlan_hash_init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG(error, "Assert:HASH[%d] init failed.", missing);
    return -1;
}

SW_EXPORT void sw_evlan_init(sw_evlan_attr *record, const char *user_name, uint32_t evlan_id)
{
    if (record == nullptr || user_name == nullptr)
        return;
    *record = {};
    sw::copy_name(record->user_name, user_name);
    record->evlan_id = evlan_id;
}

SW_EXPORT sw_evlan_attr *sw_evlan_db_get_item(uint32_t inst, const char *user_name, uint32_t evlan_id)
{
    if (sw_ebridge_list_item_get_inst(inst, user_name) == nullptr)
        return nullptr;
    sw_evlan_attr key;
    sw_evlan_init(&key, user_name, evlan_id);
    return sw_evlan_hash_find(inst, &key);
}

// Of the caller's record only the evlan_id counts: a new record starts with all attributes zero. *created is set to 1
// when one is made.
static sw_evlan_attr *insert_record(const sw::site &where, uint32_t inst, const char *user_name,
                                    const sw_evlan_attr *record, uint8_t *created)
{
    if (sw_ebridge_list_item_get_inst(inst, user_name) == nullptr) {
        SW_LOG_AT(where, error, "Assert:No user named as %s.", sw::printable(user_name));
        return nullptr;
    }
    if (record == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad evlan.");
        return nullptr;
    }
    sw_evlan_attr fresh;
    sw_evlan_init(&fresh, user_name, record->evlan_id);
    if (sw_evlan_attr *existing = sw_evlan_hash_find(inst, &fresh); existing != nullptr)
        return existing;
    sw_evlan_attr *stored = nullptr;
    sw_evlan_cache_create(inst, &stored, &fresh);
    if (stored == nullptr) {
        SW_LOG_AT(where, error, "Assert:Insert user[%s].evlan[0x%x] failed!", user_name, record->evlan_id);
        return nullptr;
    }
    sw::list_init(&stored->link);
    SW_LOG_AT(where, info, "Insert user[%s].evlan[0x%x]!", user_name, record->evlan_id);
    if (created != nullptr)
        *created = 1;
    return stored;
}

SW_EXPORT sw_evlan_attr *sw_evlan_db_insert_item(uint32_t inst, const char *user_name, const sw_evlan_attr *record)
{
    return insert_record(SW_HERE, inst, user_name, record, nullptr);
}

SW_EXPORT sw_evlan_attr *sw_evlan_db_insert_item_new(uint32_t inst, const char *user_name, const sw_evlan_attr *record,
                                                     uint8_t *created)
{
    return insert_record(SW_HERE, inst, user_name, record, created);
}

SW_EXPORT void sw_evlan_db_delete_item(uint32_t inst, const char *user_name, uint32_t evlan_id)
{
    sw_evlan_attr *record = sw_evlan_db_get_item(inst, user_name, evlan_id);
    if (record == nullptr)
        return;
    SW_LOG(info, "Remove user[%s].evlan[0x%x].", user_name, evlan_id);
    sw::list_unlink(&record->link);
    sw_evlan_cache_destroy(inst, record);
}

// Makes sure that the databases and the user exist, and gives the record that a verification inserts. An underlay id
// presets `fid`, which the insertion does not read: a record made by verification has fid 0. Kept so on purpose.
static bool verification_record(const sw::site &where, uint32_t inst, const UBridge__EvlanIndex *index,
                                sw_evlan_attr &record)
{
    if (index == nullptr || index->t_user == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad EVLAN index.");
        return false;
    }
    sw_ebridge_attr_db_init(inst, index->t_user);
    const auto evlan_id = static_cast<uint32_t>(index->evlan_id);
    sw_evlan_init(&record, index->t_user, evlan_id);
    if (sw_evlan_id_underlay(evlan_id) != 0)
        record.attr.underlay.fid = static_cast<int32_t>(evlan_id & kNumberMask);
    return true;
}

SW_EXPORT sw_evlan_attr *sw_evlan_attr_db_verify(uint32_t inst, const UBridge__EvlanIndex *index)
{
    sw_evlan_attr record;
    if (!verification_record(SW_HERE, inst, index, record))
        return nullptr;
    return sw_evlan_db_insert_item(inst, index->t_user, &record);
}

SW_EXPORT sw_evlan_attr *sw_evlan_attr_db_verify_new(uint32_t inst, const UBridge__EvlanIndex *index, uint8_t *created)
{
    sw_evlan_attr record;
    if (!verification_record(SW_HERE, inst, index, record))
        return nullptr;
    return sw_evlan_db_insert_item_new(inst, index->t_user, &record, created);
}

// ---- attributes ---------------------------------------------------------------------------------------------------

static bool both_given(const sw::site &where, const sw_evlan_attr *dst, const sw_evlan_attr *src)
{
    if (dst == nullptr) {
        SW_LOG_AT(where, error, "Assert:Dest evlan is NULL.");
        return false;
    }
    if (src == nullptr) {
        SW_LOG_AT(where, error, "Assert:Src evlan is NULL.");
        return false;
    }
    return true;
}

SW_EXPORT int32_t sw_evlan_attr_copy(sw_evlan_attr *dst, const sw_evlan_attr *src)
{
    if (!both_given(SW_HERE, dst, src))
        return -2;
    dst->attr_flags = src->attr_flags;
    dst->class_id = src->class_id;
    dst->type = src->type;
    if (sw_evlan_type_underlay(src->type) == 0) {
        dst->attr.overlay = src->attr.overlay;
        return 0;
    }
    dst->attr.underlay.fid = src->attr.underlay.fid;
    dst->attr.underlay.svl = src->attr.underlay.svl;
    if (src->ports != nullptr) {
        SW_LOG(error, "Assert:Unexpect attr.");
        return -2;
    }
    return 0;
}

// The union is compared whole, so stale overlay words behind an underlay's fid and svl count as a difference.
SW_EXPORT int32_t sw_evlan_attr_cmp(const sw_evlan_attr *a, const sw_evlan_attr *b)
{
    if (!both_given(SW_HERE, a, b))
        return -2;
    if (a->attr_flags != b->attr_flags || a->class_id != b->class_id || a->type != b->type)
        return -1;
    return std::memcmp(a->attr.words, b->attr.words, sizeof a->attr.words);
}

namespace
{

struct merge {
    sw::site where;
    sw_evlan_attr *into;
    uint32_t found;
};

void merge_underlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    if (from.attr.underlay.svl)
        into.attr.underlay.svl = true;
    const int32_t fid = from.attr.underlay.fid;
    if (fid != 0 && fid != static_cast<int32_t>(into.evlan_id & kNumberMask))
        into.attr.underlay.fid = fid;
}

void merge_overlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    for (uint32_t i = 0; i < sw::count_of(into.attr.words); ++i) {
        if (from.attr.words[i] != 0)
            into.attr.words[i] = from.attr.words[i];
    }
}

int32_t merge_user(sw_ebridge_list_item *user, void *arg, int32_t)
{
    auto *merging = static_cast<merge *>(arg);
    sw_evlan_attr &into = *merging->into;
    const sw_evlan_attr *record = sw_evlan_db_get_item(0, user->user_name, into.evlan_id);
    if (record == nullptr)
        return 0;
    SW_LOG_AT(merging->where, info, "one evlan_attr found, user: %s, evlan_id: 0x%x.", user->user_name, into.evlan_id);
    ++merging->found;
    into.class_id |= record->class_id;
    if (sw_evlan_id_underlay(into.evlan_id) != 0)
        merge_underlay(into, *record);
    else
        merge_overlay(into, *record);
    return 0;
}

}  // namespace

// The last user in the registry's order with a value of its own wins each field; class ids are OR-ed.
SW_EXPORT sw_evlan_attr *sw_evlan_attr_merge(uint32_t evlan_id)
{
    static constinit sw_evlan_attr merged = {};
    merged = {};
    merged.evlan_id = evlan_id;
    if (sw_evlan_id_underlay(evlan_id) != 0)
        merged.attr.underlay.fid = static_cast<int32_t>(evlan_id & kNumberMask);
    merge merging = {.where = SW_HERE, .into = &merged, .found = 0};
    sw_ebridge_list_for_each(0, merge_user, &merging);
    return merging.found != 0 ? &merged : nullptr;
}

// ---- dumps of the local database ----------------------------------------------------------------------------------

namespace
{

void print_attributes(const sw_evlan_attr &record)
{
    if (sw_evlan_id_underlay(record.evlan_id) != 0) {
        sw::print("SVL:%s, FID:%d.", record.attr.underlay.svl ? "true" : "false", record.attr.underlay.fid);
        return;
    }
    const auto &overlay = record.attr.overlay;
    sw::print(
        "VNID:%d, MCID:%d, UUCID:%d, BCID:%d, L3IIF:%d, MAPPING_VNI:%d, MAPPING_EVLAN:0x%x, ing_flex_cnt_id: %u, egr_flex_cnt_id: %u.",
        overlay.vnid, overlay.mcid, overlay.uucid, overlay.bcid, overlay.l3iif, overlay.mapping_vni,
        static_cast<uint32_t>(overlay.mapping_evlan), overlay.ing_flex_cnt_id, overlay.egr_flex_cnt_id);
}

void print_ports(const sw_vlan_ports &ports)
{
    const struct {
        const char *label;
        const uint32_t *words;
        uint32_t count;
    } rows[] = {
        {"vlan port: ", ports.port, sw::count_of(ports.port)},
        {"vlan untag port: ", ports.untag_port, sw::count_of(ports.untag_port)},
        {"vlan flooding port: ", ports.flooding_port, sw::count_of(ports.flooding_port)},
        {"vlan apport: ", ports.apport, sw::count_of(ports.apport)},
        {"vlan untag apport: ", ports.untag_apport, sw::count_of(ports.untag_apport)},
        {"vlan flooding apport: ", ports.flooding_apport, sw::count_of(ports.flooding_apport)},
    };
    for (const auto &row : rows) {
        sw::print("%s", row.label);
        sw::print_bitmap(row.words, row.count);
    }
}

bool passes(const sw_ebridge_dump_args &filter, uint32_t id)
{
    return (filter.type == 0 || filter.type == type_of(id)) && (filter.id == 0 || filter.id == id);
}

void traverse_all_slots(sw_ebridge_dump_args &filter)
{
    for (uint32_t inst = 0; inst < SW_EBRIDGE_SLOTS; ++inst)
        sw_evlan_hash_traverse(
            inst,
            [](sw_evlan_attr *record, void *args, int32_t position) {
                return sw_evlan_attr_db_ut_dump_op(record, args, position);
            },
            &filter);
}

// One user's records of all slots, with their number.
int32_t dump_user(sw_ebridge_list_item *user, void *arg, int32_t)
{
    auto *filter = static_cast<sw_ebridge_dump_args *>(arg);
    filter->user_name = user->user_name;
    filter->count = 0;
    sw::print("====================== user: %-10s ======================\n", user->user_name);
    traverse_all_slots(*filter);
    sw::print("%s", sw::kRule81);
    sw::print("total count: %d\n", filter->count);
    return 0;
}

struct vid_range {
    int32_t first;
    int32_t last;
};

// Without a user filter, so the records of all users stand under each user's heading, and no total follows. Both kept
// on purpose.
int32_t dump_user_vlans(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const auto *range = static_cast<vid_range *>(arg);
    sw::print("======= user: %-10s ======================\n", user->user_name);
    for (int32_t vid = range->first; vid <= range->last; ++vid) {
        sw_ebridge_dump_args filter = {};
        filter.type = kVlan;
        filter.id = vlan_id_of(vid);
        traverse_all_slots(filter);
    }
    return 0;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_attr_db_ut_dump_op(sw_evlan_attr *record, void *dump_args, int32_t)
{
    auto *filter = static_cast<sw_ebridge_dump_args *>(dump_args);
    if (record == nullptr) {
        SW_LOG(error, "Assert:Bad evlan.");
        return 0;
    }
    if (filter == nullptr) {
        SW_LOG(error, "Assert:Bad dump args.");
        return 0;
    }
    const bool users = filter->user_name == nullptr || sw::same_name(filter->user_name, record->user_name);
    if (!users || !passes(*filter, record->evlan_id))
        return 0;
    sw::print("%s, 0x%x, type:%d, ClassID:%x, ", record->user_name, record->evlan_id, record->type, record->class_id);
    print_attributes(*record);
    sw::print("\n");
    if (record->ports != nullptr)
        print_ports(*record->ports);
    sw::print("%s", sw::kRule81);
    ++filter->count;
    return 0;
}

SW_EXPORT int32_t sw_evlan_attr_db_ut_dump(int32_t evlan_type, uint32_t evlan_id)
{
    sw::print("\n========== <evlan attr db, input evlan_type: %d, evlan_id: 0x%x> =============\n", evlan_type,
              evlan_id);
    sw_ebridge_dump_args filter = {};
    filter.type = static_cast<uint32_t>(evlan_type);
    filter.id = evlan_id;
    sw_ebridge_list_item_hash_traverse(0, dump_user, &filter);
    return 0;
}

SW_EXPORT int32_t sda_evlan_attr_db_ut_dump(int32_t evlan_type, uint32_t evlan_id)
{
    sw::print("\n========== <sda evlan attr db, input evlan_type: %d, evlan_id: 0x%x> =============\n", evlan_type,
              evlan_id);
    sw_ebridge_dump_args filter = {};
    filter.type = static_cast<uint32_t>(evlan_type);
    filter.id = evlan_id;
    for (uint32_t table = 0; table < SW_EBRIDGE_SLOTS; ++table)
        sw_ebridge_list_item_hash_traverse(table, dump_user, &filter);
    return 0;
}

SW_EXPORT int32_t sw_vlan_attr_db_ut_dump(int32_t vid)
{
    sw::print("========== <evlan attr db, input vlan_id: %d> =============\n", vid);
    const bool one = vid >= kFirstVid && vid <= kLastVid;
    vid_range range = {.first = one ? vid : kFirstVid, .last = one ? vid : kLastVid};
    sw_ebridge_list_item_hash_traverse(0, dump_user_vlans, &range);
    return 0;
}

// ---- index map ----------------------------------------------------------------------------------------------------

// The text lacks its conversion letter and is kept so.
SW_EXPORT int32_t sw_evlan_index_map_db_init(void)
{
    static bool created = false;
    const uint32_t missing = sw::make_tables<sw_evlan_index_map>(created, sw_evlan_index_map_hash_init);
    if (missing == SW_EBRIDGE_SLOTS)
        return 0;
    SW_LOG_UNCHECKED_AT(SW_HERE, error, "Assert:HASH[%] init failed.", missing);
    return -1;
}

namespace
{

void set_key(sw_evlan_index_map &item, sw_index_map_kind kind, uint32_t key1, uint32_t key2)
{
    item.kind = static_cast<uint32_t>(kind);
    item.key[0] = key1;
    item.key[1] = key2;
    item.key[2] = 0;
}

// A zeroed item with the application's key.
sw_evlan_index_map app_item(const UBridge__EvlanAppIndex &app)
{
    sw_evlan_index_map item = {};
    set_key(item, SW_INDEX_MAP_APP2UDP, static_cast<uint32_t>(app.type), static_cast<uint32_t>(app.keyid));
    return item;
}

sw_evlan_index_map udp_item(uint32_t evlan_id)
{
    sw_evlan_index_map item = {};
    set_key(item, SW_INDEX_MAP_UDP2APP, evlan_id, 0);
    return item;
}

// The line that tells of an item, in logs and dumps. False for a kind that has none.
bool describe(char (&text)[sw::kMessageSize], const char *prefix, const sw_evlan_index_map &item)
{
    switch (item.kind) {
        case SW_INDEX_MAP_APP2UDP:
            std::snprintf(text, sizeof text,
                          "%sEVLAN Index map for %s, appIndex[0x%x] map to UDPIndex[0x%x], ds_flag[%d]\n", prefix,
                          item.user_name, item.key[1], item.value[0], item.ds_flag);
            return true;
        case SW_INDEX_MAP_UDP2APP:
            std::snprintf(text, sizeof text, "%sEVLAN Index map for %s, UDPIndex[0x%x] map to appIndex[0x%x].\n",
                          prefix, item.user_name, item.key[0], item.value[1]);
            return true;
        case SW_INDEX_MAP_UDP2SDK:
            std::snprintf(text, sizeof text,
                          "%sEVLAN Index map for %s, UDPIndex[0x%x] map to SDKIndex[type(%d), vsi(0x%x), vid(0x%x)].\n",
                          prefix, item.user_name, item.key[0], item.value[0], item.value[1], item.value[2]);
            return true;
        case SW_INDEX_MAP_SDK2UDP:
            std::snprintf(text, sizeof text,
                          "%sEVLAN Index map for %s, SDKIndex[type(%d), vsi(0x%x), vid(0x%x)] map to UDPIndex[0x%x].\n",
                          prefix, item.user_name, item.key[0], item.key[1], item.key[2], item.value[0]);
            return true;
        default:
            return false;
    }
}

void log_change(const sw::site &where, const char *prefix, const sw_evlan_index_map &item)
{
    char text[sw::kMessageSize];
    if ((sw::file_admits(sw::info) || sw::std_admits(sw::info)) && describe(text, prefix, item))
        SW_LOG_AT(where, info, "%s", text);
}

bool good_slot_and_item(const sw::site &where, uint32_t inst, const sw_evlan_index_map *item)
{
    if (inst >= SW_EBRIDGE_SLOTS) {
        SW_LOG_AT(where, error, "Assert:Bad inst %d.", inst);
        return false;
    }
    if (item == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad map info.");
        return false;
    }
    return true;
}

}  // namespace

SW_EXPORT void sw_evlan_index_map_init_appkey(sw_evlan_index_map *item, const UBridge__EvlanSession *session)
{
    if (item == nullptr || session == nullptr || session->index == nullptr)
        return;
    set_key(*item, SW_INDEX_MAP_APP2UDP, static_cast<uint32_t>(session->index->type),
            static_cast<uint32_t>(session->index->keyid));
}

SW_EXPORT void sw_evlan_index_map_init_udpkey(sw_evlan_index_map *item, uint32_t evlan_id)
{
    if (item != nullptr)
        set_key(*item, SW_INDEX_MAP_UDP2APP, evlan_id, 0);
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_get_item(uint32_t inst, const sw_evlan_index_map *key)
{
    return good_slot_and_item(SW_HERE, inst, key) ? sw_evlan_index_map_hash_find(inst, key) : nullptr;
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_create_item(uint32_t inst, const sw_evlan_index_map *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad map info.");
        return nullptr;
    }
    // An existing item is replaced in place, its link with it: it leaves its list first.
    if (sw_evlan_index_map *existing = sw_evlan_index_map_hash_find(inst, item); existing != nullptr)
        sw::list_unlink(&existing->link);
    sw_evlan_index_map *stored = nullptr;
    sw_evlan_index_map_cache_create(inst, &stored, item);
    if (stored == nullptr) {
        SW_LOG(error, "Assert:EVLAN Index map failed, user is %s, type is %d, keyid1 is 0x%x, keyid2 is 0x%x.",
               item->user_name, item->kind, item->key[1], item->key[2]);
        return nullptr;
    }
    sw::list_init(&stored->link);
    sw::copy_name(stored->user_name, item->user_name);
    if (sw_ebridge_list_item *user = sw_ebridge_list_item_get_inst(inst, stored->user_name); user != nullptr)
        sw::list_add_head(&user->evlan_maps, &stored->link);
    log_change(SW_HERE, "Insert ", *stored);
    return stored;
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_update_item(uint32_t inst, const sw_evlan_index_map *item)
{
    if (!good_slot_and_item(SW_HERE, inst, item))
        return nullptr;
    sw_evlan_index_map *stored = sw_evlan_index_map_hash_find(inst, item);
    if (stored == nullptr) {
        stored = sw_evlan_index_map_create_item(inst, item);
        if (stored == nullptr)
            SW_LOG(error, "Assert:EVLAN Index map failed");
        return stored;
    }
    std::memcpy(stored->value, item->value, sizeof stored->value);
    sw::copy_name(stored->user_name, item->user_name);
    stored->session_arg = item->session_arg;
    stored->priority = item->priority;
    log_change(SW_HERE, "Update ", *stored);
    return stored;
}

SW_EXPORT int32_t sw_evlan_index_map_delete_item(uint32_t inst, const sw_evlan_index_map *key)
{
    if (!good_slot_and_item(SW_HERE, inst, key))
        return -2;
    sw_evlan_index_map *stored = sw_evlan_index_map_hash_find(inst, key);
    if (stored == nullptr)
        return 0;
    log_change(SW_HERE, "Remove ", *stored);
    sw::list_unlink(&stored->link);
    sw_evlan_index_map_cache_destroy(inst, stored);
    return 0;
}

// The user takes no part: within a slot a key maps to one evlan whoever asks.
SW_EXPORT int32_t sw_evlan_app2udp(const UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *out)
{
    if (app == nullptr) {
        SW_LOG(error, "Assert:Bad App index.");
        return -2;
    }
    if (out == nullptr) {
        SW_LOG(error, "Assert:Bad EVLAN index.");
        return -2;
    }
    out->evlan_id = 0;
    const sw_evlan_index_map key = app_item(*app);
    const sw_evlan_index_map *item = sw_evlan_index_map_get_item(0, &key);
    if (item == nullptr) {
        SW_LOG(warning, "EVLAN not exist, type[0x%x], key[0x%x].", static_cast<uint32_t>(app->type),
               static_cast<uint32_t>(app->keyid));
        return -1;
    }
    out->evlan_id = static_cast<int32_t>(item->value[0]);
    SW_LOG(info, "Mapping APP-index[%d+0x%x] to EVLAN-index[0x%x].", app->type, static_cast<uint32_t>(app->keyid),
           item->value[0]);
    return 0;
}

SW_EXPORT int32_t sw_evlan_udp2app(const UBridge__EvlanIndex *index, UBridge__EvlanAppIndex *out)
{
    if (out == nullptr) {
        SW_LOG(error, "Assert:Bad App index.");
        return -2;
    }
    if (index == nullptr) {
        SW_LOG(error, "Assert:Bad EVLAN index.");
        return -2;
    }
    const auto evlan_id = static_cast<uint32_t>(index->evlan_id);
    const sw_evlan_index_map key = udp_item(evlan_id);
    const sw_evlan_index_map *item = sw_evlan_index_map_get_item(0, &key);
    if (item == nullptr) {
        SW_LOG(warning, "EVLAN DB failed, key[0x%x].", evlan_id);
        return -1;
    }
    out->type = static_cast<int32_t>(item->value[0]);
    out->keyid = static_cast<int32_t>(item->value[1]);
    SW_LOG(info, "EVLAN[0x%x] is type[%d], key[%d].", evlan_id, out->type, out->keyid);
    return 0;
}

// ---- dumps of the index map ---------------------------------------------------------------------------------------

namespace
{

uint32_t bridge_id_of(const sw_evlan_index_map &item)
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

void dump_map_items(uint32_t inst, sw_ebridge_dump_args &filter)
{
    sw_evlan_index_map_hash_traverse(
        inst,
        [](sw_evlan_index_map *item, void *args, int32_t position) {
            return sw_evlan_index_map_dump_op(item, args, position);
        },
        &filter);
}

// The running total up to a slot: it is not reset between slots, kept so on purpose.
void print_map_total(uint32_t inst, const sw_ebridge_dump_args &filter)
{
    sw::print("%s", sw::kRule100);
    sw::print("total count of instance(%d) is %d.\n", inst, filter.count);
}

void dump_map_slot(uint32_t inst, sw_ebridge_dump_args &filter)
{
    dump_map_items(inst, filter);
    print_map_total(inst, filter);
}

}  // namespace

SW_EXPORT int32_t sw_evlan_index_map_dump_op(sw_evlan_index_map *item, void *dump_args, int32_t)
{
    auto *filter = static_cast<sw_ebridge_dump_args *>(dump_args);
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad evlan index.");
        return 0;
    }
    if (filter == nullptr) {
        SW_LOG(error, "Assert:Bad evlan index args.");
        return 0;
    }
    if (!passes(*filter, bridge_id_of(*item)))
        return 0;
    sw::print("%s", sw::kRule100);
    char text[sw::kMessageSize];
    if (describe(text, "", *item))
        sw::print("%s", text);
    ++filter->count;
    return 0;
}

SW_EXPORT int32_t sw_evlan_res_db_ut_dump(uint32_t type, uint32_t id)
{
    sw::print("\n========== <evlan index map db, input type: 0x%x, id: 0x%x> =============\n", type, id);
    sw_ebridge_dump_args filter = {};
    filter.type = type;
    filter.id = id;
    for (uint32_t inst = 0; inst < SW_EBRIDGE_SLOTS; ++inst) {
        if (sw::family<sw_evlan_index_map>::exists(inst))
            dump_map_slot(inst, filter);
    }
    return 0;
}

// VLAN 0 walks all VLANs of slot 0; a VLAN id steps on by one with each slot. The stepping is kept as it is.
SW_EXPORT int32_t sw_vlan_res_db_ut_dump(int32_t vid)
{
    sw::print("\n========== <evlan index map db, input vlan_id: %d> =============\n", vid);
    sw_ebridge_dump_args filter = {};
    filter.type = kVlan;
    if (vid == 0) {
        for (int32_t each = kFirstVid; each <= kLastVid; ++each) {
            filter.id = vlan_id_of(each);
            dump_map_items(0, filter);
        }
        print_map_total(0, filter);
        return 0;
    }
    for (int32_t step = 0; vid > 0 && step < SW_EBRIDGE_SLOTS && vid <= kLastVid - step; ++step) {
        filter.id = vlan_id_of(vid + step);
        dump_map_slot(static_cast<uint32_t>(step), filter);
    }
    return 0;
}

// db_type: 0 every kind, 1 the local database, 2 the index map.
SW_EXPORT int32_t sw_evlan_db_ut_dump(int32_t db_type, int32_t evlan_type, uint32_t evlan_id)
{
    if (db_type == 0 || db_type == 1)
        sw_evlan_attr_db_ut_dump(evlan_type, evlan_id);
    if (db_type == 0 || db_type == 2)
        sw_evlan_res_db_ut_dump(static_cast<uint32_t>(evlan_type), evlan_id);
    return 0;
}

SW_EXPORT int32_t sw_vlan_db_ut_dump(int32_t db_type, int32_t vid)
{
    if (db_type == 0 || db_type == 1)
        sw_vlan_attr_db_ut_dump(vid);
    if (db_type == 0 || db_type == 2)
        sw_vlan_res_db_ut_dump(vid);
    return 0;
}

// ---- request ------------------------------------------------------------------------------------------------------

namespace
{

// Plain VLANs and routed subinterfaces: their number is the VLAN id, and they are released at once.
bool is_underlay(const UBridge__EvlanAppIndex &app)
{
    return sw_evlan_type_underlay(static_cast<uint32_t>(app.type)) != 0;
}

UBridge__EvlanSession session_of(UBridge__EvlanAppIndex *app_index)
{
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    session.index = app_index;
    return session;
}

// The stored item of the application's key, made when absent, marked as actively requested. Null without memory.
sw_evlan_index_map *mark_requested(const UBridge__EvlanAppIndex &app)
{
    sw_evlan_index_map item = app_item(app);
    sw::copy_name(item.user_name, app.t_user);
    sw_evlan_index_map *stored = sw_evlan_index_map_get_item(0, &item);
    if (stored == nullptr)
        stored = sw_evlan_index_map_create_item(0, &item);
    if (stored != nullptr)
        stored->ds_flag |= SW_INDEX_MAP_REQUESTED;
    return stored;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_request(UBridge__EvlanAppIndex *app_index, int32_t request_value,
                                   UBridge__ResPriority priority)
{
    if (app_index == nullptr) {
        SW_LOG(error, "Assert:Bad index.");
        return -2;
    }
    if (app_index->type == 0) {
        SW_LOG(error, "Assert:Bad evlan type 0");
        return -2;
    }
    const sw_ebridge_list_item *user = find_user(SW_HERE, app_index->t_user);
    if (user == nullptr)
        return -2;
    const auto type = static_cast<uint32_t>(app_index->type);
    const uint32_t value = request_value != 0 ? static_cast<uint32_t>(request_value) : type << 24;
    if (type_of(value) != type) {
        SW_LOG(error, "Assert:Bad EVLAN type, IDType(%d) vs APPType(%d)", type_of(value), type);
        return -2;
    }
    SW_LOG(info, "user: %s, type: 0x%x, key(vid or ifx or vni) id: %d, evlan_id: 0x%x.", app_index->t_user, type,
           app_index->keyid, value);

    UBridge__EvlanSession session = session_of(app_index);
    session.request_value = static_cast<int32_t>(value);
    session.priority = priority;
    session.request = 1;
    const sw_evlan_index_map *item = mark_requested(*app_index);
    if (item == nullptr) {
        SW_LOG(error, "Assert:create evlan map item fail");
        return -4;
    }
    // A key that comes back within the release delay keeps its id: the pending expiry is taken off.
    if (!is_underlay(*app_index) && item->value[0] != 0 && sw::same_name(item->user_name, app_index->t_user)) {
        SW_LOG(info, "clear expire, user: %s, type: 0x%x, keyid: %d, evlan_id: 0x%x.", app_index->t_user, type,
               app_index->keyid, item->value[0]);
        qz_mom_clear_expire(user->mom_handle, user->mod_db, &session.base, nullptr, nullptr);
    }
    static constexpr uint32_t request_fields[] = {6, 7, 8};  // request_value, priority, request
    const int32_t rv = qz_mom_hmset(user->mom_handle, user->mod_db, &session.base, request_fields,
                                    sw::count_of(request_fields), nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_hmset failed, rv: %d.", rv);
    ++g_diagnosis_stat.evlan_request;
    return rv;
}

// ---- release ------------------------------------------------------------------------------------------------------

namespace
{

// Withdraws the evlan from the user's local database and its attribute record from the store. A failure there does not
// stop the release.
void withdraw(const sw::site &where, const sw_ebridge_list_item &user, const UBridge__EvlanAppIndex &app,
              uint32_t evlan_id)
{
    if (sw_evlan_db_get_item(0, app.t_user, evlan_id) == nullptr)
        return;
    sw_evlan_db_delete_item(0, app.t_user, evlan_id);
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    index.t_user = app.t_user;
    index.evlan_id = static_cast<int32_t>(evlan_id);
    UBridge__Evlan evlan = U_BRIDGE__EVLAN__INIT;
    evlan.index = &index;
    const int32_t rv = qz_mom_del(user.mom_handle, user.evlan_attr_mom_db, &evlan.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_del failed, user: %s, evlan_id: 0x%x, rv: %d.", app.t_user, evlan_id,
                  rv);
}

// Lets the session expire after the release delay. The copy of the key belongs to the pending expiry; t_user is copied as
// the pointer. When the store refuses, the copy is not freed. The store's code, or nothing without memory.
std::optional<int32_t> release_later(const sw::site &where, const sw_ebridge_list_item &user,
                                     UBridge__EvlanAppIndex &app, const UBridge__EvlanAppIndex &given)
{
    const auto type = static_cast<uint32_t>(app.type);
    auto *copy = static_cast<UBridge__EvlanAppIndex *>(std::malloc(sizeof(UBridge__EvlanAppIndex)));
    if (copy == nullptr) {
        SW_LOG_AT(where, error, "Assert:Malloc for user[%s].type[%d].keyid[0x%x] failed.", app.t_user, type,
                  static_cast<uint32_t>(app.keyid));
        return std::nullopt;
    }
    *copy = given;
    const UBridge__EvlanSession session = session_of(&app);
    const int32_t rv = qz_mom_pexpire(user.mom_handle, user.mod_db, &session.base, QZ_MOM_EXPIRE_EVLAN_SESSION,
                                      &sw::evlan_delay_del_timeval, sw_evlan_release_callback, copy);
    if (rv != 0)
        SW_LOG_AT(
            where, error,
            "Assert:evlan release, qz_mom_pexpire failed, user: %s, type: 0x%x, key(vid or ifx or vni) id: %d, mom_handle: %p, mom_db: %d, rv: %d.",
            app.t_user, type, app.keyid, static_cast<void *>(user.mom_handle), user.mod_db, rv);
    return rv;
}

int32_t release_now(const sw::site &where, const sw_ebridge_list_item &user, UBridge__EvlanAppIndex &app)
{
    const UBridge__EvlanSession session = session_of(&app);
    const int32_t rv = qz_mom_del(user.mom_handle, user.mod_db, &session.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_del failed, rv: %d.", rv);
    return rv;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_release_exec(UBridge__EvlanAppIndex *app_index, uint32_t delayed)
{
    if (app_index == nullptr) {
        SW_LOG(error, "Assert:Bad index.");
        return -2;
    }
    sw_ebridge_list_item *user = find_user(SW_HERE, app_index->t_user);
    if (user == nullptr)
        return -2;
    // The caller's name may stand in the very record that is withdrawn here; the user's own outlives it.
    UBridge__EvlanAppIndex app = *app_index;
    if (sw::same_name(app.t_user, user->user_name))
        app.t_user = user->user_name;
    SW_LOG(info, "user: %s, type: 0x%x, key(vid or ifx or vni) id: %d.", app.t_user, static_cast<uint32_t>(app.type),
           app.keyid);
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    const int32_t mapped = sw_evlan_app2udp(&app, &evlan);
    const auto evlan_id = static_cast<uint32_t>(evlan.evlan_id);
    SW_LOG(info, "app2udp evlan_id: 0x%x, rv: %d.", evlan_id, mapped);
    withdraw(SW_HERE, *user, app, evlan_id);

    const sw_evlan_index_map key = app_item(app);
    if (sw_evlan_index_map *item = sw_evlan_index_map_get_item(0, &key); item != nullptr)
        item->ds_flag &= ~static_cast<uint32_t>(SW_INDEX_MAP_REQUESTED);
    const bool later = delayed == 1 && !is_underlay(app);
    const std::optional<int32_t> rv =
        later ? release_later(SW_HERE, *user, app, *app_index) : release_now(SW_HERE, *user, app);
    if (!rv.has_value())
        return -2;
    ++g_diagnosis_stat.evlan_total_release;
    return *rv;
}

SW_EXPORT int32_t sw_evlan_release(UBridge__EvlanAppIndex *app_index) { return sw_evlan_release_exec(app_index, 1); }

SW_EXPORT int32_t sw_evlan_release_direct(UBridge__EvlanAppIndex *app_index)
{
    return sw_evlan_release_exec(app_index, 0);
}

// The delayed release is over once the store says that the expiry has ended: fired, or cleared by a new request.
SW_EXPORT int32_t sw_evlan_release_callback(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    if (msg == nullptr) {
        SW_LOG(error, "Assert:MOM msg is NULL.\n");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG(error, "Assert:MOM error is %d.\n", msg->error);
        return -2;
    }
    if (args == nullptr) {
        SW_LOG(error, "Assert:MOM args is NULL.\n");
        return -2;
    }
    SW_LOG(info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd, args);
    if (msg->end == QZ_MOM_END_EXPIRY) {
        auto *app = static_cast<UBridge__EvlanAppIndex *>(args);
        SW_LOG(info, "pexpire_end, user: %s, type: 0x%x, keyid: %d.", app->t_user, static_cast<uint32_t>(app->type),
               app->keyid);
        std::free(app);
    }
    return 0;
}

// ---- plain VLANs --------------------------------------------------------------------------------------------------

namespace
{

// Any type but L3INTF_SUB means a VLAN.
UBridge__EvlanAppIndex app_index_of(const UBridge__VlanAppIndex &vlan)
{
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.t_user = vlan.user;
    app.type = static_cast<int32_t>(vlan.type == static_cast<int32_t>(kL3IntfSub) ? kL3IntfSub : kVlan);
    app.keyid = vlan.keyid;
    return app;
}

}  // namespace

SW_EXPORT int32_t sw_vlan_request(UBridge__VlanAppIndex *vlan_index, int32_t vid, UBridge__ResPriority priority)
{
    if (vlan_index == nullptr) {
        SW_LOG(error, "Assert:Bad index.");
        return -2;
    }
    UBridge__EvlanAppIndex app = app_index_of(*vlan_index);
    const uint32_t wanted = static_cast<uint32_t>(app.type) << 24 | static_cast<uint32_t>(vid);
    return sw_evlan_request(&app, static_cast<int32_t>(wanted), priority);
}

SW_EXPORT int32_t sw_vlan_release(UBridge__VlanAppIndex *vlan_index)
{
    if (vlan_index == nullptr) {
        SW_LOG(error, "Assert:Bad index.");
        return -2;
    }
    UBridge__EvlanAppIndex app = app_index_of(*vlan_index);
    return sw_evlan_release(&app);
}

// ---- replies: what one session change does ------------------------------------------------------------------------

namespace
{

// One reply on its way through the users.
struct reply {
    uint32_t db;
    UBridge__EvlanSession *session;
};

// Whose replies a user takes: 2 everybody's, odd everybody's VLANs, 0 its own, any other even value none.
bool in_scope(const sw_ebridge_list_item &user, const UBridge__EvlanSession &session)
{
    const uint32_t scope = user.evlan_data_type;
    if (scope == 2)
        return true;
    if (scope % 2 != 0)
        return type_of(static_cast<uint32_t>(session.reply_value)) == kVlan;
    return scope == 0 && sw::same_name(session.index->t_user, user.user_name);
}

// Removals are heard more narrowly on purpose: by nobody with an odd scope.
bool hears_removal(const sw_ebridge_list_item &user, const UBridge__EvlanSession &session)
{
    return user.evlan_data_type == 2 ||
           (user.evlan_data_type == 0 && sw::same_name(session.index->t_user, user.user_name));
}

UBridge__EvlanIndex evlan_index_of(const UBridge__EvlanSession &session)
{
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    index.t_user = session.index->t_user;
    index.evlan_id = session.reply_value;
    return index;
}

void call_vlan_reply(const sw_ebridge_list_item &user, const UBridge__EvlanAppIndex &app, int32_t vlan_id)
{
    UBridge__VlanAppIndex index = U_BRIDGE__VLAN_APP_INDEX__INIT;
    index.user = app.t_user;
    index.keyid = app.keyid;
    index.type = app.type;
    user.vlan_reply(&index, vlan_id);
    ++g_diagnosis_stat.evlan_reply_vlancb;
}

void call_evlan_reply(const sw_ebridge_list_item &user, const UBridge__EvlanSession &session)
{
    UBridge__EvlanIndex index = evlan_index_of(session);
    user.evlan_reply(session.index, &index);
    ++g_diagnosis_stat.evlan_reply_evlancb;
}

// A map item with what the reply says of its request.
void fill_from_reply(sw_evlan_index_map &item, const reply &answer)
{
    item.session_arg = answer.db;
    item.priority = static_cast<uint32_t>(answer.session->priority);
    sw::copy_name(item.user_name, answer.session->index->t_user);
}

// Takes a new id into an item in place: user, priority and argument stay as they were. The old id's reverse item goes,
// unless another key has it.
void regrant(const sw::site &where, sw_evlan_index_map &item, const UBridge__EvlanAppIndex &app, uint32_t evlan_id)
{
    const uint32_t old_id = item.value[0];
    SW_LOG_AT(where, info, "updating old app2udp data, type: 0x%x, keyid: %d(old_evlan_id: 0x%x, new_evlan_id: 0x%x).",
              static_cast<uint32_t>(app.type), app.keyid, old_id, evlan_id);
    item.ds_flag |= SW_INDEX_MAP_GRANTED;
    item.value[0] = evlan_id;
    const sw_evlan_index_map old_key = udp_item(old_id);
    const sw_evlan_index_map *reverse = sw_evlan_index_map_get_item(0, &old_key);
    if (reverse != nullptr && reverse->value[0] == item.key[0] && reverse->value[1] == item.key[1]) {
        SW_LOG_AT(where, info, "deleting old udp2app data, evlan_id: 0x%x.", old_id);
        sw_evlan_index_map_delete_item(0, &old_key);
    }
}

// Turns a grant into the two index map items, once per reply: the first user in scope does it and ends the walk. The id
// 0 of a key that was only requested differs from the grant, so a first grant is taken in place like a new one.
int32_t sw_evlan_session_reply_db_update(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const auto *answer = static_cast<reply *>(arg);
    const UBridge__EvlanSession &session = *answer->session;
    if (!in_scope(*user, session))
        return 0;
    const UBridge__EvlanAppIndex &app = *session.index;
    const auto evlan_id = static_cast<uint32_t>(session.reply_value);
    SW_LOG(info, "app_index-user: %s, type: %d, keyid: %d, evlan_index-evlan_id: 0x%x(priority: %d).", app.t_user,
           app.type, app.keyid, evlan_id, static_cast<int>(session.priority));

    sw_evlan_index_map item = app_item(app);
    fill_from_reply(item, *answer);
    sw_evlan_index_map *stored = sw_evlan_index_map_get_item(0, &item);
    if (stored != nullptr && stored->value[0] != evlan_id) {
        regrant(SW_HERE, *stored, app, evlan_id);
    } else {
        item.value[0] = evlan_id;
        stored = sw_evlan_index_map_update_item(0, &item);
        if (stored != nullptr)
            stored->ds_flag |= SW_INDEX_MAP_GRANTED;
    }
    sw_evlan_index_map reverse = udp_item(evlan_id);
    fill_from_reply(reverse, *answer);
    reverse.value[0] = static_cast<uint32_t>(app.type);
    reverse.value[1] = static_cast<uint32_t>(app.keyid);
    sw_evlan_index_map_update_item(0, &reverse);
    return SW_EBRIDGE_WALK_STOP;
}

// Gives the granted id to a user in scope: into its local database, and to the callback of its kind.
int32_t sw_evlan_session_reply_add_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EvlanSession &session = *static_cast<reply *>(arg)->session;
    if (!in_scope(*user, session))
        return 0;
    const auto evlan_id = static_cast<uint32_t>(session.reply_value);
    sw_evlan_attr record;
    sw_evlan_init(&record, user->user_name, evlan_id);
    sw_evlan_db_insert_item(0, user->user_name, &record);
    const bool underlay = sw_evlan_id_underlay(evlan_id) != 0;
    if (underlay && user->vlan_reply != nullptr) {
        const auto vlan_id = static_cast<int32_t>(evlan_id & kNumberMask);
        SW_LOG(info, "success  fully reply vlan_id: 0x%x, type: %d.", static_cast<uint32_t>(vlan_id),
               session.index->type);
        call_vlan_reply(*user, *session.index, vlan_id);
    }
    if (!underlay && user->evlan_reply != nullptr) {
        SW_LOG(info, "successfully reply evlan_id: 0x%x.", evlan_id);
        call_evlan_reply(*user, session);
    }
    return 0;
}

void record_refusal(const UBridge__EvlanSession &session)
{
    sw_evlan_index_map entry = udp_item(kNoId);
    sw::copy_name(entry.user_name, session.index->t_user);
    entry.value[0] = static_cast<uint32_t>(session.index->type);
    entry.value[1] = static_cast<uint32_t>(session.index->keyid);
    entry.priority = static_cast<uint32_t>(session.priority);
    entry.session_arg = static_cast<uint32_t>(session.mom_db);
    entry.ds_flag = 1;
    sw_evlan_record_err_msg(&entry);
}

// A refused request: users in scope keep an error entry; the requester, whatever its scope, withdraws the session and
// hears -1 through every reply callback that it has, without a test of the type.
int32_t sw_evlan_session_reply_rollback_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EvlanSession &session = *static_cast<reply *>(arg)->session;
    UBridge__EvlanAppIndex &app = *session.index;
    if (in_scope(*user, session))
        record_refusal(session);
    if (!sw::same_name(app.t_user, user->user_name))
        return 0;
    SW_LOG(error, "User[%s].evlan[type:0x%x, keyid: %x] reply failed result.", app.t_user,
           static_cast<uint32_t>(app.type), static_cast<uint32_t>(app.keyid));
    sw_evlan_release_direct(&app);
    ++g_diagnosis_stat.evlan_auto_release;
    if (user->vlan_reply != nullptr) {
        SW_LOG(info, "successfully reply vlan_id: 0x%x, type: %d.", static_cast<uint32_t>(session.reply_value),
               app.type);
        call_vlan_reply(*user, app, session.reply_value);
    }
    if (user->evlan_reply != nullptr) {
        SW_LOG(info, "reply evlan_id: 0x%x.", static_cast<uint32_t>(session.reply_value));
        call_evlan_reply(*user, session);
    }
    return 0;
}

int32_t sw_evlan_session_reply_del_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EvlanSession &session = *static_cast<reply *>(arg)->session;
    if (!hears_removal(*user, session) || user->evlan_release_reply == nullptr)
        return 0;
    UBridge__EvlanIndex index = evlan_index_of(session);
    SW_LOG(info, "reply destroy msg evlan_id: 0x%x.", static_cast<uint32_t>(index.evlan_id));
    user->evlan_release_reply(session.index, &index, SW_EBRIDGE_RELEASE_EVENT);
    ++g_diagnosis_stat.evlan_release_cb;
    return 0;
}

void sw_evlan_session_reply_add(reply answer)
{
    const UBridge__EvlanSession &session = *answer.session;
    const UBridge__EvlanAppIndex &app = *session.index;
    if (static_cast<uint32_t>(session.reply_value) == kNoId) {
        SW_LOG(warning, "no more evlan id available, user: %s, app_index->type: 0x%x, keyid: %d.", app.t_user,
               static_cast<uint32_t>(app.type), app.keyid);
        sw_ebridge_list_for_each(0, sw_evlan_session_reply_rollback_foreach, &answer);
        return;
    }
    SW_LOG(info, "user: %s, keyid: %d, reply value: 0x%x.", app.t_user, app.keyid,
           static_cast<uint32_t>(session.reply_value));
    sw_ebridge_list_for_each(0, sw_evlan_session_reply_db_update, &answer);
    sw_ebridge_list_for_each(0, sw_evlan_session_reply_add_foreach, &answer);
}

// The users hear of the removal first; the map items go unless the application has asked for the key again meanwhile.
void sw_evlan_session_reply_del(reply answer)
{
    const UBridge__EvlanAppIndex &app = *answer.session->index;
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    const int32_t rv = sw_evlan_app2udp(&app, &evlan);
    const auto evlan_id = static_cast<uint32_t>(evlan.evlan_id);
    SW_LOG(info, "release db app_user: %s, type: %d, keyid: %d, evlan_id: 0x%x, rv: %d.", app.t_user, app.type,
           app.keyid, evlan_id, rv);
    sw_ebridge_list_for_each(0, sw_evlan_session_reply_del_foreach, &answer);

    sw_evlan_index_map key = app_item(app);
    const sw_evlan_index_map *item = sw_evlan_index_map_get_item(0, &key);
    if (item != nullptr && (item->ds_flag & SW_INDEX_MAP_REQUESTED) != 0) {
        SW_LOG(info, "active evlan item, no allow del.");
        return;
    }
    sw_evlan_index_map_delete_item(0, &key);
    SW_LOG(info, "release db app_user: %s, type: %d, keyid: %d, evlan_id: 0x%x.", app.t_user, app.type, app.keyid,
           evlan_id);
    key = udp_item(evlan_id);
    sw_evlan_index_map_delete_item(0, &key);
}

bool has_index(const sw::site &where, const UBridge__EvlanSession *session)
{
    if (session != nullptr && session->index != nullptr && session->index->t_user != nullptr)
        return true;
    SW_LOG_AT(where, error, "Assert:evlan session is NULL.");
    return false;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_session_reply(uint32_t db, UBridge__EvlanSession *session, int32_t add)
{
    if (!has_index(SW_HERE, session))
        return -2;
    if (add == 0) {
        sw_evlan_session_reply_del({.db = db, .session = session});
        ++g_diagnosis_stat.evlan_del_reply;
        return 0;
    }
    if (session->reply == 0)  // the allocator has not answered yet
        return -2;
    sw_evlan_session_reply_add({.db = db, .session = session});
    ++g_diagnosis_stat.evlan_add_reply;
    return 0;
}

// ---- replies: what the store delivers -----------------------------------------------------------------------------

namespace
{

// What a notification means to this side.
struct session_change {
    enum { apply, end_or_confirmation, ignore, refuse } outcome;
    UBridge__EvlanSession *session;
    int32_t add;
};

// The session of a written record, with the reason logged when there is none.
UBridge__EvlanSession *written_session(const sw::site &where, const qz_mom_notification &msg)
{
    const auto *value = static_cast<const qz_mom_hash_value *>(msg.value);
    if (value == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM, value is NULL.");
        return nullptr;
    }
    if (value->error != 0) {
        SW_LOG_AT(where, error, "Assert:MOM, error is %d.", value->error);
        return nullptr;
    }
    auto *session = reinterpret_cast<UBridge__EvlanSession *>(value->record);
    return has_index(where, session) ? session : nullptr;
}

session_change read_change(const sw::site &where, const qz_mom_notification &msg)
{
    switch (msg.cmd) {
        case QZ_MOM_CMD_SUBSCRIBED:
            return {session_change::end_or_confirmation, nullptr, 0};
        case QZ_MOM_CMD_HSET:
        case QZ_MOM_CMD_HMSET: {
            UBridge__EvlanSession *session = written_session(where, msg);
            return {session != nullptr ? session_change::apply : session_change::refuse, session, 1};
        }
        case QZ_MOM_CMD_DEL:
        case QZ_MOM_CMD_EXPIRED: {
            auto *session = static_cast<UBridge__EvlanSession *>(msg.value);
            return {has_index(where, session) ? session_change::apply : session_change::refuse, session, 0};
        }
        default:
            return {msg.end == QZ_MOM_END_SCAN ? session_change::end_or_confirmation : session_change::ignore, nullptr,
                    0};
    }
}

}  // namespace

SW_EXPORT int32_t sw_vlan_mom_msg_evlan_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    if (msg == nullptr) {
        SW_LOG(error, "Assert:MOM, msg is NULL.");
        return -2;
    }
    if (args == nullptr) {
        SW_LOG(error, "Assert:MOM, args is NULL.");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG(error, "Assert:MOM, error is %d.", msg->error);
        return -2;
    }
    if (msg->cmd == QZ_MOM_CMD_UNSUBSCRIBED) {
        SW_LOG(warning, "unsubscribe from DB[%d], args is %p.", msg->db, args);
        return 0;
    }
    SW_LOG(info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd, args);
    const session_change change = read_change(SW_HERE, *msg);
    if (change.outcome == session_change::refuse)
        return -2;
    if (change.outcome == session_change::ignore)
        return 0;

    const sw_ebridge_callback_args user = *static_cast<sw_ebridge_callback_args *>(args);
    SW_LOG(info, "EVLAN session callback, func is %p, args is %p.", sw::address(user.func), user.arg);
    if (user.func != nullptr)
        user.func(ctx, msg, user.arg);
    if (msg->end == QZ_MOM_END_SCAN)
        SW_LOG(info, "scan end callback %p.", sw::address(user.func));
    if (change.outcome == session_change::apply)
        sw_evlan_session_reply(msg->db, change.session, change.add);
    return 0;
}

// ---- scan and subscribe -------------------------------------------------------------------------------------------

// The four slots of evlans follow the four of eports.
SW_EXPORT void **sw_evlan_get_mom_ds_args(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *inst)
{
    if (inst == nullptr)
        return nullptr;
    const bool subscribe = cmd == QZ_MOM_CMD_SUBSCRIBED;
    if (!subscribe && cmd != QZ_MOM_CMD_SCAN)
        return nullptr;
    if (mom_db == SW_EBRIDGE_APP_DB)
        return &inst->mom_ds_args[subscribe ? 4 : 5];
    if (mom_db == SW_EBRIDGE_UDP_DB)
        return &inst->mom_ds_args[subscribe ? 6 : 7];
    return nullptr;
}

namespace
{

// The pattern that stands for the sessions of all users.
struct session_pattern {
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    session_pattern() { session.index = &index; }
};

// The pair in a slot, made on first use, with the callback and its argument in it. Null without memory.
sw_ebridge_callback_args *fill_slot(void **slot, sw_ebridge_mom_func func, void *args)
{
    if (*slot == nullptr)
        *slot = std::calloc(1, sizeof(sw_ebridge_callback_args));
    auto *pair = static_cast<sw_ebridge_callback_args *>(*slot);
    if (pair != nullptr)
        *pair = {.arg = args, .func = func};
    return pair;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_data_scan_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    sw_ebridge_list_item *user = find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    void **slot = sw_evlan_get_mom_ds_args(mom_db, QZ_MOM_CMD_SCAN, user);
    if (slot == nullptr) {
        SW_LOG(error, "Assert:ds args errors.");
        return -2;
    }
    sw_ebridge_callback_args *pair = fill_slot(slot, func, args);
    if (pair == nullptr) {
        SW_LOG(error, "Assert:Malloc failed.");
        return -4;
    }
    SW_LOG(info, "scan evlan_data, user: %s, db: %d, func_callback: %p, args: %p.", user_name, mom_db,
           sw::address(func), args);
    const session_pattern pattern;
    const int32_t rv = qz_mom_scan(user->mom_handle, static_cast<uint32_t>(mom_db), &pattern.session.base, 0,
                                   sw_vlan_mom_msg_evlan_session_reply, pair);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_scan failed, rv: %d\n", rv);
    return rv;
}

SW_EXPORT int32_t sw_evlan_data_scan(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    return sw_evlan_data_scan_with_db(user_name, static_cast<int32_t>(user->mod_db), func, args);
}

SW_EXPORT int32_t sw_evlan_subscribe_db_exec(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    sw_ebridge_list_item *user = find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    void **slot = sw_evlan_get_mom_ds_args(mom_db, QZ_MOM_CMD_SUBSCRIBED, user);
    if (slot == nullptr) {
        SW_LOG(error, "Assert:ds args errors.");
        return -2;
    }
    sw_ebridge_callback_args *pair = fill_slot(slot, func, args);
    if (pair == nullptr) {
        SW_LOG(error, "Assert:Malloc *ebridge_evlan_args failed.");
        return -4;
    }
    const session_pattern pattern;
    const uint32_t fields[] = {11};  // reply
    const qz_mom_msg_cb callbacks[] = {sw_vlan_mom_msg_evlan_session_reply};
    void *const pairs[] = {pair};
    const int32_t rv = qz_mom_subscribe_field(user->mom_handle, static_cast<uint32_t>(mom_db), &pattern.session.base, 0,
                                              fields, callbacks, pairs, sw::count_of(fields));
    if (rv != 0)
        SW_LOG(error, "qz_mom_subscribe_field failed, rv: %d.", rv);
    return rv;
}

SW_EXPORT int32_t sw_evlan_subscribe_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    SW_LOG(info, "User '%s' subscribe EVLAN, DB is %d, func is %p, args is %p.", sw::printable(user_name), mom_db,
           sw::address(func), args);
    return sw_evlan_subscribe_db_exec(user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_evlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "User '%s' subscribe EVLAN, func is %p, args is %p.", user_name, sw::address(func), args);
    return sw_evlan_subscribe_db_exec(user_name, static_cast<int32_t>(user->mod_db), func, args);
}

SW_EXPORT int32_t sw_vlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    return sw_evlan_subscribe(user_name, func, args);
}
