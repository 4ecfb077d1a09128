// The debug shell's server: its socket, its conversation, and clients that behave badly.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "allocation_failure.hpp"
#include "ssat.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace
{

__attribute__((format(printf, 1, 2))) int32_t print(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t printed = ssat_vprint(format, args);
    va_end(args);
    return printed;
}

qz_thread_master *the_master = nullptr;
// Of handlers, for the test's thread.
std::atomic<bool> on_masters_thread = false;
std::atomic<int32_t> prints_refused = 0;
std::atomic<bool> flooded = false;

int32_t say_arguments(int32_t argc, const int32_t *argv)
{
    on_masters_thread = qz_thread_is_master_thread(the_master) != 0;
    for (int32_t i = 0; i < argc; ++i)
        print("argument %d is %d\n", i, argv[i]);
    return 7;
}

// Goes on when the client has read what it has said so far.
std::atomic<bool> has_been_read = false;
int32_t talk(int32_t, const int32_t *)
{
    constexpr int MOMENTS = 20'000;
    print("first\n");
    for (int moment = 0; moment < MOMENTS && !has_been_read; ++moment)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    print("second\n");
    return has_been_read ? 0 : 1;
}

// argv[0] rows.
int32_t flood(int32_t, const int32_t *argv)
{
    prints_refused = 0;
    for (int32_t row = 0; row < argv[0]; ++row)
        prints_refused +=
            print("row %07d, and what else there is to say about it, in about a hundred bytes\n", row) < 0;
    flooded = true;
    return 0;
}

// A connection to the server as a client has it.
class client
{
  public:
    explicit client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0, connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address)) << strerror(errno);
    }
    ~client() { close(fd_); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    void send(const std::string &text) const { ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL); }
    // All that comes until the text so far ends as it should, or the server closes.
    std::string read_until(const std::string &end)
    {
        while (text_.size() < end.size() || !text_.ends_with(end))
            if (!read_more())
                break;
        return std::exchange(text_, "");
    }
    // Into memory that is there already: all that comes until it ends with one of these, or the server closes, or nothing
    // comes for a moment.
    std::string_view read_into(std::span<char> room, std::initializer_list<std::string_view> ends) const
    {
        constexpr int MOMENT_MS = 100;
        pollfd ready{fd_, POLLIN, 0};
        std::string_view text;
        while (std::ranges::none_of(ends, [&](std::string_view end) { return text.ends_with(end); }) &&
               poll(&ready, 1, MOMENT_MS) == 1) {
            const ssize_t got = read(fd_, room.data() + text.size(), room.size() - text.size());
            if (got <= 0)
                break;
            text = {room.data(), text.size() + static_cast<size_t>(got)};
        }
        return text;
    }
    std::string read_to_end()
    {
        while (read_more()) {
        }
        return std::exchange(text_, "");
    }

  private:
    bool read_more()
    {
        constexpr int PATIENCE_MS = 20'000;
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, PATIENCE_MS) != 1) {
            ADD_FAILURE() << "nothing comes: " << text_;
            return false;
        }
        char buffer[65536];
        const ssize_t got = read(fd_, buffer, sizeof buffer);
        if (got > 0)
            text_.append(buffer, static_cast<size_t>(got));
        return got > 0;
    }

    int fd_;
    std::string text_;
};

