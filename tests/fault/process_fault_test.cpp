// Users, allocators and the store's server as processes, and what is left of their agreement when they are killed,
// stopped, emptied and cut off in the middle of their work: the ledger is clean.
//
// The moments are drawn from a seed and counted in grants heard. EBRIDGE_FAULT_SEED runs the tests with other moments,
// and EBRIDGE_FAULT_KEEP keeps what the processes of a failed test have written.
#include <signal.h>

#include <functional>
#include <thread>

#include "proxy.hpp"
#include "world.hpp"

namespace fault
{
namespace
{

constexpr uint32_t REQUESTS = 10'000;

class ProcessFault : public FaultWorld
{
  protected:
    // Two users that hear of themselves alone, one that hears of all, and one that does nothing but listen.
    void start_users()
    {
        start_user("alpha", OWN);
        start_user("beta", OWN);
        start_user("gamma", ALL);
        start_user("delta", ALL);
    }

    // 10,000 requests, with as many releases, of own and of shared keys.
    void start_requests()
    {
        churn("alpha", REQUESTS * 4 / 10, 10'000);
        churn("beta", REQUESTS * 4 / 10, 20'000);
        churn("gamma", REQUESTS * 2 / 10, 30'000);
    }

    void churn(const std::string &name, uint32_t requests, uint32_t first_key)
    {
        user(name).say("churn " + std::to_string(draw(1, 1'000'000)) + ' ' + std::to_string(requests) + ' ' +
                       std::to_string(first_key) + " 900 100");
    }

    // Does it so often while the 10,000 requests are made, each time after some more grants.
    void during_requests(int times, const std::function<void()> &fault)
    {
        start_requests();
        const uint32_t piece = REQUESTS / static_cast<uint32_t>(times);
        for (int i = 0; i < times; ++i) {
            wait_for_grants(grants() + draw(piece / 4, piece));
            fault();
            if (HasFatalFailure())
                return;
        }
        wait_until_idle();
    }
};

TEST_F(ProcessFault, AServerThatIsKilledAndComesBackWithItsData)
{
    start_service();
    start_users();
    during_requests(4, [this] {
        redis_.kill();
        redis_.start();
    });
    expect_the_ledger_to_be_clean({.changes_merged = true});
}

// A request that the store lost before anybody heard of it stays unanswered, so users ask again.
TEST_F(ProcessFault, AServerThatComesBackWithoutItsData)
{
    start_service();
    start_users();
    start_requests();
    const auto ask_again = [this] { tell_all("again"); };
    for (int i = 0; i < 3; ++i) {
        wait_for_grants(grants() + draw(500, 2000), ask_again);
        redis_.kill();
        redis_.forget();
        redis_.start();
    }
    wait_until_idle(ask_again);
    expect_the_ledger_to_be_clean({.data_lost = true});
}

// The allocator has lost its lock with the data, and the store is gone again before it has asked for it anew.
TEST_F(ProcessFault, AServerThatIsLostAgainAndAgainLeavesAnAllocatorThatServes)
{
    start_service();
    start_user("alpha", OWN);
    for (int i = 0; i < 15; ++i) {
        redis_.kill();
        redis_.forget();
        redis_.start();
        std::this_thread::sleep_for(std::chrono::milliseconds(draw(1, 60)));
    }
    user("alpha").say("want evlan 32 1 50");
    user("alpha").say("want eport 48 1 50");
    wait_until_idle([this] { tell_all("again"); });
    expect_the_ledger_to_be_clean({.data_lost = true});
}

TEST_F(ProcessFault, AServerThatIsStoppedForFiveSeconds)
{
    start_service();
    start_users();
    during_requests(1, [this] {
        redis_.signal(SIGSTOP);
        std::this_thread::sleep_for(std::chrono::seconds(5));
        redis_.signal(SIGCONT);
    });
    expect_the_ledger_to_be_clean({.changes_merged = true});
}

TEST_F(ProcessFault, ConnectionsThatStallAndBreakInTheMiddleOfReplies)
{
    proxy bad_line(place("line"), redis_.socket(), seed(), 200'000);
    connect_through(bad_line.url());
    start_service();
    start_service();
    start_users();
    start_requests();
    wait_until_idle();
    bad_line.calm();
    EXPECT_LT(0u, bad_line.delays());
    EXPECT_LT(0u, bad_line.closings());
    expect_the_ledger_to_be_clean({.changes_merged = true});
}

TEST_F(ProcessFault, AllocatorsThatAreKilledWhileTheyServe)
{
    process *serving = &start_service();
    process *next = &start_service();
    start_users();
    during_requests(5, [&] {
        serving->kill();
        ASSERT_TRUE(wait_until([&] { return next->count("serving, ") > 0; }));
        serving = next;
        next = &start_service();
    });
    expect_the_ledger_to_be_clean();
}

TEST_F(ProcessFault, AllocatorsThatAreStoppedAndGoOnWhileAnotherServes)
{
    process *serving = &start_service();
    process *next = &start_service();
    start_users();
    during_requests(4, [&] {
        const size_t before = next->count("serving, ");
        serving->signal(SIGSTOP);
        ASSERT_TRUE(wait_until([&] { return next->count("serving, ") > before; }));
        serving->signal(SIGCONT);
        std::swap(serving, next);
    });
    expect_the_ledger_to_be_clean();
}

// Each life asks for the same keys. The first word that it hears of each is the id that an earlier life was given.
TEST_F(ProcessFault, AnApplicationThatIsKilledFindsItsIdsAgain)
{
    start_service();
    start_user("delta", ALL);
    start_user("beta", OWN);
    churn("beta", 5000, 20'000);
    for (int life = 0; life < 6; ++life) {
        process &alpha = start_user("alpha", OWN);
        const size_t heard = alpha.count("\ngranted alpha ");
        alpha.say("want evlan 32 10000 800");
        alpha.say("want eport 48 10000 700");
        alpha.say("want evlan 16 1 250");
        alpha.say("want eport 16 1 250");
        if (life == 5)
            break;
        const size_t enough = heard + draw(100, 1500);
        ASSERT_TRUE(wait_until([&] { return alpha.count("\ngranted alpha ") >= enough; }));
        alpha.kill();
    }
    wait_until_idle();
    // A life that asks for nothing finds all of them.
    user("alpha").kill();
    start_user("alpha", OWN);
    expect_the_ledger_to_be_clean();
}

TEST_F(ProcessFault, AFollowerThatIsStoppedWhileAHundredThousandRecordsChange)
{
    start_service();
    start_user("alpha", OWN);
    start_user("delta", ALL);
    user("alpha").say("want evlan 32 10000 5000");
    wait_until_idle();
    const auto begun = std::chrono::steady_clock::now();
    user("delta").signal(SIGSTOP);
    // Kept, removed, and removed and requested again.
    user("alpha").say("want evlan 32 20000 60000");
    user("alpha").say("drop evlan 32 11000 2000");
    user("alpha").say("drop evlan 32 30000 23000");
    user("alpha").say("want evlan 32 30000 15000");
    ASSERT_TRUE(wait_until([&] { return user("alpha").count("\ngranted ") >= 80000; }));
    std::this_thread::sleep_until(begun + std::chrono::seconds(20));
    user("delta").signal(SIGCONT);
    expect_the_ledger_to_be_clean({.changes_merged = true});
}

}  // namespace
}  // namespace fault
