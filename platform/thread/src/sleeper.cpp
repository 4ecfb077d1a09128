// Waiting on libuv; see sleeper.hpp. The handles' own callbacks do no work: the master looks at its agenda afterwards.
#include "sleeper.hpp"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

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

}  // namespace

bool sleeper::open()
{
    take_standard_descriptors();
    watched_ = epoll_create1(EPOLL_CLOEXEC);
    if (watched_ < 0 || uv_loop_init(&loop_) != 0)
        return false;
    if (uv_async_init(&loop_, &async_, [](uv_async_t *) {}) != 0) {
        uv_loop_close(&loop_);
        return false;
    }
    uv_timer_init(&loop_, &timer_);  // cannot fail
    open_ = true;
    poll_.data = this;
    return uv_poll_init(&loop_, &poll_, watched_) == 0 &&
           uv_poll_start(&poll_, UV_READABLE,
                         [](uv_poll_t *poll, int, int) { static_cast<sleeper *>(poll->data)->may_read_ = true; }) == 0;
}

sleeper::~sleeper()
{
    if (open_) {
        for (auto *handle : {reinterpret_cast<uv_handle_t *>(&async_), reinterpret_cast<uv_handle_t *>(&timer_),
                             reinterpret_cast<uv_handle_t *>(&poll_)}) {
            if (handle->loop != nullptr)
                uv_close(handle, nullptr);
        }
        uv_run(&loop_, UV_RUN_DEFAULT);  // handles are closed by the loop
        uv_loop_close(&loop_);
    }
    if (watched_ >= 0)
        ::close(watched_);
}

bool sleeper::watch(int descriptor)
{
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.fd = descriptor;
    return epoll_ctl(watched_, EPOLL_CTL_ADD, descriptor, &wanted) == 0;
}

bool sleeper::unwatch(int descriptor) { return epoll_ctl(watched_, EPOLL_CTL_DEL, descriptor, nullptr) == 0; }

void sleeper::find_readable()
{
    found_ = 0;
    if (!may_read_)
        return;
    may_read_ = false;
    std::array<epoll_event, std::tuple_size_v<decltype(readable_)>> events;
    const int count = epoll_wait(watched_, events.data(), static_cast<int>(events.size()), 0);
    for (int i = 0; i < count; ++i)
        readable_[found_++] = events[static_cast<size_t>(i)].data.fd;
}

void sleeper::look()
{
    may_read_ = true;
    find_readable();
}

void sleeper::sleep_until(int64_t due)
{
    uv_timer_stop(&timer_);
    if (due >= 0) {
        // libuv counts milliseconds from the loop's own time; rounding up saves a useless turn just before the due
        // time.
        const int64_t wait = due - monotonic_now();
        uv_update_time(&loop_);
        // The loop runs timers before it waits, too, and after one that is due by then it would wait for ever.
        uv_timer_start(
            &timer_, [](uv_timer_t *timer) { uv_stop(timer->loop); },
            wait > 0 ? static_cast<uint64_t>((wait - 1) / 1000 + 1) : 0, 0);
    }
    uv_run(&loop_, UV_RUN_ONCE);
    find_readable();
}

void sleeper::wake() { uv_async_send(&async_); }

}  // namespace thread_master
