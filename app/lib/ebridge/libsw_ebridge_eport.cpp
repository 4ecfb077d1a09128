// Eports, in the order of their life: ids and the local database, the index map and the translations through the port
// table, request and release, the allocator's replies, scan and subscribe, attributes, aging. What evlans do alike is in
// the twin_*.hpp templates, the differences in twins.hpp. Neighbours: libsw_ebridge (users, connections),
// libsw_ebridge_ds (counters, delays, the age timer).
#include <arpa/inet.h>
#include <cstdio>

#include "export.hpp"
#include "libddm.h"
#include "twin_aging.hpp"

namespace
{

using kind = sw::eport_kind;

constexpr uint32_t kPort = U_BRIDGE__EPORT_TYPE__PORT;
constexpr uint32_t kLocalPort = U_BRIDGE__EPORT_TYPE__LOCAL_PORT;
constexpr uint32_t kAp = U_BRIDGE__EPORT_TYPE__AP;

uint32_t eport_id_of(uint32_t type, uint32_t phyid) { return type << 24 | (phyid & sw::kNumberMask); }
uint32_t phyid_of(uint32_t phyid_kind, uint32_t eport_id) { return phyid_kind << 24 | (eport_id & sw::kNumberMask); }

// Ports and aggregates are known to the port table; their ids are computed, never mapped.
bool is_in_port_table(uint32_t type) { return type == kPort || type == kAp; }

}  // namespace

// ---- ids ----------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_type_underlay(uint32_t eport_type)
{
    return eport_type == kPort || eport_type == kLocalPort || eport_type == kAp ? 1 : 0;
}

SW_EXPORT int32_t sw_eport_id_underlay(uint32_t eport_id) { return sw_eport_type_underlay(sw::type_of(eport_id)); }

// ---- local database -----------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_db_init(void)
{
    static bool created = false;
    return sw::init_slots<sw_eport_attr>(SW_HERE, created, sw::kTableMissing);
}

SW_EXPORT void sw_eport_init(sw_eport_attr *record, const char *user_name, uint32_t eport_id)
{
    if (record == nullptr || user_name == nullptr)
        return;
    std::memset(record, 0, sizeof *record);  // the block is compared whole, with what no field names
    sw::copy_name(record->user_name, user_name);
    record->eport_id = eport_id;
    record->vlan_filter = U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL;
}

SW_EXPORT sw_eport_attr *sw_eport_db_get_item(uint32_t inst, const char *user_name, uint32_t eport_id)
{
    return sw::find_attr<kind>(inst, user_name, eport_id);
}

SW_EXPORT sw_eport_attr *sw_eport_db_insert_item(uint32_t inst, const char *user_name, sw_eport_attr *record)
{
    return sw::insert_attr<kind>(SW_HERE, inst, user_name, record, nullptr);
}

SW_EXPORT sw_eport_attr *sw_eport_db_insert_item_new(uint32_t inst, const char *user_name, sw_eport_attr *record,
                                                     uint8_t *created)
{
    return sw::insert_attr<kind>(SW_HERE, inst, user_name, record, created);
}

// The look-up wants a registered user, the insertion does not: a user of another process gets a fresh record each time.
SW_EXPORT sw_eport_attr *sw_eport_db_insert_glb_item(uint32_t inst, const char *user_name, uint32_t eport_id)
{
    if (sw_eport_attr *existing = sw_eport_db_get_item(inst, user_name, eport_id); existing != nullptr)
        return existing;
    if (user_name == nullptr)
        return nullptr;
    sw_eport_attr fresh;
    sw_eport_init(&fresh, user_name, eport_id);
    return sw::store_attr<kind>(SW_HERE, inst, fresh);
}

SW_EXPORT void sw_eport_db_delete_item(uint32_t inst, const char *user_name, const UBridge__EportIndex *index)
{
    if (index != nullptr)
        sw::remove_attr<kind>(SW_HERE, inst, sw_eport_db_get_item(inst, user_name, kind::id_of(*index)));
}

SW_EXPORT void sw_eport_db_delete_glb_item(uint32_t inst, const char *user_name, uint32_t eport_id)
{
    if (user_name == nullptr)
        return;
    sw_eport_attr key;
    sw_eport_init(&key, user_name, eport_id);
    sw::remove_attr<kind>(SW_HERE, inst, sw_eport_hash_find(inst, &key));
}

SW_EXPORT int32_t sw_eport_clear_all_db(void)
{
    for (uint32_t inst = 0; inst < SW_EBRIDGE_SLOTS; ++inst)
        sw_eport_hash_traverse(
            inst,
            [](sw_eport_attr *record, void *slot, int32_t) -> int32_t {
                sw_eport_cache_destroy(*static_cast<uint32_t *>(slot), record);
                return 0;
            },
            &inst);
    SW_LOG(info, "clear all eport db!");
    return 0;
}

