// How a master on the real clock waits: one set of descriptors (epoll), in which are those that are watched, a clock, and
// a libuv loop with a wake-up handle. Any thread may add to the set and take from it; a handle of the loop for each would
// be the loop's alone, and a set inside the loop would have to be asked a second time.
//
// The clock is the system's (timerfd): it is set when another time is waited for, and left alone however often the master
// wakes up before. A timeout would be set and taken back for every sleep, which on a virtual machine is the dearest part
// of it.
#pragma once

#include <uv.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace thread_master
{

// The system's monotonic clock in microseconds.
int64_t monotonic_now();

class sleeper
{
  public:
    sleeper() = default;
    sleeper(const sleeper &) = delete;
    sleeper &operator=(const sleeper &) = delete;
    ~sleeper();

    // False when the system has no memory or descriptors left; nothing else may be called then.
    bool open();
    // Waits until `due` (-1: without end) or a wake-up, also one that came first. May return early.
    void sleep_until(int64_t due);
    // Ends a sleep; from any thread.
    void wake();

    // From any thread. A watched descriptor that can be read ends a sleep. False when the system refuses.
    bool watch(int descriptor);
    bool unwatch(int descriptor);
    // Looks for such descriptors without waiting, as sleep_until() does in the end.
    void look() { wait(0); }
    // What was found; until the next sleep or look.
    std::span<const int> readable() const { return {readable_.data(), found_}; }

  private:
    void set_clock(int64_t due);
    void wait(int timeout);

    uv_loop_t loop_{};
    uv_async_t async_{};
    bool open_ = false;
    int watched_ = -1;                // an epoll descriptor
    int clock_ = -1;                  // a timer descriptor
    int64_t set_to_ = -1;             // the time that it waits for; -1: none
    std::array<int, 16> readable_{};  // more are found the next time
    size_t found_ = 0;
};

}  // namespace thread_master
