// Sessions and ids: reading and counting them. See show_sessions.hpp; show_sessions_text.cpp has the words.
#include "show_sessions.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "allocator.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

namespace
{

constexpr uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

// What the sessions of both kinds have alike.
template <typename Session>
shown_session made_of(const Session &record, uint32_t db, bool of_eports)
{
    return {.db = db,
            .kind = {of_eports, word(record.index->type)},
            .user = record.index->t_user,
            .wanted = word(record.request_value),
            .priority = static_cast<int32_t>(record.priority),
            .requested = record.request != 0,
            .answered = record.reply != 0,
            .answer = record.reply_value,
            .mom_db = word(record.mom_db)};
}

shown_session session_of(uint32_t db, const ProtobufCMessage &message)
{
    if (message.descriptor == &u_bridge__evlan_session__descriptor) {
        const auto &record = reinterpret_cast<const UBridge__EvlanSession &>(message);
        shown_session made = made_of(record, db, false);
        made.key1 = word(record.index->keyid);
        return made;
    }
    const auto &record = reinterpret_cast<const UBridge__EportSession &>(message);
    shown_session made = made_of(record, db, true);
    made.key1 = word(record.index->keyid1);
    made.key2 = word(record.index->keyid2);
    return made;
}

shown_range range_of(const ProtobufCMessage &message)
{
    if (message.descriptor == &u_bridge__evlan_session_range__descriptor) {
        const auto &record = reinterpret_cast<const UBridge__EvlanSessionRange &>(message);
        return {{false, static_cast<uint32_t>(record.index)}, word(record.evlan_id_min), word(record.evlan_id_max)};
    }
    const auto &record = reinterpret_cast<const UBridge__EportSessionRange &>(message);
    return {{true, static_cast<uint32_t>(record.index)}, word(record.eport_id_min), word(record.eport_id_max)};
}

bool is_wanted(const id_kind &kind, const std::optional<wanted_type> &type)
{
    const ProtobufCEnumDescriptor *of =
        kind.of_eports ? &u_bridge__eport_type__descriptor : &u_bridge__evlan_type__descriptor;
    return !type || ((!type->of || type->of == of) && word(type->value) == kind.type);
}

// What a type has of numbers, less what a range record leaves out.
id_usage unused(const id_kind &kind, const ebridged::number_range &own, const std::vector<shown_range> &ranges)
{
    id_usage made{.kind = kind, .min = own.min, .max = own.max};
    const auto narrowed = std::ranges::find(ranges, kind, &shown_range::kind);
    if (narrowed != ranges.end()) {
        made.min = std::max(own.min, narrowed->min & ebridged::NUMBER_MASK);
        made.max = std::min(own.max, narrowed->max & ebridged::NUMBER_MASK);
    }
    return made;
}

// Its ids, each once, however many users share it.
void count_ids(const std::set<uint32_t> &ids, id_usage *to)
{
    const auto is_its = [&](uint32_t id) {
        const uint32_t number = id & ebridged::NUMBER_MASK;
        return number >= to->min && number <= to->max;
    };
    to->in_use = ids.size();
    const auto within = static_cast<size_t>(std::ranges::count_if(ids, is_its));
    to->free = to->min > to->max ? 0 : size_t{to->max} - to->min + 1 - within;
}

}  // namespace

session_state shown_session::state() const
{
    if (answered)
        return answer == -1 ? session_state::refused : session_state::granted;
    return requested ? session_state::open : session_state::idle;
}

int32_t read_sessions(const record_query &query, std::vector<shown_session> *out, std::string *error)
{
    const bridge_table *const tables[] = {find_table("evlan_session"), find_table("eport_session")};
    const auto take = [&](uint32_t db, const ProtobufCMessage &record) { out->push_back(session_of(db, record)); };
    const int32_t code = read_records(query, tables, take, error);
    std::ranges::sort(*out, {},
                      [](const shown_session &of) { return std::tie(of.kind, of.key1, of.key2, of.user, of.db); });
    return code;
}

int32_t read_ranges(const record_query &query, std::vector<shown_range> *out, std::string *error)
{
    const bridge_table *const tables[] = {find_table("evlan_session_range"), find_table("eport_session_range")};
    record_query lowest = query;
    lowest.databases = {std::ranges::min(query.databases)};
    const auto take = [&](uint32_t, const ProtobufCMessage &record) { out->push_back(range_of(record)); };
    return read_records(lowest, tables, take, error);
}

std::vector<id_usage> usage_of(const std::vector<shown_session> &sessions, const std::vector<shown_range> &ranges,
                               const std::optional<wanted_type> &type)
{
    std::map<id_kind, std::set<uint32_t>> ids;
    for (const shown_session &of : sessions)
        if (const uint32_t id = of.id(); id != 0)
            ids[{of.kind.of_eports, id >> 24}].insert(id);
    std::vector<id_usage> usage;
    for (const bool of_eports : {false, true})
        for (const ebridged::id_type &each : of_eports ? ebridged::eport_types() : ebridged::evlan_types()) {
            const id_kind kind{of_eports, each.type};
            if (!is_wanted(kind, type))
                continue;
            usage.push_back(unused(kind, each.numbers, ranges));
            count_ids(ids[kind], &usage.back());
        }
    return usage;
}

}  // namespace ebridge_tool
