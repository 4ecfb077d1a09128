// Deciding among users, for thousands of rule sets and orders of users, against the same rules put another way: each
// user's verdict follows from its own priority and those of its two neighbours alone. A failure names the seed and the
// round.
#include <map>
#include <optional>
#include <random>
#include <set>

#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;

// ---- the rules, put another way

struct decision {
    std::vector<int32_t> results;
    size_t winner;
};

bool beaten(const std::vector<int32_t> &priorities, size_t at)
{
    return at + 1 < priorities.size() && priorities[at + 1] > priorities[at];
}

bool beats(const std::vector<int32_t> &priorities, size_t at) { return at == 0 || priorities[at] > priorities[at - 1]; }

// Whoever has a successor has lost to it or won; the last one has won if it beat its predecessor. The winner is the last
// one who beat a predecessor, or the first.
decision decided(const std::vector<int32_t> &priorities)
{
    decision made{{}, 0};
    for (size_t at = 0; at < priorities.size(); ++at) {
        const bool last = at + 1 == priorities.size();
        const bool wins = last ? beats(priorities, at) : !beaten(priorities, at);
        made.results.push_back(wins ? success : fail_priority);
        if (beats(priorities, at))
            made.winner = at;
    }
    return made;
}

// ---- random rule sets

struct rule_key {
    std::string user;
    int32_t evlan;
    int32_t priority;
    auto operator<=>(const rule_key &) const = default;
};

// A stored item as it should be.
struct expected_item {
    sw_ematch_item *stored;
    uint32_t db;
    int32_t current_result;
    int32_t final_result;
};

class run
{
  public:
    explicit run(uint32_t seed) : random_(seed) {}

    // Some users more, some rules of theirs, decisions on each key with another one's words, and all rules away again.
    void round()
    {
        if (users_.empty() || one_in(8))
            add_user_of_any_name();
        give_rules();
        for (int32_t turn = 0; turn < 4; ++turn)
            decide_key(number(1, 3));
        remove_some_rules();
        decide_key(number(1, 3));
        remove_all_rules();
    }

    size_t decisions() const { return decisions_; }
    size_t with_several_winners() const { return several_winners_; }
    size_t against_the_highest() const { return against_the_highest_; }
    size_t published() const { return published_; }
    size_t orders() const { return orders_.size(); }

  private:
    int32_t number(int32_t low, int32_t high)
    {
        return low + static_cast<int32_t>(random_() % static_cast<uint32_t>(high - low + 1));
    }
    bool one_in(int32_t n) { return number(1, n) == 1; }

    int32_t any_priority()
    {
        static constexpr int32_t outside[] = {-1, 8, 9, INT32_MIN, INT32_MAX};
        return one_in(12) ? outside[number(0, 4)] : number(0, 7);
    }

    // Names decide where users stand in the registry; each new one may move the others, too.
    void add_user_of_any_name()
    {
        std::string name(static_cast<size_t>(number(1, 31)), '\0');
        for (char &letter : name)
            letter = static_cast<char>(number('a', 'z'));
        ASSERT_EQ(sw_ebridge_match_db_init(0, name.c_str()), 0);
        users_ = registry_order();
    }

    void give_rules()
    {
        const int32_t share = number(1, 5);
        for (const std::string &user : users_) {
            for (int32_t evlan = 1; evlan <= 3; ++evlan) {
                if (!one_in(share))
                    continue;
                for (int32_t rules = one_in(3) ? number(2, 4) : 1; rules > 0; --rules)
                    give_rule({user, evlan, any_priority()});
            }
        }
    }

    void give_rule(const rule_key &key)
    {
        sw_ematch_item item = converted(*record_of(key));
        item.mom_db = next_db_++;
        item.current_result = number(success, fail_hw_hash);
        item.final_result = number(success, fail_hw_hash);
        sw_ematch_item *stored = sw_ematch_db_hash_insert_item(key.user.c_str(), &item);
        ASSERT_NE(stored, nullptr);
        items_[key] = {stored, item.mom_db, item.current_result, item.final_result};
    }

    static std::unique_ptr<rule> record_of(const rule_key &key)
    {
        auto record = std::make_unique<rule>(key.user.c_str());
        record->with_evlan(key.evlan).with_priority(key.priority);
        return record;
    }

    void remove_some_rules()
    {
        for (auto at = items_.begin(); at != items_.end();) {
            const auto next = std::next(at);
            if (one_in(3))
                remove_rule(at);
            at = next;
        }
    }

    void remove_all_rules()
    {
        while (!items_.empty())
            remove_rule(items_.begin());
        EXPECT_EQ(sw_ematch_item_hash_size(0), 0u);
    }

