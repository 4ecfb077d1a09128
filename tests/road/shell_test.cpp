// "ebridge shell": words and numbers, and the program against processes that serve a debug shell.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "child.hpp"
#include "line_reader.hpp"
#include "shell_words.hpp"
#include "ssat.h"

using namespace ebridge_tool;
using namespace road;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// ---- words --------------------------------------------------------------------------------------------------------------

TEST(ShellWords, StandBetweenBlanksOrInQuotes)
{
    std::vector<std::string> words;
    EXPECT_TRUE(split_words("  dump_evlan 0\t0x10 \r\n", &words));
    EXPECT_THAT(words, ElementsAre("dump_evlan", "0", "0x10"));
    EXPECT_TRUE(split_words(R"("some module" a"b c"d "" )", &words));
    EXPECT_THAT(words, ElementsAre("some module", "ab cd", ""));
    EXPECT_TRUE(split_words(" \t", &words));
    EXPECT_THAT(words, IsEmpty());
    EXPECT_FALSE(split_words("a \"b", &words));
    EXPECT_EQ(quoted_word("plain"), "plain");
    EXPECT_EQ(quoted_word("some module"), "\"some module\"");
}

TEST(ShellWords, ArgumentsAreThoseThatTheHelpNames)
{
    const auto texts = [](std::string_view help) {
        std::vector<std::string> all;
        for (const placeholder &each : placeholders_of(help))
            all.push_back(each.text);
        return all;
    };
    EXPECT_THAT(texts("dump evlan info(0 dump all), db_type=%d, evlan_type=0x%x, evlan_id=0x%x"),
                ElementsAre("db_type=%d", "evlan_type=0x%x", "evlan_id=0x%x"));
    EXPECT_THAT(texts("dump ebridge list info"), IsEmpty());
    EXPECT_THAT(texts("100%% of %u and %-08.3lX, %s, %"), ElementsAre("%u", "%-08.3lX"));
    EXPECT_THAT(texts("%d%x"), ElementsAre("%d", "%x"));
    const auto kinds = placeholders_of("%d %i %u %x %X %o");
    ASSERT_EQ(kinds.size(), 6U);
    EXPECT_TRUE(kinds[0].is_signed && kinds[1].is_signed && !kinds[2].is_signed);
    EXPECT_TRUE(!kinds[2].hexadecimal && kinds[3].hexadecimal && kinds[4].hexadecimal && !kinds[5].hexadecimal);
}

TEST(ShellWords, NumbersAreReadAsTheirArgumentIs)
{
    const char *const help = "x, one=%d, two=0x%x, three=%u";
    std::vector<int32_t> read;
    std::string error;
    EXPECT_TRUE(read_arguments(help, {"-5", "ff", "4294967295"}, &read, &error));
    EXPECT_THAT(read, ElementsAre(-5, 0xff, -1));
    EXPECT_TRUE(read_arguments(help, {"0x10000001", "0xFF"}, &read, &error));
    EXPECT_THAT(read, ElementsAre(0x10000001, 0xff));
    EXPECT_TRUE(read_arguments(help, {"-2147483648", "ffffffff", "0xffffffff"}, &read, &error));
    EXPECT_THAT(read, ElementsAre(INT32_MIN, -1, -1));
    EXPECT_TRUE(read_arguments(help, {}, &read, &error));
    EXPECT_THAT(read, IsEmpty());
}

