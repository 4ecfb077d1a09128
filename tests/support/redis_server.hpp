// A redis-server of a test's own: on a unix socket in a temporary folder, gone with the test. Unless told
// otherwise it keeps its data in that folder, so that it survives a kill.
#pragma once

#include <sys/types.h>

#include <string>

namespace support
{

class redis_server
{
  public:
    // What it writes down while it runs: everything, so that it survives a kill; or nothing, so that no file is measured.
    enum class keeps { all, nothing };

    // Started and answering; throws std::runtime_error otherwise.
    explicit redis_server(keeps what = keeps::all);
    ~redis_server();
    redis_server(const redis_server &) = delete;
    redis_server &operator=(const redis_server &) = delete;

    std::string url() const { return "redis+unix://" + socket_; }
    const std::string &socket() const { return socket_; }
    pid_t pid() const { return pid_; }

    // As kill -9 does.
    void kill();
    // What a server that was killed has kept is lost.
    void forget();
    // Starts it again under the same URL.
    void start();
    void signal(int number) const;
    // Commands in a database, one a line, as an operator types them; what came back.
    std::string commands(int database, const std::string &lines) const;

  private:
    std::string talk(const std::string &lines) const;

    const keeps what_;
    std::string folder_;
    std::string socket_;
    pid_t pid_ = -1;
};

}  // namespace support
