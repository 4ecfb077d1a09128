// JSON as the command prints it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace ebridge_tool
{

// On one line. Names may be of any bytes: those that are not UTF-8 are replaced.
inline std::string json_text(const nlohmann::ordered_json &value)
{
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace ebridge_tool
