// Encoding of records, whole and by field, with nothing but their descriptors.
#include "record_codec.hpp"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <optional>

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

// Makes `to`, which holds nothing yet, borrow the value of a field.
void borrow_field(const ProtobufCMessage &from, const ProtobufCFieldDescriptor &field, ProtobufCMessage &to)
{
    if (other_case_set(from, field))
        return;
    const bool repeated = field.label == PROTOBUF_C_LABEL_REPEATED;
    const size_t size = repeated ? sizeof(void *) : size_of(field.type);
    std::memcpy(member(to, field.offset), member(from, field.offset), size);
    if (repeated)
        store_at(to, field.quantifier_offset, load<size_t>(from, field.quantifier_offset));
    else if (field.quantifier_offset != 0)
        store_at(to, field.quantifier_offset, load<uint32_t>(from, field.quantifier_offset));
}

void append_varint(std::string &bytes, uint64_t value)
{
    for (; value >= 0x80; value >>= 7)
        bytes += static_cast<char>(value | 0x80);
    bytes += static_cast<char>(value);
}

// Most fields are whole numbers that are written when they are not zero. Nothing: this one is of another kind.
std::optional<uint64_t> whole_number(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    if (field.label != PROTOBUF_C_LABEL_NONE || in_oneof(field))
        return std::nullopt;
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_ENUM:
            return static_cast<uint64_t>(int64_t{load<int32_t>(message, field.offset)});
        case PROTOBUF_C_TYPE_UINT32:
            return load<uint32_t>(message, field.offset);
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_UINT64:
            return load<uint64_t>(message, field.offset);
        default:
            return std::nullopt;
    }
}

// False, and nothing of use in the fields: not all of them are whole numbers.
bool encode_numbers(const ProtobufCMessage &record, std::span<const ProtobufCFieldDescriptor *const> named,
                    std::vector<encoded_field> &fields)
{
    for (const auto *field : named) {
        const auto value = whole_number(record, *field);
        if (!value)
            return false;
        encoded_field &made = fields.emplace_back(encoded_field{field->id, {}});
        if (*value == 0)
            continue;
        append_varint(made.bytes, uint64_t{field->id} << 3);
        append_varint(made.bytes, *value);
    }
    return true;
}

void sort_by_number(std::vector<encoded_field> &fields)
{
    if (!std::ranges::is_sorted(fields, {}, &encoded_field::number))
        std::ranges::sort(fields, {}, &encoded_field::number);
}

// A varint, taken off the bytes, which protobuf-c has written.
uint64_t take_varint(std::string_view &bytes)
{
    uint64_t value = 0;
    for (unsigned shift = 0; !bytes.empty() && shift < 64; shift += 7) {
        const auto byte = static_cast<uint8_t>(bytes.front());
        bytes.remove_prefix(1);
        value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if (byte < 0x80)
            break;
    }
    return value;
}

// The next field of a packed message, tag included, taken off the bytes; its number. Bytes that are no message end in
// fields of some number: all are taken, at least one a time.
uint32_t take_field(std::string_view &bytes, std::string_view &field)
{
    enum wire_type { varint = 0, fixed64 = 1, delimited = 2, fixed32 = 5 };
    std::string_view rest = bytes;
    const uint64_t tag = take_varint(rest);
    size_t size = 0;
    switch (tag & 7) {
        case varint:
            take_varint(rest);
            break;
        case fixed64:
            size = 8;
            break;
        case fixed32:
            size = 4;
            break;
        default:
            size = static_cast<size_t>(take_varint(rest));
            break;
    }
    rest.remove_prefix(std::min(size, rest.size()));
    field = bytes.substr(0, bytes.size() - rest.size());
    bytes = rest;
    return static_cast<uint32_t>(tag >> 3);
}

// Takes the fields below that number off the bytes, and appends them.
void append_below(std::string &to, std::string_view &bytes, uint32_t number)
{
    for (std::string_view rest = bytes, field; !rest.empty() && take_field(rest, field) < number; bytes = rest)
        to.append(field);
}

// Adds, empty, the other members of each oneof of which one member is set here.
void clear_other_cases(const ProtobufCMessageDescriptor &type, std::vector<encoded_field> &fields)
{
    const size_t count = fields.size();
    for (size_t i = 0; i < count; ++i) {
        const auto &set = *protobuf_c_message_descriptor_get_field(&type, fields[i].number);
        if (!in_oneof(set) || fields[i].bytes.empty())
            continue;
        for (unsigned k = 0; k < type.n_fields; ++k) {
            const auto &field = type.fields[k];
            if (in_oneof(field) && field.quantifier_offset == set.quantifier_offset && field.id != set.id)
                fields.push_back({field.id, {}});
        }
    }
    if (fields.size() == count)
        return;
    // A cleared member may have been named, too: then it stands here twice, empty both times.
    sort_by_number(fields);
    const auto same = [](const encoded_field &x, const encoded_field &y) { return x.number == y.number; };
    fields.erase(std::unique(fields.begin(), fields.end(), same), fields.end());
}

