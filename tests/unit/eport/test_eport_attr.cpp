// Attributes of eports: copying and comparing.
#include <cstddef>

#include "eport_fixture.hpp"

namespace
{

using namespace eport_test;
using EportCopy = EportTest;
using EportCompare = EportTest;

using block = decltype(std::declval<sw_eport_attr>().attr);
using overlay_view = decltype(std::declval<sw_eport_attr>().attr.overlay);
static_assert(sizeof(overlay_view) == 88);  // eighteen fields in 85 bytes, and what aligns them
static_assert(sizeof(block) == 1548);       // three words and three bitmaps of 4096 VLANs

// Every byte the same; `id` decides which view it is.
sw_eport_attr filled(uint8_t byte, uint32_t id)
{
    sw_eport_attr record;
    std::memset(&record, byte, sizeof record);
    record.eport_id = id;
    return record;
}

const uint8_t *bytes_of(const sw_eport_attr &record) { return reinterpret_cast<const uint8_t *>(&record.attr); }

TEST_F(EportCopy, RefusesNull)
{
    add_user({.name = "app"});
    sw_eport_attr record{};
    EXPECT_EQ(sw_eport_attr_copy(nullptr, &record), -2);
    EXPECT_EQ(sw_eport_attr_copy(&record, nullptr), -2);
    EXPECT_EQ(sw_eport_attr_copy(nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_attr_copy: Assert:Dest eport is NULL.",
                                     "error sw_eport_attr_copy: Assert:Src eport is NULL.",
                                     "error sw_eport_attr_copy: Assert:Dest eport is NULL."));
}

class EportCopyOfUnderlay : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EportCopyOfUnderlay, TakesTheWholeBlockAndNeverTheKey)
{
    const sw_eport_attr from = filled(0x5a, eport_id(GetParam(), 5));
    sw_eport_attr to = filled(0xa5, eport_id(ac, 9));  // what the target is called does not count
    sw_eport_attr expected = to;
    expected.attr_flags = expected.attr_flags2 = expected.vlan_filter = 0x5a5a5a5a;
    std::memcpy(&expected.attr, &from.attr, sizeof expected.attr);
    EXPECT_EQ(sw_eport_attr_copy(&to, &from), 0);
    EXPECT_EQ(std::memcmp(&to, &expected, sizeof to), 0);
}

// No filter is a filter like the others.
TEST_P(EportCopyOfUnderlay, TakesNoFilterToo)
{
    sw_eport_attr from, to;
    sw_eport_init(&from, "app", eport_id(GetParam(), 5));
    to = from;
    from.vlan_filter = 0;
    EXPECT_EQ(sw_eport_attr_copy(&to, &from), 0);
    EXPECT_EQ(to.vlan_filter, 0u);
}

INSTANTIATE_TEST_SUITE_P(Underlay, EportCopyOfUnderlay, testing::Values(port, local_port, ap));

class EportCopyOfOverlay : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EportCopyOfOverlay, TakesTheOverlayFieldsAndLeavesTheRestOfTheBlock)
{
    const sw_eport_attr from = filled(0x5a, eport_id(GetParam(), 5));
    sw_eport_attr to = filled(0xa5, eport_id(port, 9));
    const sw_eport_attr before = to;
    EXPECT_EQ(sw_eport_attr_copy(&to, &from), 0);
    EXPECT_EQ(to.attr_flags, 0x5a5a5a5au);
    EXPECT_EQ(to.attr_flags2, 0x5a5a5a5au);
    EXPECT_EQ(to.vlan_filter, 0x5a5a5a5au);
    EXPECT_EQ(std::memcmp(&to.attr, &from.attr, offsetof(overlay_view, is_tagged) + 1), 0);
    EXPECT_EQ(std::memcmp(bytes_of(to) + sizeof(overlay_view), bytes_of(before) + sizeof(overlay_view),
                          sizeof(block) - sizeof(overlay_view)),
              0);
    EXPECT_EQ(std::memcmp(to.user_name, before.user_name, sizeof to.user_name), 0);
    EXPECT_EQ(to.eport_id, before.eport_id);
}

// Types outside the known ones, and none at all, are overlay.
INSTANTIATE_TEST_SUITE_P(Overlay, EportCopyOfOverlay,
                         testing::Values(0u, ac, pw, 64u, 65u, 80u, 96u, 113u, 128u, l3intf_ac, 160u, 161u, 18u, 33u,
                                         255u));

TEST_F(EportCopy, OfARecordToItselfChangesNothing)
{
    for (const uint32_t type : {port, ac}) {
        sw_eport_attr record = filled(0x5a, eport_id(type, 5));
        const sw_eport_attr before = record;
        EXPECT_EQ(sw_eport_attr_copy(&record, &record), 0);
        EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    }
}

TEST_F(EportCompare, RefusesNull)
{
    add_user({.name = "app"});
    sw_eport_attr record{};
    EXPECT_EQ(sw_eport_attr_cmp(nullptr, &record), -2);
    EXPECT_EQ(sw_eport_attr_cmp(&record, nullptr), -2);
    EXPECT_EQ(sw_eport_attr_cmp(nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_eport_attr_cmp: Assert:Dest eport is NULL.",
                                     "error sw_eport_attr_cmp: Assert:Src eport is NULL.",
                                     "error sw_eport_attr_cmp: Assert:Dest eport is NULL."));
}

TEST_F(EportCompare, BothFlagWordsAndTheFilterCount)
{
    for (uint32_t sw_eport_attr::*member :
         {&sw_eport_attr::attr_flags, &sw_eport_attr::attr_flags2, &sw_eport_attr::vlan_filter}) {
        sw_eport_attr a{}, b{};
        EXPECT_EQ(sw_eport_attr_cmp(&a, &b), 0);
        b.*member = 1;
        EXPECT_EQ(sw_eport_attr_cmp(&a, &b), -1);
        EXPECT_EQ(sw_eport_attr_cmp(&b, &a), -1);
        a.attr.underlay.pvid = 0xffff;  // once they differ the block is not looked at
        EXPECT_EQ(sw_eport_attr_cmp(&a, &b), -1);
        EXPECT_EQ(sw_eport_attr_cmp(&b, &a), -1);
    }
}

// Of an overlay record the trailing bytes belong to no field, and count all the same.
TEST_F(EportCompare, EachByteOfTheBlockCountsWhateverTheType)
{
    for (const uint32_t type : {port, ac}) {
        sw_eport_attr a{};
        a.eport_id = eport_id(type, 5);
        for (size_t byte = 0; byte < sizeof a.attr; ++byte) {
            sw_eport_attr b;
            std::memcpy(&b, &a, sizeof b);
            reinterpret_cast<uint8_t *>(&b.attr)[byte] = 1;
            EXPECT_LT(sw_eport_attr_cmp(&a, &b), 0) << byte;
            EXPECT_GT(sw_eport_attr_cmp(&b, &a), 0) << byte;
            EXPECT_EQ(sw_eport_attr_cmp(&b, &b), 0) << byte;
        }
    }
}

TEST_F(EportCompare, TheKeyDoesNotCount)
{
    sw_eport_attr a{}, b{};
    sw_eport_init(&a, "a", eport_id(port, 1));
    sw_eport_init(&b, "b", eport_id(ac, 2));
    EXPECT_EQ(sw_eport_attr_cmp(&a, &b), 0);
}

}  // namespace
