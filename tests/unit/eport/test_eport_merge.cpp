// The one view of several users' records of an eport.
#include <algorithm>
#include <cstddef>

#include "eport_fixture.hpp"
#include "sparse_values.hpp"

namespace
{

using namespace eport_test;
using EportMerge = EportTest;

using overlay_view = decltype(std::declval<sw_eport_attr>().attr.overlay);

// The overlay fields of which the last that is not zero wins.
constexpr uint32_t overlay_view::*replaced[] = {
    &overlay_view::match_vid,  &overlay_view::match_port,      &overlay_view::nhop,
    &overlay_view::mpath_flag, &overlay_view::encap,           &overlay_view::dip,
    &overlay_view::peer_mode,  &overlay_view::evlan_id,        &overlay_view::split_horizon,
    &overlay_view::mtu,        &overlay_view::match_inner_vid, &overlay_view::egr_vlan_action,
    &overlay_view::ovid,       &overlay_view::ing_flex_cnt_id, &overlay_view::egr_flex_cnt_id,
};

// Two users whose records of an eport are merged; first and last as walks meet them.
struct two_holders {
    sw_eport_attr *first;
    sw_eport_attr *last;
    explicit two_holders(uint32_t id)
    {
        add_user({.name = "a"});
        add_user({.name = "b"});
        const strings order = registry_order();
        first = insert(order.at(0).c_str(), id);
        last = insert(order.at(1).c_str(), id);
    }
};

// How many bytes of the attribute block are not zero.
auto set_bytes(const sw_eport_attr *record)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&record->attr);
    return std::count_if(bytes, bytes + sizeof record->attr, [](uint8_t byte) { return byte != 0; });
}

TEST_F(EportMerge, OfAnEportThatNobodyHoldsIsNull)
{
    EXPECT_EQ(sw_eport_attr_merge(0x10000005), nullptr);
    add_user({.name = "a"});
    insert("a", 0x10000006);
    EXPECT_EQ(sw_eport_attr_merge(0x10000005), nullptr);
    EXPECT_THAT(trace(), IsEmpty());
}

TEST_F(EportMerge, LooksInSlot0Only)
{
    add_user({.name = "a"});
    add_user_in_slot(1, "a");
    insert("a", 0x10000005, 1);
    EXPECT_EQ(sw_eport_attr_merge(0x10000005), nullptr);
}

TEST_F(EportMerge, LeavesOutRecordsOfUsersOfOtherProcesses)
{
    add_user({.name = "a"});
    ASSERT_NE(sw_eport_db_insert_glb_item(0, "elsewhere", 0x10000005), nullptr);
    EXPECT_EQ(sw_eport_attr_merge(0x10000005), nullptr);
}

TEST_F(EportMerge, IsARecordOfNobodyThatFiltersAll)
{
    add_user({.name = "a"});
    sw_eport_attr *mine = insert("a", 0x10000005);
    mine->attr_flags = mine->attr_flags2 = 3;
    mine->attr.underlay.carried16 = 4;
    mine->attr.underlay.carried32 = 5;
    const sw_eport_attr *merged = sw_eport_attr_merge(0x10000005);
    ASSERT_NE(merged, nullptr);
    EXPECT_NE(merged, mine);
    sw_eport_attr expected;
    sw_eport_init(&expected, "", 0x10000005);
    EXPECT_EQ(expected.vlan_filter, 7u);
    EXPECT_EQ(std::memcmp(merged, &expected, sizeof expected), 0);
    EXPECT_THAT(trace(), ElementsAre("info sw_eport_attr_merge: Merge User[a].eport[0x10000005]."));
}

TEST_F(EportMerge, LogsEachHolderInRegistryOrder)
{
    for (const char *name : {"a", "b", "c"}) {
        add_user({.name = name});
        insert(name, 0x90000005);
    }
    add_user({.name = "without"});
    ASSERT_NE(sw_eport_attr_merge(0x90000005), nullptr);
    strings expected;
    for (const auto &name : registry_order())
        if (name != "without")
            expected.push_back("info sw_eport_attr_merge: Merge User[" + name + "].eport[0x90000005].");
    EXPECT_EQ(trace(), expected);
}

TEST_F(EportMerge, OverwritesTheSameRecordEachTime)
{
    add_user({.name = "a"});
    sw_eport_attr *of_port = insert("a", 0x10000005);
    std::memset(&of_port->attr, 0xff, sizeof of_port->attr);
    insert("a", 0x30000006)->attr.overlay.mtu = 2;
    const sw_eport_attr *first = sw_eport_attr_merge(0x10000005);
    EXPECT_EQ(sw_eport_attr_merge(0x30000006), first);
    EXPECT_EQ(first->attr.overlay.mtu, 2u);
    EXPECT_EQ(set_bytes(first), 1);
    EXPECT_EQ(first->eport_id, 0x30000006u);
}

