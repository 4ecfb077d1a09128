// Connections to Redis servers: commands out, replies in, without ever waiting, and the set in which all connections of a
// store are waited for. Guarded by the store's mutex, but for link_set::descriptor().
//
// A connection that has been greeted (send_hello) speaks the protocol in which a server also says what it was not asked
// for, on the same connection. hiredis, as it is on the systems that this is built for, reads the older one only; what
// the newer one adds is little and stands in redis_link::next().
#ifndef MOM_REDIS_LINK_HPP
#define MOM_REDIS_LINK_HPP

#include <hiredis/hiredis.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "redis_address.hpp"

namespace mom
{

struct free_reply {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using redis_reply = std::unique_ptr<redisReply, free_reply>;

inline std::string_view text_of(const redisReply &reply) { return {reply.str, reply.len}; }
// A number, and what stands behind it; 0 where there is none.
std::pair<uint64_t, std::string_view> number_and_rest(std::string_view text);
inline uint64_t number_of(std::string_view text) { return number_and_rest(text).first; }
// The element of an array, or null.
inline const redisReply *element(const redisReply *reply, size_t index)
{
    return reply != nullptr && index < reply->elements ? reply->element[index] : nullptr;
}

// What the server's side answers, in one text: a position of the log, a space and the answer, a new line and more; nothing
// stands behind what is empty.
struct side_answer {
    explicit side_answer(std::string_view packed);

    uint64_t position = 0;
    std::string_view text;
    std::string_view more;
};

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

// Takes a text off what stands in a map. False: there is none.
bool take_text(std::string_view &bytes, std::string_view &text);

class redis_link;

// Whoever waits for its links waits until this set's descriptor can be read, and then looks, with the mutex.
class link_set
{
  public:
    link_set();
    ~link_set();
    link_set(const link_set &) = delete;
    link_set &operator=(const link_set &) = delete;

    int descriptor() const { return descriptor_; }
    // Leaves word at each link of what has happened to it. False: nothing has.
    bool look();

    // Looking up the name of a host may take seconds, in which nobody should wait for the mutex. So a link that meets a
    // name leaves it here, and connects the next time it is opened, once somebody who can wait has looked it up.
    std::vector<std::string> take_unknown() { return std::exchange(unknown_, {}); }
    void found(const std::string &name, std::string address);

  private:
    friend class redis_link;

    struct known_host {
        std::string address;
        std::chrono::steady_clock::time_point since;
    };

    // The address behind a host's name or address; "" when it is not known, or was looked up too long ago.
    std::string address_of(const std::string &host);

    const int descriptor_;              // of epoll
    std::array<char, 65536> incoming_;  // of whatever link reads
    std::vector<std::string> unknown_;
    std::map<std::string, known_host> found_;
};

// The address of a host, as text; "" when there is none. May take long.
std::string look_up(const std::string &host);

class redis_link
{
  public:
    explicit redis_link(link_set &set) : set_(set) {}
    redis_link(const redis_link &) = delete;  // the set knows where it is
    redis_link &operator=(const redis_link &) = delete;

    // Begins to connect; false when that cannot even begin, also because the name of the host is not known yet.
    bool open(const redis_address &to);
    void close();
    bool is_open() const { return context_ != nullptr; }
    bool connected() const { return is_open() && connected_; }

    // Takes in what the set has seen. False: the connection is lost.
    bool step();
    void send(const redis_words &words);
    // Asks for the newer protocol, and says who we are where that is asked for. One reply will come.
    void send_hello(const redis_address &to);
    // Writes what was sent as far as the socket takes it. False: the connection is lost.
    bool flush();
    // The next reply that has come, or null. Sets `broken` when what came is no reply.
    redis_reply next(bool &broken);
    // It was no answer: the server says it by itself.
    bool was_pushed() const { return was_pushed_; }
    // It was a map, which hiredis does not know: a reply of type NIL. What stood in it, until the next one is asked for.
    std::string_view map() const { return map_; }

  private:
    struct free_context {
        void operator()(redisContext *context) const { redisFree(context); }
    };

    friend class link_set;

    // Has the set wait for what matters now. False when it cannot.
    bool wait();
    bool read();
    redis_reply next_map(bool &broken);

    link_set &set_;
    std::unique_ptr<redisContext, free_context> context_;
    bool connected_ = false;
    bool is_push_ = false;  // what is being read
    bool was_pushed_ = false;
    std::string_view map_;
    std::string unsent_;
    uint32_t happened_ = 0;    // as the set has seen it
    uint32_t waited_for_ = 0;  // as the set knows it
};

}  // namespace mom
#endif