// Makes sure that the databases and the user exist, and gives the record that a verification inserts.
static bool verification_record(sw::site where, uint32_t inst, const char *user_name, uint32_t eport_id,
                                sw_eport_attr &record)
{
    if (user_name == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad EPORT index.");
        return false;
    }
    sw_ebridge_attr_db_init(inst, user_name);
    sw_eport_init(&record, user_name, eport_id);
    return true;
}

SW_EXPORT sw_eport_attr *sw_eport_attr_db_verify(uint32_t inst, const char *user_name, uint32_t eport_id)
{
    sw_eport_attr record;
    if (!verification_record(SW_HERE, inst, user_name, eport_id, record))
        return nullptr;
    return sw_eport_db_insert_item(inst, user_name, &record);
}

SW_EXPORT sw_eport_attr *sw_eport_attr_db_verify_new(uint32_t inst, const char *user_name, uint32_t eport_id,
                                                     uint8_t *created)
{
    if (created != nullptr)
        *created = 0;
    sw_eport_attr record;
    if (!verification_record(SW_HERE, inst, user_name, eport_id, record))
        return nullptr;
    return sw_eport_db_insert_item_new(inst, user_name, &record, created);
}

// ---- attributes ---------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_attr_copy(sw_eport_attr *dst, const sw_eport_attr *src)
{
    if (!sw::both_given<kind>(SW_HERE, dst, src))
        return -2;
    dst->attr_flags = src->attr_flags;
    dst->attr_flags2 = src->attr_flags2;
    dst->vlan_filter = src->vlan_filter;
    if (sw_eport_id_underlay(src->eport_id) != 0)
        std::memmove(&dst->attr, &src->attr, sizeof dst->attr);
    else
        dst->attr.overlay = src->attr.overlay;
    return 0;
}

// The block is compared whole, so words behind an overlay's fields count as a difference.
SW_EXPORT int32_t sw_eport_attr_cmp(const sw_eport_attr *a, const sw_eport_attr *b)
{
    if (!sw::both_given<kind>(SW_HERE, a, b))
        return -2;
    if (a->attr_flags != b->attr_flags || a->attr_flags2 != b->attr_flags2 || a->vlan_filter != b->vlan_filter)
        return -1;
    const auto *block_a = reinterpret_cast<const uint8_t *>(&a->attr);
    const auto *block_b = reinterpret_cast<const uint8_t *>(&b->attr);
    return std::memcmp(block_a, block_b, sizeof a->attr);
}

namespace
{

template <size_t Words>
void add_vlans(uint32_t (&into)[Words], const uint32_t (&from)[Words])
{
    for (size_t i = 0; i < Words; ++i)
        into[i] |= from[i];
}

void merge_underlay(sw_eport_attr &into, const sw_eport_attr &from)
{
    auto &to = into.attr.underlay;
    const auto &of = from.attr.underlay;
    add_vlans(to.vbmp, of.vbmp);
    add_vlans(to.ubmp, of.ubmp);
    add_vlans(to.mcbmp, of.mcbmp);
    sw::take_value(to.pvid, of.pvid);
    sw::take_value(to.vt_key, of.vt_key);
}

bool says_something(const sw_ebridge_ip &ip)
{
    static constexpr sw_ebridge_ip none = {};
    return std::memcmp(&ip, &none, sizeof none) != 0;
}

void merge_overlay(sw_eport_attr &into, const sw_eport_attr &from)
{
    auto &to = into.attr.overlay;
    const auto &of = from.attr.overlay;
    sw::take_value(to.match_vid, of.match_vid);
    sw::take_value(to.match_port, of.match_port);
    sw::take_value(to.nhop, of.nhop);
    sw::take_value(to.mpath_flag, of.mpath_flag);
    sw::take_value(to.encap, of.encap);
    sw::take_value(to.dip, of.dip);
    sw::take_value(to.peer_mode, of.peer_mode);
    sw::take_value(to.evlan_id, of.evlan_id);
    sw::take_value(to.split_horizon, of.split_horizon);
    sw::take_value(to.mtu, of.mtu);
    to.class_id |= of.class_id;
    sw::take_value(to.match_inner_vid, of.match_inner_vid);
    sw::take_value(to.egr_vlan_action, of.egr_vlan_action);
    sw::take_value(to.ovid, of.ovid);
    sw::take_value(to.ing_flex_cnt_id, of.ing_flex_cnt_id);
    sw::take_value(to.egr_flex_cnt_id, of.egr_flex_cnt_id);
    if (says_something(of.sip))
        to.sip = of.sip;
    if (of.is_tagged != 0)
        to.is_tagged = 1;
}

void merge_record(sw_eport_attr &into, const sw_eport_attr &from)
{
    if (from.vlan_filter != U_BRIDGE__VLAN_FILTER_TYPE__FILTER_ALL)
        into.vlan_filter = from.vlan_filter;
    if (sw_eport_id_underlay(into.eport_id) != 0)
        merge_underlay(into, from);
    else
        merge_overlay(into, from);
}

}  // namespace

