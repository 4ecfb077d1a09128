// Reading configuration files, and messages about them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace config_text
{

// Where and what, for one line.
struct config_fault {
    size_t line = 0;  // 0: not known
    std::string what;
};

// Appends what the file holds. 0 or an errno; EFBIG when it is larger than 64 MiB.
int read_file(const std::string &path, std::string *out);

// Text of any origin, fit for one line of a message: control characters as \xNN, cut when it is long.
std::string printable(std::string_view text);

// The URL of a store, fit for one line as well, without user and password.
std::string printable_url(std::string_view url);

// What is wrong with an argument that is there and empty: most likely it is a variable of a script that was never set.
// Nothing of others.
std::string empty_fault(const std::string &argument);

// "FILE:LINE: what", or "FILE: what" when the line is not known: one line, whatever the file is called and holds.
std::string fault_line(std::string_view name, const config_fault &fault);

}  // namespace config_text