TEST(ShellWords, WhatIsNoNumberIsNamedWithItsArgument)
{
    const char *const help = "x, one=%d, two=0x%x, three=%u";
    const std::vector<std::vector<std::string>> cases = {
        {"x"}, {""}, {"1.5"}, {"2147483648"}, {"-2147483649"}, {"0x100000000"}, {"-0x"}, {"--5"}, {"+5"}, {"5 "}};
    std::vector<int32_t> read;
    std::string error;
    for (const auto &words : cases) {
        EXPECT_FALSE(read_arguments(help, words, &read, &error)) << words[0];
        EXPECT_EQ(error, '"' + words[0] + "\" is no number of 32 bits, as is asked for by one=%d");
    }
    EXPECT_FALSE(read_arguments(help, {"1", "fg"}, &read, &error));
    EXPECT_FALSE(read_arguments(help, {"1", "-1"}, &read, &error)) << "it has no sign";
    EXPECT_FALSE(read_arguments(help, {"1", "1", "4294967296"}, &read, &error));
    EXPECT_FALSE(read_arguments(help, {"1", "2", "3", "4"}, &read, &error));
    EXPECT_EQ(error, "4 arguments are given, and it takes 3: one=%d, two=0x%x, three=%u");
    EXPECT_FALSE(read_arguments("x", {"1"}, &read, &error));
    EXPECT_EQ(error, "1 arguments are given, and it takes none");
}

TEST(ShellWords, AreCompletedAsFarAsTheyAreAlike)
{
    const auto complete = [](const std::vector<std::string> &words) -> std::vector<std::string> {
        return words.empty()        ? std::vector<std::string>{"dump_eport", "dump_evlan", "help", "some module"}
               : words[0] == "help" ? std::vector<std::string>{"only"}
                                    : std::vector<std::string>{};
    };
    const auto rest = [&](const std::string &line) { return continue_line(line, complete).common; };
    EXPECT_EQ(rest("d"), "ump_e");
    EXPECT_EQ(rest("dump_ev"), "lan ");
    EXPECT_EQ(rest("dump_e"), "");
    EXPECT_THAT(continue_line("dump_e", complete).all, ElementsAre("dump_eport", "dump_evlan"));
    EXPECT_EQ(continue_line("", complete).all.size(), 4U);
    EXPECT_EQ(rest("help "), "only ");
    EXPECT_EQ(rest("help on"), "ly ");
    EXPECT_EQ(rest("x"), "");
    EXPECT_EQ(rest("dump_evlan "), "");
    EXPECT_EQ(rest("\"some m"), "odule\" ");
}

// ---- the program --------------------------------------------------------------------------------------------------------

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

std::atomic<int> handled = 0;  // on the loop's thread

int32_t say_arguments(int32_t argc, const int32_t *argv)
{
    ++handled;
    for (int32_t i = 0; i < argc; ++i)
        print("argument %d is %d\n", i, argv[i]);
    return argv[0];
}

int32_t flood(int32_t, const int32_t *argv)
{
    for (int32_t row = 0; row < argv[0]; ++row)
        print("row %07d, and what else there is to say about it, in about a hundred bytes\n", row);
    return 0;
}

// This process serves a shell, on a thread of its own.
class Shell : public testing::Test
{
  protected:
    Shell()
    {
        setenv("EBRIDGE_SHELL_DIR", directory().c_str(), 1);
        ssat_module *module = nullptr;
        ssat_lib_init("some module", &module);
        ssat_reg_mod_cmd(module, "say", 0, "says its arguments, result=%d, other=0x%x", say_arguments);
        ssat_reg_mod_cmd(module, "flood", 0, "prints rows=%d", flood);
        EXPECT_EQ(0, ssat_serve(master_, &server_));
        loop_ = std::thread([this] { qz_thread_run(master_); });
    }
    ~Shell() override
    {
        qz_thread_stop(master_);
        loop_.join();
        ssat_serve_stop(server_);
        qz_thread_master_free(master_);
    }
    Shell(const Shell &) = delete;
    Shell &operator=(const Shell &) = delete;

