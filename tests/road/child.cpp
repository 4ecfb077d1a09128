// See child.hpp.
#include "child.hpp"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace road
{

child::child(std::vector<std::string> command, bool terminal)
{
    int out[2], err[2];
    EXPECT_EQ(pipe(out), 0);
    EXPECT_EQ(terminal ? openpty(&err[0], &err[1], nullptr, nullptr, nullptr) : pipe(err), 0);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        for (int fd : {out[0], out[1], err[0], err[1]})
            close(fd);
        std::vector<char *> arguments;
        for (std::string &word : command)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    out_ = out[0];
    err_ = err[0];
}

child::~child()
{
    if (pid_ > 0) {
        signal(SIGKILL);
        finish();
    }
    if (out_ >= 0)
        close(out_);
    close(err_);
}

void child::signal(int number) const { kill(pid_, number); }

pid_t child::own_child(const std::string &name) const
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "stat");
        std::string pid, comm, state, parent;
        if (file >> pid >> comm >> state >> parent && comm == '(' + name + ')' && parent == std::to_string(pid_))
            return std::stoi(pid);
    }
    return -1;
}

// False once both ends are closed.
bool child::read_some()
{
    std::array<pollfd, 2> waiting{pollfd{out_, POLLIN, 0}, pollfd{err_, POLLIN, 0}};
    if (poll(waiting.data(), waiting.size(), -1) < 0)
        return errno == EINTR;
    bool open = false;
    for (const pollfd &end : waiting) {
        std::array<char, 65536> block;
        if (end.fd < 0)
            continue;
        const bool ready = (end.revents & (POLLIN | POLLHUP)) != 0;
        const ssize_t got = ready ? read(end.fd, block.data(), block.size()) : 0;
        if (got > 0)
            (end.fd == out_ ? seen_.out : seen_.err).append(block.data(), static_cast<size_t>(got));
        open = open || !ready || got > 0;  // a terminal that all have left reads as an error
    }
    return open;
}

bool child::wait_for(const std::string &text, const std::string *in)
{
    while (in->find(text) == std::string::npos)
        if (!read_some())
            return false;
    return true;
}

void child::leave_output()
{
    close(out_);
    out_ = -1;
}

outcome child::finish()
{
    while (read_some()) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    seen_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return seen_;
}

outcome run(std::vector<std::string> command) { return child(std::move(command)).finish(); }

temporary_file::temporary_file(const std::string &content)
{
    std::string folder = (std::filesystem::temp_directory_path() / "ebridge-test-XXXXXX").string();
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    folder_ = folder;
    path_ = folder + "/config.json";
    std::ofstream(path_, std::ios::binary) << content;
}

temporary_file::~temporary_file()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

}  // namespace road
