// A group of servers of a test's own: a master, a replica, and the sentinels that watch them; and what only looks like a
// sentinel. All on the loopback address, all gone with the test.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "redis_server.hpp"

namespace support
{

class redis_group
{
  public:
    // The replica is in step and every sentinel knows everybody; throws std::runtime_error when that never comes.
    explicit redis_group(int sentinels = 1);

    std::string url() const;
    redis_server &master() { return master_; }  // as at the start, whatever it is now
    redis_server &replica() { return replica_; }
    int replica_port() const { return replica_port_; }
    redis_server &sentinel(size_t index) { return *sentinels_[index]; }
    int sentinel_port(size_t index) const { return sentinel_ports_[index]; }

    // Returns when the replica has all that the master has done.
    void bring_in_step() const { bring_in_step(master_); }
    // The same of a server that leads the other one now.
    static void bring_in_step(const redis_server &leader);
    // From now on the replica, which has all until now, hears nothing more of the master, though it goes on watching it.
    void cut_replication() const;

  private:
    const int master_port_;
    const int replica_port_;
    redis_server master_;
    redis_server replica_;
    std::vector<int> sentinel_ports_;
    std::vector<std::unique_ptr<redis_server>> sentinels_;
};

// Takes connections and answers whatever comes with the same bytes, or never.
class scripted_server
{
  public:
    explicit scripted_server(std::string answer);
    ~scripted_server();
    scripted_server(const scripted_server &) = delete;
    scripted_server &operator=(const scripted_server &) = delete;

    int port() const { return port_; }
    // Connections that it has taken.
    int taken() const { return taken_; }

  private:
    void serve();

    const std::string answer_;
    int port_ = 0;
    int listening_ = -1;
    int stop_[2] = {-1, -1};
    std::atomic<int> taken_{0};
    std::thread thread_;
};

}  // namespace support