// The last user in the registry's order with a value of its own wins each field; VLAN bitmaps and class ids are OR-ed.
SW_EXPORT sw_eport_attr *sw_eport_attr_merge(uint32_t eport_id)
{
    static constinit sw_eport_attr merged = {};
    sw_eport_init(&merged, "", eport_id);
    return sw::merge_users<kind, merge_record>(SW_HERE, merged) ? &merged : nullptr;
}

// ---- index map ----------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_index_map_db_init(void)
{
    static bool created = false;
    return sw::init_slots<sw_eport_index_map>(SW_HERE, created, sw::kMapMissing);
}

bool sw::describe(char (&text)[kMessageSize], const char *prefix, const sw_eport_index_map &item)
{
    switch (item.kind) {
        case SW_INDEX_MAP_APP2UDP:
            std::snprintf(text, sizeof text,
                          "%sEPORT Index map for %s, appIndex is 0x%x+0x%x, UDPIndex is 0x%x ds_flag:%d.", prefix,
                          item.user_name, item.key[1], item.key[2], item.value[0], item.ds_flag);
            return true;
        case SW_INDEX_MAP_UDP2APP:
            std::snprintf(text, sizeof text, "%sEPORT Index map for %s, UDPIndex is 0x%x, appIndex is 0x%x+0x%x.",
                          prefix, item.user_name, item.key[0], item.value[1], item.value[2]);
            return true;
        case SW_INDEX_MAP_UDP2SDK:
            std::snprintf(text, sizeof text, "%sEPORT Index map for %s, UDPIndex is 0x%x, SDKIndex is 0x%x + 0x%x.",
                          prefix, item.user_name, item.key[0], item.value[0], item.value[1]);
            return true;
        case SW_INDEX_MAP_SDK2UDP:
            std::snprintf(text, sizeof text, "%sEPORT Index map for %s, SDKIndex is 0x%x + 0x%x, UDPIndex is 0x%x.",
                          prefix, item.user_name, item.key[0], item.key[1], item.value[0]);
            return true;
        default:
            return false;
    }
}

SW_EXPORT void sw_eport_index_map_init_appkey(sw_eport_index_map *item, const UBridge__EportSession *session)
{
    if (item != nullptr && session != nullptr && session->index != nullptr)
        sw::set_app_key<kind>(*item, *session->index);
}

SW_EXPORT void sw_eport_index_map_init_udpkey(sw_eport_index_map *item, uint32_t eport_id)
{
    if (item != nullptr)
        sw::set_udp_key<kind>(*item, eport_id);
}

// Of a chip key only the vport counts.
SW_EXPORT void sw_eport_index_map_init_sdkkey(sw_eport_index_map *item, const UBridge__EportSdkIndex *sdk)
{
    if (item != nullptr && sdk != nullptr)
        sw::set_key(*item, SW_INDEX_MAP_SDK2UDP, {0, static_cast<uint32_t>(sdk->vport)});
}

SW_EXPORT sw_eport_index_map *sw_eport_index_map_get_item(uint32_t inst, const sw_eport_index_map *key)
{
    return sw::get_map_item<kind>(SW_HERE, inst, key);
}

// Creation is part of it: there is no call of its own for that, as evlans have one.
SW_EXPORT sw_eport_index_map *sw_eport_index_map_update_item(uint32_t inst, const sw_eport_index_map *item)
{
    if (!sw::check_map_arguments(SW_HERE, inst, item))
        return nullptr;
    sw_eport_index_map *stored = sw_eport_index_map_hash_find(inst, item);
    if (stored == nullptr)
        return sw::create_map_item<kind>(SW_HERE, inst, *item);
    sw::replace_map_item<kind>(SW_HERE, *stored, *item);
    return stored;
}

SW_EXPORT int32_t sw_eport_index_map_delete_item(uint32_t inst, const sw_eport_index_map *key)
{
    return sw::delete_map_item<kind>(SW_HERE, inst, key);
}

// ---- translations -------------------------------------------------------------------------------------------------

namespace
{

bool all_given(sw::site where, const void *in, const void *out)
{
    if (in != nullptr && out != nullptr)
        return true;
    SW_LOG_AT(where, error, "Assert:Bad App index.");
    return false;
}

// The eport of an interface: which of the two types it is, is the port table's to say. An interface that it does not
// know gives the aggregate's id 0.
int32_t eport_of_ifx(sw::site where, uint32_t ifx, uint32_t *eport_id)
{
    uint32_t phyid = 0;
    const int32_t rv = libddm_get_phyid_by_ifx(ifx, &phyid);
    if (rv != 0) {
        SW_LOG_AT(where, error, "Get phyid by ifx[0x%x] failed, error is %d.", ifx, rv);
        phyid = 0;
    }
    *eport_id = eport_id_of(phyid >> 24 == LIBDDM_KIND_GLOBAL ? kPort : kAp, phyid);
    SW_LOG_AT(where, info, "libddm ifx: %d => phyid: 0x%x, rv: %d.", ifx, phyid, rv);
    SW_LOG_AT(where, info, "eport[0x%x].", *eport_id);
    return rv;
}

int32_t ifx_of_eport(sw::site where, uint32_t eport_id, UBridge__EportAppIndex &out)
{
    const bool is_port = sw::type_of(eport_id) == kPort;
    const uint32_t phyid = phyid_of(is_port ? LIBDDM_KIND_GLOBAL : LIBDDM_KIND_AGGREGATE, eport_id);
    out.keyid1 = 0;
    uint32_t ifx = 0;
    const int32_t rv = libddm_get_ifx_by_phyid(phyid, &ifx);
    if (rv != 0) {
        SW_LOG_AT(where, error, "Get ifx by phyid[0x%x] failed, error is %d.", phyid, rv);
        return rv;
    }
    out.keyid2 = static_cast<int32_t>(ifx);
    SW_LOG_AT(where, info, "The ifx of phyid[0x%x] is 0x%x.", phyid, ifx);
    return 0;
}

}  // namespace

