// The seven cache families through their exported functions: one suite, run for each.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "keyed_cache.hpp"
#include "lookup2.hpp"
#include "recording_platform.hpp"
#include "sw_ebridge.h"

namespace
{

// name, record type and length of the key of a family
#define FAMILY(name, record_type, key_bytes)                                    \
    struct name##_family {                                                      \
        using record = record_type;                                             \
        static constexpr size_t KEY = key_bytes;                                \
        static constexpr auto init = name##_hash_init;                          \
        static constexpr auto insert = name##_hash_insert;                      \
        static constexpr auto remove = name##_hash_remove;                      \
        static constexpr auto find = name##_hash_find;                          \
        static constexpr auto traverse = name##_hash_traverse;                  \
        static constexpr auto traverse_range = name##_hash_traverse_with_index; \
        static constexpr auto size = name##_hash_size;                          \
        static constexpr auto create = name##_cache_create;                     \
        static constexpr auto destroy = name##_cache_destroy;                   \
    };

FAMILY(sw_ebridge_list_item, sw_ebridge_list_item, 32)
FAMILY(sw_evlan, sw_evlan_attr, 36)
FAMILY(sw_eport, sw_eport_attr, 36)
FAMILY(sw_ematch_item, sw_ematch_item, sizeof(void *) == 4 ? 92 : 96)
FAMILY(sw_evlan_index_map, sw_evlan_index_map, 16)
FAMILY(sw_eport_index_map, sw_eport_index_map, 20)
FAMILY(sw_vlan_pvid_entry, sw_vlan_pvid_entry, 4)

constexpr uint32_t TABLES = 6;

template <class Family>
class CacheFamily : public testing::Test
{
  protected:
    using record = typename Family::record;

    ~CacheFamily() override
    {
        recording::fail_allocation(0);
        recording::on_free(nullptr);
    }

    // A record whose key is made from `number` and whose other bytes are all `data`.
    static record make(uint32_t number, uint8_t data = 0)
    {
        record r;
        std::memset(static_cast<void *>(&r), data, sizeof r);
        std::memset(static_cast<void *>(&r), static_cast<int>(number * 7), Family::KEY);
        std::memcpy(static_cast<void *>(&r), &number, sizeof number);
        return r;
    }

    // The same with another byte in the key's last place, or right after the key.
    static record make_with_byte(uint32_t number, size_t offset, uint8_t value)
    {
        record r = make(number);
        reinterpret_cast<uint8_t *>(&r)[offset] = value;
        return r;
    }

    static uint32_t hash(const record &r) { return sw::lookup2(reinterpret_cast<const uint8_t *>(&r), Family::KEY); }

    struct visit {
        record *visited;
        int32_t position;
    };
    struct walk {
        std::vector<visit> visits;
        size_t stop_after = SIZE_MAX;
        bool destroy = false;
    };

    static int32_t visitor(record *visited, void *arg, int32_t position)
    {
        auto *w = static_cast<walk *>(arg);
        w->visits.push_back({visited, position});
        if (w->destroy)
            Family::destroy(0, visited);
        return w->visits.size() > w->stop_after ? 41 : 0;
    }

    static size_t visited_in_range(int32_t first, uint32_t count)
    {
        walk w;
        EXPECT_EQ(Family::traverse_range(0, first, count, visitor, &w), 0);
        for (const visit &v : w.visits)
            EXPECT_GE(v.position, first);
        return w.visits.size();
    }

    static void make_tables() { ASSERT_EQ(Family::init(TABLES), 0); }

    static std::vector<record *> create(uint32_t count)
    {
        std::vector<record *> stored(count);
        for (uint32_t i = 0; i < count; ++i) {
            const record r = make(i);
            Family::create(0, &stored[i], &r);
        }
        return stored;
    }

    static void destroy_all()
    {
        walk w;
        w.destroy = true;
        for (uint32_t t = 0; t < TABLES; ++t)
            Family::traverse(t, visitor, &w);
    }
};

using Families = testing::Types<sw_ebridge_list_item_family, sw_evlan_family, sw_eport_family, sw_ematch_item_family,
                                sw_evlan_index_map_family, sw_eport_index_map_family, sw_vlan_pvid_entry_family>;
TYPED_TEST_SUITE(CacheFamily, Families);

