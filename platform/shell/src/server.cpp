// The debug shell's server: a listening socket and its clients, on the thread of a master. See ssat.h.
//
// A call that was posted for a descriptor may come after the descriptor's watch has ended, so calls carry a number that is
// looked up, and is never given twice.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "connection.hpp"
#include "directory.hpp"
#include "ssat.h"

struct ssat_server {
    qz_thread_master *master;
    std::string path{};
    int listener = -1;
    uintptr_t number = 0;                                               // of the listener
    std::map<uintptr_t, std::unique_ptr<shell::connection>> clients{};  // by their numbers
};

namespace
{

constexpr size_t MOST_CLIENTS = 16;

// The one server of this process.
std::mutex lock;
ssat_server *serving = nullptr;
uintptr_t last_number = 0;

void *as_argument(uintptr_t number) { return reinterpret_cast<void *>(number); }  // NOLINT(performance-no-int-to-ptr)

void on_client(void *argument);

void drop(ssat_server *server, uintptr_t number)
{
    const auto client = server->clients.find(number);
    qz_thread_unwatch(server->master, client->second->fd());
    server->clients.erase(client);
}

void take(ssat_server *server, int fd)
{
    const uintptr_t number = ++last_number;
    std::unique_ptr<shell::connection> client;
    try {
        client = std::make_unique<shell::connection>(fd);
    } catch (const std::bad_alloc &) {
        close(fd);
        throw;
    }
    if (server->clients.size() >= MOST_CLIENTS) {
        client->refuse("there are too many clients");
        return;
    }
    server->clients.emplace(number, std::move(client));
    if (qz_thread_watch(server->master, fd, on_client, as_argument(number)) != 0)
        server->clients.erase(number);
}

ssat_server *server_now()
{
    const std::lock_guard guard(lock);
    return serving;
}

void on_connection(void *argument);

// The server that the number is of; null when it is none any more.
ssat_server *server_of(void *number)
{
    ssat_server *const server = server_now();
    return server && server->number == reinterpret_cast<uintptr_t>(number) ? server : nullptr;
}

void on_pause_over(void *number)
{
    if (const ssat_server *const server = server_of(number))
        qz_thread_watch(server->master, server->listener, on_connection, number);
}

// Without a descriptor for it the client goes on waiting, and would be told of again and again.
void pause(const ssat_server *server, void *number)
{
    constexpr int64_t PAUSE_USEC = 1'000'000;
    if (qz_thread_call_after(server->master, PAUSE_USEC, on_pause_over, number) == 0)
        qz_thread_unwatch(server->master, server->listener);
}

void on_connection(void *argument)
{
    ssat_server *const server = server_of(argument);
    if (!server)
        return;
    const int fd = accept4(server->listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS))
        return pause(server, argument);
    if (fd < 0)
        return;
    try {
        take(server, fd);
    } catch (const std::bad_alloc &) {
        return;  // the client is told by the end of its connection
    }
}

void on_client(void *argument)
{
    ssat_server *const server = server_now();
    const auto number = reinterpret_cast<uintptr_t>(argument);
    if (!server || !server->clients.contains(number))
        return;
    bool goes_on = false;
    try {
        goes_on = server->clients[number]->serve();
    } catch (const std::bad_alloc &) {
        goes_on = false;
    }
    if (!goes_on)
        drop(server, number);
}

// As part of a file's name.
std::string program_name()
{
    std::string name = program_invocation_short_name;
    for (char &c : name)
        if (c == '/')
            c = '_';
    return name;
}

int32_t io_failure(int fd)
{
    const int why = errno;
    if (fd >= 0)
        close(fd);
    errno = why;
    return SSAT_EIO;
}

// False: the path is too long for one.
bool address_of(const std::string &path, sockaddr_un *out)
{
    *out = {};
    out->sun_family = AF_UNIX;
    if (path.size() >= sizeof out->sun_path)
        return false;
    std::memcpy(out->sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool is_left_over(const std::string &path)
{
    sockaddr_un address = {};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool refused = address_of(path, &address) &&
                         connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 &&
                         errno == ECONNREFUSED;
    close(fd);
    return refused;
}

// "PROGRAM.PID", and not one that is not ready.
bool is_shell(const std::string &name)
{
    const size_t dot = name.rfind('.');
    return dot != std::string::npos && dot > 0 && dot + 1 < name.size() && name[0] != '.' &&
           name.find_first_not_of("0123456789", dot + 1) == std::string::npos;
}

// Processes that were killed leave their sockets behind.
void sweep(const std::string &directory)
{
    std::error_code ignored;
    std::filesystem::directory_iterator entry(directory, ignored);
    for (; entry != std::filesystem::directory_iterator(); entry.increment(ignored))
        if (is_shell(entry->path().filename()) && entry->is_socket(ignored) && is_left_over(entry->path()))
            unlink(entry->path().c_str());
}

// A socket of that name can only be left over of a process that had this process's number.
int32_t listen_at(const std::string &path, int *out)
{
    sockaddr_un address = {};
    if (!address_of(path, &address))
        return SSAT_EINVAL;
    constexpr mode_t OWNER_AND_GROUP = 0660;
    constexpr int WAITING = 64;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return io_failure(fd);
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        chmod(path.c_str(), OWNER_AND_GROUP) != 0 || listen(fd, WAITING) != 0) {
        const int why = errno;
        unlink(path.c_str());
        errno = why;
        return io_failure(fd);
    }
    *out = fd;
    return 0;
}

int32_t start(ssat_server *server)
{
    const std::string directory = shell::directory();
    const std::string name = program_name() + '.' + std::to_string(getpid());
    server->path = directory + '/' + name;
    if (!shell::make_directory(directory))
        return SSAT_EIO;
    sweep(directory);
    // Under its name only when somebody listens: one that nobody listens at counts as left over.
    const std::string unready = directory + "/." + name;
    if (const int32_t code = listen_at(unready, &server->listener); code != 0)
        return code;
    if (rename(unready.c_str(), server->path.c_str()) != 0) {
        const int why = errno;
        unlink(unready.c_str());
        errno = why;
        return io_failure(server->listener);
    }
    server->number = ++last_number;
    if (qz_thread_watch(server->master, server->listener, on_connection, as_argument(server->number)) == 0)
        return 0;
    close(server->listener);
    unlink(server->path.c_str());
    return SSAT_EINVAL;
}

}  // namespace

int32_t ssat_serve(qz_thread_master *master, ssat_server **server)
{
    if (!master || !server)
        return SSAT_EINVAL;
    try {
        const std::lock_guard guard(lock);
        if (serving)
            return SSAT_EEXIST;
        auto made = std::make_unique<ssat_server>(ssat_server{.master = master});
        const int32_t code = start(made.get());
        if (code == 0)
            *server = serving = made.release();
        return code;
    } catch (const std::bad_alloc &) {
        return SSAT_ENOMEM;
    }
}

void ssat_serve_stop(ssat_server *server)
{
    if (!server)
        return;
    {
        const std::lock_guard guard(lock);
        serving = nullptr;
    }
    qz_thread_unwatch(server->master, server->listener);
    close(server->listener);
    unlink(server->path.c_str());
    while (!server->clients.empty())
        drop(server, server->clients.begin()->first);
    delete server;
}
