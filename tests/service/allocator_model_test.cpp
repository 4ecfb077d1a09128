// The allocator against a plain model: long random sequences of requests, releases, range changes, restarts and time,
// each answer checked against what a list of who holds what says. For evlans, and for eports, whose keys have two numbers and of
// which some may ask for ids of another type. Once more where every call fails at its first allocation, at its second and
// so on before it gets what it needs.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "allocation_failure.hpp"
#include "allocator.hpp"

using namespace ebridged;

namespace
{

constexpr uint32_t VXLAN = 32;
constexpr uint32_t PORT = 16, LOCAL_PORT = 17, AP = 32, VXLAN_AC = 48;
constexpr int64_t REFUSED = -1;

// Types that are drawn from, and which of them may ask for ids of each other.
struct world {
    std::span<const id_type> types;
    std::vector<uint32_t> drawn;
    std::set<std::pair<uint32_t, uint32_t>> may_ask;
    uint32_t second_keys;  // how many second numbers of a key are drawn
};

const world EVLANS{evlan_types(), {VXLAN}, {}, 1};
const world EPORTS{eport_types(), {PORT, AP, VXLAN_AC, LOCAL_PORT}, {{PORT, AP}, {AP, PORT}}, 2};

// Who holds what, and when each id was freed. Everything is searched, nothing is indexed.
class model
{
  public:
    explicit model(const world &of) : world_(&of) {}

    // The numbers of a type.
    std::map<uint32_t, number_range> ranges;

    // The answer that the rules demand.
    int64_t expected(const std::string &holder, const id_key &key, uint32_t wanted, int64_t now) const
    {
        const uint32_t type = wanted >> 24;
        if (type != key.type && !world_->may_ask.contains({key.type, type}))
            return REFUSED;
        const bool any = (wanted & NUMBER_MASK) == 0;
        auto held = id_of.find(key);
        if (held != id_of.end()) {
            if (any || wanted == held->second)
                return held->second;
            const auto &who = holders.at(key);
            if (who.size() > 1 || !who.contains(holder))
                return REFUSED;
        } else if (any) {
            return lowest(type, now);
        }
        return may_give(wanted) ? int64_t{wanted} : REFUSED;
    }

    void answered(const std::string &holder, const id_key &key, int64_t id, int64_t now)
    {
        if (id == REFUSED)
            return let_go(holder, key, now);
        auto held = id_of.find(key);
        if (held != id_of.end() && held->second != id)
            freed.emplace_back(held->second, now);
        std::erase_if(freed, [&](const auto &f) { return f.first == id; });
        id_of[key] = static_cast<uint32_t>(id);
        holders[key].insert(holder);
    }

    void let_go(const std::string &holder, const id_key &key, int64_t now)
    {
        auto who = holders.find(key);
        if (who == holders.end() || who->second.erase(holder) == 0 || !who->second.empty())
            return;
        freed.emplace_back(id_of.at(key), now);
        holders.erase(who);
        id_of.erase(key);
    }

    std::map<id_key, uint32_t> id_of;
    std::map<id_key, std::set<std::string>> holders;

  private:
    bool is_taken(uint32_t id) const
    {
        for (const auto &[key, taken] : id_of)
            if (taken == id)
                return true;
        return false;
    }
    bool may_give(uint32_t id) const
    {
        const auto &[min, max] = ranges.at(id >> 24);
        const uint32_t number = id & NUMBER_MASK;
        return number >= min && number <= max && !is_taken(id);
    }
    bool rests(uint32_t id, int64_t now) const
    {
        for (const auto &[resting, since] : freed)
            if (resting == id && now - since < id_pool::REST_USEC)
                return true;
        return false;
    }
    int64_t lowest(uint32_t type, int64_t now) const
    {
        const auto &[min, max] = ranges.at(type);
        for (uint32_t id = type << 24 | min; id <= (type << 24 | max); ++id)
            if (!is_taken(id) && !rests(id, now))
                return id;
        for (const auto &[id, since] : freed)
            if (id >> 24 == type && may_give(id))
                return id;
        return REFUSED;
    }

