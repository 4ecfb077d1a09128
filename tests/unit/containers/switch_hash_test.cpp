// The chained table: every operation, its lists, counters, warning and failures.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "recording_platform.hpp"
#include "sw_ebridge.h"

namespace
{

struct item {
    uint32_t hash;  // chosen by the test; the bucket is this modulo the bucket count
    int name;
};

uint32_t hash_item(const void *item_or_key) { return static_cast<const item *>(item_or_key)->hash; }

int32_t compare_items(const void *stored, const void *key)
{
    return static_cast<const item *>(stored)->name - static_cast<const item *>(key)->name;
}

using names = std::vector<int>;

int32_t collect(void *visited, void *arg)
{
    static_cast<names *>(arg)->push_back(static_cast<item *>(visited)->name);
    return 0;
}

class SwitchHash : public testing::Test
{
  protected:
    ~SwitchHash() override
    {
        recording::fail_allocation(0);
        recording::on_free(nullptr);
        // Node by node: the items were the test's and are gone.
        for (sw_list_head *link = table->all.next, *next; link != &table->all; link = next) {
            next = link->next;
            std::free(link);
        }
        sw_switch_destroy_hash(table);
    }

    names all()
    {
        names result;
        sw_switch_hash_each_item_op(table, collect, &result);
        return result;
    }

    names range(int32_t first, uint32_t count)
    {
        names result;
        sw_switch_hash_each_item_op_with_index(table, first, count, collect, &result);
        return result;
    }

    void insert_tail(std::vector<item> &items)
    {
        for (item &i : items)
            ASSERT_EQ(sw_switch_hash_insert_item_tail(table, &i), 0);
    }

    sw_switch_hash *table = sw_switch_create_hash(3, hash_item, compare_items);  // 4 buckets
};

uint32_t buckets_for(int32_t expected)
{
    sw_switch_hash *table = sw_switch_create_hash(expected, hash_item, compare_items);
    const uint32_t count = sw_switch_hash_get_table_size(table);
    EXPECT_EQ(table->bucket_count, count);
    sw_switch_destroy_hash(table);
    return count;
}

TEST(SwitchHashCreation, BucketCountIsTheExpectedCountByThreeQuartersTruncated)
{
    EXPECT_EQ(buckets_for(0), 1365u);
    EXPECT_EQ(buckets_for(1), 1u);
    EXPECT_EQ(buckets_for(2), 2u);
    EXPECT_EQ(buckets_for(3), 4u);
    EXPECT_EQ(buckets_for(4), 5u);
    EXPECT_EQ(buckets_for(5), 6u);
    EXPECT_EQ(buckets_for(1024), 1365u);
    EXPECT_EQ(buckets_for(100000), 133333u);
}

// Not every machine has room for such a table: the memory that it asks for shows how many buckets it would have.
TEST(SwitchHashCreation, BucketCountOfALargeExpectedCountIsNotCut)
{
    const auto memory_for = [](uint64_t buckets) { return buckets * (sizeof(uint8_t) + sizeof(sw_list_head)); };
    for (const auto &[expected, buckets] : {std::pair(0x40000000, 1431655765u), std::pair(INT32_MAX, 2863311529u)}) {
        recording::fail_allocation(2, true);  // all but the header
        EXPECT_EQ(sw_switch_create_hash(expected, hash_item, compare_items), nullptr);
        const uint64_t asked_for = recording::refused_bytes();
        recording::fail_allocation(0);
        EXPECT_EQ(asked_for, memory_for(buckets)) << expected;
    }
}

TEST(SwitchHashCreation, RefusesNegativeCountsAndNullFunctions)
{
    EXPECT_EQ(sw_switch_create_hash(-1, hash_item, compare_items), nullptr);
    EXPECT_EQ(sw_switch_create_hash(INT32_MIN, hash_item, compare_items), nullptr);
    EXPECT_EQ(sw_switch_create_hash(1, nullptr, compare_items), nullptr);
    EXPECT_EQ(sw_switch_create_hash(1, hash_item, nullptr), nullptr);
}

std::vector<void *> freed;
void note_free(void *block)
{
    if (block != nullptr)
        freed.push_back(block);
}

TEST(SwitchHashCreation, WithoutMemoryGivesNullAndKeepsNothing)
{
    freed.reserve(16);
    recording::fail_allocation(0);
    sw_switch_destroy_hash(sw_switch_create_hash(3, hash_item, compare_items));
    const uint64_t needed = recording::allocations();
    ASSERT_EQ(needed, 3u);
    for (uint64_t nth = 1; nth <= needed; ++nth) {
        freed.clear();
        recording::fail_allocation(nth);
        recording::on_free(note_free);
        EXPECT_EQ(sw_switch_create_hash(3, hash_item, compare_items), nullptr) << nth;
        recording::on_free(nullptr);
        EXPECT_EQ(freed.size(), recording::allocations() - 1) << nth;
        recording::fail_allocation(0);
    }
}

TEST_F(SwitchHash, StartsEmptyWithTheWarningOff)
{
    EXPECT_EQ(table->item_count, 0u);
    EXPECT_EQ(table->warning_threshold, 0u);
    EXPECT_EQ(table->all.next, &table->all);
    EXPECT_EQ(table->all.prev, &table->all);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(table->bucket_items[i], 0);
        EXPECT_EQ(table->buckets[i].next, &table->buckets[i]);
        EXPECT_EQ(table->buckets[i].prev, &table->buckets[i]);
    }
    EXPECT_EQ(table->hash, hash_item);
    EXPECT_EQ(table->compare, compare_items);
}

