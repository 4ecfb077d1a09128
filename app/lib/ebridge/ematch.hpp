// What the sources of the match rules share: reading an item's parts.
//
// An item's `user` is the owner's instance record, which begins with the name; in an item that was copied out it is a name
// alone. So it is read as a name only.
#pragma once

#include <cstring>

#include "sw_ebridge.h"

namespace sw
{

inline constexpr size_t kMacSize = 6;

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
