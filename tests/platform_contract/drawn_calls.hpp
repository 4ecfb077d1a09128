// Calls drawn by lot, and what has to be heard of each. Several writers, each with records that nobody else writes: so the
// promises leave one outcome of any sequence of calls, which is kept here beside the store's.
//
// The calls of a sequence are told by its seed, which a failure names; the timing of a real server is not.
// EBRIDGE_DRAWN_SEED and EBRIDGE_DRAWN_SEQUENCES in the environment ask for others than the few that are always run.
#ifndef PLATFORM_CONTRACT_DRAWN_CALLS_HPP
#define PLATFORM_CONTRACT_DRAWN_CALLS_HPP

#include <functional>
#include <list>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "store_fixture.hpp"

namespace contract
{

class DrawnCalls : public StoreTest
{
  protected:
    void run_sequences(uint32_t count);

    // Under which URL each writer opens the store.
    std::vector<std::string> urls_ = std::vector<std::string>(3, store_url());
    // When set: takes the connections away, in a way that is drawn, and gives them back; with all data that was there. Who
    // follows may hear of a change once more then, or not of each, but ends at what is there.
    std::function<void(uint32_t)> lose_;
    std::function<void()> bring_back_;  // none: the client does it by itself
    // Runs at the begin of each sequence, with its seed.
    std::function<void(uint32_t)> before_each_ = [](uint32_t) {};

  private:
    // A state that a record came to, and how.
    struct change {
        int32_t cmd;
        std::vector<uint32_t> fields;  // that were written; none when it was all of them, or the record was removed
        session what;
        bool is_removal() const;
        bool concerns(uint32_t field) const;
    };
    // What a call is to be answered, and what it was.
    struct asked {
        std::string call;
        int32_t end = QZ_MOM_END_NONE;
        bool has_callback = true;
        int32_t error = 0;
        size_t marks = 0;  // of an expiry call: it ends with the last
        listener heard = {};
        bool is_over() const;
    };
    struct record {
        qz_mom_handle *writer;
        session key;
        std::vector<change> history = {};
        size_t settled = 0;  // so many changes everybody has heard of
        asked *mark = nullptr;
        bool exists() const { return !history.empty() && !history.back().is_removal(); }
        bool is_whole() const { return exists() && history.back().cmd == QZ_MOM_CMD_SET; }
    };
    // Numbers of changes of a record between which something became true that cannot be seen from outside.
    struct span {
        size_t from;
        size_t to;
    };
    struct following {
        std::string call;
        qz_mom_handle *by;
        session pattern;
        uint32_t field;                 // 0: all
        std::vector<span> begins = {};  // of each record: the first change that is told
        bool is_confirmed = false;
        bool goes_on = true;
        listener heard = {};
    };
    struct scanning {
        std::string call;
        session pattern;
        std::vector<size_t> begun = {};  // of each record: the changes that were there for sure
        listener heard = {};
    };
    using maker = std::function<int32_t(qz_mom_msg_cb, void *)>;

    uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
    bool one_in(uint32_t count) { return below(count) == 0; }
    record &draw_record();
    qz_mom_handle *draw_writer();
    session draw_pattern(const session &key);
    session draw_pattern_of_any();
    std::vector<uint32_t> draw_fields();
    int32_t draw_value();

    void run_sequence();
    void open_writers();
    void draw_round();
    void lose_or_bring_back();
    void draw_call();
    void write_fields(record &of);
    void write_whole(record &of);
    void remove(record &of);
    void expire_in(record &of, qz_mom_timeval delay);
    void clear_mark(record &of);
    void remove_marked(record &of);
    void begin_scan();
    void begin_to_follow();
    void end_following();
    void remove_all();

    asked *make_call(asked what, const maker &make);
    bool is_taken(int32_t code, const std::string &call, int32_t error = 0);
    std::vector<record *> matching(const session &pattern, bool is_exact, const qz_mom_handle *writer);
    static void unmark(record &what);
    void settle_all();
    bool is_all_over() const;
    void compare_with_store();
    void begin_next_round();
    void check_answer(const asked &what) const;
    void check_following(const following &by) const;
    // Of the record of that number.
    void check_every_change(const following &by, size_t number, const std::vector<heard> &told) const;
    void check_last_change(const following &by, size_t number, const std::vector<heard> &told) const;
    void check_scan(const scanning &by) const;
    static bool tells(const heard &told, const change &of, uint32_t field);
    static bool shows(const heard &found, const change &of);
    std::string about(const std::string &call, const record *of = nullptr) const;

    std::mt19937 random_;
    std::vector<qz_mom_handle *> writers_;
    std::vector<record> records_;
    std::list<asked> asked_;
    std::list<following> followings_;
    std::list<scanning> scans_;
    std::vector<std::string> calls_;  // since all was settled
    uint64_t calls_made_ = 0;
    int32_t last_value_ = 3;
    std::map<const qz_mom_handle *, uint64_t> last_answered_;
    bool is_away_ = false;
    bool was_lost_ = false;  // in this round
};

}  // namespace contract
#endif