TEST(SwitchHashLayout, HeaderAndNodeKeepTheirOrder)
{
    EXPECT_EQ(offsetof(sw_switch_hash, bucket_count), 0u);
    EXPECT_EQ(offsetof(sw_switch_hash, item_count), 4u);
    EXPECT_EQ(offsetof(sw_switch_hash, warning_threshold), 8u);
    EXPECT_LT(offsetof(sw_switch_hash, warning_threshold), offsetof(sw_switch_hash, bucket_items));
    EXPECT_LT(offsetof(sw_switch_hash, bucket_items), offsetof(sw_switch_hash, buckets));
    EXPECT_LT(offsetof(sw_switch_hash, buckets), offsetof(sw_switch_hash, all));
    EXPECT_LT(offsetof(sw_switch_hash, all), offsetof(sw_switch_hash, hash));
    EXPECT_LT(offsetof(sw_switch_hash, hash), offsetof(sw_switch_hash, compare));
    EXPECT_EQ(offsetof(sw_switch_hash_node, all), 0u);
    EXPECT_EQ(offsetof(sw_switch_hash_node, bucket), 2 * sizeof(void *));
    EXPECT_EQ(offsetof(sw_switch_hash_node, item), 4 * sizeof(void *));
}

TEST_F(SwitchHash, HeadInsertionPutsTheItemFirstInItsBucketAndInTheListOfAll)
{
    item a{1, 'a'}, b{1, 'b'}, c{2, 'c'};
    for (item *i : {&a, &b, &c})
        EXPECT_EQ(sw_switch_hash_insert_item(table, i), 0);
    EXPECT_EQ(all(), (names{'c', 'b', 'a'}));
    EXPECT_EQ(range(1, 1), (names{'b', 'a'}));
    EXPECT_EQ(range(2, 1), (names{'c'}));
}

TEST_F(SwitchHash, TailInsertionPutsTheItemLastInBoth)
{
    std::vector<item> items{{1, 'a'}, {1, 'b'}, {2, 'c'}, {1, 'd'}};
    insert_tail(items);
    EXPECT_EQ(all(), (names{'a', 'b', 'c', 'd'}));
    EXPECT_EQ(range(1, 1), (names{'a', 'b', 'd'}));
}

TEST_F(SwitchHash, BucketIsTheUnsignedHashModuloTheBucketCount)
{
    item high{0xfffffffe, 'h'}, seven{7, 's'};  // 0xfffffffe is 2 modulo 4
    sw_switch_hash_insert_item(table, &high);
    sw_switch_hash_insert_item(table, &seven);
    EXPECT_EQ(range(2, 1), (names{'h'}));
    EXPECT_EQ(range(3, 1), (names{'s'}));
}

