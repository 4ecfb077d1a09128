// The chip driver's side (the "SDK adapter"): it reports the hardware objects that it makes behind evlans and eports. Their
// chip keys are kept in the index maps beside the applications' keys, the users of the chip's unit hear of each object, and
// the driver translates both ways. A unit is a slot. Neighbours: twin_tables.hpp (index maps), libsw_ebridge (users).
#include <cstdio>

#include "export.hpp"
#include "libddm.h"
#include "twin_tables.hpp"

// ---- evlans and eports side by side ---------------------------------------------------------------------------------

namespace
{

using evlan_index = UBridge__EvlanIndex;
using evlan_sdk = SBridge__EvlanSdkIndex;
using eport_index = UBridge__EportIndex;
using eport_sdk = UBridge__EportSdkIndex;

constexpr uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

// What differs between the two in the index maps: which words make a chip key.
struct evlan_chip : sw::evlan_kind {
    using sdk_index = evlan_sdk;
    static constexpr char no_index[] = "Assert:evlan_index(%p) is null\n";
    static constexpr char no_sdk_index[] = "Assert:sdk_index(%p) is null\n";

    static sdk_index new_sdk_index() { return S_BRIDGE__EVLAN_SDK_INDEX__INIT; }
    // All of the key counts in a look-up.
    static void set_sdk_key(map_item &item, const sdk_index &sdk)
    {
        sw::set_key(item, SW_INDEX_MAP_SDK2UDP, {static_cast<uint32_t>(sdk.type), word(sdk.vsi), word(sdk.vid)});
    }
    static void set_sdk_value(map_item &item, const sdk_index &sdk)
    {
        item.value[0] = static_cast<uint32_t>(sdk.type);
        item.value[1] = word(sdk.vsi);
        item.value[2] = word(sdk.vid);
    }
    static void take_sdk_value(sdk_index &sdk, const map_item &item)
    {
        sdk.type = static_cast<UBridge__EvlanType>(item.value[0]);
        sdk.vsi = static_cast<int32_t>(item.value[1]);
        sdk.vid = static_cast<int32_t>(item.value[2]);
    }
};

struct eport_chip : sw::eport_kind {
    using sdk_index = eport_sdk;
    static constexpr char no_index[] = "Assert:eport_index is null\n";
    static constexpr char no_index_to_create[] = "Assert:eport_indexis null\n";  // operators know it so
    static constexpr char no_sdk_index[] = "Assert:sdk_index is null\n";

