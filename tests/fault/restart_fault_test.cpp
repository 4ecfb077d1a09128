// "ebridge run --restart" while its users are killed and its server is lost at bad moments: a wanted record is never
// deleted, and after the next restart nothing unwanted is left.
//
// The moments follow from a seed; EBRIDGE_FAULT_SEED is another one.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <random>
#include <thread>

#include "child.hpp"
#include "store_view.hpp"

using namespace road;
namespace
{

const std::string LEAF = std::string(EXAMPLES_DIR) + "/leaf.json";
const std::vector<std::string> WITHOUT{"PORT|Ethernet3", "VLAN|Vlan10", "VXLAN_TUNNEL_MAP|vtep|map_5101_Vlan101"};
constexpr size_t UNWANTED = 4;  // sessions; as many attribute records

class RestartFault : public testing::Test
{
  protected:
    RestartFault()
    {
        EXPECT_TRUE(service.wait_for_error_text("serving"));
        const outcome seen = run(command({"--users", "2", LEAF}));
        EXPECT_EQ(seen.status, 0) << seen.err;
        const outcome clean = run(restart({"--delete-now"}));
        EXPECT_EQ(clean.status, 0) << clean.err;
        wanted_sessions = read_store(redis, 4, "_session");
        wanted_attributes = read_store(redis, 8);
        RecordProperty("seed", static_cast<int>(seed));
    }

    std::vector<std::string> command(const std::vector<std::string> &arguments) const
    {
        std::vector<std::string> all{EBRIDGE_PROGRAM, "run", "--store", redis.url()};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return all;
    }
    std::vector<std::string> restart(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.end(), {"--users", "2", "--restart"});
        for (const std::string &entry : WITHOUT)
            arguments.insert(arguments.end(), {"--without", entry});
        arguments.push_back(LEAF);
        return command(arguments);
    }

    uint32_t draw(uint32_t from, uint32_t to) { return std::uniform_int_distribution<uint32_t>(from, to)(random); }
    void pause() { std::this_thread::sleep_for(std::chrono::microseconds(draw(0, 20'000))); }

    // Everything wanted is there under the id that it has always had.
    void expect_the_wanted(const char *when) const
    {
        const store_view sessions = read_store(redis, 4, "_session");
        for (const auto &[key, reply] : wanted_sessions) {
            ASSERT_TRUE(sessions.contains(key)) << key << ' ' << when << ", seed " << seed;
            EXPECT_EQ(sessions.at(key), reply) << key << ' ' << when << ", seed " << seed;
        }
        const store_view attributes = read_store(redis, 8);
        for (const auto &[key, ignored] : wanted_attributes)
            EXPECT_TRUE(attributes.contains(key)) << key << ' ' << when << ", seed " << seed;
    }
    void expect_nothing_else() const
    {
        EXPECT_EQ(read_store(redis, 4, "_session"), wanted_sessions) << "seed " << seed;
        EXPECT_EQ(read_store(redis, 8), wanted_attributes) << "seed " << seed;
        EXPECT_EQ(marks(redis, 4), ":0");
        EXPECT_EQ(marks(redis, 8), ":0");
    }
    // The restart after one that was cut off puts everything right.
    void expect_the_next_one_to_converge() const
    {
        expect_the_wanted("after the kill");
        const outcome seen = run(restart({"--delete-now"}));
        EXPECT_EQ(seen.status, 0) << seen.err << "seed " << seed;
        expect_the_wanted("after the next restart");
        expect_nothing_else();
    }
    // Kills a user of the second life once the command has said this.
    void kill_after(const char *phase, std::vector<std::string> arguments)
    {
        child running(restart(std::move(arguments)), true);
        ASSERT_TRUE(running.wait_for_error_text(phase));
        pause();
        const pid_t victim = running.own_child(draw(1, 2) == 1 ? "ebridge_run_1" : "ebridge_run_2");
        if (victim > 0)  // otherwise it was faster
            kill(victim, SIGKILL);
        running.signal(SIGKILL);
        running.finish();
    }
    // The server is lost, and comes back, once the command has said this: the command gets through all the same.
    void lose_the_server_after(const char *phase, std::vector<std::string> arguments)
    {
        child running(restart(std::move(arguments)), true);
        ASSERT_TRUE(running.wait_for_error_text(phase));
        redis.kill();
        pause();
        redis.start();
        const outcome seen = running.finish();
        EXPECT_EQ(seen.status, 0) << seen.err << "seed " << seed;
        expect_the_wanted("after the loss");
        expect_nothing_else();
    }

    support::redis_server redis;
    child service{{EBRIDGED_PROGRAM, "--store", redis.url()}};
    store_view wanted_sessions;
    store_view wanted_attributes;
    const uint32_t seed = std::getenv("EBRIDGE_FAULT_SEED")
                              ? static_cast<uint32_t>(std::strtoul(std::getenv("EBRIDGE_FAULT_SEED"), nullptr, 10))
                              : 1;
    std::minstd_rand random{seed};
};

}  // namespace

TEST_F(RestartFault, UsersThatAreKilledWhileTheyMark)
{
    for (int i = 0; i < 4; ++i) {
        kill_after("answered", {"--delete-now"});
        expect_the_next_one_to_converge();
    }
}

TEST_F(RestartFault, UsersThatAreKilledWhileTheyRefresh)
{
    for (int i = 0; i < 4; ++i) {
        child running(restart({"--delete-now"}), true);
        ASSERT_TRUE(running.wait_for_error_text("marked"));
        service.signal(SIGSTOP);  // what is asked for now is not answered
        pause();
        const pid_t victim = running.own_child("ebridge_run_1");
        if (victim > 0)
            kill(victim, SIGKILL);
        service.signal(SIGCONT);
        running.finish();
        expect_the_next_one_to_converge();
    }
}

TEST_F(RestartFault, UsersThatAreKilledBetweenRefreshAndDeletion)
{
    kill_after("age timer", {});
    EXPECT_EQ(read_store(redis, 4, "_session").size(), wanted_sessions.size() + UNWANTED);
    expect_the_next_one_to_converge();
}

TEST_F(RestartFault, AServerThatIsLostDuringTheRefresh)
{
    for (int i = 0; i < 2; ++i)
        lose_the_server_after("marked", {"--delete-now"});
}

TEST_F(RestartFault, AServerThatIsLostWhileTheAgeTimerRuns) { lose_the_server_after("age timer", {}); }
