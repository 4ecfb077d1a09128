// See ledger.hpp.
#include "ledger.hpp"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <set>
#include <utility>

namespace fault
{

namespace
{

using kind = event::kind;

std::string text(const bridge_key &key)
{
    const std::string first = std::to_string(key.type) + ':' + std::to_string(key.keyid);
    return key.of == table::evlan ? first : first + ':' + std::to_string(key.keyid2);
}

std::string text(const session_name &name) { return name.user + ':' + text(name.key); }

std::string text(uint32_t id)
{
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%x", id);
    return hex;
}

bool is_id(uint32_t id) { return id != 0 && id != REFUSED; }

// An evlan whose removal is heard while it is requested stays in the index map, with its id; an eport does not.
constexpr bool spares_requested(table of) { return of == table::evlan; }

// The same views, of one table alone.
session_ids only(const session_ids &all, table of)
{
    session_ids some;
    std::ranges::copy_if(all, std::inserter(some, some.end()),
                         [of](const auto &each) { return each.first.key.of == of; });
    return some;
}

user_view only(const user_view &all, table of)
{
    user_view some{all.name, all.follows_all, {}, {}};
    for (const event &each : all.events)
        if (each.what == kind::started || each.who.key.of == of)
            some.events.push_back(each);
    if (const auto map = all.maps.find(of); map != all.maps.end())
        some.maps.insert(*map);
    return some;
}

// Of one table.
class auditor
{
  public:
    auditor(const store_view &store, const std::vector<user_view> &users, const excuses &excused, table of)
        : store_{only(store.sessions, of), only(store.mirrors, of)}, excused_(excused), of_(of)
    {
        for (const user_view &user : users)
            users_.push_back(only(user, of));
    }

    std::vector<std::string> run()
    {
        look_at_store();
        note_releases();
        for (const user_view &user : users_) {
            look_at_what_was_told(user);
            if (const auto map = user.maps.find(of_); map != user.maps.end())
                look_at_index_map(user, map->second);
            if (!excused_.data_lost) {
                look_for_changed_ids(user);
                if (!excused_.changes_merged)
                    look_for_ids_of_two_keys(user);
            }
        }
        return std::move(wrong_);
    }

  private:
    void wrong(const std::string &what) { wrong_.push_back(what); }
    void wrong(const user_view &user, const std::string &what) { wrong(user.name + ": " + what); }

    // ---- the store ----

    void look_at_store()
    {
        for (const auto &[name, id] : store_.sessions) {
            if (!is_id(id))
                wrong("store: " + text(name) + (id == 0 ? " is not answered" : " is refused, and still there"));
            else
                note_holder(name, id);
            const auto mirror = store_.mirrors.find(name);
            if (mirror == store_.mirrors.end())
                wrong("store: " + text(name) + " has no mirror");
            else if (mirror->second != id)
                wrong("store: " + text(name) + " has " + text(id) + ", its mirror " + text(mirror->second));
        }
        for (const auto &[name, id] : store_.mirrors)
            if (!store_.sessions.contains(name))
                wrong("store: the mirror of " + text(name) + " has no session");
    }

    void note_holder(const session_name &name, uint32_t id)
    {
        if (const auto [at, added] = id_of_.emplace(name.key, id); !added && at->second != id)
            wrong("store: key " + text(name.key) + " has two ids, " + text(at->second) + " and " + text(id));
        if (const auto [at, added] = key_of_.emplace(id, name.key); !added && at->second != name.key)
            wrong("store: id " + text(id) + " has two keys, " + text(at->second) + " and " + text(name.key));
    }

    // ---- callbacks ----

    static bool in_scope(const user_view &user, const session_name &name)
    {
        return user.follows_all || name.user == user.name;
    }

    void look_at_what_was_told(const user_view &user)
    {
        session_ids told;
        for (const event &each : user.events) {
            if (each.what == kind::started)
                told.clear();
            else if (each.what == kind::granted)
                told[each.who] = each.id;
            else if (each.what == kind::removed || each.what == kind::refused)
                told.erase(each.who);
            if (each.what == kind::granted && !in_scope(user, each.who))
                wrong(user, text(each.who) + " is none of its business");
        }
        for (const auto &[name, id] : told)
            if (!store_.sessions.contains(name))
                wrong(user, "the removal of " + text(name) + " is unheard");
        for (const auto &[name, id] : store_.sessions) {
            if (!is_id(id) || !in_scope(user, name))
                continue;
            const auto heard = told.find(name);
            if (heard == told.end())
                wrong(user, text(name) + " with " + text(id) + " is unheard");
            else if (heard->second != id)
                wrong(user, "was told " + text(heard->second) + " for " + text(name) + ", the store has " + text(id));
        }
    }

    // ---- the index map ----

    // Keys whose last word was a release: they may be in the index map or not.
    static std::set<bridge_key> released_last(const user_view &user)
    {
        std::set<bridge_key> keys;
        for (const event &each : user.events) {
            if (each.what == kind::removed)
                keys.insert(each.who.key);
            else if (each.what == kind::granted)
                keys.erase(each.who.key);
            else if (each.what == kind::started)
                keys.clear();
        }
        return keys;
    }

