// See process.hpp.
#include "process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fault
{

bool wait_until(const std::function<bool()> &done, int seconds)
{
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > give_up)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

process::process(std::vector<std::string> command, std::string file) : file_(std::move(file))
{
    int input[2];  // no pipe: writing to one whose reader has died would end this process, too
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0)
        throw std::runtime_error("no sockets");
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int output = open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(input[0], STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        std::vector<char *> arguments;
        for (std::string &word : command)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(input[0]);
    input_ = input[1];
}

process::~process()
{
    kill();
    close(input_);
}

void process::say(const std::string &line) const
{
    const std::string text = line + '\n';
    if (send(input_, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("it takes no commands: " + line);
}

void process::signal(int number) const { ::kill(pid_, number); }

void process::kill()
{
    if (pid_ <= 0)
        return;
    signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

bool process::ended_by_itself() const
{
    siginfo_t ended{};
    return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == pid_;
}

const std::string &process::words() const
{
    std::ifstream file(file_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(words_.size()));
    std::ostringstream more;
    if (file.peek() != std::ifstream::traits_type::eof())
        more << file.rdbuf();
    words_ += more.str();
    return words_;
}

size_t process::count(const std::string &text) const
{
    const std::string &all = words();
    size_t found = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size()))
        ++found;
    return found;
}

}  // namespace fault
