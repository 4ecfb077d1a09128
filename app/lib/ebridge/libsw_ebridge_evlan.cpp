// Evlans, in the order of their life: ids and the local database, the index map, request and release, the allocator's
// replies, scan and subscribe, attributes, aging. What eports do alike is in the twin_*.hpp templates, the differences in
// twins.hpp. Neighbours: libsw_ebridge (users, connections), libsw_ebridge_ds (counters, delays, the age timer).
#include <cstdio>

#include "export.hpp"
#include "twin_aging.hpp"

namespace
{

using kind = sw::evlan_kind;

constexpr uint32_t kVlan = U_BRIDGE__EVLAN_TYPE__VLAN;
constexpr uint32_t kL3IntfSub = U_BRIDGE__EVLAN_TYPE__L3INTF_SUB;
constexpr int32_t kFirstVid = 1;
constexpr int32_t kLastVid = 4094;

// `svl` shares its byte with an overlay's field, whose value need not be one of a bool.
bool is_shared(const sw_evlan_attr &record)
{
    uint8_t svl = 0;
    std::memcpy(&svl, &record.attr.underlay.svl, sizeof svl);
    return svl != 0;
}

uint32_t vlan_id_of(int32_t vid) { return kVlan << 24 | static_cast<uint32_t>(vid); }

}  // namespace

// ---- ids ----------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_type_underlay(uint32_t evlan_type)
{
    return evlan_type == kVlan || evlan_type == kL3IntfSub ? 1 : 0;
}

SW_EXPORT int32_t sw_evlan_id_underlay(uint32_t evlan_id) { return sw_evlan_type_underlay(sw::type_of(evlan_id)); }

// ---- local database -----------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_db_init(void)
{
    static bool created = false;
    return sw::init_slots<sw_evlan_attr>(SW_HERE, created, sw::kTableMissing);
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
    return sw::find_attr<kind>(inst, user_name, evlan_id);
}

// The caller's record is read only: kind::fresh() takes nothing but its id.
SW_EXPORT sw_evlan_attr *sw_evlan_db_insert_item(uint32_t inst, const char *user_name, const sw_evlan_attr *record)
{
    return sw::insert_attr<kind>(SW_HERE, inst, user_name, const_cast<sw_evlan_attr *>(record), nullptr);
}

SW_EXPORT sw_evlan_attr *sw_evlan_db_insert_item_new(uint32_t inst, const char *user_name, const sw_evlan_attr *record,
                                                     uint8_t *created)
{
    return sw::insert_attr<kind>(SW_HERE, inst, user_name, const_cast<sw_evlan_attr *>(record), created);
}

SW_EXPORT void sw_evlan_db_delete_item(uint32_t inst, const char *user_name, uint32_t evlan_id)
{
    sw::remove_attr<kind>(SW_HERE, inst, sw_evlan_db_get_item(inst, user_name, evlan_id));
}

