// Connections to Redis servers.
#include "redis_link.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <new>
#include <tuple>
#include <utility>

namespace mom
{
namespace
{

constexpr auto NAME_LIFE = std::chrono::seconds(1);  // long enough for all who wait for it
constexpr int MAX_DEPTH = 8;

// Takes off the line that a value of the protocol begins with: a letter for its kind, and how much belongs to it, if
// the kind has that. False: not all of it has come.
bool take_head(std::string_view &bytes, char &kind, size_t &count)
{
    const size_t end = bytes.find("\r\n");
    if (end == bytes.npos || end == 0)
        return false;
    kind = bytes.front();
    count = 0;
    std::from_chars(bytes.data() + 1, bytes.data() + end, count);
    bytes.remove_prefix(end + 2);
    return true;
}

// The bytes behind such a line, and the end of their own.
bool take_bytes(std::string_view &bytes, size_t count, std::string_view &taken)
{
    if (bytes.size() < 2 || bytes.size() - 2 < count)
        return false;
    taken = bytes.substr(0, count);
    bytes.remove_prefix(count + 2);
    return true;
}

// Passes over one value of the protocol, of whatever kind. False: not all of it has come, or it is none.
bool pass_over(std::string_view &bytes, int depth, bool &broken)
{
    char kind = '\0';
    size_t count = 0;
    if (!take_head(bytes, kind, count))
        return false;
    std::string_view passed;
    if (kind == '$' || kind == '=' || kind == '!')
        return take_bytes(bytes, count, passed);
    const bool holds_values = kind == '*' || kind == '~' || kind == '%';
    broken = broken || depth > MAX_DEPTH;
    for (size_t left = !holds_values ? 0 : kind == '%' ? 2 * count : count; left != 0; --left) {
        if (broken || !pass_over(bytes, depth + 1, broken))
            return false;
    }
    return true;
}

}  // namespace

bool take_text(std::string_view &bytes, std::string_view &text)
{
    char kind = '\0';
    size_t size = 0;
    return take_head(bytes, kind, size) && kind == '$' && take_bytes(bytes, size, text);
}

link_set::link_set() : descriptor_(epoll_create1(EPOLL_CLOEXEC))
{
    if (descriptor_ < 0)
        throw std::bad_alloc();
}

link_set::~link_set() { ::close(descriptor_); }

bool link_set::look()
{
    std::array<epoll_event, 32> events;  // what does not fit is there the next time
    const int count = epoll_wait(descriptor_, events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i) {
        const auto &event = events[static_cast<size_t>(i)];
        static_cast<redis_link *>(event.data.ptr)->happened_ |= event.events;
    }
    return count > 0;
}

std::string link_set::address_of(const std::string &host)
{
    std::array<unsigned char, sizeof(in6_addr)> address;
    if (inet_pton(AF_INET, host.c_str(), address.data()) == 1 || inet_pton(AF_INET6, host.c_str(), address.data()) == 1)
        return host;
    if (const auto at = found_.find(host);
        at != found_.end() && std::chrono::steady_clock::now() - at->second.since < NAME_LIFE)
        return at->second.address;
    if (std::ranges::find(unknown_, host) == unknown_.end())
        unknown_.push_back(host);
    return {};
}

void link_set::found(const std::string &name, std::string address)
{
    found_[name] = {std::move(address), std::chrono::steady_clock::now()};
}

std::string look_up(const std::string &host)
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    for (const int family : {AF_INET, AF_INET6}) {
        wanted.ai_family = family;
        addrinfo *found = nullptr;
        if (getaddrinfo(host.c_str(), nullptr, &wanted, &found) != 0)
            continue;
        std::array<char, INET6_ADDRSTRLEN> text{};
        const int code =
            getnameinfo(found->ai_addr, found->ai_addrlen, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST);
        freeaddrinfo(found);
        if (code == 0)
            return text.data();
    }
    return {};
}

bool redis_link::open(const redis_address &to)
{
    close();
    const std::string address = to.path.empty() ? set_.address_of(to.host) : std::string();
    if (to.path.empty() && address.empty())
        return false;
    context_.reset(to.path.empty() ? redisConnectNonBlock(address.c_str(), to.port)
                                   : redisConnectUnixNonBlock(to.path.c_str()));
    if (context_ == nullptr)
        throw std::bad_alloc();
    if (context_->err != 0 || fcntl(context_->fd, F_SETFD, FD_CLOEXEC) != 0 || !wait())
        close();
    return is_open();
}

