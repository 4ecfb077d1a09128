// "ebridge show sessions", "show ids", "show holder", "show evlans", "show eports" and "show users" on the command line. See
// show_sessions.hpp and show_records.hpp for what they do.
#include <CLI/CLI.hpp>
#include <charconv>
#include <memory>

#include "show_command.hpp"
#include "show_records.hpp"
#include "show_sessions.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *STATUSES =
    "\n"
    "\n"
    "No record is written.\n"
    "Exit status: 0 the records were read, also if there are none; 1 the result cannot be written, or memory has run out;\n"
    "2 an argument is wrong, or there is no such database; 3 nobody answers at the store's URL, or it makes no sense.";

constexpr const char *SESSIONS_FOOTER =
    "A row for each session: the key under which a user asks for an id, which id it wants (any: it does not care), and\n"
    "what came of it:\n"
    "  open           nobody has answered yet. Is an ebridged serving this database?\n"
    "  granted        it holds this id. Users who ask for the same key hold the same\n"
    "  refused        the answer is -1; the user has not withdrawn it yet\n"
    "  not requested  the record is there, and asks for nothing\n"
    "The key of an evlan is one number, that of an eport two. In database 8 stand the mirrors of answered sessions.\n"
    "\n"
    "Examples:\n"
    "  ebridge show sessions --store redis://127.0.0.1\n"
    "  ebridge show sessions --store redis://127.0.0.1 --user app --type VXLAN\n"
    "  ebridge show sessions --store redis://127.0.0.1 --json | jq '.[] | select(.state == \"open\")'";

constexpr const char *IDS_FOOTER =
    "A row for each type: its numbers (all that there are, or those that a range record of the lowest database leaves),\n"
    "how many ids are in use by the answers in the sessions, each counted once, and how many numbers are free. Ids that a\n"
    "narrower range has left out stay in use, and take nothing from what is free. A number that was freed lately is free.\n"
    "\n"
    "Examples:\n"
    "  ebridge show ids --store redis://127.0.0.1\n"
    "  ebridge show ids --store redis://127.0.0.1 --type VLAN --json | jq '.[0].free'";

constexpr const char *HOLDER_FOOTER =
    "A row for each session that holds the id, with its key and user; an evlan and an eport may have the same id and have\n"
    "nothing to do with each other. MOM_DB is, of a mirror in database 8, the database of the session that it shows.\n"
    "\n"
    "Examples:\n"
    "  ebridge show holder 0x10000065 --store redis://127.0.0.1\n"
    "  ebridge show holder 268435557 --store redis://127.0.0.1 --db 4 --json | jq -r '.[].user'";

constexpr const char *ATTRIBUTES_FOOTER =
    "A row for each record: what a user has published of an evlan or eport. Numbers with a type in their top byte are\n"
    "ids, in hexadecimal. Fields that are 0 are not shown; --json has them all, under \"record\".\n"
    "\n"
    "Examples:\n"
    "  ebridge show evlans --store redis://127.0.0.1\n"
    "  ebridge show evlans --store redis://127.0.0.1 --user app --type VXLAN\n"
    "  ebridge show eports --store redis://127.0.0.1 --type VXLAN_PW --json | jq '.[].record.overlay.sip'";

constexpr const char *USERS_FOOTER =
    "A row for each user that has any record: its sessions (mirrors are not counted), attributes of evlans and eports,\n"
    "match rules, VLANs of ports, default VLANs of ports, and records of other tables.\n"
    "\n"
    "Examples:\n"
    "  ebridge show users --store redis://127.0.0.1\n"
    "  ebridge show users --store redis://127.0.0.1 --json | jq -r '.[].user'";

struct view_arguments {
    record_query query{};
    std::string type;
    std::string id;
    bool json = false;
};
using arguments_of = std::shared_ptr<view_arguments>;

struct view {
    const char *name;
    const char *what;
    const char *footer;
    std::vector<uint32_t> databases;
    bool with_user;
    bool with_type;
};

// Declares a view; `run` shows what its arguments ask for.
template <typename Run>
CLI::App *add_view(CLI::App *show, std::vector<command> *commands, const view &of, const arguments_of &given,
                   const Run &run)
{
    CLI::App *app = show->add_subcommand(of.name, of.what);
    app->footer(std::string(of.footer) + STATUSES);
    given->query.databases = of.databases;
    add_store_options(app, {&given->query.store, &given->query.databases, &given->json, "array"});
    if (of.with_user)
        app->add_option("--user", given->query.user, "only this user")->type_name("NAME");
    if (of.with_type)
        app->add_option("--type", given->type, "only this type of evlans or eports, by name or number")
            ->type_name("TYPE");
    app->callback([given] {
        remove_repeated(&given->query.databases);
        given->query.type = find_bridge_type(given->type);
        if (!given->type.empty() && !given->query.type)
            throw CLI::ValidationError("--type", given->type + " is not a type of evlans or eports, such as VXLAN");
    });
    commands->push_back({app, [given, run] { return run(*given); }});
    return app;
}

