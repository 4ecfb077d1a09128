// Processes of a measurement: children that talk with their parent in numbers, where they run, and what they use up.
#pragma once

#include <sched.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace bench
{

double seconds_since(std::chrono::steady_clock::time_point start);
// The one in the middle; of an even number the upper one.
double median(std::vector<double> values);

// One end of two pipes. Both calls throw std::runtime_error when the other end is gone, or silent for minutes.
class channel
{
  public:
    channel(int in, int out) : in_(in), out_(out) {}
    void put(double value = 0) const;
    double get() const;

  private:
    int in_;
    int out_;
};

// A child that runs a function and ends. It is killed when it still runs at its end here; what it throws it prints.
class process
{
  public:
    explicit process(const std::function<void(const channel &)> &body);
    // Another program, told by its path and arguments.
    explicit process(const std::vector<std::string> &command);
    ~process();
    process(process &&other) noexcept;
    process(const process &) = delete;
    process &operator=(const process &) = delete;
    process &operator=(process &&) = delete;

    pid_t pid() const { return pid_; }
    void put(double value = 0) const { channel(in_, out_).put(value); }
    double get() const { return channel(in_, out_).get(); }

  private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
};

// While it lives, this process and all that it starts run on core 0.
class one_core
{
  public:
    one_core();
    ~one_core();
    one_core(const one_core &) = delete;
    one_core &operator=(const one_core &) = delete;

  private:
    cpu_set_t before_;
};

// Processor seconds that the threads of the processes have used so far.
double processor_seconds(const std::vector<pid_t> &of);

struct resident_memory {
    double now;   // bytes
    double peak;  // bytes, since the process began
};
resident_memory resident(pid_t of);

}  // namespace bench
