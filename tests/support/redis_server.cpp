// Starting and ending a private redis-server.
#include "redis_server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

namespace support
{

redis_server::redis_server(const std::string &more, kind as) : kind_(as)
{
    std::string name = (std::filesystem::temp_directory_path() / "ebridge-redis-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
        throw std::runtime_error("no temporary folder");
    folder_ = name;
    socket_ = folder_ + "/socket";
    std::ofstream(folder_ + "/redis.conf")
        << "port 0\nunixsocket " << socket_ << "\nsave \"\"\ndir " << folder_ << "\nappendonly yes\nappendfsync no\n"
        << more;
    try {
        start();
    } catch (...) {
        end();
        throw;
    }
}

redis_server::~redis_server() { end(); }

void redis_server::end()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void redis_server::start()
{
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_RDWR);
        dup2(nowhere, STDIN_FILENO);
        dup2(nowhere, STDOUT_FILENO);
        const char *const as = kind_ == kind::sentinel ? "--sentinel" : nullptr;
        execlp("redis-server", "redis-server", (folder_ + "/redis.conf").c_str(), as, nullptr);
        _exit(127);
    }
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!talk("PING\n").starts_with("+PONG")) {
        if (std::chrono::steady_clock::now() > give_up)
            throw std::runtime_error("redis-server does not answer; is it installed?");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void redis_server::kill()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    unlink(socket_.c_str());
}

void redis_server::forget() { std::filesystem::remove_all(folder_ + "/appendonlydir"); }

void redis_server::signal(int number) const { ::kill(pid_, number); }

std::string redis_server::commands(int database, const std::string &lines) const
{
    return talk("SELECT " + std::to_string(database) + "\n" + lines + "\n");
}

// Sends lines and QUIT, and reads until the server hangs up; "" when it is not there. A sentinel knows no QUIT.
std::string redis_server::talk(const std::string &lines) const
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_.size() >= sizeof address.sun_path)
        throw std::runtime_error("the temporary folder's name is too long for a socket");
    std::memcpy(address.sun_path, socket_.c_str(), socket_.size() + 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const std::string sent = lines + "QUIT\n";
    std::string reply;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
        send(fd, sent.data(), sent.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(sent.size())) {
        if (kind_ == kind::sentinel)
            shutdown(fd, SHUT_WR);
        char piece[4096];
        for (ssize_t size = read(fd, piece, sizeof piece); size > 0; size = read(fd, piece, sizeof piece))
            reply.append(piece, static_cast<size_t>(size));
    }
    close(fd);
    return reply;
}

// Below the ports that outgoing connections are given, which come and go.
int free_port()
{
    std::random_device device;
    for (int tries = 0; tries < 1000; ++tries) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int port = std::uniform_int_distribution<int>(10000, 32000)(device);
        address.sin_port = htons(static_cast<uint16_t>(port));
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool free = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        if (free)
            return port;
    }
    throw std::runtime_error("no free port");
}

}  // namespace support
