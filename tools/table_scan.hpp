// Reading a table of a store whole.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "store_link.hpp"

namespace ebridge_tool
{

using record_heard = std::function<void(uint32_t db, const ProtobufCMessage &record)>;

// Hands over all records that match the pattern, of each of these databases. 0 when it has all of them; else a
// qz_mom_code, EDOWN also when nothing has come for `patience_usec`: the link is of no use then but to be closed.
int32_t read_table(store_link *link, std::span<const uint32_t> databases, const ProtobufCMessage &pattern,
                   int64_t patience_usec, const record_heard &heard);

}  // namespace ebridge_tool
