// Key texts: the readable, reversible text of a record's key, under which stores keep the record. The form is described
// in qz_mom.h. Exactly one text stands for one key, so texts can be compared instead of keys.
#ifndef MOM_KEY_TEXT_HPP
#define MOM_KEY_TEXT_HPP

#include <optional>
#include <string>
#include <string_view>

#include "message_access.hpp"

namespace mom
{

// The key field of a record type (number 5, named "index"); null for notices, whose key text is their name alone.
const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &type);

// The key text of a record; nothing when the record lacks its key, or a key field is of a kind that has no text.
std::optional<std::string> key_text(const ProtobufCMessage &record);

// A record that holds nothing but the key of the text; null when the text is not the text of a key of that type.
// Throws std::bad_alloc.
message_ptr parse_key(const ProtobufCMessageDescriptor &type, std::string_view text);
// Puts the key of the text into a record that has none, in memory like the record's own. False when the text is not the
// text of a key of its type. Throws std::bad_alloc.
bool read_key(ProtobufCMessage &record, std::string_view text, ProtobufCAllocator &memory);

}  // namespace mom
#endif
