// The tables of a configuration text in the config_db.json form, before anybody asks what they mean: an object of tables,
// a table an object of entries, an entry an object of fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config_file.hpp"

namespace config_text
{

struct config_field {
    std::string name;
    std::string text;  // of a string or a whole number
    bool scalar;       // false: anything else
    size_t line;
    bool list = false;               // an array of strings and whole numbers
    std::vector<std::string> items;  // of a list

    // For messages: the name, and the text of a scalar as far as it is short.
    std::string quoted() const;
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

    // For messages: "TABLE|ENTRY: ", or "ENTRY: " in a table without a name. Long names are cut.
    std::string place(const config_entry &entry) const;
};

// Digits alone, nothing around them; nothing when it is not that or no uint32_t.
std::optional<uint32_t> whole_number(std::string_view digits);

// Reads the text's tables in their order. Only tables that `meant` knows are kept with their entries.
bool read_tables(std::string_view text, bool (*meant)(std::string_view table), std::vector<config_table> *out,
                 config_fault *fault);

}  // namespace config_text
