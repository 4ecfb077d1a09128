// Sets of VLANs: bitmaps of records, ranges, and where they begin and end.
#include "vlan_set.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <set>
#include <utility>
#include <vector>

using ebridge_tool::vlan_set;

namespace
{

using runs = std::vector<std::pair<uint32_t, uint32_t>>;

vlan_set set_of(const std::vector<uint32_t> &vlans)
{
    vlan_set made;
    for (const uint32_t vlan : vlans)
        made.add(vlan);
    return made;
}

runs runs_of(const vlan_set &of, const vlan_set &cuts)
{
    runs found;
    of.for_each_run(cuts, [&found](uint32_t first, uint32_t last) { found.emplace_back(first, last); });
    return found;
}

}  // namespace

TEST(VlanSet, BitmapsOfRecordsAreReadWhereverTheyBegin)
{
    struct row {
        uint32_t start;
        std::vector<uint32_t> words;
        const char *text;
    };
    const std::vector<uint32_t> all(128, ~0U);
    const row rows[] = {
        {0, {}, "-"},
        {0, {0}, "-"},
        {0, {1}, "0"},
        {0, {0xbc}, "2-5,7"},
        {0, {0x80000000, 1}, "31-32"},
        {0, {0x80000000, 2}, "31,33"},
        {32, {0x80000000, ~0U, 1}, "63-96"},
        {4064, {0x80000000}, "4095"},
        {4064, {0xc0000000}, "4094-4095"},
        {0, all, "0-4095"},
        {4096, {}, "-"},
    };
    for (const row &of : rows) {
        std::string fault;
        const auto read = vlan_set::read(of.start, of.words, &fault);
        ASSERT_TRUE(read) << fault;
        EXPECT_EQ(read->text(), of.text);
    }
}

TEST(VlanSet, BitmapsWithoutAPlaceAmongTheVlansAreRefused)
{
    struct row {
        uint32_t start;
        size_t words;
        const char *fault;
    };
    const row rows[] = {
        {33, 1, "its start 33 is not a multiple of 32"},
        {4095, 0, "its start 4095 is not a multiple of 32"},
        {0, 129, "129 words from VLAN 0 on go beyond VLAN 4095"},
        {4064, 2, "2 words from VLAN 4064 on go beyond VLAN 4095"},
        {4096, 1, "1 word from VLAN 4096 on go beyond VLAN 4095"},
        {0xffffffe0, 1, "1 word from VLAN 4294967264 on go beyond VLAN 4095"},
        {0xffffffe0, 0, "0 words from VLAN 4294967264 on go beyond VLAN 4095"},
    };
    for (const row &of : rows) {
        std::string fault;
        EXPECT_FALSE(vlan_set::read(of.start, std::vector<uint32_t>(of.words, 1), &fault));
        EXPECT_EQ(fault, of.fault);
    }
}

TEST(VlanSet, RunsEndAtCuts)
{
    const vlan_set of = set_of({0, 2, 3, 4, 5, 6, 31, 32, 4095});
    EXPECT_EQ(runs_of(of, of.edges()), (runs{{0, 0}, {2, 6}, {31, 32}, {4095, 4095}}));
    vlan_set cuts = of.edges();
    cuts |= set_of({4, 5, 32});
    EXPECT_EQ(runs_of(of, cuts), (runs{{0, 0}, {2, 3}, {4, 4}, {5, 6}, {31, 31}, {32, 32}, {4095, 4095}}));
    EXPECT_THAT(runs_of({}, cuts), testing::IsEmpty());
}

// Against a plain set of numbers.
TEST(VlanSet, AgreesWithAPlainSetOfNumbers)
{
    std::mt19937 engine(1);
    const auto random = [&engine] { return static_cast<uint32_t>(engine()); };
    for (int turn = 0; turn < 200; ++turn) {
        std::set<uint32_t> plain[2];
        vlan_set sets[2];
        for (int which = 0; which < 2; ++which)
            for (uint32_t left = random() % 30; left > 0; --left) {
                const uint32_t first = random() % 4096, length = 1 + random() % 100;
                for (uint32_t vlan = first; vlan < std::min(first + length, 4096U); ++vlan) {
                    plain[which].insert(vlan);
                    sets[which].add(vlan);
                }
            }
        vlan_set both = sets[0], either = sets[0], rest = sets[0];
        both &= sets[1];
        either |= sets[1];
        rest -= sets[1];
        uint32_t next = vlan_set::SIZE;
        for (uint32_t vlan = vlan_set::SIZE; vlan-- > 0;) {
            const bool in[2] = {plain[0].contains(vlan), plain[1].contains(vlan)};
            next = in[0] ? vlan : next;
            ASSERT_EQ(sets[0].has(vlan), in[0]);
            ASSERT_EQ(sets[0].next(vlan), next);
            ASSERT_EQ(sets[0].edges().has(vlan), in[0] != (vlan > 0 && plain[0].contains(vlan - 1)));
            ASSERT_EQ(both.has(vlan), in[0] && in[1]);
            ASSERT_EQ(either.has(vlan), in[0] || in[1]);
            ASSERT_EQ(rest.has(vlan), in[0] && !in[1]);
        }
        ASSERT_EQ(sets[0].size(), plain[0].size());
        ASSERT_EQ(sets[0].empty(), plain[0].empty());
        ASSERT_EQ(sets[0] == sets[1], plain[0] == plain[1]);
    }
}
