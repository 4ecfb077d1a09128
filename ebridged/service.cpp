// The allocator service: its start, and what it does on each change. See service.hpp; writes are in outbox.cpp.
#include "service.hpp"

#include <algorithm>
#include <utility>

#include "notification.hpp"

namespace ebridged
{

namespace
{

constexpr uint32_t DEFAULT_DATABASES[] = {4};

// A holder is a user of a database.
std::string holder_of(const session_id &id) { return std::to_string(id.db) + '/' + id.name.user; }

}  // namespace

size_t session_id_hash::operator()(const session_id &id) const
{
    const auto of = static_cast<uint32_t>(id.name.of);
    return std::hash<std::string>()(id.name.user) + id_key_hash()(id.name.key) +
           (size_t{of} << 16 | id.db) * 0x85ebca6bU;
}

std::vector<uint32_t> databases_of(const ebridged_options *options)
{
    std::vector<uint32_t> databases(std::begin(DEFAULT_DATABASES), std::end(DEFAULT_DATABASES));
    if (options && options->databases)
        databases.assign(options->databases, options->databases + options->database_count);
    std::ranges::sort(databases);
    databases.erase(std::unique(databases.begin(), databases.end()), databases.end());
    return databases;
}

void *service::number_arg(kind of) const { return numbers_.at(of).argument(); }

service::service(qz_mom_handle *handle, const ebridged_options *options)
    : handle_(handle), log(options), databases_(databases_of(options))
{
    for (const uint32_t db : databases_)
        writes_[db];
    writes_[MIRROR_DB];
    for (const kind of : KINDS) {
        allocators_.emplace(of, types_of(of));
        numbers_.try_emplace(of, address{this, of});
    }
}

service::~service()
{
    send_last();
    for (const start_task &task : tasks_) {
        if (task.state == progress::waiting)
            continue;
        if (task.what == step::follow_sessions)
            qz_mom_unsubscribe(handle_, task.db, all_sessions(task.of), on_session, number_arg(task.of));
        if (task.what == step::follow_ranges)
            qz_mom_unsubscribe(handle_, task.db, all_ranges(task.of), on_range, number_arg(task.of));
    }
}

size_t service::keys() const
{
    size_t all = 0;
    for (const auto &[of, ids] : allocators_)
        all += ids.size();
    return all;
}

void service::stat(ebridged_stat *out) const
{
    out->serving = serving_;
    out->sessions = static_cast<uint32_t>(serving_ ? sessions_.size() : found_.size());
    out->keys = static_cast<uint32_t>(keys());
    out->waiting = static_cast<uint32_t>(due_.size() + held_.size());
    out->answered = answered_;
    out->refused = refused_;
}

// ---- the start ------------------------------------------------------------------------------------------------------

int32_t service::start()
{
    // One place for ranges: the ids of all databases are one set, and two places could say two things.
    const uint32_t ranges = databases_.empty() ? 0 : databases_.front();
    const bool mirrors = std::ranges::any_of(databases_, [](uint32_t db) { return db != MIRROR_DB; });
    for (const kind of : KINDS) {
        for (uint32_t db : databases_) {
            if (db == ranges)
                tasks_.push_back({db, of, step::follow_ranges});
            tasks_.push_back({db, of, step::follow_sessions});
            if (db == ranges)
                tasks_.push_back({db, of, step::read_ranges});
            tasks_.push_back({db, of, step::read_sessions});
        }
        if (mirrors)
            tasks_.push_back({MIRROR_DB, of, step::read_mirrors});
    }
    return advance();
}

// Begins every task that may begin. A code that will not pass by itself is returned; else the task is tried again.
int32_t service::advance()
{
    for (start_task &task : tasks_) {
        if (task.state != progress::waiting || !may_begin(task))
            continue;
        const int32_t code = begin(task);
        if (code == QZ_MOM_OK) {
            task.state = progress::under_way;
        } else if (passes(code)) {
            retry_later();
        } else {
            log(EBRIDGED_LOG_ERROR, "database %u: %s", task.db, qz_mom_strerror(code));
            return code;
        }
    }
    return QZ_MOM_OK;
}

bool service::may_begin(const start_task &task) const
{
    if (task.what == step::follow_ranges || task.what == step::follow_sessions)
        return true;
    return std::ranges::none_of(tasks_, [&task](const start_task &other) {
        const bool follows = other.what == step::follow_ranges || other.what == step::follow_sessions;
        return follows && other.db == task.db && other.of == task.of && other.state != progress::done;
    });
}

int32_t service::begin(const start_task &task)
{
    const qz_mom_msg_cb session_cb = on_session;
    void *const number = number_arg(task.of);
    const ProtobufCMessage *const sessions = all_sessions(task.of), *const ranges = all_ranges(task.of);
    switch (task.what) {
        case step::follow_ranges:
            return qz_mom_subscribe(handle_, task.db, ranges, 0, on_range, number);
        case step::follow_sessions:
            return qz_mom_subscribe_field(handle_, task.db, sessions, 0, &REQUEST_FIELD, &session_cb, &number, 1);
        case step::read_ranges:
            return qz_mom_scan(handle_, task.db, ranges, 0, on_range, number);
        case step::read_sessions:
            return qz_mom_scan(handle_, task.db, sessions, 0, on_session_scan, number);
        case step::read_mirrors:
            return qz_mom_scan(handle_, task.db, sessions, 0, on_mirror_scan, number);
    }
    return QZ_MOM_EINVAL;
}

void service::finish(uint32_t db, kind of, step what, int32_t error)
{
    for (start_task &task : tasks_) {
        if (task.db != db || task.of != of || task.what != what || task.state != progress::under_way)
            continue;
        task.state = error == QZ_MOM_OK ? progress::done : progress::waiting;
    }
    if (error != QZ_MOM_OK) {
        log(EBRIDGED_LOG_ERROR, "database %u: %s", db, qz_mom_strerror(error));
        retry_later();
        return;
    }
    advance();
    if (!serving_ && std::ranges::all_of(tasks_, [](const start_task &task) { return task.state == progress::done; }))
        begin_serving();
}

void service::begin_serving()
{
    if (!adopted_)
        adopt_found();
    adopted_ = true;  // once: what is decided from here on may give a key another id than its session says
    remove_stale_mirrors();
    answer_found();
    serving_ = true;  // last: what failed for lack of memory is done from the beginning
    found_.clear();
    mirrors_ = {};
    log(EBRIDGED_LOG_INFO, "serving, %zu sessions, %zu ids in use", sessions_.size(), keys());
}

// Granted ids stay with their keys before any other request is decided.
void service::adopt_found()
{
    for (auto &[key, found] : found_) {
        const session &content = found.content;
        if (found.gone || content.reply == 0 || content.reply_value == -1)
            continue;
        allocator &ids = allocators_.at(found.id.name.of);
        if (ids.adopt(holder_of(found.id), found.id.name.key, id_word(content.reply_value)))
            continue;
        found.conflict = true;
        log(EBRIDGED_LOG_ERROR, "database %u, %s: 0x%x cannot be its id, taken away", found.id.db, key.second.c_str(),
            id_word(content.reply_value));
    }
}

void service::answer_found()
{
    for (const auto &[key, found] : found_) {
        if (found.gone)
            continue;
        if (found.conflict)
            answer(found.id, found.content, {verdict::taken, -1});
        else if (found.content.request != 0)
            session_written(found.id, found.content);
        else
            sessions_.insert_or_assign(found.id, found.content);
    }
}

// Mirrors of sessions that went, or lost their answer, while no service ran. Before anything is answered: their ids are
// free, and who follows the mirrors must hear of each removal before the id is another key's.
void service::remove_stale_mirrors()
{
    for (const mirror_record &mirror : mirrors_) {
        if (std::ranges::find(databases_, mirror.shown.db) == databases_.end())
            continue;
        const auto found = found_.find({mirror.shown.db, mirror.key});
        const bool stands = found != found_.end() && !found->second.gone && !found->second.conflict &&
                            found->second.content.reply != 0 && found->second.content.reply_value == mirror.reply_value;
        if (!stands)
            put_mirror(mirror_of(mirror.shown, find_session(mirror.shown)));
    }
}

// ---- changes --------------------------------------------------------------------------------------------------------

void service::session_heard(kind of, const qz_mom_notification &msg, bool live)
{
    const bool removed = is_removed(msg.cmd);
    if (!removed && !is_written(msg.cmd))
        return;
    session_reading read;
    if (!read_session(of, msg, &read)) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not a session, skipped", msg.db, msg.key);
        return;
    }
    // In the mirror database a record that names another database is one that this service, or another one, wrote.
    if (msg.db == MIRROR_DB && read.mom_db != 0 && read.mom_db != MIRROR_DB)
        return;
    const session_id id{msg.db, std::move(read.name)};
    if (!serving_)
        note_found(msg, id, removed ? nullptr : &read.content, live);
    else if (removed)
        session_removed(id);
    else
        session_written(id, read.content);
}