SW_EXPORT int32_t sw_eport_app2udp(const UBridge__EportAppIndex *app, UBridge__EportIndex *out)
{
    if (!all_given(SW_HERE, app, out))
        return -2;
    out->eport_id = 0;
    if (is_in_port_table(static_cast<uint32_t>(app->type))) {
        uint32_t eport_id = 0;
        const int32_t rv = eport_of_ifx(SW_HERE, static_cast<uint32_t>(app->keyid2), &eport_id);
        out->eport_id = static_cast<int32_t>(eport_id);
        return rv;
    }
    const sw_eport_index_map key = sw::app_item<kind>(*app);
    const sw_eport_index_map *item = sw_eport_index_map_get_item(0, &key);
    if (item == nullptr)
        return -1;
    out->eport_id = static_cast<int32_t>(item->value[0]);
    return 0;
}

SW_EXPORT int32_t sw_eport_udp2app(const UBridge__EportIndex *index, UBridge__EportAppIndex *out)
{
    if (!all_given(SW_HERE, index, out))
        return -2;
    const uint32_t eport_id = kind::id_of(*index);
    if (is_in_port_table(sw::type_of(eport_id)))
        return ifx_of_eport(SW_HERE, eport_id, *out);
    const sw_eport_index_map key = sw::udp_item<kind>(eport_id);
    const sw_eport_index_map *item = sw_eport_index_map_get_item(0, &key);
    if (item == nullptr) {
        SW_LOG(warning, "EPORT DB get failed, eport[0x%x].", eport_id);
        return -1;
    }
    out->type = static_cast<int32_t>(item->value[0]);
    out->keyid1 = static_cast<int32_t>(item->value[1]);
    out->keyid2 = static_cast<int32_t>(item->value[2]);
    SW_LOG(info, "EPORT[0x%x] mapped to app_index->key1[%d], key2[%d], type[%d].", eport_id, out->keyid1, out->keyid2,
           out->type);
    return 0;
}

// An unknown port keeps its id here and becomes an aggregate's on the way back: kept so on purpose.
SW_EXPORT int32_t sw_eport_udp2sdp(const UBridge__EportIndex *udp, UBridge__EportIndex *sdp)
{
    if (!all_given(SW_HERE, udp, sdp))
        return -2;
    const uint32_t udp_id = kind::id_of(*udp);
    uint32_t sdp_id = udp_id;
    uint32_t lphyid = 0;
    if (sw::type_of(udp_id) == kPort && libddm_get_lphyid_by_gphyid(phyid_of(LIBDDM_KIND_GLOBAL, udp_id), &lphyid) == 0)
        sdp_id = eport_id_of(lphyid >> 24 == LIBDDM_KIND_LOCAL ? kLocalPort : kAp, lphyid);
    sdp->eport_id = static_cast<int32_t>(sdp_id);
    SW_LOG(info, "EPORT udp[0x%x] to sdp[0x%x].", udp_id, sdp_id);
    return 0;
}

SW_EXPORT int32_t sw_eport_sdp2udp(const UBridge__EportIndex *sdp, UBridge__EportIndex *udp)
{
    if (!all_given(SW_HERE, sdp, udp))
        return -2;
    const uint32_t sdp_id = kind::id_of(*sdp);
    if (sw::type_of(sdp_id) != kLocalPort) {
        udp->eport_id = sdp->eport_id;
        return 0;
    }
    const uint32_t lphyid = phyid_of(LIBDDM_KIND_LOCAL, sdp_id);
    uint32_t gphyid = 0;
    const int32_t rv = libddm_get_gphyid_by_lphyid(lphyid, &gphyid);
    if (rv != 0) {
        SW_LOG(error, "libddm_get_gphyid_by_lphyid failed, rv: %d.", rv);
        gphyid = 0;
    }
    SW_LOG(info, "libddm lphyid: 0x%x => gphyid: 0x%x, rv: %d.", lphyid, gphyid, rv);
    const uint32_t udp_id = eport_id_of(gphyid >> 24 == LIBDDM_KIND_GLOBAL ? kPort : kAp, gphyid);
    udp->eport_id = static_cast<int32_t>(udp_id);
    SW_LOG(info, "eport[0x%x].", udp_id);
    return rv;
}

