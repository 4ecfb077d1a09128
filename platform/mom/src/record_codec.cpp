// Encoding of records, whole and by field, with nothing but their descriptors.
#include "record_codec.hpp"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "key_text.hpp"

namespace mom
{
namespace
{

// Far deeper than any record; a message that contains itself ends here instead of on the stack's last page.
constexpr int max_depth = 32;

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
        case PROTOBUF_C_TYPE_STRING:
        case PROTOBUF_C_TYPE_MESSAGE:
            return sizeof(void *);
        case PROTOBUF_C_TYPE_BYTES:
            return sizeof(ProtobufCBinaryData);
        case PROTOBUF_C_TYPE_BOOL:
            return sizeof(protobuf_c_boolean);
        default:
            return 4;
    }
}

bool encodable(const ProtobufCMessage *message, int depth);

bool bytes_encodable(const ProtobufCBinaryData &bytes) { return bytes.len == 0 || bytes.data != nullptr; }

bool repeated_encodable(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth)
{
    const auto count = load<size_t>(message, field.quantifier_offset);
    const auto *items = load<const char *>(message, field.offset);
    if (count == 0)
        return true;
    if (items == nullptr)
        return false;
    for (size_t i = 0; i < count; ++i) {
        const char *item = items + i * size_of(field.type);
        const void *pointer = nullptr;
        ProtobufCBinaryData bytes{};
        if (field.type == PROTOBUF_C_TYPE_MESSAGE || field.type == PROTOBUF_C_TYPE_STRING)
            std::memcpy(&pointer, item, sizeof pointer);
        if (field.type == PROTOBUF_C_TYPE_BYTES)
            std::memcpy(&bytes, item, sizeof bytes);
        if ((field.type == PROTOBUF_C_TYPE_STRING && pointer == nullptr) || !bytes_encodable(bytes))
            return false;
        if (field.type == PROTOBUF_C_TYPE_MESSAGE &&
            !encodable(static_cast<const ProtobufCMessage *>(pointer), depth + 1))
            return false;
    }
    return true;
}

bool field_encodable(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth)
{
    if (field.label == PROTOBUF_C_LABEL_REPEATED)
        return repeated_encodable(message, field, depth);
    if (other_case_set(message, field))
        return true;
    if (field.type == PROTOBUF_C_TYPE_BYTES)
        return bytes_encodable(load<ProtobufCBinaryData>(message, field.offset));
    if (field.type != PROTOBUF_C_TYPE_MESSAGE)
        return true;
    const auto *inner = load<const ProtobufCMessage *>(message, field.offset);
    if (inner == nullptr)
        return field.label != PROTOBUF_C_LABEL_REQUIRED;
    return inner->descriptor == field.descriptor && encodable(inner, depth + 1);
}

bool encodable(const ProtobufCMessage *message, int depth)
{
    if (message == nullptr || message->descriptor == nullptr || depth > max_depth ||
        message->descriptor->magic != PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC)
        return false;
    for (unsigned i = 0; i < message->descriptor->n_fields; ++i) {
        if (!field_encodable(*message, message->descriptor->fields[i], depth))
            return false;
    }
    return true;
}

std::string pack(const ProtobufCMessage &message)
{
    std::string bytes(protobuf_c_message_get_packed_size(&message), '\0');
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(bytes.data()));
    return bytes;
}

// protobuf-c packs whole messages only; so a message that holds this one field, and borrows its value, is packed.
std::string encode_field(const ProtobufCMessage &record, const ProtobufCFieldDescriptor &field,
                         ProtobufCMessage &scratch)
{
    if (other_case_set(record, field))
        return {};
    protobuf_c_message_init(record.descriptor, &scratch);
    const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED;
    const size_t size = repeated ? sizeof(void *) : size_of(field.type);
    std::memcpy(member(scratch, field.offset), member(record, field.offset), size);
    if (repeated)
        store_at(scratch, field.quantifier_offset, load<size_t>(record, field.quantifier_offset));
    else if (field.quantifier_offset != 0)
        store_at(scratch, field.quantifier_offset, load<uint32_t>(record, field.quantifier_offset));
    return pack(scratch);
}