// A child that the program has made may hold the same socket open: then closing it here would not take it from the set.
void redis_link::close()
{
    if (waited_for_ != 0)
        epoll_ctl(set_.descriptor(), EPOLL_CTL_DEL, context_->fd, nullptr);
    context_.reset();
    connected_ = false;
    unsent_.clear();
    is_push_ = was_pushed_ = false;
    map_ = {};
    happened_ = waited_for_ = 0;
}

bool redis_link::wait()
{
    const uint32_t wanted = connected_ && unsent_.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
    if (wanted == waited_for_)
        return true;
    epoll_event event{};
    event.events = wanted;
    event.data.ptr = this;
    const int how = waited_for_ == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    waited_for_ = wanted;
    return epoll_ctl(set_.descriptor(), how, context_->fd, &event) == 0;
}

bool redis_link::step()
{
    const uint32_t happened = std::exchange(happened_, 0);
    if (!connected_ && (happened & (EPOLLOUT | EPOLLERR | EPOLLHUP)) != 0) {
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(context_->fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return false;
        connected_ = true;
        if (context_->unix_sock.path == nullptr)
            redisEnableKeepAlive(context_.get());
    }
    if (!connected_)
        return true;
    if ((happened & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0 && !read())
        return false;
    return flush();
}

// Not by hiredis, which takes 16 kB at a time.
bool redis_link::read()
{
    const ssize_t count = ::recv(context_->fd, set_.incoming_.data(), set_.incoming_.size(), MSG_DONTWAIT);
    if (count < 0)
        return errno == EAGAIN || errno == EINTR;
    return count > 0 &&
           redisReaderFeed(context_->reader, set_.incoming_.data(), static_cast<size_t>(count)) == REDIS_OK;
}

// Not by hiredis, whose way of writing ends the process when the server has closed the connection (SIGPIPE), on whatever
// thread that is.
bool redis_link::flush()
{
    while (connected_ && !unsent_.empty()) {
        const ssize_t sent = ::send(context_->fd, unsent_.data(), unsent_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        if (sent < 0 && errno == EAGAIN)
            break;
        unsent_.erase(0, static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    }
    return wait();
}

std::pair<uint64_t, std::string_view> number_and_rest(std::string_view text)
{
    uint64_t number = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<size_t>(read.ptr - text.data()));
    return {number, text};
}

side_answer::side_answer(std::string_view packed)
{
    std::tie(position, text) = number_and_rest(packed);
    text.remove_prefix(std::min<size_t>(1, text.size()));
    const size_t end = std::min(text.find('\n'), text.size());
    more = text.substr(std::min(end + 1, text.size()));
    text = text.substr(0, end);
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
    unsent_.append("*").append(std::to_string(words.count())).append("\r\n").append(words.encoded());
}

void redis_link::send_hello(const redis_address &to)
{
    redis_words words{"HELLO", "3"};
    if (!to.user.empty() || !to.password.empty())
        words.append({"AUTH", to.user.empty() ? "default" : to.user, to.password});
    send(words);
}

// Where a reply begins: a push is an array for hiredis; a map, and what is not there, is read here.
redis_reply redis_link::next(bool &broken)
{
    redisReader &reader = *context_->reader;
    map_ = {};
    if (reader.ridx == -1) {
        if (reader.pos >= reader.len)
            return nullptr;  // the reader would begin, and hide where the next one does
        char &kind = reader.buf[reader.pos];
        if (kind == '%' || kind == '_')
            return next_map(broken);
        is_push_ = kind == '>';
        if (is_push_)
            kind = '*';
    }
    void *reply = nullptr;
    if (redisReaderGetReply(&reader, &reply) != REDIS_OK)
        broken = true;
    was_pushed_ = is_push_;
    return redis_reply(static_cast<redisReply *>(reply));
}

redis_reply redis_link::next_map(bool &broken)
{
    redisReader &reader = *context_->reader;
    std::string_view rest(reader.buf + reader.pos, reader.len - reader.pos);
    const std::string_view all = rest;
    if (!pass_over(rest, 0, broken))
        return nullptr;
    const size_t size = all.size() - rest.size();
    const size_t head = all.find("\r\n") + 2;
    reader.pos += size;
    was_pushed_ = false;
    map_ = all.substr(head, size - head);
    redis_reply passed(static_cast<redisReply *>(std::calloc(1, sizeof(redisReply))));
    if (passed == nullptr)
        throw std::bad_alloc();
    passed->type = REDIS_REPLY_NIL;
    return passed;
}

}  // namespace mom
