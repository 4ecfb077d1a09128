// The tables of a configuration text, before anybody asks what they mean. See config.hpp.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

struct config_field {
    std::string name;
    std::string text;  // of a string or a whole number
    bool scalar;       // false: anything else
    size_t line;
};

struct config_entry {
    std::string key;
    std::vector<config_field> fields;
    size_t line;

    const config_field *find(std::string_view name) const;
};

struct config_table {
    std::string name;
    std::vector<config_entry> entries;  // of a table with a meaning
    size_t count = 0;                   // entries of any table; 1 when it is neither object nor array
    bool meant = false;
};

// Where and what, for one line.
struct config_fault {
    size_t line = 0;  // 0: not known
    std::string what;
};

// Reads the text's tables in their order. Only tables that `meant` knows are kept with their entries.
bool read_tables(std::string_view text, bool (*meant)(std::string_view table), std::vector<config_table> *out,
                 config_fault *fault);

}  // namespace ebridge_tool