TEST_F(EportMerge, TakesTheLastFilterThatIsNotAll)
{
    for (const uint32_t id : {0x10000005u, 0x30000005u}) {
        const two_holders holders(id);
        holders.first->vlan_filter = 1;
        EXPECT_EQ(sw_eport_attr_merge(id)->vlan_filter, 1u);
        holders.last->vlan_filter = 2;
        EXPECT_EQ(sw_eport_attr_merge(id)->vlan_filter, 2u);
        holders.last->vlan_filter = 0;
        EXPECT_EQ(sw_eport_attr_merge(id)->vlan_filter, 0u);
    }
}

class EportMergeOfUnderlay : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EportMergeOfUnderlay, JoinsTheVlansOfEachBitmap)
{
    const uint32_t id = eport_id(GetParam(), 5);
    const two_holders holders(id);
    const auto set = [](uint32_t *bitmap, uint32_t vlan) { bitmap[vlan / 32] |= 1u << vlan % 32; };
    set(holders.first->attr.underlay.vbmp, 10);
    set(holders.last->attr.underlay.vbmp, 20);
    set(holders.first->attr.underlay.ubmp, 0);
    set(holders.last->attr.underlay.ubmp, 4095);
    set(holders.first->attr.underlay.mcbmp, 4094);
    set(holders.last->attr.underlay.mcbmp, 4094);
    const sw_eport_attr *merged = sw_eport_attr_merge(id);
    EXPECT_EQ(merged->attr.underlay.vbmp[0], 1u << 10 | 1u << 20);
    EXPECT_EQ(merged->attr.underlay.ubmp[0], 1u);
    EXPECT_EQ(merged->attr.underlay.ubmp[127], 0x80000000u);
    EXPECT_EQ(merged->attr.underlay.mcbmp[127], 0x40000000u);
    EXPECT_EQ(set_bytes(merged), 5);
}

TEST_P(EportMergeOfUnderlay, TakesTheLastPvidAndKeyThatAreNotZero)
{
    const uint32_t id = eport_id(GetParam(), 5);
    const two_holders holders(id);
    holders.first->attr.underlay.pvid = 7;
    holders.first->attr.underlay.vt_key = 0x80000007;
    EXPECT_EQ(sw_eport_attr_merge(id)->attr.underlay.pvid, 7u);
    EXPECT_EQ(sw_eport_attr_merge(id)->attr.underlay.vt_key, 0x80000007u);
    holders.last->attr.underlay.pvid = 0xffff;
    holders.last->attr.underlay.vt_key = 9;
    EXPECT_EQ(sw_eport_attr_merge(id)->attr.underlay.pvid, 0xffffu);
    EXPECT_EQ(sw_eport_attr_merge(id)->attr.underlay.vt_key, 9u);
}

INSTANTIATE_TEST_SUITE_P(Underlay, EportMergeOfUnderlay, testing::Values(port, local_port, ap));

TEST_F(EportMerge, TakesTheLastNonZeroValueOfEachOverlayField)
{
    const two_holders holders(0x90000005);
    for (const auto member : replaced) {
        std::memset(&holders.first->attr, 0, sizeof holders.first->attr);
        std::memset(&holders.last->attr, 0, sizeof holders.last->attr);
        holders.first->attr.overlay.*member = 0x80000000;
        const sw_eport_attr *merged = sw_eport_attr_merge(0x90000005);
        EXPECT_EQ(merged->attr.overlay.*member, 0x80000000u);
        EXPECT_EQ(set_bytes(merged), 1);
        holders.last->attr.overlay.*member = 9;
        EXPECT_EQ(sw_eport_attr_merge(0x90000005)->attr.overlay.*member, 9u);
    }
}

TEST_F(EportMerge, JoinsClassIds)
{
    const two_holders holders(0x30000005);
    holders.first->attr.overlay.class_id = 0x1;
    holders.last->attr.overlay.class_id = 0x4;
    EXPECT_EQ(sw_eport_attr_merge(0x30000005)->attr.overlay.class_id, 0x5u);
}

TEST_F(EportMerge, KeepsTheTagOnceAnyoneSetIt)
{
    const two_holders holders(0x30000005);
    EXPECT_EQ(sw_eport_attr_merge(0x30000005)->attr.overlay.is_tagged, 0);
    holders.first->attr.overlay.is_tagged = 1;
    EXPECT_EQ(sw_eport_attr_merge(0x30000005)->attr.overlay.is_tagged, 1);
    holders.first->attr.overlay.is_tagged = 2;
    EXPECT_EQ(sw_eport_attr_merge(0x30000005)->attr.overlay.is_tagged, 1);
}

// One word that is set is enough, the one that only tells IPv6 too, and then none of the earlier address stays.
TEST_F(EportMerge, TakesTheSourceAddressWhole)
{
    const two_holders holders(0x30000005);
    std::memset(holders.first->attr.overlay.sip.address, 0x11, 16);
    EXPECT_EQ(std::memcmp(&sw_eport_attr_merge(0x30000005)->attr.overlay.sip, &holders.first->attr.overlay.sip,
                          sizeof(sw_ebridge_ip)),
              0);
    for (size_t byte = 0; byte < sizeof(sw_ebridge_ip); ++byte) {
        sw_ebridge_ip &later = holders.last->attr.overlay.sip;
        later = {};
        reinterpret_cast<uint8_t *>(&later)[byte] = 0x80;
        const sw_eport_attr *merged = sw_eport_attr_merge(0x30000005);
        EXPECT_EQ(std::memcmp(&merged->attr.overlay.sip, &later, sizeof later), 0) << byte;
    }
}

