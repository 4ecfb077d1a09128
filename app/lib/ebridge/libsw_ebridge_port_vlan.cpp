// Which VLANs a port carries: bitmaps in the port's local eport record, published as one record per user and port.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "aging.hpp"
#include "arrays.hpp"
#include "export.hpp"
#include "print.hpp"
#include "users.hpp"

namespace
{

constexpr uint32_t kWords = 128;
constexpr int32_t kVlans = kWords * 32;

enum : int32_t { kPublish = 1, kMulticast = 2 };  // send_flag

using bitmap = uint32_t[kWords];
using port_vlans = decltype(sw_eport_attr::attr.underlay);

void set_bit(bitmap &of, int32_t vid) { of[vid / 32] |= 1u << (vid % 32); }

bool is_vlan(sw::site where, int32_t vid)
{
    const bool good = vid >= 0 && vid < kVlans;
    if (!good)
        SW_LOG_AT(where, error, "Assert:Bad vid %d.", vid);
    return good;
}

// A bitmap as records carry it: the words from the first to the last that is not zero. They stay the bitmap's.
UBridge__Bitmap encode(uint32_t (&words)[kWords])
{
    const auto is_set = [](uint32_t word) { return word != 0; };
    const auto *first = std::find_if(words, words + kWords, is_set);
    const auto last = static_cast<size_t>(std::find_if(std::rbegin(words), std::rend(words), is_set).base() - words);
    const bool empty = first == words + kWords;
    const size_t start = empty ? 0 : static_cast<size_t>(first - words);
    UBridge__Bitmap made = U_BRIDGE__BITMAP__INIT;
    made.start = static_cast<decltype(made.start)>(start * 32);
    made.n_value = empty ? 1 : last - start;
    made.value = &words[start];
    return made;
}

// The record of one port. It points into the port's bitmaps.
struct port_record {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__Bitmap vbmp;
    UBridge__Bitmap ubmp;
    UBridge__Bitmap mcbmp;
    UBridge__PortVlans record = U_BRIDGE__PORT_VLANS__INIT;

    port_record(sw_ebridge_list_item &user, uint32_t ifx, port_vlans &of)
        : vbmp(encode(of.vbmp)), ubmp(encode(of.ubmp)), mcbmp(encode(of.mcbmp))
    {
        index.t_user = user.user_name;
        index.port = static_cast<decltype(index.port)>(ifx);
        record.index = &index;
        record.vbmp = &vbmp;
        record.ubmp = &ubmp;
        record.mcbmp = &mcbmp;
    }
    port_record(const port_record &) = delete;
    port_record &operator=(const port_record &) = delete;
};

// A record that stands for all those of one user.
struct port_pattern {
    UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
    UBridge__PortVlans record = U_BRIDGE__PORT_VLANS__INIT;
    explicit port_pattern(sw_ebridge_list_item &user)
    {
        index.t_user = user.user_name;
        record.index = &index;
    }
    port_pattern(const port_pattern &) = delete;
    port_pattern &operator=(const port_pattern &) = delete;
};

// Bitmaps are too long for log lines: they go to standard output when its category takes debug messages.
bool prints_bitmaps() { return sw::std_admits(sw::debug); }

// Writes the record of a port, or removes it when the port is in no VLAN.
int32_t publish(sw::site where, sw_ebridge_list_item &user, uint32_t ifx, port_vlans &of)
{
    const port_record port(user, ifx, of);
    const bool in_vlans = std::any_of(of.vbmp, of.vbmp + kWords, [](uint32_t word) { return word != 0; });
    int32_t rv = 0;
    if (in_vlans) {
        SW_LOG_AT(where, debug, "setting port vlans bmp.");
        rv = qz_mom_set(user.mom_handle, user.mod_db, &port.record.base, nullptr, nullptr);
    } else {
        SW_LOG_AT(where, debug, "deleting port vlans bmp.");
        rv = qz_mom_del(user.mom_handle, user.mod_db, &port.record.base, nullptr, nullptr);
    }
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom oper failed, rv: %d.", rv);
    return rv;
}

// Adds to what a port carries, word by word. The given bitmaps may be the port's own.
void add(port_vlans &to, const uint32_t *vbmp, const uint32_t *ubmp, const uint32_t *mcbmp)
{
    for (uint32_t i = 0; i < kWords; ++i) {
        const uint32_t added = vbmp[i], untagged = ubmp[i] & added, multicast = mcbmp[i] & added;
        to.vbmp[i] |= added;
        to.ubmp[i] = (to.ubmp[i] & ~added) | untagged;
        to.mcbmp[i] = (to.mcbmp[i] & ~added) | multicast;
    }
}

// A new local record that carries these. False: none could be made.
bool insert(const sw_ebridge_list_item &user, uint32_t ifx, const uint32_t *vbmp, const uint32_t *ubmp,
            const uint32_t *mcbmp)
{
    sw_eport_attr made = {};
    made.eport_id = ifx;
    std::memcpy(made.attr.underlay.vbmp, vbmp, sizeof(bitmap));
    std::memcpy(made.attr.underlay.ubmp, ubmp, sizeof(bitmap));
    std::memcpy(made.attr.underlay.mcbmp, mcbmp, sizeof(bitmap));
    return sw_eport_db_insert_item(0, user.user_name, &made) != nullptr;
}

bool has_bitmaps(sw::site where, bool all)
{
    if (!all)
        SW_LOG_AT(where, error, "Assert:Bad bitmap.");
    return all;
}

}  // namespace

