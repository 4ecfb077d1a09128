// Following a store. See watch.hpp.
#include "watch.hpp"

#include <utility>

namespace ebridge_tool
{

namespace
{

timespec time_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

}  // namespace

std::vector<const bridge_table *> tables_of(const watch_query &query)
{
    std::vector<const bridge_table *> wanted = query.tables;
    if (wanted.empty())
        for (const bridge_table &each : bridge_tables())
            wanted.push_back(&each);
    std::erase_if(wanted, [&](const bridge_table *of) {
        return (!query.user.empty() && !has_users(*of->record)) || (query.type && !of->types);
    });
    return wanted;
}

watch::watch(const watch_query &query, writer write)
    : query_(query), write_(std::move(write)), tables_(tables_of(query))
{
}

// ---- the start ------------------------------------------------------------------------------------------------------

template <typename Call>
int32_t watch::for_each_table(const Call &call)
{
    int32_t code = 0;
    for (const bridge_table *of : tables_) {
        const table_pattern pattern(*of->record, query_.user);
        for (const uint32_t db : query_.databases)
            if (code == 0)
                code = link_.patiently([&] { return call(db, &pattern.record()); }, query_.patience_usec);
    }
    return code;
}

int32_t watch::follow(std::string *error)
{
    int32_t code = link_.open(query_.store, query_.databases, error);
    if (code != 0)
        return code;
    qz_mom_handle *const store = link_.handle();
    code = qz_mom_set_queue_limits(store, MOST_WAITING / 4, MOST_WAITING, MOST_WAITING);
    if (code == 0)
        code = qz_mom_set_queue_cb(store, on_queue, this);
    for (const uint32_t db : query_.databases)
        if (code == 0)
            code = qz_mom_client_set_reconnect_cb(store, db, on_connection, this);
    if (code == 0)
        code = for_each_table([&](uint32_t db, const ProtobufCMessage *pattern) {
            return qz_mom_subscribe(store, db, pattern, 0, on_change, this);
        });
    const size_t all = tables_.size() * query_.databases.size();
    if (code == 0 && !link_.wait_until([&] { return failure_ != 0 || confirmed_ == all; }, query_.patience_usec))
        code = QZ_MOM_EDOWN;
    if (code == 0)
        code = failure_;
    // Also where nobody asks what is there: of what goes while the connection is lost nobody hears who has not read it.
    if (code == 0)
        code = for_each_table([&](uint32_t db, const ProtobufCMessage *pattern) {
            return qz_mom_scan(store, db, pattern, 0, on_found, this);
        });
    if (code == 0 && !query_.now && !link_.wait_until([&] { return told_; }, query_.patience_usec))
        code = QZ_MOM_EDOWN;
    if (code != 0)
        *error = std::string("the store cannot be followed: ") + qz_mom_strerror(code);
    return code;
}

void watch::run()
{
    constexpr int64_t LONG_USEC = 3'600'000'000;
    while (!over_)
        link_.wait_until([this] { return over_; }, LONG_USEC);
    if (!lines_.empty())
        write_(std::exchange(lines_, {}));
}

void watch::end()
{
    over_ = true;
    link_.happened();
}

// ---- what is heard --------------------------------------------------------------------------------------------------

int32_t watch::on_change(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *to = static_cast<watch *>(self);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        ++to->confirmed_;
        if (msg->error != 0)
            to->failure_ = msg->error;
        to->link_.happened();
    } else {
        to->heard(*msg, false);
    }
    return 0;
}

int32_t watch::on_found(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *to = static_cast<watch *>(self);
    if (msg->end != QZ_MOM_END_SCAN && to->query_.now)
        to->heard(*msg, true);
    else if (msg->end != QZ_MOM_END_SCAN)
        to->link_.happened();
    else if (++to->scanned_ == to->tables_.size() * to->query_.databases.size())
        to->all_told();
    return 0;
}

int32_t watch::on_connection(qz_mom_handle *, uint32_t db, int32_t type, void *self)
{
    const gap what = type == QZ_MOM_RECONNECT_ERROR  ? gap::lost
                     : type == QZ_MOM_RECONNECT_DONE ? gap::back
                                                     : gap::missed;
    static_cast<watch *>(self)->tell(what, db);
    return 0;
}

// Full: what the store has of changes is read on when there is room, and it does not keep them for ever.
void watch::on_queue(qz_mom_handle *, int32_t above, uint32_t, void *self)
{
    static_cast<watch *>(self)->tell(above != 0 ? gap::behind : gap::caught_up, 0);
}

bool watch::is_wanted(const ProtobufCMessage *record) const
{
    if (!query_.type)
        return true;
    if (!record)
        return true;  // nobody knows of which type it is
    const bridge_table *table = table_of(*record);
    return table && is_of(*query_.type, *table, *record);
}

void watch::heard(const qz_mom_notification &msg, bool is_scan)
{
    const change what = change_of(msg, is_scan);
    if (over_ || what == change::none || !is_wanted(record_of(msg)) || (!is_scan && has_enough()))
        return;
    say(query_.json ? change_object(msg, what, time_now()) : change_line(msg, what, time_now()));
    if (!is_scan && ++changes_ == query_.count && told_)
        end();
}

void watch::all_told()
{
    told_ = true;
    link_.happened();
    if (query_.now)
        say(query_.json ? told_object(time_now()) : told_line(time_now()));
    if (has_enough())
        end();
}

void watch::tell(gap what, uint32_t db)
{
    say(query_.json ? gap_object(what, db, time_now()) : gap_line(what, db, time_now()));
}

// ---- what is written ------------------------------------------------------------------------------------------------

// Lines that come together are written together.
void watch::say(const std::string &line)
{
    constexpr size_t ENOUGH = 65536;
    lines_ += line;
    if (lines_.size() >= ENOUGH)
        flush();
    else if (!flush_posted_)
        flush_posted_ = qz_thread_call(master(), on_flush, this) == 0;
    if (!flush_posted_)
        flush();
}

void watch::on_flush(void *self)
{
    auto *of = static_cast<watch *>(self);
    of->flush_posted_ = false;
    of->flush();
}

void watch::flush()
{
    if (lines_.empty() || over_)
        return;
    if (!write_(std::exchange(lines_, {})))
        end();
}

}  // namespace ebridge_tool
