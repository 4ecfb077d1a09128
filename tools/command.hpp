// A subcommand of the command, and what subcommands share: exit statuses, complaints, and which descriptor results go to.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI
{
class App;
}

namespace ebridge_tool
{

enum exit_status { DONE = 0, SOMETHING_DIFFERS = 1, BAD_INPUT = 2, NO_STORE = 3 };

// One that can be asked for on the command line.
struct command {
    const CLI::App *app;
    std::function<int()> run;  // once its arguments are read; the exit status
};

// Each declares a subcommand, or several below one name, with its arguments and its help.
void add_run(CLI::App *ebridge, std::vector<command> *commands);
void add_shell(CLI::App *ebridge, std::vector<command> *commands);
void add_show(CLI::App *ebridge, std::vector<command> *commands);
void add_watch(CLI::App *ebridge, std::vector<command> *commands);

// What is wrong with the URL of a store that other processes are to look into; empty when nothing is.
std::string shared_store_fault(const std::string &url);

// One line on standard error. Returns the status.
int complain(const std::string &line, int status);

// Where standard input, output or error was closed by whoever started the command, something stands in that cannot be used
// either. Otherwise the next file or socket gets its number, and what is printed goes there.
void keep_standard_descriptors();

// With --json standard output is the object's alone: whatever else is printed there, by the library's log for instance,
// goes to standard error. Returns the descriptor for the object, or -1.
int keep_output_clean();

// False when it cannot be written.
bool write_all(int fd, std::string_view text);

}  // namespace ebridge_tool
