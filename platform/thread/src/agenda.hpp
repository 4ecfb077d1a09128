// What waits to be called by a master: posted calls and timers. It decides the order and knows neither lock, thread nor
// clock: the master (qz_thread.cpp) guards it and tells it the time.
//
// Work is taken in rounds. A round is what had been posted, and then what was due, when the round began; whatever these
// calls add belongs to a later round. So neither kind of work can starve the other, and a call may add freely.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <variant>

#include "qz_thread.h"

namespace thread_master
{

// A thread inside qz_thread_call_wait(); lives on its stack.
struct waiting_call {
    bool done = false;
};

struct posted_call {
    qz_thread_call_func func;
    void *arg;
    waiting_call *waiter;  // null: nobody waits
    int descriptor = -1;   // of a watch: the one that can be read
    uint64_t sequence = 0;
};

struct timer_call {
    qz_thread_func func;  // null: plain_func is called instead
    qz_thread_call_func plain_func;
    void *arg;
    qz_thread_timer *counts;  // the caller's timer object, or null
    std::string name;
};

using work = std::variant<std::monostate, posted_call, timer_call>;  // monostate: nothing to do

class agenda
{
  public:
    void post(posted_call call);                 // throws std::bad_alloc
    void insert(int64_t due, timer_call timer);  // throws std::bad_alloc
    // Takes back the call of a waiter that has not been called yet.
    void withdraw(const waiting_call *waiter);

    // Takes the next piece of work out.
    work take(int64_t now);
    // Whether take(now) would give any.
    bool has_work(int64_t now) const { return !posted_.empty() || (!timers_.empty() && next_due() <= now); }
    // When the earliest timer is due; -1 without one.
    int64_t next_due() const { return timers_.empty() ? -1 : timers_.begin()->first.first; }

  private:
    using timer_key = std::pair<int64_t, uint64_t>;  // due time, sequence

    work take_of_round();

    std::deque<posted_call> posted_;
    std::map<timer_key, timer_call> timers_;
    uint64_t next_sequence_ = 0;  // calls and timers share the count
    // The current round: posted calls before this sequence, then timers before it that were due at this time.
    uint64_t round_sequence_ = 0;
    int64_t round_now_ = 0;
};

}  // namespace thread_master
