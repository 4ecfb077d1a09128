// Match rules for people: log lines of items and records, and the dump of the table.
#include <arpa/inet.h>

#include "ematch.hpp"
#include "export.hpp"
#include "keyed_cache.hpp"
#include "logging.hpp"
#include "names.hpp"
#include "print.hpp"

// ---- log lines ----------------------------------------------------------------------------------------------------

SW_EXPORT int32_t sw_bridge_printf_ematch_item(const sw_ematch_item *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:==================> ematch_item is NULL <==================");
        return 0;
    }
    if (item->user != nullptr)
        SW_LOG_UNCHECKED_AT(
            SW_HERE, info,
            "==================> t_user: %s, mom_db: %d, match_type: 0x%x, match_flag: 0x%x,match_priority: 0x%x, match_eport: 0x%x, match_evlan1: 0x%x, match_evlan2: 0x%x, mac: %m, mask: %m,frame_type: %d, ether_type: %d, match_id: 0x%x, index->ip->ver= %d, index->ip->ip->ipv4 = %a, index->ip->ip->ipv6 = %v <==================",
            sw::user_name_of(*item), item->mom_db, item->match_type, item->match_flag, item->match_priority,
            item->eport, item->evlan1, item->evlan2, item->mac, item->mask, item->frame_type, item->ether_type,
            item->match_id, item->ip_ver, sw::ipv4_of(*item), item->ip);
    else
        SW_LOG_UNCHECKED_AT(
            SW_HERE, info,
            "==================> t_user is NULL, mom_db: %d, match_type: 0x%x, match_flag: 0x%x,match_priority: 0x%x, match_eport: 0x%x, match_evlan1: 0x%x, match_evlan2: 0x%x, mac: %m, mask: %m,frame_type: %d, ether_type: %d, match_id: 0x%x, index->ip->ver= %d, index->ip->ip->ipv4 = %a, index->ip->ip->ipv6 = %v <==================",
            item->mom_db, item->match_type, item->match_flag, item->match_priority, item->eport, item->evlan1,
            item->evlan2, item->mac, item->mask, item->frame_type, item->ether_type, item->match_id, item->ip_ver,
            sw::ipv4_of(*item), item->ip);
    return 0;
}

SW_EXPORT int32_t sw_bridge_printf_ematch_item_key(const sw_ematch_item *item)
{
    if (item == nullptr) {
        SW_LOG(error, "Assert:==================> key is NULL <==================");
        return 0;
    }
    if (item->user != nullptr)
        SW_LOG_UNCHECKED_AT(
            SW_HERE, info,
            "==================> t_user: %s, match_type: 0x%x, match_flag: 0x%x,match_priority: 0x%x, match_eport: 0x%x, match_evlan1: 0x%x, match_evlan2: 0x%x, mac: %m, mac_mask: %m,frame_type: %d, ether_type: %d, match_id: 0x%x, index->ip->ver= %d, index->ip->ip->ipv4 = %a, index->ip->ip->ipv6 = %v <==================",
            sw::user_name_of(*item), item->match_type, item->match_flag, item->match_priority, item->eport,
            item->evlan1, item->evlan2, item->mac, item->mask, item->frame_type, item->ether_type, item->match_id,
            item->ip_ver, sw::ipv4_of(*item), item->ip);
    else
        SW_LOG_UNCHECKED_AT(
            SW_HERE, info,
            "==================> t_user is NULL, match_type: 0x%x, match_flag: 0x%x,match_priority: 0x%x, match_eport: 0x%x, match_evlan1: 0x%x, match_evlan2: 0x%x, mac: %m, mac_mask: %m,frame_type: %d, ether_type: %d, match_id: 0x%x, index->ip->ver= %d, index->ip->ip->ipv4 = %a, index->ip->ip->ipv6 = %v <==================",
            item->match_type, item->match_flag, item->match_priority, item->eport, item->evlan1, item->evlan2,
            item->mac, item->mask, item->frame_type, item->ether_type, item->match_id, item->ip_ver, sw::ipv4_of(*item),
            item->ip);
    return 0;
}