TEST_F(SwitchHash, CountsItemsPerBucketAndInAll)
{
    std::vector<item> items{{1, 'a'}, {5, 'b'}, {2, 'c'}};
    insert_tail(items);
    EXPECT_EQ(table->item_count, 3u);
    EXPECT_EQ(table->bucket_items[0], 0);
    EXPECT_EQ(table->bucket_items[1], 2);
    EXPECT_EQ(table->bucket_items[2], 1);
    sw_switch_hash_del_item(table, &items[0]);
    EXPECT_EQ(table->item_count, 2u);
    EXPECT_EQ(table->bucket_items[1], 1);
}

TEST_F(SwitchHash, BucketCountersWrapAt256)
{
    std::vector<item> items;
    for (int i = 0; i < 257; ++i)
        items.push_back({1, i});
    insert_tail(items);
    EXPECT_EQ(table->bucket_items[1], 1);
    EXPECT_EQ(table->item_count, 257u);
    sw_switch_hash_del_item(table, &items[0]);
    sw_switch_hash_del_item(table, &items[1]);
    EXPECT_EQ(table->bucket_items[1], 255);
}

TEST_F(SwitchHash, WarnsWhenABucketExceedsTheThreshold)
{
    std::vector<item> items{{2, 'a'}, {2, 'b'}, {2, 'c'}}, elsewhere{{0, 'd'}, {1, 'e'}, {3, 'f'}};
    insert_tail(elsewhere);
    recording::printed().clear();
    table->warning_threshold = 2;
    ASSERT_EQ(sw_switch_hash_insert_item(table, &items[0]), 0);
    ASSERT_EQ(sw_switch_hash_insert_item_tail(table, &items[1]), 0);
    EXPECT_EQ(recording::printed(), "");
    ASSERT_EQ(sw_switch_hash_insert_item(table, &items[2]), 0);
    char expected[128];
    std::snprintf(expected, sizeof expected, "hash :%p bucket[2] warning 2 cur:3 \n", static_cast<void *>(table));
    EXPECT_EQ(recording::printed(), expected);
}

TEST_F(SwitchHash, WithThresholdZeroNothingIsPrinted)
{
    recording::printed().clear();
    std::vector<item> items(200, item{2, 'a'});
    insert_tail(items);
    EXPECT_EQ(recording::printed(), "");
}

TEST_F(SwitchHash, InsertionWithoutMemoryChangesNothing)
{
    item a{1, 'a'};
    recording::fail_allocation(1);
    EXPECT_EQ(sw_switch_hash_insert_item(table, &a), -12);
    recording::fail_allocation(1);
    EXPECT_EQ(sw_switch_hash_insert_item_tail(table, &a), -12);
    recording::fail_allocation(0);
    EXPECT_EQ(table->item_count, 0u);
    EXPECT_EQ(table->bucket_items[1], 0);
    EXPECT_EQ(all(), names{});
    EXPECT_EQ(range(0, 4), names{});
}

TEST_F(SwitchHash, FindGivesTheFirstMatchOfTheBucket)
{
    item first{1, 'a'}, second{1, 'a'}, other{1, 'b'};
    for (item *i : {&other, &first, &second})
        ASSERT_EQ(sw_switch_hash_insert_item_tail(table, i), 0);
    const item key{1, 'a'}, absent{1, 'z'}, other_bucket{2, 'a'};
    EXPECT_EQ(sw_switch_hash_find_item(table, &key), &first);
    EXPECT_EQ(sw_switch_hash_get_all_item(table, &key), &first);
    EXPECT_EQ(sw_switch_hash_find_item(table, &absent), nullptr);
    EXPECT_EQ(sw_switch_hash_get_all_item(table, &absent), nullptr);
    EXPECT_EQ(sw_switch_hash_find_item(table, &other_bucket), nullptr);
}

TEST_F(SwitchHash, DeletionTakesTheFirstMatchOnly)
{
    item first{1, 'a'}, second{1, 'a'};
    ASSERT_EQ(sw_switch_hash_insert_item_tail(table, &first), 0);
    ASSERT_EQ(sw_switch_hash_insert_item_tail(table, &second), 0);
    EXPECT_EQ(sw_switch_hash_del_item_rt(table, &first), 0);
    EXPECT_EQ(sw_switch_hash_find_item(table, &first), &second);
    EXPECT_EQ(sw_switch_hash_del_item_rt(table, &first), 0);
    EXPECT_EQ(sw_switch_hash_del_item_rt(table, &first), -1);
}

