// What users have published, and who they are. See show_records.hpp.
#include "show_records.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <tuple>

#include "config_file.hpp"
#include "json_text.hpp"
#include "record_text.hpp"
#include "text_columns.hpp"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

int32_t read_records(const record_query &query, std::span<const bridge_table *const> tables, const record_heard &heard,
                     std::string *error)
{
    store_link link;
    int32_t code = link.open(query.store, query.databases, error);
    if (code != 0)
        return code;
    for (const bridge_table *table : tables) {
        const table_pattern pattern(*table->record, query.user);
        const auto wanted = [&](uint32_t db, const ProtobufCMessage &record) {
            if (!query.type || is_of(*query.type, *table, record))
                heard(db, record);
        };
        if (code == 0)
            code = read_table(&link, query.databases, pattern.record(), query.patience_usec, wanted);
    }
    if (code != 0)
        *error = std::string("the records cannot be read: ") + qz_mom_strerror(code);
    return code;
}

// ---- attributes -----------------------------------------------------------------------------------------------------

namespace
{

using json = nlohmann::ordered_json;

uint32_t id_of(const ProtobufCMessage &record)
{
    if (record.descriptor == &u_bridge__evlan__descriptor)
        return static_cast<uint32_t>(reinterpret_cast<const UBridge__Evlan &>(record).index->evlan_id);
    return static_cast<uint32_t>(reinterpret_cast<const UBridge__Eport &>(record).index->eport_id);
}

}  // namespace

int32_t read_attributes(const record_query &query, const bridge_table &table, std::vector<shown_attributes> *out,
                        std::string *error)
{
    const bridge_table *const tables[] = {&table};
    const auto take = [&](uint32_t db, const ProtobufCMessage &record) {
        out->push_back({id_of(record), db, std::string(user_of(record)),
                        type_name(*table.types, type_of(table, record).value_or(0)), content_words(record),
                        record_json(record)});
    };
    const int32_t code = read_records(query, tables, take, error);
    std::ranges::sort(*out, {}, [](const shown_attributes &of) { return std::tie(of.id, of.db, of.user); });
    return code;
}

std::string attributes_table(const std::vector<shown_attributes> &all, const char *what, bool with_db)
{
    std::vector<text_columns::cells> rows;
    for (const shown_attributes &of : all)
        rows.push_back({id_text(of.id), std::to_string(of.db), of.type, config_text::printable(of.user),
                        of.words.empty() ? "-" : of.words});
    size_t ids = 0;
    for (size_t i = 0; i < all.size(); ++i)
        ids += i == 0 || all[i].id != all[i - 1].id;
    const text_columns columns({{"ID"}, {"DB", true, with_db}, {"TYPE"}, {"USER"}, {"ATTRIBUTES"}});
    return aligned(columns, rows) + counted(ids, what) + ", " + counted(all.size(), "record") + '\n';
}

std::string attributes_json(const std::vector<shown_attributes> &all)
{
    std::string text = "[";
    for (const shown_attributes &of : all) {
        std::string object = json_text(json{{"id", of.id}, {"db", of.db}, {"user", of.user}, {"type", of.type}});
        object.pop_back();
        text += (text.size() == 1 ? "" : ",") + object + ",\"record\":" + of.object + '}';
    }
    return text + ']';
}

// ---- users ----------------------------------------------------------------------------------------------------------

namespace
{

// A session that stands for one of another database.
template <typename Session>
bool is_mirror(uint32_t db, const ProtobufCMessage &record)
{
    const auto from = static_cast<uint32_t>(reinterpret_cast<const Session &>(record).mom_db);
    return from != 0 && from != db;
}

void count(uint32_t db, const ProtobufCMessage &record, user_counts *to)
{
    const ProtobufCMessageDescriptor *type = record.descriptor;
    if (type == &u_bridge__evlan_session__descriptor)
        to->sessions += !is_mirror<UBridge__EvlanSession>(db, record);
    else if (type == &u_bridge__eport_session__descriptor)
        to->sessions += !is_mirror<UBridge__EportSession>(db, record);
    else if (type == &u_bridge__evlan__descriptor || type == &u_bridge__eport__descriptor)
        ++to->attributes;
    else if (type == &u_bridge__ematch_entry__descriptor)
        ++to->rules;
    else if (type == &u_bridge__port_vlans__descriptor)
        ++to->port_vlans;
    else if (type == &u_bridge__port_vid__descriptor)
        ++to->pvids;
    else
        ++to->others;
}

}  // namespace

int32_t count_users(const record_query &query, counted_users *out, std::string *error)
{
    std::vector<const bridge_table *> tables;
    for (const bridge_table &each : bridge_tables())
        if (has_users(*each.record))
            tables.push_back(&each);
    const auto take = [&](uint32_t db, const ProtobufCMessage &record) {
        if (const std::string_view user = user_of(record); !user.empty())
            count(db, record, &(*out)[std::string(user)]);
    };
    return read_records(query, tables, take, error);
}

std::string users_table(const counted_users &users)
{
    std::vector<text_columns::cells> rows;
    for (const auto &[user, of] : users)
        rows.push_back({config_text::printable(user), std::to_string(of.sessions), std::to_string(of.attributes),
                        std::to_string(of.rules), std::to_string(of.port_vlans), std::to_string(of.pvids),
                        std::to_string(of.others)});
    const text_columns columns({{"USER"},
                                {"SESSIONS", true},
                                {"ATTRIBUTES", true},
                                {"RULES", true},
                                {"PORT-VLANS", true},
                                {"PVIDS", true},
                                {"OTHERS"}});
    return aligned(columns, rows) + counted(users.size(), "user") + '\n';
}

std::string users_json(const counted_users &users)
{
    json all = json::array();
    for (const auto &[user, of] : users)
        all.push_back({{"user", user},
                       {"sessions", of.sessions},
                       {"attributes", of.attributes},
                       {"rules", of.rules},
                       {"port_vlans", of.port_vlans},
                       {"pvids", of.pvids},
                       {"others", of.others}});
    return json_text(all);
}

}  // namespace ebridge_tool
