// The program ebridged, and the example program, as a user runs them.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "child.hpp"
#include "redis_server.hpp"
#include "spread_store.hpp"

using namespace road;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace
{

// Has the example configuration brought up: the id that one of its maps got.
std::string leaf_id(const support::redis_server &redis)
{
    const outcome seen =
        run({EBRIDGE_PROGRAM, "run", "--store", redis.url(), std::string(EXAMPLES_DIR) + "/leaf.json"});
    EXPECT_EQ(seen.status, 0) << seen.err;
    return redis.commands(8, "HGET u_bridge.evlan_session:ebridge_run:32:5101 10");
}

}  // namespace

TEST(EbridgedProgram, EndsCleanlyOnASignal)
{
    for (int number : {SIGTERM, SIGINT}) {
        child service({EBRIDGED_PROGRAM, "--store", "mem:test", "--db", "4", "--db", "5"});
        ASSERT_TRUE(service.wait_for_error_text("serving"));
        service.signal(number);
        const outcome seen = service.finish();
        EXPECT_EQ(seen.status, 0);
        EXPECT_THAT(seen.out, IsEmpty());
        EXPECT_THAT(seen.err, HasSubstr("ebridged: serving, 0 sessions, 0 ids in use\n"));
        EXPECT_THAT(seen.err, testing::EndsWith("ebridged: stopped\n"));
    }
}

TEST(EbridgedProgram, BadArgumentsAreOneLine)
{
    const std::vector<std::vector<std::string>> cases = {{},
                                                         {"--store"},
                                                         {"--db", "4"},
                                                         {"--store", "mem:x", "--db", "four"},
                                                         {"--store", "mem:x", "--db", "99"},
                                                         {"--store", "mem:x", "--db", ""},
                                                         {"--store", ""},
                                                         {"--store", "mem:x", "--two\nlines"},
                                                         {"--store", "mem:x", "more"}};
    for (std::vector<std::string> arguments : cases) {
        arguments.insert(arguments.begin(), EBRIDGED_PROGRAM);
        const outcome seen = run(arguments);
        EXPECT_EQ(seen.status, 2) << seen.err;
        EXPECT_EQ(std::count(seen.err.begin(), seen.err.end(), '\n'), 1) << seen.err;
    }
}

TEST(EbridgedProgram, AStoreThatCannotBeOpenedIsOneLine)
{
    const outcome seen = run({EBRIDGED_PROGRAM, "--store", "nowhere:x"});
    EXPECT_EQ(seen.status, 3);
    EXPECT_EQ(seen.err, "ebridged: nowhere:x: malformed URL, unknown scheme, or a map file that makes no sense\n");
}

// A thread's stack is as large as the limit says, which is larger than all memory.
TEST(EbridgedProgram, WithoutAThreadForItsSignalsItEndsWithOneLine)
{
    if (sizeof(void *) == 4)
        GTEST_SKIP() << "such a limit is none to a 32-bit program";
    constexpr int NOT_ALLOWED = 77;
    const outcome seen =
        run({"/bin/sh", "-c", "ulimit -s 200000000000 || exit 77; exec \"$0\" --store mem:test", EBRIDGED_PROGRAM});
    const bool lies_elsewhere = seen.err.find("ThreadSanitizer: unexpected memory mapping") != std::string::npos;
    if (seen.status == NOT_ALLOWED || lies_elsewhere)  // with such a limit all memory does
        GTEST_SKIP() << seen.err;
    EXPECT_EQ(seen.status, 3);
    EXPECT_EQ(seen.err, "ebridged: waiting for the store\nebridged: Resource temporarily unavailable\n");
}

TEST(EbridgedProgram, AMapFileThatMakesNoSenseIsNamedWithItsPlace)
{
    const temporary_file map(R"({"INSTANCES": {"redis": {"hostname": "h", "port": "x", "password": "open-sesame"}}})");
    const outcome seen = run({EBRIDGED_PROGRAM, "--store", "file://" + map.path()});
    EXPECT_EQ(seen.status, 3);
    EXPECT_THAT(seen.err, HasSubstr(map.path() + ": /INSTANCES/redis/port: not a number from 1 to 65535\n"));
    EXPECT_THAT(seen.err, Not(HasSubstr("sesame")));
}

TEST(EbridgedProgram, HelpSaysWhatTheEmbeddedStoreIsGoodFor)
{
    const outcome seen = run({EBRIDGED_PROGRAM, "--help"});
    EXPECT_EQ(seen.status, 0);
    EXPECT_THAT(seen.out, HasSubstr("mem:NAME"));
}

