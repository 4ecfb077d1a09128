// Rows of texts as they go to the server's side and come from it (redis_store.lua), in MessagePack: calls with writes and
// entries of the log.
#ifndef MOM_REDIS_ROWS_HPP
#define MOM_REDIS_ROWS_HPP

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "record_codec.hpp"

namespace mom
{

// Texts of one row or several, packed one after the other.
class packed_texts
{
  public:
    packed_texts() = default;
    packed_texts(std::initializer_list<std::string_view> texts)
    {
        for (const std::string_view text : texts)
            add(text);
    }

    void add(std::string_view text);
    // What the server's side reads as a number.
    void add_number(uint64_t number);
    void append(const packed_texts &others);
    // The first text is this one; it has one letter. Else nothing is packed here, or it has more.
    bool begins_with(char letter) const { return bytes_.starts_with('\xa1') && bytes_[1] == letter; }
    void begin_with(char letter) { bytes_[1] = letter; }
    // All texts behind the first letter stand in the same order behind that of `others`, too.
    bool continues_in(const packed_texts &others) const
    {
        return std::string_view(others.bytes_).substr(2).starts_with(std::string_view(bytes_).substr(2));
    }
    bool empty() const { return count_ == 0; }
    uint32_t count() const { return count_; }
    const std::string &bytes() const { return bytes_; }

  private:
    std::string bytes_;
    uint32_t count_ = 0;
};

// Puts the content of a record written by field together.
class body_reader
{
  public:
    void clear();
    // The field's number, as text, and its bytes, which outlive the reader.
    void add(std::string_view field, std::string_view bytes);
    // Null when a field was no number.
    std::shared_ptr<const content> made();

  private:
    bool known_ = true;
    size_t size_ = 0;
    std::vector<std::pair<uint32_t, std::string_view>> fields_;
};

// Takes texts off the packed ones; they point into their bytes, which outlive the reader.
class row_reader
{
  public:
    explicit row_reader(std::string_view packed) : rest_(packed) {}

    bool at_end() const { return rest_.empty(); }
    // The bytes are no texts: at the end, too.
    bool broken() const { return broken_; }
    // What stands before the rows of a call, or of an entry of the log: two texts and two numbers.
    void skip_head();
    // The next text; "" behind the end.
    std::string_view text();
    void skip(size_t count);
    // A count, then as often a field and its bytes: a record's content; null when a field is no number. A field "" means
    // that the record was written whole.
    std::shared_ptr<const content> body();
    // So many fields' bytes, in the order of their numbers: a record's content.
    std::shared_ptr<const content> values(size_t count);
    // Passes over what body() would take.
    void skip_body();

    // A place to come back to.
    using place = std::string_view;
    place here() const { return rest_; }
    void go_to(place where) { rest_ = where; }

  private:
    std::string_view rest_;
    bool broken_ = false;
    body_reader body_;
};

}  // namespace mom
#endif
