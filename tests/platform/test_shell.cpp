// The debug shell's registry against its header.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "allocation_failure.hpp"
#include "ssat.h"

using testing::ElementsAre;
using testing::IsEmpty;

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

ssat_module *module_named(const char *name)
{
    ssat_module *module = nullptr;
    EXPECT_EQ(0, ssat_lib_init(name, &module));
    return module;
}

std::vector<int32_t> seen_arguments;  // of the last run of keep_arguments
int32_t keep_arguments(int32_t argc, const int32_t *argv)
{
    seen_arguments.assign(argv, argv + argc);
    return 77;
}

int32_t first_handler(int32_t, const int32_t *) { return 1; }

int32_t second_handler(int32_t, const int32_t *) { return 2; }

// A client that keeps what it is sent, piece by piece, and goes after `patience` pieces.
struct listener {
    std::vector<std::string> pieces;
    size_t patience = 1000;
};

int32_t listen(const char *text, uint32_t size, void *args)
{
    auto *to = static_cast<listener *>(args);
    to->pieces.emplace_back(text, size);
    return to->pieces.size() > to->patience ? 1 : 0;
}

int32_t exec(const char *module, const char *command, std::vector<int32_t> arguments = {}, int32_t *result = nullptr)
{
    listener client;
    return ssat_exec(module, command, static_cast<int32_t>(arguments.size()), arguments.data(), listen, &client,
                     result);
}

std::vector<std::string> listed()
{
    std::vector<std::string> all;
    const ssat_visitor note = [](const char *module, const char *command, const char *help, void *args) -> int32_t {
        static_cast<std::vector<std::string> *>(args)->push_back(std::string(module) + "/" + command + "/" + help);
        return 0;
    };
    EXPECT_EQ(0, ssat_for_each(note, &all));
    return all;
}

}  // namespace

TEST(Shell, RefusesWhatCannotBeRegistered)
{
    ssat_module *module = nullptr;
    EXPECT_EQ(SSAT_EINVAL, ssat_lib_init(nullptr, &module));
    EXPECT_EQ(SSAT_EINVAL, ssat_lib_init("", &module));
    EXPECT_EQ(SSAT_EINVAL, ssat_lib_init("m", nullptr));
    EXPECT_EQ(SSAT_EINVAL, ssat_lib_init(std::string(128, 'm').c_str(), &module));
    EXPECT_EQ(nullptr, module);
    EXPECT_EQ(0, ssat_lib_init(std::string(127, 'm').c_str(), &module));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(nullptr, "c", 0, "help", first_handler));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(module, nullptr, 0, "help", first_handler));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(module, "", 0, "help", first_handler));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(module, "c", 1, "help", first_handler));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(module, "c", 0, nullptr, first_handler));
    EXPECT_EQ(SSAT_EINVAL, ssat_reg_mod_cmd(module, "c", 0, "help", nullptr));
    EXPECT_EQ(SSAT_EINVAL, ssat_for_each(nullptr, nullptr));
    EXPECT_THAT(listed(), IsEmpty());
}

TEST(Shell, ModuleThatRegistersAgainIsTheSameOne)
{
    ssat_module *const module = module_named("libvlan_app");
    ASSERT_EQ(0, ssat_reg_mod_cmd(module, "dump_list", 0, "help", first_handler));
    EXPECT_EQ(module, module_named("libvlan_app"));
    EXPECT_NE(module, module_named("libvlan_other"));
    EXPECT_THAT(listed(), ElementsAre("libvlan_app/dump_list/help"));
}

TEST(Shell, LastCommandOfANameWinsAndKeepsItsPlace)
{
    ssat_module *const module = module_named("m");
    ssat_reg_mod_cmd(module, "one", 0, "old", first_handler);
    ssat_reg_mod_cmd(module, "two", 0, "help", first_handler);
    ssat_reg_mod_cmd(module, "one", 0, "new %d", second_handler);
    EXPECT_THAT(listed(), ElementsAre("m/one/new %d", "m/two/help"));
    int32_t result = 0;
    EXPECT_EQ(0, exec("m", "one", {5}, &result));
    EXPECT_EQ(2, result);
}

TEST(Shell, TextsAreCopied)
{
    char name[] = "module", command[] = "command", help[] = "help %d";
    ssat_reg_mod_cmd(module_named(name), command, 0, help, first_handler);
    name[0] = command[0] = help[0] = 'X';
    EXPECT_THAT(listed(), ElementsAre("module/command/help %d"));
}

TEST(Shell, WalkIsByModuleNameThenByRegistration)
{
    ssat_module *const b = module_named("b");
    ssat_module *const a = module_named("a");
    module_named("empty");
    ssat_reg_mod_cmd(b, "z", 0, "", first_handler);
    ssat_reg_mod_cmd(a, "y", 0, "", first_handler);
    ssat_reg_mod_cmd(b, "c", 0, "", first_handler);
    ssat_reg_mod_cmd(a, "x", 0, "", first_handler);
    EXPECT_THAT(listed(), ElementsAre("a/y/", "a/x/", "b/z/", "b/c/"));
}

