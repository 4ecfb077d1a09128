// "ebridge shell": runs commands of processes' debug shells, lists them, and does so for whoever types.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "shell_link.hpp"

namespace ebridge_tool
{

struct shell_query {
    std::optional<int> pid{};          // of the process; nothing: whichever serves the module
    std::vector<std::string> words{};  // MODULE, COMMAND and its arguments, as far as they are told
};

// Runs a command on standard output. The exit status, after a line on standard error unless it is 0.
int run_shell_command(const shell_query &query);
// Lists modules and commands with their help; with a word only that module's.
int list_shell_commands(const shell_query &query, bool json);
// Runs what is typed, or what a file has, line by line. The status of the first line that failed.
int run_shell(const shell_query &query);

}  // namespace ebridge_tool
