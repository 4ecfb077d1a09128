// The floor of requests: two processes on plain hiredis that write and publish in transactions.
#include <poll.h>

#include <charconv>
#include <stdexcept>

#include "grant_clock.hpp"
#include "grants.hpp"
#include "raw.hpp"

namespace bench
{
namespace
{

constexpr const char *REQUESTS = "requests";
constexpr const char *ANSWERS = "answers";
constexpr int PATIENCE = 60000;  // milliseconds; the other side has its turns meanwhile

// Writes and publishes on one connection, hears on another.
class talker
{
  public:
    talker(const std::string &socket, const char *hears) : commands_(socket), news_(socket)
    {
        news_.ask({"SUBSCRIBE", hears});
    }

    // One record and its notification, in one transaction. Goes out with the next turn.
    void tell(const char *channel, int number)
    {
        const std::string text = std::to_string(number);
        commands_.append({"MULTI"});
        commands_.append_hset(key_of(number));
        commands_.append({"PUBLISH", channel, text});
        commands_.append({"EXEC"});
    }

    // Sends what waits, waits for something to come, and hands on the numbers that were heard.
    void turn(const std::function<void(int)> &heard)
    {
        commands_.flush();
        pollfd waited[] = {{commands_.descriptor(), POLLIN, 0}, {news_.descriptor(), POLLIN, 0}};
        if (poll(waited, 2, PATIENCE) <= 0)
            throw std::runtime_error("nothing comes from the server");
        if (waited[1].revents != 0)
            news_.take([&](const redisReply &message) { heard(number_of(*message.element[2])); });
        if (waited[0].revents != 0)
            commands_.take([](const redisReply &) {});
    }

  private:
    static int number_of(const redisReply &text)
    {
        int number = 0;
        std::from_chars(text.str, text.str + text.len, number);
        return number;
    }

    raw_connection commands_;
    raw_connection news_;
};

}  // namespace

process start_raw_requester(const std::string &socket)
{
    return process([=](const channel &parent) {
        talker self(socket, ANSWERS);
        grant_clock clock;
        serve_demands(parent, [&](const demand &wanted) {
            clock.begin(wanted);
            while (!clock.over()) {
                while (clock.may_send())
                    self.tell(REQUESTS, clock.send());
                self.turn([&](int key) { clock.heard(key); });
            }
            return clock.result();
        });
    });
}

process start_raw_responder(const std::string &socket)
{
    return process([=](const channel &parent) {
        talker self(socket, REQUESTS);
        parent.put();
        while (true)
            self.turn([&](int key) { self.tell(ANSWERS, key); });
    });
}

}  // namespace bench
