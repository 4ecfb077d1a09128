// The tables of a configuration text, read event by event: the text's nesting never becomes recursion or memory.
#include "config_tables.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>

namespace config_text
{

namespace
{

using json = nlohmann::json;

constexpr size_t MAX_DEPTH = 64;

// A name in a message: long ones are cut, so that what is wrong still fits the line.
std::string cut(const std::string &name) { return name.size() <= 64 ? name : name.substr(0, 64) + "..."; }

// Reads characters and counts lines, because the parser tells its events no place.
struct counting_iterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    const char *at;
    size_t *line;

    reference operator*() const { return *at; }
    counting_iterator &operator++()
    {
        *line += *at == '\n';
        ++at;
        return *this;
    }
    counting_iterator operator++(int)
    {
        const counting_iterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const counting_iterator &other) const { return at == other.at; }
    bool operator!=(const counting_iterator &other) const { return at != other.at; }
};

// Depth of what is open: 1 the file, 2 a table, 3 an entry, more inside a field.
class table_reader : public nlohmann::json_sax<json>
{
  public:
    table_reader(bool (*meant)(std::string_view), std::vector<config_table> *tables, config_fault *fault,
                 const size_t *line)
        : meant_(meant), tables_(tables), fault_(fault), line_(line)
    {
    }

    bool null() override { return scalar({}, false); }
    bool boolean(bool) override { return scalar({}, false); }
    bool number_integer(int64_t value) override { return scalar(std::to_string(value), true); }
    bool number_unsigned(uint64_t value) override { return scalar(std::to_string(value), true); }
    bool number_float(double, const std::string &) override { return scalar({}, false); }
    bool string(std::string &text) override { return check_text(text) && scalar(text, true); }
    bool binary(json::binary_t &) override { return fail("binary data"); }

    bool start_object(size_t) override { return open(true); }
    bool start_array(size_t) override { return open(false); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(std::string &name) override;
    bool parse_error(size_t, const std::string &, const json::exception &error) override;

  private:
    struct level {
        bool object;
        std::set<std::string> keys;
    };

    config_table &table() { return tables_->back(); }
    bool in_meant_table() const { return !tables_->empty() && tables_->back().meant; }
    bool scalar(const std::string &text, bool usable);
    bool open(bool object);
    bool close();
    bool begin_value(bool object);
    // Who takes the text for a C string reads nothing of what comes after such a character.
    bool check_text(const std::string &text)
    {
        return text.find('\0') == std::string::npos || fail("has a NUL character");
    }
    // The field of whose array this is an item; null elsewhere.
    config_field *array_around();
    bool fail(const std::string &what);
    std::string place() const;

    bool (*meant_)(std::string_view);
    std::vector<config_table> *tables_;
    config_fault *fault_;
    const size_t *line_;
    std::vector<level> open_;
};

bool table_reader::fail(const std::string &what)
{
    *fault_ = {*line_, place() + what};
    return false;
}

// "TABLE|ENTRY: " as far as the reader is inside one.
std::string table_reader::place() const
{
    if (tables_->empty() || open_.empty())
        return {};
    const config_table &last = tables_->back();
    return open_.size() >= 2 && last.meant && !last.entries.empty() ? last.place(last.entries.back())
                                                                    : cut(last.name) + ": ";
}

bool table_reader::key(std::string &name)
{
    const bool fresh = open_.back().keys.insert(name).second;
    if (open_.size() == 1)
        tables_->push_back({.name = name, .entries = {}, .meant = meant_(name)});
    if (open_.size() == 2 && table().meant)
        table().entries.push_back({name, {}, *line_});
    if (!fresh)
        return fail(open_.size() <= 2 && table().meant ? "stands there twice" : '"' + name + "\" stands there twice");
    if (open_.size() == 3 && table().meant)
        table().entries.back().fields.push_back(
            {.name = name, .text = {}, .scalar = false, .line = *line_, .items = {}});
    return check_text(name);
}

// What may stand where: called for every value, before it.
bool table_reader::begin_value(bool object)
{
    const size_t depth = open_.size();
    if (depth == 0)
        return object || fail("the top level must be an object of tables");
    if (depth == 1 && !object && table().meant)
        return fail("must be an object of entries");
    if (depth == 2) {
        ++table().count;
        if (table().meant && !object)
            return fail("must be an object of fields");
    }
    return true;
}

config_field *table_reader::array_around()
{
    return open_.size() == 4 && !open_.back().object && in_meant_table() ? &table().entries.back().fields.back()
                                                                         : nullptr;
}

bool table_reader::scalar(const std::string &text, bool usable)
{
    if (!begin_value(false))
        return false;
    if (config_field *field = array_around()) {
        field->list = field->list && usable;
        field->items.push_back(text);
    }
    if (open_.size() == 1)
        table().count = 1;
    if (open_.size() == 3 && in_meant_table()) {
        config_field &field = table().entries.back().fields.back();
        field.text = text;
        field.scalar = usable;
    }
    return true;
}

bool table_reader::open(bool object)
{
    if (!begin_value(object))
        return false;
    if (open_.size() == MAX_DEPTH)
        return fail("nested more than " + std::to_string(MAX_DEPTH) + " levels deep");
    if (config_field *field = array_around())
        field->list = false;
    if (open_.size() == 3 && in_meant_table())
        table().entries.back().fields.back().list = !object;
    open_.push_back({object, {}});
    return true;
}

bool table_reader::close()
{
    open_.pop_back();
    return true;
}

bool table_reader::parse_error(size_t, const std::string &, const json::exception &error)
{
    std::string what = error.what();
    if (const size_t tag = what.find("] "); tag != std::string::npos)
        what.erase(0, tag + 2);
    if (const size_t where = what.find(": "); what.starts_with("parse error at ") && where != std::string::npos)
        what.erase(0, where + 2);
    // A number that no machine word holds is good JSON, but nothing here can mean it.
    const bool overflow = dynamic_cast<const json::out_of_range *>(&error) != nullptr;
    return fail(overflow ? what : "not JSON: " + what);
}

// What the parser would overlook: it takes a NUL byte for the end.
bool check_bytes(std::string_view text, config_fault *fault)
{
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        *fault = {0, "the file is empty"};
        return false;
    }
    const size_t nul = text.find('\0');
    if (nul == std::string_view::npos)
        return true;
    const auto lines = std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(nul), '\n');
    *fault = {static_cast<size_t>(lines) + 1, "not JSON: a NUL byte"};
    return false;
}

}  // namespace

std::string config_field::quoted() const { return scalar ? name + " \"" + cut(text) + '"' : name; }

std::string config_table::place(const config_entry &entry) const
{
    return (name.empty() ? "" : cut(name) + '|') + cut(entry.key) + ": ";
}

std::optional<uint32_t> whole_number(std::string_view digits)
{
    uint32_t number = 0;
    const char *end = digits.data() + digits.size();
    const auto [stopped, error] = std::from_chars(digits.data(), end, number);
    return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

const config_field *config_entry::find(std::string_view name) const
{
    for (const config_field &field : fields)
        if (field.name == name)
            return &field;
    return nullptr;
}

bool read_tables(std::string_view text, bool (*meant)(std::string_view table), std::vector<config_table> *out,
                 config_fault *fault)
{
    if (!check_bytes(text, fault))
        return false;
    size_t line = 1;
    table_reader reader(meant, out, fault, &line);
    const counting_iterator begin{text.data(), &line};
    const counting_iterator end{text.data() + text.size(), &line};
    return json::sax_parse(begin, end, &reader);
}

}  // namespace config_text
