// See shell.hpp.
#include "shell.hpp"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "command.hpp"
#include "config_file.hpp"
#include "line_reader.hpp"
#include "output_pump.hpp"
#include "shell_words.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

bool serves(const shell_process &process, const std::string &module)
{
    return std::ranges::find(process.commands, module, &shell_command::module) != process.commands.end();
}

bool find_processes(const shell_query &query, std::vector<shell_process> *out, std::string *error)
{
    if (!find_shells(out, error))
        return false;
    if (query.pid)
        std::erase_if(*out, [&query](const shell_process &each) { return each.pid != *query.pid; });
    if (out->empty())
        *error = query.pid ? "process " + std::to_string(*query.pid) + " serves no debug shell, or is not yours to ask"
                           : "no process serves a debug shell, or none that is yours to ask";
    return !out->empty();
}

// What is wrong with processes that do not tell their commands.
std::string problems_of(const std::vector<shell_process> &processes)
{
    std::string text;
    for (const shell_process &each : processes)
        if (!each.problem.empty())
            text += (text.empty() ? "" : "; ") + printable(each.name()) + " " + printable(each.problem);
    return text;
}

// The one process that serves the module. Null, with the exit status and a line in *error.
const shell_process *find_server(const std::vector<shell_process> &processes, const std::string &module, int *status,
                                 std::string *error)
{
    std::vector<const shell_process *> found;
    std::string names;
    for (const shell_process &each : processes)
        if (serves(each, module)) {
            found.push_back(&each);
            names += (names.empty() ? "" : ", ") + printable(each.name());
        }
    if (found.size() == 1)
        return found.front();
    *status = BAD_INPUT;
    if (!found.empty()) {
        *error = printable(module) + " is served by several processes: " + names + "; choose one with --pid";
        return nullptr;
    }
    const std::string problems = problems_of(processes);
    *status = problems.empty() ? BAD_INPUT : NO_STORE;
    *error = "no process has the module " + printable(module) + (problems.empty() ? "" : "; " + problems);
    return nullptr;
}

// As find_server().
const shell_command *find_command(const shell_process &process, const std::vector<std::string> &words,
                                  std::string *error)
{
    const auto asked = [&words](const shell_command &each) { return each.module == words[0] && each.name == words[1]; };
    const auto found = std::ranges::find_if(process.commands, asked);
    if (found != process.commands.end())
        return &*found;
    *error = printable(words[0]) + " has no command " + printable(words[1]);
    return nullptr;
}

// As programs end when their output is cut off, by head for instance.
void end_by_broken_pipe()
{
    signal(SIGPIPE, SIG_DFL);
    raise(SIGPIPE);
}

int run_at(const shell_process &process, const shell_command &command, const std::vector<int32_t> &arguments)
{
    shell_link link;
    output_pump output(STDOUT_FILENO);
    std::string error;
    int32_t result = 0;
    const auto take = [&output](std::string_view text) { return output.take(text); };
    const bool ran = link.open(process.path, &error) && link.run(command, arguments, take, &result, &error);
    if (!output.finish()) {
        if (output.is_unread())
            end_by_broken_pipe();
        return complain("the output cannot be written", SOMETHING_DIFFERS);
    }
    if (!ran)
        return complain(printable(process.name()) + " " + printable(error), NO_STORE);
    return result == 0 ? DONE
                       : complain(printable(command.module + ' ' + command.name) + ": result " + std::to_string(result),
                                  SOMETHING_DIFFERS);
}

int run_words(const std::vector<shell_process> &processes, const std::vector<std::string> &words)
{
    int status = DONE;
    std::string error;
    const shell_process *process = find_server(processes, words[0], &status, &error);
    if (!process)
        return complain(error, status);
    if (words.size() < 2)
        return complain("a command of " + printable(words[0]) + " is missing (see ebridge shell --list)", BAD_INPUT);
    const shell_command *command = find_command(*process, words, &error);
    if (!command)
        return complain(error, BAD_INPUT);
    std::vector<int32_t> arguments;
    if (!read_arguments(command->help, {words.begin() + 2, words.end()}, &arguments, &error))
        return complain(printable(words[0] + ' ' + words[1]) + ": " + error, BAD_INPUT);
    return run_at(*process, *command, arguments);
}

// ---- lists --------------------------------------------------------------------------------------------------------------

void print_list(const std::vector<shell_process> &processes, const std::string &module)
{
    for (const shell_process &process : processes) {
        std::string last;
        size_t width = 0;
        for (const shell_command &each : process.commands)
            width = std::max(width, each.name.size());
        for (const shell_command &each : process.commands) {
            if (!module.empty() && each.module != module)
                continue;
            if (each.module != last)
                std::printf("%s, of %s\n", printable(quoted_word(each.module)).c_str(),
                            printable(process.name()).c_str());
            last = each.module;
            std::printf("  %-*s  %s\n", static_cast<int>(width), printable(each.name).c_str(),
                        printable(each.help).c_str());
        }
        if (!process.problem.empty())
            complain(printable(process.name()) + " " + printable(process.problem), NO_STORE);
    }
}

