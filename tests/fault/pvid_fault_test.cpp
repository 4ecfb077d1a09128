// Default VLANs of four users on a real server, every user and every resolver a process, some of which are killed,
// stopped and cut off: each user hears each change once, in order, with the pvid before it, and in the end what they
// have heard, their caches and the tables of both databases are what was set last.
#include <signal.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "proxy.hpp"
#include "sw_ebridge.h"
#include "world.hpp"

namespace fault
{
namespace
{

constexpr const char *NAMES[] = {"alpha", "beta", "gamma", "delta"};
constexpr int32_t PORTS = 64;
constexpr size_t ENOUGH = 10;
constexpr uint32_t PORT_ID = 0x10000000;

using pvids = std::map<int32_t, int32_t>;  // by port

class PvidFault : public FaultWorld
{
  protected:
    void start_users()
    {
        for (const char *name : NAMES)
            start(name);
    }
    void start(const std::string &name)
    {
        pvid_users_[name].reset();
        pvid_users_[name] = std::make_unique<process>(
            std::vector<std::string>{PVID_ACTOR_PROGRAM, url(), name, std::to_string(PORTS)}, place("pvids-" + name));
        const size_t life = ++lives_[name];
        ASSERT_TRUE(wait_until([&] { return its(name).count("follows 0") == life; })) << its(name).words();
    }
    // Serves, or will when it is its turn.
    process &start_resolver() { return start_service(); }
    static size_t lives(const process &resolver) { return resolver.count("ports are set"); }
    process &its(const std::string &name) const { return *pvid_users_.at(name); }
    void tell_everyone(const std::string &command) const
    {
        for (const auto &[name, each] : pvid_users_)
            each->say(command);
    }
    void churn_all(int count)
    {
        heard_before_ = its("alpha").count("\nheard ");
        for (const auto &[name, each] : pvid_users_)
            each->say("churn " + std::to_string(draw(1, 1'000'000)) + ' ' + std::to_string(count));
    }
    // Until one of them has heard so many more than before they began: they may be done before this is asked.
    void wait_for_changes(size_t count) const
    {
        ASSERT_TRUE(wait_until([&] { return its("alpha").count("\nheard ") >= heard_before_ + count; }))
            << "heard " << its("alpha").count("\nheard ") - heard_before_ << " of " << count << ", seed " << seed();
    }
    // Until what it was told before is done, and applied.
    void wait_for(const std::string &name)
    {
        const std::string number = std::to_string(++asked_);
        its(name).say("ask " + number);
        ASSERT_TRUE(wait_until([&] { return its(name).count("\ndone " + number + ' ') == 1; })) << name;
    }

    void wait_for_all()
    {
        for (const auto &[name, each] : pvid_users_)
            wait_for(name);
    }

    // What a user says: what it has set, what its cache shows, and what it was told last of each port.
    struct view {
        pvids set;
        pvids cached;
        pvids heard;
        std::vector<std::string> wrong;
    };
    // Where a record was changed while its follower was cut off, or lost, the follower may miss the pvid before.
    enum class hearing { everything, what_is_left };
    view view_of(const std::string &name, hearing hears) const
    {
        view made;
        bool is_over = true;
        std::istringstream all(its(name).words());
        for (std::string line; std::getline(all, line);) {
            std::istringstream words(line);
            std::string what;
            int32_t port = 0, pvid = 0, old = 0;
            words >> what >> port >> pvid >> old;
            if (what == "follows") {
                made.heard = {};  // a new life
            } else if (what == "heard") {
                int32_t &last = made.heard[port];
                if (pvid == last)
                    made.wrong.push_back(std::string(name).append(" has heard twice: ").append(line));
                if (old != last && hears == hearing::everything)
                    made.wrong.push_back(std::string(name)
                                             .append(" knows ")
                                             .append(std::to_string(last))
                                             .append(" and has heard: ")
                                             .append(line));
                last = pvid;
            } else if (what == "has" || what == "cached") {
                if (std::exchange(is_over, false))
                    made.set = made.cached = {};
                if (pvid != 0)
                    (what == "has" ? made.set : made.cached)[port] = pvid;
            } else if (what == "done") {
                is_over = true;
                if (pvid != 0)
                    made.wrong.push_back(name + " cannot read its pvids");
            } else if (what == "error") {
                made.wrong.push_back(std::string(name).append(": a call failed: ").append(line));
            }
        }
        std::erase_if(made.heard, [](const auto &each) { return each.second == 0; });
        return made;
    }
    pvids table(uint32_t db) const
    {
        pvids found;
        UBridge__PortIndex index = U_BRIDGE__PORT_INDEX__INIT;
        UBridge__PvidTable all = U_BRIDGE__PVID_TABLE__INIT;
        all.index = &index;
        read_records(db, all.base, [&found](const qz_mom_notification &msg) {
            const auto &entry = *static_cast<const UBridge__PvidTable *>(msg.value);
            found[static_cast<int32_t>(static_cast<uint32_t>(entry.index->port) - PORT_ID)] = entry.new_pvid;
        });
        return found;
    }