namespace
{

// The texts of the two kinds of records.
struct entry_texts {
    const char *missing;
    const char *entry;
    const char *mac;
    const char *mask;
    const char *v4;
    const char *v6;
    const char *other;
};

void print_mac(sw::site where, const char *format, const PLibpub__Mac *mac)
{
    if (!sw::has_bytes(mac))
        return;
    uint8_t bytes[sw::kMacSize] = {};
    sw::read_mac(bytes, mac);
    SW_LOG_UNCHECKED_AT(where, info, format, bytes);
}

void print_ip(sw::site where, const entry_texts &texts, const PLibpub__Ip *ip)
{
    if (ip == nullptr)
        return;
    if (const PLibpub__Ipv4 *v4 = sw::v4_of(ip))
        SW_LOG_UNCHECKED_AT(where, info, texts.v4, v4->data);
    else if (const uint8_t *v6 = sw::v6_of(ip); v6 != nullptr && ip->ip_case == P_LIBPUB__IP__IP_V6)
        SW_LOG_UNCHECKED_AT(where, info, texts.v6, v6);
    else
        SW_LOG_UNCHECKED_AT(where, info, texts.other);
}

// A record of either package.
template <class Entry>
int32_t print_entry(sw::site where, const entry_texts &texts, const Entry *entry)
{
    if (entry == nullptr || entry->index == nullptr) {
        SW_LOG_UNCHECKED_AT(where, error, texts.missing);
        return 0;
    }
    if (!sw::admits(sw::info))
        return 0;
    const auto &index = *entry->index;
    constexpr int32_t new_label = 0;  // the text has a place for it, records have none
    SW_LOG_UNCHECKED_AT(where, info, texts.entry, sw::printable(index.t_user), index.match_type, index.match_flag,
                        index.match_priority, index.evlan1, index.evlan2, index.eport, index.ipv4, index.vnid,
                        index.label, index.ip_mask, index.frame_type, index.ether_type, index.match_id,
                        entry->new_evlan1, entry->new_evlan2, entry->new_eport, entry->new_vnid, new_label,
                        entry->new_pri, entry->l3_iif, static_cast<int32_t>(entry->result));
    print_mac(where, texts.mac, index.mac);
    print_mac(where, texts.mask, index.mask);
    print_ip(where, texts, index.ip);
    return 0;
}

constexpr entry_texts kUdpTexts = {
    "Assert:==================> udp_ematch_entry is NULL <==================",
    "==================> udp_ematch_entry user: %s, match_type: 0x%x, match_flag: 0x%x, match_priority: %d,evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d, ip_mask: %a,frame_type: %d,ether_type: %d, match_id: 0x%x, new_evlan1: 0x%x, new_evlan2: 0x%x, new_eport: 0x%x, new_vnid: %d, new_label: %d,new_pri: %d, l3_iif: %d, current_result: %d.",
    "udp_ematch_entry mac: %m.",
    "udp_ematch_entry mask: %m.",
    "udp_ematch_entry ipv4: %a <==================",
    "udp_ematch_entry ipv6: %v <==================",
    "udp_ematch_entry ip is other type <==================",
};
constexpr entry_texts kSdpTexts = {
    "Assert:==================> sdp_ematch_entry is NULL <==================",
    "==================> sdp_ematch_entry user: %s, match_type: 0x%x, match_flag: 0x%x, match_priority: %d,evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d, ip_mask: %a,frame_type: %d,ether_type: %d, match_id: 0x%x, new_evlan1: 0x%x, new_evlan2: 0x%x, new_eport: 0x%x, new_vnid: %d, new_label: %d,new_pri: %d, l3_iif: %d, current_result: %d.",
    "sdp_ematch_entry mac: %m.",
    "sdp_ematch_entry mask: %m.",
    "sdp_ematch_entry ipv4: %a <==================",
    "sdp_ematch_entry ipv6: %v <==================",
    "sdp_ematch_entry ip is other type <==================",
};

}  // namespace

SW_EXPORT int32_t sw_bridge_printf_udp_ematch(const UBridge__EmatchEntry *entry)
{
    return print_entry(SW_HERE, kUdpTexts, entry);
}

SW_EXPORT int32_t sw_bridge_printf_sdp_ematch(const SBridge__EmatchEntry *entry)
{
    return print_entry(SW_HERE, kSdpTexts, entry);
}

// ---- dump ---------------------------------------------------------------------------------------------------------