    std::string directory() const { return home_.folder() + "/shells"; }
    static outcome shell(std::vector<std::string> words)
    {
        words.insert(words.begin(), {EBRIDGE_PROGRAM, "shell"});
        return run(std::move(words));
    }
    // With these lines on its standard input.
    static outcome script(const std::string &lines)
    {
        const temporary_file file(lines);
        return run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + " shell < " + file.path()});
    }
    static void expect_line(const outcome &seen, int status, const std::string &line)
    {
        EXPECT_EQ(seen.status, status);
        EXPECT_EQ(seen.err, "ebridge: " + line + "\n");
        EXPECT_THAT(seen.out, IsEmpty());
    }
    static std::string self()
    {
        return std::string(program_invocation_short_name) + " (" + std::to_string(getpid()) + ')';
    }

  private:
    const temporary_file home_{""};
    qz_thread_master *master_ = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    ssat_server *server_ = nullptr;
    std::thread loop_{};
};

}  // namespace

TEST_F(Shell, RunsACommandAndPrintsWhatItPrints)
{
    const outcome seen = shell({"some module", "say", "0", "1f"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.out, "argument 0 is 0\nargument 1 is 31\n");
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST_F(Shell, AResultThatIsNotZeroIsStatusOne)
{
    const outcome seen = shell({"some module", "say", "-3"});
    EXPECT_EQ(seen.status, 1);
    EXPECT_EQ(seen.out, "argument 0 is -3\nargument 1 is 0\n");
    EXPECT_EQ(seen.err, "ebridge: some module say: result -3\n");
}

TEST_F(Shell, ArgumentsAreCheckedBeforeAnythingIsSent)
{
    handled = 0;
    expect_line(shell({"some module", "say", "x"}), 2,
                "some module say: \"x\" is no number of 32 bits, as is asked for by result=%d");
    expect_line(shell({"some module", "say", "1", "2", "3"}), 2,
                "some module say: 3 arguments are given, and it takes 2: result=%d, other=0x%x");
    EXPECT_EQ(handled, 0);
}

TEST_F(Shell, WhatIsNotThereIsOneLine)
{
    expect_line(shell({"nobody", "say"}), 2, "no process has the module nobody");
    expect_line(shell({"some module", "nothing"}), 2, "some module has no command nothing");
    expect_line(shell({"some module"}), 2, "a command of some module is missing (see ebridge shell --list)");
    expect_line(shell({"--list", "nobody"}), 2, "no process has the module nobody");
    expect_line(shell({"--pid", "1", "some module", "say"}), 3,
                "process 1 serves no debug shell, or is not yours to ask");
    setenv("EBRIDGE_SHELL_DIR", (directory() + "/none").c_str(), 1);
    expect_line(shell({"some module", "say"}), 3, "no process serves a debug shell, or none that is yours to ask");
    setenv("EBRIDGE_SHELL_DIR", "/dev/null/two\nlines", 1);
    expect_line(shell({"some module", "say"}), 3, "/dev/null/two\\x0alines: Not a directory");
}

TEST_F(Shell, ListsModulesWithCommandsAndTheirHelp)
{
    const outcome seen = shell({"--list"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.out, "\"some module\", of " + self() +
                            "\n"
                            "  say    says its arguments, result=%d, other=0x%x\n"
                            "  flood  prints rows=%d\n");
    EXPECT_EQ(shell({"--list", "some module"}).out, seen.out);
    const auto json = nlohmann::json::parse(shell({"--list", "--json"}).out);
    ASSERT_EQ(json.size(), 2U);
    EXPECT_EQ(json[0]["module"], "some module");
    EXPECT_EQ(json[0]["command"], "say");
    EXPECT_EQ(json[0]["pid"], getpid());
    EXPECT_EQ(json[0]["arguments"], nlohmann::json::parse(R"(["result=%d", "other=0x%x"])"));
}

TEST_F(Shell, FindsSocketsInFoldersBelow)
{
    const std::string below = directory() + "/below";
    std::filesystem::create_directory(below);
    std::filesystem::permissions(below, std::filesystem::perms::owner_all);
    setenv("EBRIDGE_SHELL_DIR", below.c_str(), 1);
    child service({EBRIDGED_PROGRAM, "--store", "mem:test"});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    setenv("EBRIDGE_SHELL_DIR", directory().c_str(), 1);
    EXPECT_EQ(shell({"ebridged", "stat"}).status, 0);
    EXPECT_EQ(shell({"some module", "say"}).status, 0);
}

TEST_F(Shell, OneOfSeveralProcessesIsChosenByItsNumber)
{
    child one({EBRIDGED_PROGRAM, "--store", "mem:test"}), other({EBRIDGED_PROGRAM, "--store", "mem:test"});
    ASSERT_TRUE(one.wait_for_error_text("serving") && other.wait_for_error_text("serving"));
    const outcome seen = shell({"ebridged", "stat"});
    EXPECT_EQ(seen.status, 2);
    EXPECT_THAT(seen.err, StartsWith("ebridge: ebridged is served by several processes: ebridged ("));
    EXPECT_THAT(seen.err, HasSubstr("ebridged (" + std::to_string(other.pid()) + ')'));
    EXPECT_THAT(seen.err, testing::EndsWith("; choose one with --pid\n"));
    const outcome chosen = shell({"--pid", std::to_string(one.pid()), "ebridged", "stat"});
    EXPECT_EQ(chosen.status, 0);
    EXPECT_THAT(chosen.out, StartsWith("state: serving\nids:   answering, 0 sessions, 0 keys with ids,"));
    EXPECT_THAT(chosen.out, HasSubstr("\nrules: deciding, 0 rules,"));
    EXPECT_THAT(chosen.out, HasSubstr("\npvids: 0 ports,"));
}

TEST_F(Shell, AProcessThatDoesNotReadIsNamedAndOthersAreAsked)
{
    child stopped({EBRIDGED_PROGRAM, "--store", "mem:test"});
    ASSERT_TRUE(stopped.wait_for_error_text("serving"));
    stopped.signal(SIGSTOP);
    const std::string line = "ebridged (" + std::to_string(stopped.pid()) + ") does not answer";
    expect_line(shell({"ebridged", "stat"}), 3, "no process has the module ebridged; " + line);
    EXPECT_EQ(shell({"some module", "say"}).status, 0);
    const outcome list = shell({"--list"});
    EXPECT_EQ(list.status, 3);
    EXPECT_THAT(list.out, HasSubstr("some module"));
    EXPECT_EQ(list.err, "ebridge: " + line + "\n");
    stopped.signal(SIGCONT);
}

TEST_F(Shell, AProcessThatTalksNonsenseIsNamed)
{
    const int nonsense = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    (directory() + "/odd.77").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(nonsense, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    ASSERT_EQ(0, listen(nonsense, 8));
    const std::pair<std::string, std::string> cases[] = {
        {"SSH-2.0\n", "odd (77) speaks another version of the debug shell"},
        {std::string(20000, 'x'), "odd (77) sends an answer that makes no sense"},
        {"ebridge-shell 1\n?\n", "odd (77) sends an answer that makes no sense"},
        {"ebridge-shell 1\n+-1\n", "odd (77) sends an answer that makes no sense"},
        {"ebridge-shell 1\n+5\nx\ty\n=0\n", "odd (77) sends an answer that makes no sense"},
        {"ebridge-shell 1\n+4\nx\ty\n=0\n", "odd (77) sends a list that makes no sense"},
        {"ebridge-shell 1\n+9\nx\ty", "odd (77) has gone"}};
    for (const auto &[said, line] : cases) {
        std::thread server([nonsense, text = said] {
            const int client = accept(nonsense, nullptr, nullptr);
            send(client, text.data(), text.size(), MSG_NOSIGNAL);
            shutdown(client, SHUT_WR);
            char rest[100];
            while (read(client, rest, sizeof rest) > 0) {
            }
            close(client);
        });
        const outcome seen = shell({"--list"});
        server.join();
        EXPECT_EQ(seen.status, 3);
        EXPECT_EQ(seen.err, "ebridge: " + line + "\n");
        EXPECT_THAT(seen.out, HasSubstr("some module"));
    }
    close(nonsense);
    EXPECT_EQ(shell({"--list"}).status, 0) << "nobody serves it any more";
}

TEST_F(Shell, ReadsLinesAsAScript)
{
    const outcome seen = script(
        "# comment\n\n\"some module\" say 0 1\nhelp\nlist \"some module\"\nnobody x\n\"some module\" say 4\n"
        "some \"module\n\"some module\" say 0 2\nquit\n\"some module\" say 0 3\n");
    EXPECT_EQ(seen.status, 2) << "of the first line that failed";
    EXPECT_THAT(seen.out, StartsWith("argument 0 is 0\nargument 1 is 1\nMODULE COMMAND [ARG ...]"));
    EXPECT_THAT(seen.out, HasSubstr("  flood  prints rows=%d\n"));
    EXPECT_THAT(seen.out, testing::EndsWith("argument 0 is 4\nargument 1 is 0\nargument 0 is 0\nargument 1 is 2\n"));
    EXPECT_EQ(seen.err,
              "ebridge: no process has the module nobody\nebridge: some module say: result 4\n"
              "ebridge: a quote is not closed\n");
}

TEST_F(Shell, LongOutputComesWholeHoweverSlowlyItIsRead)
{
    const outcome seen =
        run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + " shell 'some module' flood 60000 | (sleep 2; wc -l)"});
    EXPECT_EQ(seen.out, "60000\n");
    EXPECT_THAT(seen.err, IsEmpty());
}

TEST_F(Shell, WhatIsCutOffEndsQuietlyAndTheProcessGoesOnServing)
{
    const outcome seen =
        run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + " shell 'some module' flood 1000000 | head -n 2"});
    EXPECT_THAT(seen.out, StartsWith("row 0000000,"));
    EXPECT_EQ(std::count(seen.out.begin(), seen.out.end(), '\n'), 2);
    EXPECT_THAT(seen.err, IsEmpty());
    EXPECT_EQ(shell({"some module", "say"}).status, 0);
}

