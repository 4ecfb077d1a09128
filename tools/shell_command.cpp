// "ebridge shell" on the command line. See shell.hpp for what it does.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <climits>
#include <memory>

#include "command.hpp"
#include "config_file.hpp"
#include "shell.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *SHELL_FOOTER =
    "A process that serves a debug shell (ebridged does) has a socket of its own in $EBRIDGE_SHELL_DIR, which unless\n"
    "set is /run/ebridge-shell (root), $XDG_RUNTIME_DIR/ebridge-shell or /tmp/ebridge-shell-UID, or in a folder below\n"
    "it. The owner of a process and its group can ask it. Without MODULE, lines are read: with editing, history and\n"
    "completion on a terminal, and from a file or a pipe as they are.\n"
    "\n"
    "A command's help names its arguments: db_type=%d is a decimal number, evlan_id=0x%x a hexadecimal one. Those that\n"
    "are missing at the end are 0.\n"
    "\n"
    "Examples:\n"
    "  ebridge shell                                     a prompt; Tab completes modules and commands\n"
    "  ebridge shell --list                              all modules and commands with their help\n"
    "  ebridge shell libvlan_app dump_evlan 0 0 0        all evlans that the program app knows of\n"
    "  ebridge shell --pid 812 libvlan_app dump_stat     of that process, where several are app\n"
    "  echo 'libvlan_app dump_list' | ebridge shell      as a script\n"
    "\n"
    "Exit status: 0 done; 1 the command's result is not 0, or its output cannot be written; 2 there is no such module or\n"
    "command, an argument makes no sense, or standard input cannot be read; 3 nobody serves a debug shell, or the\n"
    "process does not answer.";

struct arguments {
    int pid = 0;
    bool list = false;
    bool json = false;
};

int shell_it(const arguments &given, const CLI::App *shell)
{
    signal(SIGPIPE, SIG_IGN);  // a process may go away, and so may who reads
    shell_query query{.words = shell->remaining()};
    if (given.pid != 0)
        query.pid = given.pid;
    if (!query.words.empty() && query.words[0].starts_with('-'))
        return complain("there is no option " + config_text::printable(query.words[0]) + " (see ebridge shell --help)",
                        BAD_INPUT);
    if (given.list)
        return query.words.size() > 1 ? complain("--list takes one module at most", BAD_INPUT)
                                      : list_shell_commands(query, given.json);
    return query.words.empty() ? run_shell(query) : run_shell_command(query);
}

}  // namespace

void add_shell(CLI::App *ebridge, std::vector<command> *commands)
{
    const auto given = std::make_shared<arguments>();
    CLI::App *shell = ebridge->add_subcommand("shell", "Look into running processes: [MODULE COMMAND [ARG ...]]");
    shell->footer(SHELL_FOOTER);
    shell->prefix_command();
    shell->add_option("--pid", given->pid, "process to ask")->type_name("N")->check(CLI::Range(1, INT_MAX));
    CLI::Option *list = shell->add_flag("--list", given->list, "list modules and commands with their help");
    shell->add_flag("--json", given->json, "with --list: one JSON array, an object for each command")->needs(list);
    commands->push_back({shell, [given, shell] { return shell_it(*given, shell); }});
}

}  // namespace ebridge_tool