// ---- one VLAN -----------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlan_port_add(const char *user_name, int32_t vid, int32_t ifx, int32_t tag)
{
    SW_LOG(debug, "user: %s, vid: %d, add ifx: %d, tag: %d.", sw::printable(user_name), vid, ifx, tag);
    return sw_vlan_port_add_with_flag(user_name, vid, ifx, tag, kPublish | kMulticast);
}

SW_EXPORT int32_t sw_vlan_port_add_with_flag(const char *user_name, int32_t vid, int32_t ifx, int32_t tag,
                                             int32_t send_flag)
{
    if (!is_vlan(SW_HERE, vid))
        return -2;
    bitmap vbmp = {};
    bitmap ubmp = {};
    bitmap mcbmp = {};
    set_bit(vbmp, vid);
    if (tag == U_BRIDGE__TAG_TYPE__UNTAGGED)
        set_bit(ubmp, vid);
    if ((send_flag & kMulticast) != 0)
        set_bit(mcbmp, vid);
    SW_LOG(debug, "user_name: %s, vid: %d, ifx: %d, tag: %d, send_flag: %d.", sw::printable(user_name), vid, ifx, tag,
           send_flag);
    return sw_vlan_port_range_vids_add_with_flag(user_name, ifx, vbmp, ubmp, mcbmp, send_flag);
}

SW_EXPORT int32_t sw_vlan_port_del(const char *user_name, int32_t vid, int32_t ifx)
{
    SW_LOG(debug, "user: %s, vid: %d, del ifx: %d.", sw::printable(user_name), vid, ifx);
    return sw_vlan_port_del_with_flag(user_name, vid, ifx, kPublish);
}

SW_EXPORT int32_t sw_vlan_port_del_with_flag(const char *user_name, int32_t vid, int32_t ifx, int32_t send_flag)
{
    if (!is_vlan(SW_HERE, vid))
        return -2;
    bitmap bmp = {};
    set_bit(bmp, vid);
    return sw_vlan_port_range_vids_del_with_flag(user_name, ifx, bmp, send_flag);
}

// ---- many VLANs ---------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlan_port_range_vids_add_with_flag(const char *user_name, int32_t ifx, const uint32_t vbmp[128],
                                                        const uint32_t ubmp[128], const uint32_t mcbmp[128],
                                                        int32_t send_flag)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr || !has_bitmaps(SW_HERE, vbmp != nullptr && ubmp != nullptr && mcbmp != nullptr))
        return -2;
    const auto id = static_cast<uint32_t>(ifx);
    if (sw_eport_attr *record = sw_eport_db_get_item(0, user->user_name, id); record != nullptr)
        add(record->attr.underlay, vbmp, ubmp, mcbmp);
    else if (!insert(*user, id, vbmp, ubmp, mcbmp))
        return -5;
    if ((send_flag & kPublish) == 0)
        return 0;
    const int32_t rv = sw_vlan_port_range_vids_set(user->user_name, ifx);
    if (rv == 0)
        return 0;
    // Callers of the add know -3; those of the deletion, the store's code.
    SW_LOG(error, "Assert:sw_vlan_port_range_vids_set failed, rv: %d.", rv);
    return -3;
}

