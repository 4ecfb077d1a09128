// The log of one database, as this process hears of it: its entries, in their order and without a gap.
//
// The server pushes each entry to a channel when it adds it to the log. So who follows a database need not ask for
// anything as long as all goes well. What was not heard (before the subscription, over a loss, or because so much waited
// to be told that it was passed over) is fetched from the log itself. The connection is its owner's.
#ifndef MOM_REDIS_FEED_HPP
#define MOM_REDIS_FEED_HPP

#include <chrono>
#include <deque>
#include <memory>
#include <string>

#include "change.hpp"
#include "redis_link.hpp"
#include "redis_rows.hpp"

namespace mom
{

using steady = std::chrono::steady_clock;

// An entry of the log, told row by row: a call with writes as it was sent, or rows that the server made.
struct log_entry {
    log_entry(uint64_t at, std::string_view texts, bool sent) : position(at), bytes(texts), as_sent(sent), rows(bytes)
    {
        rows.skip_head();  // database, client, number of the call and of the oldest one
    }
    log_entry(const log_entry &) = delete;
    log_entry &operator=(const log_entry &) = delete;

    const uint64_t position;
    const std::string bytes;
    const bool as_sent;
    row_reader rows;
    std::shared_ptr<change_block> told;  // what its rows were told as
};

class redis_feed
{
  public:
    explicit redis_feed(uint32_t db);

    // ---- the channel
    // The connection is lost.
    void close();
    // Whether anybody follows the database now. One who does so no more for a while is not pushed to. Returns the command
    // to be sent, if any: no answer comes, unless it is refused.
    redis_words follow(bool wanted, steady::time_point now);
    bool is_asking() const { return channel_ == channel::asked; }
    // What the server has said by itself.
    void take(const redisReply &pushed);
    // The log has come that far: what was pushed of it has been taken by now.
    void reaches(uint64_t position)
    {
        behind_ = behind_ || (wanted_ && channel_ == channel::open && position > pushed_);
    }

    // ---- the entries
    uint64_t position() const { return position_; }
    // Nothing that has been heard, or is being fetched, is still to be told.
    bool is_idle() const { return entries_.empty() && !fetching_; }
    bool is_empty() const { return entries_.empty(); }
    log_entry &front() { return entries_.front(); }
    void pop() { entries_.pop_front(); }
    // What is behind `position` is next; what waits is forgotten.
    void go_to(uint64_t position);

    // Entries are to be fetched, and there is room for them.
    bool wants_fetch() const;
    // The command. `known`: a position that the log has reached.
    redis_words fetch(uint64_t known);
    // Its reply. Returns 0, or the position up to which entries have left the log before they were heard.
    uint64_t take_fetched(const redisReply &reply);

  private:
    enum class channel { closed, asked, open };

    void take_entry(std::string_view entry);

    const std::string channel_name_;
    channel channel_ = channel::closed;
    bool wanted_ = false;
    steady::time_point unwanted_since_{};

    std::deque<log_entry> entries_;
    uint64_t position_ = 0;  // entries up to here have been heard
    uint64_t pushed_ = 0;    // the newest entry that was pushed, heard or passed over
    bool behind_ = false;    // entries may have been missed since
    bool fetching_ = false;
    uint64_t known_ = 0;  // when the fetch began
};

}  // namespace mom
#endif
