// Telling the service manager. See notify.hpp.
#include "notify.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ebridged
{

void notify_manager(const char *state)
{
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (path == nullptr || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof to.sun_path)
        return;
    const size_t size = std::strlen(path);
    std::memcpy(to.sun_path, path, size);
    if (path[0] == '@')
        to.sun_path[0] = '\0';  // a name that stands in no folder
    const int from = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (from < 0)
        return;
    sendto(from, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to),
           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size));
    close(from);
}

}  // namespace ebridged
