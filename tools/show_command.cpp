// "ebridge show" on the command line: views of what a store holds, and what they have in common. See show_command.hpp.
#include "show_command.hpp"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "qz_mom.h"

namespace ebridge_tool
{

int status_of(int32_t code)
{
    if (code == QZ_MOM_EDB)
        return BAD_INPUT;
    return code == QZ_MOM_ENOMEM ? SOMETHING_DIFFERS : NO_STORE;
}

void add_store_options(CLI::App *view, const store_options &of)
{
    view->add_option("--store", *of.store, "URL of the message store, as for ebridge run")
        ->required()
        ->type_name("URL")
        ->check(CLI::Validator(shared_store_fault, ""));
    view->add_option("--db", *of.databases, "database to read, may be repeated")->type_name("N")->capture_default_str();
    view->add_flag("--json", *of.json, "print one JSON " + of.json_form + ", and nothing else, on standard output");
}

void remove_repeated(std::vector<uint32_t> *databases)
{
    std::ranges::sort(*databases);
    databases->erase(std::unique(databases->begin(), databases->end()), databases->end());
}

int show(bool json, const std::function<int32_t(std::string *error)> &read, const std::function<std::string()> &text)
{
    const int output = json ? keep_output_clean() : STDOUT_FILENO;
    if (output < 0)
        return complain("standard output cannot be kept apart", SOMETHING_DIFFERS);
    std::string error;
    if (const int32_t code = read(&error); code != 0)
        return complain(error, status_of(code));
    return write_all(output, text()) ? DONE : complain("the result cannot be written", SOMETHING_DIFFERS);
}

void add_show(CLI::App *ebridge, std::vector<command> *commands)
{
    CLI::App *show = ebridge->add_subcommand("show", "Show what a store holds");
    show->require_subcommand(1);
    show->footer(
        "Examples:\n"
        "  ebridge show ematch --store redis://127.0.0.1    see ebridge show ematch --help\n"
        "  ebridge show vlan --store redis://127.0.0.1      see ebridge show vlan --help\n"
        "  ebridge show sessions --store redis://127.0.0.1  see ebridge show sessions --help\n"
        "  ebridge show holder 0x10000065 --store redis://127.0.0.1");
    for (const auto add : {add_show_ematch, add_show_vlan, add_show_records})
        add(show, commands);
}

}  // namespace ebridge_tool
