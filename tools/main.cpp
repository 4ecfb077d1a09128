// ebridge, the command: finds the subcommand that is asked for, reads its arguments and runs it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <new>

#include "command.hpp"
#include "config_file.hpp"

using namespace ebridge_tool;

namespace
{

constexpr const char *FOOTER =
    "Examples:\n"
    "  ebridge run leaf.json                             see ebridge run --help\n"
    "  ebridge shell --list                              see ebridge shell --help\n"
    "  ebridge show ematch --store redis://127.0.0.1     see ebridge show ematch --help\n"
    "  ebridge show vlan --store redis://127.0.0.1       see ebridge show vlan --help\n"
    "  ebridge show sessions --store redis://127.0.0.1   see ebridge show sessions --help\n"
    "  ebridge watch --store redis://127.0.0.1           see ebridge watch --help";

// "ebridge run": the words as far as they are understood, for whom the help is to be asked.
std::string understood(const CLI::App &app)
{
    const auto below = app.get_subcommands();
    return app.get_name() + (below.empty() ? "" : ' ' + understood(*below.front()));
}

// What is wrong, and of a subcommand that there is not also its name.
std::string fault(const CLI::App &app, const CLI::ParseError &error)
{
    const CLI::App *last = &app;
    while (!last->get_subcommands().empty())
        last = last->get_subcommands().front();
    const bool has_subcommands = !last->get_subcommands(std::function<bool(const CLI::App *)>()).empty();
    const std::vector<std::string> rest = app.remaining(true);
    return error.what() + (has_subcommands && !rest.empty() ? ", and \"" + rest.front() + "\" is none" : "");
}

int print_help(const CLI::App &app, const CLI::CallForHelp &help)
{
    const int status = app.exit(help);
    return std::cout.flush() ? status : complain("the help cannot be written", SOMETHING_DIFFERS);
}

void refuse_empty(CLI::App *app)
{
    const CLI::Validator is_told(config_text::empty_fault, "");
    for (CLI::Option *option : app->get_options(std::function<bool(CLI::Option *)>()))
        option->check(is_told);
    for (CLI::App *below : app->get_subcommands(std::function<bool(CLI::App *)>()))
        refuse_empty(below);
}

int ebridge(int argc, char **argv)
{
    CLI::App app{"ebridge - try out and look into the extended bridge", "ebridge"};
    app.require_subcommand(1);
    app.footer(FOOTER);
    std::vector<command> commands;
    for (const auto add : {add_run, add_shell, add_show, add_watch})
        add(&app, &commands);
    refuse_empty(&app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &help) {
        return print_help(app, help);
    } catch (const CLI::ParseError &error) {
        return complain(config_text::printable(fault(app, error)) + " (see " + understood(app) + " --help)", BAD_INPUT);
    }
    const auto asked = std::ranges::find_if(commands, [](const command &one) { return one.app->parsed(); });
    return asked->run();
}

}  // namespace

int main(int argc, char **argv)
{
    keep_standard_descriptors();
    try {
        return ebridge(argc, argv);
    } catch (const std::bad_alloc &) {
        return complain("out of memory", SOMETHING_DIFFERS);
    }
}
