// Users of the library in this process, on an embedded store of their own or on one that they share with others: one
// that requests, one that observes, or both. The part of "ebridge run" that knows the library; see run.cpp for the flow.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "ebridged.h"
#include "run_books.hpp"
#include "ssat.h"
#include "store_link.hpp"
#include "sw_ebridge.h"

namespace ebridge_tool
{

extern const char *const OBSERVER;  // its user name

// The users of a session.
struct cast {
    size_t requester;  // whose requests these are, an index of request_book::users(); NOBODY: no requester here
    bool observer;

    static constexpr size_t NOBODY = static_cast<size_t>(-1);
};

// Patience is without anything heard, in microseconds.
constexpr int64_t ENDLESS = int64_t{1} << 60;
constexpr int64_t SCAN_PATIENCE_USEC = 30'000'000;

// The store went away, and did not come back while patience lasted: nothing more can be learned.
struct store_lost : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Tells run_options::progress of every 64 requests or so.
class progress_teller
{
  public:
    progress_teller(const run_options &options, size_t all) : tell_(options.progress), all_(all) { last(0); }
    void at(size_t settled)
    {
        if (settled >= told_ + 64)
            last(settled);
    }
    void last(size_t settled)
    {
        told_ = settled;
        if (tell_)
            tell_(settled, all_);
    }

  private:
    void (*tell_)(size_t settled, size_t all);
    size_t all_;
    size_t told_ = 0;
};

class session;

// What a session tells of; each may be empty.
struct session_listener {
    // Something new was heard of a request.
    std::function<void(session *, size_t)> changed{};
    // A verdict on a match rule was heard.
    std::function<void(session *, size_t)> decided{};
    // Attributes were read; null: they have gone. An observer in a process of its own hears them.
    std::function<void(session *, const held_id &, const attributes *)> described{};
};

// Waiting and calling throw store_lost where the store is, see wait_until(); what was noted so far stays noted.
class session
{
  public:
    session(run_books *books, const cast &users, session_listener listener);
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    // Each false with a line in *error. The observer has then read what there was, and follows it.
    bool open(const run_options &options, std::string *error);
    // Reads the sessions, the VLANs of ports and the match rules into the observer's facts, and where requesters are in processes of their own
    // the attributes into the book.
    bool read_back(std::string *error);
    // Sessions, ports' VLANs and match rules of these users that read_back() has found and that nobody has asked for here, by key text.
    const std::vector<std::string> &strangers() const { return strangers_; }

    // After open() has failed: it was the store that is not there.
    bool store_missing() const { return !connected_; }

    // Sends the requester's requests, and returns when all are settled, or when nothing has been heard for too long.
    void request_all(const run_options &options);
    // Sets the attributes of what was granted.
    void describe_all();
    // Publishes the VLANs of the requester's ports, and asks for their default VLANs.
    void publish_members();
    // Returns when the default VLANs are what was asked for, or when nothing has been heard for too long.
    void wait_for_pvids();
    // Publishes the requester's match rules in place of those that it may have of an earlier life, and returns when a
    // verdict of each was heard, or when nothing has been heard for too long. Verdicts may change afterwards.
    void publish_rules(const run_options &options);
    // Without the earlier life's being deleted, and without waiting.
    void add_rules();
    void wait_for_verdicts(const run_options &options);
    // Those that are there for their verdicts alone.
    void remove_order_rules();
    // Notes what the tables of the library make of the ids that the users of this session have heard. Where requester and
    // observer are in one process the library's merge of the attributes goes into the book.
    void note_tables();

    // Reads the requester's sessions into the index map.
    bool read_own(std::string *error) { return scan_sessions(requester(), error); }
    // A restart of the requester, in steps: reads and marks all that it had, then request_all() and describe_all(), then
    // deletes what is still marked. False with a line in *error; deleting when something is left. After that the map is to
    // be read again: the removal of an eport's session takes its key out of the map, whoever else holds that key.
    bool mark_all(std::string *error);
    bool delete_marked(const run_options &options, std::string *error);

    // Runs the loop until the condition holds. False when nothing has been heard for as long as the options say; throws
    // store_lost when the store has been away for so long.
    bool wait_until(const std::function<bool()> &condition) { return wait_until(condition, patience_usec_); }
    // The same for a shorter or an endless time, whether or not the store is there.
    bool look_until(const std::function<bool()> &condition, int64_t patience_usec)
    {
        return link_.wait_until(condition, patience_usec);
    }
    // On the loop's thread: the condition that is waited for may hold now.
    void happened() { link_.happened(); }
    qz_thread_master *master() const { return link_.master(); }

