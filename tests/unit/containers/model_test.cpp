// Long random runs of both containers against standard ones, with good and bad hashes and with allocations that fail.
// A run is told by its seed, which a failure names.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <unordered_map>
#include <vector>

#include "keyed_cache.hpp"
#include "recording_platform.hpp"

namespace
{

using random_engine = std::mt19937;

uint32_t below(random_engine &random, uint32_t bound) { return static_cast<uint32_t>(random() % bound); }

// ---- keyed caches ---------------------------------------------------------------------------------------------------

struct keyed_record {
    std::array<uint32_t, 9> key;
    uint32_t data;
};

uint32_t number_of(const void *key) { return static_cast<const keyed_record *>(key)->key[8]; }

constexpr size_t KEY = sizeof(keyed_record::key);

// Hashes from good to as bad as can be: a run of neighbours, eight values, one value.
uint32_t hash_neighbours(const void *key) { return number_of(key); }
uint32_t hash_eight_values(const void *key) { return number_of(key) % 8 * 0x10001; }
uint32_t hash_one_value(const void *) { return 0xffffffff; }

// The rules that say which bucket a record is in, one step at a time and with nothing but the records themselves.
template <uint32_t (*Hash)(const void *)>
class plain_buckets
{
  public:
    struct bucket {
        sw::bucket_state state = sw::BUCKET_EMPTY;
        void *record = nullptr;
    };

    // An insertion of a key that is stored makes room too.
    void make_room_if_needed()
    {
        if (occupied_ >= sw::upper_bound_of(static_cast<uint32_t>(buckets_.size())))
            make_room();
    }

    void insert(void *record)
    {
        const size_t end = walk(Hash(record), [](const bucket &b) { return b.state == sw::BUCKET_EMPTY; });
        const size_t place = walk(Hash(record), [](const bucket &b) { return b.state != sw::BUCKET_LIVE; });
        occupied_ += place == end;
        buckets_[place] = {sw::BUCKET_LIVE, record};
        ++size_;
    }

    void remove(const void *record)
    {
        buckets_[walk(Hash(record), [&](const bucket &b) { return b.record == record; })] = {sw::BUCKET_DELETED,
                                                                                             nullptr};
        --size_;
    }

    const std::vector<bucket> &all() const { return buckets_; }

  private:
    template <class Test>
    size_t walk(size_t at, Test ends) const
    {
        at %= buckets_.size();
        for (size_t step = 1; !ends(buckets_[at]); ++step)
            at = (at + step) % buckets_.size();
        return at;
    }

    void make_room()
    {
        const size_t count = buckets_.size() > 2 * size_ ? buckets_.size() : std::max<size_t>(4, 2 * buckets_.size());
        std::vector<bucket> old = std::move(buckets_);
        buckets_.assign(count, {});
        old.resize(count);
        for (size_t from = 0; from < count; ++from) {
            // A record that wants the bucket of one that has not moved yet sends that one on its way.
            for (size_t moving = from; old[moving].state == sw::BUCKET_LIVE;) {
                void *record = old[moving].record;
                old[moving].state = sw::BUCKET_DELETED;
                moving = walk(Hash(record), [](const bucket &b) { return b.state == sw::BUCKET_EMPTY; });
                buckets_[moving] = {sw::BUCKET_LIVE, record};
            }
        }
        occupied_ = size_;
    }

    std::vector<bucket> buckets_;
    size_t size_ = 0, occupied_ = 0;
};

template <uint32_t (*Hash)(const void *)>
class keyed_run
{
  public:
    explicit keyed_run(uint32_t seed) : random_(seed), records_(2 * KEYS)
    {
        for (uint32_t i = 0; i < records_.size(); ++i) {
            records_[i].key.fill(0x5a5a5a5a);
            records_[i].key[8] = i % KEYS;  // two records of each key
        }
    }
    ~keyed_run() { sw::keyed_cache_clear(cache_); }