// Makes sure that the databases and the user exist, and gives the record that a verification inserts. An underlay id
// presets `fid`, which the insertion does not read: a record made by verification has fid 0. Kept so on purpose.
static bool verification_record(sw::site where, uint32_t inst, const UBridge__EvlanIndex *index, sw_evlan_attr &record)
{
    if (index == nullptr || index->t_user == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad EVLAN index.");
        return false;
    }
    sw_ebridge_attr_db_init(inst, index->t_user);
    const auto evlan_id = static_cast<uint32_t>(index->evlan_id);
    sw_evlan_init(&record, index->t_user, evlan_id);
    if (sw_evlan_id_underlay(evlan_id) != 0)
        record.attr.underlay.fid = static_cast<int32_t>(evlan_id & sw::kNumberMask);
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

SW_EXPORT int32_t sw_evlan_attr_copy(sw_evlan_attr *dst, const sw_evlan_attr *src)
{
    if (!sw::both_given<kind>(SW_HERE, dst, src))
        return -2;
    dst->attr_flags = src->attr_flags;
    dst->class_id = src->class_id;
    dst->type = src->type;
    if (sw_evlan_type_underlay(src->type) == 0) {
        dst->attr.overlay = src->attr.overlay;
        return 0;
    }
    dst->attr.underlay.fid = src->attr.underlay.fid;
    dst->attr.underlay.svl = is_shared(*src);
    if (src->ports != nullptr) {
        SW_LOG(error, "Assert:Unexpect attr.");
        return -2;
    }
    return 0;
}

// The union is compared whole, so stale overlay words behind an underlay's fid and svl count as a difference.
SW_EXPORT int32_t sw_evlan_attr_cmp(const sw_evlan_attr *a, const sw_evlan_attr *b)
{
    if (!sw::both_given<kind>(SW_HERE, a, b))
        return -2;
    if (a->attr_flags != b->attr_flags || a->class_id != b->class_id || a->type != b->type)
        return -1;
    return std::memcmp(a->attr.words, b->attr.words, sizeof a->attr.words);
}

namespace
{

void merge_underlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    if (is_shared(from))
        into.attr.underlay.svl = true;
    const int32_t fid = from.attr.underlay.fid;
    if (fid != 0 && fid != static_cast<int32_t>(into.evlan_id & sw::kNumberMask))
        into.attr.underlay.fid = fid;
}

void merge_overlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    for (uint32_t i = 0; i < sw::count_of(into.attr.words); ++i)
        sw::take_value(into.attr.words[i], from.attr.words[i]);
}

void merge_record(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    into.class_id |= from.class_id;
    if (sw_evlan_id_underlay(into.evlan_id) != 0)
        merge_underlay(into, from);
    else
        merge_overlay(into, from);
}

}  // namespace

// The last user in the registry's order with a value of its own wins each field; class ids are OR-ed.
SW_EXPORT sw_evlan_attr *sw_evlan_attr_merge(uint32_t evlan_id)
{
    static constinit sw_evlan_attr merged = {};
    merged = {};
    merged.evlan_id = evlan_id;
    if (sw_evlan_id_underlay(evlan_id) != 0)
        merged.attr.underlay.fid = static_cast<int32_t>(evlan_id & sw::kNumberMask);
    return sw::merge_users<kind, merge_record>(SW_HERE, merged) ? &merged : nullptr;
}

// ---- dumps of the local database ----------------------------------------------------------------------------------

