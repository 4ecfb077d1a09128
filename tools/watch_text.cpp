// The lines of "ebridge watch". See watch_text.hpp.
#include "watch_text.hpp"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "bridge_tables.hpp"
#include "config_file.hpp"
#include "json_text.hpp"
#include "record_text.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *NAME_OF_CHANGE[] = {"-", "is", "set", "fields", "removed", "expired"};
constexpr const char *NAME_OF_GAP[] = {"lost", "back", "missed", "behind", "caught up"};

const char *name_of(change what) { return NAME_OF_CHANGE[static_cast<size_t>(what)]; }

// A row has the same columns as far as it goes: the longest names that are usual fit.
std::string padded(std::string text, size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text + "  ";
}

// In the time zone of whoever looks.
std::string local_time(const timespec &of)
{
    char day[32], text[64];
    tm parts{};
    localtime_r(&of.tv_sec, &parts);
    strftime(day, sizeof day, "%F %T", &parts);
    std::snprintf(text, sizeof text, "%s.%03ld  ", day, static_cast<long>(of.tv_nsec / 1'000'000));
    return text;
}

std::string world_time(const timespec &of)
{
    char day[32], text[64];
    tm parts{};
    gmtime_r(&of.tv_sec, &parts);
    strftime(day, sizeof day, "%FT%T", &parts);
    std::snprintf(text, sizeof text, "%s.%06ldZ", day, static_cast<long>(of.tv_nsec / 1'000));
    return text;
}

// Of a write of some fields these, of all else what is set.
std::string_view shown_fields(const qz_mom_notification &msg, change what)
{
    return what == change::fields && msg.field ? msg.field : "";
}

std::string type_text(const bridge_table *table, const ProtobufCMessage &record)
{
    const auto type = table ? type_of(*table, record) : std::nullopt;
    return type ? type_name(*table->types, *type) : "";
}

}  // namespace

const ProtobufCMessage *record_of(const qz_mom_notification &msg)
{
    if (msg.cmd != QZ_MOM_CMD_HSET && msg.cmd != QZ_MOM_CMD_HMSET)
        return static_cast<const ProtobufCMessage *>(msg.value);
    const auto *hash = static_cast<const qz_mom_hash_value *>(msg.value);
    return hash ? hash->record : nullptr;
}

change change_of(const qz_mom_notification &msg, bool is_scan)
{
    switch (msg.cmd) {
        case QZ_MOM_CMD_SET:
            return is_scan ? change::is : change::set;
        case QZ_MOM_CMD_HSET:
        case QZ_MOM_CMD_HMSET:
            return is_scan ? change::is : change::fields;
        case QZ_MOM_CMD_DEL:
            return change::removed;
        case QZ_MOM_CMD_EXPIRED:
            return change::expired;
        default:
            return change::none;
    }
}

// ---- for people -----------------------------------------------------------------------------------------------------

std::string change_line(const qz_mom_notification &msg, change what, const timespec &heard)
{
    std::string line = local_time(heard) + padded(std::to_string(msg.db), 2) + padded(name_of(what), 7);
    const ProtobufCMessage *record = record_of(msg);
    if (!record)
        return line + config_text::printable(msg.key) + "  (cannot be read)\n";
    const std::string_view user = user_of(*record);
    line += padded(std::string(table_name(*record->descriptor)), 13);
    line += padded(user.empty() ? "-" : config_text::printable(user), 8);
    for (const std::string &words :
         {type_text(table_of(*record), *record), key_words(*record), content_words(*record, shown_fields(msg, what))})
        if (!words.empty())
            line += words + "  ";
    line.resize(line.find_last_not_of(' ') + 1);
    return line + '\n';
}

std::string gap_line(gap what, uint32_t db, const timespec &heard)
{
    const std::string connection = "connection to database " + std::to_string(db);
    const std::pair<std::string, const char *> texts[] = {
        {connection, " lost; changes may be told together"},
        {connection, " is back"},
        {"changes of database " + std::to_string(db) + " have left its log unheard", "; changes may be told together"},
        {"the output is not read fast enough", "; changes may be told together"},
        {"the output is read again", ""}};
    const auto &[subject, told] = texts[static_cast<size_t>(what)];
    return local_time(heard) + "-- " + subject + told + '\n';
}

std::string told_line(const timespec &heard)
{
    return local_time(heard) + "-- all that was there has been told; changes follow\n";
}

// ---- for programs ---------------------------------------------------------------------------------------------------

namespace
{

using json = nlohmann::ordered_json;

json list_of(std::string_view names)
{
    json list = json::array();
    while (!names.empty()) {
        const size_t comma = std::min(names.find(','), names.size());
        list.push_back(std::string(names.substr(0, comma)));
        names.remove_prefix(std::min(comma + 1, names.size()));
    }
    return list;
}

void add_description(const ProtobufCMessage &record, json *object)
{
    (*object)["table"] = record.descriptor->name;
    if (const std::string_view user = user_of(record); !user.empty())
        (*object)["user"] = std::string(user);
    if (std::string type = type_text(table_of(record), record); !type.empty())
        (*object)["type"] = std::move(type);
}

}  // namespace

std::string change_object(const qz_mom_notification &msg, change what, const timespec &heard)
{
    json object{{"time", world_time(heard)}, {"db", msg.db}, {"change", name_of(what)}};
    const ProtobufCMessage *record = record_of(msg);
    if (record)
        add_description(*record, &object);
    object["key"] = msg.key;
    if (what == change::fields)
        object["fields"] = list_of(shown_fields(msg, what));
    std::string text = json_text(object);
    text.pop_back();
    return text + ",\"record\":" + (record ? record_json(*record) : "null") + "}\n";
}

std::string gap_object(gap what, uint32_t db, const timespec &heard)
{
    json object{{"time", world_time(heard)}, {"gap", NAME_OF_GAP[static_cast<size_t>(what)]}};
    if (what == gap::lost || what == gap::back || what == gap::missed)
        object["db"] = db;
    return json_text(object) + '\n';
}

std::string told_object(const timespec &heard)
{
    return json_text(json{{"time", world_time(heard)}, {"told", "all that was there"}}) + '\n';
}

}  // namespace ebridge_tool
