// The allocator service's writes: answers into session records, and their mirrors. See service.hpp.
#include "service.hpp"

namespace ebridged
{

namespace
{

constexpr int64_t RETRY_USEC = 50'000;
constexpr uint32_t ANSWER_FIELDS[] = {10, 11};               // reply_value, reply
constexpr uint32_t MIRROR_FIELDS[] = {6, 7, 8, 10, 11, 12};  // the request, the answer, mom_db

// A session record on the stack. It points into the name that it is made from.
struct session_record {
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record = U_BRIDGE__EVLAN_SESSION__INIT;

    explicit session_record(const session_name &name)
    {
        index.t_user = const_cast<char *>(name.user.c_str());
        index.type = static_cast<int32_t>(name.type);
        index.keyid = static_cast<int32_t>(name.keyid);
        record.index = &index;
    }
    session_record(const session_record &) = delete;
    session_record &operator=(const session_record &) = delete;

    void fill(const session &content)
    {
        record.request_value = content.request_value;
        record.priority = static_cast<UBridge__ResPriority>(content.priority);
        record.request = content.request;
        record.reply_value = content.reply_value;
        record.reply = content.reply;
    }
};

}  // namespace

bool service::passes(int32_t code) { return code == QZ_MOM_EFULL || code == QZ_MOM_EDOWN || code == QZ_MOM_ENOMEM; }

void service::note_due(duty what, const session_id &id)
{
    if (due_set_.insert({what, id}).second)
        due_.push_back({what, id});
}

void service::put(duty what, const session_id &id)
{
    note_due(what, id);
    if (!retry_pending_)
        send_due();
}

// Writes what is due until the store takes no more.
void service::send_due()
{
    while (!due_.empty()) {
        const due &next = due_.front();
        const int32_t code = send(next);
        if (passes(code)) {
            retry_later();
            return;
        }
        if (code == QZ_MOM_EFENCED)
            return;  // another service has taken over; this one is about to hear of it
        if (code != QZ_MOM_OK)
            log(EBRIDGED_LOG_ERROR, "database %u, user %s, type %u, key %u: cannot be written: %s", next.id.db,
                next.id.name.user.c_str(), next.id.name.type, next.id.name.keyid, qz_mom_strerror(code));
        due_set_.erase(next);
        due_.pop_front();
    }
}

int32_t service::send(const due &next)
{
    return next.what == duty::answer ? send_answer(next.id) : send_mirror(next.id.name);
}

// The update leaves an expiry mark alone, and brings no session back that its owner has deleted meanwhile.
int32_t service::send_answer(const session_id &id)
{
    const auto session = sessions_.find(id);
    if (session == sessions_.end())
        return QZ_MOM_OK;
    session_record written(id.name);
    written.fill(session->second);
    const int32_t code = qz_mom_hmupdate(handle_, id.db, &written.record.base, ANSWER_FIELDS, std::size(ANSWER_FIELDS),
                                         on_written, number_arg());
    if (code == QZ_MOM_OK)
        session->second.answer = ++writes_[id.db].sent;
    return code;
}

int32_t service::send_mirror(const session_name &name)
{
    session_record written(name);
    int32_t code = QZ_MOM_OK;
    if (const auto *origin = to_mirror(name)) {
        written.fill(origin->second);
        written.record.mom_db = static_cast<int32_t>(origin->first.db);
        code = qz_mom_hmset(handle_, MIRROR_DB, &written.record.base, MIRROR_FIELDS, std::size(MIRROR_FIELDS),
                            on_written, number_arg());
    } else {
        code = qz_mom_del(handle_, MIRROR_DB, &written.record.base, on_written, number_arg());
    }
    writes_[MIRROR_DB].sent += code == QZ_MOM_OK;
    return code;
}

// The answered session that the mirror of this name shows: of several databases the lowest. Null: there is none.
const std::pair<const session_id, session> *service::to_mirror(const session_name &name) const
{
    for (uint32_t db : databases_) {
        const auto found = sessions_.find({db, name});
        if (db != MIRROR_DB && found != sessions_.end() && found->second.reply != 0)
            return &*found;
    }
    return nullptr;
}

void service::write_done(uint32_t db)
{
    const uint64_t done = ++writes_[db].done;
    std::erase_if(stray_, [=](const stray_answer &each) { return each.id.db == db && each.number <= done; });
}

// A write that the store had taken over and could not do after all.
void service::write_failed(const qz_mom_notification &msg)
{
    if (msg.error == QZ_MOM_EFENCED)
        return;
    log(EBRIDGED_LOG_ERROR, "database %u, %s: write failed: %s", msg.db, msg.key, qz_mom_strerror(msg.error));
    if (!passes(msg.error))
        return;
    ProtobufCMessage *message = qz_mom_key_parse(&u_bridge__evlan_session__descriptor, msg.key);
    session_id id;
    if (message && read_session_id(msg.db, *reinterpret_cast<UBridge__EvlanSession *>(message), &id)) {
        if (sessions_.contains(id))
            note_due(duty::answer, id);
        if (msg.db == MIRROR_DB)
            note_due(duty::mirror, id);
        retry_later();
    }
    if (message)
        protobuf_c_message_free_unpacked(message, nullptr);
}

int32_t service::on_written(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    service *self = find(number);
    if (!self)
        return 0;
    self->write_done(msg->db);
    if (msg->error != QZ_MOM_OK)
        self->write_failed(*msg);
    return 0;
}

void service::retry_later()
{
    if (retry_pending_)
        return;
    retry_pending_ = true;
    if (qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number_arg()) != 0) {
        retry_pending_ = false;
        log(EBRIDGED_LOG_ERROR, "no timer: %zu writes wait for the next change", due_.size());
    }
}

void service::on_retry(void *number)
{
    service *self = find(number);
    if (!self)
        return;
    self->retry_pending_ = false;
    self->advance();
    self->send_due();
}

}  // namespace ebridged
