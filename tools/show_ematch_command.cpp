// "ebridge show ematch" on the command line. See show_ematch.hpp for what it does.
#include <CLI/CLI.hpp>
#include <memory>

#include "rule_words.hpp"
#include "show_command.hpp"
#include "show_ematch.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *EMATCH_FOOTER =
    "Rules of several users for the same traffic are shown together. The users are compared each with the one before it,\n"
    "in an order of their names that only looks random, so more than one of their rules may hold.\n"
    "  holds          the rule is in force\n"
    "  lost to U (P)  it is not: user U has one of priority P. Only \"lost\" where it may have been one or another\n"
    "  no room        it has won, but the hardware has no room for it\n"
    "  undecided      of several rules none has lost: nobody has decided yet. Is an ebridged running?\n"
    "  not compared   the user itself has a rule of a higher priority for this traffic\n"
    "  ignored        its user's name is longer than 31 characters, its priority is not 0 to 7, or it has a mac or an\n"
    "                 address of another length than these have\n"
    "A rule that nobody contests holds, whether it has been decided or not. No record is written.\n"
    "\n"
    "Examples:\n"
    "  ebridge show ematch --store redis://127.0.0.1\n"
    "  ebridge show ematch --store redis://127.0.0.1 --user acl --type PORT_OVID    what acl competes for, ports with VLANs\n"
    "  ebridge show ematch --store redis://127.0.0.1 --json | jq '.keys[] | select(.verdicts != \"explained\")'\n"
    "\n"
    "Exit status: 0 the rules were read, also if there are none; 1 the result cannot be written, or memory has run out;\n"
    "2 an argument is wrong, or there is no such database; 3 nobody answers at the store's URL, or it makes no sense.";

struct ematch_arguments {
    ematch_query query{};
    std::string type;
    bool json = false;
};

int show_ematch(const ematch_arguments &given)
{
    std::vector<match_rule> rules;
    const auto read = [&](std::string *error) { return read_match_rules(given.query, &rules, error); };
    const auto text = [&] {
        const std::vector<judged_key> keys = judge(std::move(rules), given.query.user);
        return given.json ? ematch_json(keys) + '\n' : ematch_table(keys, given.query.databases.size() > 1);
    };
    return show(given.json, read, text);
}

}  // namespace

void add_show_ematch(CLI::App *show, std::vector<command> *commands)
{
    const auto given = std::make_shared<ematch_arguments>();
    CLI::App *ematch = show->add_subcommand("ematch", "Match rules: who holds which, who lost and to whom");
    ematch->footer(EMATCH_FOOTER);
    add_store_options(ematch, {&given->query.store, &given->query.databases, &given->json, "object"});
    ematch->add_option("--user", given->query.user, "only traffic that this user has a rule for")->type_name("NAME");
    ematch->add_option("--type", given->type, "only rules of this match type, by name or number")->type_name("TYPE");
    ematch->callback([given] {
        remove_repeated(&given->query.databases);
        given->query.type = match_type_of(given->type);
        if (!given->type.empty() && !given->query.type)
            throw CLI::ValidationError("--type", given->type + " is not a match type, such as PORT_OVID");
    });
    commands->push_back({ematch, [given] { return show_ematch(*given); }});
}

}  // namespace ebridge_tool
