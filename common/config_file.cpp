// Reading configuration files, and messages about them. See config_file.hpp.
#include "config_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>

namespace config_text
{

namespace
{

constexpr size_t MAX_FILE = 64U << 20;

// Closed also when memory runs out.
struct descriptor {
    int number;
    ~descriptor()
    {
        if (number >= 0)
            close(number);
    }
};

// Characters that break a line or change its direction: U+200E, U+200F, U+2028 to U+202E, U+2066 to U+2069.
bool turns_lines(std::string_view character)
{
    const auto low_bits = [&](size_t i) { return static_cast<unsigned>(character[i]) & 0x3f; };
    if (character.size() != 3 || character[0] != '\xe2')
        return false;
    const unsigned point = 0x2000 | low_bits(1) << 6 | low_bits(2);
    return point == 0x200e || point == 0x200f || (point >= 0x2028 && point <= 0x202e) ||
           (point >= 0x2066 && point <= 0x2069);
}

// Bytes of the printable UTF-8 character that the text begins with; 0 when it begins with none.
size_t character_length(std::string_view text)
{
    const auto byte = static_cast<unsigned char>(text.front());
    if (byte < 0x80)
        return byte >= 0x20 && byte != 0x7f ? 1 : 0;
    const size_t length = byte >= 0xf0 ? 4 : byte >= 0xe0 ? 3 : 2;
    if (byte < 0xc3 || byte > 0xf4 || text.size() < length)  // below 0xc3: continuation bytes and control characters
        return 0;
    const auto follows = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) == 0x80; };
    if (!std::ranges::all_of(text.substr(1, length - 1), follows))
        return 0;
    return turns_lines(text.substr(0, length)) ? 0 : length;
}

}  // namespace

int read_file(const std::string &path, std::string *out)
{
    const descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.number < 0)
        return errno;
    std::array<char, 65536> block;
    for (;;) {
        const ssize_t got = read(file.number, block.data(), block.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got < 0 ? errno : 0;
        out->append(block.data(), static_cast<size_t>(got));
        if (out->size() > MAX_FILE)
            return EFBIG;
    }
}

std::string printable(std::string_view text)
{
    constexpr size_t MAX_TEXT = 240;
    std::string line;
    while (!text.empty()) {
        if (line.size() >= MAX_TEXT)
            return line + "...";
        const size_t length = character_length(text);
        if (length > 0) {
            line += text.substr(0, length);
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(text.front()));
            line += escape;
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return line;
}

std::string fault_line(std::string_view name, const config_fault &fault)
{
    const std::string line = fault.line ? ':' + std::to_string(fault.line) : "";
    return printable(name) + line + ": " + printable(fault.what);
}

std::string empty_fault(const std::string &argument) { return argument.empty() ? "is empty" : ""; }

// The last '@' ends a password, which may hold one.
std::string printable_url(std::string_view url)
{
    constexpr std::string_view begin = "://";
    const size_t user = url.find(begin);
    const size_t end = url.rfind('@');
    if (user == url.npos || end == url.npos || end < user || url.substr(user + begin.size()).starts_with('/'))
        return printable(url);
    return printable(std::string(url.substr(0, user + begin.size())) + "..." + std::string(url.substr(end)));
}

}  // namespace config_text