class ShellServer : public testing::Test
{
  protected:
    ShellServer()
    {
        char folder[] = "/tmp/ebridge-test-XXXXXX";
        home_ = mkdtemp(folder);
        setenv("EBRIDGE_SHELL_DIR", directory().c_str(), 1);
        ssat_module *module = nullptr;
        ssat_lib_init("some module", &module);
        ssat_reg_mod_cmd(module, "say", 0, "says its arguments, one=%d, other=0x%x", say_arguments);
        ssat_reg_mod_cmd(module, "flood", 0, "prints\trows=%d", flood);
        ssat_reg_mod_cmd(module, "talk", 0, "talks", talk);
        the_master = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
        loop_ = std::thread([] { qz_thread_run(the_master); });
        // A test that takes all descriptors finds it running: a sanitizer needs some to look at how a thread starts.
        std::promise<void> runs;
        qz_thread_call(
            the_master, [](void *known) { static_cast<std::promise<void> *>(known)->set_value(); }, &runs);
        runs.get_future().wait();
    }
    ~ShellServer() override
    {
        stop();
        qz_thread_stop(the_master);
        loop_.join();
        qz_thread_master_free(the_master);
        unsetenv("EBRIDGE_SHELL_DIR");
        std::filesystem::remove_all(home_);
    }
    ShellServer(const ShellServer &) = delete;
    ShellServer &operator=(const ShellServer &) = delete;

    void start() { ASSERT_EQ(0, ssat_serve(the_master, &server_)) << strerror(errno); }
    // Waits for what the server is doing, too.
    void stop()
    {
        qz_thread_call_wait(
            the_master, [](void *server) { ssat_serve_stop(static_cast<ssat_server *>(server)); }, server_);
        server_ = nullptr;
    }
    std::string directory() const { return home_ + "/shells"; }
    std::string path() const
    {
        return directory() + '/' + program_invocation_short_name + '.' + std::to_string(getpid());
    }

    ssat_server *server_ = nullptr;

  private:
    std::string home_;
    std::thread loop_;
};

constexpr const char *GREETING = "ebridge-shell 1\n";

// How output is cut into pieces depends on the time.
std::string without_heads(std::string text)
{
    for (size_t head = text.find("\n+"); head != std::string::npos; head = text.find("\n+", head)) {
        const size_t end = text.find('\n', head + 1);
        const size_t size = std::stoul(text.substr(head + 2, end - head - 2));
        text.erase(head + 1, end - head);
        head += size;
    }
    return text;
}

}  // namespace

// Whatever the process takes off the modes of its files. Others may go through the folder: a service of another account
// has one of its own in there.
TEST_F(ShellServer, TheSocketIsItsOwnersAndGroups)
{
    const mode_t before = umask(0077);
    start();
    umask(before);
    struct stat found = {};
    ASSERT_EQ(0, stat(path().c_str(), &found));
    EXPECT_TRUE(S_ISSOCK(found.st_mode));
    EXPECT_EQ(0660U, found.st_mode & 07777);
    ASSERT_EQ(0, stat(directory().c_str(), &found));
    EXPECT_EQ(0751U, found.st_mode & 07777);
    stop();
    EXPECT_NE(0, stat(path().c_str(), &found)) << "it has gone with the server";
}

TEST_F(ShellServer, AFolderThatOthersCanWriteToIsRefused)
{
    std::filesystem::create_directory(directory());
    for (const mode_t mode : {0777U, 0770U, 0702U}) {
        ASSERT_EQ(0, chmod(directory().c_str(), mode));
        EXPECT_EQ(SSAT_EIO, ssat_serve(the_master, &server_)) << mode;
        EXPECT_EQ(EACCES, errno);
    }
    ASSERT_EQ(0, chmod(directory().c_str(), 0700));
    start();
}

