// The rules of the keyed caches, bucket by bucket: probing, deleted marks, growth, rebuilding, failure.
#include "keyed_cache.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

#include "recording_platform.hpp"

namespace
{

using sw::BUCKET_DELETED;
using sw::BUCKET_EMPTY;

// The hash is the first word of the key, so that a test chooses the bucket.
struct record {
    uint32_t hash;
    uint32_t name;
    uint32_t data;
};

uint32_t first_word(const void *key) { return static_cast<const record *>(key)->hash; }

using table = sw::keyed_table<offsetof(record, data), first_word>;

class KeyedCache : public testing::Test
{
  protected:
    ~KeyedCache() override
    {
        recording::fail_allocation(0);
        sw::keyed_cache_clear(cache);
    }

    record *insert(uint32_t hash, uint32_t name)
    {
        records.push_back({hash, name, 0});
        EXPECT_TRUE(table::insert(cache, &records.back())) << hash << ' ' << name;
        return &records.back();
    }

    // Fills up to `buckets` buckets: as many records as make the table that large, in buckets of their own.
    void grow_to(uint32_t buckets)
    {
        for (uint32_t i = 0; cache.bucket_count < buckets; ++i)
            insert(i, 1000 + i);
        for (record &r : records)
            table::remove(cache, &r);
        ASSERT_TRUE(sw::keyed_cache_make_room(cache));  // no live record: only drops the deleted marks
        ASSERT_EQ(cache.bucket_count, buckets);
        ASSERT_EQ(cache.occupied, 0u);
    }

    uint32_t state(uint32_t bucket) const { return sw::state_of(cache.flags, bucket); }
    uint32_t bucket_of(uint32_t hash, uint32_t name) const
    {
        const record key{hash, name, 0};
        return table::find_bucket(cache, &key);
    }

