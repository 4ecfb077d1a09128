// A record in words. See record_text.hpp.
#include "record_text.hpp"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "bridge_tables.hpp"
#include "config_file.hpp"
#include "json_text.hpp"
#include "u_bridge.pb-c.h"
#include "vlan_set.hpp"

namespace ebridge_tool
{

using field_type = ProtobufCFieldDescriptor;

// ---- fields ---------------------------------------------------------------------------------------------------------

namespace
{

template <typename T>
T value_at(const void *at)
{
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

const char *place(const ProtobufCMessage &of, unsigned offset) { return reinterpret_cast<const char *>(&of) + offset; }

// Members of a oneof share their memory: only the one that is set may be looked at.
bool is_there(const ProtobufCMessage &of, const field_type &field)
{
    if ((field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0 && member<uint32_t>(of, field.quantifier_offset) != field.id)
        return false;
    return field.type != PROTOBUF_C_TYPE_MESSAGE || field.label == PROTOBUF_C_LABEL_REPEATED ||
           member<const void *>(of, field.offset) != nullptr;
}

size_t size_of(ProtobufCType type)
{
    switch (type) {
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
        case PROTOBUF_C_TYPE_DOUBLE:
            return 8;
        case PROTOBUF_C_TYPE_BOOL:
            return sizeof(protobuf_c_boolean);
        case PROTOBUF_C_TYPE_STRING:
        case PROTOBUF_C_TYPE_MESSAGE:
            return sizeof(void *);
        case PROTOBUF_C_TYPE_BYTES:
            return sizeof(ProtobufCBinaryData);
        default:
            return 4;
    }
}

// Where the values of a list are, one after the other.
struct list_values {
    list_values(const ProtobufCMessage &of, const field_type &field)
        : count(member<size_t>(of, field.quantifier_offset)),
          first(member<const char *>(of, field.offset)),
          stride(size_of(field.type))
    {
    }
    const void *at(size_t i) const { return first + i * stride; }

    const size_t count;
    const char *const first;
    const size_t stride;
};

std::string hex(const ProtobufCBinaryData &bytes)
{
    std::string text;
    for (size_t i = 0; i < bytes.len; ++i) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", bytes.data[i]);
        text += digits;
    }
    return text;
}

std::string_view text_at(const void *at)
{
    const char *text = value_at<const char *>(at);
    return text ? text : "";
}

std::string enum_name(const field_type &field, const void *at)
{
    return type_name(*static_cast<const ProtobufCEnumDescriptor *>(field.descriptor), value_at<int32_t>(at));
}

}  // namespace

const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &of)
{
    const auto *field = protobuf_c_message_descriptor_get_field(&of, 5);
    return field && std::strcmp(field->name, "index") == 0 ? field : nullptr;
}

std::string id_text(uint32_t id)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", id);
    return text;
}

// ---- for people -----------------------------------------------------------------------------------------------------

namespace
{

constexpr size_t LONG_LIST = 8;

// What has a type in its top byte is an id, and so are hashes that are keys: in hexadecimal. Small numbers are numbers,
// also below 0.
std::string number_text(int64_t value)
{
    if (value >= -0xffff && value <= 0xffffff)
        return std::to_string(value);
    return id_text(static_cast<uint32_t>(value));
}

bool is_bitmap(const ProtobufCMessage &of) { return of.descriptor == &u_bridge__bitmap__descriptor; }

std::string set_fields(const ProtobufCMessage &of);

std::string message_text(const ProtobufCMessage &of)
{
    if (is_bitmap(of)) {
        const auto &bitmap = reinterpret_cast<const UBridge__Bitmap &>(of);
        std::string fault;
        if (const auto vlans = vlan_set::read(bitmap.start, {bitmap.value, bitmap.n_value}, &fault))
            return vlans->text();
    }
    return '{' + set_fields(of) + '}';
}

std::string value_text(const field_type &field, const void *at)
{
    switch (field.type) {
        case PROTOBUF_C_TYPE_ENUM:
            return enum_name(field, at);
        case PROTOBUF_C_TYPE_BOOL:
            return value_at<protobuf_c_boolean>(at) ? "1" : "0";
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return std::to_string(value_at<int64_t>(at));
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return std::to_string(value_at<uint64_t>(at));
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return number_text(value_at<uint32_t>(at));
        case PROTOBUF_C_TYPE_FLOAT:
            return std::to_string(value_at<float>(at));
        case PROTOBUF_C_TYPE_DOUBLE:
            return std::to_string(value_at<double>(at));
        case PROTOBUF_C_TYPE_STRING:
            return config_text::printable(text_at(at));
        case PROTOBUF_C_TYPE_BYTES:
            return hex(value_at<ProtobufCBinaryData>(at));
        case PROTOBUF_C_TYPE_MESSAGE:
            return message_text(*value_at<const ProtobufCMessage *>(at));
        default:
            return number_text(value_at<int32_t>(at));
    }
}

std::string field_text(const ProtobufCMessage &of, const field_type &field)
{
    if (!is_there(of, field))
        return "-";
    if (field.label != PROTOBUF_C_LABEL_REPEATED)
        return value_text(field, place(of, field.offset));
    const list_values all(of, field);
    std::string text;
    for (size_t i = 0; i < std::min(all.count, LONG_LIST); ++i)
        text += (i == 0 ? "" : ",") + value_text(field, all.at(i));
    return all.count > LONG_LIST ? text + ",... (" + std::to_string(all.count) + ')' : text;
}

// Other than at its default.
bool is_set(const ProtobufCMessage &of, const field_type &field)
{
    if (!is_there(of, field))
        return false;
    if (field.label == PROTOBUF_C_LABEL_REPEATED)
        return list_values(of, field).count != 0;
    const char *at = place(of, field.offset);
    switch (field.type) {
        case PROTOBUF_C_TYPE_MESSAGE:
            return true;
        case PROTOBUF_C_TYPE_STRING:
            return !text_at(at).empty();
        case PROTOBUF_C_TYPE_BYTES:
            return value_at<ProtobufCBinaryData>(at).len != 0;
        default:
            return std::any_of(at, at + size_of(field.type), [](char byte) { return byte != 0; });
    }
}

template <typename Shown>
std::string words(const ProtobufCMessage &of, const Shown &shown)
{
    std::string text;
    for (unsigned i = 0; i < of.descriptor->n_fields; ++i) {
        const field_type &field = of.descriptor->fields[i];
        if (shown(field))
            text += (text.empty() ? "" : " ") + std::string(field.name) + '=' + field_text(of, field);
    }
    return text;
}

std::string set_fields(const ProtobufCMessage &of)
{
    return words(of, [&](const field_type &field) { return is_set(of, field); });
}

bool is_called(const field_type &field, std::string_view name) { return name == field.name; }

bool is_among(std::string_view name, std::string_view names)
{
    while (!names.empty()) {
        const size_t comma = std::min(names.find(','), names.size());
        if (names.substr(0, comma) == name)
            return true;
        names.remove_prefix(std::min(comma + 1, names.size()));
    }
    return false;
}

}  // namespace