namespace
{

void print_attributes(const sw_evlan_attr &record)
{
    if (sw_evlan_id_underlay(record.evlan_id) != 0) {
        sw::print("SVL:%s, FID:%d.", is_shared(record) ? "true" : "false", record.attr.underlay.fid);
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
    if (!users || !sw::passes(*filter, record->evlan_id))
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

SW_EXPORT int32_t sw_evlan_index_map_db_init(void)
{
    static bool created = false;
    return sw::init_slots<sw_evlan_index_map>(SW_HERE, created, sw::kMapMissing);
}

bool sw::describe(char (&text)[kMessageSize], const char *prefix, const sw_evlan_index_map &item)
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

SW_EXPORT void sw_evlan_index_map_init_appkey(sw_evlan_index_map *item, const UBridge__EvlanSession *session)
{
    if (item == nullptr || session == nullptr || session->index == nullptr)
        return;
    sw::set_app_key<kind>(*item, *session->index);
}

SW_EXPORT void sw_evlan_index_map_init_udpkey(sw_evlan_index_map *item, uint32_t evlan_id)
{
    if (item != nullptr)
        sw::set_udp_key<kind>(*item, evlan_id);
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_get_item(uint32_t inst, const sw_evlan_index_map *key)
{
    return sw::get_map_item<kind>(SW_HERE, inst, key);
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_create_item(uint32_t inst, const sw_evlan_index_map *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:Bad map info.");
        return nullptr;
    }
    return sw::create_map_item<kind>(SW_HERE, inst, *item);
}

SW_EXPORT sw_evlan_index_map *sw_evlan_index_map_update_item(uint32_t inst, const sw_evlan_index_map *item)
{
    if (!kind::good_map_arguments(SW_HERE, inst, item))
        return nullptr;
    sw_evlan_index_map *stored = sw_evlan_index_map_hash_find(inst, item);
    if (stored == nullptr) {
        stored = sw_evlan_index_map_create_item(inst, item);
        if (stored == nullptr)
            SW_LOG(error, "Assert:EVLAN Index map failed");
        return stored;
    }
    sw::replace_map_item<kind>(SW_HERE, *stored, *item);
    return stored;
}

SW_EXPORT int32_t sw_evlan_index_map_delete_item(uint32_t inst, const sw_evlan_index_map *key)
{
    if (!kind::good_map_arguments(SW_HERE, inst, key))
        return -2;
    return sw::delete_map_item<kind>(SW_HERE, inst, key);
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
    const sw_evlan_index_map key = sw::app_item<kind>(*app);
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
    const sw_evlan_index_map key = sw::udp_item<kind>(evlan_id);
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

// The VLANs from `first` to `last` of a slot, and the running total; nothing of a slot that has no table.
void dump_map_vlans(uint32_t inst, int32_t first, int32_t last, sw_ebridge_dump_args &filter)
{
    if (!sw::family<sw_evlan_index_map>::exists(inst))
        return;
    for (int32_t vid = first; vid <= last; ++vid) {
        filter.id = vlan_id_of(vid);
        sw_evlan_index_map_hash_traverse(inst, sw_evlan_index_map_dump_op, &filter);
    }
    sw::print_map_total<kind>(inst, filter);
}

}  // namespace

SW_EXPORT int32_t sw_evlan_index_map_dump_op(sw_evlan_index_map *item, void *dump_args, int32_t)
{
    return sw::dump_map_item<kind>(SW_HERE, item, static_cast<sw_ebridge_dump_args *>(dump_args), "");
}

SW_EXPORT int32_t sw_evlan_res_db_ut_dump(uint32_t type, uint32_t id)
{
    sw::print("\n========== <evlan index map db, input type: 0x%x, id: 0x%x> =============\n", type, id);
    sw_ebridge_dump_args filter = {};
    filter.type = type;
    filter.id = id;
    sw::dump_map_slots<kind, sw_evlan_index_map_dump_op>(filter);
    return 0;
}

// VLAN 0 walks all VLANs of slot 0; a VLAN id steps on by one with each slot. The stepping is kept as it is.
SW_EXPORT int32_t sw_vlan_res_db_ut_dump(int32_t vid)
{
    sw::print("\n========== <evlan index map db, input vlan_id: %d> =============\n", vid);
    sw_ebridge_dump_args filter = {};
    filter.type = kVlan;
    if (vid == 0) {
        dump_map_vlans(0, kFirstVid, kLastVid, filter);
        return 0;
    }
    for (int32_t step = 0; vid > 0 && step < SW_EBRIDGE_SLOTS && vid <= kLastVid - step; ++step)
        dump_map_vlans(static_cast<uint32_t>(step), vid + step, vid + step, filter);
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

// ---- request and release ------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_request(UBridge__EvlanAppIndex *app_index, int32_t request_value,
                                   UBridge__ResPriority priority)
{
    return sw::request<kind>(SW_HERE, app_index, request_value, priority);
}

SW_EXPORT int32_t sw_evlan_release_exec(UBridge__EvlanAppIndex *app_index, uint32_t delayed)
{
    return sw::release<kind>(SW_HERE, app_index, delayed);
}

SW_EXPORT int32_t sw_evlan_release(UBridge__EvlanAppIndex *app_index) { return sw_evlan_release_exec(app_index, 1); }

SW_EXPORT int32_t sw_evlan_release_direct(UBridge__EvlanAppIndex *app_index)
{
    return sw_evlan_release_exec(app_index, 0);
}

SW_EXPORT int32_t sw_evlan_release_callback(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    return sw::hear_release_end<kind>(SW_HERE, msg, args);
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

// ---- replies ------------------------------------------------------------------------------------------------------

namespace
{

using reply = sw::reply<kind>;

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
    UBridge__EvlanIndex index = sw::index_of<kind>(session);
    user.evlan_reply(session.index, &index);
    ++g_diagnosis_stat.evlan_reply_evlancb;
}

int32_t sw_evlan_session_reply_db_update(sw_ebridge_list_item *user, void *arg, int32_t)
{
    return sw::map_reply<kind>(SW_HERE, *user, *static_cast<reply *>(arg));
}

int32_t sw_evlan_session_reply_add_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EvlanSession &session = *static_cast<reply *>(arg)->session;
    if (kind::in_scope(*user, session))
        kind::take_grant(SW_HERE, *user, session);
    return 0;
}

int32_t sw_evlan_session_reply_rollback_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    return sw::roll_back<kind>(SW_HERE, *user, *static_cast<reply *>(arg)->session);
}

int32_t sw_evlan_session_reply_del_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EvlanSession &session = *static_cast<reply *>(arg)->session;
    if (kind::hears_removal(*user, session))
        kind::take_removal(SW_HERE, *user, session);
    return 0;
}

void sw_evlan_session_reply_add(reply answer)
{
    sw::reply_add<kind>(SW_HERE, answer,
                        {sw_evlan_session_reply_db_update, sw_evlan_session_reply_add_foreach,
                         sw_evlan_session_reply_rollback_foreach});
}

void sw_evlan_session_reply_del(reply answer)
{
    sw::reply_remove<kind>(SW_HERE, answer, sw_evlan_session_reply_del_foreach);
}

}  // namespace

void sw::evlan_kind::take_grant(site where, const sw_ebridge_list_item &user, const session &of)
{
    const auto evlan_id = static_cast<uint32_t>(of.reply_value);
    sw_evlan_attr record;
    sw_evlan_init(&record, user.user_name, evlan_id);
    sw_evlan_db_insert_item(0, user.user_name, &record);
    const bool underlay = sw_evlan_id_underlay(evlan_id) != 0;
    if (underlay && user.vlan_reply != nullptr) {
        const auto vlan_id = static_cast<int32_t>(evlan_id & kNumberMask);
        SW_LOG_AT(where, info, "success  fully reply vlan_id: 0x%x, type: %d.", static_cast<uint32_t>(vlan_id),
                  of.index->type);
        call_vlan_reply(user, *of.index, vlan_id);
    }
    if (!underlay && user.evlan_reply != nullptr) {
        SW_LOG_AT(where, info, "successfully reply evlan_id: 0x%x.", evlan_id);
        call_evlan_reply(user, of);
    }
}

void sw::evlan_kind::tell_refusal(site where, const sw_ebridge_list_item &user, const session &of)
{
    if (user.vlan_reply != nullptr) {
        SW_LOG_AT(where, info, "successfully reply vlan_id: 0x%x, type: %d.", static_cast<uint32_t>(of.reply_value),
                  of.index->type);
        call_vlan_reply(user, *of.index, of.reply_value);
    }
    if (user.evlan_reply != nullptr) {
        SW_LOG_AT(where, info, "reply evlan_id: 0x%x.", static_cast<uint32_t>(of.reply_value));
        call_evlan_reply(user, of);
    }
}

void sw::evlan_kind::take_removal(site where, const sw_ebridge_list_item &user, const session &of)
{
    if (user.evlan_release_reply == nullptr)
        return;
    UBridge__EvlanIndex index = index_of<evlan_kind>(of);
    SW_LOG_AT(where, info, "reply destroy msg evlan_id: 0x%x.", id_of(index));
    user.evlan_release_reply(of.index, &index, SW_EBRIDGE_RELEASE_EVENT);
    ++g_diagnosis_stat.evlan_release_cb;
}

SW_EXPORT int32_t sw_evlan_session_reply(uint32_t db, UBridge__EvlanSession *session, int32_t add)
{
    return sw::apply_session<kind>(SW_HERE, {.db = db, .session = session}, add, sw_evlan_session_reply_add,
                                   sw_evlan_session_reply_del);
}

SW_EXPORT int32_t sw_vlan_mom_msg_evlan_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    return sw::hear_session<kind>(SW_HERE, ctx, msg, args);
}

