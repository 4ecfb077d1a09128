// The words of a debug shell's line, and the numbers that a command's help text asks for.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

// The words of a line, between blanks; double quotes hold one together. False: a quote is not closed.
bool split_words(std::string_view line, std::vector<std::string> *words);
// A word as it has to be typed.
std::string quoted_word(const std::string &word);

// An argument that a help text names: "evlan_type=0x%x" is the one named so, and hexadecimal.
struct placeholder {
    std::string text;  // as it stands in the help
    bool hexadecimal;
    bool is_signed;
};
std::vector<placeholder> placeholders_of(std::string_view help);

// The numbers of these words: decimal, or with 0x hexadecimal, which those of a hexadecimal argument are without it, too.
// Arguments may be missing at the end, and are then 0. False, with a line in *error, when there are too many, or one is no
// number of 32 bits.
bool read_arguments(std::string_view help, const std::vector<std::string> &words, std::vector<int32_t> *out,
                    std::string *error);

}  // namespace ebridge_tool