    sw::keyed_cache cache{};
    std::deque<record> records;
};

TEST_F(KeyedCache, HeaderKeepsItsOrder)
{
    EXPECT_EQ(offsetof(sw::keyed_cache, bucket_count), 0u);
    EXPECT_EQ(offsetof(sw::keyed_cache, size), 4u);
    EXPECT_EQ(offsetof(sw::keyed_cache, occupied), 8u);
    EXPECT_EQ(offsetof(sw::keyed_cache, upper_bound), 12u);
    EXPECT_EQ(offsetof(sw::keyed_cache, flags), 16u);
    EXPECT_EQ(offsetof(sw::keyed_cache, keys), 16u + sizeof(void *));
}

TEST_F(KeyedCache, UpperBoundIs77PercentRounded)
{
    EXPECT_EQ(sw::upper_bound_of(4), 3u);
    EXPECT_EQ(sw::upper_bound_of(8), 6u);
    EXPECT_EQ(sw::upper_bound_of(16), 12u);
    EXPECT_EQ(sw::upper_bound_of(32), 25u);
    for (uint32_t count = 4; count <= 1u << 31; count *= 2) {
        EXPECT_EQ(sw::upper_bound_of(count), static_cast<uint32_t>(count * 0.77 + 0.5)) << count;
        if (count == 1u << 31)
            break;
    }
}

TEST_F(KeyedCache, AnEmptyTableHasNoMemory)
{
    const record key{1, 1, 0};
    EXPECT_EQ(table::find(cache, &key), nullptr);
    EXPECT_EQ(table::remove(cache, &key), nullptr);
    EXPECT_EQ(cache.bucket_count, 0u);
    EXPECT_EQ(cache.keys, nullptr);
}

TEST_F(KeyedCache, TheFirstInsertionMakesFourBuckets)
{
    record *r = insert(6, 1);
    EXPECT_EQ(cache.bucket_count, 4u);
    EXPECT_EQ(cache.upper_bound, 3u);
    EXPECT_EQ(cache.size, 1u);
    EXPECT_EQ(cache.occupied, 1u);
    EXPECT_EQ(cache.keys[2], r);             // 6 AND 3
    EXPECT_EQ(cache.flags[0], 0xAAAAAA8Au);  // all pairs 2, that of bucket 2 is 0
    EXPECT_EQ(table::find(cache, r), r);
}

TEST_F(KeyedCache, FourBucketsHoldThreeRecordsBeforeTheTableGrows)
{
    insert(0, 1);
    insert(1, 2);
    insert(2, 3);
    EXPECT_EQ(cache.bucket_count, 4u);
    insert(3, 4);
    EXPECT_EQ(cache.bucket_count, 8u);
    EXPECT_EQ(cache.upper_bound, 6u);
    EXPECT_EQ(cache.size, 4u);
    EXPECT_EQ(cache.occupied, 4u);
}

TEST_F(KeyedCache, BucketCountsDouble)
{
    std::vector<uint32_t> counts;
    for (uint32_t i = 0; i < 200; ++i) {
        insert(i * 2654435761u, i);
        if (counts.empty() || counts.back() != cache.bucket_count)
            counts.push_back(cache.bucket_count);
        EXPECT_LE(cache.occupied, cache.upper_bound);
    }
    EXPECT_EQ(counts, (std::vector<uint32_t>{4, 8, 16, 32, 64, 128, 256, 512}));
}

TEST_F(KeyedCache, ProbingIsTriangular)
{
    grow_to(16);
    for (uint32_t name = 0; name < 6; ++name)
        insert(14, name);
    // 14, then 1, 2, 3, 4 and 5 further on.
    const uint32_t expected[] = {14, 15, 1, 4, 8, 13};
    for (uint32_t name = 0; name < 6; ++name)
        EXPECT_EQ(bucket_of(14, name), expected[name]);
    EXPECT_EQ(bucket_of(14, 99), sw::NO_BUCKET);
}

TEST_F(KeyedCache, AnEqualKeyIsNotStoredTwice)
{
    record *r = insert(5, 1);
    record twin{5, 1, 77};
    EXPECT_FALSE(table::insert(cache, &twin));
    EXPECT_EQ(cache.size, 1u);
    EXPECT_EQ(table::find(cache, &twin), r);
}

TEST_F(KeyedCache, TheWholeKeyIsComparedAndNothingAfterIt)
{
    record *r = insert(5, 1);
    record *other = insert(5, 1u << 24 | 1);  // differs in the last byte of the key
    const record key{5, 1, 0xffffffff};
    EXPECT_EQ(table::find(cache, &key), r);
    EXPECT_NE(table::find(cache, other), r);
}

TEST_F(KeyedCache, RemovalMarksTheBucketDeletedAndKeepsItOccupied)
{
    record *r = insert(2, 1);
    EXPECT_EQ(table::remove(cache, r), r);
    EXPECT_EQ(state(2), BUCKET_DELETED);
    EXPECT_EQ(cache.size, 0u);
    EXPECT_EQ(cache.occupied, 1u);
    EXPECT_EQ(table::find(cache, r), nullptr);
    EXPECT_EQ(table::remove(cache, r), nullptr);
    EXPECT_EQ(cache.size, 0u);
}

TEST_F(KeyedCache, AProbePassesDeletedBuckets)
{
    grow_to(16);
    record *first = insert(3, 1);
    record *second = insert(3, 2);
    record *third = insert(3, 3);
    table::remove(cache, first);
    table::remove(cache, second);
    EXPECT_EQ(table::find(cache, third), third);
    record twin{3, 3, 0};
    EXPECT_FALSE(table::insert(cache, &twin));  // found behind the deleted ones, so none of them is taken
    EXPECT_EQ(state(3), BUCKET_DELETED);
    EXPECT_EQ(state(4), BUCKET_DELETED);
}

TEST_F(KeyedCache, AnAbsentKeyTakesTheFirstDeletedBucketOnItsWay)
{
    grow_to(16);
    for (uint32_t name = 0; name < 4; ++name)
        insert(3, name);  // buckets 3, 4, 6, 9
    record second{3, 1, 0}, third{3, 2, 0};
    table::remove(cache, &second);
    table::remove(cache, &third);
    ASSERT_EQ(cache.occupied, 4u);
    insert(3, 50);
    EXPECT_EQ(bucket_of(3, 50), 4u);
    EXPECT_EQ(cache.occupied, 4u);
    EXPECT_EQ(cache.size, 3u);
    insert(3, 51);
    EXPECT_EQ(bucket_of(3, 51), 6u);
    insert(3, 52);
    EXPECT_EQ(bucket_of(3, 52), 13u);  // 9 + 4: a bucket that was empty
    EXPECT_EQ(cache.occupied, 5u);
}

TEST_F(KeyedCache, RebuildsAtTheSameSizeWhenFewerThanHalfOfTheBucketsAreLive)
{
    record *kept = insert(0, 1);
    table::remove(cache, insert(1, 2));
    table::remove(cache, insert(2, 3));
    ASSERT_EQ(cache.occupied, 3u);  // the upper bound; one live: 4 > 2 * 1
    record *added = insert(3, 4);
    EXPECT_EQ(cache.bucket_count, 4u);
    EXPECT_EQ(cache.size, 2u);
    EXPECT_EQ(cache.occupied, 2u);
    EXPECT_EQ(state(1), BUCKET_EMPTY);
    EXPECT_EQ(state(2), BUCKET_EMPTY);
    EXPECT_EQ(table::find(cache, kept), kept);
    EXPECT_EQ(table::find(cache, added), added);
}

TEST_F(KeyedCache, GrowsWhenHalfOfTheBucketsAreLive)
{
    insert(0, 1);
    insert(1, 2);
    table::remove(cache, insert(2, 3));
    insert(3, 4);  // two live: 4 is not more than 2 * 2
    EXPECT_EQ(cache.bucket_count, 8u);
    EXPECT_EQ(cache.size, 3u);
    EXPECT_EQ(cache.occupied, 3u);
}

TEST_F(KeyedCache, NeverShrinks)
{
    std::vector<record *> stored;
    for (uint32_t i = 0; i < 100; ++i)
        stored.push_back(insert(i, i));
    const uint32_t largest = cache.bucket_count;
    for (record *r : stored)
        table::remove(cache, r);
    for (uint32_t i = 0; i < 1000; ++i)
        table::remove(cache, insert(i, 5000 + i));
    EXPECT_EQ(cache.bucket_count, largest);
    EXPECT_EQ(cache.size, 0u);
}

TEST_F(KeyedCache, GrowthLooksAtNoRecord)
{
    for (uint32_t i = 0; i < 100; ++i)
        insert(i * 2654435761u, i);
    const std::vector<record> saved(records.begin(), records.end());
    for (record &r : records)
        r = {0, 0, 0};
    ASSERT_TRUE(sw::keyed_cache_make_room(cache));
    for (size_t i = 0; i < saved.size(); ++i)
        records[i] = saved[i];
    for (record &r : records)
        EXPECT_EQ(table::find(cache, &r), &r);
}

TEST_F(KeyedCache, RecordsThatFindTheirNewBucketTakenMoveItsOwnerOn)
{
    insert(1, 1);   // bucket 1, and 1 of eight as well
    insert(5, 2);   // collides at 1, goes to 2; its new bucket is 5
    insert(2, 3);   // collides at 2, goes to 3; its new bucket is 2
    insert(10, 4);  // grows, then collides at 2 and goes to 3
    ASSERT_EQ(cache.bucket_count, 8u);
    EXPECT_EQ(bucket_of(1, 1), 1u);
    EXPECT_EQ(bucket_of(5, 2), 5u);
    EXPECT_EQ(bucket_of(2, 3), 2u);
    EXPECT_EQ(bucket_of(10, 4), 3u);
}

int frees;
void count_frees(void *block) { frees += block != nullptr; }

TEST_F(KeyedCache, GrowthWithoutMemoryStoresNothingAndLeavesTheTableAsItWas)
{
    for (uint32_t i = 0; i < 3; ++i)
        insert(i, i);
    record fourth{3, 3, 0};
    for (uint64_t nth = 1; nth <= 5; ++nth) {  // new: flags, control; enlarged: records, hashes, control
        frees = 0;
        recording::fail_allocation(nth);
        recording::on_free(count_frees);
        EXPECT_FALSE(table::insert(cache, &fourth)) << nth;
        recording::on_free(nullptr);
        EXPECT_EQ(recording::allocations(), std::max<uint64_t>(nth, 2));
        EXPECT_EQ(frees, nth > 2 ? 2 : 1) << nth;  // what is new
        recording::fail_allocation(0);
        EXPECT_EQ(cache.bucket_count, 4u);
        EXPECT_EQ(cache.upper_bound, 3u);
        EXPECT_EQ(cache.size, 3u);
        EXPECT_EQ(cache.occupied, 3u);
        EXPECT_EQ(table::find(cache, &fourth), nullptr);
        for (record &r : records)
            EXPECT_EQ(table::find(cache, &r), &r);
    }
    EXPECT_TRUE(table::insert(cache, &fourth));
    EXPECT_EQ(recording::allocations(), 5u);
    EXPECT_EQ(table::find(cache, &fourth), &fourth);
}

TEST_F(KeyedCache, RebuildingWithoutMemoryLeavesTheTableAsItWas)
{
    record *kept = insert(0, 1);
    table::remove(cache, insert(1, 2));
    table::remove(cache, insert(2, 3));
    record added{3, 4, 0};
    for (uint64_t nth = 1; nth <= 2; ++nth) {  // flags, control; the other arrays stay
        recording::fail_allocation(nth);
        EXPECT_FALSE(table::insert(cache, &added));
        recording::fail_allocation(0);
        EXPECT_EQ(cache.occupied, 3u);
        EXPECT_EQ(state(1), BUCKET_DELETED);
        EXPECT_EQ(table::find(cache, kept), kept);
    }
    EXPECT_TRUE(table::insert(cache, &added));
    EXPECT_EQ(recording::allocations(), 2u);
}

TEST_F(KeyedCache, TheFirstInsertionWithoutMemoryLeavesNothing)
{
    record r{1, 1, 0};
    for (uint64_t nth = 1; nth <= 5; ++nth) {
        recording::fail_allocation(nth);
        EXPECT_FALSE(table::insert(cache, &r));
        recording::fail_allocation(0);
        EXPECT_EQ(cache.bucket_count, 0u);
        EXPECT_EQ(table::find(cache, &r), nullptr);
    }
    EXPECT_TRUE(table::insert(cache, &r));
}

struct walk {
    std::vector<int32_t> positions;
    const record *removed = nullptr;
    sw::keyed_cache *cache = nullptr;
};

int32_t note_position(record *, void *arg, int32_t position)
{
    static_cast<walk *>(arg)->positions.push_back(position);
    return 0;
}

TEST_F(KeyedCache, WalksFindEveryLiveBucketOfTheRangeAndNoOther)
{
    grow_to(64);
    for (uint32_t bucket : {0u, 15u, 16u, 17u, 31u, 63u})
        insert(bucket, bucket);
    table::remove(cache, insert(20, 20));
    const auto range = [&](uint32_t first, uint32_t count) {
        walk w;
        EXPECT_EQ(sw::keyed_cache_walk(cache, first, count, note_position, &w), 0);
        return w.positions;
    };
    using positions = std::vector<int32_t>;
    EXPECT_EQ(range(0, UINT32_MAX), (positions{0, 15, 16, 17, 31, 63}));
    EXPECT_EQ(range(1, 14), positions{});
    EXPECT_EQ(range(1, 15), positions{15});
    EXPECT_EQ(range(15, 1), positions{15});
    EXPECT_EQ(range(16, 1), positions{16});
    EXPECT_EQ(range(17, 14), positions{17});
    EXPECT_EQ(range(32, 31), positions{});
    EXPECT_EQ(range(63, UINT32_MAX), positions{63});
    EXPECT_EQ(range(64, 1), positions{});
}

int32_t remove_another(record *, void *arg, int32_t position)
{
    auto *w = static_cast<walk *>(arg);
    w->positions.push_back(position);
    table::remove(*w->cache, w->removed);
    return 0;
}

TEST_F(KeyedCache, AWalkDoesNotMeetARecordThatItsVisitorRemoved)
{
    grow_to(16);
    insert(1, 1);
    const record *neighbour = insert(2, 2);
    insert(3, 3);
    walk w{{}, neighbour, &cache};
    EXPECT_EQ(sw::keyed_cache_walk(cache, 0, 16, remove_another, &w), 0);
    EXPECT_EQ(w.positions, (std::vector<int32_t>{1, 3}));
}

}  // namespace