// ---- scan and subscribe -------------------------------------------------------------------------------------------

SW_EXPORT void **sw_evlan_get_mom_ds_args(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *inst)
{
    return sw::find_pair<kind>(mom_db, cmd, inst);
}

SW_EXPORT int32_t sw_evlan_data_scan_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    return sw::scan_sessions<kind>(SW_HERE, user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_evlan_data_scan(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    return sw_evlan_data_scan_with_db(user_name, static_cast<int32_t>(user->mod_db), func, args);
}

SW_EXPORT int32_t sw_evlan_subscribe_db_exec(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    return sw::subscribe_sessions<kind>(SW_HERE, user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_evlan_subscribe_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    SW_LOG(info, kind::subscribe_db, sw::printable(user_name), mom_db, sw::address(func), args);
    return sw_evlan_subscribe_db_exec(user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_evlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, kind::subscribe, user_name, sw::address(func), args);
    return sw_evlan_subscribe_db_exec(user_name, static_cast<int32_t>(user->mod_db), func, args);
}

SW_EXPORT int32_t sw_vlan_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    return sw_evlan_subscribe(user_name, func, args);
}

// ---- attributes in the store --------------------------------------------------------------------------------------

namespace
{

// The user's local record of an evlan. VLANs need not have been requested: theirs is made when it is missing.
sw_evlan_attr *held_record(sw_ebridge_list_item &user, uint32_t evlan_id)
{
    if (sw::type_of(evlan_id) != kVlan)
        return sw_evlan_db_get_item(0, user.user_name, evlan_id);
    const UBridge__EvlanIndex index = kind::new_index(user.user_name, static_cast<int32_t>(evlan_id));
    return sw_evlan_attr_db_verify(0, &index);
}

// An attribute record of the store with the parts that it points to.
struct stored_evlan {
    UBridge__EvlanIndex index;
    UBridge__EvlanAttrUnderlay underlay = U_BRIDGE__EVLAN_ATTR_UNDERLAY__INIT;
    UBridge__EvlanAttrOverlay overlay = U_BRIDGE__EVLAN_ATTR_OVERLAY__INIT;
    UBridge__Evlan record = U_BRIDGE__EVLAN__INIT;

    stored_evlan(char *t_user, const sw_evlan_attr &attr);
    stored_evlan(const stored_evlan &) = delete;
    stored_evlan &operator=(const stored_evlan &) = delete;

  private:
    void take_underlay(const sw_evlan_attr &attr);
    void take_overlay(const sw_evlan_attr &attr);
};

stored_evlan::stored_evlan(char *t_user, const sw_evlan_attr &attr)
    : index(kind::new_index(t_user, static_cast<int32_t>(attr.evlan_id)))
{
    const uint32_t type = sw::type_of(attr.evlan_id);
    record.index = &index;
    record.type = static_cast<UBridge__EvlanType>(type);
    record.class_id = static_cast<int32_t>(attr.class_id);
    if (sw_evlan_type_underlay(type) != 0)
        take_underlay(attr);
    else
        take_overlay(attr);
}

void stored_evlan::take_underlay(const sw_evlan_attr &attr)
{
    underlay.fid = attr.attr.underlay.fid;
    underlay.svl = is_shared(attr);
    record.attr_case = U_BRIDGE__EVLAN__ATTR_UNDERLAY;
    record.underlay = &underlay;
}

void stored_evlan::take_overlay(const sw_evlan_attr &attr)
{
    const auto &from = attr.attr.overlay;
    overlay.vnid = from.vnid;
    overlay.mcid = from.mcid;
    overlay.uucid = from.uucid;
    overlay.bcid = from.bcid;
    overlay.l3iif = from.l3iif;
    overlay.mapping_vni = from.mapping_vni;
    overlay.mapping_evlan = from.mapping_evlan;
    overlay.ing_flex_cnt_id = from.ing_flex_cnt_id;
    overlay.egr_flex_cnt_id = from.egr_flex_cnt_id;
    record.attr_case = U_BRIDGE__EVLAN__ATTR_OVERLAY;
    record.overlay = &overlay;
}

}  // namespace

SW_EXPORT int32_t sw_evlan_attr_get(sw_evlan_attr *attr)
{
    sw_ebridge_list_item *user = sw::user_of(SW_HERE, attr);
    if (user == nullptr)
        return -2;
    const sw_evlan_attr *record = held_record(*user, attr->evlan_id);
    if (record == nullptr) {
        SW_LOG(error, kind::not_held, user->user_name, attr->evlan_id);
        return -5;
    }
    sw_evlan_attr_copy(attr, record);
    return 0;
}

// The record is built from what the caller gave, not from the local record that it went into.
SW_EXPORT int32_t sw_evlan_attr_set(sw_evlan_attr *attr)
{
    sw_ebridge_list_item *user = sw::user_of(SW_HERE, attr);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "user: %s, evlan_id: 0x%x.", user->user_name, attr->evlan_id);
    if (sw::type_of(attr->evlan_id) == kVlan && attr->attr.underlay.fid == 0)
        attr->attr.underlay.fid = static_cast<int32_t>(attr->evlan_id & sw::kNumberMask);
    sw_evlan_attr *record = held_record(*user, attr->evlan_id);
    if (record == nullptr) {
        SW_LOG(error, "Assert:user[%s].evlan[0x%x] not exsit.", user->user_name, attr->evlan_id);
        return -5;
    }
    sw_evlan_attr_copy(record, attr);
    const stored_evlan stored(user->user_name, *attr);
    const int32_t rv = qz_mom_set(user->mom_handle, user->evlan_attr_mom_db, &stored.record.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:qz_mom_hmset failed, user: %s, evlan_id: 0x%x, rv: %d.", user->user_name, attr->evlan_id,
               rv);
    return rv;
}

