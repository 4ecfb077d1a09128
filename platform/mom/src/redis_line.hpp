// One database of a Redis server, as this process sees it: a connection for what is to be done there and for what is
// heard from there (redis_feed.hpp), and a replica of the tables that are followed.
//
// Order. The server numbers what happens in a database: each call that changes something adds one entry to its log, and
// each answer says how far the log had come. What an answer leads to waits until the log has been heard up to there. So
// everything is told in the order in which it happened. Who follows nothing does not hear the log: the answers alone
// say how far it is.
//
// Losses. Calls that are under way when a connection breaks are made again; the server remembers the last one of each
// client and does none twice. The log goes on where it was left. When entries are missing (the log is kept at a bounded
// length, the data may be gone) the followed tables are read anew: what is there is told as changed, what is missing as
// removed, with the content that it last had.
//
// All of it happens with the office's mutex, on whatever thread.
#ifndef MOM_REDIS_LINE_HPP
#define MOM_REDIS_LINE_HPP

#include <chrono>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "client.hpp"
#include "redis_feed.hpp"
#include "redis_link.hpp"
#include "redis_rows.hpp"
#include "replica.hpp"
#include "store.hpp"
#include "table_step.hpp"

namespace mom
{

// What the server answered to one operation.
struct redis_outcome {
    int32_t code = 0;
    uint64_t position = 0;
    std::string text;
    std::string more;
};

// An expiry call: who hears of its end, and how far it has come, as marks are set piece by piece.
struct mark_step {
    std::weak_ptr<client> owner;
    change_ptr end;
    receiver to{};
    bool in_pieces = false;    // its records are to be looked for
    std::string id;            // of the expiry call
    std::string cursor = "0";  // where the next piece begins
    std::string deadline;      // the server's; "": it has not made it yet
    bool anew = false;         // the cursor that comes next is another server's
};

struct redis_operation {
    enum class kind { write, mark, sweep, fire, read, lost_mark, fetch };

    kind what = kind::write;
    packed_texts row;                                   // of a write; none: only asks for the position
    std::shared_ptr<const packed_texts> fence;          // of a write: the lock that it needs; null: anybody writes
    redis_words words;                                  // of a fetch: the command; else arguments of the server's side
    bool at_once = false;                               // `finish` does not wait for the log
    bool ahead = false;                                 // of what waits; a notice
    std::function<void(const redis_outcome &)> finish;  // may be empty
    counted_write counted;                              // of a write that somebody counts
    std::shared_ptr<table_step> step;                   // of a table that is read
    std::shared_ptr<mark_step> mark;                    // of a mark

    void clear() noexcept { *this = redis_operation(); }
};

class replica_scan;

class redis_line
{
  public:
    static constexpr size_t MAX_QUEUED = 65536;
    static constexpr size_t MAX_AHEAD = 1024;
    static constexpr size_t MAX_WRITES = 128;  // of one call

    redis_line(uint32_t db, std::string client_name, link_set &links, post_office &office,
               subscription_table &subscriptions);

    // ---- with the mutex, from any thread
    // EDOWN, EFULL; or taken over.
    int32_t put(redis_operation &&operation);
    // Counts what was put last, and not ahead, until it is answered.
    void count_newest(std::shared_ptr<backlog> in) noexcept { queue_.back().counted = counted_write(std::move(in)); }
    int32_t connect(client &from, const connection &answer);
    int32_t follow(std::vector<subscription> &&added);
    int32_t unfollow(client &from, const target &of, const receiver &to);
    int32_t scan(client &from, const target &of, const receiver &to);
    // The handle's lock in this database is asked for, from now on until the handle is closed.
    void want_lock(client &from, wanted_lock &&wanted);
    // What has been put can go to the server now; else it waits for company, or for answers to what is under way.
    bool may_send() const;
    // Another full call waits; true once for each.
    bool has_full_call() const;
    // Lets go of the tables that a handle which was closed was the last to follow.
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
    void lose(const char *why) noexcept;
    // True when something waits for room in a queue.
    bool stalled() const { return stalled_; }

  private:
    friend class replica_scan;

