// The one view of three users' records of an evlan, with random attributes, against what the rules say field by field.
#include <algorithm>

#include "evlan_fixture.hpp"
#include "sparse_values.hpp"

namespace
{

using namespace evlan_test;

sw_evlan_attr random_record(sparse_values &random, uint32_t id)
{
    sw_evlan_attr record{};
    record.attr_flags = random.word();
    record.class_id = random.word();
    record.type = random.word();
    std::generate_n(record.attr.words, 9, [&] { return random.word(); });
    if (sw_evlan_id_underlay(id) != 0) {
        record.attr.underlay.svl = random.one_in(3);
        if (random.one_in(3))
            record.attr.underlay.fid = static_cast<int32_t>(id & 0xffffff);
    }
    return record;
}

void merge_underlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    const int32_t number = static_cast<int32_t>(into.evlan_id & 0xffffff);
    if (from.attr.underlay.fid != 0 && from.attr.underlay.fid != number)
        into.attr.underlay.fid = from.attr.underlay.fid;
    into.attr.underlay.svl = into.attr.underlay.svl || from.attr.underlay.svl;
}

void merge_overlay(sw_evlan_attr &into, const sw_evlan_attr &from)
{
    for (size_t word = 0; word < 9; ++word)
        if (from.attr.words[word] != 0)
            into.attr.words[word] = from.attr.words[word];
}

sw_evlan_attr merged_by_the_rules(uint32_t id, const std::vector<sw_evlan_attr> &records)
{
    const bool underlay = sw_evlan_id_underlay(id) != 0;
    sw_evlan_attr merged{};
    merged.evlan_id = id;
    if (underlay)
        merged.attr.underlay.fid = static_cast<int32_t>(id & 0xffffff);
    for (const sw_evlan_attr &record : records) {
        merged.class_id |= record.class_id;
        if (underlay)
            merge_underlay(merged, record);
        else
            merge_overlay(merged, record);
    }
    return merged;
}

class EvlanMergeAtRandom : public EvlanTest, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(EvlanMergeAtRandom, IsWhatTheRulesSay)
{
    for (const char *name : {"a", "b", "c"})
        add_user({.name = name});
    sparse_values random(GetParam());
    constexpr uint32_t types[] = {vlan, l3intf_sub, vxlan, l3vpn};
    for (uint32_t number = 0; number < 1000; ++number) {
        recording::reset();
        const uint32_t id = evlan_id(types[random.below(4)], number);
        std::vector<sw_evlan_attr> records;
        for (const std::string &name : registry_order()) {
            if (random.one_in(4))
                continue;
            records.push_back(random_record(random, id));
            sw_evlan_attr *held = insert(name.c_str(), id);
            ASSERT_NE(held, nullptr);
            held->attr_flags = records.back().attr_flags;
            held->class_id = records.back().class_id;
            held->type = records.back().type;
            held->attr = records.back().attr;
        }
        const sw_evlan_attr *merged = sw_evlan_attr_merge(id);
        ASSERT_EQ(merged != nullptr, !records.empty());
        if (merged == nullptr)
            continue;
        const sw_evlan_attr expected = merged_by_the_rules(id, records);
        EXPECT_EQ(std::memcmp(merged, &expected, sizeof expected), 0) << format("0x%x", id);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, EvlanMergeAtRandom, testing::Range(1u, 9u));

}  // namespace
