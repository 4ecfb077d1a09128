// What the views of "ebridge show" have in common on the command line: where they read, in which form they tell, and how
// they end.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "command.hpp"

namespace ebridge_tool
{

// Each declares a view, with its arguments and its help.
void add_show_ematch(CLI::App *show, std::vector<command> *commands);
void add_show_vlan(CLI::App *show, std::vector<command> *commands);
void add_show_records(CLI::App *show, std::vector<command> *commands);  // several

// Where the arguments that every view has go to. All must live until the command line is read.
struct store_options {
    std::string *store;
    std::vector<uint32_t> *databases;
    bool *json;
    std::string json_form;  // "object"
};
void add_store_options(CLI::App *view, const store_options &of);
// Sorts them, too.
void remove_repeated(std::vector<uint32_t> *databases);

// The exit status of a command that ends with this qz_mom_code.
int status_of(int32_t code);
// Reads, a qz_mom_code or 0, and prints the text. The exit status; what went wrong is told in one line.
int show(bool json, const std::function<int32_t(std::string *error)> &read, const std::function<std::string()> &text);

}  // namespace ebridge_tool
