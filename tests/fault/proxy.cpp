// See proxy.hpp.
#include "proxy.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace fault
{

namespace
{

constexpr size_t MOST_WAITING = 1 << 20;  // bytes of one direction

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::runtime_error("the name is too long for a socket: " + path);
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

int new_socket() { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// False when the other end has hung up.
bool take(int fd, std::string &into)
{
    char piece[65536];
    const ssize_t size = read(fd, piece, sizeof piece);
    if (size > 0)
        into.append(piece, static_cast<size_t>(size));
    return size > 0 || (size < 0 && errno == EAGAIN);
}

bool give(int fd, std::string &from, size_t most = SIZE_MAX)
{
    const ssize_t size = send(fd, from.data(), std::min(from.size(), most), MSG_NOSIGNAL);
    if (size > 0)
        from.erase(0, static_cast<size_t>(size));
    return size >= 0 || errno == EAGAIN;
}

}  // namespace

proxy::proxy(std::string path, std::string server, uint32_t seed, uint32_t bytes)
    : path_(std::move(path)), server_(std::move(server)), bytes_(bytes), random_(seed), listener_(new_socket())
{
    const sockaddr_un address = address_of(path_);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener_, 64) != 0 || pipe2(stop_, O_CLOEXEC) != 0)
        throw std::runtime_error("no proxy at " + path_);
    thread_ = std::thread([this] { run(); });
}

proxy::~proxy()
{
    close(stop_[1]);
    thread_.join();
    for (const connection &each : connections_) {
        close(each.client);
        close(each.server);
    }
    close(listener_);
    close(stop_[0]);
    unlink(path_.c_str());
}

size_t proxy::draw_good() { return 1 + random_() % (2 * bytes_); }

void proxy::run()
{
    while (true) {
        std::vector<pollfd> waited{{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
        const auto now = clock::now();
        for (const connection &each : connections_) {
            const bool held = each.held_until > now || each.cut;
            const auto events = [](bool in, bool out) {
                return static_cast<int16_t>((in ? POLLIN : 0) | (out ? POLLOUT : 0));
            };
            waited.push_back(
                {each.client, events(each.request.size() < MOST_WAITING, !held && !each.reply.empty()), 0});
            waited.push_back({each.server, events(each.reply.size() < MOST_WAITING, !each.request.empty()), 0});
        }
        poll(waited.data(), waited.size(), 5);
        if (waited[0].revents != 0)
            return;
        size_t at = 2;
        for (connection &each : connections_) {
            serve(each, waited[at].revents, waited[at + 1].revents);
            at += 2;
        }
        connections_.remove_if([](const connection &each) {
            if (each.over) {
                close(each.client);
                close(each.server);
            }
            return each.over;
        });
        if (waited[1].revents != 0)
            accept_one();
    }
}

void proxy::accept_one()
{
    connection made;
    made.client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    made.server = new_socket();
    const sockaddr_un address = address_of(server_);
    made.over = connect(made.server, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0;
    made.good = draw_good();
    connections_.push_back(std::move(made));
}

void proxy::serve(connection &on, int16_t client_events, int16_t server_events)
{
    constexpr int16_t SOMETHING = POLLIN | POLLHUP | POLLERR;
    if ((client_events & SOMETHING) != 0 && !take(on.client, on.request))
        on.over = true;
    if ((server_events & SOMETHING) != 0 && !take(on.server, on.reply))
        on.over = true;
    if (on.cut) {
        on.request.clear();
        on.reply.clear();
        return;
    }
    if (!on.over && !give(on.server, on.request))
        on.over = true;
    if (!on.over && on.held_until <= clock::now())
        pass_replies(on);
}

void proxy::pass_replies(connection &on)
{
    while (!on.over && !on.reply.empty()) {
        const size_t before = on.reply.size();
        if (!give(on.client, on.reply, calm_ ? SIZE_MAX : on.good)) {
            on.over = true;
            return;
        }
        const size_t passed = before - on.reply.size();
        on.good -= std::min(on.good, passed);
        if (on.good == 0 && !calm_) {
            strike(on);
            return;
        }
        if (passed == 0)
            return;
    }
}

void proxy::strike(connection &on)
{
    on.good = draw_good();
    const auto draw = random_() % 10;
    if (draw < 6) {
        on.held_until = clock::now() + std::chrono::milliseconds(random_() % 60);
        ++delays_;
    } else if (draw < 9) {
        on.over = true;
        ++closings_;
    } else {
        on.cut = true;
        ++cuts_;
    }
}

}  // namespace fault