namespace
{

void print_match(const sw_ematch_item &item)
{
    char ip[INET6_ADDRSTRLEN] = "";
    if (item.ip_ver == 0)
        inet_ntop(AF_INET, item.ip, ip, INET_ADDRSTRLEN);
    else if (item.ip_ver == 1)
        inet_ntop(AF_INET6, item.ip, ip, sizeof ip);
    const uint8_t *mac = item.mac;
    const uint8_t *mask = item.mask;
    sw::print("match_evlan1: 0x%x\n", static_cast<uint32_t>(item.evlan1));
    sw::print("match_evlan2: 0x%x\n", static_cast<uint32_t>(item.evlan2));
    sw::print("match_eport: 0x%x\n", static_cast<uint32_t>(item.eport));
    sw::print("match_ipv4: 0x%x\n", item.ipv4);
    sw::print("match_vnid: 0x%x\n", static_cast<uint32_t>(item.vnid));
    sw::print("match_label: 0x%x\n", static_cast<uint32_t>(item.label));
    sw::print("match_ip_mask: 0x%x\n", item.ip_mask);
    sw::print("match_mac: %02x%02x.%02x%02x.%02x%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    sw::print("match_mask: %02x%02x.%02x%02x.%02x%02x\n", mask[0], mask[1], mask[2], mask[3], mask[4], mask[5]);
    sw::print("match_frame_type: 0x%x\n", item.frame_type);
    sw::print("match_ether_type: 0x%x\n", item.ether_type);
    sw::print("match_ip: %s\n", ip);
    sw::print("match_id: 0x%x\n", static_cast<uint32_t>(item.match_id));
}

void print_action(const sw_ematch_item &item)
{
    sw::print("---------------action_type: %d\n", item.action_type);
    sw::print("action_new_evlan1: 0x%x\n", static_cast<uint32_t>(item.new_evlan1));
    sw::print("action_new_evlan2: 0x%x\n", static_cast<uint32_t>(item.new_evlan2));
    sw::print("action_new_eport: 0x%x\n", static_cast<uint32_t>(item.new_eport));
    sw::print("action_new_vnid: 0x%x\n", static_cast<uint32_t>(item.new_vnid));
    sw::print("action_new_pri: %d\n", item.new_pri);
    sw::print("action_l3_iif: %d\n", item.l3_iif);
}

}  // namespace

SW_EXPORT int32_t sw_ematch_db_ut_dump_op(sw_ematch_item *item, void *dump_args, int32_t)
{
    auto *filter = static_cast<sw_ematch_dump_args *>(dump_args);
    if (item == nullptr || filter == nullptr) {
        sw::print("invalid input args, ematch_item: %p, ematch_args: %p\n", static_cast<void *>(item), dump_args);
        return 0;
    }
    const char *user_name = sw::user_name_of(*item);
    if (filter->user_name != nullptr && !sw::same_name(filter->user_name, user_name))
        return 0;
    if (filter->match_type != 0 && filter->match_type != item->match_type)
        return 0;
    sw::print(
        "==================> user: %s, match_type: %d, match_flag: 0x%x, match_priority: %d, mom_db: %d, current_result: %d--------------\n",
        sw::printable(user_name), item->match_type, item->match_flag, item->match_priority,
        static_cast<int32_t>(item->mom_db), item->current_result);
    print_match(*item);
    print_action(*item);
    ++filter->count;
    return 0;
}

// The filter names no user and is not set back: the items of all users stand under each user's header, and the counts add
// up. Both kept on purpose.
SW_EXPORT int32_t sw_ematch_db_ut_dump(int32_t match_type)
{
    sw::print("========== <ematch db, input ematch_type: %d> =============\n", match_type);
    if (!sw::family<sw_ematch_item>::exists(0))
        return 0;
    sw_ematch_dump_args filter = {.match_type = match_type, .count = 0, .user_name = nullptr};
    sw_ebridge_list_for_each(
        0,
        [](sw_ebridge_list_item *user, void *arg, int32_t) {
            auto *all = static_cast<sw_ematch_dump_args *>(arg);
            sw::print("===================> user: %s ========\n", user->user_name);
            sw_ematch_item_hash_traverse(0, sw_ematch_db_ut_dump_op, arg);
            sw::print("--------------------------------------------------\n");
            sw::print("total count: %d\n", all->count);
            return 0;
        },
        &filter);
    return 0;
}