TYPED_TEST(CacheFamily, KeyLengthIsThatOfItsFields)
{
    EXPECT_EQ(sw::record_key<typename TypeParam::record>::length, TypeParam::KEY);
}

TYPED_TEST(CacheFamily, MissingTablesAreEmpty)
{
    auto r = this->make(1);
    typename TestFixture::walk w;
    const auto expect_nothing = [&](uint32_t table) {
        EXPECT_FALSE(sw::family<typename TypeParam::record>::exists(table));
        EXPECT_EQ(TypeParam::insert(table, &r), 0);
        EXPECT_EQ(TypeParam::find(table, &r), nullptr);
        TypeParam::remove(table, &r);
        EXPECT_EQ(TypeParam::size(table), 0u);
        EXPECT_EQ(TypeParam::traverse(table, this->visitor, &w), 0);
        EXPECT_EQ(TypeParam::traverse_range(table, 0, 100, this->visitor, &w), 0);
        auto *stored = &r;
        TypeParam::create(table, &stored, &r);
        EXPECT_EQ(stored, nullptr);
        TypeParam::destroy(table, &r);
    };
    expect_nothing(0);
    this->make_tables();
    expect_nothing(TABLES);
    expect_nothing(UINT32_MAX);
    EXPECT_TRUE(w.visits.empty());
}

TYPED_TEST(CacheFamily, InitMakesThatManyEmptyTables)
{
    this->make_tables();
    for (uint32_t t = 0; t < TABLES; ++t) {
        EXPECT_TRUE(sw::family<typename TypeParam::record>::exists(t));
        EXPECT_EQ(TypeParam::size(t), 0u);
    }
}

TYPED_TEST(CacheFamily, InitWithoutMemoryMakesNoneAndMayBeRepeated)
{
    recording::fail_allocation(1);
    EXPECT_EQ(TypeParam::init(TABLES), -1);
    recording::fail_allocation(0);
    EXPECT_FALSE(sw::family<typename TypeParam::record>::exists(0));
    EXPECT_EQ(TypeParam::init(TABLES), 0);
    EXPECT_TRUE(sw::family<typename TypeParam::record>::exists(TABLES - 1));
}

TYPED_TEST(CacheFamily, ASecondInitKeepsTheTablesAndTheirRecords)
{
    this->make_tables();
    auto r = this->make(1);
    TypeParam::insert(3, &r);
    EXPECT_EQ(TypeParam::init(TABLES), 0);
    EXPECT_EQ(TypeParam::find(3, &r), &r);
}

TYPED_TEST(CacheFamily, StoresThePointerOfTheFirstRecordOfAKey)
{
    this->make_tables();
    auto r = this->make(1), twin = this->make(1, 9);
    EXPECT_EQ(TypeParam::insert(0, &r), 0);
    EXPECT_EQ(TypeParam::insert(0, &twin), 0);
    EXPECT_EQ(TypeParam::size(0), 1u);
    EXPECT_EQ(TypeParam::find(0, &twin), &r);
}

TYPED_TEST(CacheFamily, TablesAreIndependent)
{
    this->make_tables();
    auto r = this->make(1);
    TypeParam::insert(1, &r);
    EXPECT_EQ(TypeParam::find(0, &r), nullptr);
    EXPECT_EQ(TypeParam::find(1, &r), &r);
    EXPECT_EQ(TypeParam::size(0), 0u);
    EXPECT_EQ(TypeParam::size(1), 1u);
}

TYPED_TEST(CacheFamily, RemovalTakesTheRecordOutAndFreesNothing)
{
    this->make_tables();
    auto r = this->make(1), other = this->make(2);
    TypeParam::insert(0, &r);
    TypeParam::insert(0, &other);
    const auto key = this->make(1, 5);
    TypeParam::remove(0, &key);
    EXPECT_EQ(TypeParam::find(0, &r), nullptr);
    EXPECT_EQ(TypeParam::find(0, &other), &other);
    TypeParam::remove(0, &key);
    EXPECT_EQ(TypeParam::size(0), 1u);
}

TYPED_TEST(CacheFamily, KeysDifferUpToTheirLastByteAndNoFurther)
{
    this->make_tables();
    auto r = this->make(1);
    TypeParam::insert(0, &r);
    const auto other = this->make_with_byte(1, TypeParam::KEY - 1, 0xee);
    EXPECT_EQ(TypeParam::find(0, &other), nullptr);
    const auto same = this->make_with_byte(1, TypeParam::KEY, 0xee);
    EXPECT_EQ(TypeParam::find(0, &same), &r);
}

