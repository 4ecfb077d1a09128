// See redis_group.hpp.
#include "redis_group.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>

namespace support
{
namespace
{

std::string on_port(int port) { return "port " + std::to_string(port) + "\nbind 127.0.0.1\n"; }

std::string watching(int master_port, int quorum)
{
    return "sentinel monitor board 127.0.0.1 " + std::to_string(master_port) + ' ' + std::to_string(quorum) +
           "\nsentinel down-after-milliseconds board 1000\nsentinel failover-timeout board 3000\n";
}

void wait_until(const char *what, const std::function<bool()> &reached)
{
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!reached()) {
        if (std::chrono::steady_clock::now() > give_up)
            throw std::runtime_error(what);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

// The text that follows a name in a reply's list of names and values.
bool has_value(const std::string &reply, const std::string &name, const std::string &value)
{
    const auto bulk = [](const std::string &text) {
        return '$' + std::to_string(text.size()) + "\r\n" + text + "\r\n";
    };
    return reply.find(bulk(name) + bulk(value)) != std::string::npos;
}

}  // namespace

redis_group::redis_group(int sentinels)
    : master_port_(free_port()),
      replica_port_(free_port()),
      master_(on_port(master_port_)),
      replica_(on_port(replica_port_) + "repl-diskless-sync-delay 0\nreplicaof 127.0.0.1 " +
               std::to_string(master_port_) + "\n")
{
    wait_until("the replica is never in step", [&] {
        return replica_.commands(0, "INFO replication").find("master_link_status:up") != std::string::npos;
    });
    for (int i = 0; i < sentinels; ++i) {
        sentinel_ports_.push_back(free_port());
        sentinels_.push_back(std::make_unique<redis_server>(
            on_port(sentinel_ports_.back()) + watching(master_port_, sentinels / 2 + 1), redis_server::kind::sentinel));
    }
    for (const auto &each : sentinels_) {
        wait_until("a sentinel never knows the group", [&] {
            return has_value(each->commands(0, "SENTINEL MASTER board"), "num-other-sentinels",
                             std::to_string(sentinels - 1)) &&
                   has_value(each->commands(0, "SENTINEL REPLICAS board"), "master-link-status", "ok");
        });
    }
}

std::string redis_group::url() const
{
    std::string places;
    for (const int port : sentinel_ports_)
        places += (places.empty() ? "127.0.0.1:" : ",127.0.0.1:") + std::to_string(port);
    return "redis+sentinel://" + places + "/board";
}

// The server waits for what was written on the connection that asks.
void redis_group::bring_in_step(const redis_server &leader)
{
    wait_until("the replica is never in step",
               [&] { return leader.commands(0, "SET asked now\nWAIT 1 1000").find(":1\r\n") != std::string::npos; });
}

// The master does not know the user as whom the replica will come back.
void redis_group::cut_replication() const
{
    bring_in_step();
    replica_.commands(0, "CONFIG SET masteruser nobody masterauth nothing");
    master_.commands(0, "CLIENT KILL TYPE replica");
    wait_until("the replica is never cut off", [&] {
        return replica_.commands(0, "INFO replication").find("master_link_status:down") != std::string::npos;
    });
}

scripted_server::scripted_server(std::string answer) : answer_(std::move(answer))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listening_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listening_, reinterpret_cast<const sockaddr *>(&address), size) != 0 || listen(listening_, 16) != 0 ||
        getsockname(listening_, reinterpret_cast<sockaddr *>(&address), &size) != 0 || pipe2(stop_, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot listen");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

scripted_server::~scripted_server()
{
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
    close(listening_);
}

void scripted_server::serve()
{
    std::vector<pollfd> waited{{stop_[0], POLLIN, 0}, {listening_, POLLIN, 0}};
    while (poll(waited.data(), waited.size(), -1) >= 0 && waited[0].revents == 0) {
        for (size_t i = 2; i < waited.size(); ++i) {
            char piece[1024];
            if (waited[i].revents == 0)
                continue;
            const ssize_t got = read(waited[i].fd, piece, sizeof piece);
            if (got <= 0 ||
                (!answer_.empty() && send(waited[i].fd, answer_.data(), answer_.size(), MSG_NOSIGNAL) < 0)) {
                close(waited[i].fd);
                waited[i].fd = -1;
            }
        }
        if (waited[1].revents != 0) {
            waited.push_back({accept(listening_, nullptr, nullptr), POLLIN, 0});
            ++taken_;
        }
    }
    for (size_t i = 2; i < waited.size(); ++i) {
        if (waited[i].fd >= 0)
            close(waited[i].fd);
    }
}

}  // namespace support
