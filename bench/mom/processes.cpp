// Children of a measurement, and what /proc says of them.
#include "processes.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace bench
{
namespace
{

constexpr int PATIENCE = 300000;  // milliseconds

}  // namespace

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void channel::put(double value) const
{
    if (write(out_, &value, sizeof value) != sizeof value)
        throw std::runtime_error("a process of the measurement is gone");
}

double channel::get() const
{
    pollfd waited{in_, POLLIN, 0};
    if (poll(&waited, 1, PATIENCE) == 0)
        throw std::runtime_error("a process of the measurement does not go on");
    double value = 0;
    if (read(in_, &value, sizeof value) != sizeof value)
        throw std::runtime_error("a process of the measurement has ended too early");
    return value;
}

process::process(const std::function<void(const channel &)> &body)
{
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0)
        throw std::runtime_error("no pipe");
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGPIPE, SIG_IGN);
        close(up[0]);
        close(down[1]);
        int status = 0;
        try {
            body(channel(down[0], up[1]));
        } catch (const std::exception &error) {
            std::fprintf(stderr, "bench: %s\n", error.what());
            status = 1;
        }
        _exit(status);
    }
    in_ = up[0];
    out_ = down[1];
    close(up[1]);
    close(down[0]);
}

process::process(const std::vector<std::string> &command)
{
    std::vector<char *> words;
    for (const auto &word : command)
        words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execv(words[0], words.data());
        _exit(127);
    }
}

process::process(process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), in_(std::exchange(other.in_, -1)), out_(std::exchange(other.out_, -1))
{
}

process::~process()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    if (in_ >= 0) {
        close(in_);
        close(out_);
    }
}

one_core::one_core()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    if (sched_getaffinity(0, sizeof before_, &before_) != 0 || sched_setaffinity(0, sizeof one, &one) != 0)
        throw std::runtime_error("core 0 is not to be had");
}

one_core::~one_core() { sched_setaffinity(0, sizeof before_, &before_); }

double processor_seconds(const std::vector<pid_t> &of)
{
    double all = 0;
    for (const pid_t pid : of) {
        for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
            double nanoseconds = 0;
            std::ifstream(thread.path() / "schedstat") >> nanoseconds;
            all += nanoseconds;
        }
    }
    return all * 1e-9;
}

resident_memory resident(pid_t of)
{
    std::ifstream file("/proc/" + std::to_string(of) + "/status");
    resident_memory found{};
    for (std::string name; file >> name;) {
        if (name == "VmRSS:")
            file >> found.now;
        else if (name == "VmHWM:")
            file >> found.peak;
    }
    return {found.now * 1024, found.peak * 1024};
}

}  // namespace bench
