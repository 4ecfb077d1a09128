// Connections to Redis servers, and the URLs that name them.
#include "redis_link.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <charconv>
#include <new>

namespace mom
{
namespace
{

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

// "user:password@"; the last '@' ends it, so that a password may hold one.
bool take_user(std::string_view &text, redis_address &out)
{
    const size_t at = text.rfind('@');
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

}  // namespace

std::optional<redis_address> redis_address::parse(std::string_view url)
{
    redis_address made;
    if (take(url, "redis+unix://")) {
        if (!take_user(url, made) || !url.starts_with('/'))
            return std::nullopt;
        made.path = url;
        return made;
    }
    if (!take(url, "redis://") || !take_user(url, made))
        return std::nullopt;
    size_t colon = url.rfind(':');
    if (url.ends_with(']'))  // an IPv6 address without a port
        colon = std::string_view::npos;
    if (colon != std::string_view::npos && !take_port(url.substr(colon + 1), made.port))
        return std::nullopt;
    made.host = url.substr(0, colon);
    if (made.host.size() > 2 && made.host.front() == '[' && made.host.back() == ']')
        made.host = made.host.substr(1, made.host.size() - 2);
    const bool plain = made.host.find_first_of("/[]@ ") == std::string::npos;
    return !made.host.empty() && plain ? std::optional(made) : std::nullopt;
}

bool redis_link::open(const redis_address &to)
{
    context_.reset(to.path.empty() ? redisConnectNonBlock(to.host.c_str(), to.port)
                                   : redisConnectUnixNonBlock(to.path.c_str()));
    if (context_ == nullptr)
        throw std::bad_alloc();
    connected_ = false;
    unsent_ = false;
    if (context_->err != 0)
        context_.reset();
    return is_open();
}

int16_t redis_link::events() const { return static_cast<int16_t>(connected_ && !unsent_ ? POLLIN : POLLIN | POLLOUT); }

bool redis_link::step(int16_t events)
{
    if (!connected_ && (events & (POLLOUT | POLLERR | POLLHUP)) != 0) {
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return false;
        connected_ = true;
        if (context_->unix_sock.path == nullptr)
            redisEnableKeepAlive(context_.get());
    }
    if (!connected_)
        return true;
    if ((events & (POLLIN | POLLERR | POLLHUP)) != 0 && redisBufferRead(context_.get()) != REDIS_OK)
        return false;
    return flush();
}

bool redis_link::flush()
{
    int done = 0;
    if (redisBufferWrite(context_.get(), &done) != REDIS_OK)
        return false;
    unsent_ = done == 0;
    return true;
}

void redis_words::add(std::string_view word)
{
    char head[24] = "$";
    char *end = std::to_chars(head + 1, head + sizeof head - 2, word.size()).ptr;
    *end++ = '\r';
    *end++ = '\n';
    encoded_.append(head, end).append(word).append("\r\n");
    ++count_;
}

void redis_words::append(const redis_words &others)
{
    encoded_ += others.encoded_;
    count_ += others.count_;
}

void redis_link::send(const redis_words &words)
{
    const std::string command = '*' + std::to_string(words.count()) + "\r\n" + words.encoded();
    if (redisAppendFormattedCommand(context_.get(), command.data(), command.size()) != REDIS_OK)
        throw std::bad_alloc();
    unsent_ = true;
}

redis_reply redis_link::next(bool &broken)
{
    void *reply = nullptr;
    if (redisReaderGetReply(context_->reader, &reply) != REDIS_OK)
        broken = true;
    return redis_reply(static_cast<redisReply *>(reply));
}

}  // namespace mom
