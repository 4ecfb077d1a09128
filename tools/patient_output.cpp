// Output to a slow reader. See patient_output.hpp.
#include "patient_output.hpp"

#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace ebridge_tool
{

namespace
{

constexpr short GONE = POLLERR | POLLNVAL;

}  // namespace

// Waits for room. Also true when there is nobody to read: the write then says so.
bool patient_output::has_room() const
{
    for (;;) {
        std::array<pollfd, 2> waiting{pollfd{fd_, POLLOUT, 0}, pollfd{enough_, POLLIN, 0}};
        const int ready = poll(waiting.data(), waiting.size(), -1);
        if (ready < 0 && errno != EINTR)
            return false;
        if (ready > 0)
            return waiting[0].revents != 0;
    }
}

// A pipe that has room takes PIPE_BUF bytes at once.
bool patient_output::write(std::string_view text)
{
    while (!text.empty()) {
        if (!has_room())
            return false;
        const ssize_t wrote = ::write(fd_, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (wrote >= 0) {
            text.remove_prefix(static_cast<size_t>(wrote));
        } else if (errno != EINTR && errno != EAGAIN) {
            failed_ = errno != EPIPE;
            return false;
        }
    }
    return true;
}

bool patient_output::is_unread() const
{
    pollfd now{fd_, 0, 0};
    return poll(&now, 1, 0) > 0 && (now.revents & GONE) != 0;
}

bool patient_output::is_pipe() const
{
    struct stat of {
    };
    return fstat(fd_, &of) == 0 && S_ISFIFO(of.st_mode);
}

}  // namespace ebridge_tool