    // What is wrong with them; `right` is null where nobody knows who was last: then of each port one counts that has it.
    std::vector<std::string> faults(const pvids *right, hearing hears)
    {
        wait_for_all();
        std::vector<std::string> wrong;
        const pvids shown = table(SW_EBRIDGE_APP_DB);
        if (table(SW_EBRIDGE_UDP_DB) != shown)
            wrong.push_back("the tables differ");
        if (right && shown != *right)
            wrong.push_back("the table is wrong");
        std::map<int32_t, std::set<int32_t>> set;
        for (const auto &[name, each] : pvid_users_) {
            const view its = view_of(name, hears);
            wrong.insert(wrong.end(), its.wrong.begin(), its.wrong.end());
            if (its.heard != shown)
                wrong.push_back(name + " has heard of another table");
            if (its.cached != shown)
                wrong.push_back(name + " has another table in its cache");
            for (const auto &[port, pvid] : its.set)
                set[port].insert(pvid);
        }
        for (const auto &[port, of] : set)
            if (!shown.contains(port) || !of.contains(shown.at(port)))
                wrong.push_back("port " + std::to_string(port) + ": no pvid of a user counts");
        if (shown.size() != set.size())
            wrong.push_back("a pvid counts that nobody has set");
        return wrong;
    }
    void expect_no_faults(const pvids *right = nullptr, hearing hears = hearing::everything)
    {
        std::vector<std::string> wrong;
        wait_until(
            [&] {
                wrong = faults(right, hears);
                return wrong.empty();
            },
            20);
        for (size_t i = 0; i < std::min(wrong.size(), ENOUGH); ++i)
            ADD_FAILURE() << wrong[i] << ", seed " << seed();
    }

    // Faults are over: all set all ports, one after the other; then each lets go, the last one first, then the first.
    void expect_that_the_last_one_wins(hearing hears = hearing::everything)
    {
        std::vector<std::pair<std::string, pvids>> order;
        for (const auto &[name, each] : pvid_users_)
            order.insert(order.begin() + draw(0, static_cast<uint32_t>(order.size())), {name, {}});
        int32_t first = static_cast<int32_t>(draw(1, 100));
        for (auto &[name, all] : order) {
            its(name).say("set " + std::to_string(first += PORTS + 1));
            for (int32_t port = 1; port <= PORTS; ++port)
                all[port] = first + port;
            wait_for(name);
        }
        expect_no_faults(&order.back().second, hears);
        for (bool last = true; !order.empty(); last = false) {
            const auto gone = last ? std::prev(order.end()) : order.begin();
            const std::string name = gone->first;
            order.erase(gone);
            its(name).say("drop");
            wait_for(name);
            const pvids none;
            expect_no_faults(order.empty() ? &none : &order.back().second, hears);
        }
    }

    std::map<std::string, std::unique_ptr<process>> pvid_users_;

