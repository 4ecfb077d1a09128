// Matching of key texts. A ':' stands only between the fields of a key text, so fields are compared as pieces of text.
#include "key_pattern.hpp"

#include "key_text.hpp"

namespace mom
{
namespace
{

key_pattern::shape shape_of(const ProtobufCFieldDescriptor &field)
{
    if (field.type == PROTOBUF_C_TYPE_MESSAGE)
        return key_pattern::shape::message;
    const bool text = field.type == PROTOBUF_C_TYPE_STRING || field.type == PROTOBUF_C_TYPE_BYTES;
    return text ? key_pattern::shape::text : key_pattern::shape::number;
}

// The piece up to the next ':', which is taken off the text.
std::string_view next_piece(std::string_view &text)
{
    const size_t end = text.find(':');
    const std::string_view piece = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    return piece;
}

// The fields that stand in the key text of a type, in its order.
std::vector<const ProtobufCFieldDescriptor *> key_fields(const ProtobufCMessageDescriptor &type)
{
    const auto *index = key_field(type);
    if (index == nullptr)
        return {};
    if (index->type != PROTOBUF_C_TYPE_MESSAGE)
        return {index};
    const auto &key = *static_cast<const ProtobufCMessageDescriptor *>(index->descriptor);
    std::vector<const ProtobufCFieldDescriptor *> fields;
    for (unsigned i = 0; i < key.n_fields; ++i)
        fields.push_back(&key.fields[i]);
    return fields;
}

}  // namespace

std::string_view record_name(std::string_view key) { return key.substr(0, key.find(':')); }

key_pattern::key_pattern(const ProtobufCMessage &record, std::string text)
    : type_(record.descriptor), text_(std::move(text)), name_size_(record_name(text_).size())
{
}

std::optional<key_pattern> key_pattern::of(const ProtobufCMessage &pattern)
{
    auto text = key_text(pattern);
    if (!text)
        return std::nullopt;
    key_pattern made(pattern, std::move(*text));
    std::string_view rest = made.text_;
    made.prefix_ = next_piece(rest);
    bool fixed = true;
    for (const auto *field : key_fields(*made.type_)) {
        std::string_view piece = next_piece(rest);
        made.shapes_.push_back(shape_of(*field));
        if (made.shapes_.back() == shape::number && piece == "0")
            piece = {};
        made.wanted_.emplace_back(piece);
        if (fixed)
            made.prefix_.append(":").append(piece);
        fixed = fixed && !piece.empty();
    }
    if (!fixed)
        return made;
    made.exact_ = true;
    return made;
}

std::optional<key_pattern> key_pattern::exactly(const ProtobufCMessage &record)
{
    auto text = key_text(record);
    if (!text)
        return std::nullopt;
    key_pattern made(record, std::move(*text));
    made.exact_ = true;
    return made;
}

key_pattern::verdict key_pattern::match(std::string_view key) const
{
    if (exact_)
        return key == text_ ? verdict::matches : verdict::differs;
    const size_t name = name_size_;
    if (key.substr(0, name) != std::string_view(text_).substr(0, name) || (key.size() > name && key[name] != ':'))
        return verdict::differs;
    std::string_view rest = key.substr(name);
    bool same = true;
    for (const auto &wanted : wanted_) {
        if (rest.empty())
            return verdict::malformed;
        rest.remove_prefix(1);
        const std::string_view piece = rest.substr(0, rest.find(':'));
        rest.remove_prefix(piece.size());
        same = same && (wanted.empty() || wanted == piece);
    }
    if (!rest.empty())
        return verdict::malformed;
    return same ? verdict::matches : verdict::differs;
}

}  // namespace mom
