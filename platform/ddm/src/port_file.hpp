// Port tables from the text of a file: which form it has, and what its rows mean. libddm.h describes both.
#ifndef DDM_PORT_FILE_HPP
#define DDM_PORT_FILE_HPP

#include <cstdint>
#include <string_view>

#include "config_file.hpp"
#include "port_table.hpp"

namespace ddm
{

// Fills an empty table. 0; LIBDDM_EINVAL, or LIBDDM_ENOENT for a text without rows, with *fault, and the table is of no
// use then.
int32_t read_ports(std::string_view text, port_table *out, config_text::config_fault *fault);

}  // namespace ddm
#endif