  private:
    std::map<std::string, size_t> lives_;
    size_t heard_before_ = 0;  // by one of them, when they began to change things
    int asked_ = 0;
};

TEST_F(PvidFault, UsersHearEachChangeOnceAndInOrder)
{
    start_resolver();
    start_users();
    churn_all(500);
    expect_no_faults();
    EXPECT_GT(its("alpha").count("\nheard "), 500U);
    expect_that_the_last_one_wins();
}

TEST_F(PvidFault, AKilledUsersPvidsAgeOutAndThoseBeforeItCount)
{
    start_resolver();
    start_users();
    churn_all(100);
    expect_no_faults();
    its("gamma").kill();
    pvid_users_.erase("gamma");
    its("beta").say("age gamma 2");
    wait_for("beta");
    expect_no_faults();
    expect_that_the_last_one_wins();
}

// It hears of what it finds as of changes; what they were changes of it has not heard.
TEST_F(PvidFault, AUserThatIsKilledAndComesBackReadsTheTable)
{
    start_resolver();
    start_users();
    churn_all(100);
    expect_no_faults();
    its("gamma").kill();
    its("beta").say("set 1000");
    wait_for("beta");
    start("gamma");
    its("gamma").say("read");
    its("beta").say("age gamma 0");
    expect_no_faults(nullptr, hearing::what_is_left);
    expect_that_the_last_one_wins(hearing::what_is_left);
}

// The one that stands by reads what there is, and writes only what is not as it should be.
TEST_F(PvidFault, ResolversThatAreKilledWhileUsersSetPvids)
{
    process *serving = &start_resolver();
    process *next = &start_resolver();
    start_users();
    for (int life = 0; life < 4; ++life) {
        churn_all(400);
        wait_for_changes(draw(10, 300));
        serving->kill();
        ASSERT_TRUE(wait_until([&] { return lives(*next) > 0; }));
        serving = next;
        next = &start_resolver();
        expect_no_faults();
    }
    expect_that_the_last_one_wins();
}

// One after the other, between the end of one resolver and the turn of the next, which has heard them.
TEST_F(PvidFault, TheOrderOfPvidsThatAreSetWhileAResolverIsGoneIsKeptByTheOneThatStandsBy)
{
    process *serving = &start_resolver();
    process *next = &start_resolver();
    start_users();
    churn_all(50);
    expect_no_faults();
    for (int life = 0; life < 3; ++life) {
        ASSERT_TRUE(wait_until([&] { return next->count("ports are read") > 0; })) << next->words();
        serving->kill();
        std::vector<std::string> order(std::begin(NAMES), std::end(NAMES));
        pvids last;
        while (!order.empty()) {
            const auto at = order.begin() + draw(0, static_cast<uint32_t>(order.size()) - 1);
            const int32_t first = static_cast<int32_t>(draw(1, 4000));
            its(*at).say("set " + std::to_string(first));
            wait_for(*at);
            order.erase(at);
            for (int32_t port = 1; port <= PORTS; ++port)
                last[port] = first + port;
        }
        expect_no_faults(&last);
        serving = next;
        next = &start_resolver();
    }
}

TEST_F(PvidFault, PvidsThatChangeWhileNoResolverRuns)
{
    process *serving = &start_resolver();
    start_users();
    for (int life = 0; life < 3; ++life) {
        churn_all(100);
        expect_no_faults();
        serving->kill();
        churn_all(100);
        wait_for_all();
        const size_t before = its("alpha").count("\nheard ");
        serving = &start_resolver();
        expect_no_faults();
        EXPECT_LE(its("alpha").count("\nheard ") - before, static_cast<size_t>(PORTS)) << "more than one for a port";
    }
    expect_that_the_last_one_wins();
}

TEST_F(PvidFault, AResolverThatWasStoppedWritesNothingOverWhatTheNextOneWrites)
{
    process *serving = &start_resolver();
    process *next = &start_resolver();
    start_users();
    for (int turn = 0; turn < 3; ++turn) {
        const size_t before = lives(*next);
        churn_all(400);
        wait_for_changes(draw(10, 300));
        serving->signal(SIGSTOP);
        ASSERT_TRUE(wait_until([&] { return lives(*next) > before; }));
        serving->signal(SIGCONT);
        expect_no_faults();
        std::swap(serving, next);
    }
    expect_that_the_last_one_wins();
}

TEST_F(PvidFault, AServerThatIsKilledAndComesBackWithItsData)
{
    start_resolver();
    start_users();
    for (int life = 0; life < 3; ++life) {
        churn_all(400);
        wait_for_changes(draw(10, 300));
        redis_.kill();
        redis_.start();
        expect_no_faults();
    }
    expect_that_the_last_one_wins();
}

// Who has pvids there sets them again, as it does when it restarts.
TEST_F(PvidFault, AServerThatComesBackWithoutItsData)
{
    start_resolver();
    start_users();
    churn_all(100);
    expect_no_faults();
    redis_.kill();
    redis_.forget();
    redis_.start();
    expect_no_faults();
    EXPECT_TRUE(table(SW_EBRIDGE_APP_DB).empty());
    tell_everyone("again");
    expect_no_faults();
    EXPECT_FALSE(table(SW_EBRIDGE_APP_DB).empty());
    expect_that_the_last_one_wins();
}

// How many changes there are nobody knows: of all that was set while the resolver was cut off one is left for each port.
TEST_F(PvidFault, ConnectionsThatStallAndBreakInTheMiddleOfReplies)
{
    proxy bad_line(place("line"), redis_.socket(), seed(), 100'000);
    connect_through(bad_line.url());
    start_resolver();
    start_resolver();
    start_users();
    for (int life = 0; life < 3; ++life) {
        churn_all(400);
        wait_for_all();
    }
    bad_line.calm();
    EXPECT_LT(0u, bad_line.delays());
    EXPECT_LT(0u, bad_line.closings());
    expect_no_faults(nullptr, hearing::what_is_left);
    expect_that_the_last_one_wins(hearing::what_is_left);
}

}  // namespace
}  // namespace fault