    void run(uint32_t steps)
    {
        for (uint32_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE(step);
            // Phases that mostly fill and mostly empty the table, so that it grows and is rebuilt.
            const bool filling = step / 1500 % 2 == 0;
            const uint32_t choice = below(random_, 10);
            if (choice == 0)
                walk();
            else if (choice <= 3)
                find();
            else if ((choice <= 8) == filling)
                insert();
            else
                remove();
            if (step % 64 == 0)
                check_all();
        }
        check_all();
    }

  private:
    using table = sw::keyed_table<KEY, Hash>;
    static constexpr uint32_t KEYS = 700;

    keyed_record &any() { return records_[below(random_, static_cast<uint32_t>(records_.size()))]; }

    void insert()
    {
        keyed_record &r = any();
        const sw::keyed_cache before = cache_;
        const bool needs_room = cache_.occupied >= cache_.upper_bound;
        const bool failing = below(random_, 2) == 0;
        if (failing)
            recording::fail_allocation(1 + below(random_, 3));
        const bool inserted = table::insert(cache_, &r);
        recording::fail_allocation(0);
        if (cache_.flags != before.flags)
            plain_.make_room_if_needed();
        if (inserted) {
            EXPECT_TRUE(model_.emplace(number_of(&r), &r).second);
            plain_.insert(&r);
        } else if (model_.count(number_of(&r)) == 0) {
            EXPECT_TRUE(failing && needs_room);
            EXPECT_EQ(cache_.bucket_count, before.bucket_count);
            EXPECT_EQ(cache_.occupied, before.occupied);
            EXPECT_EQ(cache_.upper_bound, before.upper_bound);
            EXPECT_EQ(cache_.flags, before.flags);
        }
    }

    void remove()
    {
        keyed_record &r = any();
        const auto known = model_.find(number_of(&r));
        EXPECT_EQ(table::remove(cache_, &r), known == model_.end() ? nullptr : known->second);
        if (known != model_.end()) {
            plain_.remove(known->second);
            model_.erase(known);
        }
    }

    void find()
    {
        const keyed_record &r = any();
        const auto known = model_.find(number_of(&r));
        EXPECT_EQ(table::find(cache_, &r), known == model_.end() ? nullptr : known->second);
    }

    // Visits all, removing every seventh of the visited.
    void walk()
    {
        visited_ = 0;
        const size_t expected = model_.size();
        EXPECT_EQ(sw::keyed_cache_walk(cache_, 0, UINT32_MAX, visit, this), 0);
        EXPECT_EQ(visited_, expected);
    }

    static int32_t visit(keyed_record *record, void *arg, int32_t)
    {
        auto *run = static_cast<keyed_run *>(arg);
        const auto known = run->model_.find(number_of(record));
        if (known == run->model_.end() || known->second != record)
            return -1;
        if (++run->visited_ % 7 == 0) {
            EXPECT_EQ(table::remove(run->cache_, record), record);
            run->plain_.remove(record);
            run->model_.erase(known);
        }
        return 0;
    }

    void check_all()
    {
        EXPECT_EQ(cache_.size, model_.size());
        EXPECT_LE(cache_.size, cache_.occupied);
        EXPECT_LE(cache_.occupied, cache_.upper_bound);
        ASSERT_EQ(cache_.bucket_count, plain_.all().size());
        uint32_t live = 0, occupied = 0;
        for (uint32_t i = 0; i < cache_.bucket_count; ++i) {
            const uint32_t state = sw::state_of(cache_.flags, i);
            live += state == sw::BUCKET_LIVE;
            occupied += state != sw::BUCKET_EMPTY;
            ASSERT_EQ(state, plain_.all()[i].state) << i;
            // What probes read tells the same as the flags that walks read.
            ASSERT_EQ(cache_.control[i], state == sw::BUCKET_LIVE      ? sw::fragment_of(Hash(cache_.keys[i]))
                                         : state == sw::BUCKET_DELETED ? sw::CONTROL_DELETED
                                                                       : sw::CONTROL_EMPTY);
            if (state == sw::BUCKET_LIVE) {
                ASSERT_EQ(cache_.keys[i], plain_.all()[i].record) << i;
                ASSERT_EQ(cache_.hashes[i], Hash(cache_.keys[i]));
            }
        }
        for (uint32_t i = 0; cache_.bucket_count != 0 && i < sw::CONTROL_REPEATED; ++i)
            ASSERT_EQ(cache_.control[cache_.bucket_count + i], cache_.control[i % cache_.bucket_count]);
        EXPECT_EQ(live, cache_.size);
        EXPECT_EQ(occupied, cache_.occupied);
        for (keyed_record &r : records_) {
            const auto known = model_.find(number_of(&r));
            ASSERT_EQ(table::find(cache_, &r), known == model_.end() ? nullptr : known->second);
        }
    }

