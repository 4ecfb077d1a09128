// What the tests of match rules share beside bridge_fixture.hpp: users and what they hear, rules as records and as items,
// and what the library says of them.
#pragma once

#include <malloc.h>

#include <memory>

#include "bridge_fixture.hpp"
#include "qz_zlog.h"

namespace ematch_test
{

using namespace bridge_test;

// Not the session database nor those of attributes, so that a mistaken one shows.
inline constexpr uint32_t ematch_db = 14;

inline constexpr int32_t success = U_BRIDGE__MATCH_RESULT__SUCCESS;
inline constexpr int32_t fail_priority = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
inline constexpr int32_t fail_hw_hash = U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH;

// ---- users and what they hear

inline constexpr unsigned no_callbacks = 0;

using user = user_with<0>;

template <size_t N>
struct ears {
    static int32_t ematch_reply(UBridge__EmatchEntry *entry)
    {
        expect_message(entry, u_bridge__ematch_entry__descriptor);
        return hear(ear_names[N] + " hears " + recording::render(&entry->base));
    }
    // Every user has this too; nothing about rules may reach it.
    static int32_t pvid_change(uint32_t, uint16_t, uint16_t, sw_vlan_pvid_entry *)
    {
        return hear(ear_names[N] + " hears of a default VLAN");
    }
    static void fill(ebridge_args &args, unsigned which)
    {
        args.ematch_reply = which != no_callbacks ? ematch_reply : nullptr;
        args.pvid_change = pvid_change;
    }
};

inline sw_ebridge_list_item *add_user(const user &wanted)
{
    ebridge_args args{};
    args.ematch_mom_db = ematch_db;
    return register_user<ears>(args, wanted);
}

// ---- addresses

using bytes = std::vector<uint8_t>;

// Words of addresses hold their bytes in the order in which they are written.
inline uint32_t ipv4_word(uint8_t a, uint8_t b, uint8_t c, uint8_t d)
{
    const uint8_t in_order[] = {a, b, c, d};
    uint32_t word;
    std::memcpy(&word, in_order, sizeof word);
    return word;
}

inline bytes ipv6_address() { return {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x42}; }
inline constexpr char ipv6_words[] = "2001:db8:0:0:0:0:0:42";

// ---- rules as records

// A rule of a user's, with all that it points to. It has the addresses that it was given.
struct rule {
    explicit rule(const char *name = "app")
    {
        index.t_user = text(name);
        entry.index = &index;
    }
    rule(const rule &) = delete;
    rule &operator=(const rule &) = delete;

    rule &with_priority(int32_t priority)
    {
        index.match_priority = priority;
        return *this;
    }
    rule &with_evlan(int32_t evlan)
    {
        index.evlan1 = evlan;
        return *this;
    }
    rule &with_mac(const bytes &address)
    {
        index.mac = &mac_;
        return fill(mac_.data, mac_bytes_, address);
    }
    rule &with_mask(const bytes &address)
    {
        index.mask = &mask_;
        return fill(mask_.data, mask_bytes_, address);
    }
    rule &with_v4(uint32_t word)
    {
        v4_.data = word;
        use_ip(P_LIBPUB__IP__IP_V4).v4 = &v4_;
        return *this;
    }
    rule &with_v6(const bytes &address)
    {
        use_ip(P_LIBPUB__IP__IP_V6).v6 = &v6_;
        return fill(v6_.data, ip_bytes_, address);
    }
    rule &with_v4b(const bytes &address)
    {
        use_ip(P_LIBPUB__IP__IP_V4B).v4b = &v4b_;
        return fill(v4b_.data, ip_bytes_, address);
    }
    // An ip that says that it is of this form, and has none.
    rule &with_hollow_ip(PLibpub__Ip__IpCase form)
    {
        use_ip(form).v4 = nullptr;
        return *this;
    }
    std::string rendered() const { return recording::render(&entry.base); }

    UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
    UBridge__EmatchEntry entry = U_BRIDGE__EMATCH_ENTRY__INIT;

  private:
    PLibpub__Ip &use_ip(PLibpub__Ip__IpCase form)
    {
        ip_.ip_case = form;
        index.ip = &ip_;
        return ip_;
    }
    // The bytes end where their block ends, so that the sanitizer sees who reads on.
    rule &fill(ProtobufCBinaryData &data, std::unique_ptr<uint8_t[]> &block, const bytes &from)
    {
        block = std::make_unique<uint8_t[]>(from.size());
        std::copy(from.begin(), from.end(), block.get());
        data = {from.size(), block.get()};
        return *this;
    }

