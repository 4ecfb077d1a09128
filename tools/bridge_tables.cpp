// The tables that a store can hold. See bridge_tables.hpp.
#include "bridge_tables.hpp"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include "record_text.hpp"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

namespace ebridge_tool
{

namespace
{

constexpr std::string_view USERS_PACKAGE = "u_bridge.";

const ProtobufCEnumDescriptor *const EVLAN_TYPES = &u_bridge__evlan_type__descriptor;
const ProtobufCEnumDescriptor *const EPORT_TYPES = &u_bridge__eport_type__descriptor;

const bridge_table TABLES[] = {
    {&u_bridge__evlan_session__descriptor, EVLAN_TYPES},
    {&u_bridge__eport_session__descriptor, EPORT_TYPES},
    {&u_bridge__evlan_session_range__descriptor, EVLAN_TYPES},
    {&u_bridge__eport_session_range__descriptor, EPORT_TYPES},
    {&u_bridge__evlan_session_order__descriptor, EVLAN_TYPES},
    {&u_bridge__evlan__descriptor, EVLAN_TYPES},
    {&u_bridge__eport__descriptor, EPORT_TYPES},
    {&u_bridge__port_vlans__descriptor},
    {&u_bridge__port_vid__descriptor},
    {&u_bridge__pvid_table__descriptor},
    {&u_bridge__port_attr__descriptor},
    {&u_bridge__ematch_entry__descriptor},
    {&u_bridge__congest_notify__descriptor},
    {&u_bridge__vlan_end__descriptor},
    {&u_bridge__vlan_pre_request__descriptor},
    {&u_bridge__vlan_pre_req_reply__descriptor},
    {&s_bridge__evlan__descriptor, EVLAN_TYPES},
    {&s_bridge__eport__descriptor, EPORT_TYPES},
    {&s_bridge__port_vlans__descriptor},
    {&s_bridge__port_vid__descriptor},
    {&s_bridge__ematch_entry__descriptor},
    {&s_bridge__vlan_end__descriptor},
    {&p_libpub__grp_hybrid_mode__descriptor},
    {&p_libpub__grp_notification__descriptor},
    {&p_libpub__grp_member__descriptor},
    {&p_libpub__grp_change__descriptor},
};

// The message that is the key of a record; null where it is none, or not there.
const ProtobufCMessage *key_of(const ProtobufCMessage &record)
{
    const ProtobufCFieldDescriptor *index = key_field(*record.descriptor);
    if (!index || index->type != PROTOBUF_C_TYPE_MESSAGE)
        return nullptr;
    return member<const ProtobufCMessage *>(record, index->offset);
}

const ProtobufCFieldDescriptor *user_field(const ProtobufCMessageDescriptor &key)
{
    const auto *field = protobuf_c_message_descriptor_get_field_by_name(&key, "t_user");
    return field && field->type == PROTOBUF_C_TYPE_STRING ? field : nullptr;
}

bool is_called(const ProtobufCEnumDescriptor &types, int32_t value, std::string_view name)
{
    const std::string own = type_name(types, value);
    return own.size() == name.size() && strncasecmp(own.data(), name.data(), name.size()) == 0;
}

}  // namespace

std::span<const bridge_table> bridge_tables() { return TABLES; }

std::string_view table_name(const ProtobufCMessageDescriptor &record)
{
    std::string_view name = record.name;
    if (name.starts_with(USERS_PACKAGE))
        name.remove_prefix(USERS_PACKAGE.size());
    return name;
}

const bridge_table *find_table(std::string_view name)
{
    const auto found = std::ranges::find_if(
        TABLES, [=](const bridge_table &of) { return name == of.record->name || name == table_name(*of.record); });
    return found == std::end(TABLES) ? nullptr : found;
}

const bridge_table *table_of(const ProtobufCMessage &record) { return find_table(record.descriptor->name); }

std::optional<wanted_type> find_bridge_type(std::string_view text)
{
    int32_t number = 0;
    const char *end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    const bool is_number = read.ec == std::errc() && read.ptr == end;
    for (const ProtobufCEnumDescriptor *types : {EVLAN_TYPES, EPORT_TYPES})
        for (unsigned i = 0; i < types->n_values; ++i) {
            const int32_t value = types->values[i].value;
            if (is_number ? value == number : is_called(*types, value, text))
                return wanted_type{is_number ? nullptr : types, value};
        }
    return std::nullopt;
}

std::string type_name(const ProtobufCEnumDescriptor &types, int32_t value)
{
    const auto *found = protobuf_c_enum_descriptor_get_value(&types, value);
    return found ? found->name : std::to_string(value);
}

std::optional<int32_t> type_of(const bridge_table &table, const ProtobufCMessage &record)
{
    if (!table.types)
        return std::nullopt;
    for (const ProtobufCMessage *of : {&record, key_of(record)})
        if (const auto *field = of ? protobuf_c_message_descriptor_get_field_by_name(of->descriptor, "type") : nullptr)
            return member<int32_t>(*of, field->offset);
    const auto *index = key_field(*record.descriptor);
    return index && index->type == PROTOBUF_C_TYPE_ENUM ? std::optional(member<int32_t>(record, index->offset))
                                                        : std::nullopt;
}

bool is_of(const wanted_type &type, const bridge_table &table, const ProtobufCMessage &record)
{
    const bool may_be = type.of == nullptr || type.of == table.types;
    return may_be && type_of(table, record) == type.value;
}

std::string_view user_of(const ProtobufCMessage &record)
{
    const ProtobufCMessage *key = key_of(record);
    const auto *field = key ? user_field(*key->descriptor) : nullptr;
    const char *user = field ? member<const char *>(*key, field->offset) : nullptr;
    return user ? user : "";
}

bool has_users(const ProtobufCMessageDescriptor &record)
{
    const auto *index = key_field(record);
    return index && index->type == PROTOBUF_C_TYPE_MESSAGE &&
           user_field(*static_cast<const ProtobufCMessageDescriptor *>(index->descriptor));
}

table_pattern::memory table_pattern::made(const ProtobufCMessageDescriptor &of)
{
    memory room(of.sizeof_message / sizeof(std::max_align_t) + 1);
    protobuf_c_message_init(&of, room.data());
    return room;
}

table_pattern::table_pattern(const ProtobufCMessageDescriptor &of, const std::string &user)
    : user_(user), record_(made(of))
{
    const auto *index = key_field(of);
    if (!index || index->type != PROTOBUF_C_TYPE_MESSAGE)
        return;
    const auto &key = *static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
    const auto put = [](memory *to, unsigned offset, const void *what) {
        std::memcpy(reinterpret_cast<char *>(to->data()) + offset, &what, sizeof what);
    };
    key_ = made(key);
    put(&record_, index->offset, key_.data());
    if (const auto *owner = user_field(key); owner && !user.empty())
        put(&key_, owner->offset, user_.c_str());
}

}  // namespace ebridge_tool
