// Columns of a table for people. See text_columns.hpp.
#include "text_columns.hpp"

#include <algorithm>
#include <utility>

namespace ebridge_tool
{

text_columns::text_columns(std::vector<column> columns) : columns_(std::move(columns)), width_(columns_.size())
{
    for (const column &each : columns_)
        heads_.emplace_back(each.head);
    fit(heads_);
}

void text_columns::fit(const cells &row)
{
    for (size_t i = 0; i < row.size(); ++i)
        width_[i] = std::max(width_[i], row[i].size());
}

std::string text_columns::line(const cells &row) const
{
    std::string text;
    for (size_t i = 0; i + 1 < row.size(); ++i) {
        if (!columns_[i].shown)
            continue;
        const std::string gap(width_[i] - row[i].size(), ' ');
        text += (columns_[i].is_number ? gap + row[i] : row[i] + gap) + "  ";
    }
    return text + row.back() + '\n';
}

std::string aligned(text_columns columns, const std::vector<text_columns::cells> &rows)
{
    for (const text_columns::cells &row : rows)
        columns.fit(row);
    std::string text = rows.empty() ? "" : columns.head();
    for (const text_columns::cells &row : rows)
        text += columns.line(row);
    return text;
}

std::string counted(size_t number, const char *what)
{
    return std::to_string(number) + ' ' + what + (number == 1 ? "" : "s");
}

}  // namespace ebridge_tool
