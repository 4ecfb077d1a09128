// The allocator service's writes: answers into session records, and their mirrors. See service.hpp.
#include <new>

#include "notification.hpp"
#include "service.hpp"

namespace ebridged
{

namespace
{

constexpr int64_t HOLD_USEC = 2'000;
constexpr size_t ENOUGH_MIRRORS = 128;  // as many as the store client sends in one call

}  // namespace

void service::note_due(duty what, const session_id &id)
{
    const auto [noted, is_new] = due_set_.insert({what, id});
    if (!is_new)
        return;
    try {
        due_.insert(what == duty::removal ? due_.begin() : due_.end(), *noted);
    } catch (const std::bad_alloc &) {
        due_set_.erase(noted);
        throw;
    }
}

void service::put_answer(session_entry &answered)
{
    if (!due_.empty() || outcome(answered.first, send_answer(answered)) != QZ_MOM_OK)
        put_off(duty::answer, answered.first);
}

void service::put_mirror(const mirror_write &made)
{
    if (!due_.empty() || outcome(made.id, send_mirror(made)) != QZ_MOM_OK)
        put_off(mirror_duty(made), made.id);
}

service::duty service::mirror_duty(const mirror_write &made) { return made.shown ? duty::mirror : duty::removal; }

// Behind all that is due, a removal ahead of it.
void service::put_off(duty what, const session_id &id)
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
        const int32_t code = write(next.what, next.id);
        if (passes(code))
            return retry_later();
        if (code != QZ_MOM_OK)
            return;
        due_set_.erase(next);
        due_.pop_front();
    }
}

// What the mirror of this name shows: of the answered sessions of several databases that of the lowest. `own` is the
// session itself, null when it is gone.
service::mirror_write service::mirror_of(const session_id &id, const session *own) const
{
    for (const uint32_t db : databases_) {
        const session *const shown = db == id.db ? own : find_session({db, id.name});
        if (db != MIRROR_DB && shown && shown->reply != 0)
            return {id, db, *shown};
    }
    return {id, std::nullopt, {}};
}

const session *service::find_session(const session_id &id) const
{
    const auto found = sessions_.find(id);
    return found == sessions_.end() ? nullptr : &found->second;
}

// As a list, because holding it then cannot fail.
std::list<service::mirror_write> service::mirrors_of(const session_id &id, const session *own) const
{
    std::list<mirror_write> made;
    if (id.db != MIRROR_DB)
        made.push_back(mirror_of(id, own));
    return made;
}

// When there is no timer, too, they are written at once.
void service::hold(std::list<mirror_write> &&made)
{
    held_.splice(held_.end(), made);
    if (!due_.empty() || held_.size() >= ENOUGH_MIRRORS || !send_held_later())
        send_held();
}

bool service::send_held_later()
{
    if (!held_.empty() && !hold_pending_)
        hold_pending_ =
            qz_thread_call_after(qz_mom_handle_master(handle_), HOLD_USEC, on_held, number_arg(KINDS.front())) == 0;
    return held_.empty() || hold_pending_;
}

void service::send_held()
{
    for (; !held_.empty(); held_.pop_front())
        put_mirror(held_.front());
}

void service::send_last()
{
    while (!held_.empty() && outcome(held_.front().id, send_mirror(held_.front())) == QZ_MOM_OK)
        held_.pop_front();
}

void service::on_held(void *number)
{
    service *const self = numbers<address>::find(number).self;
    if (!self)
        return;
    self->hold_pending_ = false;
    try {
        self->send_held();
    } catch (const std::bad_alloc &) {
        self->send_held_later();  // without a timer the next change sends them
    }
}

// As things stand. What is removed by now has a removal of its own; what is there again after one is due behind it.
int32_t service::write(duty what, const session_id &id)
{
    if (what == duty::removal)
        return outcome(id, send_mirror({id, std::nullopt, {}}));
    if (what == duty::mirror) {
        const mirror_write made = mirror_of(id, find_session(id));
        return made.shown ? outcome(id, send_mirror(made)) : QZ_MOM_OK;
    }
    const auto session = sessions_.find(id);
    return session == sessions_.end() ? QZ_MOM_OK : outcome(id, send_answer(*session));
}

// 0 when nothing is left to do, also because the write is impossible. Otherwise a code that passes, or EFENCED: another
// service has taken over, and this one is about to hear of it.
int32_t service::outcome(const session_id &id, int32_t code) const
{
    if (code == QZ_MOM_OK || code == QZ_MOM_EFENCED || passes(code))
        return code;
    log(EBRIDGED_LOG_ERROR, "database %u, user %s, %s: cannot be written: %s", id.db, id.name.user.c_str(),
        key_words(id.name).text, qz_mom_strerror(code));
    return QZ_MOM_OK;
}

// The update leaves an expiry mark alone, and brings no session back that its owner has deleted meanwhile.
int32_t service::send_answer(session_entry &answered)
{
    auto &[id, content] = answered;
    const session_record written(id.name, content);
    const int32_t code = qz_mom_hmupdate(handle_, id.db, written.message(), ANSWER_FIELDS, std::size(ANSWER_FIELDS),
                                         on_written, number_arg(id.name.of));
    if (code == QZ_MOM_OK)
        content.answer = ++writes_.at(id.db).sent;
    return code;
}

int32_t service::send_mirror(const mirror_write &made)
{
    const session_name &name = made.id.name;
    void *const number = number_arg(name.of);
    int32_t code = QZ_MOM_OK;
    if (made.shown) {
        const session_record written(name, made.content, *made.shown);
        code = qz_mom_hmset(handle_, MIRROR_DB, written.message(), MIRROR_FIELDS, std::size(MIRROR_FIELDS), on_written,
                            number);
    } else {
        code = qz_mom_del(handle_, MIRROR_DB, session_record(name).message(), on_written, number);
    }
    writes_.at(MIRROR_DB).sent += code == QZ_MOM_OK;
    return code;
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
        note_due(mirror_duty(mirror_of(id, find_session(id))), id);
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
