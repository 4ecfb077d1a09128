// Rows of texts as they go to the server's side and come from it (redis_store.lua): MessagePack arrays of texts. Calls
// with writes, entries of the log, pages of records.
#ifndef MOM_REDIS_ROWS_HPP
#define MOM_REDIS_ROWS_HPP

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "record_codec.hpp"

namespace mom
{

// Texts of one row or several, packed one after the other. An array is made of them by array_head().
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

// What stands before the packed texts of an array.
std::string array_head(uint32_t count);

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

// Takes texts off an array; they point into its bytes, which outlive the reader.
class row_reader
{
  public:
    explicit row_reader(std::string_view array);

    bool at_end() const { return left_ == 0; }
    // The bytes are no array of texts: at the end, too.
    bool broken() const { return broken_; }
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
    using place = std::pair<std::string_view, size_t>;
    place here() const { return {rest_, left_}; }
    void go_to(const place &where) { std::tie(rest_, left_) = where; }

  private:
    void fail();

    std::string_view rest_;
    size_t left_ = 0;
    bool broken_ = false;
    body_reader body_;
};

}  // namespace mom
#endif
