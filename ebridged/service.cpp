// The allocator service: its start, and what it does on each change. See service.hpp; writes are in outbox.cpp.
#include "service.hpp"

#include <algorithm>
#include <mutex>
#include <utility>

namespace ebridged
{

namespace
{

constexpr uint32_t REQUEST_FIELD = 8;
constexpr uint32_t DEFAULT_DATABASES[] = {4};

// Patterns that match every session and every range: a key with nothing in it.
struct patterns {
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession sessions = U_BRIDGE__EVLAN_SESSION__INIT;
    UBridge__EvlanSessionRange ranges = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;

    patterns() { sessions.index = &index; }
    patterns(const patterns &) = delete;
    patterns &operator=(const patterns &) = delete;
};

// Live services by number. A callback's argument is a number, so that it may outlive its service.
struct registry {
    std::mutex lock;
    std::unordered_map<uintptr_t, service *> live;
    uintptr_t last = 0;
};

registry &services()
{
    static auto *all = new registry;
    return *all;
}

uintptr_t add_service(service *added)
{
    const std::lock_guard guard(services().lock);
    services().live.emplace(++services().last, added);
    return services().last;
}

void drop_service(uintptr_t number)
{
    const std::lock_guard guard(services().lock);
    services().live.erase(number);
}

uint32_t id_word(int32_t value) { return static_cast<uint32_t>(value); }

bool is_written(int32_t cmd) { return cmd == QZ_MOM_CMD_SET || cmd == QZ_MOM_CMD_HSET || cmd == QZ_MOM_CMD_HMSET; }

bool is_removed(int32_t cmd) { return cmd == QZ_MOM_CMD_DEL || cmd == QZ_MOM_CMD_EXPIRED; }

// The record of a notification when it is of the wanted type, or null.
template <typename record>
const record *record_of(const qz_mom_notification &msg, const ProtobufCMessageDescriptor &wanted)
{
    const auto *message = static_cast<const ProtobufCMessage *>(msg.value);
    if (msg.cmd == QZ_MOM_CMD_HSET || msg.cmd == QZ_MOM_CMD_HMSET) {
        const auto *hash = static_cast<const qz_mom_hash_value *>(msg.value);
        message = hash && hash->error == 0 ? hash->record : nullptr;
    }
    if (!message || message->descriptor != &wanted || msg.error != 0)
        return nullptr;
    return reinterpret_cast<const record *>(message);
}

session content_of(const UBridge__EvlanSession &record)
{
    return {record.request_value, static_cast<int32_t>(record.priority), record.request, record.reply_value,
            record.reply};
}

id_key key_of(const session_name &name) { return {name.type, name.keyid, 0}; }

// A holder is a user of a database.
std::string holder_of(const session_id &id) { return std::to_string(id.db) + '/' + id.name.user; }

}  // namespace

size_t session_id_hash::operator()(const session_id &id) const noexcept
{
    return std::hash<std::string>()(id.name.user) ^ id_key_hash()(id_key{id.name.type, id.name.keyid, id.db});
}

bool read_session_id(uint32_t db, const UBridge__EvlanSession &record, session_id *out)
{
    if (!record.index)
        return false;
    out->db = db;
    out->name.user = record.index->t_user ? record.index->t_user : "";
    out->name.type = id_word(record.index->type);
    out->name.keyid = id_word(record.index->keyid);
    return true;
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

service *service::find(void *number)
{
    const std::lock_guard guard(services().lock);
    auto entry = services().live.find(reinterpret_cast<uintptr_t>(number));
    return entry == services().live.end() ? nullptr : entry->second;
}

void *service::number_arg() const { return reinterpret_cast<void *>(number_); }

service::service(qz_mom_handle *handle, const ebridged_options *options)
    : handle_(handle), log(options), number_(add_service(this)), databases_(databases_of(options))
{
}

service::~service()
{
    drop_service(number_);
    const patterns all;
    for (const start_task &task : tasks_) {
        if (task.state == progress::waiting)
            continue;
        if (task.what == step::follow_sessions)
            qz_mom_unsubscribe(handle_, task.db, &all.sessions.base, on_session, number_arg());
        if (task.what == step::follow_ranges)
            qz_mom_unsubscribe(handle_, task.db, &all.ranges.base, on_range, number_arg());
    }
}

void service::stat(ebridged_stat *out) const
{
    *out = ebridged_stat{
        .serving = serving_,
        .sessions = static_cast<uint32_t>(serving_ ? sessions_.size() : found_.size()),
        .keys = static_cast<uint32_t>(allocator_.size()),
        .waiting = static_cast<uint32_t>(due_.size()),
        .answered = answered_,
        .refused = refused_,
    };
}

// ---- the start ------------------------------------------------------------------------------------------------------

int32_t service::start()
{
    // One place for ranges: the ids of all databases are one set, and two places could say two things.
    const uint32_t ranges = databases_.empty() ? 0 : databases_.front();
    for (uint32_t db : databases_) {
        if (db == ranges)
            tasks_.push_back({db, step::follow_ranges});
        tasks_.push_back({db, step::follow_sessions});
        if (db == ranges)
            tasks_.push_back({db, step::read_ranges});
        tasks_.push_back({db, step::read_sessions});
    }
    if (std::ranges::any_of(databases_, [](uint32_t db) { return db != MIRROR_DB; }))
        tasks_.push_back({MIRROR_DB, step::read_mirrors});
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
        return follows && other.db == task.db && other.state != progress::done;
    });
}

