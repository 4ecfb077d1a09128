// One database of a Redis server, as this process sees it: a connection for what is to be done there and for what is
// heard from there (redis_feed.hpp), and the tables that are followed (redis_tables.hpp).
//
// Order. The server numbers what happens in a database: each call that changes something adds one entry to its log, and
// each answer says how far the log had come. What an answer leads to waits until the log has been heard up to there. So
// everything is told in the order in which it happened. Who follows nothing does not hear the log: the answers alone
// say how far it is.
//
// Losses. Calls that are under way when a connection breaks are made again; the server remembers the last one of each
// client and does none twice. Made again are also the last writes that were answered, where the server does not know of
// them: one that is killed may not have written them down, and a replica that takes over may not have heard of them. The
// log goes on where it was left. When entries are missing (the log is kept at a bounded length, the data may be gone)
// the followed tables are read anew: what is there is told as changed, what is missing as removed, with the content that
// it last had.
//
// All of it happens with the office's mutex, on whatever thread.
#ifndef MOM_REDIS_LINE_HPP
#define MOM_REDIS_LINE_HPP

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "redis_feed.hpp"
#include "redis_link.hpp"
#include "redis_operation.hpp"
#include "redis_tables.hpp"
#include "store.hpp"

namespace mom
{

class redis_line : private redis_tables::asker
{
  public:
    static constexpr size_t MAX_QUEUED = 65536;
    static constexpr size_t MAX_AHEAD = 1024;
    static constexpr size_t MAX_WRITES = 128;  // of one call

    redis_line(uint32_t db, std::string client_name, link_set &links, post_office &office,
               subscription_table &subscriptions);

    // ---- with the mutex, from any thread
    // EDOWN, EFULL; or taken over.
    int32_t put(redis_operation &&operation) override;
    // Counts what was put last, and not ahead, until it is answered.
    void count_newest(std::shared_ptr<backlog> in) noexcept { queue_.back().counted = counted_write(std::move(in)); }
    int32_t connect(client &from, const connection &answer);
    int32_t follow(std::vector<subscription> &&added) { return tables_.follow(std::move(added)); }
    int32_t unfollow(client &from, const target &of, const receiver &to);
    int32_t scan(client &from, const target &of, const receiver &to) { return tables_.scan(from, of, to); }
    // The handle's lock in this database is asked for, from now on until the handle is closed.
    void want_lock(client &from, wanted_lock &&wanted);
    // What has been put can go to the server now; else it waits for company, or for answers to what is under way.
    bool may_send() const;
    // Another full call waits; true once for each.
    bool has_full_call() const;
    // Lets go of the tables that a handle which was closed was the last to follow, and of its expiry calls.
    void drop_unused() noexcept;
    // Nothing that was taken over is still to be done, as far as it can be done at all.
    bool settled() const;

    // ---- with the mutex, for whoever talks to the server
    // It would connect now.
    bool wants_server(steady::time_point now) const { return state_ == state::down && now >= retry_at_; }
    // What is due by the clock: connecting, ticking, giving up.
    void tick(const redis_address &to, steady::time_point now);
    bool is_up() const { return state_ == state::up; }
    // Takes in what has come.
    void step();
    bool is_connecting() const { return state_ == state::connecting; }
    // What was put together goes out.
    void flush();
    // Sends what waits, tells what has come.
    void work(steady::time_point now);
    void lose(const char *why) noexcept override;
    // True when something waits for room in a queue.
    bool stalled() const { return stalled_; }

  private:
    enum class state { down, connecting, up };
    // A call of the server's side: one operation, or several writes.
    struct call {
        uint64_t number = 0;  // 0: may be made again
        std::list<redis_operation> parts;
        steady::time_point sent;
        bool awaited = false;                          // its answer has a place in the order of what is told
        std::optional<steady::time_point> first_sent;  // of one that was answered, and is kept or made again
    };
    struct held {
        uint64_t position = 0;
        std::function<void(const redis_outcome &)> finish;
        redis_outcome outcome;
    };

    int32_t put_ahead(redis_operation &&operation);
    int32_t enqueue(redis_operation &&operation);
    void keep(std::list<call> &&answered, bool done) noexcept;
    void make_again(const std::string &epoch, uint64_t last_done) noexcept;
    void recycle(std::list<redis_operation> &parts) noexcept;
    void ask(redis_operation &&operation) override { queue_.push_back(std::move(operation)); }

    void greet(const redis_address &to);
    void take_greeting(const redisReply &reply);
    void serve(const redisReply &hello);
    void transmit(call &made);
    std::list<call> next_call(steady::time_point now);
    void send_queued(steady::time_point now);
    void fire(steady::time_point now);
    void take_tokens(const std::vector<std::weak_ptr<client>> &asked, const redis_outcome &fired);
    void tell_given(const std::weak_ptr<client> &who, const std::string &token);
    void tell_lock(client &to, const std::string &token);
    void ask_at_once(redis_operation &&operation, steady::time_point now);
    static bool is_refused_for_now(const call &made, const redisReply &reply);
    void answered(call &made, const redisReply &reply);
    bool mark_goes_on(const call &made, const redis_outcome &outcome);
    void conclude(redis_operation &part, redis_outcome &&outcome);

    bool needs_log() const;
    void fetch_missed(steady::time_point now);
    void take_fetched(const redisReply &reply);
    void tell_all();
    void pass_over_log();
    bool tell_next(log_entry &entry);
    bool may_tell(uint64_t position) const;
    void restart_at(uint64_t position);
    void mark_answered(const std::string &id, int32_t code);
    void end_of_mark(const std::string &id, int32_t error);
    void look_for_lost_marks();

    void report(int32_t type);
    void report_loss() noexcept;
    steady::duration pause();

    const uint32_t db_;
    const std::string client_name_;
    post_office &office_;
    subscription_table &subscriptions_;
    redis_tables tables_;
    state state_ = state::down;
    bool was_up_ = false;
    bool loss_untold_ = false;
    redis_link link_;
    redis_feed feed_;
    int greetings_ = 0;  // replies to the greeting that are still to come
    steady::time_point retry_at_{};
    steady::time_point connecting_since_{};
    steady::time_point up_since_{};
    steady::time_point fire_at_{};
    bool firing_ = false;
    uint32_t failures_ = 0;
    std::minstd_rand random_;

    std::list<redis_operation> queue_;  // they move on to calls, and stay where they are
    std::list<call> under_way_;
    std::list<call> kept_;  // with writes, and answered
    uint64_t last_call_ = 0;
    std::list<redis_operation> spare_;  // empty ones
    bool marking_ = false;              // a mark is being set, piece by piece: what comes behind it waits

    std::string epoch_;      // of the log
    std::string life_;       // of the log: while it is the same, a position means the same entry
    uint64_t told_ = 0;      // changes up to here are told
    uint64_t answered_ = 0;  // the newest position that an answer has named
    std::list<held> held_;
    bool stalled_ = false;

    std::list<std::function<void()>> after_loads_;  // what waits until no table is being loaded
    std::vector<std::weak_ptr<client>> lockers_;    // handles that have asked for a lock
    struct waiting_mark {
        std::weak_ptr<client> owner;
        change_ptr end;
        receiver to;
        bool is_set = false;      // the server has said so
        bool looked_for = false;  // the server is being asked whether it still has it
    };
    std::map<std::string, waiting_mark> marks_;  // expiry calls whose end has not come, by number
};

}  // namespace mom
#endif
