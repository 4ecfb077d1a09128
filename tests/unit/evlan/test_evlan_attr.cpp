// Attributes of evlans: copying, comparing, and the one view of several users' records.
#include <algorithm>

#include "evlan_fixture.hpp"

namespace
{

using namespace evlan_test;
using EvlanCopy = EvlanTest;
using EvlanCompare = EvlanTest;
using EvlanMerge = EvlanTest;

// The byte shares its place with an overlay's field, so it may hold what no bool does.
void set_svl(sw_evlan_attr &record, int byte) { std::memset(&record.attr.underlay.svl, byte, 1); }

uint8_t svl_of(const sw_evlan_attr &record)
{
    uint8_t byte = 0;
    std::memcpy(&byte, &record.attr.underlay.svl, 1);
    return byte;
}

// Every byte different from zero and from `other`.
sw_evlan_attr filled(uint8_t byte, uint32_t type)
{
    sw_evlan_attr record;
    std::memset(&record, byte, sizeof record);
    record.type = type;
    record.ports = nullptr;
    record.attr.underlay.svl = true;
    return record;
}

TEST_F(EvlanCopy, RefusesNull)
{
    add_user({.name = "app"});
    sw_evlan_attr record{};
    EXPECT_EQ(sw_evlan_attr_copy(nullptr, &record), -2);
    EXPECT_EQ(sw_evlan_attr_copy(&record, nullptr), -2);
    EXPECT_EQ(sw_evlan_attr_copy(nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_attr_copy: Assert:Dest evlan is NULL.",
                                     "error sw_evlan_attr_copy: Assert:Src evlan is NULL.",
                                     "error sw_evlan_attr_copy: Assert:Dest evlan is NULL."));
}

class EvlanCopyOfType : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanCopyOfType, OfUnderlayTakesFidAndSvlAndNothingElse)
{
    const sw_evlan_attr from = filled(0x5a, GetParam());
    sw_evlan_attr to{};
    sw_evlan_attr expected{};
    expected.attr_flags = expected.class_id = 0x5a5a5a5a;
    expected.type = GetParam();
    expected.attr.underlay.fid = 0x5a5a5a5a;
    expected.attr.underlay.svl = true;
    EXPECT_EQ(sw_evlan_attr_copy(&to, &from), 0);
    EXPECT_EQ(std::memcmp(&to, &expected, sizeof to), 0);
}

TEST_P(EvlanCopyOfType, OfUnderlayMakesABoolOfWhateverSvlHolds)
{
    sw_evlan_attr from{}, to{};
    from.type = GetParam();
    set_svl(from, 2);
    EXPECT_EQ(sw_evlan_attr_copy(&to, &from), 0);
    EXPECT_EQ(svl_of(to), 1);
}

INSTANTIATE_TEST_SUITE_P(Underlay, EvlanCopyOfType, testing::Values(vlan, l3intf_sub));

TEST_F(EvlanCopy, OfUnderlayLeavesTheOtherAttributesOfTheTarget)
{
    sw_evlan_attr from{};
    from.type = vlan;
    sw_evlan_attr to = filled(0x5a, vxlan);
    EXPECT_EQ(sw_evlan_attr_copy(&to, &from), 0);
    EXPECT_EQ(to.attr.underlay.fid, 0);
    EXPECT_FALSE(to.attr.underlay.svl);
    for (size_t word = 2; word < 9; ++word)
        EXPECT_EQ(to.attr.words[word], 0x5a5a5a5au) << word;
    EXPECT_EQ(to.type, vlan);
    EXPECT_EQ(to.evlan_id, 0x5a5a5a5au);
}

TEST_F(EvlanCopy, OfUnderlayWithPortsFailsAfterTheCopy)
{
    add_user({.name = "app"});
    sw_vlan_ports ports{};
    sw_evlan_attr from = filled(0x5a, vlan);
    from.ports = &ports;
    sw_evlan_attr to{};
    EXPECT_EQ(sw_evlan_attr_copy(&to, &from), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_attr_copy: Assert:Unexpect attr."));
    EXPECT_EQ(to.attr_flags, 0x5a5a5a5au);
    EXPECT_EQ(to.class_id, 0x5a5a5a5au);
    EXPECT_EQ(to.type, vlan);
    EXPECT_EQ(to.attr.underlay.fid, 0x5a5a5a5a);
    EXPECT_TRUE(to.attr.underlay.svl);
    EXPECT_EQ(to.ports, nullptr);
}

class EvlanCopyOfOverlay : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanCopyOfOverlay, TakesAllNineFieldsAndNeverPortsKeyOrLink)
{
    sw_vlan_ports ports{};
    sw_evlan_attr from = filled(0x5a, GetParam());
    from.ports = &ports;
    for (uint32_t word = 0; word < 9; ++word)
        from.attr.words[word] = 100 + word;
    sw_evlan_attr to{};
    sw_evlan_attr expected{};
    expected.attr_flags = expected.class_id = 0x5a5a5a5a;
    expected.type = GetParam();
    std::memcpy(expected.attr.words, from.attr.words, sizeof expected.attr.words);
    EXPECT_EQ(sw_evlan_attr_copy(&to, &from), 0);
    EXPECT_EQ(std::memcmp(&to, &expected, sizeof to), 0);
}

