// Connections to Redis servers.
#include "redis_link.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <charconv>
#include <new>

namespace mom
{

bool redis_link::open(const redis_address &to)
{
    context_.reset(to.path.empty() ? redisConnectNonBlock(to.host.c_str(), to.port)
                                   : redisConnectUnixNonBlock(to.path.c_str()));
    if (context_ == nullptr)
        throw std::bad_alloc();
    connected_ = false;
    unsent_ = false;
    if (context_->err != 0)
        context_.reset();
    return is_open();
}

int16_t redis_link::events() const { return static_cast<int16_t>(connected_ && !unsent_ ? POLLIN : POLLIN | POLLOUT); }

bool redis_link::step(int16_t events)
{
    if (!connected_ && (events & (POLLOUT | POLLERR | POLLHUP)) != 0) {
        int error = 0;
        socklen_t size = sizeof error;
        if (getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return false;
        connected_ = true;
        if (context_->unix_sock.path == nullptr)
            redisEnableKeepAlive(context_.get());
    }
    if (!connected_)
        return true;
    if ((events & (POLLIN | POLLERR | POLLHUP)) != 0 && redisBufferRead(context_.get()) != REDIS_OK)
        return false;
    return flush();
}

bool redis_link::flush()
{
    int done = 0;
    if (redisBufferWrite(context_.get(), &done) != REDIS_OK)
        return false;
    unsent_ = done == 0;
    return true;
}

void redis_words::add(std::string_view word)
{
    char head[24] = "$";
    char *end = std::to_chars(head + 1, head + sizeof head - 2, word.size()).ptr;
    *end++ = '\r';
    *end++ = '\n';
    encoded_.append(head, end).append(word).append("\r\n");
    ++count_;
}

void redis_words::append(const redis_words &others)
{
    encoded_ += others.encoded_;
    count_ += others.count_;
}

void redis_link::send(const redis_words &words)
{
    const std::string command = '*' + std::to_string(words.count()) + "\r\n" + words.encoded();
    if (redisAppendFormattedCommand(context_.get(), command.data(), command.size()) != REDIS_OK)
        throw std::bad_alloc();
    unsent_ = true;
}

redis_reply redis_link::next(bool &broken)
{
    void *reply = nullptr;
    if (redisReaderGetReply(context_->reader, &reply) != REDIS_OK)
        broken = true;
    return redis_reply(static_cast<redisReply *>(reply));
}

}  // namespace mom
