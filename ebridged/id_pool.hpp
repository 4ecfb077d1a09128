// The numbers of one id type: which are free, which rest after their release, which are taken.
//
// A type has up to 16 million numbers, so free ones are kept as intervals: memory follows how scattered the taken
// numbers are, not how many there could be. Time is an argument; nothing here reads a clock. Used by allocator.hpp.
//
// A call that fails for lack of memory (std::bad_alloc) has changed nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <unordered_map>

namespace ebridged
{

inline constexpr uint32_t NUMBER_MASK = 0xffffff;  // an id is its type in the top byte and a number below it

// Numbers that may be given, both ends included. min > max: none may.
struct number_range {
    uint32_t min = 1;
    uint32_t max = NUMBER_MASK;
};

// A set of numbers as disjoint, non-adjacent intervals.
class interval_set
{
  public:
    interval_set(uint32_t first, uint32_t last) : last_of_({{first, last}}) {}

    bool contains(uint32_t number) const;
    void add(uint32_t number);                  // must not be in the set
    void remove(uint32_t number);               // must be in the set
    uint32_t lowest(number_range range) const;  // 0 when the set has none in the range
    size_t intervals() const { return last_of_.size(); }

  private:
    std::map<uint32_t, uint32_t> last_of_;  // first number of an interval -> its last
};

class id_pool
{
  public:
    // How long a number rests after its release, in microseconds: whoever still uses an id that was taken away must not
    // meet a new owner at once.
    static constexpr int64_t REST_USEC = 60'000'000;

    explicit id_pool(number_range range) : range_(range) {}

    // A narrower range takes nothing away: numbers outside stay taken until they are given back.
    void set_range(number_range range) { range_ = range; }
    number_range range() const { return range_; }
    bool in_range(uint32_t number) const { return number >= range_.min && number <= range_.max; }
    // Not taken; a resting number is free.
    bool is_free(uint32_t number) const { return free_.contains(number) || place_of_.contains(number); }

    // Takes exactly this number, whatever the range; false when it is taken already. Needs no memory for one that rests.
    bool take(uint32_t number);
    // The lowest free number of the range that does not rest; when all free ones rest, the one that has rested longest;
    // 0 when none is free.
    uint32_t take_any(int64_t now);
    // `now` must not go back from call to call.
    void give_back(uint32_t number, int64_t now);

    size_t resting() const { return resting_.size(); }
    size_t intervals() const { return free_.intervals(); }

  private:
    struct resting_number {
        uint32_t number;
        int64_t since;
    };

    void wake(int64_t now);
    uint32_t take_longest_resting();

    number_range range_;
    interval_set free_{1, NUMBER_MASK};  // neither taken nor resting
    std::list<resting_number> resting_;  // in the order of release
    std::unordered_map<uint32_t, std::list<resting_number>::iterator> place_of_;
};

}  // namespace ebridged