// A type outside the known ones, and none at all, are overlay.
INSTANTIATE_TEST_SUITE_P(Overlay, EvlanCopyOfOverlay, testing::Values(0u, vxlan, 48u, 64u, 80u, 96u, l3vpn, 17u, 272u));

TEST_F(EvlanCompare, RefusesNull)
{
    add_user({.name = "app"});
    sw_evlan_attr record{};
    EXPECT_EQ(sw_evlan_attr_cmp(nullptr, &record), -2);
    EXPECT_EQ(sw_evlan_attr_cmp(&record, nullptr), -2);
    EXPECT_EQ(sw_evlan_attr_cmp(nullptr, nullptr), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_evlan_attr_cmp: Assert:Dest evlan is NULL.",
                                     "error sw_evlan_attr_cmp: Assert:Src evlan is NULL.",
                                     "error sw_evlan_attr_cmp: Assert:Dest evlan is NULL."));
}

TEST_F(EvlanCompare, FlagsClassAndTypeCount)
{
    sw_evlan_attr a{}, b{};
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), 0);
    b.attr_flags = 1;
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), -1);
    b = a;
    b.class_id = 1;
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), -1);
    b = a;
    b.type = vlan;
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), -1);
    a.attr.words[0] = 0xffffffff;  // once they differ the words are not looked at
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), -1);
    EXPECT_EQ(sw_evlan_attr_cmp(&b, &a), -1);
}

TEST_F(EvlanCompare, EachByteOfTheNineWordsCountsWhateverTheType)
{
    for (const uint32_t type : {vlan, vxlan}) {
        sw_evlan_attr a{};
        a.type = type;
        for (size_t byte = 0; byte < sizeof a.attr.words; ++byte) {
            sw_evlan_attr b = a;
            reinterpret_cast<uint8_t *>(b.attr.words)[byte] = 1;
            EXPECT_NE(sw_evlan_attr_cmp(&a, &b), 0) << byte;
            EXPECT_NE(sw_evlan_attr_cmp(&b, &a), 0) << byte;
            EXPECT_EQ(sw_evlan_attr_cmp(&b, &b), 0) << byte;
        }
    }
}

TEST_F(EvlanCompare, KeyPortsAndLinkDoNotCount)
{
    sw_vlan_ports ports{};
    sw_evlan_attr a{}, b{};
    sw_evlan_init(&a, "a", 1);
    sw_evlan_init(&b, "b", 2);
    b.ports = &ports;
    b.link = {&b.link, &b.link};
    EXPECT_EQ(sw_evlan_attr_cmp(&a, &b), 0);
}

TEST_F(EvlanMerge, OfAnEvlanThatNobodyHoldsIsNull)
{
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005), nullptr);
    add_user({.name = "a"});
    insert("a", 0x10000006);
    recording::reset();
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EvlanMerge, LooksInSlot0Only)
{
    add_user({.name = "a"});
    add_user_in_slot(1, "a");
    insert("a", 0x10000005, 1);
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005), nullptr);
}

TEST_F(EvlanMerge, IsARecordOfNobodyWithoutType)
{
    add_user({.name = "a"});
    sw_vlan_ports ports{};
    sw_evlan_attr *mine = insert("a", 0x20000005);
    ASSERT_NE(mine, nullptr);
    mine->attr_flags = 3;
    mine->type = vxlan;
    mine->ports = &ports;
    recording::reset();
    const sw_evlan_attr *merged = sw_evlan_attr_merge(0x20000005);
    mine->ports = nullptr;
    ASSERT_NE(merged, nullptr);
    EXPECT_NE(merged, mine);
    EXPECT_STREQ(merged->user_name, "");
    EXPECT_EQ(merged->evlan_id, 0x20000005u);
    EXPECT_EQ(merged->type, 0u);
    EXPECT_EQ(merged->attr_flags, 0u);
    EXPECT_EQ(merged->ports, nullptr);
    EXPECT_THAT(trace(), ElementsAre("info sw_evlan_attr_merge: one evlan_attr found, user: a, evlan_id: 0x20000005."));
}

TEST_F(EvlanMerge, LogsEachHolderInRegistryOrder)
{
    for (const char *name : {"a", "b", "c"}) {
        add_user({.name = name});
        insert(name, 0x20000005);
    }
    add_user({.name = "without"});
    recording::reset();
    ASSERT_NE(sw_evlan_attr_merge(0x20000005), nullptr);
    strings expected;
    for (const auto &name : registry_order())
        if (name != "without")
            expected.push_back("info sw_evlan_attr_merge: one evlan_attr found, user: " + name +
                               ", evlan_id: 0x20000005.");
    EXPECT_EQ(trace(), expected);
}