    enum class state { down, connecting, up };
    // A call of the server's side: one operation, or several writes.
    struct call {
        uint64_t number = 0;  // 0: may be made again
        std::list<redis_operation> parts;
        steady::time_point sent;
        bool awaited = false;  // its answer has a place in the order of what is told
    };
    struct held {
        uint64_t position = 0;
        std::function<void(const redis_outcome &)> finish;
        redis_outcome outcome;
    };
    struct waiting_scan {
        std::weak_ptr<client> from;
        target of;
        receiver to;
    };
    struct followed {
        const ProtobufCMessageDescriptor *type = nullptr;
        replica records;
        int awaited = 0;     // calls to follow or scan it that are not answered yet
        bool begun = false;  // one was answered
        bool whole = false;  // its records seem to be written in one piece
        bool loaded = false;
        uint64_t loading = 0;           // number of the load under way; 0: none
        uint64_t good_from = 0;         // what this load, or a later one, has met is kept by the log without a gap
        std::string written;            // by the newest write, as text: most writes name the same fields
        std::vector<uint32_t> numbers;  // the same
        std::vector<uint32_t> fields;   // all that it wrote, in ascending order: more than it named, as a rule the same
        std::shared_ptr<const std::string> names;
        bool again = false;  // changes may have been missed since somebody began to follow
        std::vector<waiting_scan> scans;
        std::vector<std::weak_ptr<replica_scan>> running;  // scans that read the replica
    };

    // A page of records, taken in one by one.
    struct record_page {
        record_page(table_step &read, bool last, const ProtobufCMessageDescriptor &type);
        record_page(const record_page &) = delete;
        record_page &operator=(const record_page &) = delete;

        const std::string name;
        const uint64_t load;
        const bool is_last;
        const std::vector<table_step::shown> records;
        size_t next_record = 0;
        // What may have been written of a record meanwhile: any field. One that is at its default again does not show.
        const std::vector<uint32_t> numbers;
        const std::shared_ptr<const std::string> names;
        size_t next_slot = 0;  // of the replica, when what is gone is looked for
    };

    int32_t put_ahead(redis_operation &&operation);
    int32_t put_for_table(const ProtobufCMessageDescriptor &type, redis_operation &&asked);
    void answered_for_table(const std::string &name);
    void recycle(std::list<redis_operation> &parts) noexcept;
    template <typename News>
    void post(client &to, News what);

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
    struct told_row {
        int32_t cmd;
        bool is_part;  // of the record: the fields that were written
        std::string_view key;
        std::string_view written;  // numbers of the named fields, and of all behind a '|' where these are others
    };
    static std::shared_ptr<const content> take_content(const told_row &row, size_t fields, log_entry &entry);
    bool tell(const told_row &row, log_entry &entry);
    void note_written(followed &in, std::string_view written) const;
    bool may_tell(uint64_t position) const;
    void restart_at(uint64_t position);
    void end_of_mark(const std::string &id, int32_t error);
    void look_for_lost_marks();

    void load(const std::string &name);
    void load_again();
    bool is_loading() const;
    redis_operation operation_of(std::shared_ptr<table_step> step);
    redis_operation first_step(const std::string &name, uint64_t number);
    void take_page(table_step &read);
    void read_on(followed &in, const table_step &read);
    void say_read(const std::string &name);
    bool take_rows();
    bool take_row(followed &in);
    bool sweep(followed &in);
    bool has_room(const deliveries &out) const;
    void finish_load(followed &in);
    void activate(std::vector<subscription> added);
    void start_scan(followed &in, const waiting_scan &scan);
    void scan_ended(const replica_scan &scan, const std::string &name);
    bool is_used(const std::string &name, followed &in);
    void drop_unused(const std::string &name);

    void report(int32_t type);
    void report_loss() noexcept;
    steady::duration pause();

    const uint32_t db_;
    const std::string client_name_;
    post_office &office_;
    subscription_table &subscriptions_;

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
    uint64_t last_call_ = 0;
    std::list<redis_operation> spare_;  // empty ones
    bool marking_ = false;              // a mark is being set, piece by piece: what comes behind it waits

    std::string epoch_;      // of the log
    std::string life_;       // of the log: while it is the same, a position means the same entry
    uint64_t told_ = 0;      // changes up to here are told
    uint64_t answered_ = 0;  // the newest position that an answer has named
    std::list<held> held_;
    bool stalled_ = false;

    std::map<std::string, followed, std::less<>> followed_;
    uint64_t last_load_ = 0;
    std::unique_ptr<record_page> page_;             // nothing else is told before all of it is
    std::list<std::function<void()>> after_loads_;  // what waits until no table is being loaded
    std::vector<std::weak_ptr<client>> lockers_;    // handles that have asked for a lock
    struct waiting_mark {
        std::weak_ptr<client> owner;
        change_ptr end;
        receiver to;
        bool looked_for = false;  // the server is being asked whether it still has it
    };
    std::map<std::string, waiting_mark> marks_;  // expiry calls whose end has not come, by number
};

}  // namespace mom
#endif