    random_engine random_;
    std::vector<keyed_record> records_;
    sw::keyed_cache cache_{};
    std::unordered_map<uint32_t, keyed_record *> model_;
    plain_buckets<Hash> plain_;
    size_t visited_ = 0;
};

template <uint32_t (*Hash)(const void *)>
void run_keyed(uint32_t steps)
{
    for (uint32_t seed = 1; seed <= 8 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        keyed_run<Hash>(seed).run(steps);
    }
}

TEST(KeyedCacheModel, HoldsWithItsOwnHash) { run_keyed<sw::lookup2_of<KEY>>(20000); }

TEST(KeyedCacheModel, HoldsWithNeighbouringHashes) { run_keyed<hash_neighbours>(20000); }

TEST(KeyedCacheModel, HoldsWithEightHashes) { run_keyed<hash_eight_values>(6000); }

TEST(KeyedCacheModel, HoldsWithOneHash) { run_keyed<hash_one_value>(4000); }

// ---- the chained table ----------------------------------------------------------------------------------------------

struct chained_item {
    uint32_t key;
};

uint32_t hash_modulus;
uint32_t hash_chained(const void *item_or_key)
{
    return static_cast<const chained_item *>(item_or_key)->key * 2654435761u % hash_modulus;
}
int32_t compare_chained(const void *item, const void *key)
{
    return static_cast<const chained_item *>(item)->key == static_cast<const chained_item *>(key)->key ? 0 : 1;
}

using items = std::list<chained_item *>;

class chained_run
{
  public:
    explicit chained_run(uint32_t seed) : random_(seed), pool_(400)
    {
        for (chained_item &i : pool_)
            i.key = below(random_, 150);  // several items of a key
        table_ = sw_switch_create_hash(static_cast<int32_t>(below(random_, 100)), hash_chained, compare_chained);
        buckets_.resize(sw_switch_hash_get_table_size(table_));
    }
    ~chained_run()
    {
        sw_switch_hash_each_item_op(table_, delete_visited, table_);
        EXPECT_EQ(table_->item_count, 0u);
        sw_switch_destroy_hash(table_);
    }

    void run(uint32_t steps)
    {
        for (uint32_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE(step);
            const bool filling = step / 300 % 2 == 0;
            const uint32_t choice = below(random_, 10);
            if (choice < 2)
                find();
            else if ((choice < 8) == filling)
                insert();
            else
                remove();
            if (step % 32 == 0)
                check_all();
        }
        delete_some_while_walking();
        check_all();
    }

  private:
    static int32_t delete_visited(void *item, void *arg)
    {
        sw_switch_hash_del_item(static_cast<sw_switch_hash *>(arg), item);
        return 0;
    }

    items &bucket_of(const chained_item *item) { return buckets_[hash_chained(item) % buckets_.size()]; }

    items::iterator first_match(const chained_item *key)
    {
        items &bucket = bucket_of(key);
        return std::find_if(bucket.begin(), bucket.end(), [&](chained_item *i) { return i->key == key->key; });
    }

