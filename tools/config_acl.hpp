// What the fields of access lists mean: the part of reading a configuration (config.cpp) that knows them.
#pragma once

#include <functional>
#include <string>

#include "config.hpp"
#include "config_tables.hpp"

namespace ebridge_tool
{

// Whether there is a port or LAG of that name.
using port_test = std::function<bool(const std::string &)>;

// Of an entry of ACL_TABLE.
struct acl_table {
    bool egress = false;
    bool of_switch = false;  // as acl_rule::of_switch
};

// Each false, with what makes no sense in *error. They set what the entry's fields tell, and leave the rest alone.
bool read_acl_table(const config_text::config_entry &entry, const port_test &is_port, acl_table *out,
                    std::string *error);
bool read_acl_rule(const config_text::config_entry &entry, const port_test &is_port, acl_rule *out, std::string *error);

}  // namespace ebridge_tool