// Alone in a table a record is in the bucket of its hash, and a walk tells which that is.
TYPED_TEST(CacheFamily, TheBucketIsThatOfTheHashOfTheWholeKey)
{
    this->make_tables();
    for (uint32_t i = 0; i < 100; ++i) {
        auto r = this->make(i);
        TypeParam::insert(0, &r);
        typename TestFixture::walk w;
        TypeParam::traverse(0, this->visitor, &w);
        ASSERT_EQ(w.visits.size(), 1u);
        EXPECT_EQ(static_cast<uint32_t>(w.visits[0].position), this->hash(r) % 4);
        TypeParam::remove(0, &r);
    }
}

TYPED_TEST(CacheFamily, CreateStoresACopyAndGivesIt)
{
    this->make_tables();
    const auto r = this->make(1, 3);
    typename TypeParam::record *stored = nullptr;
    TypeParam::create(0, &stored, &r);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, &r);
    EXPECT_EQ(std::memcmp(stored, &r, sizeof r), 0);
    EXPECT_EQ(TypeParam::find(0, &r), stored);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, CreateCopiesOverTheStoredRecordOfItsKey)
{
    this->make_tables();
    const auto r = this->make(1, 3), newer = this->make(1, 4);
    typename TypeParam::record *stored = nullptr, *again = nullptr;
    TypeParam::create(0, &stored, &r);
    recording::fail_allocation(1, true);  // in place: nothing is allocated
    TypeParam::create(0, &again, &newer);
    recording::fail_allocation(0);
    EXPECT_EQ(again, stored);
    EXPECT_EQ(TypeParam::size(0), 1u);
    EXPECT_EQ(std::memcmp(stored, &newer, sizeof newer), 0);
    TypeParam::create(0, &again, stored);  // the stored record itself
    EXPECT_EQ(std::memcmp(stored, &newer, sizeof newer), 0);
    this->destroy_all();
}

size_t frees;
void count_frees(void *block) { frees += block != nullptr; }

TYPED_TEST(CacheFamily, CreateWithoutMemoryStoresNothingAndKeepsNothing)
{
    this->make_tables();
    const auto r = this->make(1);
    for (uint64_t nth = 1; nth <= 4; ++nth) {  // the copy, then the table's three arrays
        auto *stored = const_cast<typename TypeParam::record *>(&r);
        frees = 0;
        recording::fail_allocation(nth, true);
        recording::on_free(count_frees);
        TypeParam::create(0, &stored, &r);
        recording::on_free(nullptr);
        recording::fail_allocation(0);
        EXPECT_EQ(stored, nullptr) << nth;
        EXPECT_EQ(TypeParam::size(0), 0u);
        EXPECT_EQ(TypeParam::find(0, &r), nullptr);
        EXPECT_EQ(frees > 0, nth > 1) << nth;
    }
    typename TypeParam::record *stored = nullptr;
    TypeParam::create(0, &stored, &r);
    EXPECT_NE(stored, nullptr);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, InsertWithoutMemoryStoresNothingAndReturnsZero)
{
    this->make_tables();
    auto r = this->make(1);
    recording::fail_allocation(1);
    EXPECT_EQ(TypeParam::insert(0, &r), 0);
    recording::fail_allocation(0);
    EXPECT_EQ(TypeParam::size(0), 0u);
    EXPECT_EQ(TypeParam::find(0, &r), nullptr);
}

void *last_freed;
void note_last_freed(void *block) { last_freed = block; }

