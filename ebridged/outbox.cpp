// The allocator service's writes: answers into session records, and their mirrors. See service.hpp.
#include <new>

#include "notification.hpp"
#include "service.hpp"

namespace ebridged
{

void service::note_due(duty what, const session_id &id)
{
    const auto [noted, is_new] = due_set_.insert({what, id});
    if (!is_new)
        return;
    try {
        due_.push_back(*noted);
    } catch (const std::bad_alloc &) {
        due_set_.erase(noted);
        throw;
    }
}

void service::put(duty what, const session_id &id)
{
    if (due_.empty() && write(what, id) == QZ_MOM_OK)
        return;
    note_due(what, id);
    if (!retry_pending_)
        send_due();
}

// Writes what is due until the store takes no more.
void service::send_due()
{
    while (!due_.empty()) {
        const due &next = due_.front();
        const int32_t code = write(next.what, next.id);
        if (passes(code))
            return retry_later();
        if (code != QZ_MOM_OK)
            return;
        due_set_.erase(next);
        due_.pop_front();
    }
}

// 0 when nothing is left to do, also because the write is impossible. Otherwise a code that passes, or EFENCED: another
// service has taken over, and this one is about to hear of it.
int32_t service::write(duty what, const session_id &id)
{
    const int32_t code = what == duty::answer ? send_answer(id) : send_mirror(id.name);
    if (code == QZ_MOM_OK || code == QZ_MOM_EFENCED || passes(code))
        return code;
    log(EBRIDGED_LOG_ERROR, "database %u, user %s, %s: cannot be written: %s", id.db, id.name.user.c_str(),
        key_words(id.name).text, qz_mom_strerror(code));
    return QZ_MOM_OK;
}

// The update leaves an expiry mark alone, and brings no session back that its owner has deleted meanwhile.
int32_t service::send_answer(const session_id &id)
{
    const auto session = sessions_.find(id);
    if (session == sessions_.end())
        return QZ_MOM_OK;
    const session_record written(id.name, session->second);
    const int32_t code = qz_mom_hmupdate(handle_, id.db, written.message(), ANSWER_FIELDS, std::size(ANSWER_FIELDS),
                                         on_written, number_arg(id.name.of));
    if (code == QZ_MOM_OK)
        session->second.answer = ++writes_.at(id.db).sent;
    return code;
}

int32_t service::send_mirror(const session_name &name)
{
    void *const number = number_arg(name.of);
    int32_t code = QZ_MOM_OK;
    if (const auto *origin = to_mirror(name)) {
        const session_record written(name, origin->second, origin->first.db);
        code = qz_mom_hmset(handle_, MIRROR_DB, written.message(), MIRROR_FIELDS, std::size(MIRROR_FIELDS), on_written,
                            number);
    } else {
        code = qz_mom_del(handle_, MIRROR_DB, session_record(name).message(), on_written, number);
    }
    writes_.at(MIRROR_DB).sent += code == QZ_MOM_OK;
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

// A write that the store had taken over and could not do after all.
void service::write_failed(kind of, const qz_mom_notification &msg)
{
    if (msg.error == QZ_MOM_EFENCED)
        return;
    log(EBRIDGED_LOG_ERROR, "database %u, %s: write failed: %s", msg.db, msg.key, qz_mom_strerror(msg.error));
    session_id id{msg.db, {}};
    if (!passes(msg.error) || !read_session_name(of, msg.key, &id.name))
        return;
    if (sessions_.contains(id))
        note_due(duty::answer, id);
    if (msg.db == MIRROR_DB)
        note_due(duty::mirror, id);
    retry_later();
}

int32_t service::on_written(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    const auto [self, of] = numbers<address>::find(number);
    if (!self)
        return 0;
    if (msg->error != QZ_MOM_OK)
        self->write_failed(of, *msg);
    ++self->writes_.at(msg->db).done;
    return 0;
}

void service::retry_later()
{
    if (retry_pending_)
        return;
    retry_pending_ = true;
    if (qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number_arg(KINDS.front())) != 0) {
        retry_pending_ = false;
        log(EBRIDGED_LOG_ERROR, "no timer: %zu writes wait for the next change", due_.size());
    }
}

void service::on_retry(void *number)
{
    service *const self = numbers<address>::find(number).self;
    if (!self)
        return;
    self->retry_pending_ = false;
    self->advance();
    try {
        self->send_due();
    } catch (const std::bad_alloc &) {
        self->retry_later();  // nobody makes this call again
    }
}

}  // namespace ebridged