    static sdk_index new_sdk_index() { return U_BRIDGE__EPORT_SDK_INDEX__INIT; }
    // The vport alone counts: a chip numbers those of all types together.
    static void set_sdk_key(map_item &item, const sdk_index &sdk) { sw_eport_index_map_init_sdkkey(&item, &sdk); }
    static void set_sdk_value(map_item &item, const sdk_index &sdk)
    {
        item.value[0] = word(sdk.type);
        item.value[1] = word(sdk.vport);
    }
    static void take_sdk_value(sdk_index &sdk, const map_item &item)
    {
        sdk.type = static_cast<int32_t>(item.value[0]);
        sdk.vport = static_cast<int32_t>(item.value[1]);
    }
};

// ---- what they do alike ---------------------------------------------------------------------------------------------

bool is_unit(sw::site where, uint32_t unit)
{
    if (unit < SW_EBRIDGE_SLOTS)
        return true;
    SW_LOG_AT(where, error, "Assert:Bad inst %d.", unit);
    return false;
}

// `text` may name the pointer, or not.
bool is_given(sw::site where, const void *argument, const char *text)
{
    if (argument == nullptr)
        SW_LOG_UNCHECKED_AT(where, error, text, argument);
    return argument != nullptr;
}

template <class Chip>
bool are_given(sw::site where, uint32_t unit, const typename Chip::index *index, const typename Chip::sdk_index *sdk,
               const char *no_index = Chip::no_index)
{
    return is_unit(where, unit) && is_given(where, index, no_index) && is_given(where, sdk, Chip::no_sdk_index);
}

// A zeroed item in the name of the unit's driver.
template <class Chip>
typename Chip::map_item item_of(uint32_t unit)
{
    typename Chip::map_item item = {};
    std::snprintf(item.user_name, sizeof item.user_name, "sdavlan.unit%d", static_cast<int>(unit));
    return item;
}

template <class Chip>
const typename Chip::map_item *find_sdk(uint32_t unit, uint32_t id)
{
    typename Chip::map_item key = {};
    sw::set_key(key, SW_INDEX_MAP_UDP2SDK, {id});
    return Chip::map_get(unit, &key);
}

template <class Chip>
const typename Chip::map_item *find_udp(uint32_t unit, const typename Chip::sdk_index &sdk)
{
    typename Chip::map_item key = {};
    Chip::set_sdk_key(key, sdk);
    return Chip::map_get(unit, &key);
}

// Both directions, over those that there are. A failure is the map's to log; the hardware object is there all the same.
template <class Chip>
void pair(uint32_t unit, uint32_t id, const typename Chip::sdk_index &sdk)
{
    typename Chip::map_item to_sdk = item_of<Chip>(unit);
    sw::set_key(to_sdk, SW_INDEX_MAP_UDP2SDK, {id});
    Chip::set_sdk_value(to_sdk, sdk);
    Chip::map_update(unit, &to_sdk);

    typename Chip::map_item to_udp = item_of<Chip>(unit);
    Chip::set_sdk_key(to_udp, sdk);
    to_udp.value[0] = id;
    Chip::map_update(unit, &to_udp);
}

// Takes both directions out, and gives the chip key that the id had. 0, or -1 when it had none.
template <class Chip>
int32_t unpair(uint32_t unit, uint32_t id, typename Chip::sdk_index &sdk)
{
    const typename Chip::map_item *stored = find_sdk<Chip>(unit, id);
    if (stored == nullptr)
        return -1;
    Chip::take_sdk_value(sdk, *stored);
    typename Chip::map_item key = *stored;
    Chip::map_delete(unit, &key);
    Chip::set_sdk_key(key, sdk);
    Chip::map_delete(unit, &key);
    return 0;
}

// Lets `tell` call that callback of each user of the unit who has it.
template <class Callback, class Tell>
void tell_users(uint32_t unit, Callback sw_ebridge_list_item::*member, Tell tell)
{
    struct walk {
        Callback sw_ebridge_list_item::*member;
        Tell *tell;
    } walking = {member, &tell};
    sw_ebridge_list_item_hash_traverse(
        unit,
        [](sw_ebridge_list_item *user, void *arg, int32_t) -> int32_t {
            const auto *of = static_cast<walk *>(arg);
            if (user->*of->member != nullptr)
                (*of->tell)(*user, user->*of->member);
            return 0;
        },
        &walking);
}

}  // namespace

// ---- evlans ---------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sda_evlan_create_callback(uint32_t unit, evlan_index *evlan, evlan_sdk *sdk)
{
    const sw::site where = SW_HERE;
    if (!are_given<evlan_chip>(where, unit, evlan, sdk))
        return -2;
    const uint32_t id = evlan_chip::id_of(*evlan);
    SW_LOG(info, "create evlan_index_id: 0x%x, sdk_index_vsi: %d, sdk_index_type: %d\n", id, sdk->vsi, sdk->type);
    pair<evlan_chip>(unit, id, *sdk);
    tell_users(unit, &sw_ebridge_list_item::sda_evlan_create, [=](const sw_ebridge_list_item &, sda_evlan_func create) {
        SW_LOG_AT(where, info, "received evlan creating msg,  evlan_id: 0x%x, vpn_id: 0x%x\n", id, word(sdk->vsi));
        create(unit, evlan, sdk);
    });
    return 0;
}

SW_EXPORT int32_t sda_evlan_destroy_callback(uint32_t unit, evlan_index *evlan, evlan_sdk *)
{
    const sw::site where = SW_HERE;
    if (!is_unit(where, unit) || !is_given(where, evlan, evlan_chip::no_index))
        return -2;
    const uint32_t id = evlan_chip::id_of(*evlan);
    SW_LOG(info, "destroy evlan_index_id: 0x%x\n", id);
    evlan_sdk sdk = evlan_chip::new_sdk_index();
    const int32_t rv = unpair<evlan_chip>(unit, id, sdk);
    SW_LOG(info, "release db, evlan_id: 0x%x, sdk-vsi: %d, type: %d, rv: %d\n", id, sdk.vsi, sdk.type, rv);
    tell_users(unit, &sw_ebridge_list_item::sda_evlan_destroy,
               [=, &sdk](const sw_ebridge_list_item &, sda_evlan_func destroy) {
                   SW_LOG_AT(where, info, "received evlan destroying msg,  evlan_id: 0x%x, vpn_id: 0x%x\n", id,
                             word(sdk.vsi));
                   destroy(unit, evlan, &sdk);
               });
    return 0;
}

