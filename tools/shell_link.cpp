// See shell_link.hpp.
#include "shell_link.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "config_file.hpp"
#include "ssat.h"

namespace ebridge_tool
{

namespace
{

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

constexpr auto PATIENCE = 5s;
constexpr auto LIST_PATIENCE = 2s;
constexpr size_t PATH_SIZE = 4096;
constexpr size_t LONGEST_LINE = 8192;

template <typename Number>
std::optional<Number> number(std::string_view text)
{
    Number value = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    return read.ec == std::errc() && read.ptr == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

bool fail(std::string *error, const std::string &what)
{
    *error = what;
    return false;
}

// "PROGRAM.PID".
std::optional<shell_process> named(const std::string &file, const std::string &directory)
{
    const size_t dot = file.rfind('.');
    const auto pid = dot == std::string::npos ? std::nullopt : number<int>(std::string_view(file).substr(dot + 1));
    if (!pid || *pid <= 0 || file.starts_with('.'))  // one that begins with a dot is not ready
        return std::nullopt;
    return shell_process{.program = file.substr(0, dot), .pid = *pid, .path = directory + '/' + file};
}

bool list_sockets(const std::string &directory, std::vector<shell_process> *out, std::string *error)
{
    std::error_code failure;
    std::filesystem::directory_iterator entry(directory, failure);
    if (failure)
        return failure == std::errc::no_such_file_or_directory ||
               fail(error, config_text::printable(directory) + ": " + failure.message());
    for (; entry != std::filesystem::directory_iterator(); entry.increment(failure)) {
        std::string ignored;
        if (entry->is_directory(failure) && !entry->is_symlink(failure))
            list_sockets(entry->path(), out, &ignored);
        else if (std::optional<shell_process> found = named(entry->path().filename(), directory))
            out->push_back(std::move(*found));
    }
    return true;
}

}  // namespace

bool find_shells(std::vector<shell_process> *out, std::string *error)
{
    char directory[PATH_SIZE];
    if (ssat_directory(directory, sizeof directory) != 0)
        return fail(error, "the folder of the shells has too long a name");
    std::vector<shell_process> all;
    if (!list_sockets(directory, &all, error))
        return false;
    std::ranges::sort(all, {}, &shell_process::pid);
    std::vector<std::unique_ptr<shell_link>> links;
    for (shell_process &each : all) {
        auto link = std::make_unique<shell_link>();
        const bool asked = link->open(each.path, &each.problem) && link->ask_for_list(&each.problem);
        if (!asked && link->is_dead())
            continue;
        links.push_back(std::move(link));
        out->push_back(std::move(each));
    }
    const clock::time_point until = clock::now() + LIST_PATIENCE;
    for (size_t i = 0; i < links.size(); ++i)
        if ((*out)[i].problem.empty())
            links[i]->take_list(until, &(*out)[i].commands, &(*out)[i].problem);
    return true;
}

shell_link::~shell_link()
{
    if (fd_ >= 0)
        close(fd_);
}

bool shell_link::open(const std::string &path, std::string *error)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0 || path.size() >= sizeof address.sun_path)
        return fail(error, path + ": " + (fd_ < 0 ? std::strerror(errno) : "is too long a name"));
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        dead_ = errno == ECONNREFUSED || errno == ENOENT;
        return fail(error, errno == EAGAIN ? "does not answer" : std::strerror(errno));
    }
    return true;
}

// The first line of all.
bool shell_link::greet(std::string *error)
{
    if (std::exchange(greeted_, true))
        return true;
    std::string greeting;
    if (!read_line(&greeting, error))
        return false;
    return greeting == "ebridge-shell 1" || fail(error, "speaks another version of the debug shell");
}

bool shell_link::take_list(clock::time_point until, std::vector<shell_command> *out, std::string *error)
{
    until_ = until;
    std::string text;
    int32_t result = 0;
    const auto keep = [&text](std::string_view piece) {
        text += piece;
        return true;
    };
    if (!read_answer(keep, &result, error))
        return false;
    until_.reset();
    for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
        const std::string line = text.substr(begin, end - begin);
        const size_t one = line.find('\t'), two = line.find('\t', one + 1);
        if (two == std::string::npos)
            return fail(error, "sends a list that makes no sense");
        out->push_back({line.substr(0, one), line.substr(one + 1, two - one - 1), line.substr(two + 1)});
    }
    return true;
}

bool shell_link::run(const shell_command &command, const std::vector<int32_t> &arguments,
                     const std::function<bool(std::string_view)> &take, int32_t *result, std::string *error)
{
    std::string request = "run\t" + command.module + '\t' + command.name;
    for (int32_t argument : arguments)
        request += '\t' + std::to_string(argument);
    return send(request + '\n', error) && read_answer(take, result, error);
}

// Requests are short: there is room for one in the socket.
bool shell_link::send(const std::string &request, std::string *error)
{
    const ssize_t sent = ::send(fd_, request.data(), request.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(request.size()) || fail(error, "has gone");
}

bool shell_link::read_answer(const std::function<bool(std::string_view)> &take, int32_t *result, std::string *error)
{
    std::string head;
    if (!greet(error))
        return false;
    while (read_line(&head, error)) {
        const std::string_view text = std::string_view(head).substr(head.empty() ? 0 : 1);
        if (head.starts_with('!'))
            return fail(error, std::string(text));
        if (head.starts_with('=')) {
            const auto value = number<int32_t>(text);
            *result = value.value_or(0);
            return value || fail(error, "sends an answer that makes no sense");
        }
        auto left = head.starts_with('+') ? number<size_t>(text) : std::nullopt;
        if (!left)
            return fail(error, "sends an answer that makes no sense");
        while (*left > 0) {
            if (received_.empty() && !read_more(error))
                return false;
            const size_t size = std::min(*left, received_.size());
            if (!take(std::string_view(received_).substr(0, size)))
                return true;
            received_.erase(0, size);
            *left -= size;
        }
    }
    return false;
}

bool shell_link::read_line(std::string *line, std::string *error)
{
    size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
        if (received_.size() > LONGEST_LINE)
            return fail(error, "sends an answer that makes no sense");
        if (!read_more(error))
            return false;
    }
    *line = received_.substr(0, end);
    received_.erase(0, end + 1);
    return true;
}

bool shell_link::read_more(std::string *error)
{
    char buffer[65536];
    pollfd ready{fd_, POLLIN, 0};
    const clock::time_point until = until_.value_or(clock::now() + PATIENCE);
    int is_ready = 0;
    do {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - clock::now());
        is_ready = poll(&ready, 1, std::max(0, static_cast<int>(left.count())));
    } while (is_ready < 0 && errno == EINTR);
    if (is_ready == 0)
        return fail(error, "does not answer");
    const ssize_t got = read(fd_, buffer, sizeof buffer);
    if (got <= 0)
        return fail(error, "has gone");
    received_.append(buffer, static_cast<size_t>(got));
    return true;
}

}  // namespace ebridge_tool
