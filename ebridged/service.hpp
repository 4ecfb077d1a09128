// The allocator service: follows session tables with the store client, has allocator.hpp decide, writes the answers.
// Ids of different kinds (kinds.hpp) have nothing to do with each other: each kind has an allocator.
//
// Start. Per served database: subscribe the sessions, in the lowest one the ranges, too; what is confirmed is scanned.
// Nothing is decided before every table is read: then granted ids are taken over from the answered sessions, in the
// order of their key texts, and every request is answered (again). A change that is heard meanwhile outweighs what a
// scan delivers.
//
// Writes. What the store cannot take yet is remembered as "this session's answer is due" or "this mirror is due", not
// as a write: when its turn comes it is written as things stand then. Nothing is lost, and nothing old is written late.
// Removals of mirrors go first: who follows the mirrors hears that an id is free before it is another key's, whose mirror
// may have been due for longer.
//
// A session that is removed and requested again while its answer is under way: the answer lands on the new request, and
// its user hears it. So that id stays the answer, unless somebody else has got it meanwhile. Once the new request is
// answered, that answer stands.
//
// A callback that fails for lack of memory (std::bad_alloc) is made again by the store client. So each of them can be
// broken off wherever it needs memory, and does the whole of it the next time.
//
// Callbacks carry a number instead of a pointer, so that one that comes after the end finds nobody and does nothing.
#pragma once

#include <deque>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "allocator.hpp"
#include "ebridged.h"
#include "kinds.hpp"
#include "numbers.hpp"
#include "qz_mom.h"
#include "service_log.hpp"

namespace ebridged
{

// Where answered sessions are mirrored to.
constexpr uint32_t MIRROR_DB = 8;

// Whose sessions are served by these options: each once, in the order of their numbers.
std::vector<uint32_t> databases_of(const ebridged_options *options);

struct session_id {
    uint32_t db = 0;
    session_name name;
    bool operator==(const session_id &) const = default;
};

struct session_id_hash {
    size_t operator()(const session_id &id) const;
};

class service
{
  public:
    service(qz_mom_handle *handle, const ebridged_options *options);
    ~service();
    service(const service &) = delete;
    service &operator=(const service &) = delete;

    int32_t start();
    // Its part of it.
    void stat(ebridged_stat *out) const;

  private:
    // What has to be done once before requests are answered. The tables of a database are read when it is followed.
    enum class step { follow_ranges, follow_sessions, read_ranges, read_sessions, read_mirrors };
    enum class progress { waiting, under_way, done };
    struct start_task {
        uint32_t db;
        kind of;
        step what;
        progress state = progress::waiting;
    };
    // A record of the mirror database: the session that it says it shows, and with which id.
    struct mirror_record {
        session_id shown;
        std::string key;
        int32_t reply_value = 0;
    };
    // A session as the store has it at the start, by key text.
    struct found_session {
        session_id id;
        session content;
        bool live = false;      // heard as a change: a scan's older copy does not count
        bool gone = false;      // removed meanwhile
        bool conflict = false;  // its id cannot be its own
    };
    // Writes to a database: how many were sent, and how many of them are done. They are done in their order.
    struct write_count {
        uint64_t sent = 0;
        uint64_t done = 0;
    };
    // The last answer that was under way when a session was removed, and may be done by now.
    struct stray_answer {
        uint64_t number = 0;
        uint32_t given = 0;
    };
    // What is to be written of a session into the mirror database, as things stand when it is made.
    struct mirror_write {
        session_id id;
        std::optional<uint32_t> shown;  // the database whose session it shows; none: the mirror goes
        session content;
    };
    using session_map = std::unordered_map<session_id, session, session_id_hash>;
    using session_entry = session_map::value_type;
    enum class duty { answer, mirror, removal };  // removal: of a mirror
    struct due {
        duty what;
        session_id id;
        bool operator==(const due &) const = default;
    };
    struct due_hash {
        size_t operator()(const due &d) const { return session_id_hash()(d.id) * 3 + static_cast<size_t>(d.what); }
    };

    // Callbacks of the store client and of the master. Their argument is a number for a service and a kind.
    static int32_t on_session(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_session_scan(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_range(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_mirror_scan(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static int32_t on_written(qz_mom_handle *handle, const qz_mom_notification *msg, void *number);
    static void on_retry(void *number);
    static void on_held(void *number);
    struct address {
        service *self = nullptr;  // null: it has ended
        kind of = kind::evlan;
    };
    void *number_arg(kind of) const;

    size_t keys() const;  // of all kinds that hold an id

    // service.cpp: the start
    int32_t advance();
    bool may_begin(const start_task &task) const;
    int32_t begin(const start_task &task);
    void finish(uint32_t db, kind of, step what, int32_t error);
    void begin_serving();
    void adopt_found();
    void answer_found();
    void remove_stale_mirrors();
    // service.cpp: changes
    void session_heard(kind of, const qz_mom_notification &msg, bool live);
    void note_found(const qz_mom_notification &msg, const session_id &id, const session *content, bool live);
    void session_written(const session_id &id, const session &content);
    void session_removed(const session_id &id);
    void note_stray(const session_id &id, const session &last);
    decision decide(const session_id &id, uint32_t wanted);
    void answer(const session_id &id, const session &content, const decision &made);
    void range_heard(kind of, const qz_mom_notification &msg);
    void mirror_heard(kind of, const qz_mom_notification &msg);
    // outbox.cpp: writes
    const session *find_session(const session_id &id) const;
    mirror_write mirror_of(const session_id &id, const session *own) const;
    std::list<mirror_write> mirrors_of(const session_id &id, const session *own) const;
    void hold(std::list<mirror_write> &&made);
    bool send_held_later();
    void send_held();
    void send_last();
    void put_answer(session_entry &answered);
    void put_mirror(const mirror_write &made);
    static duty mirror_duty(const mirror_write &made);
    void put_off(duty what, const session_id &id);
    void note_due(duty what, const session_id &id);
    void send_due();
    int32_t write(duty what, const session_id &id);
    int32_t outcome(const session_id &id, int32_t code) const;
    int32_t send_answer(session_entry &answered);
    int32_t send_mirror(const mirror_write &made);
    bool is_done(uint32_t db, uint64_t number) const { return writes_.at(db).done >= number; }
    void write_failed(kind of, const qz_mom_notification &msg);
    void retry_later();

    qz_mom_handle *handle_;
    const service_log log;
    std::map<kind, numbers<address>::own> numbers_;  // of this service, for callbacks
    std::map<kind, allocator> allocators_;
    std::vector<uint32_t> databases_;  // whose sessions are answered
    std::vector<start_task> tasks_;
    bool adopted_ = false;  // the granted ids
    bool serving_ = false;
    std::map<std::pair<uint32_t, std::string>, found_session> found_;  // until serving; by database and key text
    std::vector<mirror_record> mirrors_;                               // until serving
    session_map sessions_;
    std::list<mirror_write> held_;  // to be written with the next ones; none for long while anything is due
    bool hold_pending_ = false;
    std::deque<due> due_;                        // in the order of writing
    std::unordered_set<due, due_hash> due_set_;  // the same: each is due once
    std::map<uint32_t, write_count> writes_;     // by database
    std::unordered_map<session_id, stray_answer, session_id_hash> stray_;
    size_t sweep_at_ = 0;  // so many stray answers are looked through for those that are done
    bool retry_pending_ = false;
    uint64_t answered_ = 0;
    uint64_t refused_ = 0;
};

}  // namespace ebridged
