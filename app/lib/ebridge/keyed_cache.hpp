// The keyed caches: open-addressing sets of record pointers, keyed by the first bytes of the record.
//
// Four layers, each small: `keyed_cache` is the memory and its rules, on bytes; `keyed_table` adds what depends on the
// key's length (find, insert, remove); `record_key` says which records are cached and by which key; `family` is the
// array of tables of one record type that libsw_ebridge_hash.cpp exports under the family's name.
//
// A bucket is live, deleted or empty (two flag bits). Bucket counts are powers of two, probing is triangular and ends
// at the first empty bucket; at most 77 % of the buckets, rounded, are live or deleted, so there always is one. Beside
// flags and records each bucket has a control byte and the record's hash. A probe reads the control bytes of its first
// four buckets at once and looks at a record only when seven bits of the hash agree; growth looks at no record. Why it
// is so, with figures: docs/decisions/keyed-cache-hash.md.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "lookup2.hpp"
#include "sw_ebridge.h"

namespace sw
{

// ---- memory and rules -----------------------------------------------------------------------------------------------

struct keyed_cache {
    uint32_t bucket_count;
    uint32_t size;         // live buckets
    uint32_t occupied;     // live and deleted buckets
    uint32_t upper_bound;  // occupied buckets at which an insertion first makes room
    uint32_t *flags;       // sixteen buckets a word, two bits each: enum bucket_state
    void **keys;           // records
    uint32_t *hashes;      // of the records in live buckets
    uint8_t *control;      // what a probe has to know of each bucket: fragment_of() its hash, or a CONTROL_; the
                           // first CONTROL_REPEATED buckets stand once more behind the last
};

enum bucket_state : uint32_t { BUCKET_LIVE = 0, BUCKET_DELETED = 1, BUCKET_EMPTY = 2 };

constexpr uint32_t NO_BUCKET = UINT32_MAX;

constexpr uint8_t CONTROL_EMPTY = 0x80;
constexpr uint8_t CONTROL_DELETED = 0xFE;
constexpr uint32_t CONTROL_REPEATED = sizeof(uint64_t) - 1;

// The seven bits of a hash that a bucket's number does not tell (in tables of up to 2^25 buckets).
constexpr uint8_t fragment_of(uint32_t hash) { return static_cast<uint8_t>(hash >> 25); }

// 77 % of the bucket count, rounded; in integers because small targets have no floating point unit.
constexpr uint32_t upper_bound_of(uint32_t bucket_count)
{
    return static_cast<uint32_t>((static_cast<uint64_t>(bucket_count) * 77 + 50) / 100);
}

inline uint32_t state_of(const uint32_t *flags, uint32_t bucket) { return flags[bucket / 16] >> (bucket % 16 * 2) & 3; }

inline void set_state(uint32_t *flags, uint32_t bucket, bucket_state state)
{
    const uint32_t shift = bucket % 16 * 2;
    flags[bucket / 16] = (flags[bucket / 16] & ~(3u << shift)) | static_cast<uint32_t>(state) << shift;
}

inline void set_control(const keyed_cache &cache, uint32_t bucket, uint8_t control)
{
    cache.control[bucket] = control;
    for (uint64_t copy = uint64_t{bucket} + cache.bucket_count; copy < uint64_t{cache.bucket_count} + CONTROL_REPEATED;
         copy += cache.bucket_count)
        cache.control[copy] = control;
}

// The first steps of a triangular probe lead 0, 1, 3 and 6 buckets on from where it begins: all within eight control
// bytes. A window is those eight as one word, the first lowest; each question is answered for the four buckets at once,
// without a branch, by the highest bit of their bytes. After S. E. Anderson's "Bit Twiddling Hacks" (a zero byte in a
// word) and the control bytes of Abseil's "Swiss tables".
class probe_window
{
  public:
    static constexpr uint32_t STEPS = 4;         // steps that a window covers, its beginning included
    static constexpr uint32_t NEXT_OFFSET = 10;  // how far on the first one behind the window leads

