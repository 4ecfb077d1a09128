// The tables of records that a store of the bridge can hold, and what every record of them can be asked for: its user, and
// its type of evlan or eport.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

struct bridge_table {
    const ProtobufCMessageDescriptor *record;
    const ProtobufCEnumDescriptor *types = nullptr;  // what the types of its records are called; null: they have none
};

std::span<const bridge_table> bridge_tables();
// As people call it: those of the bridge's users by their own names, others with their package ("s_bridge.evlan").
std::string_view table_name(const ProtobufCMessageDescriptor &record);
// By that name, or with the package; null when there is none.
const bridge_table *find_table(std::string_view name);
const bridge_table *table_of(const ProtobufCMessage &record);

// A type of evlans or eports that was asked for. A number may be one of both.
struct wanted_type {
    const ProtobufCEnumDescriptor *of = nullptr;  // null: of either
    int32_t value = 0;
};
// By its name in any case or its number; nothing when there is none.
std::optional<wanted_type> find_bridge_type(std::string_view text);
std::string type_name(const ProtobufCEnumDescriptor &types, int32_t value);

// What a record is of. Nothing for one whose table has no types.
std::optional<int32_t> type_of(const bridge_table &table, const ProtobufCMessage &record);
bool is_of(const wanted_type &type, const bridge_table &table, const ProtobufCMessage &record);
// Who owns it; "" where nobody does.
std::string_view user_of(const ProtobufCMessage &record);
// Whether records of the table have owners.
bool has_users(const ProtobufCMessageDescriptor &record);

// All records of a table, or those of one user.
class table_pattern
{
  public:
    explicit table_pattern(const ProtobufCMessageDescriptor &of, const std::string &user = {});
    table_pattern(const table_pattern &) = delete;
    table_pattern &operator=(const table_pattern &) = delete;

    const ProtobufCMessage &record() const { return *reinterpret_cast<const ProtobufCMessage *>(record_.data()); }

  private:
    using memory = std::vector<std::max_align_t>;
    static memory made(const ProtobufCMessageDescriptor &of);

    std::string user_;
    memory record_;
    memory key_{};
};

}  // namespace ebridge_tool
