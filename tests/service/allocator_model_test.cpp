// The allocator against a plain model: long random sequences of requests, releases, range changes and time, each answer
// checked against what a list of who holds what says.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "allocator.hpp"

using namespace ebridged;

namespace
{

constexpr uint32_t VXLAN = 32;
constexpr uint32_t ANY = VXLAN << 24;

// Who holds what, and when each number was freed. Everything is searched, nothing is indexed.
class model
{
  public:
    uint32_t min = 1, max = 12;

    // The answer that the rules demand.
    int64_t expected(const std::string &holder, uint32_t key, uint32_t number, int64_t now) const
    {
        auto held = id_of.find(key);
        if (held != id_of.end()) {
            if (number == 0 || number == held->second)
                return held->second;
            const auto &who = holders.at(key);
            if (who.size() > 1 || !who.contains(holder))
                return -1;
            return may_give(number) ? int64_t{number} : -1;
        }
        if (number != 0)
            return may_give(number) ? int64_t{number} : -1;
        return any(now);
    }

    void answered(const std::string &holder, uint32_t key, int64_t number, int64_t now)
    {
        if (number < 0)
            return let_go(holder, key, now);
        auto held = id_of.find(key);
        if (held != id_of.end() && held->second != number)
            freed.emplace_back(held->second, now);
        std::erase_if(freed, [&](const auto &f) { return f.first == number; });
        id_of[key] = static_cast<uint32_t>(number);
        holders[key].insert(holder);
    }

    void let_go(const std::string &holder, uint32_t key, int64_t now)
    {
        auto who = holders.find(key);
        if (who == holders.end() || who->second.erase(holder) == 0 || !who->second.empty())
            return;
        freed.emplace_back(id_of.at(key), now);
        holders.erase(who);
        id_of.erase(key);
    }

    std::map<uint32_t, uint32_t> id_of;
    std::map<uint32_t, std::set<std::string>> holders;

  private:
    bool is_taken(uint32_t number) const
    {
        for (const auto &[key, taken] : id_of)
            if (taken == number)
                return true;
        return false;
    }
    bool may_give(uint32_t number) const { return number >= min && number <= max && !is_taken(number); }
    bool rests(uint32_t number, int64_t now) const
    {
        for (const auto &[resting, since] : freed)
            if (resting == number && now - since < id_pool::REST_USEC)
                return true;
        return false;
    }
    int64_t any(int64_t now) const
    {
        for (uint32_t number = min; number <= max; ++number)
            if (!is_taken(number) && !rests(number, now))
                return number;
        for (const auto &[number, since] : freed)
            if (may_give(number))
                return number;
        return -1;
    }

    std::vector<std::pair<uint32_t, int64_t>> freed;  // in the order of release
};

void run(uint32_t seed)
{
    std::mt19937 random(seed);
    auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    allocator ids(evlan_types());
    model plain;
    ids.set_range(VXLAN, plain.min, plain.max);
    int64_t now = 0;
    for (int step = 0; step < 4000; ++step) {
        const std::string holder(1, static_cast<char>('a' + below(3)));
        const uint32_t key = below(16);
        now += below(10) * 1'000'000;
        switch (below(20)) {
            case 0:
                plain.min = 1 + below(4);
                plain.max = plain.min + below(14);
                ids.set_range(VXLAN, plain.min, plain.max);
                break;
            case 1:
            case 2:
            case 3:
            case 4:
            case 5:
            case 6:
                plain.let_go(holder, key, now);
                ids.release(holder, {VXLAN, key}, now);
                break;
            default:
                const uint32_t number = below(3) == 0 ? below(16) : 0;
                const int64_t expected = plain.expected(holder, key, number, now);
                const decision made = ids.request(holder, {VXLAN, key}, ANY | number, now);
                ASSERT_EQ(made.reply, expected < 0 ? -1 : static_cast<int32_t>(ANY | expected))
                    << "seed " << seed << " step " << step;
                plain.answered(holder, key, expected, now);
        }
        ASSERT_EQ(ids.size(), plain.id_of.size()) << "seed " << seed << " step " << step;
        for (const auto &[held, number] : plain.id_of) {
            ASSERT_EQ(ids.id_of({VXLAN, held}), ANY | number) << "seed " << seed << " step " << step;
            ASSERT_EQ(ids.holders_of({VXLAN, held}), plain.holders.at(held).size());
        }
    }
}

}  // namespace

TEST(AllocatorModel, RandomSequencesGiveWhatTheRulesDemand)
{
    for (uint32_t seed = 1; seed <= 25; ++seed)
        run(seed);
}
