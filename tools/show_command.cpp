// "ebridge show" on the command line: views of what a store holds. See show_ematch.hpp for the one that there is.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>

#include "command.hpp"
#include "rule_words.hpp"
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

int print(const std::string &text)
{
    const bool printed = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return printed ? DONE : complain("the result cannot be written", SOMETHING_DIFFERS);
}

int status_of(int32_t code)
{
    if (code == QZ_MOM_EDB)
        return BAD_INPUT;
    return code == QZ_MOM_ENOMEM ? SOMETHING_DIFFERS : NO_STORE;
}

int show_ematch(const ematch_arguments &given)
{
    const int json_output = given.json ? keep_output_clean() : -1;
    if (given.json && json_output < 0)
        return complain("standard output cannot be kept apart", SOMETHING_DIFFERS);
    std::vector<match_rule> rules;
    std::string error;
    if (const int32_t code = read_match_rules(given.query, &rules, &error); code != 0)
        return complain(error, status_of(code));
    const std::vector<judged_key> keys = judge(std::move(rules), given.query.user);
    if (!given.json)
        return print(ematch_table(keys, given.query.databases.size() > 1));
    return write_all(json_output, ematch_json(keys)) ? DONE
                                                     : complain("the result cannot be written", SOMETHING_DIFFERS);
}

// A store that others can look into.
std::string is_shared_store(const std::string &url)
{
    return url.starts_with("mem:") ? url + " lives within one process, no other can read it" : "";
}

void add_ematch(CLI::App *show, std::vector<command> *commands)
{
    const auto given = std::make_shared<ematch_arguments>();
    CLI::App *ematch = show->add_subcommand("ematch", "Match rules: who holds which, who lost and to whom");
    ematch->footer(EMATCH_FOOTER);
    ematch->add_option("--store", given->query.store, "URL of the message store, as for ebridge run")
        ->required()
        ->type_name("URL")
        ->check(CLI::Validator(is_shared_store, ""));
    ematch->add_option("--db", given->query.databases, "database to read, may be repeated")
        ->type_name("N")
        ->capture_default_str();
    ematch->add_option("--user", given->query.user, "only traffic that this user has a rule for")->type_name("NAME");
    ematch->add_option("--type", given->type, "only rules of this match type, by name or number")->type_name("TYPE");
    ematch->add_flag("--json", given->json, "print one JSON object, and nothing else, on standard output");
    ematch->callback([given] {
        std::vector<uint32_t> &databases = given->query.databases;
        std::ranges::sort(databases);
        databases.erase(std::unique(databases.begin(), databases.end()), databases.end());
        given->query.type = match_type_of(given->type);
        if (!given->type.empty() && !given->query.type)
            throw CLI::ValidationError("--type", given->type + " is not a match type, such as PORT_OVID");
    });
    commands->push_back({ematch, [given] { return show_ematch(*given); }});
}

}  // namespace

void add_show(CLI::App *ebridge, std::vector<command> *commands)
{
    CLI::App *show = ebridge->add_subcommand("show", "Show what a store holds");
    show->require_subcommand(1);
    show->footer("Example:\n  ebridge show ematch --store redis://127.0.0.1    see ebridge show ematch --help");
    add_ematch(show, commands);
}

}  // namespace ebridge_tool