// protobuf-c packs whole messages only; so a message that holds these fields alone is packed, and taken apart.
void encode_any(const ProtobufCMessage &record, std::span<const ProtobufCFieldDescriptor *const> named,
                std::vector<encoded_field> &fields)
{
    const auto &type = *record.descriptor;
    const std::unique_ptr<ProtobufCMessage, decltype(&std::free)> scratch(
        static_cast<ProtobufCMessage *>(std::malloc(type.sizeof_message)), &std::free);
    if (scratch == nullptr)
        throw std::bad_alloc();
    protobuf_c_message_init(&type, scratch.get());
    for (const auto *field : named) {
        borrow_field(record, *field, *scratch);
        fields.push_back({field->id, {}});
    }
    sort_by_number(fields);
    const std::string bytes = pack(*scratch);
    auto at = fields.begin();
    for (std::string_view rest = bytes, field; !rest.empty();) {
        const uint32_t number = take_field(rest, field);
        while (at != fields.end() && at->number < number)
            ++at;
        if (at != fields.end() && at->number == number)
            at->bytes.append(field);  // else a required one that nobody named
    }
    clear_other_cases(type, fields);
}

// Takes off whatever key the record has.
void forget_key(ProtobufCMessage &record)
{
    const auto *index = key_field(*record.descriptor);
    if (index == nullptr)
        return;
    if (index->type == PROTOBUF_C_TYPE_MESSAGE)
        store_at<ProtobufCMessage *>(record, index->offset, nullptr);
    else if (index->type == PROTOBUF_C_TYPE_STRING)
        store_at(record, index->offset, static_cast<const char *>(index->default_value));
    else
        std::memset(member(record, index->offset), 0, size_of(index->type));
}

}  // namespace

bool encodable(const ProtobufCMessage *message) { return encodable(message, 0); }

std::string names_of(const ProtobufCMessageDescriptor &type, std::span<const uint32_t> numbers)
{
    std::string names;
    for (const uint32_t number : numbers) {
        if (const auto *field = protobuf_c_message_descriptor_get_field(&type, number); field != nullptr)
            names.append(names.empty() ? "" : ",").append(field->name);
    }
    return names;
}

content encode_whole(const ProtobufCMessage &record) { return {form::whole, pack(record)}; }

std::vector<encoded_field> encode_fields(const ProtobufCMessage &record,
                                         std::span<const ProtobufCFieldDescriptor *const> named)
{
    std::vector<encoded_field> fields;
    fields.reserve(named.size());
    if (!encode_numbers(record, named, fields)) {
        fields.clear();
        encode_any(record, named, fields);
    }
    sort_by_number(fields);
    return fields;
}

std::vector<uint32_t> numbers_of(const content &body)
{
    std::vector<uint32_t> numbers;
    for (std::string_view rest = body.bytes, field; !rest.empty();) {
        if (const uint32_t number = take_field(rest, field); numbers.empty() || numbers.back() != number)
            numbers.push_back(number);
    }
    return numbers;
}

content merge(const content *base, const std::vector<encoded_field> &fields)
{
    content made{form::hash, {}};
    auto next = fields.begin();
    for (std::string_view rest = base != nullptr ? base->bytes : std::string_view(), field; !rest.empty();) {
        const uint32_t number = take_field(rest, field);
        for (; next != fields.end() && next->number < number; ++next)
            made.bytes.append(next->bytes);
        if (next == fields.end() || next->number != number)
            made.bytes.append(field);
    }
    for (; next != fields.end(); ++next)
        made.bytes.append(next->bytes);
    return made;
}

std::shared_ptr<const content> merge(const content *base, std::shared_ptr<const content> written,
                                     std::span<const uint32_t> numbers)
{
    const auto stays = [numbers](uint32_t number) { return !std::ranges::binary_search(numbers, number); };
    std::string_view rest = base != nullptr ? base->bytes : std::string_view();
    std::string_view field;
    bool any_stays = false;
    while (!any_stays && !rest.empty())
        any_stays = stays(take_field(rest, field));
    if (!any_stays)
        return written;
    auto made = std::make_shared<content>(content{form::hash, {}});
    made->bytes.reserve(base->bytes.size() + written->bytes.size());
    std::string_view added = written->bytes;
    for (rest = base->bytes; !rest.empty();) {
        const uint32_t number = take_field(rest, field);
        if (stays(number)) {
            append_below(made->bytes, added, number);
            made->bytes.append(field);
        }
    }
    made->bytes.append(added);
    return made;
}

ProtobufCMessage *decode(message_room &in, const ProtobufCMessageDescriptor &type, std::string_view key,
                         const content &body)
{
    ProtobufCMessage *record = protobuf_c_message_unpack(&type, &in.allocator(), body.bytes.size(),
                                                         reinterpret_cast<const uint8_t *>(body.bytes.data()));
    if (in.was_short())
        throw std::bad_alloc();
    if (record == nullptr)
        return nullptr;
    forget_key(*record);
    return read_key(*record, key, in.allocator()) ? record : nullptr;
}

}  // namespace mom