TEST(Shell, WalkEndsAtTheFirstNonZeroResult)
{
    ssat_module *const module = module_named("m");
    for (const char *name : {"one", "two", "three"})
        ssat_reg_mod_cmd(module, name, 0, "", first_handler);
    int32_t visits = 0;
    const ssat_visitor stop_at_two = [](const char *, const char *, const char *, void *args) -> int32_t {
        return ++*static_cast<int32_t *>(args) == 2 ? -42 : 0;
    };
    EXPECT_EQ(-42, ssat_for_each(stop_at_two, &visits));
    EXPECT_EQ(2, visits);
}

TEST(Shell, VisitorMayRegister)
{
    ssat_reg_mod_cmd(module_named("m"), "one", 0, "", first_handler);
    const ssat_visitor add = [](const char *, const char *, const char *, void *) -> int32_t {
        return ssat_reg_mod_cmd(module_named("n"), "two", 0, "", first_handler);
    };
    EXPECT_EQ(0, ssat_for_each(add, nullptr));
    EXPECT_THAT(listed(), ElementsAre("m/one/", "n/two/"));
}

TEST(Shell, HelpTextNamesTheArguments)
{
    struct expectation {
        const char *help;
        size_t arguments;
    };
    const expectation all[] = {
        {"", 0},
        {"dump ebridge list info", 0},
        {"dump evlan info(0 dump all), db_type=%d, evlan_type=0x%x, evlan_id=0x%x", 3},
        {"set vlan debug level(1:err,2:warn,4:info,7:all), file_level=%d, std_level=%d", 2},
        {"%d%x%i%u%X%o", 6},
        {"%ld %lld %hhx %zu %08x %-5d %.3d %#x", 8},
        {"100%% of %d", 1},
        {"%%d and %%%d", 1},
        {"name=%s, c=%c, %k", 0},
        {"unfinished %", 0},
        {"unfinished %0", 0},
    };
    ssat_module *const module = module_named("m");
    for (const auto &each : all) {
        ASSERT_EQ(0, ssat_reg_mod_cmd(module, "c", 0, each.help, keep_arguments));
        ASSERT_EQ(0, exec("m", "c"));
        EXPECT_EQ(each.arguments, seen_arguments.size()) << each.help;
    }
}

TEST(Shell, ArgumentsLeftOutAreZero)
{
    ssat_reg_mod_cmd(module_named("m"), "c", 0, "%d %x %d", keep_arguments);
    int32_t result = 0;
    EXPECT_EQ(0, exec("m", "c", {-7, 0x10}, &result));
    EXPECT_THAT(seen_arguments, ElementsAre(-7, 16, 0));
    EXPECT_EQ(77, result);
    EXPECT_EQ(0, exec("m", "c", {1, 2, 3}));
    EXPECT_THAT(seen_arguments, ElementsAre(1, 2, 3));
}

TEST(Shell, ExecRefusesWithoutRunningAnything)
{
    ssat_reg_mod_cmd(module_named("m"), "c", 0, "%d", keep_arguments);
    listener client;
    int32_t result = 5;
    const int32_t arguments[] = {1, 2};
    seen_arguments = {9, 9};
    EXPECT_EQ(SSAT_ENOENT, exec("unknown", "c", {}, &result));
    EXPECT_EQ(SSAT_ENOENT, exec("m", "unknown", {}, &result));
    EXPECT_EQ(SSAT_EARGS, exec("m", "c", {1, 2}, &result));
    EXPECT_EQ(SSAT_EINVAL, ssat_exec(nullptr, "c", 0, nullptr, listen, &client, &result));
    EXPECT_EQ(SSAT_EINVAL, ssat_exec("m", nullptr, 0, nullptr, listen, &client, &result));
    EXPECT_EQ(SSAT_EINVAL, ssat_exec("m", "c", -1, arguments, listen, &client, &result));
    EXPECT_EQ(SSAT_EINVAL, ssat_exec("m", "c", 1, nullptr, listen, &client, &result));
    EXPECT_EQ(SSAT_EINVAL, ssat_exec("m", "c", 0, nullptr, nullptr, &client, &result));
    EXPECT_EQ(5, result);
    EXPECT_THAT(seen_arguments, ElementsAre(9, 9));
}