// The type is the bridge's, whatever the chip calls it.
SW_EXPORT int32_t sda_evlan_udp2sdk(uint32_t unit, evlan_index *in, evlan_sdk *out)
{
    const sw::site where = SW_HERE;
    if (!are_given<evlan_chip>(where, unit, in, out))
        return -2;
    const uint32_t id = evlan_chip::id_of(*in);
    evlan_chip::take_sdk_value(*out, {});
    const sw_evlan_index_map *item = find_sdk<evlan_chip>(unit, id);
    if (item == nullptr)
        return -1;
    evlan_chip::take_sdk_value(*out, *item);
    out->type = static_cast<UBridge__EvlanType>(sw::type_of(id));
    return 0;
}

SW_EXPORT int32_t sda_evlan_sdk2udp(uint32_t unit, evlan_sdk *in, evlan_index *out)
{
    const sw::site where = SW_HERE;
    if (!are_given<evlan_chip>(where, unit, out, in))
        return -2;
    const sw_evlan_index_map *item = find_udp<evlan_chip>(unit, *in);
    out->evlan_id = item != nullptr ? static_cast<int32_t>(item->value[0]) : 0;
    return item != nullptr ? 0 : -1;
}

// ---- eports ---------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sda_eport_create_callback(uint32_t unit, eport_index *eport, eport_sdk *sdk)
{
    const sw::site where = SW_HERE;
    if (!are_given<eport_chip>(where, unit, eport, sdk, eport_chip::no_index_to_create))
        return -2;
    const uint32_t id = eport_chip::id_of(*eport);
    SW_LOG(info, "create eport_index_id: 0x%x, sdk_index_vport: 0x%x, sdk_index_type: 0x%x\n", id, word(sdk->vport),
           word(sdk->type));
    pair<eport_chip>(unit, id, *sdk);
    tell_users(unit, &sw_ebridge_list_item::sda_eport_create,
               [=](const sw_ebridge_list_item &user, sda_eport_func create) {
                   SW_LOG_AT(where, info, "User[%s] eport create callback for eport[0x%x].\n", user.user_name, id);
                   create(unit, eport, sdk);
               });
    return 0;
}

SW_EXPORT int32_t sda_eport_destroy_callback(uint32_t unit, eport_index *eport, eport_sdk *)
{
    const sw::site where = SW_HERE;
    if (!is_unit(where, unit) || !is_given(where, eport, eport_chip::no_index))
        return -2;
    const uint32_t id = eport_chip::id_of(*eport);
    eport_sdk sdk = eport_chip::new_sdk_index();
    const int32_t rv = unpair<eport_chip>(unit, id, sdk);
    SW_LOG(info, "release db, eport_id: 0x%x, sdk-eport: 0x%x, rv: %d\n", id, word(sdk.vport), rv);
    tell_users(unit, &sw_ebridge_list_item::sda_eport_destroy,
               [=, &sdk](const sw_ebridge_list_item &, sda_eport_func destroy) {
                   SW_LOG_AT(where, info, "received eport destroy msg, eport_id: 0x%x, vport: 0x%x\n", id,
                             word(sdk.vport));
                   destroy(unit, eport, &sdk);
               });
    return 0;
}

// ---- eports: translations -------------------------------------------------------------------------------------------

namespace
{

constexpr uint32_t kLocalPort = U_BRIDGE__EPORT_TYPE__LOCAL_PORT;
constexpr uint32_t kAp = U_BRIDGE__EPORT_TYPE__AP;
// What the chip calls the two kinds that need no map.
constexpr int32_t kSdkPort = 16;
constexpr int32_t kSdkAp = 32;
// A chip's aggregate ports follow its physical ones.
constexpr int32_t kFirstApPort = 256;

int32_t local_port_to_sdk(sw::site where, uint32_t unit, uint32_t id, eport_sdk &out)
{
    const uint32_t lphyid = uint32_t{LIBDDM_KIND_LOCAL} << 24 | (id & sw::kNumberMask);
    out.type = static_cast<int32_t>(kLocalPort);
    out.unit = static_cast<int32_t>(unit);
    out.port = static_cast<int32_t>(id & 0xff);  // where the port table does not say better
    const int32_t rv = libddm_get_unit_port_by_lphyid(lphyid, &out.unit, &out.port);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:libddm_get_unit_port_by_lphyid fail: lphyid[0x%x], rv[%d].\n", lphyid, rv);
    else
        SW_LOG_AT(where, info, "Local port phyid[0x%x] is unit[%d].port[%d]\n", lphyid, out.unit, out.port);
    return rv;
}

int32_t ap_to_sdk(sw::site where, uint32_t unit, uint32_t id, eport_sdk &out)
{
    out.type = kSdkAp;
    out.unit = static_cast<int32_t>(unit);
    out.tid = static_cast<int32_t>(id & sw::kNumberMask);
    out.port = out.tid + kFirstApPort;
    SW_LOG_AT(where, info, "unit[%d].AP-port[%d] is port[%d]\n", out.unit, out.tid, out.port);
    return 0;
}

int32_t port_to_sdp(sw::site where, const eport_sdk &in, uint32_t &id)
{
    uint32_t lphyid = 0;
    const int32_t rv = libddm_get_lphyid_by_unit_port(in.unit, in.port, &lphyid);
    if (rv != 0) {
        SW_LOG_AT(where, error, "Assert:libddm_get_lphyid_by_unit_port fail: unit[%d], port[%d], rv[%d].\n", in.unit,
                  in.port, rv);
        return rv;
    }
    const uint32_t type = lphyid >> 24 == LIBDDM_KIND_LOCAL ? kLocalPort : kAp;
    id = type << 24 | (lphyid & sw::kNumberMask);
    SW_LOG_AT(where, info, "The phyid of unit[%d].local-port[%d] is 0x%x and eport-id is 0x%x\n", in.unit, in.port,
              lphyid, id);
    return 0;
}

// Number and type stand the other way round than in an eport id, so this is not the reverse of ap_to_sdk(). Drivers rely on
// it.
uint32_t ap_to_sdp(sw::site where, const eport_sdk &in)
{
    const uint32_t id = word(in.tid) << 24 | kAp;
    SW_LOG_AT(where, info, "The eport-id of unit[%d].APport[%d] is 0x%x\n", in.unit, in.tid, id);
    return id;
}

}  // namespace