    explicit probe_window(const uint8_t *control)
    {
        std::memcpy(&bytes_, control, sizeof bytes_);
        if constexpr (std::endian::native == std::endian::big)
            bytes_ = __builtin_bswap64(bytes_);
    }

    // Buckets that may hold a hash of this fragment. Never an empty or deleted one; now and then a wrong live one,
    // which a comparison of keys finds out.
    uint64_t matches(uint8_t fragment) const
    {
        const uint64_t difference = bytes_ ^ LOWEST_BITS * fragment;
        return (difference - LOWEST_BITS) & ~difference & PROBED;
    }

    uint64_t empty() const { return bytes_ & ~bytes_ << 6 & PROBED; }  // bit 1 tells it from a deleted one
    uint64_t not_live() const { return bytes_ & PROBED; }

    // How far on the first of those buckets is.
    static uint32_t offset_of(uint64_t buckets) { return static_cast<uint32_t>(std::countr_zero(buckets)) / 8; }

  private:
    static constexpr uint64_t LOWEST_BITS = 0x0101010101010101;
    static constexpr uint64_t PROBED = 0x0080000080008080;  // highest bits of bytes 0, 1, 3 and 6

    uint64_t bytes_;
};

// Makes room for one more record: drops the deleted marks when fewer than half of the buckets are live, else doubles
// the buckets. False without memory; the table is then as it was.
bool keyed_cache_make_room(keyed_cache &cache);

// Stores the pointer of a record whose key has that many bytes and that hash, unless an equal key is stored. True when it
// was stored. Compiled once for all lengths: keys are compared only where a fragment matches, which for a new key is rare.
bool keyed_cache_insert(keyed_cache &cache, void *record, size_t length, uint32_t hash);

// Frees the arrays and leaves an empty table. The records are the caller's.
void keyed_cache_clear(keyed_cache &cache);

// Visits the records in the live buckets of a range in their order until a result is not 0, and returns that; else 0. A
// bucket's state is looked at right before its visit, so a visitor may remove.
int32_t keyed_cache_walk_any(const keyed_cache &cache, uint32_t first, uint32_t count,
                             int32_t (*visit)(void *record, void *arg, int32_t position), void *arg);

// The same for records of one type: the walk itself is there once for all types.
template <class Record>
int32_t keyed_cache_walk(const keyed_cache &cache, uint32_t first, uint32_t count,
                         int32_t (*visit)(Record *record, void *arg, int32_t position), void *arg)
{
    struct typed {
        decltype(visit) visitor;
        void *arg;
        static int32_t call(void *record, void *self, int32_t position)
        {
            const auto *to = static_cast<typed *>(self);
            return to->visitor(static_cast<Record *>(record), to->arg, position);
        }
    } adapted = {visit, arg};
    return keyed_cache_walk_any(cache, first, count, typed::call, &adapted);
}

// ---- what depends on the key ----------------------------------------------------------------------------------------

// The operations for keys of `Length` bytes. Tests give a worse hash than the default.
template <size_t Length, uint32_t (*Hash)(const void *) = lookup2_of<Length>>
struct keyed_table {
    static bool holds(const keyed_cache &cache, uint32_t bucket, const void *key)
    {
        return std::memcmp(cache.keys[bucket], key, Length) == 0;
    }

    // Compiled once for each length of key: the target has little memory.
    [[gnu::noinline]] static uint32_t find_bucket(const keyed_cache &cache, const void *key)
    {
        if (cache.bucket_count == 0)
            return NO_BUCKET;
        const uint32_t hash = Hash(key);
        const uint32_t mask = cache.bucket_count - 1;
        __builtin_prefetch(&cache.keys[hash & mask]);  // most hits are in the first bucket: fetch both at once
        const probe_window window(cache.control + (hash & mask));
        for (uint64_t match = window.matches(fragment_of(hash)); match != 0; match &= match - 1) {
            const uint32_t bucket = (hash + probe_window::offset_of(match)) & mask;
            if (holds(cache, bucket, key))
                return bucket;
        }
        return window.empty() != 0 ? NO_BUCKET : find_bucket_behind_window(cache, key, hash);
    }