TYPED_TEST(CacheFamily, DestroyFreesTheStoredRecordOfTheKey)
{
    this->make_tables();
    const auto stored = this->create(2);
    const auto key = this->make(0, 8), absent = this->make(77);
    recording::on_free(note_last_freed);
    TypeParam::destroy(0, &key);
    recording::on_free(nullptr);
    EXPECT_EQ(last_freed, stored[0]);
    EXPECT_EQ(TypeParam::find(0, &key), nullptr);
    TypeParam::destroy(0, &absent);
    EXPECT_EQ(TypeParam::size(0), 1u);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, WalksVisitEachRecordOnceInBucketOrder)
{
    this->make_tables();
    const auto stored = this->create(300);
    typename TestFixture::walk w;
    EXPECT_EQ(TypeParam::traverse(0, this->visitor, &w), 0);
    std::map<const void *, int> times;
    int32_t last = -1;
    for (const auto &v : w.visits) {
        EXPECT_GT(v.position, last);
        last = v.position;
        ++times[v.visited];
    }
    EXPECT_LT(last, 512);
    EXPECT_EQ(times.size(), stored.size());
    for (const auto *r : stored)
        EXPECT_EQ(times[r], 1);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, WalksStopAtTheFirstNonZeroResultAndReturnIt)
{
    this->make_tables();
    this->create(10);
    typename TestFixture::walk w;
    w.stop_after = 2;
    EXPECT_EQ(TypeParam::traverse(0, this->visitor, &w), 41);
    EXPECT_EQ(w.visits.size(), 3u);
    w.visits.clear();
    EXPECT_EQ(TypeParam::traverse_range(0, 0, 16, this->visitor, &w), 41);
    EXPECT_EQ(w.visits.size(), 3u);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, AVisitorMayDestroyTheRecordThatItIsGiven)
{
    this->make_tables();
    this->create(100);
    typename TestFixture::walk w;
    w.destroy = true;
    EXPECT_EQ(TypeParam::traverse(0, this->visitor, &w), 0);
    EXPECT_EQ(w.visits.size(), 100u);
    EXPECT_EQ(TypeParam::size(0), 0u);
}

TYPED_TEST(CacheFamily, RangesCoverTheBucketsThatExist)
{
    this->make_tables();
    EXPECT_EQ(this->visited_in_range(0, UINT32_MAX), 0u);  // a table without memory
    this->create(10);                                      // 16 buckets
    EXPECT_EQ(this->visited_in_range(0, 16), 10u);
    EXPECT_EQ(this->visited_in_range(0, 7) + this->visited_in_range(7, 9), 10u);
    EXPECT_EQ(this->visited_in_range(7, 9), this->visited_in_range(7, 1000));
    EXPECT_EQ(this->visited_in_range(7, 9), this->visited_in_range(7, UINT32_MAX));  // no wrap-around
    EXPECT_EQ(this->visited_in_range(0, 0), 0u);
    EXPECT_EQ(this->visited_in_range(16, 1), 0u);
    EXPECT_EQ(this->visited_in_range(INT32_MAX, UINT32_MAX), 0u);
    EXPECT_EQ(this->visited_in_range(-1, 16), 0u);
    EXPECT_EQ(this->visited_in_range(INT32_MIN, UINT32_MAX), 0u);
    this->destroy_all();
}

TYPED_TEST(CacheFamily, NullArgumentsAreRefused)
{
    this->make_tables();
    const auto r = this->make(1);
    EXPECT_EQ(TypeParam::insert(0, nullptr), 0);
    EXPECT_EQ(TypeParam::find(0, nullptr), nullptr);
    TypeParam::remove(0, nullptr);
    TypeParam::destroy(0, nullptr);
    auto *stored = const_cast<typename TypeParam::record *>(&r);
    TypeParam::create(0, &stored, nullptr);
    EXPECT_EQ(stored, nullptr);
    TypeParam::create(0, nullptr, &r);
    EXPECT_EQ(TypeParam::size(0), 1u);
    EXPECT_EQ(TypeParam::traverse(0, nullptr, nullptr), 0);
    EXPECT_EQ(TypeParam::traverse_range(0, 0, 4, nullptr, nullptr), 0);
    this->destroy_all();
}

TEST(InstanceRecords, NamesThatDifferOnlyAfterTheirFieldAreTheSameKey)
{
    ASSERT_EQ(sw_ebridge_list_item_hash_init(TABLES), 0);
    sw_ebridge_list_item a{}, b{};
    std::strcpy(a.user_name, "a name of exactly 31 characters");
    static_assert(sizeof "a name of exactly 31 characters" == SW_EBRIDGE_NAME_SIZE);
    std::memcpy(b.user_name, a.user_name, sizeof b.user_name);
    b.mod_db = 4;
    sw_ebridge_list_item_hash_insert(0, &a);
    EXPECT_EQ(sw_ebridge_list_item_hash_find(0, &b), &a);
}

}  // namespace
