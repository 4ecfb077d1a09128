// Reading and writing the members of a protobuf-c message through its descriptor.
#ifndef MOM_MESSAGE_ACCESS_HPP
#define MOM_MESSAGE_ACCESS_HPP

#include <protobuf-c/protobuf-c.h>

#include <cstring>
#include <memory>

namespace mom
{

struct free_message {
    ProtobufCAllocator *memory = nullptr;  // null: malloc
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, memory); }
};
// A message whose parts all come from the same memory.
using message_ptr = std::unique_ptr<ProtobufCMessage, free_message>;

inline const void *member(const ProtobufCMessage &message, unsigned offset)
{
    return reinterpret_cast<const char *>(&message) + offset;
}

inline void *member(ProtobufCMessage &message, unsigned offset) { return reinterpret_cast<char *>(&message) + offset; }

template <typename T>
T load(const ProtobufCMessage &message, unsigned offset)
{
    T value;
    std::memcpy(&value, member(message, offset), sizeof value);
    return value;
}

template <typename T>
void store_at(ProtobufCMessage &message, unsigned offset, T value)
{
    std::memcpy(member(message, offset), &value, sizeof value);
}

inline bool in_oneof(const ProtobufCFieldDescriptor &field) { return (field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0; }

// Members of a oneof share their memory, so only the set one may be looked at.
inline bool other_case_set(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    return in_oneof(field) && load<uint32_t>(message, field.quantifier_offset) != field.id;
}

}  // namespace mom
#endif
