// Port tables in the form of a list. See port_columns.hpp.
#include "port_columns.hpp"

#include <algorithm>
#include <string>
#include <vector>

namespace ddm
{

namespace
{

using config_text::config_entry;
using config_text::config_fault;

constexpr size_t MAX_LINE = 4096;
constexpr std::string_view BLANKS = " \t\r\v\f";

using words = std::vector<std::string_view>;

words split(std::string_view line)
{
    words found;
    for (size_t at = line.find_first_not_of(BLANKS); at < line.size();) {
        const size_t end = std::min(line.find_first_of(BLANKS, at), line.size());
        found.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(BLANKS, end);
    }
    return found;
}

class column_reader
{
  public:
    column_reader(const row_user &use, config_fault *fault) : use_(use), fault_(fault) {}

    // To be called for each line in turn, with the text between the line ends.
    bool read_line(std::string_view line);

  private:
    bool fail(const std::string &what)
    {
        *fault_ = {line_, what};
        return false;
    }
    bool comment(std::string_view text);
    bool row(const words &fields);

    const row_user &use_;
    config_fault *fault_;
    size_t line_ = 0;
    std::vector<std::string> columns_;
    size_t columns_line_ = 0;
};

bool column_reader::read_line(std::string_view line)
{
    ++line_;
    if (line.size() > MAX_LINE)
        return fail("the line is longer than " + std::to_string(MAX_LINE) + " bytes");
    words fields = split(line);
    const auto remark = std::ranges::find_if(fields, [](std::string_view field) { return field.starts_with('#'); });
    if (remark == fields.begin())
        return fields.empty() || comment(line);
    fields.erase(remark, fields.end());
    return row(fields);
}

// A comment that names columns, or any other.
bool column_reader::comment(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of("# \t"), text.size()));
    const words names = split(text);
    const auto times = [&](std::string_view name) { return std::ranges::count(names, name); };
    if (times("name") == 0 || times("lanes") == 0)
        return true;
    for (const char *name : {"name", "lanes", "alias", "index", "speed"})
        if (times(name) > 1)
            return fail(std::string("names the column ") + name + " twice");
    columns_.assign(names.begin(), names.end());
    columns_line_ = line_;
    return true;
}

bool column_reader::row(const words &fields)
{
    if (columns_.empty())
        return fail("above the first row a comment has to name the columns: # name lanes ...");
    if (fields.size() > columns_.size())
        return fail(std::to_string(fields.size()) + " fields, but line " + std::to_string(columns_line_) + " names " +
                    std::to_string(columns_.size()) + " columns");
    config_entry entry{.key = {}, .fields = {}, .line = line_};
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string text(fields[i]);
        if (columns_[i] == "name")
            entry.key = text;
        else
            entry.fields.push_back({.name = columns_[i], .text = text, .scalar = true, .line = line_, .items = {}});
    }
    if (entry.key.empty())
        return fail("name is missing");
    return use_(entry);
}

}  // namespace

bool read_columns(std::string_view text, const row_user &use, config_fault *fault)
{
    column_reader reader(use, fault);
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        if (!reader.read_line(text.substr(at, end - at)))
            return false;
        at = end + 1;
    }
    return true;
}

}  // namespace ddm
