// The hash containers: the chained table sw_switch_hash, the memory of the keyed caches (keyed_cache.hpp), and the
// exported functions of the seven cache families.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "export.hpp"
#include "keyed_cache.hpp"
#include "list.hpp"
#include "print.hpp"
#include "sw_ebridge.h"

// ---- keyed caches: memory -------------------------------------------------------------------------------------------

namespace sw
{
namespace
{

constexpr uint32_t MIN_BUCKETS = 4;
// Bucket numbers stay positive as int32_t, and the arrays' sizes in bytes fit a size_t.
constexpr uint32_t MAX_BUCKETS =
    std::bit_floor(static_cast<uint32_t>(std::min<size_t>(INT32_MAX, SIZE_MAX / sizeof(void *))));

template <class Element>
bool enlarge(Element *&array, size_t count)
{
    void *larger = std::realloc(static_cast<void *>(array), count * sizeof(Element));
    if (larger == nullptr)
        return false;
    array = static_cast<Element *>(larger);
    return true;
}

// Memory of that many bytes, each of that value; null without.
void *new_filled(size_t bytes, uint8_t value)
{
    void *memory = std::malloc(bytes);
    return memory == nullptr ? nullptr : std::memset(memory, value, bytes);
}

// The first empty bucket on the way of a hash in the arrays after growth, which have no deleted buckets.
uint32_t first_empty(const uint8_t *control, uint32_t mask, uint32_t hash)
{
    const probe_window window(control + (hash & mask));
    if (window.empty() != 0)
        return (hash + probe_window::offset_of(window.empty())) & mask;
    uint32_t bucket = (hash + probe_window::NEXT_OFFSET) & mask;
    for (uint32_t step = probe_window::STEPS + 1; control[bucket] != CONTROL_EMPTY; ++step)
        bucket = (bucket + step) & mask;
    return bucket;
}

// Puts all records where the buckets of `cache` want them, in place: a record that finds its new bucket taken by one
// that has not moved yet takes the bucket, and the one kicked out moves next. `unmoved` is the control of the old
// buckets, as long as that of the new.
void move_records(const keyed_cache &cache, uint8_t *unmoved, uint32_t old_count)
{
    for (uint32_t from = 0; from < old_count; ++from) {
        if (unmoved[from] >= CONTROL_EMPTY)
            continue;
        unmoved[from] = CONTROL_DELETED;
        void *record = cache.keys[from];
        uint32_t hash = cache.hashes[from];
        for (bool kicked_out = true; kicked_out;) {
            const uint32_t to = first_empty(cache.control, cache.bucket_count - 1, hash);
            set_control(cache, to, fragment_of(hash));
            set_state(cache.flags, to, BUCKET_LIVE);
            kicked_out = unmoved[to] < CONTROL_EMPTY;
            unmoved[to] = CONTROL_DELETED;
            record = std::exchange(cache.keys[to], record);
            hash = std::exchange(cache.hashes[to], hash);
        }
    }
}

// The arrays that records move in and out of, enlarged; one that was before another could not be serves the old bucket
// count as well.
bool enlarge_in_place(keyed_cache &cache, uint32_t count)
{
    if (!enlarge(cache.keys, count) || !enlarge(cache.hashes, count) ||
        !enlarge(cache.control, size_t{count} + CONTROL_REPEATED))
        return false;
    std::memset(cache.control + cache.bucket_count, CONTROL_EMPTY, count - cache.bucket_count);
    return true;
}

}  // namespace

// One bit, the lower of its pair, for each live bucket of a word of flags, without the buckets before `first` and from
// `end` on.
static uint32_t live_pairs(const uint32_t *flags, uint32_t base, uint64_t first, uint64_t end)
{
    const uint32_t word = flags[base / 16];
    uint32_t live = ~(word | word >> 1) & 0x55555555;
    if (first > base)
        live &= ~0u << (first - base) * 2;
    if (end < base + 16)
        live &= ~(~0u << (end - base) * 2);
    return live;
}

int32_t keyed_cache_walk_any(const keyed_cache &cache, uint32_t first, uint32_t count,
                             int32_t (*visit)(void *record, void *arg, int32_t position), void *arg)
{
    const uint64_t end = std::min<uint64_t>(uint64_t{first} + count, cache.bucket_count);
    for (uint32_t base = first / 16 * 16; base < end; base += 16) {
        for (uint32_t live = live_pairs(cache.flags, base, first, end); live != 0; live &= live - 1) {
            const uint32_t bucket = base + static_cast<uint32_t>(std::countr_zero(live)) / 2;
            if (cache.control[bucket] >= CONTROL_EMPTY)
                continue;
            const int32_t result = visit(cache.keys[bucket], arg, static_cast<int32_t>(bucket));
            if (result != 0)
                return result;
        }
    }
    return 0;
}

bool keyed_cache_make_room(keyed_cache &cache)
{
    const bool mostly_deleted = cache.bucket_count > uint64_t{2} * cache.size;
    if (!mostly_deleted && cache.bucket_count >= MAX_BUCKETS)
        return false;
    const uint32_t count = mostly_deleted ? cache.bucket_count : std::max(MIN_BUCKETS, cache.bucket_count * 2);
    void *flags = new_filled(size_t{(count + 15) / 16} * sizeof(uint32_t), 0xAA);  // BUCKET_EMPTY in every pair
    void *control = new_filled(size_t{count} + CONTROL_REPEATED, CONTROL_EMPTY);
    if (flags == nullptr || control == nullptr || (!mostly_deleted && !enlarge_in_place(cache, count))) {
        std::free(flags);
        std::free(control);
        return false;
    }
    std::free(cache.flags);
    cache.flags = static_cast<uint32_t *>(flags);
    uint8_t *unmoved = std::exchange(cache.control, static_cast<uint8_t *>(control));
    const uint32_t old_count = std::exchange(cache.bucket_count, count);
    move_records(cache, unmoved, old_count);
    std::free(unmoved);
    cache.occupied = cache.size;
    cache.upper_bound = upper_bound_of(count);
    return true;
}

// Where a record of that key goes: the first deleted bucket on the probe's way, else the empty one at its end. NO_BUCKET
// when the key is stored.
static uint32_t find_place(const keyed_cache &cache, const void *key, size_t length, uint32_t hash)
{
    const auto holds = [&](uint32_t bucket) { return std::memcmp(cache.keys[bucket], key, length) == 0; };
    const uint32_t mask = cache.bucket_count - 1;
    const probe_window window(cache.control + (hash & mask));
    for (uint64_t match = window.matches(fragment_of(hash)); match != 0; match &= match - 1)
        if (holds((hash + probe_window::offset_of(match)) & mask))
            return NO_BUCKET;
    const uint64_t not_live = window.not_live();
    uint32_t usable = not_live == 0 ? NO_BUCKET : (hash + probe_window::offset_of(not_live)) & mask;
    if (window.empty() != 0)
        return usable;
    uint32_t bucket = (hash + probe_window::NEXT_OFFSET) & mask;
    for (uint32_t step = probe_window::STEPS + 1; cache.control[bucket] != CONTROL_EMPTY; ++step) {
        if (cache.control[bucket] == fragment_of(hash) && holds(bucket))
            return NO_BUCKET;
        if (usable == NO_BUCKET && cache.control[bucket] == CONTROL_DELETED)
            usable = bucket;
        bucket = (bucket + step) & mask;
    }
    return usable == NO_BUCKET ? bucket : usable;
}

bool keyed_cache_insert(keyed_cache &cache, void *record, size_t length, uint32_t hash)
{
    if (cache.occupied >= cache.upper_bound && !keyed_cache_make_room(cache))
        return false;
    const uint32_t bucket = find_place(cache, record, length, hash);
    if (bucket == NO_BUCKET)
        return false;
    cache.occupied += cache.control[bucket] == CONTROL_EMPTY;
    cache.keys[bucket] = record;
    cache.hashes[bucket] = hash;
    set_control(cache, bucket, fragment_of(hash));
    set_state(cache.flags, bucket, BUCKET_LIVE);
    ++cache.size;
    return true;
}

void keyed_cache_clear(keyed_cache &cache)
{
    std::free(cache.flags);
    std::free(static_cast<void *>(cache.keys));
    std::free(cache.hashes);
    std::free(cache.control);
    cache = {};
}

}  // namespace sw