// An object for each command.
std::string json_list(const std::vector<shell_process> &processes, const std::string &module)
{
    auto all = nlohmann::ordered_json::array();
    for (const shell_process &process : processes)
        for (const shell_command &each : process.commands) {
            if (!module.empty() && each.module != module)
                continue;
            auto arguments = nlohmann::ordered_json::array();
            for (const placeholder &argument : placeholders_of(each.help))
                arguments.push_back(argument.text);
            all.push_back({{"program", process.program},
                           {"pid", process.pid},
                           {"module", each.module},
                           {"command", each.name},
                           {"help", each.help},
                           {"arguments", arguments}});
        }
    return all.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int list_of(const std::vector<shell_process> &processes, const std::string &module, bool json)
{
    const bool known = module.empty() || std::ranges::any_of(processes, [&module](const shell_process &each) {
                           return serves(each, module);
                       });
    const std::string problems = problems_of(processes);
    if (!known)
        return complain("no process has the module " + printable(module) + (problems.empty() ? "" : "; " + problems),
                        problems.empty() ? BAD_INPUT : NO_STORE);
    if (json)
        std::printf("%s\n", json_list(processes, module).c_str());
    else
        print_list(processes, module);
    if (json && !problems.empty())
        complain(problems, NO_STORE);
    if (std::fflush(stdout) != 0)
        return complain("the list cannot be written", SOMETHING_DIFFERS);
    return problems.empty() ? DONE : NO_STORE;
}

// ---- lines --------------------------------------------------------------------------------------------------------------

constexpr const char *LINE_HELP =
    "MODULE COMMAND [ARG ...]   runs a command\n"
    "list [MODULE]              modules and commands with their help\n"
    "help                       this\n"
    "quit                       ends, as the end of the input does\n"
    "Words may stand in double quotes. Numbers are decimal, or hexadecimal with 0x, which arguments that are shown as\n"
    "%x need not have. Arguments may be missing at the end, and are then 0.\n";

std::vector<std::string> continued(const std::vector<shell_process> &processes, const std::vector<std::string> &words)
{
    std::set<std::string> found;
    if (words.empty())
        found = {"list", "help", "quit"};
    for (const shell_process &process : processes)
        for (const shell_command &each : process.commands)
            if (words.empty() || (words.size() == 1 && words[0] == "list"))
                found.insert(each.module);
            else if (words.size() == 1 && words[0] == each.module)
                found.insert(each.name);
    return {found.begin(), found.end()};
}

std::string history_file()
{
    const char *const home = std::getenv("HOME");
    return home && *home == '/' ? std::string(home) + "/.ebridge_history" : "";
}

int run_line(const shell_query &query, const std::string &line, std::vector<shell_process> *processes, bool *over)
{
    std::vector<std::string> words;
    if (!split_words(line, &words))
        return complain("a quote is not closed", BAD_INPUT);
    if (words.empty() || words[0].starts_with('#'))
        return DONE;
    if (words[0] == "quit" || words[0] == "exit") {
        *over = true;
        return DONE;
    }
    if (words[0] == "help" || words[0] == "?")
        return std::fputs(LINE_HELP, stdout) < 0 || std::fflush(stdout) != 0 ? SOMETHING_DIFFERS : DONE;
    // Processes come and go.
    std::string error;
    processes->clear();
    if (!find_processes(query, processes, &error))
        return complain(error, NO_STORE);
    if (words[0] == "list")
        return list_of(*processes, words.size() > 1 ? words[1] : "", false);
    return run_words(*processes, words);
}

}  // namespace

int run_shell_command(const shell_query &query)
{
    std::vector<shell_process> processes;
    std::string error;
    if (!find_processes(query, &processes, &error))
        return complain(error, NO_STORE);
    return run_words(processes, query.words);
}

int list_shell_commands(const shell_query &query, bool json)
{
    std::vector<shell_process> processes;
    std::string error;
    if (!find_processes(query, &processes, &error))
        return complain(error, NO_STORE);
    return list_of(processes, query.words.empty() ? "" : query.words[0], json);
}

int run_shell(const shell_query &query)
{
    std::vector<shell_process> processes;
    std::string error;
    if (!find_processes(query, &processes, &error))
        return complain(error, NO_STORE);
    const auto complete = [&processes](const std::vector<std::string> &words) { return continued(processes, words); };
    const std::unique_ptr<line_reader> lines = line_reader::make("ebridge> ", history_file(), complete);
    if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1)
        std::printf("%zu process%s; help tells what can be typed, Tab completes\n", processes.size(),
                    processes.size() == 1 ? "" : "es");
    int status = DONE;
    bool over = false;
    while (!over) {
        const std::optional<std::string> line = lines->next();
        if (!line)
            break;
        const int made = run_line(query, *line, &processes, &over);
        status = status == DONE ? made : status;
    }
    if (std::ferror(stdin) != 0)
        return complain("standard input cannot be read", BAD_INPUT);
    return isatty(STDIN_FILENO) == 1 ? DONE : status;
}

}  // namespace ebridge_tool
