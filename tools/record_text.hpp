// A record in words, read through its descriptor: for people, and for programs.
#pragma once

#include <protobuf-c/protobuf-c.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace ebridge_tool
{

template <typename T>
T member(const ProtobufCMessage &of, unsigned offset)
{
    T value;
    std::memcpy(&value, reinterpret_cast<const char *>(&of) + offset, sizeof value);
    return value;
}

// The field that is the key of a record; null where it has none.
const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &of);

// As people know ids: "0x10000065".
std::string id_text(uint32_t id);

// "keyid=5010": the fields of its key that are set, but for the user and the type.
std::string key_words(const ProtobufCMessage &record);
// "request_value=0x20000065 request=1": the fields that are set, but for the key and the type; or, where `fields` has
// their names, joined with commas, these alone, set or not. What is long is cut.
std::string content_words(const ProtobufCMessage &record, std::string_view fields = {});
// {"index": {"t_user": "app", "type": 32, "keyid": 5010}, "request_value": 536870977, ...}: all fields by their names,
// but for messages and members of a oneof that are not there. Bytes are hexadecimal.
std::string record_json(const ProtobufCMessage &record);

}  // namespace ebridge_tool