// Before serving: collects. `content` is null for a removal.
void service::note_found(const qz_mom_notification &msg, const session_id &id, const session *content, bool live)
{
    found_session &entry = found_[{msg.db, msg.key}];
    if (entry.live && !live)
        return;
    entry.id = id;
    entry.live = live;
    entry.gone = content == nullptr;
    if (content)
        entry.content = *content;
}

void service::session_written(const session_id &id, const session &content)
{
    if (content.request == 0)
        return;
    answer(id, content, decide(id, id_word(content.request_value)));
}

decision service::decide(const session_id &id, uint32_t wanted)
{
    allocator &ids = allocators_.at(id.name.of);
    const auto now = qz_thread_now(qz_mom_handle_master(handle_));
    if (!stray_.empty() && (wanted & NUMBER_MASK) == 0 && ids.id_of(id.name.key) == 0) {
        const auto stray = stray_.find(id);
        if (stray != stray_.end() && !is_done(id.db, stray->second.number)) {
            const decision again = ids.request(holder_of(id), id.name.key, stray->second.given, now);
            if (again.why == verdict::granted)
                return again;
        }
    }
    return ids.request(holder_of(id), id.name.key, wanted, now);
}

void service::answer(const session_id &id, const session &content, const decision &made)
{
    const bool refused = made.why != verdict::granted;
    session_entry &entry = *sessions_.try_emplace(id).first;
    session &kept = entry.second;
    const uint64_t under_way = kept.answer;
    kept = content;
    kept.answer = under_way;
    kept.reply_value = made.reply;
    kept.reply = 1;
    ++answered_;
    refused_ += refused;
    const ebridged_log_level level = refused ? EBRIDGED_LOG_INFO : EBRIDGED_LOG_DEBUG;
    if (log.wants(level))
        log(level, "database %u, user %s, %s: 0x%x %s", id.db, id.name.user.c_str(), key_words(id.name).text,
            id_word(made.reply), verdict_text(made.why));
    auto mirrors = mirrors_of(id, &kept);  // before anything is written: it takes memory
    put_answer(entry);
    hold(std::move(mirrors));
}