// ---- keyed caches: the families -------------------------------------------------------------------------------------

#define SW_CACHE_FAMILY(name, record)                                                                                \
    SW_EXPORT int32_t name##_hash_init(uint32_t tables) { return sw::family<record>::init(tables); }                 \
    SW_EXPORT int32_t name##_hash_insert(uint32_t table, record *item)                                               \
    {                                                                                                                \
        return sw::family<record>::insert(table, item);                                                              \
    }                                                                                                                \
    SW_EXPORT void name##_hash_remove(uint32_t table, const record *key) { sw::family<record>::remove(table, key); } \
    SW_EXPORT record *name##_hash_find(uint32_t table, const record *key)                                            \
    {                                                                                                                \
        return sw::family<record>::find(table, key);                                                                 \
    }                                                                                                                \
    SW_EXPORT int32_t name##_hash_traverse(uint32_t table, name##_visitor visitor, void *arg)                        \
    {                                                                                                                \
        return sw::family<record>::traverse(table, 0, UINT32_MAX, visitor, arg);                                     \
    }                                                                                                                \
    SW_EXPORT int32_t name##_hash_traverse_with_index(uint32_t table, int32_t first, uint32_t count,                 \
                                                      name##_visitor visitor, void *arg)                             \
    {                                                                                                                \
        return sw::family<record>::traverse(table, first, count, visitor, arg);                                      \
    }                                                                                                                \
    SW_EXPORT uint32_t name##_hash_size(uint32_t table) { return sw::family<record>::size(table); }                  \
    SW_EXPORT void name##_cache_create(uint32_t table, record **stored, const record *item)                          \
    {                                                                                                                \
        record *result = sw::family<record>::create(table, item);                                                    \
        if (stored != nullptr)                                                                                       \
            *stored = result;                                                                                        \
    }                                                                                                                \
    SW_EXPORT void name##_cache_destroy(uint32_t table, const record *key) { sw::family<record>::destroy(table, key); }