    const world *world_;
    std::vector<std::pair<uint32_t, int64_t>> freed;  // in the order of release
};

class run
{
  public:
    run(const world &of, uint32_t seed, bool lacks_memory)
        : world_(of), random_(seed), lacks_memory_(lacks_memory), ids_(of.types), plain_(of)
    {
        for (const uint32_t type : of.drawn)
            set_range(type, {1, 12});
    }

    void step()
    {
        const std::string holder(1, static_cast<char>('a' + below(3)));
        const id_key key{type(), below(16 / world_.second_keys), below(world_.second_keys)};
        now_ += below(10) * 1'000'000;
        const uint32_t what = below(20);
        if (what == 0) {
            const uint32_t min = 1 + below(4);
            set_range(type(), {min, min + below(14)});
        } else if (what <= 6) {
            patiently([&] { ids_.release(holder, key, now_); });
            plain_.let_go(holder, key, now_);
        } else if (what == 7 && below(10) == 0) {
            restart();
        } else {
            request(holder, key);
        }
        compare();
    }

  private:
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_() % n); }
    uint32_t type() { return world_.drawn[below(static_cast<uint32_t>(world_.drawn.size()))]; }

    void set_range(uint32_t type, const number_range &range)
    {
        plain_.ranges[type] = range;
        ASSERT_TRUE(ids_.set_range(type, range.min, range.max));
    }

    void request(const std::string &holder, const id_key &key)
    {
        const uint32_t asked = below(4) == 0 ? type() : key.type;
        const uint32_t wanted = asked << 24 | (below(2) == 0 ? below(16) : 0);
        const int64_t expected = plain_.expected(holder, key, wanted, now_);
        decision made;
        patiently([&] { made = ids_.request(holder, key, wanted, now_); });
        ASSERT_EQ(made.reply, static_cast<int32_t>(expected));
        plain_.answered(holder, key, expected, now_);
    }

    // What was freed before is forgotten.
    void restart()
    {
        allocator next(world_.types);
        for (const auto &[type, range] : plain_.ranges)
            next.set_range(type, range.min, range.max);
        std::swap(ids_, next);
        model before(world_);
        std::swap(before, plain_);
        plain_.ranges = before.ranges;
        for (const auto &[key, id] : before.id_of)
            for (const std::string &holder : before.holders.at(key))
                adopt(holder, key, id);
    }

    void adopt(const std::string &holder, const id_key &key, uint32_t id)
    {
        bool adopted = false;
        patiently([&] { adopted = ids_.adopt(holder, key, id); });
        ASSERT_TRUE(adopted);
        plain_.answered(holder, key, id, now_);
    }

    // Makes a call that may fail for lack of memory, and then must have changed nothing.
    template <typename operation>
    void patiently(operation call)
    {
        for (uint64_t nth = lacks_memory_ ? 1 : 0;; ++nth) {
            fail_allocations_from(nth);
            try {
                call();
                return fail_allocations_from(0);
            } catch (const std::bad_alloc &) {
                fail_allocations_from(0);
                compare();
            }
        }
    }

    void compare() const
    {
        ASSERT_EQ(ids_.size(), plain_.id_of.size());
        for (const auto &[key, id] : plain_.id_of) {
            ASSERT_EQ(ids_.id_of(key), id);
            ASSERT_EQ(ids_.holders_of(key), plain_.holders.at(key).size());
        }
    }

    const world &world_;
    std::mt19937 random_;
    const bool lacks_memory_;
    allocator ids_;
    model plain_;
    int64_t now_ = 0;
};

void follow_the_rules(const world &of, uint32_t seeds, bool lacks_memory = false)
{
    for (uint32_t seed = 1; seed <= seeds; ++seed) {
        run one(of, seed, lacks_memory);
        for (int step = 0; step < 4000; ++step) {
            one.step();
            ASSERT_FALSE(testing::Test::HasFatalFailure()) << "seed " << seed << " step " << step;
        }
    }
}

}  // namespace

TEST(AllocatorModel, RandomSequencesOfEvlansGiveWhatTheRulesDemand) { follow_the_rules(EVLANS, 25); }

TEST(AllocatorModel, RandomSequencesOfEportsGiveWhatTheRulesDemand) { follow_the_rules(EPORTS, 25); }

TEST(AllocatorModel, ACallThatFailsForLackOfMemoryChangesNothing)
{
    follow_the_rules(EVLANS, 20, true);
    follow_the_rules(EPORTS, 20, true);
}