    static uint32_t find_bucket_behind_window(const keyed_cache &cache, const void *key, uint32_t hash)
    {
        const uint32_t mask = cache.bucket_count - 1;
        uint32_t bucket = (hash + probe_window::NEXT_OFFSET) & mask;
        for (uint32_t step = probe_window::STEPS + 1; cache.control[bucket] != CONTROL_EMPTY; ++step) {
            if (cache.control[bucket] == fragment_of(hash) && holds(cache, bucket, key))
                return bucket;
            bucket = (bucket + step) & mask;
        }
        return NO_BUCKET;
    }

    static void *find(const keyed_cache &cache, const void *key)
    {
        const uint32_t bucket = find_bucket(cache, key);
        return bucket == NO_BUCKET ? nullptr : cache.keys[bucket];
    }

    static bool insert(keyed_cache &cache, void *record)
    {
        return keyed_cache_insert(cache, record, Length, Hash(record));
    }

    // Takes the record of that key out and returns it, or null.
    [[gnu::noinline]] static void *remove(keyed_cache &cache, const void *key)
    {
        const uint32_t bucket = find_bucket(cache, key);
        if (bucket == NO_BUCKET)
            return nullptr;
        set_control(cache, bucket, CONTROL_DELETED);
        set_state(cache.flags, bucket, BUCKET_DELETED);
        --cache.size;
        return cache.keys[bucket];
    }
};

// ---- which records, by which key ------------------------------------------------------------------------------------

// Where a field stands in its record. No constant expression gets an offset out of a member pointer: hence a macro.
struct key_field {
    size_t offset;
    size_t size;
    bool equal_as_bytes;  // equal values have equal bytes
};

template <class Field>
constexpr key_field field_at(size_t offset)
{
    return {offset, sizeof(Field), std::has_unique_object_representations_v<Field>};
}

#define SW_FIELD(record, member) sw::field_at<decltype(record::member)>(offsetof(record, member))

// Each field begins where those before it end, the first one with the record.
template <key_field... Fields>
constexpr bool follow_each_other()
{
    size_t end = 0;
    return ((std::exchange(end, end + Fields.size) == Fields.offset) && ...);
}

// A key: the first `Length` bytes of a record, which are its `Fields` in their order and nothing else. Keys are hashed and
// compared as bytes, so equal ones must have equal bytes: a key with padding, in a field or between two, does not compile.
template <size_t Length, key_field... Fields>
struct key_of_fields {
    static_assert((Fields.equal_as_bytes && ...), "a field of the key has padding, or equal values of unequal bytes");
    static_assert(follow_each_other<Fields...>(), "a field of the key does not begin where the one before it ends");
    static_assert((Fields.size + ...) == Length, "the key has bytes that belong to none of its fields");
    static constexpr size_t length = Length;
};

#define SW_END_OF(record, member) (offsetof(record, member) + sizeof(record::member))

// The key at the start of a cached record. The map items of evlans and eports differ by one key word: an eport's
// application key has two ids.
template <class Record>
struct record_key;
template <>
struct record_key<sw_ebridge_list_item>
    : key_of_fields<SW_END_OF(sw_ebridge_list_item, user_name), SW_FIELD(sw_ebridge_list_item, user_name)> {
};
template <>
struct record_key<sw_evlan_attr> : key_of_fields<SW_END_OF(sw_evlan_attr, evlan_id), SW_FIELD(sw_evlan_attr, user_name),
                                                 SW_FIELD(sw_evlan_attr, evlan_id)> {
};
template <>
struct record_key<sw_eport_attr> : key_of_fields<SW_END_OF(sw_eport_attr, eport_id), SW_FIELD(sw_eport_attr, user_name),
                                                 SW_FIELD(sw_eport_attr, eport_id)> {
};
template <>
struct record_key<sw_ematch_item>
    : key_of_fields<
          offsetof(sw_ematch_item, action_type), SW_FIELD(sw_ematch_item, user), SW_FIELD(sw_ematch_item, match_type),
          SW_FIELD(sw_ematch_item, match_flag), SW_FIELD(sw_ematch_item, match_priority),
          SW_FIELD(sw_ematch_item, evlan1), SW_FIELD(sw_ematch_item, evlan2), SW_FIELD(sw_ematch_item, eport),
          SW_FIELD(sw_ematch_item, ipv4), SW_FIELD(sw_ematch_item, vnid), SW_FIELD(sw_ematch_item, label),
          SW_FIELD(sw_ematch_item, ip_mask), SW_FIELD(sw_ematch_item, mac), SW_FIELD(sw_ematch_item, frame_type),
          SW_FIELD(sw_ematch_item, ether_type), SW_FIELD(sw_ematch_item, ip), SW_FIELD(sw_ematch_item, ip_ver),
          SW_FIELD(sw_ematch_item, match_id), SW_FIELD(sw_ematch_item, mask)> {
};
template <>
struct record_key<sw_evlan_index_map>
    : key_of_fields<SW_END_OF(sw_evlan_index_map, key), SW_FIELD(sw_evlan_index_map, kind),
                    SW_FIELD(sw_evlan_index_map, key)> {
};
template <>
struct record_key<sw_eport_index_map>
    : key_of_fields<SW_END_OF(sw_eport_index_map, key), SW_FIELD(sw_eport_index_map, kind),
                    SW_FIELD(sw_eport_index_map, key)> {
};
template <>
struct record_key<sw_vlan_pvid_entry>
    : key_of_fields<SW_END_OF(sw_vlan_pvid_entry, ifx), SW_FIELD(sw_vlan_pvid_entry, ifx)> {
};

#undef SW_END_OF

// ---- the tables of one record type ----------------------------------------------------------------------------------

template <class Record>
class family
{
  public:
    using visitor = int32_t (*)(Record *record, void *arg, int32_t position);
    using table = keyed_table<record_key<Record>::length>;

