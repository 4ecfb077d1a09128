// Rows of texts, packed and read.
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

bool pass_over_number(std::string_view &bytes)
{
    size_t tag = 0;
    if (!take_number(bytes, 1, tag))
        return false;
    const bool has_more = tag >= 0xcc && tag <= 0xcf;
    const size_t size = has_more ? size_t{1} << (tag - 0xcc) : 0;
    if ((tag >= 0x80 && !has_more) || bytes.size() < size)
        return false;
    bytes.remove_prefix(size);
    return true;
}

bool take_packed(std::string_view &bytes, std::string_view &out)
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

void append_big_endian(std::string &to, uint64_t number, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        to += static_cast<char>(number >> shift & 0xff);
}

}  // namespace

void packed_texts::add(std::string_view text)
{
    constexpr size_t most_rows = 112;  // one piece of memory for these
    if (count_++ == 0)
        bytes_.reserve(std::max(most_rows, text.size() + 5));
    if (text.size() < 32) {
        bytes_ += static_cast<char>(0xa0 | text.size());
    } else if (text.size() < 0x10000) {
        bytes_ += '\xda';
        append_big_endian(bytes_, text.size(), 2);
    } else {
        bytes_ += '\xdb';
        append_big_endian(bytes_, text.size(), 4);
    }
    bytes_.append(text);
}

void packed_texts::add_number(uint64_t number)
{
    bytes_ += '\xcf';
    append_big_endian(bytes_, number, 8);
    ++count_;
}

void packed_texts::append(const packed_texts &others)
{
    bytes_ += others.bytes_;
    count_ += others.count_;
}

std::string_view row_reader::text()
{
    std::string_view text;
    if (rest_.empty())
        return text;
    broken_ = !take_packed(rest_, text);
    if (broken_)
        rest_ = {};
    return text;
}

void row_reader::skip_head()
{
    std::string_view text;
    broken_ =
        !take_packed(rest_, text) || !take_packed(rest_, text) || !pass_over_number(rest_) || !pass_over_number(rest_);
    if (broken_)
        rest_ = {};
}

void row_reader::skip(size_t count)
{
    while (count-- != 0 && !at_end())
        text();
}

void row_reader::skip_body()
{
    size_t count = 0;
    if (read_number(text(), count))
        skip(2 * count);
}

std::shared_ptr<const content> row_reader::body()
{
    size_t count = 0;
    if (!read_number(text(), count))
        return nullptr;
    body_.clear();
    for (; count != 0 && !at_end(); --count) {
        const std::string_view field = text();
        const std::string_view bytes = text();
        if (field.empty())
            return std::make_shared<content>(content{form::whole, std::string(bytes)});
        body_.add(field, bytes);
    }
    return body_.made();
}

std::shared_ptr<const content> row_reader::values(size_t count)
{
    auto made = std::make_shared<content>(content{form::hash, {}});
    for (; count != 0 && !at_end(); --count)
        made->bytes.append(text());
    return made;
}

void body_reader::clear()
{
    known_ = true;
    size_ = 0;
    fields_.clear();
}

void body_reader::add(std::string_view field, std::string_view bytes)
{
    uint32_t number = 0;
    known_ = read_number(field, number) && number != 0 && known_;
    if (bytes.empty())
        return;
    fields_.emplace_back(number, bytes);
    size_ += bytes.size();
}

std::shared_ptr<const content> body_reader::made()
{
    if (!known_)
        return nullptr;
    if (!std::ranges::is_sorted(fields_))
        std::ranges::sort(fields_);
    auto made = std::make_shared<content>(content{form::hash, {}});
    made->bytes.reserve(size_);
    for (const auto &field : fields_)
        made->bytes.append(field.second);
    return made;
}

}  // namespace mom