TEST(EbridgedProgram, ServesOtherProcessesOverRedis)
{
    const support::redis_server redis;
    child service({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    for (const char *id : {"0x20000001", "0x20000002"}) {  // an id that was just freed rests
        const outcome seen = run({EXAMPLE_PROGRAM, redis.url()});
        EXPECT_EQ(seen.status, 0) << seen.err;
        EXPECT_EQ(seen.out, "VNI 5010 has evlan " + std::string(id) + "\nreleased\n");
    }
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

// The sessions of database 4 are answered on one server, and mirrored into database 8 on the other.
TEST(EbridgedProgram, ServesDatabasesThatAMapFileSpreadsOverServers)
{
    support::spread_store store;
    ASSERT_NE(&store.server_of(4), &store.server_of(8));
    child service({EBRIDGED_PROGRAM, "--store", store.url()});
    ASSERT_TRUE(service.wait_for_error_text("serving"));
    const std::string leaf = std::string(EXAMPLES_DIR) + "/leaf.json";
    const outcome seen = run({EBRIDGE_PROGRAM, "run", "--store", store.url(), leaf});
    EXPECT_EQ(seen.status, 0) << seen.err;
    const std::string key = "EXISTS u_bridge.evlan_session:ebridge_run:32:5101";
    for (const int db : {4, 8}) {
        support::redis_server &other = store.server_of(db == 4 ? 8 : 4);
        EXPECT_THAT(store.server_of(db).commands(db, key), HasSubstr(":1\r\n"));
        EXPECT_THAT(other.commands(db, key), HasSubstr(":0\r\n"));
    }
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
}

// One that dies takes nothing with it: the next one reads what was granted from the store.
TEST(EbridgedProgram, KeepsWhatItGrantedOverItsDeathAndTheServers)
{
    support::redis_server redis;
    const std::string leaf = std::string(EXAMPLES_DIR) + "/leaf.json";
    std::string sessions;
    for (int life = 0; life < 3; ++life) {
        child service({EBRIDGED_PROGRAM, "--store", redis.url()});
        ASSERT_TRUE(service.wait_for_error_text("serving"));
        const outcome seen = run({EBRIDGE_PROGRAM, "run", "--store", redis.url(), leaf});
        EXPECT_EQ(seen.status, 0) << seen.err;
        service.signal(SIGKILL);
        service.finish();
        const std::string granted = redis.commands(8,
                                                   "HGET u_bridge.evlan_session:ebridge_run:32:5101 10\n"
                                                   "HGET u_bridge.evlan_session:ebridge_run:16:10 10");
        EXPECT_EQ(std::count(granted.begin(), granted.end(), '$'), 2) << granted;
        if (life == 0)
            sessions = granted;
        EXPECT_EQ(granted, sessions);
        redis.kill();
        redis.start();
    }
}

// The one that stands by serves when the other is killed, and what it then grants was given to nobody before.
TEST(EbridgedProgram, TakesOverFromOneThatIsKilled)
{
    const support::redis_server redis;
    std::vector<std::string> ids;
    auto serving = std::make_unique<child>(std::vector<std::string>{EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(serving->wait_for_error_text("serving, "));
    for (int life = 0; life < 3; ++life) {
        auto next = std::make_unique<child>(std::vector<std::string>{EBRIDGED_PROGRAM, "--store", redis.url()});
        ASSERT_TRUE(next->wait_for_error_text("standing by"));
        ids.push_back(leaf_id(redis));
        serving->signal(SIGKILL);
        serving->finish();
        ASSERT_TRUE(next->wait_for_error_text("serving, 138 sessions"));
        serving = std::move(next);
    }
    EXPECT_EQ(ids, std::vector<std::string>(3, ids.front()));
    serving->signal(SIGTERM);
    EXPECT_EQ(serving->finish().status, 0);
}

// One that ends in peace hands over at once.
TEST(EbridgedProgram, HandsOverWhenItEnds)
{
    const support::redis_server redis;
    child first({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(first.wait_for_error_text("serving, "));
    child second({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(second.wait_for_error_text("standing by"));
    first.signal(SIGTERM);
    EXPECT_EQ(first.finish().status, 0);
    EXPECT_EQ(redis.commands(4, "EXISTS mom:lock:ebridged").find(":1"), std::string::npos);
    ASSERT_TRUE(second.wait_for_error_text("serving, "));
    EXPECT_EQ(run({EXAMPLE_PROGRAM, redis.url()}).status, 0);
}

// Stopped for longer than its lock lasts, it finds another one serving, and does not serve beside it.
TEST(EbridgedProgram, StepsDownWhenItWasStoppedForTooLong)
{
    const support::redis_server redis;
    child first({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(first.wait_for_error_text("serving, "));
    child second({EBRIDGED_PROGRAM, "--store", redis.url()});
    ASSERT_TRUE(second.wait_for_error_text("standing by"));
    first.signal(SIGSTOP);
    ASSERT_TRUE(second.wait_for_error_text("serving, "));
    first.signal(SIGCONT);
    ASSERT_TRUE(first.wait_for_error_text("the store's lock is lost"));
    EXPECT_EQ(run({EXAMPLE_PROGRAM, redis.url()}).status, 0);
    second.signal(SIGKILL);
    second.finish();
    ASSERT_TRUE(first.wait_for_error_text("serving, 0 sessions"));
    EXPECT_EQ(run({EXAMPLE_PROGRAM, redis.url()}).status, 0);
}

// What a service manager that listens there is told from the start to the end.
std::vector<std::string> told_at(const std::string &place)
{
    const support::redis_server redis;
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    place.copy(name.sun_path, sizeof name.sun_path - 1);
    if (place[0] == '@')
        name.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + place.size());
    EXPECT_EQ(0, bind(manager, reinterpret_cast<const sockaddr *>(&name), size));
    child service({"/usr/bin/env", "NOTIFY_SOCKET=" + place, EBRIDGED_PROGRAM, "--store", redis.url()});
    EXPECT_TRUE(service.wait_for_error_text("serving, "));
    service.signal(SIGTERM);
    EXPECT_EQ(service.finish().status, 0);
    std::vector<std::string> told;
    char text[256];
    for (ssize_t got = 0; (got = recv(manager, text, sizeof text, MSG_DONTWAIT)) > 0;)
        told.emplace_back(text, static_cast<size_t>(got));
    close(manager);
    return told;
}

TEST(EbridgedProgram, TellsTheServiceManagerWhereItStands)
{
    const temporary_file place("");
    for (const std::string &name : {place.folder() + "/notify", "@ebridge-test-" + std::to_string(getpid())}) {
        const auto told = told_at(name);
        ASSERT_GE(told.size(), 3u) << name;
        EXPECT_EQ(told.front(), "STATUS=Waiting for the store");
        EXPECT_EQ(told[told.size() - 2], "READY=1\nSTATUS=Serving");
        EXPECT_EQ(told.back(), "STOPPING=1");
    }
}

TEST(EbridgedProgram, ServesAlsoWhenTheServiceManagerCannotBeTold)
{
    const support::redis_server redis;
    for (const std::string &name :
         {std::string("relative"), '/' + std::string(300, 'x'), std::string("/nowhere/socket")}) {
        child service({"/usr/bin/env", "NOTIFY_SOCKET=" + name, EBRIDGED_PROGRAM, "--store", redis.url()});
        EXPECT_TRUE(service.wait_for_error_text("serving, ")) << name;
        service.signal(SIGTERM);
        EXPECT_EQ(service.finish().status, 0);
    }
}

TEST(EbridgeRun, AStoreThatIsNotThereIsOneLineAndStatus3)
{
    const std::string leaf = std::string(EXAMPLES_DIR) + "/leaf.json";
    const outcome seen = run({EBRIDGE_PROGRAM, "run", "--store", "redis+unix:///nowhere/socket", leaf});
    EXPECT_EQ(seen.status, 3);
    EXPECT_EQ(seen.err, "ebridge: redis+unix:///nowhere/socket: the store cannot be reached\n");
    EXPECT_THAT(seen.out, IsEmpty());
}

TEST(ExampleProgram, RequestsPrintsAndReleases)
{
    const outcome seen = run({EXAMPLE_PROGRAM});
    EXPECT_EQ(seen.status, 0) << seen.err;
    EXPECT_EQ(seen.out, "VNI 5010 has evlan 0x20000001\nreleased\n");
}

TEST(ExampleProgram, ChipDriverReportsObjectsOfBothUnits)
{
    const outcome seen = run({CHIP_DRIVER_PROGRAM});
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.err, "");
    EXPECT_EQ(seen.out,
              "unit 0: evlan 0x20000005 is vsi 1\n"
              "unit 0: eport 0x30000007 is vport 100\n"
              "unit 1: evlan 0x20000005 is vsi 5\n"
              "unit 1: eport 0x30000007 is vport 500\n"
              "unit 0: an event of vport 100 means eport 0x30000007\n"
              "unit 1: an event of vport 500 means eport 0x30000007\n"
              "unit 1: an event of vport 100 means nothing\n"
              "unit 0: eport 0x30000007 was vport 100\n"
              "unit 0: evlan 0x20000005 was vsi 1\n"
              "unit 1: eport 0x30000007 was vport 500\n"
              "unit 1: evlan 0x20000005 was vsi 5\n"
              "unit 0: an event of vport 100 means nothing\n");
}
