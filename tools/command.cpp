// What subcommands share. See command.hpp.
#include "command.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace ebridge_tool
{

std::string shared_store_fault(const std::string &url)
{
    return url.starts_with("mem:") ? url + " lives within one process, no other can read it" : "";
}

int complain(const std::string &line, int status)
{
    std::fprintf(stderr, "ebridge: %s\n", line.c_str());
    return status;
}

void keep_standard_descriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null",
                 fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // gets the lowest free number, which is this one
}

int keep_output_clean()
{
    std::fflush(stdout);
    if ((fcntl(STDOUT_FILENO, F_GETFL) & O_ACCMODE) == O_RDONLY)
        return -1;
    const int result = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    if (result < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
        return -1;
    return result;
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t wrote = write(fd, text.data(), text.size());
        if (wrote < 0)
            return false;
        text.remove_prefix(static_cast<size_t>(wrote));
    }
    return true;
}

}  // namespace ebridge_tool
