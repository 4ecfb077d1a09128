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
    enum class kind { store, sentinel };

    // Started and answering; throws std::runtime_error otherwise. `more`: further lines of its configuration file.
    explicit redis_server(const std::string &more = {}, kind as = kind::store);
    ~redis_server();
    redis_server(const redis_server &) = delete;
    redis_server &operator=(const redis_server &) = delete;

    std::string url() const { return "redis+unix://" + socket_; }
    const std::string &socket() const { return socket_; }
    pid_t pid() const { return pid_; }
    // Its own, for files that are to go with it.
    const std::string &folder() const { return folder_; }

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
    void end();
    std::string talk(const std::string &lines) const;

    const kind kind_;
    std::string folder_;
    std::string socket_;
    pid_t pid_ = -1;
};

// A port of the loopback address on which nobody listens.
int free_port();

}  // namespace support
