// The raw side: plain hiredis, with nothing on top.
#pragma once

#include <hiredis/hiredis.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace bench
{

constexpr int GROUP = 128;    // records that a raw writer sends before it looks for answers
constexpr int UNDER_WAY = 4;  // groups that may be without an answer
constexpr int KEYS = 10000;   // that the writers write, again and again
constexpr const char *TABLE = "u_bridge.evlan_session";

// The three fields of a session as they are stored: number and bytes.
constexpr std::string_view FIELD_WORDS[] = {"6", {"0\x05", 2}, "7", "", "8", {"@\x01", 2}};

std::string key_of(int number);

struct free_reply {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using raw_reply = std::unique_ptr<redisReply, free_reply>;

// A connection; everything throws std::runtime_error when the server is gone or refuses.
class raw_connection
{
  public:
    explicit raw_connection(const std::string &socket, int database = 0);

    void append(std::initializer_list<std::string_view> words);
    void append(const std::vector<std::string_view> &words);
    // HSET of the three fields.
    void append_hset(const std::string &key);
    void append_formatted_hset(const std::string &key);
    raw_reply read();
    void drop(int count);
    raw_reply ask(std::initializer_list<std::string_view> words);
    // Without waiting: all that has come, after the descriptor was readable; and all that was appended.
    void take(const std::function<void(const redisReply &)> &each);
    void flush();
    int descriptor() const { return context_->fd; }

  private:
    struct free_context {
        void operator()(redisContext *context) const { redisFree(context); }
    };
    std::unique_ptr<redisContext, free_context> context_;
};

// Sends `count` records in groups, with so many under way. `group` appends the commands of one group, beginning with a
// record, and says how many answers they have.
void write_groups(raw_connection &to, int count, const std::function<int(int first)> &group);
// HSET of three fields, over and over the same keys.
void write_raw(raw_connection &to, int count, int keys = KEYS);
// The same, each command put together by hiredis from a format, as most programs do.
void write_formatted(raw_connection &to, int count);
// SCAN with pipelined HGETALL; the number of records found.
int scan_raw(raw_connection &to);

}  // namespace bench
