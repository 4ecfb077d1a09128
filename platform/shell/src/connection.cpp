// See connection.hpp.
#include "connection.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <vector>

#include "ssat.h"

namespace shell
{

namespace
{

using namespace std::chrono_literals;

constexpr size_t LONGEST_REQUEST = 4096;
constexpr size_t PIECE = 8192;     // output that is sent together
constexpr auto PIECE_TIME = 10ms;  // and for so long at most
constexpr auto PATIENCE = 500ms;   // with a client that does not read, for each of its requests

// The part before the next tab; takes it off.
std::string_view take_field(std::string_view *fields)
{
    const size_t tab = std::min(fields->find('\t'), fields->size());
    const std::string_view field = fields->substr(0, tab);
    fields->remove_prefix(std::min(tab + 1, fields->size()));
    return field;
}

std::optional<int32_t> number(std::string_view text)
{
    int32_t value = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    return read.ec == std::errc() && read.ptr == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

// As a field of a line.
std::string plain(std::string_view text)
{
    std::string made(text);
    std::ranges::replace_if(
        made, [](unsigned char c) { return c < ' '; }, ' ');
    return made;
}

}  // namespace

connection::connection(int fd) : fd_(fd)
{
    patience_ = PATIENCE;
    send("ebridge-shell 1\n");
}

connection::~connection() { close(fd_); }

bool connection::serve()
{
    char buffer[LONGEST_REQUEST];
    const ssize_t got = read(fd_, buffer, sizeof buffer);
    if (got < 0)
        return errno == EAGAIN || errno == EINTR;
    if (got == 0)
        return false;
    received_.append(buffer, static_cast<size_t>(got));
    for (size_t end = received_.find('\n'); end != std::string::npos; end = received_.find('\n')) {
        const std::string line = received_.substr(0, end);
        received_.erase(0, end + 1);
        patience_ = PATIENCE;
        if (line.size() > LONGEST_REQUEST)
            return refuse("the request is too long");
        if (!answer(line))
            return false;
    }
    return received_.size() > LONGEST_REQUEST ? refuse("the request is too long") : !gone_;
}

bool connection::answer(std::string_view line)
{
    std::string_view fields = line;
    const std::string_view word = take_field(&fields);
    if (word == "list" && fields.empty())
        return list();
    if (word == "run")
        return run(fields);
    return refuse("this is no request");
}

bool connection::list()
{
    const auto print_one = [](const char *module, const char *command, const char *help, void *self) {
        static_cast<connection *>(self)->print(plain(module) + '\t' + plain(command) + '\t' + plain(help) + '\n');
        return int32_t{0};
    };
    const bool whole = ssat_for_each(print_one, this) == 0;
    return whole ? end_with('=', "0") : end_with('!', "out of memory");
}

bool connection::run(std::string_view fields)
{
    const std::string module(take_field(&fields)), command(take_field(&fields));
    std::vector<int32_t> arguments;
    while (!fields.empty()) {
        const std::optional<int32_t> argument = number(take_field(&fields));
        if (!argument)
            return end_with('!', "an argument is no number of 32 bits");
        arguments.push_back(*argument);
    }
    const auto sink = [](const char *text, uint32_t size, void *self) {
        auto *to = static_cast<connection *>(self);
        to->print({text, size});
        return int32_t{to->gone_};
    };
    int32_t result = 0;
    const int32_t code = ssat_exec(module.c_str(), command.c_str(), static_cast<int32_t>(arguments.size()),
                                   arguments.data(), sink, this, &result);
    switch (code) {
        case 0:
            return end_with('=', std::to_string(result));
        case SSAT_ENOENT:
            return end_with('!', "there is no such command");
        case SSAT_EARGS:
            return end_with('!', "these are more arguments than it has");
        default:
            return end_with('!', "out of memory");
    }
}

// ---- output -------------------------------------------------------------------------------------------------------------

void connection::print(std::string_view text)
{
    pending_ += text;
    if (pending_.size() >= PIECE || clock::now() - flushed_ >= PIECE_TIME)
        flush();
}

void connection::flush()
{
    if (!pending_.empty())
        send('+' + std::to_string(pending_.size()) + '\n' + pending_);
    pending_.clear();
    flushed_ = clock::now();
}

bool connection::end_with(char kind, std::string_view text)
{
    flush();
    send(kind + std::string(text) + '\n');
    return !gone_;
}

bool connection::refuse(std::string_view why)
{
    end_with('!', why);
    return false;
}

// Waits for a client that does not read as long as its patience lasts.
void connection::send(std::string_view text)
{
    while (!gone_ && !text.empty()) {
        const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            text.remove_prefix(static_cast<size_t>(sent));
            continue;
        }
        if (errno == EINTR)
            continue;
        const auto began = clock::now();
        pollfd room{fd_, POLLOUT, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(patience_);
        const int ready = errno != EAGAIN || left <= 0ms ? 0 : poll(&room, 1, static_cast<int>(left.count()));
        gone_ = ready == 0 || (ready < 0 && errno != EINTR);
        patience_ -= clock::now() - began;
    }
}

}  // namespace shell