TEST_F(SwitchHash, DeletingAnAbsentKeyChangesNothing)
{
    std::vector<item> items{{1, 'a'}, {1, 'b'}};
    insert_tail(items);
    const item absent{1, 'z'};
    sw_switch_hash_del_item(table, &absent);
    EXPECT_EQ(sw_switch_hash_del_item_rt(table, &absent), -1);
    EXPECT_EQ(all(), (names{'a', 'b'}));
    EXPECT_EQ(table->item_count, 2u);
    EXPECT_EQ(table->bucket_items[1], 2);
}

sw_switch_hash_node seen_in_free;
void *seen_block;
void look_at_node(void *block)
{
    seen_block = block;
    std::memcpy(&seen_in_free, block, sizeof seen_in_free);
}

TEST_F(SwitchHash, DeletedNodesAreFreedWithPoisonedBucketLinks)
{
    std::vector<item> items{{1, 'a'}, {1, 'b'}, {1, 'c'}};
    insert_tail(items);
    auto *node = reinterpret_cast<sw_switch_hash_node *>(table->all.next->next);
    ASSERT_EQ(node->item, &items[1]);
    recording::on_free(look_at_node);
    sw_switch_hash_del_item(table, &items[1]);
    recording::on_free(nullptr);
    ASSERT_EQ(seen_block, node);
    EXPECT_EQ(seen_in_free.bucket.next, reinterpret_cast<sw_list_head *>(0x00100100));
    EXPECT_EQ(seen_in_free.bucket.prev, reinterpret_cast<sw_list_head *>(0x00200200));
    EXPECT_EQ(static_cast<void *>(seen_in_free.all.next), seen_block);
    EXPECT_EQ(static_cast<void *>(seen_in_free.all.prev), seen_block);
    EXPECT_EQ(seen_in_free.item, &items[1]);
    EXPECT_EQ(all(), (names{'a', 'c'}));
    EXPECT_EQ(range(1, 1), (names{'a', 'c'}));
}

struct deletion {
    sw_switch_hash *table;
    names visited;
};

int32_t delete_visited(void *visited, void *arg)
{
    auto *d = static_cast<deletion *>(arg);
    d->visited.push_back(static_cast<item *>(visited)->name);
    return sw_switch_hash_del_item_rt(d->table, visited);
}

TEST_F(SwitchHash, AVisitorMayDeleteTheItemThatItIsGiven)
{
    std::vector<item> items{{1, 'a'}, {1, 'b'}, {2, 'c'}, {1, 'd'}};
    insert_tail(items);
    deletion d{table, {}};
    EXPECT_EQ(sw_switch_hash_each_item_op(table, delete_visited, &d), 0);
    EXPECT_EQ(d.visited, (names{'a', 'b', 'c', 'd'}));
    EXPECT_EQ(table->item_count, 0u);

    insert_tail(items);
    d.visited.clear();
    EXPECT_EQ(sw_switch_hash_each_item_op_with_index(table, 0, 4, delete_visited, &d), 0);
    EXPECT_EQ(d.visited, (names{'a', 'b', 'd', 'c'}));
    EXPECT_EQ(table->item_count, 0u);
}

int32_t stop_at_b(void *visited, void *arg)
{
    collect(visited, arg);
    return static_cast<item *>(visited)->name == 'b' ? -6 : 0;
}

int32_t first_name(void *visited, void *) { return static_cast<item *>(visited)->name; }

TEST_F(SwitchHash, WalksStopAtTheFirstNonZeroResultAndReturnIt)
{
    std::vector<item> items{{1, 'a'}, {1, 'b'}, {1, 'c'}};
    insert_tail(items);
    names visited;
    EXPECT_EQ(sw_switch_hash_each_item_op(table, stop_at_b, &visited), -6);
    EXPECT_EQ(visited, (names{'a', 'b'}));
    visited.clear();
    EXPECT_EQ(sw_switch_hash_each_item_op_with_index(table, 0, 4, stop_at_b, &visited), -6);
    EXPECT_EQ(visited, (names{'a', 'b'}));
    EXPECT_EQ(sw_switch_hash_each_item_op(table, first_name, nullptr), 'a');
    EXPECT_EQ(sw_switch_hash_each_item_op_with_index(table, 0, 4, first_name, nullptr), 'a');
}

