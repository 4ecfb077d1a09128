// See scripted_store.hpp. Key texts here are "USER/TYPE/KEYID".
#include "scripted_store.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace scripted
{

namespace
{

qz_mom_handle the_handle{};

struct record {
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    std::string user;
    std::string key;

    record(const char *name, uint32_t keyid) : user(name), key(user + "/32/" + std::to_string(keyid))
    {
        index.t_user = user.data();
        index.type = 32;
        index.keyid = static_cast<int32_t>(keyid);
        session.index = &index;
        session.request_value = 0x20000000;
        session.request = 1;
    }
    record(const record &) = delete;
    record &operator=(const record &) = delete;
};

void tell(const listener &to, const qz_mom_notification &msg) { to.cb(&the_handle, &msg, to.args); }

int32_t code_of(const std::string &call)
{
    const auto found = the_store().codes.find(call);
    return found == the_store().codes.end() ? 0 : found->second;
}

int32_t note_follow(const char *call, uint32_t db, const ProtobufCMessage *pattern, const listener &given)
{
    const int32_t code = code_of(call);
    if (code != 0)
        return code;
    const bool sessions = pattern->descriptor == &u_bridge__evlan_session__descriptor;
    auto &table = sessions ? the_store().follows : the_store().ranges;
    table[call + (' ' + std::to_string(db))] = given;
    return 0;
}

int32_t note_write(const char *call, uint32_t db, const ProtobufCMessage *message, const listener &given)
{
    const int32_t code = code_of(call);
    if (code != 0)
        return code;
    const auto *session = reinterpret_cast<const UBridge__EvlanSession *>(message);
    char text[200];
    int length = std::snprintf(text, sizeof text, "%s %u %s/%d/%d", call, db, session->index->t_user,
                               session->index->type, session->index->keyid);
    if (std::strcmp(call, "del") != 0)
        std::snprintf(text + length, sizeof text - static_cast<size_t>(length), " 0x%x",
                      static_cast<uint32_t>(session->reply_value));
    the_store().writes.push_back({text, given});
    return 0;
}

}  // namespace

store &the_store()
{
    static store one;
    return one;
}

qz_mom_handle *store::handle() { return &the_handle; }

std::vector<std::string> store::texts() const
{
    std::vector<std::string> all;
    for (const store_write &w : writes)
        all.push_back(w.text);
    return all;
}

void store::run_timers()
{
    const auto due = std::move(timers);
    timers.clear();
    for (const auto &[func, arg] : due)
        func(arg);
}

void store::confirm(const listener &to, uint32_t db) const
{
    tell(to, {.db = db, .key = "", .field = "", .cmd = QZ_MOM_CMD_SUBSCRIBED, .value = nullptr, .end = 0, .error = 0});
}

void store::end_scan(const listener &to, uint32_t db, int32_t error) const
{
    tell(to, {.db = db,
              .key = "",
              .field = "",
              .cmd = QZ_MOM_CMD_NONE,
              .value = nullptr,
              .end = QZ_MOM_END_SCAN,
              .error = error});
}

void store::written(const listener &to, uint32_t db, const char *user, uint32_t keyid, uint32_t reply_value,
                    uint32_t request_value) const
{
    record content(user, keyid);
    content.session.request_value = static_cast<int32_t>(request_value);
    content.session.reply = reply_value != 0;
    content.session.reply_value = static_cast<int32_t>(reply_value);
    qz_mom_hash_value hash{0, &content.session.base};
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = "request",
              .cmd = QZ_MOM_CMD_HMSET,
              .value = &hash,
              .end = 0,
              .error = 0});
}

void store::removed(const listener &to, uint32_t db, const char *user, uint32_t keyid) const
{
    record content(user, keyid);
    tell(to, {.db = db,
              .key = content.key.c_str(),
              .field = "",
              .cmd = QZ_MOM_CMD_DEL,
              .value = &content.session,
              .end = 0,
              .error = 0});
}

void store::write_done(const store_write &which, uint32_t db, const char *user, uint32_t keyid, int32_t error) const
{
    const record content(user, keyid);
    tell(which.done, {.db = db,
                      .key = content.key.c_str(),
                      .field = "",
                      .cmd = QZ_MOM_CMD_NONE,
                      .value = nullptr,
                      .end = 0,
                      .error = error});
}

}  // namespace scripted

using namespace scripted;

extern "C" {

int32_t qz_mom_subscribe(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qz_mom_msg_cb cb,
                         void *args)
{
    return note_follow("subscribe", db, pattern, {cb, args});
}

int32_t qz_mom_subscribe_field(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t,
                               const uint32_t *, const qz_mom_msg_cb *cbs, void *const *args, uint32_t)
{
    return note_follow("subscribe_field", db, pattern, {cbs[0], args[0]});
}

int32_t qz_mom_unsubscribe(qz_mom_handle *, uint32_t, const ProtobufCMessage *, qz_mom_msg_cb, void *) { return 0; }

int32_t qz_mom_scan(qz_mom_handle *, uint32_t db, const ProtobufCMessage *pattern, uint32_t, qz_mom_msg_cb cb,
                    void *args)
{
    return note_follow("scan", db, pattern, {cb, args});
}

int32_t qz_mom_hmset(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, const uint32_t *, uint32_t,
                     qz_mom_msg_cb cb, void *args)
{
    return note_write("hmset", db, record, {cb, args});
}

int32_t qz_mom_hmupdate(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, const uint32_t *, uint32_t,
                        qz_mom_msg_cb cb, void *args)
{
    return note_write("hmupdate", db, record, {cb, args});
}

int32_t qz_mom_del(qz_mom_handle *, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return note_write("del", db, record, {cb, args});
}

const char *qz_mom_strerror(int32_t) { return "code"; }

ProtobufCMessage *qz_mom_key_parse(const ProtobufCMessageDescriptor *, const char *text)
{
    char user[32];
    int32_t type, keyid;
    if (std::sscanf(text, "%31[^/]/%d/%d", user, &type, &keyid) != 3)
        return nullptr;
    auto *index = static_cast<UBridge__EvlanAppIndex *>(std::malloc(sizeof(UBridge__EvlanAppIndex)));
    auto *session = static_cast<UBridge__EvlanSession *>(std::malloc(sizeof(UBridge__EvlanSession)));
    u_bridge__evlan_app_index__init(index);
    u_bridge__evlan_session__init(session);
    index->t_user = strdup(user);
    index->type = type;
    index->keyid = keyid;
    session->index = index;
    return &session->base;
}

int64_t qz_thread_now(const qz_thread_master *) { return 0; }

int32_t qz_thread_call_after(qz_thread_master *, int64_t, qz_thread_call_func func, void *arg)
{
    the_store().timers.emplace_back(func, arg);
    return 0;
}
}