TEST_F(ShellServer, ALinkInPlaceOfTheFolderIsRefused)
{
    std::filesystem::create_directory_symlink("/tmp", directory());
    EXPECT_EQ(SSAT_EIO, ssat_serve(the_master, &server_));
    EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(ShellServer, AFolderWithTooLongANameIsRefused)
{
    setenv("EBRIDGE_SHELL_DIR", (directory() + std::string(100, 'x')).c_str(), 1);
    EXPECT_EQ(SSAT_EINVAL, ssat_serve(the_master, &server_));
}

TEST_F(ShellServer, ASocketThatIsLeftOverIsReplaced)
{
    start();
    stop();
    std::filesystem::create_directory(directory());
    fclose(fopen(path().c_str(), "w"));
    start();
    EXPECT_EQ(GREETING, client(path()).read_until("\n"));
}

TEST_F(ShellServer, SocketsOfProcessesThatWereKilledGoAndNoOthers)
{
    start();
    const std::string left = directory() + "/other.1";
    // Another program's, or of one that is about to be ready.
    const std::string others[] = {directory() + "/other", directory() + "/.other.1", directory() + "/other.x"};
    for (const std::string &path : {left, others[0], others[1], others[2]}) {
        const int dead = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        ASSERT_EQ(0, bind(dead, reinterpret_cast<const sockaddr *>(&address), sizeof address));
        close(dead);
    }
    std::filesystem::create_directory(directory() + "/no socket");
    stop();
    start();
    EXPECT_FALSE(std::filesystem::exists(left));
    for (const std::string &path : others)
        EXPECT_TRUE(std::filesystem::exists(path)) << path;
    EXPECT_TRUE(std::filesystem::exists(directory() + "/no socket"));
}

TEST_F(ShellServer, ThereIsOneForAProcess)
{
    start();
    ssat_server *second = nullptr;
    EXPECT_EQ(SSAT_EEXIST, ssat_serve(the_master, &second));
    EXPECT_EQ(SSAT_EINVAL, ssat_serve(nullptr, &second));
    EXPECT_EQ(SSAT_EINVAL, ssat_serve(the_master, nullptr));
    qz_thread_master *const driven = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    stop();
    EXPECT_EQ(SSAT_EINVAL, ssat_serve(driven, &second)) << "its loop watches nothing";
    qz_thread_master_free(driven);
    start();
}

TEST_F(ShellServer, ListsAllCommands)
{
    start();
    client asking(path());
    asking.send("list\n");
    const std::string text = asking.read_until("=0\n");
    EXPECT_THAT(text, StartsWith(GREETING));
    EXPECT_THAT(text, HasSubstr("some module\tsay\tsays its arguments, one=%d, other=0x%x\n"));
    EXPECT_THAT(text, HasSubstr("some module\tflood\tprints rows=%d\n")) << "a tab is a blank";
}

TEST_F(ShellServer, AListThatFindsNoMemoryIsNotToldAsAWholeOne)
{
    start();
    client first(path());
    first.read_until(GREETING);
    first.send("list\n");
    const std::string whole = first.read_until("=0\n");
    char room[8192];
    for (uint64_t nth = 1; nth < 40; ++nth) {
        client asking(path());
        asking.read_until(GREETING);
        const std::string request = "list\n";
        fail_allocations_from(nth);
        asking.send(request);
        const std::string_view text = asking.read_into(room, {"=0\n", "memory\n"});
        fail_allocations_from(0);
        if (text.ends_with("=0\n")) {
            EXPECT_EQ(without_heads(whole), without_heads(std::string(text))) << nth;
        }
    }
}

TEST_F(ShellServer, RunsACommandOnTheMastersThread)
{
    start();
    client asking(path());
    on_masters_thread = false;
    asking.send("run\tsome module\tsay\t5\t-1\n");
    EXPECT_EQ(std::string(GREETING) + "argument 0 is 5\nargument 1 is -1\n=7\n",
              without_heads(asking.read_until("=7\n")));
    EXPECT_TRUE(on_masters_thread);
}

TEST_F(ShellServer, WhatCannotBeRunIsSaidAndTheNextRequestIsServed)
{
    start();
    client asking(path());
    asking.read_until(GREETING);
    const std::pair<const char *, const char *> cases[] = {
        {"run\tnobody\tsay\n", "!there is no such command\n"},
        {"run\tsome module\tnothing\n", "!there is no such command\n"},
        {"run\n", "!there is no such command\n"},
        {"run\tsome module\tsay\t1\t2\t3\n", "!these are more arguments than it has\n"},
        {"run\tsome module\tsay\tx\n", "!an argument is no number of 32 bits\n"},
        {"run\tsome module\tsay\t2147483648\n", "!an argument is no number of 32 bits\n"},
        {"run\tsome module\tsay\t1 \n", "!an argument is no number of 32 bits\n"},
    };
    for (const auto &[request, answer] : cases) {
        asking.send(request);
        EXPECT_EQ(answer, asking.read_until("\n")) << request;
    }
    asking.send("run\tsome module\tsay\t1\n");
    EXPECT_THAT(asking.read_until("=7\n"), HasSubstr("argument 1 is 0\n"));
}

TEST_F(ShellServer, WhatIsNoRequestEndsTheConnection)
{
    start();
    for (const std::string &garbage :
         {std::string("\n"), std::string("LIST\n"), std::string("list \n"), std::string("list\tx\n"),
          std::string("\0\0\n", 3), std::string("GET / HTTP/1.1\r\n")}) {
        client asking(path());
        asking.send(garbage);
        EXPECT_EQ(std::string(GREETING) + "!this is no request\n", asking.read_to_end());
    }
}

// Also when it is too long by a byte, which comes later, with its end.
TEST_F(ShellServer, ARequestThatIsTooLongIsSaidToBe)
{
    start();
    for (const std::string &request :
         {std::string(5000, 'x'), std::string(5000, 'x') + '\n', std::string(4097, 'x') + '\n'}) {
        client asking(path());
        asking.send(request);
        EXPECT_EQ(std::string(GREETING) + "!the request is too long\n", asking.read_to_end()) << request.size();
    }
    client asking(path());
    asking.send(std::string(4096, 'x') + '\n');
    EXPECT_EQ(std::string(GREETING) + "!this is no request\n", asking.read_to_end());
}

TEST_F(ShellServer, ARequestMayComeInPiecesAndSeveralTogether)
{
    start();
    client asking(path());
    asking.read_until(GREETING);
    for (const char *piece : {"ru", "n\tsome module\tsa", "y\t1\t2"})
        asking.send(piece);
    asking.send("\nrun\tsome module\tsay\t3\nrun\tsome module\tsay\t4\n");
    std::string all;
    while (std::string::npos == all.find("argument 0 is 4") || !all.ends_with("=7\n"))
        all += asking.read_until("=7\n");
    EXPECT_LT(all.find("argument 0 is 1"), all.find("argument 0 is 3"));
    EXPECT_LT(all.find("argument 0 is 3"), all.find("argument 0 is 4"));
}

TEST_F(ShellServer, SeveralClientsAreServedInTurnsEachItsOwn)
{
    start();
    std::vector<std::unique_ptr<client>> all;
    for (int i = 0; i < 16; ++i)
        all.push_back(std::make_unique<client>(path()));
    for (int i = 0; i < 16; ++i)
        all[static_cast<size_t>(i)]->send("run\tsome module\tsay\t" + std::to_string(100 + i) + "\n");
    for (int i = 15; i >= 0; --i)
        EXPECT_THAT(all[static_cast<size_t>(i)]->read_until("=7\n"),
                    HasSubstr("argument 0 is " + std::to_string(100 + i) + "\n"));
    client one_more(path());
    EXPECT_EQ(std::string(GREETING) + "!there are too many clients\n", one_more.read_to_end());
    all.pop_back();
    // The place is free once the server has noticed.
    std::string answer;
    while (answer.find('+') == std::string::npos) {
        client next(path());
        next.send("run\tsome module\tsay\n");
        answer = next.read_until("=7\n");
    }
}

TEST_F(ShellServer, OutputIsSentAsItIsPrinted)
{
    start();
    client asking(path());
    asking.read_until(GREETING);
    asking.send("run\tsome module\ttalk\n");
    EXPECT_EQ("+6\nfirst\n", asking.read_until("first\n"));
    has_been_read = true;
    EXPECT_EQ("+7\nsecond\n=0\n", asking.read_until("=0\n"));
}

// Clients wait until there is one: the server looks again after a second.
TEST_F(ShellServer, WithoutADescriptorItServesLater)
{
    start();
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit few = before;
    few.rlim_cur = 256;
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0))
        taken.push_back(fd);
    ASSERT_FALSE(taken.empty());
    close(taken.back());
    taken.pop_back();
    client asking(path());  // takes the last one
    char nothing[64];
    EXPECT_EQ("", asking.read_into(nothing, {"\n"}));
    for (const int fd : taken)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(GREETING, asking.read_until("\n"));
}

