// The dump of the cache and the counters, as whole texts.
#include <algorithm>

#include "port_vid_fixture.hpp"

namespace
{

using namespace port_vid_test;
using PvidDump = PortVidTest;
using PvidCounters = PortVidTest;

const std::string head =
    "|--------------|----------|----------|\n"
    "|          ifx | new_pvid | old_pvid |\n";
const std::string all = head + "only non-zero pvid is displayed. \n";
const std::string foot = dashes(36);

std::string dumped(int32_t ifx)
{
    return printed_by([=] { return sw_vlan_pvid_ut_dump(ifx); });
}

TEST_F(PvidDump, OfAnEmptyCacheHasNoRows)
{
    EXPECT_EQ(dumped(0), all + foot);  // no user has made it yet
    add_user();
    EXPECT_EQ(dumped(0), all + foot);
    EXPECT_EQ(dumped(-1), all + foot);
    EXPECT_EQ(dumped(INT32_MIN), all + foot);
}

TEST_F(PvidDump, PrintsEveryEntry)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 5), 0);
    EXPECT_EQ(dumped(0), all + "|           11 |       10 |        5 |\n" + foot);
    EXPECT_EQ(write(port_2, 0, 4095), 0);
    EXPECT_EQ(write(aggregate_3, 65535, 0), 0);
    const std::string text = dumped(0);
    ASSERT_EQ(text.rfind(all, 0), 0u);
    strings rows;
    for (size_t at = all.size(), end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
        rows.push_back(text.substr(at, end + 1 - at));
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows.back(), foot);
    rows.pop_back();
    EXPECT_THAT(rows, testing::UnorderedElementsAre("|           11 |       10 |        5 |\n",
                                                    "|           12 |        0 |     4095 |\n",
                                                    "|           13 |    65535 |        0 |\n"));
    EXPECT_EQ(dumped(-5), text);
}

TEST_F(PvidDump, OfOnePortPrintsThatOne)
{
    add_user();
    start_over();
    EXPECT_EQ(write(port_1, 10, 5), 0);
    EXPECT_EQ(write(port_2, 20, 0), 0);
    EXPECT_EQ(dumped(ifx_1), head + "|           11 |       10 |        5 |\n" + foot);
}

TEST_F(PvidDump, OfAnUnknownPortPrintsZeros)
{
    EXPECT_EQ(dumped(5), head + "|            5 |        0 |        0 |\n" + foot);
    add_user();
    EXPECT_EQ(dumped(5), head + "|            5 |        0 |        0 |\n" + foot);
    EXPECT_EQ(dumped(INT32_MAX), head + "|   2147483647 |        0 |        0 |\n" + foot);
    EXPECT_FALSE(is_cached(5));
    EXPECT_EQ(counts(), "subscribe 0 set 0 get 0 delete 0 nums 0");
}

TEST_F(PvidDump, OfInterfacesWithTheHighestBit)
{
    add_user();
    start_over();
    recording::ports()[0].ifx = 0xffffffff;
    EXPECT_EQ(write(port_1, 10, 5), 0);
    EXPECT_EQ(dumped(0), all + "|           -1 |       10 |        5 |\n" + foot);
}

// ---- counters

struct counter {
    const char *name;
    void (*inc)();
    void (*dec)();
    void (*reset)();
    int32_t (*get)();
    void (*set)(int32_t);
    int32_t (*print)();
};

#define COUNTER(name)                                                                    \
    {                                                                                    \
#name, sw_brg_stat_pvid_count_##name##_inc, sw_brg_stat_pvid_count_##name##_dec, \
            sw_brg_stat_pvid_count_##name##_reset, sw_brg_stat_pvid_count_##name##_get,  \
            sw_brg_stat_pvid_count_##name##_set, sw_brg_stat_pvid_count_##name##_print   \
    }

const counter counters[] = {COUNTER(subscribe), COUNTER(set), COUNTER(get), COUNTER(delete), COUNTER(nums)};

ptrdiff_t zeros_of(const std::string &text) { return std::count(text.begin(), text.end(), '0'); }

TEST_F(PvidCounters, BeginAt0AndCountByThemselves)
{
    for (const counter &one : counters) {
        SCOPED_TRACE(one.name);
        EXPECT_EQ(one.get(), 0);
        one.inc();
        one.inc();
        EXPECT_EQ(one.get(), 2);
        EXPECT_NE(counts().find(format("%s 2", one.name)), std::string::npos);
        one.dec();
        EXPECT_EQ(one.get(), 1);
        EXPECT_EQ(zeros_of(counts()), 4);
        one.set(-2147483647);
        EXPECT_EQ(one.get(), -2147483647);
        one.reset();
        EXPECT_EQ(one.get(), 0);
        one.dec();
        EXPECT_EQ(one.get(), -1);
        one.reset();
    }
}

TEST_F(PvidCounters, PrintThemselvesAndTellHowMuchThatWas)
{
    for (const counter &one : counters) {
        for (const int32_t value : {0, 1234567, -1}) {
            one.set(value);
            take_printed();
            const int32_t length = one.print();
            const std::string text = take_printed();
            EXPECT_EQ(text, format("  pvid_count_%s: %d\n", one.name, value));
            EXPECT_EQ(length, static_cast<int32_t>(text.size()));
        }
    }
}

TEST_F(PvidCounters, ArePrintedTogetherInOrder)
{
    for (int32_t value = 1; const counter &one : counters)
        one.set(value++);
    EXPECT_EQ(printed_by(sw_vlan_pvid_stats_print),
              "  pvid_count_subscribe: 1\n"
              "  pvid_count_set: 2\n"
              "  pvid_count_get: 3\n"
              "  pvid_count_delete: 4\n"
              "  pvid_count_nums: 5\n");
}

}  // namespace
