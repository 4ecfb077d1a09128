// See line_reader.hpp.
#include "line_reader.hpp"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "shell_words.hpp"

namespace ebridge_tool
{

namespace
{

class plain_reader : public line_reader
{
  public:
    explicit plain_reader(std::string prompt) : prompt_(std::move(prompt)) {}
    std::optional<std::string> next() override
    {
        std::cout << prompt_ << std::flush;
        std::string line;
        return std::getline(std::cin, line) ? std::optional(line) : std::nullopt;
    }

  private:
    std::string prompt_;
};

}  // namespace

std::unique_ptr<line_reader> line_reader::make(const std::string &prompt, const std::string &history_file,
                                               completion complete)
{
    const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    if (!terminal)
        return std::make_unique<plain_reader>("");
    std::unique_ptr<line_reader> editor = make_line_editor(prompt, history_file, std::move(complete));
    return editor ? std::move(editor) : std::make_unique<plain_reader>(prompt);
}

continuations continue_line(const std::string &line, const line_reader::completion &complete)
{
    std::vector<std::string> words;
    const bool quoted = !split_words(line, &words);
    const bool begun = quoted || (!line.empty() && line.back() != ' ' && line.back() != '\t');
    std::string typed;
    if (begun && !words.empty()) {
        typed = words.back();
        words.pop_back();
    }
    continuations made;
    for (const std::string &word : complete(words))
        if (word.starts_with(typed))
            made.all.push_back(word);
    if (made.all.empty())
        return made;
    made.common = made.all.front();
    for (const std::string &word : made.all) {
        const auto differs = std::ranges::mismatch(made.common, word);
        made.common.erase(differs.in1, made.common.end());
    }
    // What has to be in quotes is completed within them alone.
    const bool needs_quotes = quoted_word(made.common) != made.common;
    made.common = needs_quotes && !quoted ? (typed.empty() ? '"' + made.common : "") : made.common.substr(typed.size());
    if (made.all.size() == 1 && !(needs_quotes && !quoted && !typed.empty()))
        made.common += quoted || needs_quotes ? "\" " : " ";
    return made;
}

}  // namespace ebridge_tool