std::string key_words(const ProtobufCMessage &record)
{
    const auto *index = key_field(*record.descriptor);
    const bool is_message = index && index->type == PROTOBUF_C_TYPE_MESSAGE && is_there(record, *index);
    if (!is_message)
        return "";
    const bridge_table *table = table_of(record);
    const auto &key = *member<const ProtobufCMessage *>(record, index->offset);
    return words(key, [&](const field_type &field) {
        const bool is_told = is_called(field, "t_user") || (table && table->types && is_called(field, "type"));
        return !is_told && is_set(key, field);
    });
}

std::string content_words(const ProtobufCMessage &record, std::string_view fields)
{
    constexpr size_t LONG_TEXT = 240;
    const auto *index = key_field(*record.descriptor);
    const bridge_table *table = table_of(record);
    std::string text = words(record, [&](const field_type &field) {
        if (&field == index || (table && table->types && is_called(field, "type")))
            return false;
        return fields.empty() ? is_set(record, field) : is_among(field.name, fields);
    });
    if (text.size() <= LONG_TEXT)
        return text;
    size_t end = LONG_TEXT;
    while ((static_cast<unsigned char>(text[end]) & 0xc0) == 0x80)  // not within a character
        --end;
    return text.substr(0, end) + "...";
}

// ---- for programs ---------------------------------------------------------------------------------------------------

namespace
{

using json = nlohmann::ordered_json;

json object_of(const ProtobufCMessage &of);

json value_json(const field_type &field, const void *at)
{
    switch (field.type) {
        case PROTOBUF_C_TYPE_ENUM: {
            const auto &names = *static_cast<const ProtobufCEnumDescriptor *>(field.descriptor);
            const auto value = value_at<int32_t>(at);
            return protobuf_c_enum_descriptor_get_value(&names, value) ? json(enum_name(field, at)) : json(value);
        }
        case PROTOBUF_C_TYPE_BOOL:
            return value_at<protobuf_c_boolean>(at) != 0;
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return value_at<int64_t>(at);
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return value_at<uint64_t>(at);
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return value_at<uint32_t>(at);
        case PROTOBUF_C_TYPE_FLOAT:
            return value_at<float>(at);
        case PROTOBUF_C_TYPE_DOUBLE:
            return value_at<double>(at);
        case PROTOBUF_C_TYPE_STRING:
            return text_at(at);
        case PROTOBUF_C_TYPE_BYTES:
            return hex(value_at<ProtobufCBinaryData>(at));
        case PROTOBUF_C_TYPE_MESSAGE:
            return object_of(*value_at<const ProtobufCMessage *>(at));
        default:
            return value_at<int32_t>(at);
    }
}

json field_json(const ProtobufCMessage &of, const field_type &field)
{
    if (field.label != PROTOBUF_C_LABEL_REPEATED)
        return value_json(field, place(of, field.offset));
    const list_values all(of, field);
    json list = json::array();
    for (size_t i = 0; i < all.count; ++i)
        list.push_back(value_json(field, all.at(i)));
    return list;
}

json object_of(const ProtobufCMessage &of)
{
    json object = json::object();
    for (unsigned i = 0; i < of.descriptor->n_fields; ++i)
        if (const field_type &field = of.descriptor->fields[i]; is_there(of, field))
            object[field.name] = field_json(of, field);
    return object;
}

}  // namespace

std::string record_json(const ProtobufCMessage &record) { return json_text(object_of(record)); }

}  // namespace ebridge_tool
