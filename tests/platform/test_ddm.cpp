// The port table against its header.
#include <gtest/gtest.h>

#include <cstdint>

#include "allocation_failure.hpp"
#include "libddm.h"

namespace
{

constexpr uint32_t global(uint32_t number) { return uint32_t{LIBDDM_KIND_GLOBAL} << 24 | number; }
constexpr uint32_t local(uint32_t number) { return uint32_t{LIBDDM_KIND_LOCAL} << 24 | number; }
constexpr uint32_t aggregate(uint32_t number) { return uint32_t{LIBDDM_KIND_AGGREGATE} << 24 | number; }

// The numbers differ on purpose, so that no id can stand for another.
constexpr libddm_port port = {.ifx = 1001, .gphyid = global(17), .lphyid = local(5), .unit = 2, .port = 9};
constexpr libddm_port other = {.ifx = 1002, .gphyid = global(18), .lphyid = local(6), .unit = 9, .port = 2};
constexpr libddm_port lag = {.ifx = 2001, .gphyid = aggregate(3), .lphyid = aggregate(3), .unit = -1, .port = -1};

int32_t add(libddm_port row) { return libddm_table_add(&row); }

// Asks one look-up with one uint32_t out argument, preset so that a failure can be seen to leave it alone.
constexpr uint32_t untouched = 0xdead;
uint32_t ask(int32_t code, int32_t (*look_up)(uint32_t, uint32_t *), uint32_t key)
{
    uint32_t out = untouched;
    EXPECT_EQ(code, look_up(key, &out));
    return out;
}

uint32_t ask_unit_port(int32_t code, int32_t unit, int32_t number)
{
    uint32_t out = untouched;
    EXPECT_EQ(code, libddm_get_lphyid_by_unit_port(unit, number, &out));
    return out;
}

class Ddm : public testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_EQ(0, libddm_table_add(&port));
        ASSERT_EQ(0, libddm_table_add(&other));
        ASSERT_EQ(0, libddm_table_add(&lag));
    }
    void TearDown() override { libddm_table_clear(); }
};

}  // namespace

TEST_F(Ddm, PortIsFoundByEachOfItsIds)
{
    EXPECT_EQ(port.gphyid, ask(0, libddm_get_phyid_by_ifx, port.ifx));
    EXPECT_EQ(port.ifx, ask(0, libddm_get_ifx_by_phyid, port.gphyid));
    EXPECT_EQ(port.ifx, ask(0, libddm_get_ifx_by_phyid, port.lphyid));
    EXPECT_EQ(port.lphyid, ask(0, libddm_get_lphyid_by_gphyid, port.gphyid));
    EXPECT_EQ(port.gphyid, ask(0, libddm_get_gphyid_by_lphyid, port.lphyid));
    EXPECT_EQ(port.lphyid, ask_unit_port(0, port.unit, port.port));
    EXPECT_EQ(other.lphyid, ask_unit_port(0, port.port, port.unit));
    int32_t unit = -7, number = -7;
    EXPECT_EQ(0, libddm_get_unit_port_by_lphyid(port.lphyid, &unit, &number));
    EXPECT_EQ(port.unit, unit);
    EXPECT_EQ(port.port, number);
}

TEST_F(Ddm, AggregateIdIsBothGlobalAndLocal)
{
    EXPECT_EQ(lag.gphyid, ask(0, libddm_get_phyid_by_ifx, lag.ifx));
    EXPECT_EQ(lag.ifx, ask(0, libddm_get_ifx_by_phyid, lag.gphyid));
    EXPECT_EQ(lag.gphyid, ask(0, libddm_get_lphyid_by_gphyid, lag.gphyid));
    EXPECT_EQ(lag.gphyid, ask(0, libddm_get_gphyid_by_lphyid, lag.gphyid));
}

TEST_F(Ddm, AggregateHasNoUnitAndPort)
{
    int32_t unit = -7, number = -7;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_unit_port_by_lphyid(lag.lphyid, &unit, &number));
    EXPECT_EQ(-7, unit);
    EXPECT_EQ(-7, number);
    EXPECT_EQ(untouched, ask_unit_port(LIBDDM_ENOENT, -1, -1));
}

TEST_F(Ddm, UnknownIdsLeaveTheOutArgumentsAlone)
{
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_phyid_by_ifx, 9999));
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_ifx_by_phyid, global(9999)));
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_lphyid_by_gphyid, global(9999)));
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_gphyid_by_lphyid, local(9999)));
    EXPECT_EQ(untouched, ask_unit_port(LIBDDM_ENOENT, 77, 77));
    int32_t unit = -7, number = -7;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_unit_port_by_lphyid(local(9999), &unit, &number));
    EXPECT_EQ(-7, unit);
    EXPECT_EQ(-7, number);
}

TEST_F(Ddm, GlobalIdIsNoLocalIdNorTheReverse)
{
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_lphyid_by_gphyid, port.lphyid));
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_gphyid_by_lphyid, port.gphyid));
    int32_t unit = -7, number = -7;
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_unit_port_by_lphyid(port.gphyid, &unit, &number));
}