// ---- dumps of the index map ---------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_db_ut_dump_op(sw_eport_index_map *item, void *dump_args, int32_t)
{
    return sw::dump_map_item<kind>(SW_HERE, item, static_cast<sw_ebridge_dump_args *>(dump_args), "\n");
}

SW_EXPORT int32_t sw_eport_res_db_ut_dump(uint32_t type, uint32_t id)
{
    sw::print("\n========== <eport index map db, input type: 0x%x, id: 0x%x> =============\n", type, id);
    sw_ebridge_dump_args filter = {};
    filter.type = type;
    filter.id = id;
    sw::dump_map_slots<kind, sw_eport_db_ut_dump_op>(filter);
    return 0;
}

// ---- dumps of the local database ----------------------------------------------------------------------------------

namespace
{

void print_underlay(const sw_eport_attr &record)
{
    const auto &underlay = record.attr.underlay;
    sw::print("PVID:%d, VT_KEY:0x%x.\n", underlay.pvid, underlay.vt_key);
    const struct {
        const char *label;
        const uint32_t (&words)[128];
    } rows[] = {
        {"vlan: ", underlay.vbmp},
        {"untag vlan: ", underlay.ubmp},
        {"multicast vlan: ", underlay.mcbmp},
    };
    for (const auto &row : rows) {
        sw::print("%s", row.label);
        sw::print_bitmap(row.words, sw::count_of(row.words));
    }
}

void print_overlay(const sw_eport_attr &record)
{
    const auto &overlay = record.attr.overlay;
    char dip[INET_ADDRSTRLEN];
    char sip[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET, &overlay.dip, dip, sizeof dip);
    inet_ntop(overlay.sip.is_ipv6 != 0 ? AF_INET6 : AF_INET, overlay.sip.address, sip, sizeof sip);
    // One word with two meanings, which the mode tells apart.
    const char *peer = overlay.peer_mode != 0 ? "peer_eport_id" : "evlan_id";
    sw::print(
        "ClassID:%x, match_vid:%d, match_inner_vid:%d, match_port:0x%x, nhop:%d, mpath_flag:%d, encap:%d, dip:%s, sip:%s, eport_mode:%d, %s:0x%x, ",
        overlay.class_id, overlay.match_vid, overlay.match_inner_vid, overlay.match_port, overlay.nhop,
        overlay.mpath_flag, overlay.encap, dip, sip, overlay.peer_mode, peer, overlay.evlan_id);
    sw::print(
        "split_horizon:%d, mtu:%d, egr_vlan_action:%d, ovid:%d, is_tagged:%s, ing_flex_cnt_id: %u, egr_flex_cnt_id: %u.\n",
        overlay.split_horizon, overlay.mtu, overlay.egr_vlan_action, overlay.ovid,
        overlay.is_tagged != 0 ? "true" : "false", overlay.ing_flex_cnt_id, overlay.egr_flex_cnt_id);
}

int32_t dump_record(sw_eport_attr *record, void *dump_args, int32_t)
{
    auto *filter = static_cast<sw_ebridge_dump_args *>(dump_args);
    if (!sw::passes(*filter, record->eport_id))
        return 0;
    sw::print("%s, 0x%x, vlan_filter:%d, ", record->user_name, record->eport_id, record->vlan_filter);
    if (sw_eport_id_underlay(record->eport_id) != 0)
        print_underlay(*record);
    else
        print_overlay(*record);
    sw::print("%s", sw::kRule81);
    ++filter->count;
    return 0;
}

// By slot and not by user: a grant's record is the requester's, who may be of another process.
void dump_records(uint32_t type, uint32_t id)
{
    sw::print("\n========== <eport attr db, input eport_type: 0x%x, eport_id: 0x%x> =============\n", type, id);
    for (uint32_t inst = 0; inst < SW_EBRIDGE_SLOTS; ++inst) {
        if (!sw::family<sw_eport_attr>::exists(inst))
            continue;
        sw_ebridge_dump_args filter = {};
        filter.type = type;
        filter.id = id;
        sw_eport_hash_traverse(inst, dump_record, &filter);
        sw::print("total eport attr db of instance(%d) is %d.\n", inst, filter.count);
    }
}

}  // namespace

// db_type: 0 every kind, 1 the local database, 2 the index map.
SW_EXPORT int32_t sw_eport_db_ut_dump(int32_t db_type, int32_t eport_type, uint32_t eport_id)
{
    const auto type = static_cast<uint32_t>(eport_type);
    if (db_type == 0 || db_type == 1)
        dump_records(type, eport_id);
    if (db_type == 0 || db_type == 2)
        sw_eport_res_db_ut_dump(type, eport_id);
    return 0;
}

SW_EXPORT int32_t sw_port_db_ut_dump(int32_t db_type, uint32_t eport_id)
{
    return sw_eport_db_ut_dump(db_type, static_cast<int32_t>(kPort), eport_id);
}