TEST_F(ShellServer, LongOutputComesWhole)
{
    start();
    client asking(path());
    asking.read_until(GREETING);
    asking.send("run\tsome module\tflood\t100000\n");
    const std::string text = asking.read_until("\n=0\n");
    EXPECT_THAT(text, HasSubstr("row 0000000"));
    EXPECT_THAT(text, HasSubstr("row 0099999"));
    EXPECT_GT(text.size(), 7'000'000U);
}

TEST_F(ShellServer, WhoGoesAwayInTheMiddleIsForgottenAndTheHandlerGoesOn)
{
    start();
    {
        client asking(path());
        asking.read_until(GREETING);
        flooded = false;
        asking.send("run\tsome module\tflood\t200000\n");
        asking.read_until("\n");
    }
    client next(path());
    next.send("run\tsome module\tsay\n");
    EXPECT_THAT(next.read_until("=7\n"), HasSubstr("argument 0 is 0"));
    EXPECT_TRUE(flooded);
    EXPECT_GT(prints_refused, 0);
}

TEST_F(ShellServer, WhoDoesNotReadIsDroppedAndOthersAreServed)
{
    start();
    client lazy(path());
    flooded = false;
    lazy.send("run\tsome module\tflood\t200000\n");
    client next(path());
    next.send("run\tsome module\tsay\n");
    EXPECT_THAT(next.read_until("=7\n"), HasSubstr("argument 0 is 0"));
    stop();
    EXPECT_TRUE(flooded);
    EXPECT_GT(prints_refused, 0);
}

