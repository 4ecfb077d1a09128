// A connection to a server: what comes in pieces of any size is read as what it is, an answer or what the server says by
// itself. The server is this test, at the other end of a socket.
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "redis_link.hpp"

namespace mom
{
namespace
{

using texts = std::vector<std::string>;

constexpr int patience = 10'000;  // milliseconds; reached only by a test that has failed

// As one text: what was pushed in angle brackets, arrays in square ones.
std::string written(const redisReply &reply)
{
    if (reply.type == REDIS_REPLY_NIL)
        return "nil";
    if (reply.type == REDIS_REPLY_INTEGER)
        return std::to_string(reply.integer);
    if (reply.type != REDIS_REPLY_ARRAY)
        return std::string(text_of(reply));
    std::string all;
    for (size_t i = 0; i < reply.elements; ++i)
        all += (i == 0 ? "" : " ") + written(*reply.element[i]);
    return '[' + all + ']';
}

class RedisLink : public testing::Test
{
  protected:
    RedisLink()
    {
        std::string folder = (std::filesystem::temp_directory_path() / "ebridge-link-XXXXXX").string();
        EXPECT_NE(nullptr, mkdtemp(folder.data()));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = folder + "/socket";
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address));
        EXPECT_EQ(0, listen(listener, 1));
        redis_address to;
        to.path = path;
        EXPECT_TRUE(link.open(to));
        server_ = accept(listener, nullptr, nullptr);
        close(listener);
        std::filesystem::remove_all(folder);
        round();
        EXPECT_TRUE(link.connected());
    }
    ~RedisLink() override { close(server_); }

    // Something happens to the link, and it takes that in.
    bool round()
    {
        pollfd happens{set.descriptor(), POLLIN, 0};
        EXPECT_EQ(1, poll(&happens, 1, patience));
        set.look();
        return link.step();
    }

    // The server sends it in pieces of that size, and each has come before the next one is sent.
    void say(const std::string &bytes, size_t piece)
    {
        for (size_t at = 0; at < bytes.size() && !broken; at += piece) {
            const std::string sent = bytes.substr(at, piece);
            ASSERT_EQ(static_cast<ssize_t>(sent.size()), send(server_, sent.data(), sent.size(), MSG_NOSIGNAL));
            ASSERT_TRUE(round());
            while (const auto reply = link.next(broken))
                heard.push_back(link.was_pushed() ? '<' + written(*reply) + '>' : written(*reply));
        }
    }

    // What the server is sent, as long as there is any.
    std::string received(size_t size)
    {
        std::string all(size, '\0');
        const ssize_t count = recv(server_, all.data(), size, MSG_DONTWAIT);
        all.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return all;
    }

    void hang_up() { shutdown(server_, SHUT_RDWR); }

    link_set set;
    redis_link link{set};
    texts heard;
    bool broken = false;

  private:
    int server_ = -1;
};

// What a server answers to the greeting: a map, with values of all kinds and others within it. It says nothing to us.
const std::string GREETING =
    "%6\r\n$6\r\nserver\r\n$5\r\nredis\r\n$5\r\nproto\r\n:3\r\n$4\r\nmode\r\n+alone\r\n"
    "$7\r\nmodules\r\n*2\r\n%1\r\n$4\r\nname\r\n$6\r\n%1\r\n>1\r\n~2\r\n#t\r\n,1.5\r\n"
    "$5\r\nempty\r\n*0\r\n$4\r\nnone\r\n_\r\n";
const std::string PUSH = ">3\r\n$7\r\nmessage\r\n$9\r\nmom:log:4\r\n$6\r\n7s\r\n%1\r\n";
const std::string ANSWER = "*3\r\n$1\r\n7\r\n$0\r\n\r\n$4\r\n>3\r\n\r\n";

const std::string PUSH_HEARD = "<[message mom:log:4 7s\r\n%1]>";
const std::string ANSWER_HEARD = "[7  >3\r\n]";