SW_EXPORT int32_t sw_ap_db_ut_dump(int32_t db_type, uint32_t eport_id)
{
    return sw_eport_db_ut_dump(db_type, static_cast<int32_t>(kAp), eport_id);
}

// ---- request and release ------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_request(UBridge__EportAppIndex *app_index, int32_t request_value,
                                   UBridge__ResPriority priority)
{
    return sw::request<kind>(SW_HERE, app_index, request_value, priority);
}

SW_EXPORT int32_t sw_eport_release_exec(UBridge__EportAppIndex *app_index, uint32_t delayed)
{
    return sw::release<kind>(SW_HERE, app_index, delayed);
}

SW_EXPORT int32_t sw_eport_release(UBridge__EportAppIndex *app_index) { return sw_eport_release_exec(app_index, 1); }

SW_EXPORT int32_t sw_eport_release_direct(UBridge__EportAppIndex *app_index)
{
    return sw_eport_release_exec(app_index, 0);
}

SW_EXPORT int32_t sw_eport_release_callback(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    return sw::hear_release_end<kind>(SW_HERE, msg, args);
}

// ---- replies ------------------------------------------------------------------------------------------------------

namespace
{

using reply = sw::reply<kind>;

void call_eport_reply(const sw_ebridge_list_item &user, const UBridge__EportSession &session)
{
    UBridge__EportIndex index = sw::index_of<kind>(session);
    user.eport_reply(session.index, &index);
    ++g_diagnosis_stat.eport_reply_cb;
}

int32_t sw_eport_session_reply_db_update(sw_ebridge_list_item *user, void *arg, int32_t)
{
    return sw::map_reply<kind>(SW_HERE, *user, *static_cast<reply *>(arg));
}

int32_t sw_eport_session_reply_add_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EportSession &session = *static_cast<reply *>(arg)->session;
    if (kind::in_scope(*user, session))
        kind::take_grant(SW_HERE, *user, session);
    return 0;
}

int32_t sw_eport_session_reply_rollback_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    return sw::roll_back<kind>(SW_HERE, *user, *static_cast<reply *>(arg)->session);
}

int32_t sw_eport_session_release_reply_foreach(sw_ebridge_list_item *user, void *arg, int32_t)
{
    const UBridge__EportSession &session = *static_cast<reply *>(arg)->session;
    if (kind::hears_removal(*user, session))
        kind::take_removal(SW_HERE, *user, session);
    return 0;
}

void sw_eport_session_reply_add(reply answer)
{
    sw::reply_add<kind>(SW_HERE, answer,
                        {sw_eport_session_reply_db_update, sw_eport_session_reply_add_foreach,
                         sw_eport_session_reply_rollback_foreach});
}

void sw_eport_session_release_reply(reply answer)
{
    sw::reply_remove<kind>(SW_HERE, answer, sw_eport_session_release_reply_foreach);
}

}  // namespace

void sw::eport_kind::take_grant(site where, const sw_ebridge_list_item &user, const session &of)
{
    sw_eport_db_insert_glb_item(0, of.index->t_user, static_cast<uint32_t>(of.reply_value));
    if (user.eport_reply == nullptr)
        return;
    SW_LOG_AT(where, info, "successfully reply eport_id: 0x%x.", static_cast<uint32_t>(of.reply_value));
    call_eport_reply(user, of);
}

void sw::eport_kind::tell_refusal(site where, const sw_ebridge_list_item &user, const session &of)
{
    if (user.eport_reply == nullptr)
        return;
    SW_LOG_AT(where, info, "reply eport_id: 0x%x.", static_cast<uint32_t>(of.reply_value));
    call_eport_reply(user, of);
}

void sw::eport_kind::take_removal(site where, const sw_ebridge_list_item &user, const session &of)
{
    if (user.eport_release_reply != nullptr) {
        UBridge__EportIndex index = index_of<eport_kind>(of);
        SW_LOG_AT(where, info, "reply destroy msg eport_id: 0x%x.", id_of(index));
        user.eport_release_reply(of.index, &index, SW_EBRIDGE_RELEASE_EVENT);
        ++g_diagnosis_stat.eport_release_cb;
    }
    sw_eport_db_delete_glb_item(0, of.index->t_user, static_cast<uint32_t>(of.reply_value));
}

SW_EXPORT int32_t sw_eport_session_reply(uint32_t db, UBridge__EportSession *session, int32_t add)
{
    return sw::apply_session<kind>(SW_HERE, {.db = db, .session = session}, add, sw_eport_session_reply_add,
                                   sw_eport_session_release_reply);
}

SW_EXPORT int32_t sw_vlan_mom_msg_eport_session_reply(qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    return sw::hear_session<kind>(SW_HERE, ctx, msg, args);
}

// ---- scan and subscribe -------------------------------------------------------------------------------------------

SW_EXPORT void **sw_eport_get_mom_ds_args(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *inst)
{
    return sw::find_pair<kind>(mom_db, cmd, inst);
}