SW_EXPORT int32_t sda_eport_sdp2sdk(uint32_t unit, eport_index *in, eport_sdk *out)
{
    const sw::site where = SW_HERE;
    if (!are_given<eport_chip>(where, unit, in, out))
        return -2;
    const uint32_t id = eport_chip::id_of(*in);
    eport_chip::take_sdk_value(*out, {});
    out->unit = out->port = out->tid = 0;
    if (sw::type_of(id) == kLocalPort)
        return local_port_to_sdk(where, unit, id, *out);
    if (sw::type_of(id) == kAp)
        return ap_to_sdk(where, unit, id, *out);
    const sw_eport_index_map *item = find_sdk<eport_chip>(unit, id);
    if (item == nullptr)
        return -1;
    eport_chip::take_sdk_value(*out, *item);
    SW_LOG(info, "unit[%d].eport[0x%x] map to SDKIndex[type:%d,vport:0x%x]\n", unit, id, out->type, word(out->vport));
    return 0;
}

SW_EXPORT int32_t sda_eport_sdk2sdp(uint32_t unit, eport_sdk *in, eport_index *out)
{
    const sw::site where = SW_HERE;
    if (!are_given<eport_chip>(where, unit, out, in))
        return -2;
    uint32_t id = 0;
    int32_t rv = 0;
    if (in->type == kSdkPort)
        rv = port_to_sdp(where, *in, id);
    else if (in->type == kSdkAp)
        id = ap_to_sdp(where, *in);
    else if (const sw_eport_index_map *item = find_udp<eport_chip>(unit, *in); item != nullptr)
        id = item->value[0];
    out->eport_id = static_cast<int32_t>(id);
    return rv;
}

// ---- VLANs ----------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sda_vlan_ports_notify(uint32_t unit, uint32_t vid, uint32_t lphyid, uint32_t op)
{
    const sw::site where = SW_HERE;
    if (!is_unit(where, unit))
        return -2;
    tell_users(unit, &sw_ebridge_list_item::sda_vlan_port_change,
               [=](const sw_ebridge_list_item &user, sda_vlan_port_change_func change) {
                   SW_LOG_AT(where, info, "notify vlan_port change to %s, unit: %d, vid: %d %s lphyid: 0x%x\n",
                             user.user_name, unit, vid, op == 1 ? "add" : "del", lphyid);
                   change(unit, vid, lphyid, op);
               });
    return 0;
}

// The text says vlan_port although the change is of the fid; kept as it is.
SW_EXPORT int32_t sda_vlan_fid_notify(uint32_t unit, uint32_t vid, uint32_t old_fid, uint32_t new_fid)
{
    const sw::site where = SW_HERE;
    if (!is_unit(where, unit))
        return -2;
    tell_users(unit, &sw_ebridge_list_item::sda_vlan_fid_change,
               [=](const sw_ebridge_list_item &user, sda_vlan_fid_change_func change) {
                   SW_LOG_AT(where, info,
                             "notify vlan_port change to %s, unit: %d, vid: %d, old_fid: %d, new_fid: %d\n",
                             user.user_name, unit, vid, old_fid, new_fid);
                   change(unit, vid, old_fid, new_fid);
               });
    return 0;
}
