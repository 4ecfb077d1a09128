// A server that runs for one part of the time in ten, as on a switch whose processor is busy with something else.
#pragma once

#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "redis_server.hpp"

namespace support
{

// As long as it lives, the server, which outlives it, gets that little.
class starving
{
  public:
    explicit starving(const redis_server &server) : thread_([this, &server] { starve(server); }) {}
    ~starving()
    {
        over_ = true;
        thread_.join();
    }
    starving(const starving &) = delete;
    starving &operator=(const starving &) = delete;

  private:
    void starve(const redis_server &server) const
    {
        while (!over_) {
            server.signal(SIGSTOP);
            std::this_thread::sleep_for(std::chrono::milliseconds(9));
            server.signal(SIGCONT);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    std::atomic<bool> over_{false};
    std::thread thread_;
};

}  // namespace support
