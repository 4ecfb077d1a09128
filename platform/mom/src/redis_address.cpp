// The URLs of Redis servers and of groups of them.
#include "redis_address.hpp"

#include <charconv>

namespace mom
{
namespace
{

constexpr uint16_t SENTINEL_PORT = 26379;

// %XX in names and passwords; nothing when it is malformed.
std::optional<std::string> unescape(std::string_view text)
{
    std::string plain;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            plain += text[i];
            continue;
        }
        unsigned value = 0;
        const std::string_view digits = text.substr(i + 1, 2);
        const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (digits.size() != 2 || read.ec != std::errc() || read.ptr != digits.data() + 2 || value == 0)
            return std::nullopt;
        plain += static_cast<char>(value);
        i += 2;
    }
    return plain;
}

bool take(std::string_view &text, std::string_view prefix)
{
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

// "user:password@"; the last '@' ends it, so that a password may hold one. `end`: with what stands behind it, where a place
// may hold one, too.
bool take_user(std::string_view &text, redis_address &out, std::string_view end = "@")
{
    const size_t at = text.rfind(end);
    if (at == std::string_view::npos)
        return true;
    const std::string_view who = text.substr(0, at);
    const size_t colon = who.find(':');
    const auto user = unescape(who.substr(0, colon));
    const auto password = unescape(colon == std::string_view::npos ? std::string_view() : who.substr(colon + 1));
    text.remove_prefix(at + 1);
    if (!user || !password || colon == std::string_view::npos)
        return false;
    out.user = *user;
    out.password = *password;
    return true;
}

bool take_port(std::string_view text, uint16_t &port)
{
    const auto read = std::from_chars(text.data(), text.data() + text.size(), port);
    return read.ec == std::errc() && read.ptr == text.data() + text.size() && port != 0;
}

// "host[:port][,host[:port]...]/group".
bool take_group(std::string_view text, redis_instance &out)
{
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos)
        return false;
    out.group = text.substr(slash + 1);
    text = text.substr(0, slash);
    for (size_t comma = text.find(','); comma != std::string_view::npos; comma = text.find(',')) {
        if (!out.add_sentinel(text.substr(0, comma)))
            return false;
        text.remove_prefix(comma + 1);
    }
    return out.add_sentinel(text) && !out.group.empty() && out.group.find_first_of("/ ") == std::string::npos;
}

}  // namespace

bool redis_address::take_place(std::string_view text)
{
    size_t colon = text.rfind(':');
    if (text.ends_with(']'))  // an IPv6 address without a port
        colon = std::string_view::npos;
    if (colon != std::string_view::npos && !take_port(text.substr(colon + 1), port))
        return false;
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    return !host.empty() && host.find_first_of("/[]@, ") == std::string::npos;
}

bool redis_instance::add_sentinel(std::string_view text)
{
    redis_address sentinel;
    sentinel.port = SENTINEL_PORT;
    if (!sentinel.take_place(text))
        return false;
    sentinels.push_back(std::move(sentinel));
    return true;
}

std::optional<redis_instance> redis_instance::parse(std::string_view url)
{
    redis_instance made;
    bool well = false;
    if (take(url, "redis+unix://")) {
        well = url.starts_with('/') || take_user(url, made.server, "@/");
        well = well && url.starts_with('/');
        made.server.path = url;
    } else if (take(url, "redis+sentinel://")) {
        well = take_user(url, made.server) && take_group(url, made);
    } else if (take(url, "redis://")) {
        well = take_user(url, made.server) && made.server.take_place(url);
    }
    return well ? std::optional(std::move(made)) : std::nullopt;
}

}  // namespace mom