bool with_db(const view_arguments &given) { return given.query.databases.size() > 1; }

// ---- sessions and ids -----------------------------------------------------------------------------------------------

int show_sessions(const view_arguments &given)
{
    std::vector<shown_session> sessions;
    const auto read = [&](std::string *error) { return read_sessions(given.query, &sessions, error); };
    return show(given.json, read,
                [&] { return given.json ? sessions_json(sessions) + '\n' : sessions_table(sessions, with_db(given)); });
}

// All sessions are read, whatever is shown: a key of one type may hold an id of another one.
int show_ids(const view_arguments &given)
{
    record_query all = given.query;
    all.type.reset();
    std::vector<shown_session> sessions;
    std::vector<shown_range> ranges;
    const auto read = [&](std::string *error) {
        const int32_t code = read_sessions(all, &sessions, error);
        return code != 0 ? code : read_ranges(all, &ranges, error);
    };
    return show(given.json, read, [&] {
        const std::vector<id_usage> usage = usage_of(sessions, ranges, given.query.type);
        return given.json ? ids_json(usage) + '\n' : ids_table(usage);
    });
}

// Decimal, or hexadecimal with 0x; nothing for what is no id.
std::optional<uint32_t> read_id(const std::string &text)
{
    const bool is_hex = text.starts_with("0x");
    const char *first = text.data() + (is_hex ? 2 : 0), *end = text.data() + text.size();
    uint32_t id = 0;
    const auto read = std::from_chars(first, end, id, is_hex ? 16 : 10);
    return read.ec == std::errc() && read.ptr == end && id != 0 ? std::optional(id) : std::nullopt;
}

int show_holder(const view_arguments &given)
{
    const uint32_t id = read_id(given.id).value();
    std::vector<shown_session> holders;
    const auto read = [&](std::string *error) {
        const int32_t code = read_sessions(given.query, &holders, error);
        std::erase_if(holders, [=](const shown_session &of) { return of.id() != id; });
        return code;
    };
    return show(given.json, read,
                [&] { return given.json ? sessions_json(holders) + '\n' : holders_table(holders, id); });
}

// ---- attributes and users -------------------------------------------------------------------------------------------

int show_attributes(const view_arguments &given, const char *table)
{
    std::vector<shown_attributes> all;
    const auto read = [&](std::string *error) { return read_attributes(given.query, *find_table(table), &all, error); };
    return show(given.json, read, [&] {
        return given.json ? attributes_json(all) + '\n' : attributes_table(all, table, with_db(given));
    });
}

int show_users(const view_arguments &given)
{
    counted_users users;
    const auto read = [&](std::string *error) { return count_users(given.query, &users, error); };
    return show(given.json, read, [&] { return given.json ? users_json(users) + '\n' : users_table(users); });
}

}  // namespace

void add_show_records(CLI::App *show, std::vector<command> *commands)
{
    const auto fresh = [] { return std::make_shared<view_arguments>(); };
    add_view(
        show, commands,
        {"sessions", "Who asks for which id under which key, and what came of it", SESSIONS_FOOTER, {4}, true, true},
        fresh(), show_sessions);
    add_view(show, commands, {"ids", "How many ids of each type are in use, and free", IDS_FOOTER, {4}, false, true},
             fresh(), show_ids);
    const arguments_of holder = fresh();
    add_view(show, commands, {"holder", "Who holds an id", HOLDER_FOOTER, {4, 8}, false, false}, holder, show_holder)
        ->add_option("ID", holder->id, "the id, decimal or hexadecimal (0x...)")
        ->required()
        ->type_name("")
        ->check(CLI::Validator(
            [](const std::string &text) { return read_id(text) ? "" : text + " is no id, such as 0x10000065"; }, ""));
    add_view(show, commands, {"evlans", "What users have published of evlans", ATTRIBUTES_FOOTER, {8}, true, true},
             fresh(), [](const view_arguments &given) { return show_attributes(given, "evlan"); });
    add_view(show, commands, {"eports", "What users have published of eports", ATTRIBUTES_FOOTER, {8}, true, true},
             fresh(), [](const view_arguments &given) { return show_attributes(given, "eport"); });
    add_view(show, commands,
             {"users", "All users that have any record, and how many", USERS_FOOTER, {4, 8}, false, false}, fresh(),
             show_users);
}

}  // namespace ebridge_tool
