// The client's side of the debug shell: which processes serve one, and a conversation with one of them. ssat.h tells the
// conversation.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ebridge_tool
{

struct shell_command {
    std::string module;
    std::string name;
    std::string help;
};

// A process that serves, or should.
struct shell_process {
    std::string program;
    int pid = 0;
    std::string path{};                     // of its socket
    std::vector<shell_command> commands{};  // modules in the order of their names
    std::string problem{};                  // why they are not known; empty: they are

    std::string name() const { return program + " (" + std::to_string(pid) + ')'; }
};

// Looks into the folder of the shells and those below it, and asks each process for its commands. Sockets that nobody serves any more are
// passed over; all of them together have 2 s to answer. False, with a line in *error, when the folder cannot be read; one
// that is not there is empty, and so is one below it that is not this user's to read.
bool find_shells(std::vector<shell_process> *out, std::string *error);

class shell_link
{
  public:
    shell_link() = default;
    ~shell_link();
    shell_link(const shell_link &) = delete;
    shell_link &operator=(const shell_link &) = delete;

    // Each false with a line in *error. Whoever is silent for 5 s does not answer.
    bool open(const std::string &path, std::string *error);
    // A list in two steps, so that several processes can be asked at once. The list is there by that time of the steady
    // clock, or there is none.
    bool ask_for_list(std::string *error) { return send("list\n", error); }
    bool take_list(std::chrono::steady_clock::time_point until, std::vector<shell_command> *out, std::string *error);
    // Runs a command. `take` gets the output as it comes, and ends the conversation by returning false: then the result is
    // 0.
    bool run(const shell_command &command, const std::vector<int32_t> &arguments,
             const std::function<bool(std::string_view)> &take, int32_t *result, std::string *error);

    // Nobody listens at the socket.
    bool is_dead() const { return dead_; }

  private:
    bool greet(std::string *error);
    bool send(const std::string &request, std::string *error);
    bool read_answer(const std::function<bool(std::string_view)> &take, int32_t *result, std::string *error);
    bool read_line(std::string *line, std::string *error);
    bool read_more(std::string *error);

    int fd_ = -1;
    bool dead_ = false;
    bool greeted_ = false;
    std::optional<std::chrono::steady_clock::time_point> until_{};  // nothing: for each step anew
    std::string received_{};
};

}  // namespace ebridge_tool