    void insert()
    {
        chained_item *item = &pool_[below(random_, static_cast<uint32_t>(pool_.size()))];
        if (std::find(all_.begin(), all_.end(), item) != all_.end())
            return;  // an item is stored once, so that the model's lists can tell which node went
        const bool failing = below(random_, 8) == 0;
        const bool tail = below(random_, 2) == 0;
        if (failing)
            recording::fail_allocation(1);
        const int32_t result =
            tail ? sw_switch_hash_insert_item_tail(table_, item) : sw_switch_hash_insert_item(table_, item);
        recording::fail_allocation(0);
        EXPECT_EQ(result, failing ? -12 : 0);
        if (failing)
            return;
        items &bucket = bucket_of(item);
        bucket.insert(tail ? bucket.end() : bucket.begin(), item);
        all_.insert(tail ? all_.end() : all_.begin(), item);
    }

    void remove()
    {
        const chained_item key{below(random_, 160)};
        const auto known = first_match(&key);
        const bool present = known != bucket_of(&key).end();
        EXPECT_EQ(sw_switch_hash_del_item_rt(table_, &key), present ? 0 : -1);
        if (present) {
            all_.remove(*known);
            bucket_of(&key).erase(known);
        }
    }

    void find()
    {
        const chained_item key{below(random_, 160)};
        const auto known = first_match(&key);
        chained_item *expected = known == bucket_of(&key).end() ? nullptr : *known;
        EXPECT_EQ(sw_switch_hash_find_item(table_, &key), expected);
        EXPECT_EQ(sw_switch_hash_get_all_item(table_, &key), expected);
    }

    struct deletion {
        chained_run *run;
        uint32_t visited;
    };

    // Deletes by key, so the node that goes is the bucket's first of the visited item's key: only when that is the
    // visited item itself may it go now.
    static int32_t delete_when_first(void *item, void *arg)
    {
        auto *d = static_cast<deletion *>(arg);
        auto *visited = static_cast<chained_item *>(item);
        ++d->visited;
        const auto known = d->run->first_match(visited);
        if (*known != visited)
            return 0;
        sw_switch_hash_del_item(d->run->table_, visited);
        d->run->bucket_of(visited).erase(known);
        d->run->all_.remove(visited);
        return 0;
    }

    void delete_some_while_walking()
    {
        const size_t before = all_.size();
        deletion d{this, 0};
        EXPECT_EQ(sw_switch_hash_each_item_op(table_, delete_when_first, &d), 0);
        EXPECT_EQ(d.visited, before);
    }

    static int32_t collect(void *item, void *arg)
    {
        static_cast<items *>(arg)->push_back(static_cast<chained_item *>(item));
        return 0;
    }

    void check_all()
    {
        EXPECT_EQ(table_->item_count, all_.size());
        items seen;
        sw_switch_hash_each_item_op(table_, collect, &seen);
        EXPECT_EQ(seen, all_);
        for (size_t i = 0; i < buckets_.size(); ++i) {
            items in_bucket;
            sw_switch_hash_each_item_op_with_index(table_, static_cast<int32_t>(i), 1, collect, &in_bucket);
            ASSERT_EQ(in_bucket, buckets_[i]);
            EXPECT_EQ(table_->bucket_items[i], static_cast<uint8_t>(buckets_[i].size()));
        }
    }

    random_engine random_;
    std::vector<chained_item> pool_;
    sw_switch_hash *table_;
    items all_;
    std::vector<items> buckets_;
};

void run_chained(uint32_t modulus)
{
    hash_modulus = modulus;
    for (uint32_t seed = 1; seed <= 8 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        chained_run(seed).run(4000);
    }
}

TEST(SwitchHashModel, HoldsWithASpreadHash) { run_chained(0x7fffffff); }

TEST(SwitchHashModel, HoldsWithThreeHashes) { run_chained(3); }

TEST(SwitchHashModel, HoldsWithOneHash) { run_chained(1); }

}  // namespace