// The socket to the process must not get the number of a standard output that was closed.
TEST_F(Shell, WithoutAStandardOutputTheProcessIsNotSentItsOwnAnswer)
{
    const outcome seen = run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + " shell 'some module' say >&-"});
    expect_line(seen, 1, "the output cannot be written");
}

TEST_F(Shell, LinesThatCannotBeReadAreOneLine)
{
    const outcome seen = run({"/bin/sh", "-c", std::string(EBRIDGE_PROGRAM) + " shell < /tmp"});
    expect_line(seen, 2, "standard input cannot be read");
}

TEST_F(Shell, ManyClientsAtOnceEachGetTheirOwn)
{
    std::vector<std::thread> clients;
    std::vector<outcome> seen(8);
    for (size_t i = 0; i < seen.size(); ++i)
        clients.emplace_back([&seen, i] {
            seen[i] = run({EBRIDGE_PROGRAM, "shell", "some module", "say", "0", std::to_string(i)});
        });
    for (std::thread &each : clients)
        each.join();
    for (size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(seen[i].out, "argument 0 is 0\nargument 1 is " + std::to_string(i) + "\n") << seen[i].err;
}

TEST(ShellUsage, IsOneLine)
{
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"--pid", "0", "x", "y"}, {"--pid", "me"}, {"--json"}, {"--list", "a", "b"}, {"--bogus"}}) {
        std::vector<std::string> command{EBRIDGE_PROGRAM, "shell"};
        command.insert(command.end(), words.begin(), words.end());
        const outcome seen = run(std::move(command));
        EXPECT_EQ(seen.status, 2) << seen.err;
        EXPECT_THAT(seen.out, IsEmpty());
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
    }
    const outcome help = run({EBRIDGE_PROGRAM, "shell", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, HasSubstr("Examples:\n"));
    EXPECT_THAT(help.out, HasSubstr("Exit status: "));
}