TEST_F(RedisLink, WhatComesInPiecesOfAnySizeIsTheSame)
{
    const std::string all =
        GREETING + "+OK\r\n" + PUSH + ANSWER + PUSH + PUSH + ":5\r\n" + ANSWER + "-ERR no\r\n" + PUSH;
    const texts wanted{"nil",      "OK", PUSH_HEARD,   ANSWER_HEARD, PUSH_HEARD,
                       PUSH_HEARD, "5",  ANSWER_HEARD, "ERR no",     PUSH_HEARD};
    for (const size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{7}, size_t{50}, all.size()}) {
        heard.clear();
        say(all, piece);
        EXPECT_FALSE(broken);
        EXPECT_EQ(wanted, heard) << "in pieces of " << piece;
    }
}

// The greeting may be the end of what has come, or not all of it.
TEST_F(RedisLink, AGreetingIsOneAnswerAndOnlyWhenAllOfItHasCome)
{
    say(GREETING.substr(0, GREETING.size() - 1), 1);
    EXPECT_TRUE(heard.empty());
    say(GREETING.substr(GREETING.size() - 1), 1);
    EXPECT_EQ(texts{"nil"}, heard);
    say("%0\r\n", 1);
    EXPECT_EQ((texts{"nil", "nil"}), heard);
}

TEST_F(RedisLink, WhatWasPushedIsToldApartFromTheAnswerBehindIt)
{
    say(PUSH + ANSWER.substr(0, 9), 1);
    EXPECT_EQ(texts{PUSH_HEARD}, heard);
    say(ANSWER.substr(9), 1);
    EXPECT_EQ((texts{PUSH_HEARD, ANSWER_HEARD}), heard);
}

TEST_F(RedisLink, WhatIsNoReplyIsNoticed)
{
    say("?what\r\n", 1);
    EXPECT_TRUE(broken);
    EXPECT_TRUE(heard.empty());
}

TEST_F(RedisLink, AMapWithinMapsWithoutEndIsNoReply)
{
    std::string deep;
    for (int i = 0; i < 20; ++i)
        deep += "%1\r\n+key\r\n";
    say(deep + "+value\r\n", deep.size() + 8);
    EXPECT_TRUE(broken);
    EXPECT_TRUE(heard.empty());
}

// A loss in the middle of a push or of the greeting leaves nothing behind for the next connection.
TEST_F(RedisLink, AServerThatHangsUpIsNoticed)
{
    say(PUSH.substr(0, 20), 20);
    hang_up();
    EXPECT_FALSE(round());
    EXPECT_TRUE(heard.empty());
    link.close();
    EXPECT_FALSE(link.is_open() || link.was_pushed());
}

TEST_F(RedisLink, WhatTheSocketDoesNotTakeYetGoesOutLater)
{
    const std::string large(4'000'000, 'x');
    link.send({"SET", "key", large});
    const std::string wanted = "*3\r\n$3\r\nSET\r\n$3\r\nkey\r\n$4000000\r\n" + large + "\r\n";
    ASSERT_TRUE(link.flush());
    std::string all = received(wanted.size());
    EXPECT_LT(all.size(), wanted.size());
    while (all.size() < wanted.size() && !HasFailure()) {
        ASSERT_TRUE(round());
        all += received(wanted.size() - all.size());
    }
    EXPECT_TRUE(all == wanted);
    EXPECT_EQ("", received(1));
}

TEST_F(RedisLink, TheGreetingSaysWhoWeAreWhereThatIsAskedFor)
{
    redis_address to;
    link.send_hello(to);
    to.password = "secret";
    link.send_hello(to);
    to.user = "app";
    link.send_hello(to);
    ASSERT_TRUE(link.flush());
    const std::string hello = "$5\r\nHELLO\r\n$1\r\n3\r\n", auth = "$4\r\nAUTH\r\n", secret = "$6\r\nsecret\r\n";
    EXPECT_EQ("*2\r\n" + hello + "*5\r\n" + hello + auth + "$7\r\ndefault\r\n" + secret + "*5\r\n" + hello + auth +
                  "$3\r\napp\r\n" + secret,
              received(1000));
}

}  // namespace
}  // namespace mom