SW_CACHE_FAMILY(sw_ebridge_list_item, sw_ebridge_list_item)
SW_CACHE_FAMILY(sw_evlan, sw_evlan_attr)
SW_CACHE_FAMILY(sw_eport, sw_eport_attr)
SW_CACHE_FAMILY(sw_ematch_item, sw_ematch_item)
SW_CACHE_FAMILY(sw_evlan_index_map, sw_evlan_index_map)
SW_CACHE_FAMILY(sw_eport_index_map, sw_eport_index_map)
SW_CACHE_FAMILY(sw_vlan_pvid_entry, sw_vlan_pvid_entry)

// ---- the chained table ----------------------------------------------------------------------------------------------

namespace
{

constexpr int32_t NULL_ARGUMENT = -2;
constexpr int32_t NOT_FOUND = -1;
constexpr int32_t NO_MEMORY = -12;
constexpr uint32_t DEFAULT_BUCKETS = 1365;

// What a node's bucket links become before it is freed: addresses that no process maps, so that a use after free shows.
constexpr uintptr_t POISON_NEXT = 0x00100100;
constexpr uintptr_t POISON_PREV = 0x00200200;

sw_switch_hash_node *node_around(sw_list_head *link, size_t offset)
{
    void *node = reinterpret_cast<char *>(link) - offset;
    return static_cast<sw_switch_hash_node *>(node);
}

sw_switch_hash_node *node_of_bucket_link(sw_list_head *link)
{
    return node_around(link, offsetof(sw_switch_hash_node, bucket));
}

sw_switch_hash_node *node_of_all_link(sw_list_head *link)
{
    return node_around(link, offsetof(sw_switch_hash_node, all));
}

uint32_t bucket_of(const sw_switch_hash *table, const void *item_or_key)
{
    return table->hash(item_or_key) % table->bucket_count;
}

int32_t insert_node(sw_switch_hash *table, void *item, void (*link)(sw_list_head *list, sw_list_head *node))
{
    if (table == nullptr || item == nullptr)
        return NULL_ARGUMENT;
    auto *node = static_cast<sw_switch_hash_node *>(std::malloc(sizeof(sw_switch_hash_node)));
    if (node == nullptr)
        return NO_MEMORY;
    node->item = item;
    const uint32_t bucket = bucket_of(table, item);
    link(&table->buckets[bucket], &node->bucket);
    link(&table->all, &node->all);
    ++table->item_count;
    const uint32_t in_bucket = ++table->bucket_items[bucket];
    if (table->warning_threshold != 0 && in_bucket > table->warning_threshold)
        sw::print("hash :%p bucket[%d] warning %d cur:%d \n", static_cast<void *>(table), static_cast<int32_t>(bucket),
                  static_cast<int32_t>(table->warning_threshold), static_cast<int32_t>(in_bucket));
    return 0;
}

sw_switch_hash_node *find_node(sw_switch_hash *table, const void *key)
{
    if (table == nullptr || key == nullptr)
        return nullptr;
    sw_list_head *list = &table->buckets[bucket_of(table, key)];
    for (sw_list_head *link = list->next; link != list; link = link->next) {
        sw_switch_hash_node *node = node_of_bucket_link(link);
        if (table->compare(node->item, key) == 0)
            return node;
    }
    return nullptr;
}

void delete_node(sw_switch_hash *table, uint32_t bucket, sw_switch_hash_node *node)
{
    --table->bucket_items[bucket];
    --table->item_count;
    sw::list_unlink(&node->bucket);
    node->bucket.next = reinterpret_cast<sw_list_head *>(POISON_NEXT);
    node->bucket.prev = reinterpret_cast<sw_list_head *>(POISON_PREV);
    sw::list_unlink(&node->all);
    // The last writes to a block are dead to the compiler when it sees the free; these are for whoever comes after.
    asm volatile("" : : "r"(node) : "memory");
    std::free(node);
}

}  // namespace

