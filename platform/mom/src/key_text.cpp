// Writing and parsing key texts. The two halves mirror each other: append_* writes what the reader's functions read,
// and the reader takes nothing that append_* would have written differently.
#include "key_text.hpp"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <new>

namespace mom
{
namespace
{

// Deeper keys than this are refused: only a message that contains itself would have them.
constexpr int max_depth = 8;

constexpr size_t USUAL_KEY = 32;  // bytes behind the name; a text that is longer grows

constexpr std::string_view hex_digits = "0123456789ABCDEF";

bool plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

void append_bytes(std::string_view bytes, std::string &text)
{
    while (true) {
        const auto end = std::ranges::find_if_not(bytes, plain);
        text.append(bytes.begin(), end);
        bytes.remove_prefix(static_cast<size_t>(end - bytes.begin()));
        if (bytes.empty())
            return;
        const auto byte = static_cast<unsigned char>(bytes.front());
        text += '%';
        text += hex_digits[byte >> 4];
        text += hex_digits[byte & 15];
        bytes.remove_prefix(1);
    }
}

template <typename T>
void append_number(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, std::string &text)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, load<T>(message, field.offset)).ptr;
    text.append(digits, end);
}

void append_string(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, std::string &text)
{
    const auto *value = load<const char *>(message, field.offset);
    if (value != nullptr)
        append_bytes(value, text);
}

// Bytes that are all zero are an address that is not set, however long it is.
void append_binary(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, std::string &text)
{
    const auto value = load<ProtobufCBinaryData>(message, field.offset);
    const std::string_view bytes(reinterpret_cast<const char *>(value.data), value.len);
    if (bytes.find_first_not_of('\0') != std::string_view::npos)
        append_bytes(bytes, text);
}

bool append_value(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth, std::string &text);

// "(number=value,...)" of the members that are not zero; nothing at all when every member is.
bool append_message(const ProtobufCMessage &message, int depth, std::string &text)
{
    const size_t begin = text.size();
    for (unsigned i = 0; i < message.descriptor->n_fields; ++i) {
        const auto &field = message.descriptor->fields[i];
        const size_t before = text.size();
        text += before == begin ? '(' : ',';
        text += std::to_string(field.id);
        text += '=';
        const size_t value = text.size();
        if (!append_value(message, field, depth, text))
            return false;
        const std::string_view written = std::string_view(text).substr(value);
        const bool number = field.type != PROTOBUF_C_TYPE_STRING && field.type != PROTOBUF_C_TYPE_BYTES;
        if (written.empty() || (number && written == "0"))
            text.resize(before);
    }
    if (text.size() > begin)
        text += ')';
    return true;
}

