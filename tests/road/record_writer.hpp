// Writes records into a store as anybody could: what the tests of the commands that look into a store look at.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "store_link.hpp"
#include "u_bridge.pb-c.h"

namespace road
{

class record_writer
{
  public:
    // To the databases 4 and 8.
    explicit record_writer(const std::string &url);

    // In the order of the calls; done after wait().
    void set(uint32_t db, const ProtobufCMessage &record);
    void write(uint32_t db, const ProtobufCMessage &record, const std::vector<uint32_t> &fields);
    void remove(uint32_t db, const ProtobufCMessage &record);
    void expire(uint32_t db, const ProtobufCMessage &record);  // at once
    void wait();

    // For what happens meanwhile on the loop of somebody else.
    bool is_done() const { return done_ == made_; }

  private:
    void call(const std::function<int32_t()> &made);
    static int32_t on_done(qz_mom_handle *, const qz_mom_notification *, void *self);

    ebridge_tool::store_link link_{};
    size_t made_ = 0;
    size_t done_ = 0;
};

// The record of a session with its key. The name must outlive it.
template <typename Index, typename Session>
struct session_of {
    session_of(const char *user, Index key, Session content) : index(key), record(content)
    {
        index.t_user = const_cast<char *>(user);
        record.index = &index;
    }
    session_of(const session_of &) = delete;
    session_of &operator=(const session_of &) = delete;
    const ProtobufCMessage &message() const { return record.base; }
    // As who has got this for an answer.
    session_of &answered(int32_t id, int32_t db = 0)
    {
        record.reply = 1;
        record.reply_value = id;
        record.mom_db = db;
        return *this;
    }

    Index index;
    Session record;
};

struct evlan_session : session_of<UBridge__EvlanAppIndex, UBridge__EvlanSession> {
    evlan_session(const char *user, int32_t type, int32_t key, uint32_t wanted = 0)
        : session_of(user, U_BRIDGE__EVLAN_APP_INDEX__INIT, U_BRIDGE__EVLAN_SESSION__INIT)
    {
        index.type = type;
        index.keyid = key;
        record.request_value = static_cast<int32_t>(wanted);
        record.request = 1;
    }
};

struct eport_session : session_of<UBridge__EportAppIndex, UBridge__EportSession> {
    eport_session(const char *user, int32_t type, int32_t key1, int32_t key2, uint32_t wanted = 0)
        : session_of(user, U_BRIDGE__EPORT_APP_INDEX__INIT, U_BRIDGE__EPORT_SESSION__INIT)
    {
        index.type = type;
        index.keyid1 = key1;
        index.keyid2 = key2;
        record.request_value = static_cast<int32_t>(wanted);
        record.request = 1;
    }
};

}  // namespace road
