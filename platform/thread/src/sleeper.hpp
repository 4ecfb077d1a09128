// How a master on the real clock waits: a libuv loop with one timer and one wake-up handle.
#pragma once

#include <uv.h>

#include <cstdint>

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

  private:
    uv_loop_t loop_{};
    uv_async_t async_{};
    uv_timer_t timer_{};
    bool open_ = false;
};

}  // namespace thread_master