// The other members of the oneof of a field that has just been encoded as set.
void add_cleared_cases(const ProtobufCMessageDescriptor &type, const ProtobufCFieldDescriptor &set,
                       std::vector<encoded_field> &fields)
{
    for (unsigned i = 0; i < type.n_fields; ++i) {
        const auto &field = type.fields[i];
        if (in_oneof(field) && field.quantifier_offset == set.quantifier_offset && field.id != set.id)
            fields.push_back({field.id, {}});
    }
}

void append_part(content &to, uint32_t number, std::string_view bytes)
{
    if (bytes.empty())
        return;
    to.bytes.append(bytes);
    to.parts.push_back({number, bytes.size()});
}

// protobuf-c answers bad bytes and a lack of memory with the same null; this allocator remembers which it was.
void *allocate(void *failed, size_t size)
{
    void *memory = std::malloc(size);
    if (memory == nullptr)
        *static_cast<bool *>(failed) = true;
    return memory;
}

void release(void *, void *memory) { std::free(memory); }

message_ptr unpack(const ProtobufCMessageDescriptor &type, const std::string &bytes)
{
    bool failed = false;
    ProtobufCAllocator allocator{allocate, release, &failed};
    message_ptr record(
        protobuf_c_message_unpack(&type, &allocator, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data())));
    if (failed)
        throw std::bad_alloc();
    return record;
}

// Puts the key from the key text in the place of whatever key the record has.
bool take_key(ProtobufCMessage &record, std::string_view text)
{
    const message_ptr key = parse_key(*record.descriptor, text);
    const auto *index = key_field(*record.descriptor);
    if (key == nullptr || index == nullptr)
        return key != nullptr;
    if (index->type != PROTOBUF_C_TYPE_MESSAGE) {
        std::memcpy(member(record, index->offset), member(*key, index->offset), size_of(index->type));
        return true;
    }
    auto *old = load<ProtobufCMessage *>(record, index->offset);
    store_at(record, index->offset, load<ProtobufCMessage *>(*key, index->offset));
    store_at(*key, index->offset, old);
    return true;
}

}  // namespace

bool encodable(const ProtobufCMessage *message) { return encodable(message, 0); }

content encode_whole(const ProtobufCMessage &record) { return {form::whole, pack(record), {}}; }

std::vector<encoded_field> encode_fields(const ProtobufCMessage &record, std::span<const uint32_t> numbers)
{
    const auto &type = *record.descriptor;
    const std::unique_ptr<ProtobufCMessage, decltype(&std::free)> scratch(
        static_cast<ProtobufCMessage *>(std::malloc(type.sizeof_message)), &std::free);
    if (scratch == nullptr)
        throw std::bad_alloc();
    std::vector<encoded_field> fields;
    fields.reserve(numbers.size());
    for (const uint32_t number : numbers) {
        const auto &field = *protobuf_c_message_descriptor_get_field(&type, number);
        fields.push_back({number, encode_field(record, field, *scratch)});
        if (in_oneof(field) && !fields.back().bytes.empty())
            add_cleared_cases(type, field, fields);
    }
    // A cleared member of a oneof may have been named, too: then it stands here twice, empty both times.
    const auto before = [](const encoded_field &a, const encoded_field &b) { return a.number < b.number; };
    const auto same = [](const encoded_field &a, const encoded_field &b) { return a.number == b.number; };
    std::sort(fields.begin(), fields.end(), before);
    fields.erase(std::unique(fields.begin(), fields.end(), same), fields.end());
    return fields;
}

content merge(const content *base, const std::vector<encoded_field> &fields)
{
    content made{form::hash, {}, {}};
    auto next = fields.begin();
    const auto write_up_to = [&](uint32_t number) {
        for (; next != fields.end() && next->number < number; ++next)
            append_part(made, next->number, next->bytes);
    };
    std::string_view rest = base != nullptr ? std::string_view(base->bytes) : std::string_view();
    for (size_t i = 0; base != nullptr && i < base->parts.size(); ++i) {
        const auto &part = base->parts[i];
        write_up_to(part.number);
        if (next == fields.end() || next->number != part.number)
            append_part(made, part.number, rest.substr(0, part.size));
        rest.remove_prefix(part.size);
    }
    write_up_to(UINT32_MAX);
    return made;
}

message_ptr decode(const ProtobufCMessageDescriptor &type, std::string_view key, const content &body)
{
    message_ptr record = unpack(type, body.bytes);
    return record != nullptr && take_key(*record, key) ? std::move(record) : nullptr;
}

}  // namespace mom
