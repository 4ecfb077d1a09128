// Columns of a table for people: each as wide as its widest cell, but for the last, which ends the line.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ebridge_tool
{

struct column {
    const char *head;
    bool is_number = false;  // to the right
    bool shown = true;
};

class text_columns
{
  public:
    using cells = std::vector<std::string>;

    explicit text_columns(std::vector<column> columns);

    void fit(const cells &row);
    std::string head() const { return line(heads_); }
    std::string line(const cells &row) const;

  private:
    const std::vector<column> columns_;
    cells heads_{};
    std::vector<size_t> width_{};
};

// The rows below their heads; "" where there are none.
std::string aligned(text_columns columns, const std::vector<text_columns::cells> &rows);

// "1 port", "2 ports".
std::string counted(size_t number, const char *what);

}  // namespace ebridge_tool