// ---- aging --------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_evlan_aging_default_callbak(qz_mom_handle *, const qz_mom_notification *, void *)
{
    return sw::hear_default(SW_HERE);
}

SW_EXPORT int32_t sw_evlan_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                          qz_mom_msg_cb callback, void *args)
{
    return sw::begin_aging<kind>(SW_HERE, user_name, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_evlan_aged_data_delete(const char *user_name) { return sw::begin_deletion(SW_HERE, user_name); }

SW_EXPORT int32_t sw_evlan_no_request_clear(sw_ebridge_list_item *instance)
{
    return sw::clear_unrequested<kind>(SW_HERE, instance);
}

SW_EXPORT int32_t sw_evlan_attr_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                               qz_mom_msg_cb callback, void *args)
{
    return sw::mark_attrs<kind>(SW_HERE, user_name, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_evlan_attr_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    return sw::mark_attrs_sync<kind>(SW_HERE, user_name, aging_timer);
}

SW_EXPORT int32_t sw_evlan_attr_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args)
{
    return sw::delete_marked_attrs<kind>(SW_HERE, user_name, callback, args);
}

// ---- aging of plain VLANs -----------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlans_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                          qz_mom_msg_cb callback, void *args)
{
    SW_LOG(info, "setting aging flag.");
    return sw_evlan_aging_flag_set(user_name, aging_timer, callback, args);
}

// The marks alone: no active-request bit is touched and a missing callback stays missing.
SW_EXPORT int32_t sw_vlan_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                         qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    return sw::mark_sessions<kind>(SW_HERE, *user, kVlan, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_vlan_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    return sw::mark_sessions_sync<kind>(SW_HERE, *user, kVlan, aging_timer);
}

SW_EXPORT int32_t sw_vlan_aged_data_delete(const char *user_name)
{
    SW_LOG(info, "deleting aged data.");
    return sw_evlan_aged_data_delete(user_name);
}
