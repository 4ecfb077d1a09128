// What the rows of a port file mean: their numbers, and what they must not be. See port_file.hpp.
#include "port_file.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "config_tables.hpp"
#include "port_columns.hpp"

namespace ddm
{

namespace
{

using config_text::config_entry;
using config_text::config_fault;
using config_text::config_field;
using config_text::config_table;
using config_text::whole_number;

constexpr std::string_view PORT = "Ethernet";
constexpr std::string_view AGGREGATE = "PortChannel";
constexpr uint32_t MAX_NUMBER = 999'999;
constexpr uint32_t MAX_LANE = 65'535;
constexpr size_t MAX_NAME = 64;

// A name ends where a C string does, and stands in keys between bars and in rows between blanks.
bool is_name(std::string_view name)
{
    const auto usable = [](char c) { return c > ' ' && c < '\x7f' && c != '|'; };
    return !name.empty() && name.size() <= MAX_NAME && std::ranges::all_of(name, usable);
}

// Whether the name is the word and digits.
bool is_numbered(std::string_view name, std::string_view word)
{
    return name.size() > word.size() && name.starts_with(word) &&
           name.find_first_not_of("0123456789", word.size()) == std::string_view::npos;
}

// The number of such a name; nothing when it is too large.
std::optional<uint32_t> number_of(std::string_view name, std::string_view word)
{
    const auto number = whole_number(name.substr(word.size()));
    return number <= MAX_NUMBER ? number : std::nullopt;
}

constexpr uint32_t phyid(uint32_t kind, uint32_t number) { return kind << 24 | number; }

// The numbers that libddm.h promises.
libddm_port port_ids(std::optional<uint32_t> number, uint32_t lane)
{
    return {.ifx = number ? 1'000'000 + *number : 3'000'000 + lane,
            .gphyid = phyid(LIBDDM_KIND_GLOBAL, number ? *number + 1 : 0x800000 + lane),
            .lphyid = phyid(LIBDDM_KIND_LOCAL, 0x400000 + lane),
            .unit = 0,
            .port = static_cast<int32_t>(lane)};
}

libddm_port aggregate_ids(uint32_t number)
{
    const uint32_t id = phyid(LIBDDM_KIND_AGGREGATE, number + 1);
    return {.ifx = 2'000'000 + number, .gphyid = id, .lphyid = id, .unit = -1, .port = -1};
}

// Gives tables their meaning: ports first, then aggregates, then members. The first thing that makes no sense is the
// fault.
class table_filler
{
  public:
    table_filler(port_table *out, config_fault *fault) : out_(out), fault_(fault) {}

    bool port(const config_table &table, const config_entry &entry);
    bool aggregate(const config_table &table, const config_entry &entry);
    bool membership(const config_table &table, const config_entry &entry);

  private:
    bool fail(const config_table &table, const config_entry &entry, const std::string &what)
    {
        *fault_ = {entry.line, table.place(entry) + what};
        return false;
    }
    bool check_name(const config_table &table, const config_entry &entry);
    bool take_lanes(const config_table &table, const config_entry &entry, uint32_t *first);
    bool check_rest(const config_table &table, const config_entry &entry);
    bool add(const config_table &table, const config_entry &entry, const libddm_port &ids);
    bool member(const config_table &table, const config_entry &entry, std::string_view of, std::string_view name);

    port_table *out_;
    config_fault *fault_;
    std::unordered_map<uint32_t, std::string> lanes_;                 // lane -> its port
    std::unordered_map<std::string_view, std::string_view> members_;  // port -> its aggregate, in texts of the tables
};

bool table_filler::port(const config_table &table, const config_entry &entry)
{
    uint32_t lane = 0;
    std::optional<uint32_t> number;
    if (!check_name(table, entry))
        return false;
    if (is_numbered(entry.key, PORT) && !(number = number_of(entry.key, PORT)))
        return fail(table, entry, "the number in the name is above 999999");
    return take_lanes(table, entry, &lane) && check_rest(table, entry) && add(table, entry, port_ids(number, lane));
}

bool table_filler::check_name(const config_table &table, const config_entry &entry)
{
    if (!is_name(entry.key))
        return fail(table, entry, "the name must be 1 to 64 characters, no blank and no bar");
    return !out_->of_name(entry.key) || fail(table, entry, "the name is taken already");
}

bool table_filler::take_lanes(const config_table &table, const config_entry &entry, uint32_t *first)
{
    const config_field *lanes = entry.find("lanes");
    if (!lanes)
        return fail(table, entry, "lanes is missing");
    const std::string_view text = lanes->text;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find(',', at), text.size());
        const auto lane = whole_number(text.substr(at, end - at));
        if (!lanes->scalar || !lane || *lane > MAX_LANE)
            return fail(table, entry, lanes->quoted() + " is not a list of numbers from 0 to 65535");
        if (at == 0)
            *first = *lane;
        const auto [taken, fresh] = lanes_.emplace(*lane, entry.key);
        if (!fresh)
            return fail(table, entry, "lane " + std::to_string(*lane) + " is that of " + taken->second + " already");
        at = end + 1;
    }
    return true;
}

