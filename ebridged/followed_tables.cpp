// Tables that a part of the service follows. See followed_tables.hpp.
#include "followed_tables.hpp"

#include <algorithm>

#include "notification.hpp"

namespace ebridged
{

followed_tables::followed_tables(qz_mom_handle *handle, const service_log &its_log, follower &told)
    : handle_(handle), log(its_log), told_(told)
{
}

followed_tables::~followed_tables()
{
    for (const table &each : tables_)
        if (each.state != progress::unfollowed)
            qz_mom_unsubscribe(handle_, each.db, each.pattern, on_change, each.number.argument());
}

void followed_tables::add(int tag, uint32_t db, const ProtobufCMessage *pattern)
{
    tables_.emplace_back(this, tag, db, pattern);
}

// Begins what may begin.
int32_t followed_tables::advance()
{
    for (table &each : tables_) {
        if (each.state != progress::unfollowed && each.state != progress::unread)
            continue;
        const int32_t code = begin(each);
        if (code == QZ_MOM_OK) {
            each.state = each.state == progress::unfollowed ? progress::following : progress::reading;
        } else if (passes(code)) {
            retry_later(each);
        } else {
            log(EBRIDGED_LOG_ERROR, "database %u: %s", each.db, qz_mom_strerror(code));
            return code;
        }
    }
    return QZ_MOM_OK;
}

int32_t followed_tables::begin(const table &which)
{
    void *const number = which.number.argument();
    if (which.state == progress::unfollowed)
        return qz_mom_subscribe(handle_, which.db, which.pattern, 0, on_change, number);
    return qz_mom_scan(handle_, which.db, which.pattern, 0, on_scan, number);
}

void followed_tables::follows(table &its, int32_t error)
{
    if (its.state != progress::following)
        return;
    its.state = error == QZ_MOM_OK ? progress::unread : progress::unfollowed;
    if (error == QZ_MOM_OK) {
        advance();
        return;
    }
    log(EBRIDGED_LOG_ERROR, "database %u: %s", its.db, qz_mom_strerror(error));
    retry_later(its);
}

void followed_tables::is_read(table &its, int32_t error)
{
    if (its.state != progress::reading)
        return;
    if (error != QZ_MOM_OK) {
        log(EBRIDGED_LOG_ERROR, "database %u: %s", its.db, qz_mom_strerror(error));
        its.state = progress::unread;
        return retry_later(its);
    }
    const auto is_last = [&its](const table &each) { return &each == &its || each.state == progress::read; };
    if (std::ranges::all_of(tables_, is_last))
        told_.all_read();
    its.state = progress::read;  // last: what failed for lack of memory is done from the beginning
    its.changed.clear();
}

void followed_tables::retry_later(const table &its)
{
    if (retry_pending_)
        return;
    void *const number = its.number.argument();
    retry_pending_ = qz_thread_call_after(qz_mom_handle_master(handle_), RETRY_USEC, on_retry, number) == 0;
    if (!retry_pending_)
        log(EBRIDGED_LOG_ERROR, "no timer: database %u is not read", its.db);
}

int32_t followed_tables::on_change(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    table *const its = numbers<table *>::find(number);
    if (its && msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        its->self->follows(*its, msg->error);
    } else if (its && (is_written(msg->cmd) || is_removed(msg->cmd))) {
        if (its->state != progress::read)
            its->changed.insert(msg->key);
        its->self->told_.heard(its->tag, *msg, true);
    }
    return 0;
}

int32_t followed_tables::on_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    table *const its = numbers<table *>::find(number);
    if (its && msg->end == QZ_MOM_END_SCAN)
        its->self->is_read(*its, msg->error);
    else if (its && is_written(msg->cmd) && !its->changed.contains(msg->key))
        its->self->told_.heard(its->tag, *msg, false);
    return 0;
}

void followed_tables::on_retry(void *number)
{
    table *const its = numbers<table *>::find(number);
    if (!its)
        return;
    its->self->retry_pending_ = false;
    its->self->advance();
}

}  // namespace ebridged
