// Match rules of eight users on a real server, every user and every arbiter a process, some of which are killed, stopped
// and cut off: in the end all that was added is there, each result is as an independent restatement has it, and each user
// has heard the results of its rules.
#include <signal.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "proxy.hpp"
#include "rule_results.hpp"
#include "sw_ebridge.h"
#include "world.hpp"

namespace fault
{
namespace
{

// Each has a place of its own in a registry of these eight, so that their order does not depend on who came first.
constexpr const char *NAMES[] = {"alpha", "beta", "gamma", "delta", "eta", "iota", "kappa", "mu"};
constexpr int32_t RULES = 2000;  // of a user
constexpr int ENOUGH = 3;
constexpr int32_t KEYS = 4000;  // so that each key has four rivals

struct rule {
    std::string user;
    int32_t vlan = 0;
    int32_t priority = 0;
    auto operator<=>(const rule &) const = default;
};
using results = std::map<rule, int32_t>;

constexpr int32_t HOLDS = U_BRIDGE__MATCH_RESULT__SUCCESS;

class RuleFault : public FaultWorld
{
  protected:
    void start_users()
    {
        for (const char *name : NAMES)
            start(name);
    }
    void start(const std::string &name)
    {
        rule_users_[name].reset();
        rule_users_[name] = std::make_unique<process>(std::vector<std::string>{RULE_ACTOR_PROGRAM, url(), name},
                                                      place("rules-" + name));
    }
    process &its(const std::string &name) { return *rule_users_.at(name); }
    void tell_everyone(const std::string &command)
    {
        for (const auto &[name, each] : rule_users_)
            each->say(command);
    }
    // Half of the keys for each user, the halves of neighbours apart.
    void add_all()
    {
        for (size_t i = 0; i < std::size(NAMES); ++i)
            rule_users_.at(NAMES[i])->say("add " + std::to_string(draw(1, 1'000'000)) + ' ' + first_of(i) + ' ' +
                                          std::to_string(RULES));
    }
    // Until one of them has heard so many more.
    void wait_for_verdicts(size_t count)
    {
        const size_t before = its("alpha").count("\nverdict ");
        ASSERT_TRUE(wait_until([&] { return its("alpha").count("\nverdict ") >= before + count; }));
    }
    static std::string first_of(size_t user) { return std::to_string(user % 2 == 0 ? 1 : 1 + KEYS / 2); }

    // What the user has, by its own words; and what it was told last of these rules since it added them.
    struct view {
        std::set<rule> rules;
        results heard;
    };
    view view_of(const std::string &name) const
    {
        view made;
        std::istringstream all(rule_users_.at(name)->words());
        rule of{name};
        for (std::string line; std::getline(all, line);) {
            std::istringstream words(line);
            std::string what;
            int32_t result = 0;
            words >> what >> of.vlan >> of.priority >> result;
            if (what == "added") {
                made.rules.insert(of);
                made.heard.erase(of);
            } else if (what == "dropped") {
                made.rules.erase(of);
                made.heard.erase(of);
            } else if (what == "verdict") {
                made.heard[of] = result;
            } else if (what == "error") {
                ADD_FAILURE() << name << ": a call failed: " << of.vlan;
            }
        }
        return made;
    }

    // What the records say.
    results read_rules() const
    {
        results found;
        UBridge__EmatchIndex index = U_BRIDGE__EMATCH_INDEX__INIT;
        UBridge__EmatchEntry all = U_BRIDGE__EMATCH_ENTRY__INIT;
        all.index = &index;
        read_records(SW_EBRIDGE_APP_DB, all.base, [&found](const qz_mom_notification &msg) {
            const auto &entry = *reinterpret_cast<const UBridge__EmatchEntry *>(
                static_cast<const qz_mom_hash_value *>(msg.value)->record);
            found[{entry.index->t_user, entry.index->evlan1, entry.index->match_priority}] =
                static_cast<int32_t>(entry.result);
        });
        return found;
    }

    // Of a rule that was added while nobody decided, or written again while the server was away, its user hears only
    // when its record says something else.
    enum class hearing { everything, what_differs };
    // What is wrong with them, so many of a kind as are enough to see it.
    std::vector<std::string> faults(hearing hears) const
    {
        std::vector<std::string> wrong;
        std::map<std::string, int> times;
        const auto note = [&](const rule &of, const std::string &what) {
            if (++times[what] <= ENOUGH)
                wrong.push_back(of.user + " VLAN " + std::to_string(of.vlan) + " priority " +
                                std::to_string(of.priority) + ": " + what);
        };
        const results found = read_rules();
        results right = found;
        decide(&right);
        std::set<rule> wanted;
        for (const auto &[name, each] : rule_users_) {
            const view its = view_of(name);
            wanted.insert(its.rules.begin(), its.rules.end());
            for (const auto &[of, result] : its.heard)
                if (found.contains(of) && found.at(of) != result)
                    note(of, "its user has heard another result");
            for (const rule &of : its.rules)
                if (!its.heard.contains(of) && hears == hearing::everything)
                    note(of, "its user has not heard the result");
        }
        for (const rule &of : wanted)
            if (!found.contains(of))
                note(of, "was added and is not there");
        for (const auto &[of, result] : found) {
            if (!wanted.contains(of))
                note(of, "is there and was dropped");
            if (right.at(of) != result)
                note(of, "has a wrong result");
        }
        for (const auto &[what, count] : times)
            wrong.push_back(std::to_string(count) + " times: " + what);
        return wrong;
    }
    void expect_all_decided(hearing hears = hearing::everything)
    {
        const std::string number = std::to_string(++asked_);
        tell_everyone("ask " + number);
        for (const auto &each : rule_users_)
            ASSERT_TRUE(wait_until([&] { return each.second->count("\ndone " + number + " 0 0\n") == 1; }))
                << each.first;
        std::vector<std::string> wrong;
        wait_until(
            [&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                wrong = faults(hears);
                return wrong.empty();
            },
            30);
        for (const std::string &each : wrong)
            ADD_FAILURE() << each << ", seed " << seed();
    }

