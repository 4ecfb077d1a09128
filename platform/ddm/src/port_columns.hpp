// Port tables in the form of a list: rows of fields below a comment that names their columns.
#ifndef DDM_PORT_COLUMNS_HPP
#define DDM_PORT_COLUMNS_HPP

#include <functional>
#include <string_view>

#include "config_tables.hpp"

namespace ddm
{

// What becomes of a row: the column "name" is the entry's key, the others are its fields. False ends the reading.
using row_user = std::function<bool(const config_text::config_entry &row)>;

// Hands over the rows one by one, so that no file makes the reader take more memory than a row. False when a row was not
// wanted, or, with *fault, when a line makes no sense.
bool read_columns(std::string_view text, const row_user &use, config_text::config_fault *fault);

}  // namespace ddm
#endif
