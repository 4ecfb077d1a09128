// What the store tests share: handles on one master, records of what their callbacks heard, and time that passes.
//
// The store is named by the environment variable EBRIDGE_CONTRACT_URL, by default an embedded one; "redis" starts a
// server for each test, "map" two that share the databases by a map file, "sentinel" a group that a sentinel watches.
// Any other store has to be empty at the start. On the embedded store the master's clock is
// driven, so that time passes at once; elsewhere it is real.
#ifndef PLATFORM_CONTRACT_STORE_FIXTURE_HPP
#define PLATFORM_CONTRACT_STORE_FIXTURE_HPP

#include <gtest/gtest.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qz_mom.h"
#include "qz_thread.h"
#include "redis_group.hpp"
#include "redis_server.hpp"
#include "u_bridge.pb-c.h"

namespace contract
{

// The database of all tests that need only one.
constexpr uint32_t app_db = 4;

std::string store_url();
// The server that "redis" starts.
support::redis_server &store_server();
// The group that "sentinel" starts.
support::redis_group &store_group();

// One notification, copied.
struct heard {
    uint32_t db;
    std::string key;
    std::string field;
    int32_t cmd;
    int32_t end;
    int32_t error;
    std::shared_ptr<ProtobufCMessage> record;  // null where there was none
};

// The arguments of a callback: remembers each call.
class listener
{
  public:
    // For the calls that take a callback and its argument.
    static int32_t hear(qz_mom_handle *handle, const qz_mom_notification *msg, void *args);

    size_t count(int32_t cmd) const;
    size_t ends(int32_t end) const;
    // The calls that tell of a record: neither confirmations nor end marks nor answers.
    std::vector<heard> changes() const;
    std::vector<int32_t> commands() const;

    std::vector<heard> all;
    std::function<void(qz_mom_handle *, const qz_mom_notification &)> also;  // runs within each call
};

// One evlan session, as the tests write and read it.
struct session {
    std::string user = "app";
    int32_t type = 32;
    int32_t keyid = 0;
    int32_t request_value = 0;
    int32_t request = 0;
    int32_t reply_value = 0;
    int32_t reply = 0;
    auto operator<=>(const session &) const = default;
};
void PrintTo(const session &what, std::ostream *to);

session session_of(const ProtobufCMessage &record);
// The sessions in what was heard; a value that is missing or of another type fails the test.
std::vector<session> sessions(const std::vector<heard> &all);

// Two hands count up a record in turns, one its request value, then the other its reply value. The number of such a state;
// fails the test when the record never was so.
int32_t state_by_two_hands(const session &what);

// The protobuf-c message of a session, with everything that it points to.
class session_record
{
  public:
    explicit session_record(const session &what);
    session_record(const session_record &) = delete;
    session_record &operator=(const session_record &) = delete;
    const ProtobufCMessage *message() const { return &record_.base; }

  private:
    std::string user_;
    UBridge__EvlanAppIndex index_;
    UBridge__EvlanSession record_;
};

// The same for records that are written whole.
class evlan_record
{
  public:
    evlan_record(const std::string &user, int32_t evlan_id, int32_t class_id = 0);
    evlan_record(const evlan_record &) = delete;
    evlan_record &operator=(const evlan_record &) = delete;
    const ProtobufCMessage *message() const { return &record_.base; }
    UBridge__Evlan &operator*() { return record_; }

  private:
    std::string user_;
    UBridge__EvlanIndex index_;
    UBridge__Evlan record_;
};

class StoreTest : public testing::Test
{
  protected:
    StoreTest();
    ~StoreTest() override;

    qz_mom_handle *open(const std::string &url = store_url());
    void close(qz_mom_handle *handle);

    // Runs the master until all that has happened so far has been heard by every handle.
    void settle();
    // For tests that do something to a store that may cost its connection any moment: settle() waits until it is back.
    void store_may_be_away() { may_be_away_ = true; }
    // Runs the master until the condition holds; fails the test when it never does.
    void run_until(const std::function<bool()> &done);
    void pass_time(int64_t milliseconds);
    // Runs the master for a moment.
    void run_once();

    // The calls, with the arguments that most tests use.
    int32_t hmset(qz_mom_handle *by, const session &what, const std::vector<uint32_t> &fields);
    int32_t hmupdate(qz_mom_handle *by, const session &what, const std::vector<uint32_t> &fields);
    int32_t del(qz_mom_handle *by, const session &what);
    int32_t set(qz_mom_handle *by, const evlan_record &what);
    int32_t follow(qz_mom_handle *by, const session &pattern, listener &to);
    int32_t follow_field(qz_mom_handle *by, const session &pattern, uint32_t field, listener &to);
    int32_t follow_evlans(qz_mom_handle *by, listener &to);
    int32_t expire(qz_mom_handle *by, const session &what, int32_t mode, qz_mom_timeval delay, listener &to);
    // What a scan finds, in the order of the keys; that of the delivery is the store's own.
    std::vector<session> scan(qz_mom_handle *by, const session &pattern);

    bool driven_;
    qz_thread_master *master_;

  private:
    struct fence;
    void post_fences(size_t count);

    std::vector<qz_mom_handle *> handles_;
    std::vector<std::unique_ptr<fence>> fences_;
    bool may_be_away_ = false;
    int32_t fence_number_ = 0;
};

// A pattern that every session matches.
inline session any_session() { return {.user = "", .type = 0}; }

}  // namespace contract
#endif