void service::session_removed(const session_id &id)
{
    allocators_.at(id.name.of).release(holder_of(id), id.name.key, qz_thread_now(qz_mom_handle_master(handle_)));
    if (const auto known = sessions_.find(id); known != sessions_.end()) {
        note_stray(id, known->second);
        sessions_.erase(known);
    }
    hold(mirrors_of(id, nullptr));
}

void service::note_stray(const session_id &id, const session &last)
{
    if (is_done(id.db, last.answer) || last.reply_value == -1)
        return;
    if (stray_.size() >= sweep_at_) {
        std::erase_if(stray_, [this](const auto &each) { return is_done(each.first.db, each.second.number); });
        sweep_at_ = 2 * stray_.size() + 16;
    }
    stray_.insert_or_assign(id, stray_answer{last.answer, id_word(last.reply_value)});
}

void service::range_heard(kind of, const qz_mom_notification &msg)
{
    if (!is_written(msg.cmd) && !is_removed(msg.cmd))
        return;
    range_reading read;
    const auto &[type, numbers] = read;
    allocator &ids = allocators_.at(of);
    const bool known = read_range(of, msg, &read) &&
                       (is_removed(msg.cmd) ? ids.reset_range(type) : ids.set_range(type, numbers.min, numbers.max));
    if (!known)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: a range of no known type, skipped", msg.db, msg.key);
    else if (is_removed(msg.cmd))
        log(EBRIDGED_LOG_INFO, "%s type %u: its own numbers again", kind_name(of), type);
    else if (const auto [min, max] = ids.range_of(type); min <= max)
        log(EBRIDGED_LOG_INFO, "%s type %u: numbers %u to %u", kind_name(of), type, min, max);
    else
        log(EBRIDGED_LOG_ERROR, "%s type %u: numbers %u to %u, so none can be given", kind_name(of), type, numbers.min,
            numbers.max);
}

void service::mirror_heard(kind of, const qz_mom_notification &msg)
{
    session_reading read;
    if (is_written(msg.cmd) && read_session(of, msg, &read) && read.mom_db != MIRROR_DB && read.mom_db != 0)
        mirrors_.push_back({{read.mom_db, read.name}, msg.key, read.content.reply_value});
}

// ---- callbacks ------------------------------------------------------------------------------------------------------

int32_t service::on_session(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    const auto [self, of] = numbers<address>::find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, of, step::follow_sessions, msg->error);
    else if (self)
        self->session_heard(of, *msg, true);
    return 0;
}

int32_t service::on_session_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    const auto [self, of] = numbers<address>::find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, of, step::read_sessions, msg->error);
    else if (self)
        self->session_heard(of, *msg, false);
    return 0;
}

int32_t service::on_range(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    const auto [self, of] = numbers<address>::find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, of, step::follow_ranges, msg->error);
    else if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, of, step::read_ranges, msg->error);
    else if (self)
        self->range_heard(of, *msg);
    return 0;
}

int32_t service::on_mirror_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    const auto [self, of] = numbers<address>::find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, of, step::read_mirrors, msg->error);
    else if (self)
        self->mirror_heard(of, *msg);
    return 0;
}

}  // namespace ebridged