    // Keys that this user has let go of and that may be in its index map for good: `with_id`, when a removal was heard
    // while they were requested, so that the index map kept them, and no grant since.
    struct leftover {
        bool requested = false;
        bool with_id = false;
    };
    std::map<bridge_key, leftover> leftovers(const user_view &user) const
    {
        std::map<bridge_key, leftover> keys;
        for (const event &each : user.events) {
            if (each.what == kind::started)
                keys.clear();
            if (each.what == kind::started || each.who.user != user.name)
                continue;
            leftover &of = keys[each.who.key];
            if (each.what == kind::requested)
                of.requested = true;
            else if (each.what == kind::released)
                of.requested = false;
            else
                of.with_id = spares_requested(of_) && each.what == kind::removed && (of.requested || of.with_id);
        }
        std::erase_if(keys, [](const auto &each) { return each.second.requested; });
        return keys;
    }

    void look_at_index_map(const user_view &user, const index_map &map)
    {
        const std::map<bridge_key, leftover> may_be_left = leftovers(user);
        const std::set<bridge_key> may_be_missing = released_last(user);
        std::map<bridge_key, uint32_t> wanted;
        for (const auto &[name, id] : store_.sessions)
            if (is_id(id) && in_scope(user, name))
                wanted[name.key] = id;
        for (const auto &[key, id] : map.id_of) {
            const auto at = wanted.find(key);
            const auto left = may_be_left.find(key);
            if (at == wanted.end() && left != may_be_left.end() && (id == 0 || left->second.with_id))
                continue;
            if (at == wanted.end())
                wrong(user, "its index map has " + text(key) + " with " + text(id) + ", the store does not");
            else if (at->second != id)
                wrong(user, "its index map has " + text(key) + " with " + text(id) + ", the store " + text(at->second));
        }
        for (const auto &[key, id] : wanted)
            if (!map.id_of.contains(key) && !may_be_missing.contains(key))
                wrong(user, "its index map does not have " + text(key) + " with " + text(id));
        look_at_other_direction(user, map, may_be_left);
    }

    void look_at_other_direction(const user_view &user, const index_map &map,
                                 const std::map<bridge_key, leftover> &may_be_left)
    {
        for (const auto &[key, id] : map.id_of) {
            const auto at = map.key_of.find(id);
            if (const auto left = may_be_left.find(key); left != may_be_left.end() && left->second.with_id)
                continue;
            if (id != 0 && (at == map.key_of.end() || at->second != key))
                wrong(user, "its index map does not lead from " + text(id) + " back to " + text(key));
        }
        for (const auto &[id, key] : map.key_of) {
            const auto at = map.id_of.find(key);
            if (at == map.id_of.end() || at->second != id)
                wrong(user, "its index map leads from " + text(id) + " to " + text(key) + ", but not there from it");
        }
    }

    // ---- what happened ----

    // Who has let go of what at any time, by its own word.
    void note_releases()
    {
        for (const user_view &user : users_)
            for (const event &each : user.events)
                if (each.what == kind::released || each.what == kind::refused)
                    ever_released_.insert(each.who);
    }

    // An id may change when the session was removed in between; where that went unheard, only when its user has let go.
    void look_for_changed_ids(const user_view &user)
    {
        struct past {
            uint32_t id = 0;
            int releases = 0;  // by this user, whose removal was not heard yet
        };
        std::map<session_name, past> pasts;
        for (const event &each : user.events) {
            if (each.what == kind::started)
                continue;
            past &of = pasts[each.who];
            if (each.what == kind::released || each.what == kind::refused) {
                ++of.releases;
            } else if (each.what == kind::removed) {
                of.id = 0;
                of.releases = std::max(0, of.releases - 1);
            } else if (each.what == kind::granted) {
                const bool changed = of.id != 0 && of.id != each.id;
                const bool own = each.who.user == user.name;
                if (changed && !(own ? of.releases > 0 : ever_released_.contains(each.who)))
                    wrong(user, text(each.who) + " changed from " + text(of.id) + " to " + text(each.id));
                if (changed)
                    of.releases = std::max(0, of.releases - 1);
                of.id = each.id;
            }
        }
    }

    // At no moment does an id belong to two keys.
    void look_for_ids_of_two_keys(const user_view &user)
    {
        session_ids held;
        std::map<uint32_t, std::multiset<bridge_key>> keys_of;
        const auto let_go = [&](const session_name &name) {
            const auto at = held.find(name);
            if (at == held.end())
                return;
            auto &keys = keys_of[at->second];
            keys.erase(keys.find(name.key));
            held.erase(at);
        };
        for (const event &each : user.events) {
            if (each.what == kind::started) {
                held.clear();
                keys_of.clear();
            } else if (each.what == kind::removed || each.what == kind::refused) {
                let_go(each.who);
            } else if (each.what == kind::granted) {
                let_go(each.who);
                held[each.who] = each.id;
                auto &keys = keys_of[each.id];
                keys.insert(each.who.key);
                if (*keys.begin() != *keys.rbegin())
                    wrong(user, "id " + text(each.id) + " had two keys at once, " + text(*keys.begin()) + " and " +
                                    text(*keys.rbegin()));
            }
        }
    }

    const store_view store_;
    std::vector<user_view> users_;
    const excuses excused_;
    const table of_;
    std::map<bridge_key, uint32_t> id_of_;
    std::map<uint32_t, bridge_key> key_of_;
    std::set<session_name> ever_released_;
    std::vector<std::string> wrong_;
};

}  // namespace

std::vector<std::string> ledger(const store_view &store, const std::vector<user_view> &users, const excuses &excused)
{
    std::vector<std::string> wrong;
    for (const table of : {table::evlan, table::eport})
        std::ranges::move(auditor(store, users, excused, of).run(), std::back_inserter(wrong));
    return wrong;
}

}  // namespace fault
