// The table of subscriptions.
#include "subscriptions.hpp"

#include <algorithm>

namespace mom
{
namespace
{

bool same(const subscription &a, const subscription &b)
{
    return a.owner == b.owner && a.field == b.field && a.to == b.to && a.pattern.text() == b.pattern.text();
}

bool hears(const subscription &each, const change &what, std::span<const uint32_t> written)
{
    const bool by_field = what.cmd == QZ_MOM_CMD_HSET || what.cmd == QZ_MOM_CMD_HMSET;
    if (each.field != nullptr && by_field && std::find(written.begin(), written.end(), each.field->id) == written.end())
        return false;
    return each.pattern.match(what.key) == key_pattern::verdict::matches;
}

}  // namespace

void subscription_table::add(uint32_t db, std::vector<subscription> &&added)
{
    auto &all = by_db_[db][added.front().pattern.type().name];
    const size_t wanted = all.size() + added.size();
    if (all.capacity() < wanted)
        all.reserve(std::max(wanted, 2 * all.capacity()));
    for (auto &each : added) {
        const bool known = std::any_of(all.begin(), all.end(), [&](const auto &other) { return same(each, other); });
        if (!known)
            all.push_back(std::move(each));
    }
}

void subscription_table::remove(uint32_t db, const client &owner, const key_pattern &pattern,
                                const receiver &to) noexcept
{
    const auto types = by_db_.find(db);
    if (types == by_db_.end())
        return;
    const auto at = types->second.find(std::string_view(pattern.type().name));
    if (at == types->second.end())
        return;
    std::erase_if(at->second, [&](const auto &each) {
        return each.owner == &owner && each.to == to && each.pattern.text() == pattern.text();
    });
}

void subscription_table::remove_all(const client &owner) noexcept
{
    for (auto &[db, types] : by_db_) {
        for (auto &[name, all] : types)
            std::erase_if(all, [&](const auto &each) { return each.owner == &owner; });
    }
}

bool subscription_table::any(uint32_t db, std::string_view name) const noexcept
{
    const auto types = by_db_.find(db);
    if (types == by_db_.end())
        return false;
    const auto at = types->second.find(name);
    return at != types->second.end() && !at->second.empty();
}

void subscription_table::address(const change_ptr &what, std::span<const uint32_t> written, post_office &office,
                                 deliveries &out) const
{
    const auto types = by_db_.find(what->db);
    if (types == by_db_.end())
        return;
    const auto at = types->second.find(record_name(what->key));
    if (at == types->second.end())
        return;
    for (const auto &each : at->second) {
        if (hears(each, *what, written))
            office.add(out, {each.owner, message{what, each.to, &each.pattern.type(), each.field}});
    }
}

}  // namespace mom
