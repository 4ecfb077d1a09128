// See shell_words.hpp.
#include "shell_words.hpp"

#include <charconv>
#include <limits>
#include <optional>

#include "config_file.hpp"

namespace ebridge_tool
{

using config_text::printable;

bool split_words(std::string_view line, std::vector<std::string> *words)
{
    words->clear();
    bool in_word = false, in_quotes = false;
    for (char c : line) {
        const bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
        if (blank && !in_quotes) {
            in_word = false;
            continue;
        }
        if (!in_word)
            words->emplace_back();
        in_word = true;
        if (c == '"')
            in_quotes = !in_quotes;
        else
            words->back() += c;
    }
    return !in_quotes;
}

std::string quoted_word(const std::string &word)
{
    return word.empty() || word.find_first_of(" \t") != std::string::npos ? '"' + word + '"' : word;
}

// A conversion is '%', flags, width, precision and length modifiers, then a letter; "%%" is none.
std::vector<placeholder> placeholders_of(std::string_view help)
{
    std::vector<placeholder> all;
    size_t begin = 0;
    for (size_t at = help.find('%'); at != std::string_view::npos; at = help.find('%', at)) {
        const size_t end = help.find_first_not_of("-+ #0'123456789.*hlLjzt", at + 1);
        if (end == std::string_view::npos)
            break;
        if (std::string_view("diuxXo").find(help[end]) != std::string_view::npos) {
            const size_t word = help.find_last_of(" ,;(", at);
            const size_t first = word == std::string_view::npos || word < begin ? begin : word + 1;
            all.push_back({.text = std::string(help.substr(first, end + 1 - first)),
                           .hexadecimal = help[end] == 'x' || help[end] == 'X',
                           .is_signed = help[end] == 'd' || help[end] == 'i'});
            begin = end + 1;
        }
        at = end + 1;
    }
    return all;
}

namespace
{

std::optional<int32_t> number(std::string_view word, const placeholder &of)
{
    const bool negative = word.starts_with('-');
    std::string_view digits = word.substr(negative ? 1 : 0);
    const bool prefixed = digits.starts_with("0x") || digits.starts_with("0X");
    if (prefixed)
        digits.remove_prefix(2);
    uint64_t value = 0;
    const auto read =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, prefixed || of.hexadecimal ? 16 : 10);
    if (read.ec != std::errc() || read.ptr != digits.data() + digits.size())
        return std::nullopt;
    // A bit pattern may be told as such where a number is expected.
    const uint64_t most = of.is_signed && !prefixed ? std::numeric_limits<int32_t>::max()
                                                    : uint64_t{std::numeric_limits<uint32_t>::max()};
    if (negative)
        return of.is_signed && value <= uint64_t{1} << 31
                   ? std::optional(static_cast<int32_t>(-static_cast<int64_t>(value)))
                   : std::nullopt;
    return value <= most ? std::optional(static_cast<int32_t>(static_cast<uint32_t>(value))) : std::nullopt;
}

std::string all_of(const std::vector<placeholder> &arguments)
{
    std::string text;
    for (const placeholder &each : arguments)
        text += (text.empty() ? "" : ", ") + each.text;
    return text;
}

}  // namespace

bool read_arguments(std::string_view help, const std::vector<std::string> &words, std::vector<int32_t> *out,
                    std::string *error)
{
    const std::vector<placeholder> arguments = placeholders_of(help);
    out->clear();
    if (words.size() > arguments.size()) {
        *error = std::to_string(words.size()) + " arguments are given, and it takes " +
                 (arguments.empty() ? "none" : std::to_string(arguments.size()) + ": " + printable(all_of(arguments)));
        return false;
    }
    for (size_t i = 0; i < words.size(); ++i) {
        const std::optional<int32_t> value = number(words[i], arguments[i]);
        if (!value) {
            *error = '"' + printable(words[i]) + "\" is no number of 32 bits, as is asked for by " +
                     printable(arguments[i].text);
            return false;
        }
        out->push_back(*value);
    }
    return true;
}

}  // namespace ebridge_tool
