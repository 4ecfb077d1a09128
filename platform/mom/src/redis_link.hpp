// One connection to a Redis server: commands out, replies in, without ever waiting. Its owner polls the descriptor.
#ifndef MOM_REDIS_LINK_HPP
#define MOM_REDIS_LINK_HPP

#include <hiredis/hiredis.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "redis_address.hpp"

namespace mom
{

struct free_reply {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using redis_reply = std::unique_ptr<redisReply, free_reply>;

inline std::string_view text_of(const redisReply &reply) { return {reply.str, reply.len}; }
// The element of an array, or null.
inline const redisReply *element(const redisReply *reply, size_t index)
{
    return reply != nullptr && index < reply->elements ? reply->element[index] : nullptr;
}

// Words of a command as they go to the server: one block of memory for as many as there are.
class redis_words
{
  public:
    redis_words() = default;
    redis_words(std::initializer_list<std::string_view> words)
    {
        for (const std::string_view word : words)
            add(word);
    }

    void add(std::string_view word);
    void append(const redis_words &others);
    size_t count() const { return count_; }
    bool empty() const { return count_ == 0; }
    const std::string &encoded() const { return encoded_; }

  private:
    std::string encoded_;
    size_t count_ = 0;
};

class redis_link
{
  public:
    // Begins to connect; false when that cannot even begin.
    bool open(const redis_address &to);
    void close() { context_.reset(); }
    bool is_open() const { return context_ != nullptr; }
    bool connected() const { return is_open() && connected_; }

    int descriptor() const { return context_->fd; }
    // What poll() is to wait for.
    int16_t events() const;
    // After poll(). False: the connection is lost.
    bool step(int16_t events);
    void send(const redis_words &words);
    // Writes what was sent as far as the socket takes it. False: the connection is lost.
    bool flush();
    // The next reply that has come, or null. Sets `broken` when what came is no reply.
    redis_reply next(bool &broken);

  private:
    struct free_context {
        void operator()(redisContext *context) const { redisFree(context); }
    };

    std::unique_ptr<redisContext, free_context> context_;
    bool connected_ = false;
    bool unsent_ = false;
};

}  // namespace mom
#endif
