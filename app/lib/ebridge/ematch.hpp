// What the sources of the match rules share: reading the parts of items and records.
//
// An item's `user` is the owner's instance record, which begins with the name; in an item that was copied out it is a name
// alone. So it is read as a name only.
#pragma once

#include <cstring>

#include "logging.hpp"

namespace sw
{

inline constexpr size_t kMacSize = 6;
inline constexpr uint32_t kResultField[] = {30};

// False with the reason logged.
[[gnu::noinline]] inline bool has_index(site where, const UBridge__EmatchIndex *index)
{
    if (index == nullptr)
        SW_LOG_AT(where, error, "Assert:Bad args EMATCH index.\n");
    return index != nullptr;
}

[[gnu::noinline]] inline bool has_key(site where, const UBridge__EmatchEntry *entry)
{
    if (entry == nullptr)
        SW_LOG_AT(where, error, "Assert:Bad args EMATCH.\n");
    return entry != nullptr && has_index(where, entry->index);
}

inline bool has_bytes(const PLibpub__Mac *mac)
{
    return mac != nullptr && mac->data.data != nullptr && mac->data.len != 0;
}

// The first 6 bytes, or those that there are.
inline void read_mac(uint8_t *to, const PLibpub__Mac *from)
{
    if (has_bytes(from))
        std::memcpy(to, from->data.data, from->data.len < kMacSize ? from->data.len : kMacSize);
}

// Null when the item has no user.
inline const char *user_name_of(const sw_ematch_item &item)
{
    return static_cast<const char *>(static_cast<const void *>(item.user));
}

inline sw_ebridge_list_item *as_user(char *name)
{
    return static_cast<sw_ebridge_list_item *>(static_cast<void *>(name));
}

// The IPv4 form of an item's address, in network byte order.
inline uint32_t ipv4_of(const sw_ematch_item &item)
{
    uint32_t word = 0;
    std::memcpy(&word, item.ip, sizeof word);
    return word;
}

// The IPv4 form of a record's address, or null when it has another one or none.
inline const PLibpub__Ipv4 *v4_of(const PLibpub__Ip *ip)
{
    return ip != nullptr && ip->ip_case == P_LIBPUB__IP__IP_V4 ? ip->v4 : nullptr;
}

// Its 16 bytes, or null when it has another form or length, or none. All forms but IPv4 hold bytes in the same place.
inline const uint8_t *v6_of(const PLibpub__Ip *ip)
{
    if (ip == nullptr || ip->ip_case == P_LIBPUB__IP__IP__NOT_SET || ip->ip_case == P_LIBPUB__IP__IP_V4)
        return nullptr;
    static_assert(offsetof(PLibpub__Ipv6, data) == offsetof(PLibpub__Ipv4b, data));
    return ip->v6 != nullptr && ip->v6->data.len == sizeof sw_ematch_item::ip ? ip->v6->data.data : nullptr;
}

}  // namespace sw