SW_EXPORT sw_switch_hash *sw_switch_create_hash(int32_t expected, sw_switch_hash_func hash,
                                                sw_switch_compare_func compare)
{
    if (expected < 0 || hash == nullptr || compare == nullptr)
        return nullptr;
    // A load of 3/4 on the expected count.
    const uint32_t buckets =
        expected == 0 ? DEFAULT_BUCKETS : static_cast<uint32_t>(static_cast<uint64_t>(expected) * 4 / 3);
    auto *table = static_cast<sw_switch_hash *>(std::malloc(sizeof(sw_switch_hash)));
    auto *counters = static_cast<uint8_t *>(std::calloc(buckets, sizeof(uint8_t)));
    auto *heads = static_cast<sw_list_head *>(std::calloc(buckets, sizeof(sw_list_head)));
    if (table == nullptr || counters == nullptr || heads == nullptr) {
        std::free(table);
        std::free(counters);
        std::free(heads);
        return nullptr;
    }
    for (uint32_t i = 0; i < buckets; ++i)
        sw::list_init(&heads[i]);
    *table = {.bucket_count = buckets,
              .item_count = 0,
              .warning_threshold = 0,
              .bucket_items = counters,
              .buckets = heads,
              .all = {},
              .hash = hash,
              .compare = compare};
    sw::list_init(&table->all);
    return table;
}

SW_EXPORT int32_t sw_switch_hash_insert_item(sw_switch_hash *table, void *item)
{
    return insert_node(table, item, sw::list_add_head);
}

SW_EXPORT int32_t sw_switch_hash_insert_item_tail(sw_switch_hash *table, void *item)
{
    return insert_node(table, item, sw::list_add_tail);
}

SW_EXPORT void *sw_switch_hash_find_item(sw_switch_hash *table, const void *key)
{
    const sw_switch_hash_node *node = find_node(table, key);
    return node == nullptr ? nullptr : node->item;
}

SW_EXPORT void *sw_switch_hash_get_all_item(sw_switch_hash *table, const void *key)
{
    return sw_switch_hash_find_item(table, key);
}

SW_EXPORT void sw_switch_hash_del_item(sw_switch_hash *table, const void *key)
{
    sw_switch_hash_del_item_rt(table, key);
}

SW_EXPORT int32_t sw_switch_hash_del_item_rt(sw_switch_hash *table, const void *key)
{
    sw_switch_hash_node *node = find_node(table, key);
    if (node == nullptr)
        return NOT_FOUND;
    delete_node(table, bucket_of(table, key), node);
    return 0;
}

SW_EXPORT int32_t sw_switch_hash_each_item_op(sw_switch_hash *table, sw_switch_visitor visitor, void *arg)
{
    if (table == nullptr || visitor == nullptr)
        return 0;
    for (sw_list_head *link = table->all.next, *next; link != &table->all; link = next) {
        next = link->next;
        const int32_t result = visitor(node_of_all_link(link)->item, arg);
        if (result != 0)
            return result;
    }
    return 0;
}

SW_EXPORT int32_t sw_switch_hash_each_item_op_with_index(sw_switch_hash *table, int32_t first, uint32_t count,
                                                         sw_switch_visitor visitor, void *arg)
{
    if (table == nullptr || visitor == nullptr || first < 0)
        return 0;
    const uint64_t end = std::min<uint64_t>(static_cast<uint64_t>(first) + count, table->bucket_count);
    for (auto bucket = static_cast<uint32_t>(first); bucket < end; ++bucket) {
        sw_list_head *list = &table->buckets[bucket];
        for (sw_list_head *link = list->next, *next; link != list; link = next) {
            next = link->next;
            const int32_t result = visitor(node_of_bucket_link(link)->item, arg);
            if (result != 0)
                return result;
        }
    }
    return 0;
}

SW_EXPORT void *sw_switch_hash_find_item_op(sw_switch_hash *table, sw_switch_visitor matcher, void *arg)
{
    if (table == nullptr || matcher == nullptr)
        return nullptr;
    for (uint32_t bucket = 0; bucket < table->bucket_count; ++bucket) {
        sw_list_head *list = &table->buckets[bucket];
        for (sw_list_head *link = list->next; link != list; link = link->next) {
            void *item = node_of_bucket_link(link)->item;
            if (matcher(item, arg) == 0)
                return item;
        }
    }
    return nullptr;
}

SW_EXPORT uint32_t sw_switch_hash_get_table_size(const sw_switch_hash *table)
{
    return table == nullptr ? 0 : table->bucket_count;
}

SW_EXPORT void sw_switch_destroy_hash(sw_switch_hash *table)
{
    if (table == nullptr)
        return;
    std::free(table->bucket_items);
    std::free(table->buckets);
    std::free(table);
}
