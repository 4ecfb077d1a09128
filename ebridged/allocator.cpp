// The allocator's decisions. See allocator.hpp.
#include "allocator.hpp"

#include <algorithm>
#include <iterator>

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

constexpr decision refuse(verdict why) { return {why, -1}; }

decision grant(uint32_t id) { return {verdict::granted, static_cast<int32_t>(id)}; }

constexpr uint32_t make_id(uint32_t type, uint32_t number) { return type << 24 | number; }

}  // namespace

std::span<const id_type> evlan_types() { return EVLAN_TYPES; }

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

size_t id_key_hash::operator()(const id_key &key) const noexcept
{
    uint64_t mixed = key.type;
    for (uint32_t word : {key.key1, key.key2}) {
        mixed = (mixed ^ word) * 0x9e3779b97f4a7c15U;
        mixed ^= mixed >> 32;
    }
    return static_cast<size_t>(mixed);
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

decision allocator::decide(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now)
{
    if (!pools_.contains(key.type) || wanted >> 24 != key.type)
        return refuse(verdict::bad_type);
    auto held = held_.find(key);
    if (held == held_.end())
        return grant_new(holder, key, wanted, now);
    return grant_held(holder, held, wanted, now);
}

decision allocator::grant_new(std::string_view holder, const id_key &key, uint32_t wanted, int64_t now)
{
    id_pool &pool = pools_.at(key.type);
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
    const uint32_t id = make_id(key.type, number);
    held_.emplace(key, held_id{id, {std::string(holder)}});
    key_of_.emplace(id, key);
    return grant(id);
}

// The key has an id: share it, or move the key when its only holder wants another one.
decision allocator::grant_held(std::string_view holder, entries::iterator held, uint32_t wanted, int64_t now)
{
    auto &[key, entry] = *held;
    const bool holds = std::ranges::find(entry.holders, holder) != entry.holders.end();
    if ((wanted & NUMBER_MASK) == 0 || wanted == entry.id) {
        if (!holds)
            entry.holders.emplace_back(holder);
        return grant(entry.id);
    }
    if (!holds || entry.holders.size() > 1)
        return refuse(verdict::shared);
    id_pool &pool = pools_.at(key.type);
    if (const verdict why = may_take(pool, wanted & NUMBER_MASK); why != verdict::granted)
        return refuse(why);
    pool.take(wanted & NUMBER_MASK);
    free_id(entry.id, now);
    entry.id = wanted;
    key_of_.emplace(wanted, key);
    return grant(wanted);
}

verdict allocator::may_take(id_pool &pool, uint32_t number) const
{
    if (!pool.in_range(number))
        return verdict::out_of_range;
    return pool.is_free(number) ? verdict::granted : verdict::taken;
}

void allocator::free_id(uint32_t id, int64_t now)
{
    key_of_.erase(id);
    pools_.at(id >> 24).give_back(id & NUMBER_MASK, now);
}

void allocator::release(std::string_view holder, const id_key &key, int64_t now)
{
    auto held = held_.find(key);
    if (held == held_.end())
        return;
    std::erase(held->second.holders, holder);
    if (!held->second.holders.empty())
        return;
    free_id(held->second.id, now);
    held_.erase(held);
}

bool allocator::adopt(std::string_view holder, const id_key &key, uint32_t id)
{
    auto pool = pools_.find(key.type);
    if (pool == pools_.end() || id >> 24 != key.type || (id & NUMBER_MASK) == 0)
        return false;
    auto held = held_.find(key);
    if (held == held_.end()) {
        if (!pool->second.take(id & NUMBER_MASK))
            return false;
        held = held_.emplace(key, held_id{id, {}}).first;
        key_of_.emplace(id, key);
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
    for (const id_type &known : types_) {
        if (known.type == type) {
            const number_range &own = known.numbers;
            pools_.at(type).set_range({std::max(min & NUMBER_MASK, own.min), std::min(max & NUMBER_MASK, own.max)});
            return true;
        }
    }
    return false;
}

bool allocator::reset_range(uint32_t type)
{
    for (const id_type &known : types_) {
        if (known.type == type) {
            pools_.at(type).set_range(known.numbers);
            return true;
        }
    }
    return false;
}

uint32_t allocator::id_of(const id_key &key) const
{
    auto held = held_.find(key);
    return held == held_.end() ? 0 : held->second.id;
}

const id_key *allocator::key_of(uint32_t id) const
{
    auto key = key_of_.find(id);
    return key == key_of_.end() ? nullptr : &key->second;
}

size_t allocator::holders_of(const id_key &key) const
{
    auto held = held_.find(key);
    return held == held_.end() ? 0 : held->second.holders.size();
}

}  // namespace ebridged
