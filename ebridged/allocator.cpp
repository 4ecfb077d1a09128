// The allocator's decisions. See allocator.hpp.
#include "allocator.hpp"

#include <algorithm>
#include <new>

#include "u_bridge.pb-c.h"

namespace ebridged
{

namespace
{

constexpr number_range VLAN_NUMBERS{1, 4094};

constexpr id_type EVLAN_TYPES[] = {
    {U_BRIDGE__EVLAN_TYPE__VLAN, VLAN_NUMBERS},
    {U_BRIDGE__EVLAN_TYPE__VXLAN, {}},
    {U_BRIDGE__EVLAN_TYPE__VPLS, {}},
    {U_BRIDGE__EVLAN_TYPE__TRILL, {}},
    {U_BRIDGE__EVLAN_TYPE__L2GRE, {}},
    {U_BRIDGE__EVLAN_TYPE__L3INTF, {}},
    {U_BRIDGE__EVLAN_TYPE__L3INTF_SUB, VLAN_NUMBERS},
    {U_BRIDGE__EVLAN_TYPE__L3VPN, {}},
};

constexpr id_type EPORT_TYPES[] = {
    {U_BRIDGE__EPORT_TYPE__PORT, {}, U_BRIDGE__EPORT_TYPE__AP},
    {U_BRIDGE__EPORT_TYPE__LOCAL_PORT, {}},
    {U_BRIDGE__EPORT_TYPE__AP, {}, U_BRIDGE__EPORT_TYPE__PORT},
    {U_BRIDGE__EPORT_TYPE__VXLAN_AC, {}},
    {U_BRIDGE__EPORT_TYPE__VXLAN_PW, {}},
    {U_BRIDGE__EPORT_TYPE__VPLS_AC, {}},
    {U_BRIDGE__EPORT_TYPE__VPLS_PW, {}},
    {U_BRIDGE__EPORT_TYPE__VPWS_AC, {}},
    {U_BRIDGE__EPORT_TYPE__VPWS_PW, {}},
    {U_BRIDGE__EPORT_TYPE__TRILL_AC, {}},
    {U_BRIDGE__EPORT_TYPE__TRILL_PW, {}},
    {U_BRIDGE__EPORT_TYPE__L2GRE_AC, {}},
    {U_BRIDGE__EPORT_TYPE__L2GRE_PW, {}},
    {U_BRIDGE__EPORT_TYPE__VMAP_AC, {}},
    {U_BRIDGE__EPORT_TYPE__L3INTF_AC, {}},
    {U_BRIDGE__EPORT_TYPE__IPTUN_PW, {}},
    {U_BRIDGE__EPORT_TYPE__MPLS_PW, {}},
};

constexpr decision refuse(verdict why) { return {why, -1}; }

decision grant(uint32_t id) { return {verdict::granted, static_cast<int32_t>(id)}; }

constexpr uint32_t make_id(uint32_t type, uint32_t number) { return type << 24 | number; }

}  // namespace

std::span<const id_type> evlan_types() { return EVLAN_TYPES; }

std::span<const id_type> eport_types() { return EPORT_TYPES; }

const char *verdict_text(verdict v)
{
    switch (v) {
        case verdict::granted:
            return "granted";
        case verdict::bad_type:
            return "no such type, or the wanted id is of another type";
        case verdict::out_of_range:
            return "the wanted number is out of range";
        case verdict::taken:
            return "the wanted id belongs to another key";
        case verdict::shared:
            return "the key has another id that others hold too";
        case verdict::none_left:
            return "no id left";
    }
    return "unknown";
}

// Keys that follow each other are used one after the other: their entries, too, are then near each other in memory.
size_t id_key_hash::operator()(const id_key &key) const
{
    return size_t{key.key1} + size_t{key.key2} * 0x10001U + size_t{key.type} * 0x9e3779b1U;
}

allocator::allocator(std::span<const id_type> types) : types_(types)
{
    for (const id_type &type : types)
        pools_.emplace(type.type, id_pool(type.numbers));
}

decision allocator::request(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now)
{
    const decision made = decide(holder, key, wanted, now);
    if (made.why != verdict::granted)
        release(holder, key, now);
    return made;
}

const id_type *allocator::find_type(uint32_t type) const
{
    const auto found = std::ranges::find(types_, type, &id_type::type);
    return found == types_.end() ? nullptr : &*found;
}

bool allocator::may_have(const id_key &key, uint32_t id) const
{
    const id_type *own = find_type(key.type);
    const uint32_t type = id >> 24;
    return own && type != 0 && (type == own->type || type == own->also);
}

decision allocator::decide(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now)
{
    if (!may_have(key, wanted))
        return refuse(verdict::bad_type);
    auto held = held_.find(key);
    if (held == held_.end())
        return grant_new(holder, key, wanted, now);
    return grant_held(holder, held, wanted, now);
}

decision allocator::grant_new(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now)
{
    new_entry made(held_, key, holder);
    id_pool &pool = pool_of(wanted);
    uint32_t number = wanted & NUMBER_MASK;
    if (number == 0) {
        number = pool.take_any(now);
        if (number == 0)
            return refuse(verdict::none_left);
    } else if (const verdict why = may_take(pool, number); why != verdict::granted) {
        return refuse(why);
    } else {
        pool.take(number);
    }
    const uint32_t id = make_id(wanted >> 24, number);
    made.give(id);
    return grant(id);
}

// The key has an id: share it, or move the key when its only holder wants another one.
decision allocator::grant_held(std::string_view holder, entries::iterator held, uint32_t wanted, int64_t now)
{
    held_id &entry = held->second;
    const bool holds = std::ranges::find(entry.holders, holder) != entry.holders.end();
    if ((wanted & NUMBER_MASK) == 0 || wanted == entry.id) {
        if (!holds)
            entry.holders.emplace_back(holder);
        return grant(entry.id);
    }
    if (!holds || entry.holders.size() > 1)
        return refuse(verdict::shared);
    if (const verdict why = may_take(pool_of(wanted), wanted & NUMBER_MASK); why != verdict::granted)
        return refuse(why);
    move(&entry, wanted, now);
    return grant(wanted);
}

verdict allocator::may_take(const id_pool &pool, uint32_t number)
{
    if (!pool.in_range(number))
        return verdict::out_of_range;
    return pool.is_free(number) ? verdict::granted : verdict::taken;
}

void allocator::move(held_id *entry, uint32_t id, int64_t now)
{
    id_pool &old = pool_of(entry->id);
    old.give_back(entry->id & NUMBER_MASK, now);
    try {
        pool_of(id).take(id & NUMBER_MASK);
    } catch (const std::bad_alloc &) {
        old.take(entry->id & NUMBER_MASK);  // it has just begun to rest
        throw;
    }
    entry->id = id;
}

void allocator::release(std::string_view holder, const id_key &key, int64_t now)
{
    const auto held = held_.find(key);
    if (held == held_.end())
        return;
    auto &[id, holders] = held->second;
    const auto at = std::ranges::find(holders, holder);
    if (at == holders.end())
        return;
    if (holders.size() > 1) {
        holders.erase(at);
        return;
    }
    pool_of(id).give_back(id & NUMBER_MASK, now);
    held_.erase(held);
}

bool allocator::adopt(std::string_view holder, const id_key &key, uint32_t id)
{
    if (!may_have(key, id) || (id & NUMBER_MASK) == 0)
        return false;
    const auto held = held_.find(key);
    if (held == held_.end()) {
        new_entry made(held_, key, holder);
        if (!pool_of(id).take(id & NUMBER_MASK))
            return false;
        made.give(id);
        return true;
    }
    if (held->second.id != id)
        return false;
    auto &holders = held->second.holders;
    if (std::ranges::find(holders, holder) == holders.end())
        holders.emplace_back(holder);
    return true;
}

bool allocator::set_range(uint32_t type, uint32_t min, uint32_t max)
{
    const id_type *known = find_type(type);
    if (!known)
        return false;
    const number_range &own = known->numbers;
    pools_.at(type).set_range({std::max(min & NUMBER_MASK, own.min), std::min(max & NUMBER_MASK, own.max)});
    return true;
}

bool allocator::reset_range(uint32_t type) { return set_range(type, 0, NUMBER_MASK); }

uint32_t allocator::id_of(const id_key &key) const
{
    auto held = held_.find(key);
    return held == held_.end() ? 0 : held->second.id;
}

size_t allocator::holders_of(const id_key &key) const
{
    auto held = held_.find(key);
    return held == held_.end() ? 0 : held->second.holders.size();
}

}  // namespace ebridged