TEST_F(Ddm, NullOutArgumentsAreRefused)
{
    int32_t number = 0;
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_phyid_by_ifx(port.ifx, nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_ifx_by_phyid(port.gphyid, nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_lphyid_by_gphyid(port.gphyid, nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_gphyid_by_lphyid(port.lphyid, nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_unit_port_by_lphyid(port.lphyid, nullptr, &number));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_unit_port_by_lphyid(port.lphyid, &number, nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, libddm_get_lphyid_by_unit_port(port.unit, port.port, nullptr));
}

TEST_F(Ddm, RowThatSharesOneIdIsRefusedAndAddsNothing)
{
    const libddm_port fresh = {.ifx = 1003, .gphyid = global(19), .lphyid = local(7), .unit = 3, .port = 3};
    for (int shared = 0; shared < 4; ++shared) {
        libddm_port row = fresh;
        switch (shared) {
            case 0:
                row.ifx = port.ifx;
                break;
            case 1:
                row.gphyid = port.gphyid;
                break;
            case 2:
                row.lphyid = port.lphyid;
                break;
            default:
                row.unit = port.unit;
                row.port = port.port;
        }
        EXPECT_EQ(LIBDDM_EEXIST, add(row)) << shared;
    }
    EXPECT_EQ(3U, libddm_table_size());
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_phyid_by_ifx, fresh.ifx));
    EXPECT_EQ(port.gphyid, ask(0, libddm_get_phyid_by_ifx, port.ifx));
    EXPECT_EQ(0, add(fresh));  // and none of its ids was left behind
}

TEST_F(Ddm, SecondAggregateOfTheSameIdIsRefusedAndAnotherIsNot)
{
    EXPECT_EQ(LIBDDM_EEXIST, add({2002, aggregate(3), aggregate(3), -1, -1}));
    EXPECT_EQ(LIBDDM_EEXIST, add({2001, aggregate(4), aggregate(4), -1, -1}));
    EXPECT_EQ(0, add({2002, aggregate(4), aggregate(4), -1, -1}));
}

TEST_F(Ddm, MalformedRowsAreRefused)
{
    EXPECT_EQ(LIBDDM_EINVAL, libddm_table_add(nullptr));
    EXPECT_EQ(LIBDDM_EINVAL, add({1, 17, local(1), 0, 1}));                  // a gphyid without a kind
    EXPECT_EQ(LIBDDM_EINVAL, add({1, local(1), local(2), 0, 1}));            // of the wrong one
    EXPECT_EQ(LIBDDM_EINVAL, add({1, global(1), global(2), 0, 1}));          // a lphyid of the wrong kind
    EXPECT_EQ(LIBDDM_EINVAL, add({1, global(1), local(1), -1, 1}));          // a port without a unit
    EXPECT_EQ(LIBDDM_EINVAL, add({1, global(1), local(1), 0, -1}));          // or without a number
    EXPECT_EQ(LIBDDM_EINVAL, add({1, aggregate(9), local(1), -1, -1}));      // an aggregate with a local id
    EXPECT_EQ(LIBDDM_EINVAL, add({1, aggregate(9), aggregate(8), -1, -1}));  // or with two ids
    EXPECT_EQ(LIBDDM_EINVAL, add({1, aggregate(9), aggregate(9), 0, -1}));   // or with a unit
    EXPECT_EQ(LIBDDM_EINVAL, add({1, aggregate(9), aggregate(9), -1, 0}));   // or with a port
    EXPECT_EQ(3U, libddm_table_size());
}

TEST_F(Ddm, ClearEmptiesTheTable)
{
    libddm_table_clear();
    EXPECT_EQ(0U, libddm_table_size());
    EXPECT_EQ(untouched, ask(LIBDDM_ENOENT, libddm_get_phyid_by_ifx, port.ifx));
    libddm_table_clear();
    EXPECT_EQ(0, add(port));
    EXPECT_EQ(1U, libddm_table_size());
}

TEST_F(Ddm, WithoutMemoryNothingIsAdded)
{
    libddm_table_clear();
    uint32_t ifx = 0;
    const auto add_port = [&] {
        const int32_t code = add(port);
        EXPECT_EQ(code == 0 ? 1U : 0U, libddm_table_size());
        return code;
    };
    EXPECT_LE(5U, failures_reported(add_port, LIBDDM_ENOMEM));
    EXPECT_EQ(0, libddm_get_ifx_by_phyid(port.lphyid, &ifx));
    EXPECT_EQ(port.ifx, ifx);
    EXPECT_EQ(1U, libddm_table_size());
}

TEST_F(Ddm, HoldsALargeSwitch)
{
    libddm_table_clear();
    constexpr uint32_t ports = 100'000;
    for (uint32_t n = 0; n < ports; ++n)
        ASSERT_EQ(0, add({n, global(n), local(n), static_cast<int32_t>(n / 256), static_cast<int32_t>(n % 256)}));
    EXPECT_EQ(ports, libddm_table_size());
    for (uint32_t n = 0; n < ports; ++n) {
        uint32_t lphyid = 0;
        ASSERT_EQ(
            0, libddm_get_lphyid_by_unit_port(static_cast<int32_t>(n / 256), static_cast<int32_t>(n % 256), &lphyid));
        ASSERT_EQ(local(n), lphyid);
    }
}