TEST_F(EportMerge, OfOverlayTakesNoBitmapAndOfUnderlayNoOverlayField)
{
    add_user({.name = "a"});
    sw_eport_attr *over = insert("a", 0x30000005);
    std::memset(&over->attr.underlay.vbmp[64], 0xff, sizeof over->attr.underlay.vbmp / 2);
    EXPECT_EQ(set_bytes(sw_eport_attr_merge(0x30000005)), 0);
    sw_eport_attr *under = insert("a", 0x10000005);
    under->attr.overlay.nhop = 0xffffffff;  // the word that is carried behind vt_key
    EXPECT_EQ(set_bytes(sw_eport_attr_merge(0x10000005)), 0);
}

// ---- three users with random attributes against what the rules say, field by field

sw_eport_attr random_record(sparse_values &random, const std::string &user_name, uint32_t id)
{
    sw_eport_attr record;
    sw_eport_init(&record, user_name.c_str(), id);
    record.attr_flags = random.word();
    record.attr_flags2 = random.word();
    record.vlan_filter = random.one_in(2) ? 7 : random.below(8);
    auto &underlay = record.attr.underlay;
    underlay.pvid = static_cast<uint16_t>(random.word());
    underlay.carried16 = static_cast<uint16_t>(random.word());
    underlay.vt_key = random.word();
    underlay.carried32 = random.word();
    for (uint32_t *bitmap : {underlay.vbmp, underlay.ubmp, underlay.mcbmp})
        std::generate_n(bitmap, 128, [&] { return random.word(); });
    if (sw_eport_id_underlay(id) != 0)
        return record;
    auto &overlay = record.attr.overlay;
    for (const auto member : replaced)
        overlay.*member = random.word();
    overlay.class_id = random.word();
    overlay.sip = {};
    overlay.sip.address[random.below(16)] = static_cast<uint8_t>(random.word());
    overlay.sip.is_ipv6 = random.one_in(4);
    overlay.is_tagged = random.one_in(3);
    return record;
}

void merge_underlay(sw_eport_attr &into, const sw_eport_attr &from)
{
    auto &to = into.attr.underlay;
    const auto &of = from.attr.underlay;
    for (size_t word = 0; word < 128; ++word) {
        to.vbmp[word] |= of.vbmp[word];
        to.ubmp[word] |= of.ubmp[word];
        to.mcbmp[word] |= of.mcbmp[word];
    }
    to.pvid = of.pvid != 0 ? of.pvid : to.pvid;
    to.vt_key = of.vt_key != 0 ? of.vt_key : to.vt_key;
}

void merge_overlay(sw_eport_attr &into, const sw_eport_attr &from)
{
    auto &to = into.attr.overlay;
    const auto &of = from.attr.overlay;
    for (const auto member : replaced)
        to.*member = of.*member != 0 ? of.*member : to.*member;
    to.class_id |= of.class_id;
    const sw_ebridge_ip none{};
    if (std::memcmp(&of.sip, &none, sizeof none) != 0)
        to.sip = of.sip;
    to.is_tagged = of.is_tagged != 0 || to.is_tagged != 0;
}

sw_eport_attr merged_by_the_rules(uint32_t id, const std::vector<sw_eport_attr> &records)
{
    sw_eport_attr merged;
    sw_eport_init(&merged, "", id);
    for (const sw_eport_attr &record : records) {
        if (record.vlan_filter != 7)
            merged.vlan_filter = record.vlan_filter;
        if (sw_eport_id_underlay(id) != 0)
            merge_underlay(merged, record);
        else
            merge_overlay(merged, record);
    }
    return merged;
}

class EportMergeAtRandom : public EportTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EportMergeAtRandom, IsWhatTheRulesSay)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    sparse_values random(GetParam());
    constexpr uint32_t types[] = {port, local_port, ap, ac, pw, l3intf_ac};
    for (uint32_t number = 0; number < 300; ++number) {
        recording::reset();
        const uint32_t id = eport_id(types[random.below(6)], number);
        std::vector<sw_eport_attr> records;
        for (const std::string &name : registry_order()) {
            if (random.one_in(4))
                continue;
            records.push_back(random_record(random, name, id));
            ASSERT_NE(sw_eport_db_insert_item(0, name.c_str(), &records.back()), nullptr);
        }
        const sw_eport_attr *merged = sw_eport_attr_merge(id);
        ASSERT_EQ(merged != nullptr, !records.empty());
        if (merged == nullptr)
            continue;
        const sw_eport_attr expected = merged_by_the_rules(id, records);
        ASSERT_EQ(std::memcmp(merged, &expected, offsetof(sw_eport_attr, attr)), 0) << number;
        ASSERT_EQ(std::memcmp(&merged->attr, &expected.attr, sizeof expected.attr), 0) << format("0x%x", id);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, EportMergeAtRandom, testing::Range(1u, 9u));

}  // namespace