SW_EXPORT int32_t sw_vlan_port_range_vids_del_with_flag(const char *user_name, int32_t ifx, const uint32_t bmp[128],
                                                        int32_t send_flag)
{
    const sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr || !has_bitmaps(SW_HERE, bmp != nullptr))
        return -2;
    SW_LOG(debug, "user: %s, del ifx: %d, send_flag: %d.", user->user_name, ifx, send_flag);
    const auto id = static_cast<uint32_t>(ifx);
    sw_eport_attr *record = sw_eport_db_get_item(0, user->user_name, id);
    if (record == nullptr) {
        SW_LOG(error, "Assert:User[%s].IFX[0x%x] not exsit.", user->user_name, id);
        return -5;
    }
    port_vlans &from = record->attr.underlay;
    for (uint32_t i = 0; i < kWords; ++i) {
        const uint32_t kept = ~bmp[i];  // bmp may be one of these
        from.vbmp[i] &= kept;
        from.ubmp[i] &= kept;
        from.mcbmp[i] &= kept;
    }
    if ((send_flag & kPublish) == 0)
        return 0;
    const int32_t rv = sw_vlan_port_range_vids_set(user->user_name, ifx);
    if (rv != 0)
        SW_LOG(error, "Assert:sw_vlan_port_range_vids_set failed, rv: %d.", rv);
    return rv;
}

// ---- publishing ---------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlan_port_range_vids_set(const char *user_name, int32_t ifx)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    const auto id = static_cast<uint32_t>(ifx);
    sw_eport_attr *record = sw_eport_db_get_item(0, user->user_name, id);
    if (record == nullptr) {
        SW_LOG(error, "Assert:No VLAN info of IFX[0x%x].\n", id);
        return -5;
    }
    port_vlans &vlans = record->attr.underlay;
    if (prints_bitmaps()) {
        sw::print("%s set vlan-vbmp:", user->user_name);
        sw::print_bitmap(vlans.vbmp, kWords);
        sw::print("%s set vlan-ubmp:", user->user_name);
        sw::print_bitmap(vlans.ubmp, kWords);
        sw::print("%s set mc_bmp:", user->user_name);
        sw::print_bitmap(vlans.mcbmp, kWords);
    }
    return publish(SW_HERE, *user, id, vlans);
}

SW_EXPORT int32_t sw_vlan_port_range_vids_set_all(const char *user_name)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    sw_eport_hash_traverse(0, sw_vlan_port_range_vids_set_all_op, user);
    return 0;
}

SW_EXPORT int32_t sw_vlan_port_range_vids_set_all_op(sw_eport_attr *record, void *instance, int32_t)
{
    auto *user = static_cast<sw_ebridge_list_item *>(instance);
    if (record == nullptr || user == nullptr) {
        SW_LOG(error, "Assert:Bad eport.");
        return 0;
    }
    const uint32_t id = record->eport_id;
    if (id >> 24 == U_BRIDGE__EPORT_TYPE__L3INTF_AC) {
        SW_LOG(debug, "l3_intf_sub(eport_id: %x) doesn't have to deal with port_vlan.", id);
        return 0;
    }
    const auto ifx = static_cast<int32_t>(id);
    SW_LOG(debug, "set vlan_bmp for ifx: %d.", ifx);
    port_vlans &vlans = record->attr.underlay;
    if (prints_bitmaps()) {
        sw::print("set vlan-vbmp(ifx: %d):", ifx);
        sw::print_bitmap(vlans.vbmp, kWords);
        sw::print("set vlan-ubmp(ifx: %d):", ifx);
        sw::print_bitmap(vlans.ubmp, kWords);
        sw::print("set mc-bmp(ifx: %d):", ifx);
        sw::print_bitmap(vlans.mcbmp, kWords);
    }
    publish(SW_HERE, *user, id, vlans);
    return 0;
}

// ---- aging --------------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_vlan_port_aging_flag_set_sync(const char *user_name, const qz_mom_timeval *aging_timer)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "user_name: %s, aging_timer: %p\n", user->user_name, static_cast<const void *>(aging_timer));
    const port_pattern own(*user);
    return sw::mark_records_sync(SW_HERE, *user, user->mod_db, own.record.base, aging_timer,
                                 "Assert:Aging all PortVlans of '%s' in db[%d] failed, global is %p, error is %d.\n");
}

SW_EXPORT int32_t sw_vlan_ports_aging_flag_set(const char *user_name, const qz_mom_timeval *aging_timer,
                                               qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "user_name: %s, aging_timer: %p, func_callback: %p, args: %p.", user->user_name,
           static_cast<const void *>(aging_timer), sw::address(callback), args);
    const port_pattern own(*user);
    return sw::mark_records(SW_HERE, *user, user->mod_db, own.record.base, aging_timer, callback, args);
}

SW_EXPORT int32_t sw_vlan_port_aged_data_delete(const char *user_name, qz_mom_msg_cb callback, void *args)
{
    sw_ebridge_list_item *user = sw::find_user(SW_HERE, user_name);
    if (user == nullptr)
        return -2;
    SW_LOG(debug, "deleting aged data.");
    const port_pattern own(*user);
    return sw::delete_marked(SW_HERE, *user, user->mod_db, own.record.base, callback, args);
}
