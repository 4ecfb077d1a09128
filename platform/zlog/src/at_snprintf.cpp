// at_snprintf: walks the format, hands each conversion that snprintf knows to snprintf with an argument of the right
// type, and prints addresses itself. Allocates nothing.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <limits>
#include <string_view>

#include "qz_zlog.h"

namespace
{

// The arguments not taken yet; a structure, so that helpers can take from the same list.
struct arguments {
    va_list list;
};

// A conversion as it stands in the format: "%-8.*llx".
struct conversion {
    std::string_view text;    // all of it
    std::string_view length;  // "ll"
    char letter = '\0';       // 'x'; 0 at the end of the format
    uint32_t stars = 0;       // widths and precisions to take from the arguments
    bool plain = false;       // nothing between '%' and the letter
};

// The text being built: cut to its size, but counted whole.
class output
{
  public:
    output(char *text, size_t size) : text_(text), size_(size)
    {
        if (size_ > 0)
            text_[0] = '\0';
    }

    void append(std::string_view piece)
    {
        if (length_ < size_) {
            const size_t fits = std::min(piece.size(), size_ - 1 - length_);
            std::memcpy(text_ + length_, piece.data(), fits);
            text_[length_ + fits] = '\0';
        }
        length_ += piece.size();
    }

    template <typename... Values>
    void append_formatted(const char *format, Values... values)
    {
        const bool room = length_ < size_;
        const int written =
            std::snprintf(room ? text_ + length_ : nullptr, room ? size_ - length_ : 0, format, values...);
        if (written >= 0) {
            length_ += static_cast<size_t>(written);
            return;
        }
        failed_ = true;
        if (room)
            text_[length_] = '\0';
    }

    // What at_snprintf returns.
    int32_t result() const
    {
        constexpr size_t most = std::numeric_limits<int32_t>::max();
        return failed_ ? -1 : static_cast<int32_t>(std::min(length_, most));
    }

  private:
    char *text_;
    size_t size_;
    size_t length_ = 0;  // of the whole text
    bool failed_ = false;
};

// ---- reading the format ---------------------------------------------------------------------------------------------

void skip_any_of(const char *&at, std::string_view characters)
{
    while (*at != '\0' && characters.find(*at) != std::string_view::npos)
        ++at;
}

// A '*' or a number. Counts the star.
void skip_number(const char *&at, uint32_t &stars)
{
    if (*at == '*') {
        ++at;
        ++stars;
    } else {
        skip_any_of(at, "0123456789");
    }
}

// `begin` points at a '%'.
conversion read_conversion(const char *begin)
{
    conversion found;
    const char *at = begin + 1;
    skip_any_of(at, "-+ #0'");
    skip_number(at, found.stars);
    if (*at == '.') {
        ++at;
        skip_number(at, found.stars);
    }
    const char *length = at;
    skip_any_of(at, "hlLjzt");
    found.length = std::string_view(length, static_cast<size_t>(at - length));
    found.plain = at == begin + 1;
    found.letter = *at;
    if (*at != '\0')
        ++at;
    found.text = std::string_view(begin, static_cast<size_t>(at - begin));
    return found;
}

// ---- printing one conversion ----------------------------------------------------------------------------------------

template <typename Value>
void print_value(output &out, arguments &args, const char *format, uint32_t stars)
{
    const int first = stars > 0 ? va_arg(args.list, int) : 0;
    const int second = stars > 1 ? va_arg(args.list, int) : 0;
    const Value value = va_arg(args.list, Value);
    if (stars == 0)
        out.append_formatted(format, value);
    else if (stars == 1)
        out.append_formatted(format, first, value);
    else
        out.append_formatted(format, first, second, value);
}

using printer = void (*)(output &, arguments &, const char *, uint32_t);

// The type of argument that a letter takes with a length modifier; the types that are promoted to int are int here.
struct known_conversions {
    std::string_view letters;
    std::string_view length;
    printer print;
};

constexpr known_conversions known[] = {
    {"di", "", print_value<int>},
    {"di", "hh", print_value<int>},
    {"di", "h", print_value<int>},
    {"di", "l", print_value<long>},
    {"di", "ll", print_value<long long>},
    {"di", "j", print_value<intmax_t>},
    {"di", "z", print_value<ssize_t>},
    {"di", "t", print_value<ptrdiff_t>},
    {"ouxX", "", print_value<unsigned>},
    {"ouxX", "hh", print_value<unsigned>},
    {"ouxX", "h", print_value<unsigned>},
    {"ouxX", "l", print_value<unsigned long>},
    {"ouxX", "ll", print_value<unsigned long long>},
    {"ouxX", "j", print_value<uintmax_t>},
    {"ouxX", "z", print_value<size_t>},
    {"ouxX", "t", print_value<size_t>},
    {"fFeEgGA", "", print_value<double>},
    {"fFeEgGA", "l", print_value<double>},
    {"fFeEgGA", "L", print_value<long double>},
    {"c", "", print_value<int>},
    {"c", "l", print_value<wint_t>},
    {"s", "", print_value<const char *>},
    {"s", "l", print_value<const wchar_t *>},
    {"p", "", print_value<void *>},
};

// Null for a conversion that snprintf does not know. %n, which writes into the caller's memory, is left out on purpose.
printer find_printer(const conversion &wanted)
{
    for (const auto &row : known)
        if (row.letters.find(wanted.letter) != std::string_view::npos && row.length == wanted.length)
            return row.print;
    return nullptr;
}

void print_ipv4(output &out, uint32_t address)
{
    unsigned char bytes[4];
    std::memcpy(bytes, &address, sizeof bytes);
    out.append_formatted("%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
}

void print_ipv6(output &out, const void *address)
{
    char text[INET6_ADDRSTRLEN];
    out.append(address ? inet_ntop(AF_INET6, address, text, sizeof text) : "(null)");
}

void print_mac(output &out, const unsigned char *mac)
{
    if (mac)
        out.append_formatted("%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    else
        out.append("(null)");
}

// True when it was one of the conversions that snprintf lacks.
bool print_plain(output &out, arguments &args, char letter)
{
    switch (letter) {
        case '%':
            out.append("%");
            return true;
        case 'a':
            print_ipv4(out, va_arg(args.list, uint32_t));
            return true;
        case 'v':
            print_ipv6(out, va_arg(args.list, const void *));
            return true;
        case 'm':
            print_mac(out, va_arg(args.list, const unsigned char *));
            return true;
        default:
            return false;
    }
}

void print_conversion(output &out, arguments &args, const conversion &wanted)
{
    if (wanted.plain && print_plain(out, args, wanted.letter))
        return;
    char format[64];  // nobody writes a longer conversion; one that is counts as unknown
    const printer print = wanted.text.size() < sizeof format ? find_printer(wanted) : nullptr;
    if (!print) {
        out.append(wanted.text);
        return;
    }
    wanted.text.copy(format, wanted.text.size());
    format[wanted.text.size()] = '\0';
    print(out, args, format, wanted.stars);
}

}  // namespace

int32_t at_snprintf(char *text, size_t size, const char *format, ...)
{
    output out(text, text ? size : 0);
    if (!format)
        return -1;
    arguments args;
    va_start(args.list, format);
    for (const char *at = format; *at != '\0';) {
        const size_t literal = std::strcspn(at, "%");
        out.append(std::string_view(at, literal));
        at += literal;
        if (*at == '\0')
            break;
        const conversion next = read_conversion(at);
        print_conversion(out, args, next);
        at += next.text.size();
    }
    va_end(args.list);
    return out.result();
}
