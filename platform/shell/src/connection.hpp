// One client of the shell's server: its requests as they come in, and its answers. Runs on the master's thread. See ssat.h
// for the conversation.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace shell
{

class connection
{
  public:
    // Takes the descriptor, which does not block, and greets.
    explicit connection(int fd);
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    int fd() const { return fd_; }
    // Reads what has come and answers the requests that are whole. False: the connection is over.
    bool serve();
    // The last that is said to a client; false.
    bool refuse(std::string_view why);

  private:
    using clock = std::chrono::steady_clock;

    bool answer(std::string_view line);
    bool list();
    bool run(std::string_view fields);
    bool end_with(char kind, std::string_view text);
    void print(std::string_view text);
    void flush();
    void send(std::string_view text);

    int fd_;
    bool gone_ = false;  // nothing more can be sent
    std::string received_{};
    std::string pending_{};  // output that was not sent yet
    clock::time_point flushed_{};
    clock::duration patience_{};  // that the present answer may still wait for the client
};

}  // namespace shell
