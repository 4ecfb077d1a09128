// Records as bytes: what a store keeps of a record, and the record made from it again.
#ifndef MOM_RECORD_CODEC_HPP
#define MOM_RECORD_CODEC_HPP

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "message_access.hpp"
#include "message_room.hpp"

namespace mom
{

// How a record was written: field by field (hmset), or in one piece (set). It keeps that form as long as it lives.
enum class form : uint8_t { hash, whole };

// One field as it stands on the wire, tag included; no bytes at all for a field at its default.
struct encoded_field {
    uint32_t number;
    std::string bytes;
};

// What a record holds beside its key. Never changed once made: the record and all that tells of it share one.
struct content {
    form kind;
    std::string bytes;  // the encoded fields, one after the other; of a hash record in the order of their numbers
    bool operator==(const content &) const = default;
};

// True when the message can be packed and its key be read: no null where a value is promised, no endless nesting.
bool encodable(const ProtobufCMessage *message);

// The names of these fields, joined with commas.
std::string names_of(const ProtobufCMessageDescriptor &type, std::span<const uint32_t> numbers);

// The fields that a record holds, by number.
std::vector<uint32_t> numbers_of(const content &body);

content encode_whole(const ProtobufCMessage &record);
// The named fields, in the order of their numbers. A named member of a oneof that is set comes with the others, empty,
// for they are gone.
std::vector<encoded_field> encode_fields(const ProtobufCMessage &record,
                                         std::span<const ProtobufCFieldDescriptor *const> named);
// `base` with the given fields written over it; null for a record that does not exist yet.
content merge(const content *base, const std::vector<encoded_field> &fields);
// The same for fields that stand together: `written` holds those of these numbers, which ascend, that are not at their
// default. As a rule nothing else is known of the record, and it is what comes back.
std::shared_ptr<const content> merge(const content *base, std::shared_ptr<const content> written,
                                     std::span<const uint32_t> numbers);

// The record of that key, which lives as long as the room; null when the key or the content is not of that type. The key
// always comes from the key text, whatever the content says. Throws std::bad_alloc.
ProtobufCMessage *decode(message_room &in, const ProtobufCMessageDescriptor &type, std::string_view key,
                         const content &body);

}  // namespace mom
#endif
