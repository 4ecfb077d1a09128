// Waiting on libuv; see sleeper.hpp. The handles' own callbacks do nothing: the master looks at its agenda afterwards.
#include "sleeper.hpp"

#include <fcntl.h>
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
    if (uv_loop_init(&loop_) != 0)
        return false;
    if (uv_async_init(&loop_, &async_, [](uv_async_t *) {}) != 0) {
        uv_loop_close(&loop_);
        return false;
    }
    uv_timer_init(&loop_, &timer_);  // cannot fail
    open_ = true;
    return true;
}

sleeper::~sleeper()
{
    if (!open_)
        return;
    uv_close(reinterpret_cast<uv_handle_t *>(&async_), nullptr);
    uv_close(reinterpret_cast<uv_handle_t *>(&timer_), nullptr);
    uv_run(&loop_, UV_RUN_DEFAULT);  // handles are closed by the loop
    uv_loop_close(&loop_);
}

void sleeper::sleep_until(int64_t due)
{
    uv_timer_stop(&timer_);
    if (due >= 0) {
        // libuv counts milliseconds from the loop's own time; rounding up saves a useless turn just before the due
        // time.
        const int64_t wait = due - monotonic_now();
        uv_update_time(&loop_);
        uv_timer_start(
            &timer_, [](uv_timer_t *) {}, wait > 0 ? static_cast<uint64_t>((wait - 1) / 1000 + 1) : 0, 0);
    }
    uv_run(&loop_, UV_RUN_ONCE);
}

void sleeper::wake() { uv_async_send(&async_); }

}  // namespace thread_master
