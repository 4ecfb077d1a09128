// Lines from whoever types them: with editing, history and completion on a terminal where the line editor is there, plainly
// everywhere else.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ebridge_tool
{

class line_reader
{
  public:
    // What the words before the one that is typed may go on with.
    using completion = std::function<std::vector<std::string>(const std::vector<std::string> &words)>;

    // On a terminal: the prompt, and the file that keeps the history, "" none.
    static std::unique_ptr<line_reader> make(const std::string &prompt, const std::string &history_file,
                                             completion complete);
    virtual ~line_reader() = default;
    // Without its end; nothing at the end of the input.
    virtual std::optional<std::string> next() = 0;
};

// The editor; null where it is not built in or cannot be had.
std::unique_ptr<line_reader> make_line_editor(const std::string &prompt, const std::string &history_file,
                                              line_reader::completion complete);

// The words that begin as the last one of a line does, which is cut off; and what they have in common beyond it.
struct continuations {
    std::vector<std::string> all;
    std::string common;
};
continuations continue_line(const std::string &line, const line_reader::completion &complete);

}  // namespace ebridge_tool