TEST(Shell, PrintsOfAHandlerGoToWhoeverAsked)
{
    const ssat_handler talk = [](int32_t, const int32_t *argv) -> int32_t {
        EXPECT_EQ(9, print("evlan %d\n", argv[0]));
        EXPECT_EQ(0, print("%s", ""));
        return print("%s", std::string(100'000, 'x').c_str());
    };
    ssat_reg_mod_cmd(module_named("m"), "talk", 0, "id=%d", talk);
    listener client;
    int32_t result = 0;
    const int32_t argument = 42;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, ssat_exec("m", "talk", 1, &argument, listen, &client, &result));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_THAT(client.pieces, ElementsAre("evlan 42\n", std::string(100'000, 'x')));
    EXPECT_EQ(100'000, result);
}

TEST(Shell, PrintsOutsideAHandlerGoToStandardOutput)
{
    ssat_reg_mod_cmd(module_named("m"), "c", 0, "", first_handler);
    EXPECT_EQ(0, exec("m", "c"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(7, print("%s %d", "hello", 5));
    EXPECT_EQ("hello 5", testing::internal::GetCapturedStdout());
}

TEST(Shell, PrintsOfOtherThreadsDoNotReachTheClient)
{
    const ssat_handler on_other_thread = [](int32_t, const int32_t *) -> int32_t {
        std::thread([] { print("elsewhere"); }).join();
        return 0;
    };
    ssat_reg_mod_cmd(module_named("m"), "c", 0, "", on_other_thread);
    listener client;
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, ssat_exec("m", "c", 0, nullptr, listen, &client, nullptr));
    EXPECT_EQ("elsewhere", testing::internal::GetCapturedStdout());
    EXPECT_THAT(client.pieces, IsEmpty());
}

TEST(Shell, ClientThatHasGoneHearsNoMore)
{
    static std::vector<int32_t> printed;
    const ssat_handler talk = [](int32_t, const int32_t *) -> int32_t {
        for (int i = 0; i < 4; ++i)
            printed.push_back(print("line"));
        return 0;
    };
    ssat_reg_mod_cmd(module_named("m"), "talk", 0, "", talk);
    listener client{{}, 1};
    EXPECT_EQ(0, ssat_exec("m", "talk", 0, nullptr, listen, &client, nullptr));
    EXPECT_EQ(2U, client.pieces.size());
    ASSERT_EQ(4U, printed.size());
    EXPECT_EQ(4, printed[0]);
    for (size_t i = 1; i < 4; ++i)
        EXPECT_LT(printed[i], 0);
}

TEST(Shell, HandlerMayRunAnotherCommandAndThenPrintsToItsOwnClient)
{
    static listener inner;
    const ssat_handler say_inner = [](int32_t, const int32_t *) -> int32_t { return print("inner"); };
    const ssat_handler outer_handler = [](int32_t, const int32_t *) -> int32_t {
        print("before");
        EXPECT_EQ(0, ssat_exec("m", "inner", 0, nullptr, listen, &inner, nullptr));
        return print("after");
    };
    ssat_reg_mod_cmd(module_named("m"), "inner", 0, "", say_inner);
    ssat_reg_mod_cmd(module_named("m"), "outer", 0, "", outer_handler);
    listener client;
    EXPECT_EQ(0, ssat_exec("m", "outer", 0, nullptr, listen, &client, nullptr));
    EXPECT_THAT(client.pieces, ElementsAre("before", "after"));
    EXPECT_THAT(inner.pieces, ElementsAre("inner"));
}

TEST(Shell, RegistersFromManyThreads)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int n = 0; n < 50; ++n) {
                const std::string name = "c" + std::to_string(t) + "_" + std::to_string(n);
                EXPECT_EQ(0, ssat_reg_mod_cmd(module_named("m"), name.c_str(), 0, "%d", first_handler));
                EXPECT_EQ(0, exec("m", name.c_str(), {1}));
            }
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(200U, listed().size());
}

TEST(ShellMemory, EveryCallReportsItAndLeavesNothingHalfDone)
{
    const std::string long_name(100, 'm'), long_command(100, 'c'), long_help(100, 'h');
    ssat_module *module = nullptr;
    EXPECT_LE(1U, failures_reported([&] { return ssat_lib_init(long_name.c_str(), &module); }, SSAT_ENOMEM));
    const auto add = [&] {
        return ssat_reg_mod_cmd(module, long_command.c_str(), 0, long_help.c_str(), keep_arguments);
    };
    EXPECT_LE(2U, failures_reported(add, SSAT_ENOMEM));
    EXPECT_EQ(1U, listed().size());

    const ssat_visitor nothing = [](const char *, const char *, const char *, void *) -> int32_t { return 0; };
    EXPECT_LE(1U, failures_reported([&] { return ssat_for_each(nothing, nullptr); }, SSAT_ENOMEM));
    listener client;
    const auto run = [&] {
        return ssat_exec(long_name.c_str(), long_command.c_str(), 0, nullptr, listen, &client, nullptr);
    };
    EXPECT_LE(1U, failures_reported(run, SSAT_ENOMEM));
}