int32_t service::begin(const start_task &task)
{
    const patterns all;
    const qz_mom_msg_cb session_cb = on_session;
    void *const number = number_arg();
    switch (task.what) {
        case step::follow_ranges:
            return qz_mom_subscribe(handle_, task.db, &all.ranges.base, 0, on_range, number);
        case step::follow_sessions:
            return qz_mom_subscribe_field(handle_, task.db, &all.sessions.base, 0, &REQUEST_FIELD, &session_cb, &number,
                                          1);
        case step::read_ranges:
            return qz_mom_scan(handle_, task.db, &all.ranges.base, 0, on_range, number);
        case step::read_sessions:
            return qz_mom_scan(handle_, task.db, &all.sessions.base, 0, on_session_scan, number);
        case step::read_mirrors:
            return qz_mom_scan(handle_, task.db, &all.sessions.base, 0, on_mirror_scan, number);
    }
    return QZ_MOM_EINVAL;
}

void service::finish(uint32_t db, step what, int32_t error)
{
    for (start_task &task : tasks_) {
        if (task.db != db || task.what != what || task.state != progress::under_way)
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
    serving_ = true;
    adopt_found();
    remove_stale_mirrors();
    answer_found();
    found_.clear();
    mirrors_ = {};
    log(EBRIDGED_LOG_INFO, "serving, %zu sessions, %zu ids in use", sessions_.size(), allocator_.size());
}

// Granted ids stay with their keys before any other request is decided.
void service::adopt_found()
{
    for (auto &[key, found] : found_) {
        const session &content = found.content;
        if (found.gone || content.reply == 0 || content.reply_value == -1)
            continue;
        const id_key wanted = key_of(found.id.name);
        if (allocator_.adopt(holder_of(found.id), wanted, id_word(content.reply_value)))
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
            put(duty::mirror, mirror.shown);
    }
}

// ---- changes --------------------------------------------------------------------------------------------------------

void service::session_heard(const qz_mom_notification &msg, bool live)
{
    const bool removed = is_removed(msg.cmd);
    if (!removed && !is_written(msg.cmd))
        return;
    const auto *record = record_of<UBridge__EvlanSession>(msg, u_bridge__evlan_session__descriptor);
    session_id id;
    if (!record || !read_session_id(msg.db, *record, &id)) {
        log(EBRIDGED_LOG_ERROR, "database %u, %s: not a session, skipped", msg.db, msg.key);
        return;
    }
    // In the mirror database a record that names another database is one that this service, or another one, wrote.
    if (msg.db == MIRROR_DB && record->mom_db != 0 && id_word(record->mom_db) != MIRROR_DB)
        return;
    const session content = content_of(*record);
    if (!serving_)
        note_found(msg, id, removed ? nullptr : &content, live);
    else if (removed)
        session_removed(id);
    else
        session_written(id, content);
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
    const auto now = qz_thread_now(qz_mom_handle_master(handle_));
    if ((wanted & NUMBER_MASK) == 0) {
        for (const stray_answer &stray : stray_) {
            if (stray.id != id)
                continue;
            const decision again = allocator_.request(holder_of(id), key_of(id.name), stray.evlan_id, now);
            if (again.why == verdict::granted)
                return again;
        }
    }
    return allocator_.request(holder_of(id), key_of(id.name), wanted, now);
}

void service::answer(const session_id &id, const session &content, const decision &made)
{
    const bool refused = made.why != verdict::granted;
    session &kept = sessions_[id];
    const uint64_t under_way = kept.answer;
    kept = content;
    kept.answer = under_way;
    kept.reply_value = made.reply;
    kept.reply = 1;
    ++answered_;
    refused_ += refused;
    log(refused ? EBRIDGED_LOG_INFO : EBRIDGED_LOG_DEBUG, "database %u, user %s, type %u, key %u: 0x%x %s", id.db,
        id.name.user.c_str(), id.name.type, id.name.keyid, id_word(made.reply), verdict_text(made.why));
    put(duty::answer, id);
    if (id.db != MIRROR_DB)
        put(duty::mirror, id);
}

void service::session_removed(const session_id &id)
{
    allocator_.release(holder_of(id), key_of(id.name), qz_thread_now(qz_mom_handle_master(handle_)));
    if (const auto known = sessions_.find(id); known != sessions_.end()) {
        const session &last = known->second;
        if (last.answer > writes_[id.db].done && last.reply_value != -1)
            stray_.push_back({id, last.answer, id_word(last.reply_value)});
        sessions_.erase(known);
    }
    if (id.db != MIRROR_DB)
        put(duty::mirror, id);
}

void service::range_heard(const qz_mom_notification &msg)
{
    if (!is_written(msg.cmd) && !is_removed(msg.cmd))
        return;
    const auto *record = record_of<UBridge__EvlanSessionRange>(msg, u_bridge__evlan_session_range__descriptor);
    const uint32_t type = record ? static_cast<uint32_t>(record->index) : 0;
    const uint32_t min = record ? id_word(record->evlan_id_min) & NUMBER_MASK : 0;
    const uint32_t max = record ? id_word(record->evlan_id_max) & NUMBER_MASK : 0;
    const bool known = is_removed(msg.cmd) ? allocator_.reset_range(type) : allocator_.set_range(type, min, max);
    if (!known)
        log(EBRIDGED_LOG_ERROR, "database %u, %s: a range of no known type, skipped", msg.db, msg.key);
    else if (is_removed(msg.cmd))
        log(EBRIDGED_LOG_INFO, "type %u: its own numbers again", type);
    else
        log(min > max ? EBRIDGED_LOG_ERROR : EBRIDGED_LOG_INFO, "type %u: numbers %u to %u%s", type, min, max,
            min > max ? ", so none can be given" : "");
}

void service::mirror_heard(const qz_mom_notification &msg)
{
    const auto *record =
        is_written(msg.cmd) ? record_of<UBridge__EvlanSession>(msg, u_bridge__evlan_session__descriptor) : nullptr;
    session_id id;
    if (record && read_session_id(msg.db, *record, &id) && id_word(record->mom_db) != MIRROR_DB && record->mom_db != 0)
        mirrors_.push_back({{id_word(record->mom_db), id.name}, msg.key, record->reply_value});
}

// ---- callbacks ------------------------------------------------------------------------------------------------------

int32_t service::on_session(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    service *self = find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, step::follow_sessions, msg->error);
    else if (self)
        self->session_heard(*msg, true);
    return 0;
}

int32_t service::on_session_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    service *self = find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, step::read_sessions, msg->error);
    else if (self)
        self->session_heard(*msg, false);
    return 0;
}

int32_t service::on_range(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    service *self = find(number);
    if (self && msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self->finish(msg->db, step::follow_ranges, msg->error);
    else if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, step::read_ranges, msg->error);
    else if (self)
        self->range_heard(*msg);
    return 0;
}

int32_t service::on_mirror_scan(qz_mom_handle *, const qz_mom_notification *msg, void *number)
{
    service *self = find(number);
    if (self && msg->end == QZ_MOM_END_SCAN)
        self->finish(msg->db, step::read_mirrors, msg->error);
    else if (self)
        self->mirror_heard(*msg);
    return 0;
}

}  // namespace ebridged