    std::unique_ptr<uint8_t[]> mac_bytes_, mask_bytes_, ip_bytes_;
    PLibpub__Mac mac_ = P_LIBPUB__MAC__INIT, mask_ = P_LIBPUB__MAC__INIT;
    PLibpub__Ip ip_ = P_LIBPUB__IP__INIT;
    PLibpub__Ipv4 v4_ = P_LIBPUB__IPV4__INIT;
    PLibpub__Ipv6 v6_ = P_LIBPUB__IPV6__INIT;
    PLibpub__Ipv4b v4b_ = P_LIBPUB__IPV4B__INIT;
};

// Key and action of full_rule and full_item, by field: no two values are alike, none is at its default.
template <class Key>
void fill_key(Key &key)
{
    key.match_type = 9;
    key.match_flag = 0x105;
    key.match_priority = 6;
    key.evlan1 = 0x10000064;
    key.evlan2 = 0x100000c8;
    key.eport = INT32_MIN + 7;
    key.ipv4 = ipv4_word(10, 0, 0, 1);
    key.vnid = 5001;
    key.label = 77;
    key.ip_mask = ipv4_word(255, 255, 255, 0);
    key.frame_type = 3;
    key.ether_type = 2048;
    key.match_id = 42;
}

template <class Action>
void fill_action(Action &action)
{
    action.new_evlan1 = 0x1000012c;
    action.new_evlan2 = 0x10000190;
    action.new_eport = 0x11000009;
    action.new_vnid = 6001;
    action.new_pri = 5;
    action.l3_iif = 44;
}

inline const bytes full_mac = {2, 0, 0x5e, 0x10, 0x20, 0xff}, full_mask = {0xff, 0xff, 0xff, 0x80, 0, 1};
inline uint32_t full_address() { return ipv4_word(192, 168, 1, 254); }

// A rule with something in each of its fields.
struct full_rule : rule {
    explicit full_rule(const char *name = "app") : rule(name)
    {
        fill_key(index);
        with_mac(full_mac).with_mask(full_mask).with_v4(full_address());
        entry.action_type = U_BRIDGE__EMATCH_ACTION_TYPE__TO_L3IIF_OVID;
        fill_action(entry);
        entry.flag = U_BRIDGE__FLAG_TYPE__AP_SPLIT;
        entry.result = U_BRIDGE__MATCH_RESULT__FAIL_HW_HASH;
    }
};

// Of a rule that lives as long as the call.
inline const UBridge__EmatchIndex *index_of(const rule &of) { return &of.index; }
inline const UBridge__EmatchEntry *entry_of(const rule &of) { return &of.entry; }

// ---- rules as items

// The same as an item that says nothing of its store.
inline sw_ematch_item full_item(sw_ebridge_list_item *owner)
{
    sw_ematch_item item{};
    item.user = owner;
    fill_key(item);
    std::copy(full_mac.begin(), full_mac.end(), item.mac);
    std::copy(full_mask.begin(), full_mask.end(), item.mask);
    const uint32_t address = full_address();
    std::memcpy(item.ip, &address, sizeof address);
    item.action_type = 7;
    fill_action(item);
    item.flag = 1;
    item.result = fail_hw_hash;
    return item;
}

// Items are compared as bytes: they have no padding, which layouts.inc sees to.
inline std::string bytes_of(const sw_ematch_item &item)
{
    const auto *at = reinterpret_cast<const uint8_t *>(&item);
    std::string out;
    for (size_t i = 0; i < sizeof item; ++i)
        out += format(i % 4 == 0 ? " %02x" : "%02x", at[i]);
    return out;
}

inline sw_ematch_item blank_item()
{
    sw_ematch_item item;
    std::memset(static_cast<void *>(&item), 0, sizeof item);
    return item;
}

inline sw_ematch_item spoilt_item()
{
    sw_ematch_item item;
    std::memset(static_cast<void *>(&item), 0xa5, sizeof item);
    return item;
}

inline sw_ematch_item converted(const rule &from)
{
    sw_ematch_item item = blank_item();
    EXPECT_EQ(sw_ematch_entry_to_db_item(&item, &from.entry, 0), &item);
    return item;
}

// Stores the rule as an item of its own user's, or of another one's.
inline sw_ematch_item *insert(const char *name, const rule &of, uint32_t db = ematch_db)
{
    sw_ematch_item item = converted(of);
    item.mom_db = db;
    return sw_ematch_db_hash_insert_item(name, &item);
}
inline sw_ematch_item *insert(const rule &of) { return insert(of.index.t_user, of); }

inline sw_ematch_item *held(const char *name, const rule &of) { return sw_ematch_db_hash_get_item(name, &of.index); }

inline const char *name_of(const sw_ematch_item &item) { return reinterpret_cast<const char *>(item.user); }

// Leaves garbage where the library's next variables will lie, and in the next blocks that it is given.
[[gnu::noinline]] inline void spoil_memory()
{
    mallopt(M_PERTURB, 0x5a);
    volatile uint8_t garbage[16 * 1024];
    for (volatile uint8_t &each : garbage)
        each = 0xa5;
}

// ---- what the library says of them

// Formats as the library's messages are formatted.
template <typename... Args>
std::string message(const char *pattern, Args... args)
{
    char out[1024];
    at_snprintf(out, sizeof out, pattern, args...);
    return out;
}

// What follows the user in both texts of an item, `mask` being what the mask is called there.
inline std::string item_fields(const sw_ematch_item &item, const char *mask)
{
    return message(
               "match_type: 0x%x, match_flag: 0x%x,match_priority: 0x%x, match_eport: 0x%x, match_evlan1: 0x%x, "
               "match_evlan2: 0x%x, mac: %m, ",
               item.match_type, item.match_flag, item.match_priority, item.eport, item.evlan1, item.evlan2,
               static_cast<const void *>(item.mac)) +
           mask +
           message(
               ": %m,frame_type: %d, ether_type: %d, match_id: 0x%x, index->ip->ver= %d, "
               "index->ip->ip->ipv4 = %a, index->ip->ip->ipv6 = %v <==================",
               static_cast<const void *>(item.mask), item.frame_type, item.ether_type, item.match_id, item.ip_ver,
               ipv4_word(item.ip[0], item.ip[1], item.ip[2], item.ip[3]), static_cast<const void *>(item.ip));
}

inline std::string item_line(const sw_ematch_item &item)
{
    const std::string who = item.user != nullptr ? format("t_user: %s", name_of(item)) : "t_user is NULL";
    return "info sw_bridge_printf_ematch_item: ==================> " + who + format(", mom_db: %u, ", item.mom_db) +
           item_fields(item, "mask");
}

// The lines about a record that has all its addresses, the ip a v4 one; `word` is "udp" or "sdp".
template <class Entry>
strings entry_lines(const Entry &entry, const char *word = "udp")
{
    const auto &index = *entry.index;
    const auto line = [word](const std::string &what) {
        return format("info sw_bridge_printf_%s_ematch: ", word) + what;
    };
    const std::string name = format("%s_ematch_entry ", word);
    return {line("==================> " + name +
                 message("user: %s, match_type: 0x%x, match_flag: 0x%x, match_priority: %d,evlan1: 0x%x, evlan2: 0x%x, "
                         "eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d, ip_mask: %a,frame_type: %d,ether_type: %d, "
                         "match_id: 0x%x, ",
                         index.t_user, index.match_type, index.match_flag, index.match_priority, index.evlan1,
                         index.evlan2, index.eport, index.ipv4, index.vnid, index.label, index.ip_mask,
                         index.frame_type, index.ether_type, index.match_id) +
                 message("new_evlan1: 0x%x, new_evlan2: 0x%x, new_eport: 0x%x, new_vnid: %d, new_label: 0,new_pri: %d, "
                         "l3_iif: %d, current_result: %d.",
                         entry.new_evlan1, entry.new_evlan2, entry.new_eport, entry.new_vnid, entry.new_pri,
                         entry.l3_iif, entry.result)),
            line(name + message("mac: %m.", static_cast<const void *>(index.mac->data.data))),
            line(name + message("mask: %m.", static_cast<const void *>(index.mask->data.data))),
            line(name + message("ipv4: %a <==================", index.ip->v4->data))};
}

inline std::string index_text(const UBridge__EmatchIndex &index)
{
    return message("index evlan1: 0x%x, evlan2: 0x%x, eport: 0x%x, ipv4: 0x%x, vnid: %d, label: %d.", index.evlan1,
                   index.evlan2, index.eport, index.ipv4, index.vnid, index.label);
}

inline std::string no_user(const char *name) { return format("Assert:No user named '%s'.\n", name); }

inline strings errors() { return recording::logged(100); }

inline strings joined(strings first, const strings &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class EmatchTest : public BridgeTest
{
  protected:
    EmatchTest()
        : BridgeTest({.source = "app/lib/ebridge/libsw_ematch",
                      .session_function = "sw_ematch_mom_session_reply",
                      .session_callback = sw_ematch_mom_session_reply})
    {
    }
};

}  // namespace ematch_test