  private:
    // As they should be.
    static void decide(results *all)
    {
        for (const char *name : NAMES)
            sw_ebridge_match_db_init(0, name);
        std::map<int32_t, std::vector<std::pair<rule, int32_t *>>> keys;
        for (const std::string &user : support::users_in_order())
            for (auto &[of, result] : *all)
                if (of.user == user)
                    keys[of.vlan].emplace_back(of, &result);
        for (const auto &[vlan, rivals] : keys) {
            std::vector<int32_t> priorities;
            for (const auto &[of, result] : rivals)
                priorities.push_back(of.priority);
            const std::vector<int32_t> right = support::results_of(priorities);
            auto next = right.begin();
            for (const auto &[of, result] : rivals)
                *result = *next++;
        }
    }

  protected:
    std::map<std::string, std::unique_ptr<process>> rule_users_;

  private:
    int asked_ = 0;
};

TEST_F(RuleFault, AKilledUsersRulesAgeOutAndTheLosersWin)
{
    start_service();
    start_users();
    add_all();
    expect_all_decided();
    EXPECT_EQ(read_rules().size(), std::size(NAMES) * RULES);
    const view alpha = view_of("alpha");
    rule_users_.at("gamma")->kill();
    rule_users_.erase("gamma");
    its("beta").say("age gamma 2");
    expect_all_decided();
    EXPECT_EQ(read_rules().size(), (std::size(NAMES) - 1) * RULES);
    const view later = view_of("alpha");
    const auto wins_now = [&](const auto &before) {
        return before.second != HOLDS && later.heard.at(before.first) == HOLDS;
    };
    EXPECT_GT(std::ranges::count_if(alpha.heard, wins_now), 0);
}

// The one that stands by reads what there is, and writes only what is not as it should be.
TEST_F(RuleFault, ArbitersThatAreKilledInTheMiddleOfABurst)
{
    process *serving = &start_service();
    process *next = &start_service();
    start_users();
    for (int life = 0; life < 4; ++life) {
        add_all();
        wait_for_verdicts(draw(10, 1500));
        serving->kill();
        ASSERT_TRUE(wait_until([&] { return next->count("are decided") > 0; }));
        serving = next;
        next = &start_service();
        expect_all_decided(hearing::what_differs);
    }
}

TEST_F(RuleFault, AnArbiterThatWasStoppedWritesNothingOverWhatTheNextOneDecides)
{
    process *serving = &start_service();
    process *next = &start_service();
    start_users();
    for (int turn = 0; turn < 3; ++turn) {
        const size_t before = next->count("are decided");
        add_all();
        wait_for_verdicts(draw(10, 500));
        serving->signal(SIGSTOP);
        ASSERT_TRUE(wait_until([&] { return next->count("are decided") > before; }));
        serving->signal(SIGCONT);
        expect_all_decided(hearing::what_differs);
        std::swap(serving, next);
    }
}

TEST_F(RuleFault, AServerThatIsKilledAndComesBackWithItsData)
{
    start_service();
    start_users();
    for (int life = 0; life < 3; ++life) {
        add_all();
        wait_for_verdicts(draw(10, 500));
        redis_.kill();
        redis_.start();
        expect_all_decided(hearing::what_differs);
    }
}

// Who has rules there adds them again, as it does when it restarts.
TEST_F(RuleFault, AServerThatComesBackWithoutItsData)
{
    start_service();
    start_users();
    add_all();
    expect_all_decided(hearing::what_differs);
    redis_.kill();
    redis_.forget();
    redis_.start();
    tell_everyone("again");
    expect_all_decided(hearing::what_differs);
    EXPECT_EQ(read_rules().size(), std::size(NAMES) * RULES);
}

TEST_F(RuleFault, ConnectionsThatStallAndBreakInTheMiddleOfReplies)
{
    proxy bad_line(place("line"), redis_.socket(), seed(), 1'000'000);
    connect_through(bad_line.url());
    start_service();
    start_service();
    start_users();
    for (int life = 0; life < 3; ++life) {
        add_all();
        tell_everyone("drop " + std::to_string(draw(1, KEYS)) + " 300");
        wait_for_verdicts(100);
    }
    bad_line.calm();
    EXPECT_LT(0u, bad_line.delays());
    EXPECT_LT(0u, bad_line.closings());
    expect_all_decided(hearing::what_differs);
}

}  // namespace
}  // namespace fault