  private:
    struct subscription {
        const char *fault;  // when it is refused
        std::function<int32_t()> call;
    };

    bool write_ranges(std::span<const range_setting> ranges, std::string *error);
    bool start_users(std::string *error);
    std::vector<subscription> subscriptions();
    bool follow(std::string *error);
    uint32_t followed_db() const { return users_.observer ? SW_EBRIDGE_UDP_DB : SW_EBRIDGE_APP_DB; }
    bool is_both() const { return users_.observer && users_.requester != cast::NOBODY; }
    const char *requester() const { return requests_->users()[users_.requester].c_str(); }
    // Makes a call again as long as the store cannot take it: as wait_until().
    int32_t patiently(const std::function<int32_t()> &call);
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    int64_t patience_with_store() const;
    int32_t ask_for_writes(uint32_t db, qz_mom_msg_cb told);
    int32_t send(const request &wanted);
    int32_t describe(const request &of);
    void wait_for_writes(uint32_t db);
    void answered(const app_key &key, int32_t id);
    void observed(const char *user, const app_key &key, int32_t id, bool removed);
    bool scan_sessions(const char *user, std::string *error);
    bool scan_attributes(std::string *error);
    bool scan_rules(std::string *error);
    bool scan_members(std::string *error);
    bool scan_pvids(std::string *error);
    bool wait_for_ends(int wanted, const char *what, std::string *error);
    void note_session(const ProtobufCMessage &record, const char *key);
    void note_attributes(const qz_mom_notification &msg);
    std::optional<size_t> own_port(const UBridge__PortIndex *index, const char *key);
    void note_vlans(const UBridge__PortVlans &record, const char *key);
    void note_claim(const UBridge__PortVid &record, const char *key);
    void note_pvid(const UBridge__PvidTable &record);
    void note_rule(const UBridge__EmatchEntry &record, const char *key);
    void pvid_changed(uint32_t ifx, int32_t pvid);
    void decided(const UBridge__EmatchEntry &record);
    void wait_for_age_timer();
    void delete_sessions_now();
    bool delete_what_is_left(std::string *error);
    // Indexes of the requests that this session's requester is to make, and of the rules that it is to publish.
    std::vector<size_t> own_wanted() const { return own_of(*requests_); }
    std::vector<size_t> own_rules() const { return own_of(*rules_); }
    template <typename Book>
    std::vector<size_t> own_of(const Book &book) const
    {
        std::vector<size_t> own;
        for (size_t i = 0; i < book.size(); ++i)
            if (book.at(i).user == users_.requester && !book.at(i).dropped)
                own.push_back(i);
        return own;
    }
    template <typename Facts>
    void note(size_t index, const Facts &facts);

    template <bool OBSERVED>
    static int32_t on_vlan(UBridge__VlanAppIndex *index, int32_t vlan_id);
    template <bool OBSERVED>
    static int32_t on_evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    template <bool OBSERVED>
    static int32_t on_eport(UBridge__EportAppIndex *app, UBridge__EportIndex *eport);
    static int32_t on_evlan_removed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan, int32_t event);
    static int32_t on_eport_removed(UBridge__EportAppIndex *app, UBridge__EportIndex *eport, int32_t event);
    static int32_t on_subscribed(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_scanned(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_attributes(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_attributes_read(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_pvid(uint32_t ifx, uint16_t new_pvid, uint16_t old_pvid, sw_vlan_pvid_entry *change);
    static int32_t on_members_read(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_verdict(UBridge__EmatchEntry *entry);
    static int32_t on_rules_read(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_marks_ended(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);

    request_book *requests_;
    member_book *members_;
    rule_book *rules_;
    cast users_;
    session_listener listener_;
    std::vector<std::string> strangers_;
    std::string url_;
    int64_t patience_usec_ = 0;
    bool connected_ = false;
    bool written_ = false;     // all that was, up to a call that told so
    size_t confirmed_ = 0;     // subscriptions
    int ended_ = 0;            // scans, of those that are waited for
    int marks_ended_ = 0;      // marks of which nothing is left any more
    int32_t marks_error_ = 0;  // why one of them could not be set
    store_link link_{};
    ebridged_service *service_ = nullptr;
    ssat_server *shell_ = nullptr;  // null where none can be served: nobody has to look into a run
};

// Prints the library's users and tables of this process on standard output; they outlive the session. False when that
// cannot be written.
bool dump_tables();

}  // namespace ebridge_tool
