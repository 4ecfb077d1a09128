// What the fault tests share: one handle that writes, one that follows all sessions, and the check behind all of them:
// what the follower has been told adds up to what the store holds.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "store_fixture.hpp"

namespace contract
{

const std::vector<uint32_t> REQUEST{6, 8};

inline session numbered(int32_t keyid, int32_t value = 1)
{
    return {.keyid = keyid, .request_value = value, .request = 1};
}

// Who opens a store under another URL shares neither connections nor what is known with those who have it open already.
inline std::string other_url_of_the_same(std::string url)
{
    constexpr std::string_view sentinel = "redis+sentinel://";
    if (url.starts_with(sentinel)) {
        const std::string first =
            url.substr(sentinel.size(), url.find_first_of(",/", sentinel.size()) - sentinel.size());
        return url.insert(sentinel.size(), first + ',');
    }
    constexpr std::string_view by_user = "redis+unix://app:secret@";
    if (url.starts_with(by_user))
        return "redis+unix://" + url.substr(by_user.size());
    constexpr std::string_view by_name = "redis://localhost:";
    if (url.starts_with(by_name))
        return "redis://127.0.0.1:" + url.substr(by_name.size());
    return url.insert(url.rfind('/'), "/.");
}

inline bool contains(const std::string &text, std::string_view part) { return text.find(part) != std::string::npos; }

// A command as clients send it.
inline std::string encoded(const std::vector<std::string> &words)
{
    std::string command = '*' + std::to_string(words.size()) + "\r\n";
    for (const auto &word : words)
        command += '$' + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    return command;
}

// Texts and numbers, none of them long, as the store client packs them.
inline std::string packed(const std::vector<std::string> &texts)
{
    std::string all;
    for (const auto &text : texts)
        all += std::string{'\xda', static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} + text;
    return all;
}

inline std::string packed(int number) { return {'\xcd', static_cast<char>(number >> 8), static_cast<char>(number)}; }

// Puts so many sessions into the store at once, past the log; in pieces, as a server that is busy for seconds is taken for
// lost.
inline void fill_store(int32_t count)
{
    for (int32_t first = 1; first <= count; first += 5000) {
        const int32_t last = std::min(first + 4999, count);
        store_server().commands(app_db, "EVAL \"for i = " + std::to_string(first) + ", " + std::to_string(last) +
                                            " do redis.call('HSET', 'u_bridge.evlan_session:app:32:' .. i, '8', '@' .. "
                                            "string.char(1)) end\" 0");
    }
}

inline std::string function_name()
{
    const std::string list = store_server().commands(app_db, "FUNCTION LIST");
    const size_t name = list.find("mom_");
    return list.substr(name, list.find('\r', name) - name);
}

// The server's function, called as a client of another name would do it; what it answers, behind the position.
inline std::string call(const std::vector<std::string> &arguments)
{
    std::vector<std::string> words{"FCALL", function_name(), "0"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::string reply = store_server().commands(app_db, encoded(words));
    reply.erase(0, reply.find('\n') + 1);  // what answers the choice of the database
    if (!reply.starts_with('$'))
        return reply;
    const std::string text = reply.substr(reply.find('\n') + 1, std::stoul(reply.substr(1)));
    return text.substr(std::min(text.find(' '), text.size() - 1) + 1);
}

inline std::string writes_of(const std::string &client, int number, int oldest, const std::vector<std::string> &writes)
{
    return packed({std::to_string(app_db), client}) + packed(number) + packed(oldest) + packed(writes);
}

inline std::string call_with_writes(const std::string &client, int number, int oldest,
                                    const std::vector<std::string> &writes)
{
    return call({writes_of(client, number, oldest, writes)});
}

// The server's function, with `to` in the place of `from`.
inline std::string changed_function(const std::string &from, const std::string &to)
{
    const std::string list = store_server().commands(app_db, "FUNCTION LIST WITHCODE");
    const size_t head = list.find("library_code\r\n$") + sizeof "library_code\r\n$" - 1;
    const size_t size = std::stoul(list.substr(head));
    std::string code = list.substr(list.find('\n', head) + 1, size);
    const size_t place = code.find(from);
    if (place == code.npos)
        throw std::runtime_error("the function has no " + from);
    return code.replace(place, from.size(), to);
}

// What the server keeps in the function's language is forgotten, and nobody loses his connection. `from` is `to` in the
// function then.
inline void load_function_anew(const std::string &from = "", const std::string &to = "")
{
    const std::vector<std::string> load{"FUNCTION", "LOAD", "REPLACE", changed_function(from, to)};
    EXPECT_TRUE(contains(store_server().commands(app_db, encoded(load)), "\r\nmom_"));
}

// What the server has done since it began or compacted it.
inline std::filesystem::path file_of_the_server()
{
    for (const auto &each : std::filesystem::directory_iterator(store_server().folder() + "/appendonlydir"))
        if (each.path().string().ends_with(".incr.aof"))
            return each.path();
    throw std::runtime_error("the server keeps no file");
}

struct lock_ear {
    std::vector<int32_t> all;

    static int32_t hear(qz_mom_handle *, uint32_t, int32_t held, void *self)
    {
        static_cast<lock_ear *>(self)->all.push_back(held);
        return 0;
    }
};

class FaultTest : public StoreTest
{
  protected:
    explicit FaultTest(std::string url = store_url()) : url_(std::move(url))
    {
        if (url_.starts_with("mem:"))
            throw std::runtime_error("needs EBRIDGE_CONTRACT_URL to name a Redis store");
        store_may_be_away();
        writer = open(url_);
        reader = open(url_);
        EXPECT_EQ(0, qz_mom_client_set_reconnect_cb(reader, app_db, note_event, this));
        EXPECT_EQ(0, follow(reader, any_session(), told));
        settle();
    }

    static int32_t note_event(qz_mom_handle *, uint32_t db, int32_t type, void *self)
    {
        EXPECT_EQ(app_db, db);
        static_cast<FaultTest *>(self)->events.push_back(type);
        return 0;
    }

    // Writes when the store takes it, as a patient user does.
    void write(const session &what)
    {
        int32_t code = QZ_MOM_EDOWN;
        run_until([&] { return (code = hmset(writer, what, REQUEST)) == 0; });
    }

    // Returns when the server has answered.
    void exchange(qz_mom_handle *by, const session &what)
    {
        listener answer;
        EXPECT_EQ(0, qz_mom_hmset(by, app_db, session_record(what).message(), REQUEST.data(),
                                  static_cast<uint32_t>(REQUEST.size()), listener::hear, &answer));
        run_until([&] { return !answer.all.empty(); });
    }

    // What was written may have been heard before its answer came, and what is not answered is written again after a
    // loss: to a store that has forgotten it, too. A call that waits is answered after all of it.
    void wait_for_answers()
    {
        run_until([&] { return mark_nothing() == QZ_MOM_OK; });
    }
    // Such a call; its code.
    int32_t mark_nothing()
    {
        const qz_mom_timeval delay{1000, 0};
        return qz_mom_pexpire_sync(writer, app_db, session_record(numbered(1000)).message(),
                                   QZ_MOM_EXPIRE_EVLAN_SESSION, &delay);
    }

    void run_until_events(const std::vector<int32_t> &wanted)
    {
        run_until([&] { return events == wanted; });
    }

    // As if another client had made these calls while the server was away from this one.
    static void change_behind_the_back(const std::vector<std::vector<std::string>> &calls)
    {
        std::ofstream file(file_of_the_server(), std::ios::app | std::ios::binary);
        for (const auto &words : calls)
            file << encoded(words);
    }

    // What the follower must take the table for, by what it has been told.
    std::map<std::string, session> view() const
    {
        std::map<std::string, session> made;
        for (const auto &each : told.changes()) {
            if (each.cmd == QZ_MOM_CMD_DEL || each.cmd == QZ_MOM_CMD_EXPIRED)
                made.erase(each.key);
            else
                made[each.key] = session_of(*each.record);
        }
        return made;
    }

    // The same of the store, read by a handle that has seen nothing of it before.
    std::map<std::string, session> store()
    {
        std::map<std::string, session> found;
        qz_mom_handle *stranger = open(other_url_of_the_same(url_));
        for (const session &each : scan(stranger, any_session()))
            found[each.user + std::to_string(each.keyid)] = each;
        close(stranger);
        return found;
    }

    // The view, by user and key as well.
    std::map<std::string, session> seen() const
    {
        std::map<std::string, session> made;
        for (const auto &[key, each] : view())
            made[each.user + std::to_string(each.keyid)] = each;
        return made;
    }

    void expect_view_equals_store() { EXPECT_EQ(store(), seen()); }

    const std::string url_;
    qz_mom_handle *writer;
    qz_mom_handle *reader;
    listener told;
    std::vector<int32_t> events;
};

// The same on a store of a test's own, beside that of the fixture or in its place.
struct followed : FaultTest {
    explicit followed(const std::string &url) : FaultTest(url) {}
    void TestBody() override {}
    using FaultTest::events;
    using FaultTest::expect_view_equals_store;
    using FaultTest::expire;
    using FaultTest::pass_time;
    using FaultTest::run_until;
    using FaultTest::run_until_events;
    using FaultTest::settle;
    using FaultTest::told;
    using FaultTest::view;
    using FaultTest::write;
    using FaultTest::writer;
};

}  // namespace contract
