// Rows packed by the server, read.
#include "redis_rows.hpp"

#include <algorithm>
#include <charconv>

namespace mom
{
namespace
{

// Takes a big-endian number of so many bytes.
bool take_number(std::string_view &bytes, size_t size, size_t &out)
{
    if (bytes.size() < size)
        return false;
    out = 0;
    for (size_t i = 0; i < size; ++i)
        out = out << 8 | static_cast<uint8_t>(bytes[i]);
    bytes.remove_prefix(size);
    return true;
}

bool take_array(std::string_view &bytes, size_t &count)
{
    size_t tag = 0;
    if (!take_number(bytes, 1, tag))
        return false;
    if (tag >= 0x90 && tag <= 0x9f) {
        count = tag & 0x0f;
        return true;
    }
    // An empty Lua table is packed as an empty map.
    if (tag == 0x80) {
        count = 0;
        return true;
    }
    return (tag == 0xdc && take_number(bytes, 2, count)) || (tag == 0xdd && take_number(bytes, 4, count));
}

bool take_text(std::string_view &bytes, std::string_view &out)
{
    size_t tag = 0;
    size_t size = 0;
    if (!take_number(bytes, 1, tag))
        return false;
    if (tag >= 0xa0 && tag <= 0xbf)
        size = tag & 0x1f;
    else if (!(tag == 0xd9 && take_number(bytes, 1, size)) && !(tag == 0xda && take_number(bytes, 2, size)) &&
             !(tag == 0xdb && take_number(bytes, 4, size)))
        return false;
    if (bytes.size() < size)
        return false;
    out = bytes.substr(0, size);
    bytes.remove_prefix(size);
    return true;
}

template <typename Number>
bool read_number(std::string_view text, Number &out)
{
    const auto read = std::from_chars(text.data(), text.data() + text.size(), out);
    return read.ec == std::errc() && read.ptr == text.data() + text.size();
}

}  // namespace

std::optional<std::vector<std::string_view>> unpack_texts(std::string_view bytes)
{
    size_t count = 0;
    if (!take_array(bytes, count) || count > bytes.size())
        return std::nullopt;
    std::vector<std::string_view> texts(count);
    const bool all = std::ranges::all_of(texts, [&](std::string_view &text) { return take_text(bytes, text); });
    return all && bytes.empty() ? std::optional(std::move(texts)) : std::nullopt;
}

std::string_view row_reader::text() { return at_end() ? std::string_view() : texts_[at_++]; }

std::shared_ptr<const content> row_reader::body()
{
    size_t count = 0;
    if (!read_number(text(), count))
        return nullptr;
    std::vector<encoded_field> fields;
    bool known = true;
    for (size_t i = 0; i < count && !at_end(); ++i) {
        const std::string_view field = text();
        const std::string_view bytes = text();
        if (field.empty() && count == 1)
            return std::make_shared<content>(content{form::whole, std::string(bytes), {}});
        uint32_t number = 0;
        known = read_number(field, number) && number != 0 && known;
        fields.push_back({number, std::string(bytes)});
    }
    if (!known)
        return nullptr;
    std::ranges::sort(fields, {}, &encoded_field::number);
    return std::make_shared<content>(merge(nullptr, fields));
}

}  // namespace mom
