// A match rule in the words that operators know: what it matches, and what it does.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sw_ebridge.h"

namespace ebridge_tool
{

// A field that is set, as people and as programs are told of it.
struct rule_field {
    const char *name;
    std::string text;
    std::optional<int64_t> number{};  // for programs, where it is one
};

// By its name in any case or its number; nothing when there is none.
std::optional<int32_t> match_type_of(const std::string &text);

// Names; a number where there is none.
std::string match_type_name(int32_t type);
std::string action_name(int32_t action);
std::string result_name(int32_t result);
std::vector<std::string> match_flag_names(uint32_t flags);

std::vector<rule_field> key_fields(const sw_ematch_item &item);
std::vector<rule_field> action_fields(const sw_ematch_item &item);

}  // namespace ebridge_tool