    // Makes the tables, all empty. Once made they stay for the life of the process: a later call keeps them and what
    // they hold. 0; -1 without memory.
    static int32_t init(uint32_t count)
    {
        if (tables_ != nullptr || count == 0)
            return 0;
        tables_ = static_cast<keyed_cache *>(std::calloc(count, sizeof(keyed_cache)));
        if (tables_ == nullptr)
            return -1;
        count_ = count;
        return 0;
    }

    static bool exists(uint32_t number) { return number < count_; }

    static int32_t insert(uint32_t number, Record *record)
    {
        if (exists(number) && record != nullptr)
            table::insert(tables_[number], record);
        return 0;
    }

    static void *remove(uint32_t number, const Record *key)
    {
        return exists(number) && key != nullptr ? table::remove(tables_[number], key) : nullptr;
    }

    static Record *find(uint32_t number, const Record *key)
    {
        return exists(number) && key != nullptr ? static_cast<Record *>(table::find(tables_[number], key)) : nullptr;
    }

    static int32_t traverse(uint32_t number, int32_t first, uint32_t count, visitor visit, void *arg)
    {
        if (!exists(number) || visit == nullptr || first < 0)
            return 0;
        return keyed_cache_walk(tables_[number], static_cast<uint32_t>(first), count, visit, arg);
    }

    static uint32_t size(uint32_t number) { return exists(number) ? tables_[number].size : 0; }

    // Copies the record over the stored one of its key, or stores a copy. The stored record; null without memory.
    static Record *create(uint32_t number, const Record *record)
    {
        if (!exists(number) || record == nullptr)
            return nullptr;
        Record *stored = find(number, record);
        if (stored != nullptr) {
            std::memmove(stored, record, sizeof(Record));  // the caller may hand in the stored record itself
            return stored;
        }
        stored = static_cast<Record *>(std::malloc(sizeof(Record)));
        if (stored == nullptr)
            return nullptr;
        std::memcpy(stored, record, sizeof(Record));
        if (table::insert(tables_[number], stored))
            return stored;
        std::free(stored);
        return nullptr;
    }

    static void destroy(uint32_t number, const Record *key) { std::free(remove(number, key)); }

  private:
    static constinit inline keyed_cache *tables_ = nullptr;
    static constinit inline uint32_t count_ = 0;
};

}  // namespace sw