// Fields that the table has no use for: a row in which they are wrong is likely to be wrong elsewhere.
bool table_filler::check_rest(const config_table &table, const config_entry &entry)
{
    if (const config_field *alias = entry.find("alias"); alias && !alias->scalar)
        return fail(table, entry, "alias is not a text");
    for (const char *name : {"index", "speed"})
        if (const config_field *field = entry.find(name); field && !(field->scalar && whole_number(field->text)))
            return fail(table, entry, field->quoted() + " is not a whole number");
    return true;
}

bool table_filler::add(const config_table &table, const config_entry &entry, const libddm_port &ids)
{
    if (const port_row *same = out_->of_ifx(ids.ifx))
        return fail(table, entry, "has the number of " + same->name + " already");
    return out_->add(ids, entry.key) == 0 || fail(table, entry, "an id is taken already");
}

bool table_filler::aggregate(const config_table &table, const config_entry &entry)
{
    const auto number = is_numbered(entry.key, AGGREGATE) ? number_of(entry.key, AGGREGATE) : std::nullopt;
    if (!number)
        return fail(table, entry, "the name must be PortChannel0 to PortChannel999999");
    if (!check_name(table, entry) || !add(table, entry, aggregate_ids(*number)))
        return false;
    const config_field *members = entry.find("members");
    if (!members)
        return true;
    if (!members->list)
        return fail(table, entry, "members is not a list of names");
    return std::ranges::all_of(members->items,
                               [&](const std::string &name) { return member(table, entry, entry.key, name); });
}

bool table_filler::membership(const config_table &table, const config_entry &entry)
{
    const std::string_view key = entry.key;
    const size_t bar = std::min(key.find('|'), key.size());
    const std::string_view of = key.substr(0, bar);
    const port_row *row = out_->of_name(of);
    if (!row || !is_aggregate(*row))
        return fail(table, entry, "the key must be AGGREGATE|PORT, with an aggregate of the table PORTCHANNEL");
    return member(table, entry, of, key.substr(std::min(bar + 1, key.size())));
}

bool table_filler::member(const config_table &table, const config_entry &entry, std::string_view of,
                          std::string_view name)
{
    const port_row *row = out_->of_name(name);
    if (!row || is_aggregate(*row))
        return fail(table, entry, "the member \"" + std::string(name.substr(0, MAX_NAME)) + "\" is no port");
    const auto [there, fresh] = members_.emplace(name, of);
    return fresh || there->second == of ||
           fail(table, entry, std::string(name) + " is a member of " + std::string(there->second) + " already");
}

// What the tables of a switch configuration have to say of ports, in the order in which they refer to each other.
struct meaning {
    std::string_view table;
    bool (table_filler::*read)(const config_table &, const config_entry &);
};
constexpr meaning MEANINGS[] = {{"PORT", &table_filler::port},
                                {"PORTCHANNEL", &table_filler::aggregate},
                                {"PORTCHANNEL_MEMBER", &table_filler::membership}};

bool is_meant(std::string_view table)
{
    return std::ranges::find(MEANINGS, table, &meaning::table) != std::end(MEANINGS);
}

bool read_configuration(std::string_view text, table_filler *filler, config_fault *fault)
{
    std::vector<config_table> tables;
    if (!read_tables(text, is_meant, &tables, fault))
        return false;
    return std::ranges::all_of(MEANINGS, [&](const meaning &means) {
        const auto table = std::ranges::find(tables, means.table, &config_table::name);
        return table == tables.end() || std::ranges::all_of(table->entries, [&](const config_entry &entry) {
                   return (filler->*means.read)(*table, entry);
               });
    });
}

bool read_list(std::string_view text, table_filler *filler, config_fault *fault)
{
    const config_table unnamed;
    return read_columns(
        text, [&](const config_entry &row) { return filler->port(unnamed, row); }, fault);
}

// The number of the last line.
size_t lines_of(std::string_view text)
{
    const auto ends = static_cast<size_t>(std::ranges::count(text, '\n'));
    return text.empty() || text.back() != '\n' ? ends + 1 : ends;
}

}  // namespace

int32_t read_ports(std::string_view text, port_table *out, config_fault *fault)
{
    constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";
    if (text.starts_with(BYTE_ORDER_MARK))
        text.remove_prefix(BYTE_ORDER_MARK.size());
    table_filler filler(out, fault);
    const size_t first = std::min(text.find_first_not_of(" \t\r\n"), text.size());
    const auto read = text.substr(first).starts_with('{') ? read_configuration : read_list;
    if (!read(text, &filler, fault))
        return LIBDDM_EINVAL;
    if (out->size() > 0)
        return 0;
    *fault = {lines_of(text), "no ports and no aggregates up to here, the end of the file"};
    return LIBDDM_ENOENT;
}

}  // namespace ddm
