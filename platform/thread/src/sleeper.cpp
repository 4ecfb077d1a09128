// Waiting; see sleeper.hpp. The loop's own callbacks do no work: the master looks at its agenda afterwards.
#include "sleeper.hpp"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

namespace thread_master
{

int64_t monotonic_now() { return static_cast<int64_t>(uv_hrtime() / 1000); }

namespace
{

// A process may be started with standard descriptors closed. A loop that got one of their numbers would be written to by
// whoever prints, and libuv aborts when it closes it: the numbers are taken first.
void take_standard_descriptors()
{
    for (int fd = ::open("/dev/null", O_RDWR); fd >= 0; fd = ::open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            ::close(fd);
            return;
        }
    }
}

// The first loop of a process aborts it where descriptors run out half-way: that they are there is seen before.
bool descriptors_for_a_loop()
{
    std::array<int, 3> taken;
    for (int &each : taken)
        each = epoll_create1(EPOLL_CLOEXEC);
    for (const int each : taken) {
        if (each >= 0)
            ::close(each);
    }
    return std::ranges::none_of(taken, [](int each) { return each < 0; });
}

}  // namespace

bool sleeper::open()
{
    take_standard_descriptors();
    watched_ = epoll_create1(EPOLL_CLOEXEC);
    clock_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (watched_ < 0 || clock_ < 0 || !descriptors_for_a_loop() || uv_loop_init(&loop_) != 0)
        return false;
    if (uv_async_init(&loop_, &async_, [](uv_async_t *) {}) != 0) {
        uv_loop_close(&loop_);
        return false;
    }
    open_ = true;
    uv_run(&loop_, UV_RUN_NOWAIT);  // from now on its descriptor can be read when there is something for it to do
    return watch(uv_backend_fd(&loop_)) && watch(clock_);
}

sleeper::~sleeper()
{
    if (open_) {
        uv_close(reinterpret_cast<uv_handle_t *>(&async_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);  // handles are closed by the loop
        uv_loop_close(&loop_);
    }
    for (const int descriptor : {watched_, clock_}) {
        if (descriptor >= 0)
            ::close(descriptor);
    }
}

bool sleeper::watch(int descriptor)
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = descriptor;
    return epoll_ctl(watched_, EPOLL_CTL_ADD, descriptor, &wanted) == 0;
}

bool sleeper::unwatch(int descriptor) { return epoll_ctl(watched_, EPOLL_CTL_DEL, descriptor, nullptr) == 0; }

void sleeper::wait(int timeout)
{
    std::array<epoll_event, std::tuple_size_v<decltype(readable_)>> events;
    const int count = epoll_wait(watched_, events.data(), static_cast<int>(events.size()), timeout);
    found_ = 0;
    for (int i = 0; i < count; ++i) {
        const int descriptor = events[static_cast<size_t>(i)].data.fd;
        if (descriptor == clock_)
            set_clock(-1);
        else if (descriptor == uv_backend_fd(&loop_))
            uv_run(&loop_, UV_RUN_NOWAIT);
        else
            readable_[found_++] = descriptor;
    }
}

// Setting it also forgets that a time has passed, so that it can be read no more.
void sleeper::set_clock(int64_t due)
{
    if (due == set_to_)
        return;
    itimerspec at{};
    if (due >= 0) {
        // Up to a millisecond late: what else wakes the master meanwhile often spares it this turn. 0 would mean none, and
        // some systems count seconds no further than 32 bits.
        const int64_t msec = std::clamp<int64_t>(due / 1'000 + 1, 1, std::numeric_limits<int32_t>::max() * 1'000LL);
        at.it_value.tv_sec = static_cast<time_t>(msec / 1'000);
        at.it_value.tv_nsec = static_cast<long>(msec % 1'000 * 1'000'000);
    }
    timerfd_settime(clock_, TFD_TIMER_ABSTIME, &at, nullptr);
    set_to_ = due;
}

void sleeper::sleep_until(int64_t due)
{
    set_clock(due);
    wait(-1);
}

void sleeper::wake() { uv_async_send(&async_); }

}  // namespace thread_master
