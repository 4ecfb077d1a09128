// See eport_user.hpp.
#include "eport_user.hpp"

#include <utility>

#include "sw_ebridge.h"

namespace fault
{

namespace
{

constexpr uint32_t REQUEST[] = {6, 7, 8}, REPLY = 11;

struct session_record {
    UBridge__EportAppIndex index = U_BRIDGE__EPORT_APP_INDEX__INIT;
    UBridge__EportSession session = U_BRIDGE__EPORT_SESSION__INIT;

    session_record(std::string &user, const bridge_key &key)
    {
        index.t_user = user.data();
        index.type = static_cast<int32_t>(key.type);
        index.keyid1 = static_cast<int32_t>(key.keyid);
        index.keyid2 = static_cast<int32_t>(key.keyid2);
        session.index = &index;
    }
    session_record(const session_record &) = delete;
    session_record &operator=(const session_record &) = delete;
};

const UBridge__EportSession *session_of(const qz_mom_notification &msg)
{
    const bool hash = msg.cmd == QZ_MOM_CMD_HSET || msg.cmd == QZ_MOM_CMD_HMSET;
    return static_cast<const UBridge__EportSession *>(hash ? static_cast<const qz_mom_hash_value *>(msg.value)->record
                                                           : msg.value);
}

}  // namespace

eport_user::eport_user(qz_mom_handle *handle, std::string &name, bool follows_all, hearing tell)
    : handle_(handle),
      name_(name),
      db_(follows_all ? SW_EBRIDGE_UDP_DB : SW_EBRIDGE_APP_DB),
      follows_all_(follows_all),
      tell_(std::move(tell))
{
}

int32_t eport_user::start()
{
    std::string anybody;
    session_record pattern(follows_all_ ? anybody : name_, {});
    const qz_mom_msg_cb callback = on_session;
    void *const self = this;
    return qz_mom_subscribe_field(handle_, db_, &pattern.session.base, 0, &REPLY, &callback, &self, 1);
}

int32_t eport_user::request(const bridge_key &key, uint32_t wanted)
{
    session_record asked(name_, key);
    asked.session.request_value = static_cast<int32_t>(wanted);
    asked.session.request = 1;
    return qz_mom_hmset(handle_, SW_EBRIDGE_APP_DB, &asked.session.base, REQUEST, std::size(REQUEST), nullptr, nullptr);
}

int32_t eport_user::release(const bridge_key &key)
{
    const session_record gone(name_, key);
    return qz_mom_del(handle_, SW_EBRIDGE_APP_DB, &gone.session.base, nullptr, nullptr);
}

int32_t eport_user::release_later(const bridge_key &key, int32_t seconds)
{
    const session_record marked(name_, key);
    const qz_mom_timeval delay{seconds, 0};
    return qz_mom_pexpire(handle_, SW_EBRIDGE_APP_DB, &marked.session.base, QZ_MOM_EXPIRE_EPORT_SESSION, &delay,
                          nullptr, nullptr);
}

// What there is comes after the confirmation, as changes do.
int32_t eport_user::on_session(qz_mom_handle *handle, const qz_mom_notification *msg, void *self)
{
    auto &user = *static_cast<eport_user *>(self);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        std::string anybody;
        session_record pattern(user.follows_all_ ? anybody : user.name_, {});
        return qz_mom_scan(handle, user.db_, &pattern.session.base, 0, on_session, self);
    }
    if (msg->value != nullptr)
        user.hear(*msg);
    return 0;
}

void eport_user::hear(const qz_mom_notification &msg)
{
    const UBridge__EportSession &said = *session_of(msg);
    const bridge_key key{table::eport, static_cast<uint32_t>(said.index->type),
                         static_cast<uint32_t>(said.index->keyid1), static_cast<uint32_t>(said.index->keyid2)};
    const auto id = static_cast<uint32_t>(said.reply_value);
    const bool removed = msg.cmd == QZ_MOM_CMD_DEL || msg.cmd == QZ_MOM_CMD_EXPIRED;
    if (removed)
        tell_(event::kind::removed, {said.index->t_user, key}, id);
    else if (said.reply != 0)
        tell_(id == REFUSED ? event::kind::refused : event::kind::granted, {said.index->t_user, key}, id);
}

}  // namespace fault
