// The program ebridged, and the example program, as a user runs them.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>

#include "child.hpp"
#include "redis_server.hpp"

using namespace road;
using testing::HasSubstr;
using testing::IsEmpty;

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
    EXPECT_EQ(seen.err, "ebridged: nowhere:x: malformed URL or unknown scheme\n");
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
