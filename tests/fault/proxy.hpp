// A bad line to a server: a proxy between two unix sockets that, at moments drawn from a seed, holds back what comes,
// closes a connection in the middle of a reply, or swallows all that follows, as a line does that was cut somewhere.
// What does pass is whole and in its order: a stream loses its end, not its middle.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <random>
#include <string>
#include <thread>

namespace fault
{

class proxy
{
  public:
    // Listens on `path`. A fault strikes a connection after some `bytes` of replies, twice as many at most.
    proxy(std::string path, std::string server, uint32_t seed, uint32_t bytes);
    ~proxy();
    proxy(const proxy &) = delete;
    proxy &operator=(const proxy &) = delete;

    std::string url() const { return "redis+unix://" + path_; }
    // Lets everything pass from now on; what is swallowed already stays so.
    void calm() { calm_ = true; }
    uint32_t delays() const { return delays_; }
    uint32_t closings() const { return closings_; }
    uint32_t cuts() const { return cuts_; }

  private:
    using clock = std::chrono::steady_clock;
    struct connection {
        int client = -1;
        int server = -1;
        std::string request;  // on its way to the server
        std::string reply;    // on its way to the client
        size_t good = 0;      // bytes of replies that still pass before the next fault
        bool cut = false;
        bool over = false;
        clock::time_point held_until{};
    };

    void run();
    void accept_one();
    void serve(connection &on, int16_t client_events, int16_t server_events);
    void pass_replies(connection &on);
    void strike(connection &on);
    size_t draw_good();

    const std::string path_;
    const std::string server_;
    const uint32_t bytes_;
    std::minstd_rand random_;
    int listener_ = -1;
    int stop_[2];
    std::atomic<bool> calm_{false};
    std::atomic<uint32_t> delays_{0}, closings_{0}, cuts_{0};
    std::list<connection> connections_;
    std::thread thread_;
};

}  // namespace fault