    void remove_rule(std::map<rule_key, expected_item>::iterator at)
    {
        EXPECT_EQ(sw_ematch_db_hash_del_item(at->first.user.c_str(), index_of(*record_of(at->first))), 0);
        items_.erase(at);
    }

    // The rule with which a user takes part: its highest within the range, else the one of the priority asked with.
    std::optional<rule_key> rule_of(const std::string &user, int32_t evlan, int32_t asked) const
    {
        std::optional<rule_key> found;
        for (const auto &[key, item] : items_) {
            const bool in_range = key.priority >= 0 && key.priority <= 7;
            if (key.user == user && key.evlan == evlan && (in_range || (!found && key.priority == asked)))
                if (!found || in_range)
                    found = key;
        }
        return found;
    }

    void decide_key(int32_t evlan)
    {
        const rule_key asked = {users_[static_cast<size_t>(number(0, static_cast<int32_t>(users_.size()) - 1))], evlan,
                                any_priority()};
        std::vector<rule_key> taking_part;
        std::vector<int32_t> priorities;
        for (const std::string &user : users_) {
            if (const auto found = rule_of(user, evlan, asked.priority)) {
                taking_part.push_back(*found);
                priorities.push_back(found->priority);
            }
        }
        const bool publish = one_in(2);
        recording::reset();
        const sw_ematch_item *best =
            sw_ematch_calc_final_values(recording::other_handle(), index_of(*record_of(asked)), publish ? 1 : 0);
        expect(taking_part, decided(priorities), publish, best);
        count(priorities, decided(priorities));
        orders_.insert(users_);
    }

    void expect(const std::vector<rule_key> &taking_part, const decision &wanted, bool publish,
                const sw_ematch_item *best)
    {
        ASSERT_EQ(best == nullptr, taking_part.empty());
        strings writes;
        for (size_t at = 0; at < taking_part.size(); ++at) {
            expected_item &item = items_.at(taking_part[at]);
            if (at == wanted.winner)
                expect_winner(*best, taking_part[at], item);
            item.final_result = wanted.results[at];
            if (!publish)
                continue;
            item.current_result = wanted.results[at];
            writes.push_back(write_of(taking_part[at], item));
        }
        strings made;
        for (const recording::call &call : recording::calls())
            made.push_back(call_text(call));
        EXPECT_EQ(made, writes);
        for (const auto &[key, item] : items_) {
            EXPECT_EQ(item.stored->final_result, item.final_result) << key.user << " " << key.priority;
            EXPECT_EQ(item.stored->current_result, item.current_result) << key.user << " " << key.priority;
        }
        published_ += writes.size();
    }

    static std::string write_of(const rule_key &key, const expected_item &item)
    {
        const auto record = record_of(key);
        record->with_mac(bytes(6)).with_mask(bytes(6)).with_v4(0);
        record->entry.result = static_cast<UBridge__MatchResult>(item.current_result);
        return format("qz_mom_hmupdate %u ", item.db) + record->rendered();
    }

    static void expect_winner(const sw_ematch_item &best, const rule_key &key, const expected_item &item)
    {
        EXPECT_EQ(name_of(best), key.user);
        EXPECT_EQ(best.match_priority, key.priority);
        EXPECT_EQ(best.evlan1, key.evlan);
        EXPECT_EQ(best.mom_db, item.db);
        EXPECT_EQ(best.current_result, item.current_result);
        EXPECT_EQ(best.final_result, success);
    }

    // What makes the rule sets worth their number.
    void count(const std::vector<int32_t> &priorities, const decision &made)
    {
        if (priorities.empty())
            return;
        ++decisions_;
        several_winners_ += std::count(made.results.begin(), made.results.end(), success) > 1 ? 1 : 0;
        const int32_t highest = *std::max_element(priorities.begin(), priorities.end());
        against_the_highest_ += priorities[made.winner] < highest ? 1 : 0;
    }

    std::mt19937 random_;
    strings users_;
    std::map<rule_key, expected_item> items_;
    uint32_t next_db_ = 1;
    size_t decisions_ = 0, several_winners_ = 0, against_the_highest_ = 0, published_ = 0;
    std::set<strings> orders_;
};

class EmatchDecisionAtRandom : public EmatchTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EmatchDecisionAtRandom, FollowsFromThePrioritiesOfNeighbours)
{
    run one(GetParam());
    for (uint32_t round = 0; round < 300; ++round) {
        SCOPED_TRACE(testing::Message() << "seed " << GetParam() << ", round " << round);
        one.round();
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_GT(one.decisions(), 1000u);
    EXPECT_GT(one.published(), 1000u);
    EXPECT_GT(one.with_several_winners(), 300u);
    EXPECT_GT(one.against_the_highest(), 300u);
    EXPECT_GT(one.orders(), 20u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, EmatchDecisionAtRandom, testing::Range(1u, 9u));

}  // namespace