SW_EXPORT int32_t sw_eport_data_scan_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    return sw::scan_sessions<kind>(SW_HERE, user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_eport_data_scan(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    return sw_eport_data_scan_with_db(user_name, static_cast<int32_t>(user->mod_db), func, args);
}

SW_EXPORT int32_t sw_eport_subscribe_with_db(const char *user_name, int32_t mom_db, sw_ebridge_mom_func func,
                                             void *args)
{
    SW_LOG(info, kind::subscribe_db, sw::printable(user_name), mom_db, sw::address(func), args);
    return sw::subscribe_sessions<kind>(SW_HERE, user_name, mom_db, func, args);
}

SW_EXPORT int32_t sw_eport_subscribe(const char *user_name, sw_ebridge_mom_func func, void *args)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(info, kind::subscribe, user_name, sw::address(func), args);
    return sw::subscribe_sessions<kind>(SW_HERE, user_name, static_cast<int32_t>(user->mod_db), func, args);
}

// ---- attributes in the store --------------------------------------------------------------------------------------

namespace
{

// The user's local record of an eport. Ports and aggregates need not have been requested: theirs is made when it is
// missing.
sw_eport_attr *held_record(const sw_ebridge_list_item &user, uint32_t eport_id)
{
    if (is_in_port_table(sw::type_of(eport_id)))
        return sw_eport_attr_db_verify(0, user.user_name, eport_id);
    return sw_eport_db_get_item(0, user.user_name, eport_id);
}

// The view of an attribute record in the store, with the parts that it points to.
struct stored_view {
    UBridge__EportAttrUnderlay underlay = U_BRIDGE__EPORT_ATTR_UNDERLAY__INIT;
    UBridge__EportAttrOverlay overlay = U_BRIDGE__EPORT_ATTR_OVERLAY__INIT;
    PLibpub__Ip sip = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4 = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6 = P_LIBPUB__IPV6__INIT;

    stored_view(UBridge__Eport &record, const sw_eport_attr &attr);
    stored_view(const stored_view &) = delete;
    stored_view &operator=(const stored_view &) = delete;

  private:
    void take_overlay(const sw_eport_attr &attr);
    void take_sip(const sw_ebridge_ip &from);
};

// The pvid of a record is always 0: port default VLANs have a table of their own.
stored_view::stored_view(UBridge__Eport &record, const sw_eport_attr &attr)
{
    record.type = static_cast<UBridge__EportType>(sw::type_of(attr.eport_id));
    record.vlan_filter = static_cast<UBridge__VlanFilterType>(attr.vlan_filter);
    if (sw_eport_id_underlay(attr.eport_id) != 0) {
        underlay.vt_key = static_cast<int32_t>(attr.attr.underlay.vt_key);
        record.attr_case = U_BRIDGE__EPORT__ATTR_UNDERLAY;
        record.underlay = &underlay;
        return;
    }
    take_overlay(attr);
    record.attr_case = U_BRIDGE__EPORT__ATTR_OVERLAY;
    record.overlay = &overlay;
}

void stored_view::take_overlay(const sw_eport_attr &attr)
{
    const auto &from = attr.attr.overlay;
    overlay.match_vid = static_cast<int32_t>(from.match_vid);
    overlay.match_port = static_cast<int32_t>(from.match_port);
    overlay.mpath_flag = static_cast<int32_t>(from.mpath_flag);
    overlay.nhop = static_cast<int32_t>(from.nhop);
    overlay.dip = static_cast<int32_t>(from.dip);
    overlay.encap = static_cast<int32_t>(from.encap);
    overlay.peer_mode = static_cast<int32_t>(from.peer_mode);
    // One word says who the peer is: an eport in peer mode, else an evlan.
    (from.peer_mode != 0 ? overlay.peer_eport_id : overlay.evlan_id) = static_cast<int32_t>(from.evlan_id);
    overlay.split_horizon = static_cast<int32_t>(from.split_horizon);
    overlay.mtu = static_cast<int32_t>(from.mtu);
    overlay.class_id = static_cast<int32_t>(from.class_id);
    overlay.match_inner_vid = static_cast<int32_t>(from.match_inner_vid);
    overlay.egr_vlan_action = from.egr_vlan_action;
    overlay.ovid = from.ovid;
    overlay.ing_flex_cnt_id = from.ing_flex_cnt_id;
    overlay.egr_flex_cnt_id = from.egr_flex_cnt_id;
    overlay.is_tagged = from.is_tagged;
    take_sip(from.sip);
}

void stored_view::take_sip(const sw_ebridge_ip &from)
{
    if (from.is_ipv6 != 0) {
        v6.data.data = const_cast<uint8_t *>(from.address);  // packed, never written
        v6.data.len = sizeof from.address;
        sip.ip_case = P_LIBPUB__IP__IP_V6;
        sip.v6 = &v6;
    } else {
        std::memcpy(&v4.data, from.address, sizeof v4.data);
        sip.ip_case = P_LIBPUB__IP__IP_V4;
        sip.v4 = &v4;
    }
    overlay.sip = &sip;
}

}  // namespace

