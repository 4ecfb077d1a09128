// Users of the library in this process, on an embedded store of their own or on one that they share with others: one
// that requests, one that observes, or both. The part of "ebridge run" that knows the library; see run.cpp for the flow.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "ebridged.h"
#include "requests.hpp"
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

class session
{
  public:
    // Called with the index of each request about which something new was heard; may be empty.
    using change_heard = std::function<void(session *, size_t)>;
    session(request_book *requests, const cast &users, change_heard changed);
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    // Each false with a line in *error. The observer has then read what there was, and follows it.
    bool open(const run_options &options, std::string *error);
    // Reads the sessions, into the observer's facts.
    bool scan(std::string *error);

    // After open() has failed: it was the store that is not there.
    bool store_missing() const { return !connected_; }

    // Sends the requester's requests, and returns when all are settled, or when nothing has been heard for too long.
    void request_all(const run_options &options);
    // Notes what the index map and the local database make of the ids that the users of this session have heard.
    void note_tables();
    // Runs the loop until the condition holds. False when nothing has been heard for `patience_usec`.
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    // On the loop's thread: the condition that is waited for may hold now.
    void happened();
    qz_thread_master *master() const { return master_; }

  private:
    bool connect(const std::string &store, std::string *error);
    bool write_ranges(std::span<const range_setting> ranges, std::string *error);
    bool start_users(std::string *error);
    uint32_t followed_db() const { return users_.observer ? SW_EBRIDGE_UDP_DB : SW_EBRIDGE_APP_DB; }
    const char *requester() const { return requests_->users()[users_.requester].c_str(); }
    int32_t send(const request &wanted);
    int32_t send_patiently(const request &wanted, int64_t patience);
    void answered(uint32_t type, uint32_t keyid, int32_t id);
    void observed(const char *user, uint32_t type, uint32_t keyid, int32_t id);
    void note_read(const UBridge__EvlanSession &record);
    template <typename Facts>
    void note(size_t index, const Facts &facts);
    void wake_at(int64_t time);

    static int32_t on_vlan_answer(UBridge__VlanAppIndex *index, int32_t vlan_id);
    static int32_t on_evlan_answer(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    static int32_t on_vlan_observed(UBridge__VlanAppIndex *index, int32_t vlan_id);
    static int32_t on_evlan_observed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    static int32_t on_subscribed(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_scanned(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static void on_wake(void *self);

    request_book *requests_;
    cast users_;
    change_heard changed_;
    bool connected_ = false;
    bool subscribed_ = false;
    bool scan_ended_ = false;
    int64_t quiet_since_ = 0;  // when something was heard last
    int64_t wake_time_ = 0;    // of the latest timer that ends a turn of the loop
    const std::function<bool()> *condition_ = nullptr;
    qz_thread_master *master_ = nullptr;
    qz_mom_handle *handle_ = nullptr;
    ebridged_service *service_ = nullptr;
};

// Prints the library's users and tables of this process on standard output; they outlive the session. False when that
// cannot be written.
bool dump_tables();

}  // namespace ebridge_tool