TEST_F(EvlanMerge, OverwritesTheSameRecordEachTime)
{
    add_user({.name = "a"});
    insert("a", 0x20000005)->class_id = 1;
    insert("a", 0x20000006)->class_id = 2;
    const sw_evlan_attr *first = sw_evlan_attr_merge(0x20000005);
    EXPECT_EQ(sw_evlan_attr_merge(0x20000006), first);
    EXPECT_EQ(first->class_id, 2u);
    EXPECT_EQ(first->evlan_id, 0x20000006u);
}

TEST_F(EvlanMerge, JoinsClassIds)
{
    add_user({.name = "a"});
    add_user({.name = "b"});
    insert("a", 0x20000005)->class_id = 0x1;
    insert("b", 0x20000005)->class_id = 0x4;
    EXPECT_EQ(sw_evlan_attr_merge(0x20000005)->class_id, 0x5u);
}

// Two users whose records of an evlan are merged; first and last as walks meet them.
struct two_holders {
    sw_evlan_attr *first;
    sw_evlan_attr *last;
    explicit two_holders(uint32_t id)
    {
        add_user({.name = "a"});
        add_user({.name = "b"});
        const strings order = registry_order();
        first = insert(order.at(0).c_str(), id);
        last = insert(order.at(1).c_str(), id);
    }
};

TEST_F(EvlanMerge, PresetsTheFidOfUnderlay)
{
    const two_holders holders(0x10000005);
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005)->attr.underlay.fid, 5);
    holders.first->attr.underlay.fid = 5;
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005)->attr.underlay.fid, 5);
}

TEST_F(EvlanMerge, TakesTheLastFidThatIsNeitherZeroNorTheDefault)
{
    const two_holders holders(0x10000005);
    holders.first->attr.underlay.fid = 7;
    holders.last->attr.underlay.fid = 9;
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005)->attr.underlay.fid, 9);
    holders.last->attr.underlay.fid = 0;
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005)->attr.underlay.fid, 7);
    holders.last->attr.underlay.fid = 5;
    EXPECT_EQ(sw_evlan_attr_merge(0x10000005)->attr.underlay.fid, 7);
}

TEST_F(EvlanMerge, OfASubinterfaceIsUnderlay)
{
    const two_holders holders(0x70000123);
    holders.first->attr.underlay.svl = true;
    const sw_evlan_attr *merged = sw_evlan_attr_merge(0x70000123);
    EXPECT_EQ(merged->attr.underlay.fid, 0x123);
    EXPECT_TRUE(merged->attr.underlay.svl);
}

TEST_F(EvlanMerge, KeepsSvlOnceAnyoneSetIt)
{
    const two_holders holders(0x10000005);
    EXPECT_FALSE(sw_evlan_attr_merge(0x10000005)->attr.underlay.svl);
    holders.first->attr.underlay.svl = true;
    EXPECT_TRUE(sw_evlan_attr_merge(0x10000005)->attr.underlay.svl);
}

TEST_F(EvlanMerge, SetsSvlForWhateverByteIsNotZero)
{
    const two_holders holders(0x10000005);
    set_svl(*holders.first, 2);
    EXPECT_EQ(svl_of(*sw_evlan_attr_merge(0x10000005)), 1);
}

TEST_F(EvlanMerge, OfUnderlayTakesNoOverlayField)
{
    const two_holders holders(0x10000005);
    for (size_t word = 2; word < 9; ++word)
        holders.first->attr.words[word] = 1;
    const sw_evlan_attr *merged = sw_evlan_attr_merge(0x10000005);
    for (size_t word = 2; word < 9; ++word)
        EXPECT_EQ(merged->attr.words[word], 0u) << word;
}

TEST_F(EvlanMerge, TakesTheLastNonZeroValueOfEachOverlayField)
{
    const two_holders holders(0x80000005);
    for (size_t word = 0; word < 9; ++word) {
        SCOPED_TRACE(word);
        std::fill_n(holders.first->attr.words, 9, 0u);
        std::fill_n(holders.last->attr.words, 9, 0u);
        const sw_evlan_attr *merged = sw_evlan_attr_merge(0x80000005);
        EXPECT_EQ(merged->attr.words[word], 0u);
        holders.first->attr.words[word] = 0x80000007;
        merged = sw_evlan_attr_merge(0x80000005);
        EXPECT_EQ(merged->attr.words[word], 0x80000007u);
        EXPECT_EQ(std::count(merged->attr.words, merged->attr.words + 9, 0u), 8);
        holders.last->attr.words[word] = 9;
        EXPECT_EQ(sw_evlan_attr_merge(0x80000005)->attr.words[word], 9u);
    }
}

}  // namespace