SW_EXPORT int32_t sw_eport_attr_get(sw_eport_attr *attr)
{
    const sw_ebridge_list_item *user = sw::user_of(SW_HERE, attr);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "user[%s].eport[0x%x].", user->user_name, attr->eport_id);
    const sw_eport_attr *record = held_record(*user, attr->eport_id);
    if (record == nullptr) {
        SW_LOG(error, kind::not_held, user->user_name, attr->eport_id);
        return -5;
    }
    sw_eport_attr_copy(attr, record);
    return 0;
}

// The record is built from the local one that the caller's went into.
SW_EXPORT int32_t sw_eport_attr_set(sw_eport_attr *attr)
{
    sw_ebridge_list_item *user = sw::user_of(SW_HERE, attr);
    if (user == nullptr)
        return -2;
    SW_LOG(info, "user[%s].eport[0x%x].", user->user_name, attr->eport_id);
    sw_eport_attr *held = held_record(*user, attr->eport_id);
    if (held == nullptr) {
        SW_LOG(error, kind::not_held, user->user_name, attr->eport_id);
        return -5;
    }
    sw_eport_attr_copy(held, attr);
    UBridge__EportIndex index = kind::new_index(user->user_name, static_cast<int32_t>(held->eport_id));
    UBridge__Eport record = U_BRIDGE__EPORT__INIT;
    record.index = &index;
    const int32_t rv =
        sw_eport_attr_push_udp(user->mom_handle, static_cast<int32_t>(user->eport_attr_mom_db), &record, held);
    if (rv != 0)
        SW_LOG(error, "Assert:user[%s].eport[0x%x] publish failed, error is %d.", user->user_name, held->eport_id, rv);
    return rv;
}

SW_EXPORT int32_t sw_eport_attr_push_udp(qz_mom_handle *mom_handle, int32_t db, UBridge__Eport *record,
                                         const sw_eport_attr *attr)
{
    if (record == nullptr || attr == nullptr) {
        SW_LOG(error, "Assert:Bad arg: NULL.");
        return -2;
    }
    const stored_view view(*record, *attr);
    const int32_t rv = qz_mom_set(mom_handle, static_cast<uint32_t>(db), &record->base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:ATTR of EPORT(0x%x) push failed, error is %d.", attr->eport_id, rv);
    record->attr_case = U_BRIDGE__EPORT__ATTR__NOT_SET;  // what it pointed to ends here
    record->underlay = nullptr;
    return rv;
}

SW_EXPORT int32_t sw_eport_attr_del(sw_eport_attr *attr)
{
    sw_ebridge_list_item *user = sw::user_of(SW_HERE, attr);
    if (user == nullptr)
        return -2;
    const uint32_t eport_id = attr->eport_id;  // attr may be the very record that goes
    if (sw_eport_db_get_item(0, user->user_name, eport_id) == nullptr) {
        SW_LOG(error, kind::not_held, user->user_name, eport_id);
        return -5;
    }
    UBridge__EportIndex index = kind::new_index(user->user_name, static_cast<int32_t>(eport_id));
    UBridge__Eport record = U_BRIDGE__EPORT__INIT;
    record.index = &index;
    const int32_t rv = qz_mom_del(user->mom_handle, user->eport_attr_mom_db, &record.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG(error, "Assert:user[%s].eport[0x%x] publish failed, error is %d.", user->user_name, eport_id, rv);
    sw_eport_db_delete_item(0, user->user_name, &index);
    SW_LOG(info, "eport attr del success user[%s].eport[0x%x]", user->user_name, eport_id);
    return rv;
}

// ---- aging --------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_eport_aging_default_callbak(qz_mom_handle *, const qz_mom_notification *, void *)
{
    return sw::hear_default(SW_HERE);
}

SW_EXPORT int32_t sw_eport_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                          qz_mom_msg_cb callback, void *args)
{
    return sw::begin_aging<kind>(SW_HERE, user_name, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_eport_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    sw::forget_requests<kind>(*user);
    return sw::mark_sessions_sync<kind>(SW_HERE, *user, 0, aging_timer);
}

SW_EXPORT int32_t sw_eport_aged_data_delete(const char *user_name) { return sw::begin_deletion(SW_HERE, user_name); }

SW_EXPORT int32_t sw_eport_no_request_clear(sw_ebridge_list_item *instance)
{
    return sw::clear_unrequested<kind>(SW_HERE, instance);
}

SW_EXPORT int32_t sw_eport_attr_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                               qz_mom_msg_cb callback, void *args)
{
    return sw::mark_attrs<kind>(SW_HERE, user_name, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_eport_attr_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    return sw::mark_attrs_sync<kind>(SW_HERE, user_name, aging_timer);
}

SW_EXPORT int32_t sw_eport_attr_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args)
{
    return sw::delete_marked_attrs<kind>(SW_HERE, user_name, callback, args);
}
