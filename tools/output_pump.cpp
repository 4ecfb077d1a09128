// See output_pump.hpp.
#include "output_pump.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace ebridge_tool
{

output_pump::output_pump(int fd) : fd_(fd), writer_([this] { write_all(); }) {}

output_pump::~output_pump() { finish(); }

bool output_pump::take(std::string_view text)
{
    const std::lock_guard guard(lock_);
    if (!failed_)
        kept_ += text;
    changed_.notify_one();
    return !failed_;
}

bool output_pump::finish()
{
    {
        const std::lock_guard guard(lock_);
        over_ = true;
        changed_.notify_one();
    }
    if (writer_.joinable())
        writer_.join();
    return !failed_;
}

void output_pump::write_all()
{
    std::unique_lock guard(lock_);
    while (!failed_) {
        changed_.wait(guard, [this] { return over_ || !kept_.empty(); });
        if (kept_.empty())
            return;
        const std::string taken = std::exchange(kept_, {});
        guard.unlock();
        bool failed = false;
        for (size_t done = 0; done < taken.size() && !failed;) {
            const ssize_t wrote = write(fd_, taken.data() + done, taken.size() - done);
            if (wrote < 0 && errno == EAGAIN) {
                pollfd room{fd_, POLLOUT, 0};  // somebody has made it one that does not block
                poll(&room, 1, -1);
                continue;
            }
            failed = wrote < 0 && errno != EINTR;
            unread_ = failed && errno == EPIPE;
            done += wrote > 0 ? static_cast<size_t>(wrote) : 0;
        }
        guard.lock();
        failed_ = failed;
    }
    kept_.clear();
}

}  // namespace ebridge_tool