TEST_F(SwitchHash, RangesCoverTheBucketsThatExist)
{
    std::vector<item> items{{3, 'd'}, {0, 'a'}, {1, 'b'}, {2, 'c'}};
    insert_tail(items);
    EXPECT_EQ(range(0, 4), (names{'a', 'b', 'c', 'd'}));
    EXPECT_EQ(range(1, 2), (names{'b', 'c'}));
    EXPECT_EQ(range(3, 1), (names{'d'}));
    EXPECT_EQ(range(3, 100), (names{'d'}));
    EXPECT_EQ(range(2, UINT32_MAX), (names{'c', 'd'}));  // first + count is more than 32 bits hold
    EXPECT_EQ(range(0, 0), names{});
    EXPECT_EQ(range(4, 1), names{});
    EXPECT_EQ(range(INT32_MAX, UINT32_MAX), names{});
    EXPECT_EQ(range(-1, 4), names{});
    EXPECT_EQ(range(INT32_MIN, UINT32_MAX), names{});
}

int32_t match_odd(void *candidate, void *arg)
{
    collect(candidate, arg);
    return static_cast<item *>(candidate)->name % 2 == 1 ? 0 : 1;
}

TEST_F(SwitchHash, MatchersSeeTheBucketsFromTheFirstOn)
{
    std::vector<item> items{{3, 7}, {0, 2}, {1, 4}, {1, 5}};
    insert_tail(items);
    names visited;
    EXPECT_EQ(sw_switch_hash_find_item_op(table, match_odd, &visited), &items[3]);
    EXPECT_EQ(visited, (names{2, 4, 5}));
    sw_switch_hash_del_item(table, &items[0]);
    sw_switch_hash_del_item(table, &items[3]);
    EXPECT_EQ(sw_switch_hash_find_item_op(table, match_odd, &visited), nullptr);
}

TEST(SwitchHashDestruction, FreesCountersBucketsAndHeaderButNoNode)
{
    sw_switch_hash *table = sw_switch_create_hash(3, hash_item, compare_items);
    item a{1, 'a'};
    ASSERT_EQ(sw_switch_hash_insert_item(table, &a), 0);
    void *node = table->all.next;
    const std::vector<void *> expected{table->bucket_items, table->buckets, table};
    freed.clear();
    freed.reserve(16);
    recording::on_free(note_free);
    sw_switch_destroy_hash(table);
    recording::on_free(nullptr);
    EXPECT_EQ(freed, expected);
    std::free(node);
}

TEST_F(SwitchHash, NullArgumentsAreRefused)
{
    item a{1, 'a'};
    EXPECT_EQ(sw_switch_hash_insert_item(nullptr, &a), -2);
    EXPECT_EQ(sw_switch_hash_insert_item_tail(nullptr, &a), -2);
    EXPECT_EQ(sw_switch_hash_insert_item(table, nullptr), -2);
    EXPECT_EQ(sw_switch_hash_find_item(nullptr, &a), nullptr);
    EXPECT_EQ(sw_switch_hash_find_item(table, nullptr), nullptr);
    EXPECT_EQ(sw_switch_hash_get_all_item(nullptr, &a), nullptr);
    sw_switch_hash_del_item(nullptr, &a);
    EXPECT_EQ(sw_switch_hash_del_item_rt(nullptr, &a), -1);
    EXPECT_EQ(sw_switch_hash_del_item_rt(table, nullptr), -1);
    EXPECT_EQ(sw_switch_hash_each_item_op(nullptr, collect, nullptr), 0);
    EXPECT_EQ(sw_switch_hash_each_item_op(table, nullptr, nullptr), 0);
    EXPECT_EQ(sw_switch_hash_each_item_op_with_index(nullptr, 0, 1, collect, nullptr), 0);
    EXPECT_EQ(sw_switch_hash_each_item_op_with_index(table, 0, 1, nullptr, nullptr), 0);
    EXPECT_EQ(sw_switch_hash_find_item_op(nullptr, collect, nullptr), nullptr);
    EXPECT_EQ(sw_switch_hash_find_item_op(table, nullptr, nullptr), nullptr);
    EXPECT_EQ(sw_switch_hash_get_table_size(nullptr), 0u);
    sw_switch_destroy_hash(nullptr);
    EXPECT_EQ(table->item_count, 0u);
}

}  // namespace