TEST_F(ShellServer, GarbageOfAllKindsLeavesItServing)
{
    start();
    std::mt19937 random(7);
    const std::string words[] = {"run", "list", "\t", "\n", "some module", "say", "flood", "1", "-", "+", "\xff"};
    for (int round = 0; round < 500; ++round) {
        client one(path());
        std::string text;
        for (auto i = random() % 40; i > 0; --i)
            text +=
                random() % 3 == 0 ? std::string(1, static_cast<char>(random())) : words[random() % std::size(words)];
        one.send(text);
    }
    std::string answer;
    while (answer.find('+') == std::string::npos) {
        client next(path());
        next.send("run\tsome module\tsay\n");
        answer = next.read_until("\n=7\n");
    }
}

TEST(ShellDirectory, IsTheOneThatIsToldOrTheUsersOwn)
{
    char out[200];
    setenv("EBRIDGE_SHELL_DIR", "/some/where", 1);
    EXPECT_EQ(0, ssat_directory(out, sizeof out));
    EXPECT_STREQ("/some/where", out);
    EXPECT_EQ(0, ssat_directory(out, sizeof "/some/where"));
    EXPECT_EQ(SSAT_EINVAL, ssat_directory(out, sizeof "/some/where" - 1));
    EXPECT_EQ(SSAT_EINVAL, ssat_directory(nullptr, sizeof out));
    unsetenv("EBRIDGE_SHELL_DIR");
    setenv("XDG_RUNTIME_DIR", "/of/mine", 1);
    EXPECT_EQ(0, ssat_directory(out, sizeof out));
    EXPECT_STREQ(geteuid() == 0 ? "/run/ebridge-shell" : "/of/mine/ebridge-shell", out);
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(0, ssat_directory(out, sizeof out));
    EXPECT_EQ(geteuid() == 0 ? "/run/ebridge-shell" : "/tmp/ebridge-shell-" + std::to_string(geteuid()), out);
}
