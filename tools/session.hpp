// Two users of the library in this process, on an embedded store of their own or on one that they share with others: the
// one that requests and the one that observes. Part of run.cpp's work that knows the library; see there for the flow.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "ebridged.h"
#include "run.hpp"
#include "sw_ebridge.h"

namespace ebridge_tool
{

// A request, what became of it, and what was read back.
struct request {
    size_t table;     // index of its table_result
    std::string key;  // in the configuration
    uint32_t type;
    uint32_t keyid;
    uint32_t wanted;  // request_value: an id, or the type with number 0
    uint32_t vid;     // of VLANs

    int32_t code = 0;  // of the request call
    bool answered = false;
    int32_t reply = -1;       // the id as the requester heard it, -1 refused
    int32_t heard = -1;       // the id as the observer heard it
    bool read = false;        // found by the observer's scan
    bool read_equal = false;  // and there it is what was asked and granted

    bool done() const { return answered && (reply == -1 || heard == reply); }
};

class session
{
  public:
    explicit session(std::vector<request> *requests);
    ~session();
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    // Each false with a line in *error.
    bool open(const run_options &options, std::string *error);
    bool scan(std::string *error);

    // After open() has failed: it was the store that is not there.
    bool store_missing() const { return !connected_; }

    int32_t send(const request &wanted);
    size_t done() const { return done_; }
    // Runs the loop until the condition holds. False when nothing has been heard for `patience_usec`.
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    // What reads differently from what was asked and granted; null when all is equal.
    const char *difference(const request &of) const;

  private:
    bool connect(const std::string &store, std::string *error);
    bool write_ranges(std::span<const range_setting> ranges, std::string *error);
    bool start_users(std::string *error);
    request *find(uint32_t type, uint32_t keyid);
    void answered(uint32_t type, uint32_t keyid, int32_t id);
    void observed(uint32_t type, uint32_t keyid, int32_t id);
    void note_read(const UBridge__EvlanSession &record);
    void count_done(const request &changed, bool before);
    void happened();
    void wake_at(int64_t time);

    static int32_t on_vlan_answer(UBridge__VlanAppIndex *index, int32_t vlan_id);
    static int32_t on_evlan_answer(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    static int32_t on_vlan_observed(UBridge__VlanAppIndex *index, int32_t vlan_id);
    static int32_t on_evlan_observed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan);
    static int32_t on_subscribed(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static int32_t on_scanned(qz_mom_handle *handle, const qz_mom_notification *msg, void *self);
    static void on_wake(void *self);

    std::vector<request> *requests_;
    std::unordered_map<uint64_t, size_t> by_key_;
    size_t done_ = 0;
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

}  // namespace ebridge_tool