bool append_value(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth, std::string &text)
{
    if (field.label == PROTOBUF_C_LABEL_REPEATED || depth > max_depth)
        return false;
    if (other_case_set(message, field))
        return true;
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            append_number<int32_t>(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            append_number<uint32_t>(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            append_number<int64_t>(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            append_number<uint64_t>(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_BOOL:
            text += load<protobuf_c_boolean>(message, field.offset) ? '1' : '0';
            return true;
        case PROTOBUF_C_TYPE_STRING:
            append_string(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_BYTES:
            append_binary(message, field, text);
            return true;
        case PROTOBUF_C_TYPE_MESSAGE: {
            const auto *inner = load<const ProtobufCMessage *>(message, field.offset);
            return inner == nullptr || append_message(*inner, depth + 1, text);
        }
        case PROTOBUF_C_TYPE_FLOAT:
        case PROTOBUF_C_TYPE_DOUBLE:
            return false;
    }
    return false;
}

void *allocate(ProtobufCAllocator &memory, size_t size)
{
    void *made = memory.alloc(memory.allocator_data, size);
    if (made == nullptr)
        throw std::bad_alloc();
    return made;
}

message_ptr new_message(const ProtobufCMessageDescriptor &type, ProtobufCAllocator &memory)
{
    auto *message = static_cast<ProtobufCMessage *>(allocate(memory, type.sizeof_message));
    protobuf_c_message_init(&type, message);
    return message_ptr(message, free_message{&memory});
}

// What whoever frees a message without an allocator frees.
ProtobufCAllocator &plain_memory()
{
    static ProtobufCAllocator memory{[](void *, size_t size) { return std::malloc(size); },
                                     [](void *, void *gone) { std::free(gone); }, nullptr};
    return memory;
}

int hex_value(char c)
{
    const size_t at = hex_digits.find(c);
    return at == std::string_view::npos ? -1 : static_cast<int>(at);
}

// Reads a key text from its front. Every function returns false at the first thing that no writer would have written.
class reader
{
  public:
    reader(std::string_view text, ProtobufCAllocator &memory) : rest_(text), memory_(memory) {}

    bool done() const { return rest_.empty(); }
    bool skip(char c)
    {
        if (rest_.empty() || rest_.front() != c)
            return false;
        rest_.remove_prefix(1);
        return true;
    }
    bool value(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth);

  private:
    template <typename T>
    bool number(T &value);
    template <typename T>
    bool member_number(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
    {
        T value{};
        if (!number(value))
            return false;
        store_at(message, field.offset, value);
        return true;
    }
    bool bytes(std::string &value);
    bool string(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
    bool binary(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
    bool boolean(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field);
    bool inner(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth);
    bool inner_member(ProtobufCMessage &message, uint32_t &last, int depth);

    std::string_view rest_;
    ProtobufCAllocator &memory_;  // of what is read
};

template <typename T>
bool reader::number(T &value)
{
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error != std::errc())
        return false;
    const auto length = static_cast<size_t>(end - rest_.data());
    const std::string_view digits = rest_.substr(0, length);
    if ((digits[0] == '0' && length > 1) || (digits[0] == '-' && digits[1] == '0'))
        return false;
    rest_.remove_prefix(length);
    return true;
}

bool reader::bytes(std::string &value)
{
    while (!rest_.empty() && (plain(rest_.front()) || rest_.front() == '%')) {
        if (rest_.front() != '%') {
            value += rest_.front();
            rest_.remove_prefix(1);
            continue;
        }
        const int high = rest_.size() > 2 ? hex_value(rest_[1]) : -1;
        const int low = rest_.size() > 2 ? hex_value(rest_[2]) : -1;
        const char byte = static_cast<char>(high * 16 + low);
        if (high < 0 || low < 0 || plain(byte))
            return false;
        value += byte;
        rest_.remove_prefix(3);
    }
    return true;
}

bool reader::string(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    std::string value;
    if (!bytes(value) || value.find('\0') != std::string::npos)
        return false;
    if (value.empty())
        return true;
    auto *copy = static_cast<char *>(allocate(memory_, value.size() + 1));
    std::memcpy(copy, value.c_str(), value.size() + 1);
    store_at(message, field.offset, copy);
    return true;
}

bool reader::binary(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    std::string value;
    if (!bytes(value))
        return false;
    if (value.empty())
        return true;
    if (value.find_first_not_of('\0') == std::string::npos)
        return false;
    auto *copy = static_cast<uint8_t *>(allocate(memory_, value.size()));
    std::memcpy(copy, value.data(), value.size());
    store_at(message, field.offset, ProtobufCBinaryData{value.size(), copy});
    return true;
}

bool reader::boolean(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    store_at<protobuf_c_boolean>(message, field.offset, !rest_.empty() && rest_.front() == '1');
    return skip('1') || skip('0');
}

// One "number=value" of a sub-message: numbers rise, and members that are zero are not written.
bool reader::inner_member(ProtobufCMessage &message, uint32_t &last, int depth)
{
    uint32_t id = 0;
    if (!number(id) || id <= last || !skip('='))
        return false;
    last = id;
    const auto *field = protobuf_c_message_descriptor_get_field(message.descriptor, id);
    if (field == nullptr || rest_.empty() || rest_.front() == ',' || rest_.front() == ')')
        return false;
    const bool text = field->type == PROTOBUF_C_TYPE_STRING || field->type == PROTOBUF_C_TYPE_BYTES;
    if (!text && rest_.front() == '0')
        return false;
    if (in_oneof(*field)) {
        if (load<uint32_t>(message, field->quantifier_offset) != 0)
            return false;
        store_at(message, field->quantifier_offset, id);
    }
    return value(message, *field, depth);
}

bool reader::inner(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth)
{
    if (!skip('('))
        return true;
    const auto &type = *static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
    message_ptr part = new_message(type, memory_);
    uint32_t last = 0;
    do {
        if (!inner_member(*part, last, depth))
            return false;
    } while (skip(','));
    if (!skip(')'))
        return false;
    store_at(message, field.offset, part.release());
    return true;
}

bool reader::value(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, int depth)
{
    if (field.label == PROTOBUF_C_LABEL_REPEATED || depth > max_depth)
        return false;
    switch (field.type) {
        case PROTOBUF_C_TYPE_INT32:
        case PROTOBUF_C_TYPE_SINT32:
        case PROTOBUF_C_TYPE_SFIXED32:
        case PROTOBUF_C_TYPE_ENUM:
            return member_number<int32_t>(message, field);
        case PROTOBUF_C_TYPE_UINT32:
        case PROTOBUF_C_TYPE_FIXED32:
            return member_number<uint32_t>(message, field);
        case PROTOBUF_C_TYPE_INT64:
        case PROTOBUF_C_TYPE_SINT64:
        case PROTOBUF_C_TYPE_SFIXED64:
            return member_number<int64_t>(message, field);
        case PROTOBUF_C_TYPE_UINT64:
        case PROTOBUF_C_TYPE_FIXED64:
            return member_number<uint64_t>(message, field);
        case PROTOBUF_C_TYPE_BOOL:
            return boolean(message, field);
        case PROTOBUF_C_TYPE_STRING:
            return string(message, field);
        case PROTOBUF_C_TYPE_BYTES:
            return binary(message, field);
        case PROTOBUF_C_TYPE_MESSAGE:
            return inner(message, field, depth + 1);
        case PROTOBUF_C_TYPE_FLOAT:
        case PROTOBUF_C_TYPE_DOUBLE:
            return false;
    }
    return false;
}

}  // namespace

const ProtobufCFieldDescriptor *key_field(const ProtobufCMessageDescriptor &type)
{
    const auto *field = protobuf_c_message_descriptor_get_field(&type, 5);
    return field != nullptr && std::strcmp(field->name, "index") == 0 ? field : nullptr;
}

std::optional<std::string> key_text(const ProtobufCMessage &record)
{
    const std::string_view name = record.descriptor->name;
    std::string text;
    text.reserve(name.size() + USUAL_KEY);
    text += name;
    const auto *index = key_field(*record.descriptor);
    if (index == nullptr)
        return text;
    if (index->type != PROTOBUF_C_TYPE_MESSAGE) {
        text += ':';
        return append_value(record, *index, 0, text) ? std::optional(std::move(text)) : std::nullopt;
    }
    const auto *key = load<const ProtobufCMessage *>(record, index->offset);
    if (key == nullptr)
        return std::nullopt;
    for (unsigned i = 0; i < key->descriptor->n_fields; ++i) {
        const auto &field = key->descriptor->fields[i];
        text += ':';
        if (in_oneof(field) || !append_value(*key, field, 0, text))
            return std::nullopt;
    }
    return text;
}

bool read_key(ProtobufCMessage &record, std::string_view text, ProtobufCAllocator &memory)
{
    const auto &type = *record.descriptor;
    const std::string_view name = type.name;
    if (!text.starts_with(name))
        return false;
    reader read(text.substr(name.size()), memory);
    const auto *index = key_field(type);
    if (index != nullptr && index->type == PROTOBUF_C_TYPE_MESSAGE) {
        const auto &key_type = *static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
        ProtobufCMessage *key = new_message(key_type, memory).release();
        store_at(record, index->offset, key);
        for (unsigned i = 0; i < key_type.n_fields; ++i) {
            if (!read.skip(':') || !read.value(*key, key_type.fields[i], 0))
                return false;
        }
    } else if (index != nullptr && (!read.skip(':') || !read.value(record, *index, 0))) {
        return false;
    }
    return read.done();
}

message_ptr parse_key(const ProtobufCMessageDescriptor &type, std::string_view text)
{
    message_ptr record = new_message(type, plain_memory());
    return read_key(*record, text, plain_memory()) ? std::move(record) : nullptr;
}

}  // namespace mom
