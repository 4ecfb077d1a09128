// The session protocol of evlans and eports, as far as it is alike: request, release, the allocator's replies, scan and
// subscription. `Kind` is one of twins.hpp. `where` is the call site in the exported function that logs.
//
// The road of a grant: hear_session() hears the session, apply_session() sorts it, map_reply() turns it into index map
// entries, Kind::take_grant() tells the users.
#pragma once

#include <cstdlib>
#include <optional>

#include "arrays.hpp"
#include "twin_tables.hpp"

namespace sw
{

template <class Kind>
typename Kind::session session_of(typename Kind::app_index *app)
{
    typename Kind::session session = Kind::new_session();
    session.index = app;
    return session;
}

// ---- request ------------------------------------------------------------------------------------------------------

// The stored item of the application's key, made when absent, marked as actively requested. Null without memory.
template <class Kind>
typename Kind::map_item *mark_requested(const typename Kind::app_index &app)
{
    typename Kind::map_item item = app_item<Kind>(app);
    copy_name(item.user_name, app.t_user);
    typename Kind::map_item *stored = Kind::map_get(0, &item);
    if (stored == nullptr)
        stored = Kind::map_create(0, &item);
    if (stored != nullptr)
        stored->ds_flag |= SW_INDEX_MAP_REQUESTED;
    return stored;
}

// A key that comes back within the release delay keeps its id: the pending expiry is taken off.
template <class Kind>
void take_back(site where, const sw_ebridge_list_item &user, const typename Kind::session &session,
               const typename Kind::map_item &item)
{
    const typename Kind::app_index &app = *session.index;
    if (!Kind::may_come_back(app) || item.value[0] == 0 || !same_name(item.user_name, app.t_user))
        return;
    Kind::log_clear_expire(where, app, item.value[0]);
    const int32_t rv = qz_mom_clear_expire(user.mom_handle, user.mod_db, &session.base, nullptr, nullptr);
    if (rv != 0)
        Kind::log_not_cleared(where, rv);
}

inline int32_t write_request(site where, const sw_ebridge_list_item &user, const ProtobufCMessage &session)
{
    static constexpr uint32_t request_fields[] = {6, 7, 8};  // request_value, priority, request
    const int32_t rv = qz_mom_hmset(user.mom_handle, user.mod_db, &session, request_fields, count_of(request_fields),
                                    nullptr, nullptr);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_hmset failed, rv: %d.", rv);
    return rv;
}

template <class Kind>
int32_t request(site where, typename Kind::app_index *app, int32_t request_value, UBridge__ResPriority priority)
{
    if (app == nullptr) {
        SW_LOG_AT(where, error, "Assert:Bad index.");
        return -2;
    }
    if (app->type == 0) {
        SW_LOG_AT(where, error, Kind::bad_type);
        return -2;
    }
    const sw_ebridge_list_item *user = find_user(where, app->t_user);
    if (user == nullptr)
        return -2;
    const auto type = static_cast<uint32_t>(app->type);
    const uint32_t value = request_value != 0 ? static_cast<uint32_t>(request_value) : type << 24;
    if (!Kind::accepts_value(where, type, value))
        return -2;
    Kind::log_request(where, *app, value);

    typename Kind::session session = session_of<Kind>(app);
    session.request_value = static_cast<int32_t>(value);
    session.priority = priority;
    session.request = 1;
    const typename Kind::map_item *item = mark_requested<Kind>(*app);
    if (item == nullptr) {
        SW_LOG_AT(where, error, Kind::no_map_item);
        return -4;
    }
    take_back<Kind>(where, *user, session, *item);
    const int32_t rv = write_request(where, *user, session.base);
    ++(g_diagnosis_stat.*Kind::requests);
    return rv;
}

// ---- release ------------------------------------------------------------------------------------------------------

// Withdraws an id that the user holds from the local database, and its attribute record from the store. A failure there
// does not stop the release.
template <class Kind>
void withdraw(site where, const sw_ebridge_list_item &user, const typename Kind::app_index &app, uint32_t id)
{
    Kind::delete_attr(app.t_user, id);
    typename Kind::index index = Kind::new_index(app.t_user, static_cast<int32_t>(id));
    typename Kind::stored_attr record = Kind::new_stored_attr();
    record.index = &index;
    const int32_t rv = qz_mom_del(user.mom_handle, user.*Kind::attr_db, &record.base, nullptr, nullptr);
    if (rv != 0)
        SW_LOG_AT(where, error, Kind::withdraw_failed, app.t_user, id, rv);
}

// Lets the session expire after the release delay. The copy of the key, `kept`, belongs to the pending expiry; t_user is
// copied as the pointer. When the store refuses, the copy is not freed. The store's code, or nothing without memory.
template <class Kind>
std::optional<int32_t> release_later(site where, const sw_ebridge_list_item &user, typename Kind::app_index &app,
                                     const typename Kind::app_index &kept)
{
    auto *copy = static_cast<typename Kind::app_index *>(std::malloc(sizeof kept));
    if (copy == nullptr) {
        Kind::log_no_memory(where, app);
        return std::nullopt;
    }
    *copy = kept;
    const typename Kind::session session = session_of<Kind>(&app);
    const int32_t rv = qz_mom_pexpire(user.mom_handle, user.mod_db, &session.base, Kind::session_expiry,
                                      &Kind::release_delay(), Kind::release_callback, copy);
    if (rv != 0)
        Kind::log_not_expired(where, user, app, rv);
    return rv;
}

template <class Kind>
int32_t release_now(site where, const sw_ebridge_list_item &user, typename Kind::app_index &app)
{
    const typename Kind::session session = session_of<Kind>(&app);
    const int32_t rv = qz_mom_del(user.mom_handle, user.mod_db, &session.base, nullptr, nullptr);
    if (rv != 0)
        Kind::log_not_deleted(where, rv);
    return rv;
}

template <class Kind>
void end_request(const typename Kind::app_index &app)
{
    if (!Kind::release_ends_request)
        return;
    const typename Kind::map_item key = app_item<Kind>(app);
    if (typename Kind::map_item *item = Kind::map_get(0, &key); item != nullptr)
        item->ds_flag &= ~static_cast<uint32_t>(SW_INDEX_MAP_REQUESTED);
}

template <class Kind>
int32_t release(site where, typename Kind::app_index *given, uint32_t delayed)
{
    if (given == nullptr) {
        SW_LOG_AT(where, error, Kind::no_index);
        return -2;
    }
    sw_ebridge_list_item *user = find_user(where, given->t_user);
    if (user == nullptr)
        return -2;
    // The caller's name may stand in the very record that is withdrawn here; the user's own outlives it.
    typename Kind::app_index app = *given;
    if (same_name(app.t_user, user->user_name))
        app.t_user = user->user_name;
    Kind::log_release(where, app);
    typename Kind::index index = Kind::new_index(nullptr, 0);
    const int32_t mapped = Kind::app2udp(&app, &index);
    SW_LOG_AT(where, info, Kind::translated, Kind::id_of(index), mapped);
    const typename Kind::attr *record = Kind::find_attr(0, app.t_user, Kind::id_of(index));
    const bool name_goes = record != nullptr && given->t_user == record->user_name;
    if (record != nullptr)
        withdraw<Kind>(where, *user, app, Kind::id_of(index));
    end_request<Kind>(app);
    const bool later = Kind::is_delayed(app, delayed);
    const std::optional<int32_t> rv =
        later ? release_later<Kind>(where, *user, app, name_goes ? app : *given) : release_now<Kind>(where, *user, app);
    Kind::log_released(where, app, rv.value_or(Kind::no_memory));
    if (rv.has_value() || Kind::counts_without_memory)
        ++(g_diagnosis_stat.*Kind::releases);
    return rv.value_or(Kind::no_memory);
}

// 0, or -2 with the reason logged: what callbacks of expiries and subscriptions are refused for.
[[gnu::noinline]] inline int32_t check_expiry(site where, const qz_mom_notification *msg, const void *args)
{
    if (msg == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM msg is NULL.\n");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG_AT(where, error, "Assert:MOM error is %d.\n", msg->error);
        return -2;
    }
    if (args == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM args is NULL.\n");
        return -2;
    }
    return 0;
}

// The delayed release is over once the store says that the expiry has ended: fired, or cleared by a new request. An end
// with an error is the last that is heard of it, too.
template <class Kind>
int32_t hear_release_end(site where, const qz_mom_notification *msg, void *args)
{
    if (const int32_t rv = check_expiry(where, msg, args); rv != 0) {
        if (msg != nullptr && msg->end == QZ_MOM_END_EXPIRY)
            std::free(args);
        return rv;
    }
    SW_LOG_AT(where, info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd,
              args);
    if (msg->end == QZ_MOM_END_EXPIRY) {
        auto *app = static_cast<typename Kind::app_index *>(args);
        Kind::log_delay_over(where, *app);
        std::free(app);
    }
    return 0;
}

// ---- replies: what one session change does ------------------------------------------------------------------------

// One reply on its way through the users: argument of the steps below, which the kinds' own functions name.
template <class Kind>
struct reply {
    uint32_t db;
    typename Kind::session *session;
};

template <class Kind>
typename Kind::index index_of(const typename Kind::session &session)
{
    return Kind::new_index(session.index->t_user, session.reply_value);
}

// A map item with what the reply says of its request.
template <class Kind>
void fill_from_reply(typename Kind::map_item &item, const reply<Kind> &answer)
{
    Kind::put_db(item, answer.db);
    item.priority = static_cast<uint32_t>(answer.session->priority);
    copy_name(item.user_name, answer.session->index->t_user);
}

// Takes a new id into an item in place: user, priority and argument stay as they were. The old id's reverse item goes,
// unless another key has it.
template <class Kind>
void regrant(site where, typename Kind::map_item &item, const typename Kind::app_index &app, uint32_t id)
{
    const uint32_t old_id = item.value[0];
    Kind::log_regrant(where, app, old_id, id);
    item.ds_flag |= SW_INDEX_MAP_GRANTED;
    item.value[0] = id;
    const typename Kind::map_item old_key = udp_item<Kind>(old_id);
    const typename Kind::map_item *reverse = Kind::map_get(0, &old_key);
    if (reverse != nullptr && leads_to<Kind>(*reverse, item)) {
        SW_LOG_AT(where, info, Kind::old_reverse, old_id);
        Kind::map_delete(0, &old_key);
    }
}

// Turns a grant into the two index map items, once per reply: the first user in scope does it and ends the walk. The id
// 0 of a key that was only requested differs from the grant, so a first grant is taken in place like a new one.
template <class Kind>
int32_t map_reply(site where, const sw_ebridge_list_item &user, const reply<Kind> &answer)
{
    const typename Kind::session &session = *answer.session;
    if (!Kind::in_scope(user, session))
        return 0;
    Kind::log_reply(where, session);
    const auto id = static_cast<uint32_t>(session.reply_value);
    typename Kind::map_item item = app_item<Kind>(*session.index);
    fill_from_reply<Kind>(item, answer);
    typename Kind::map_item *stored = Kind::map_get(0, &item);
    if (stored != nullptr && stored->value[0] != id) {
        regrant<Kind>(where, *stored, *session.index, id);
    } else {
        item.value[0] = id;
        stored = Kind::map_update(0, &item);
        if (stored != nullptr)
            stored->ds_flag |= SW_INDEX_MAP_GRANTED;
    }
    typename Kind::map_item reverse = udp_item<Kind>(id);
    fill_from_reply<Kind>(reverse, answer);
    set_app_value<Kind>(reverse, *session.index);
    Kind::map_update(0, &reverse);
    return SW_EBRIDGE_WALK_STOP;
}

template <class Kind>
void record_refusal(const typename Kind::session &session)
{
    typename Kind::map_item entry = udp_item<Kind>(kNoId);
    copy_name(entry.user_name, session.index->t_user);
    set_app_value<Kind>(entry, *session.index);
    entry.priority = static_cast<uint32_t>(session.priority);
    Kind::put_db(entry, static_cast<uint32_t>(session.mom_db));
    entry.ds_flag = SW_INDEX_MAP_GRANTED;
    Kind::record_err_msg(&entry);
}

// A refused request: users in scope keep an error entry; the requester, whatever its scope, withdraws the session and
// hears -1.
template <class Kind>
int32_t roll_back(site where, const sw_ebridge_list_item &user, const typename Kind::session &session)
{
    if (Kind::in_scope(user, session))
        record_refusal<Kind>(session);
    if (!same_name(session.index->t_user, user.user_name))
        return 0;
    Kind::log_refused(where, *session.index);
    Kind::release_direct(session.index);
    ++(g_diagnosis_stat.*Kind::refusals);
    Kind::tell_refusal(where, user, session);
    return 0;
}

// The steps through which a kind's reply walks the users.
struct reply_steps {
    sw_ebridge_list_item_visitor map;
    sw_ebridge_list_item_visitor add;
    sw_ebridge_list_item_visitor roll_back;
};

template <class Kind>
void reply_add(site where, reply<Kind> answer, const reply_steps &steps)
{
    const typename Kind::session &session = *answer.session;
    const auto id = static_cast<uint32_t>(session.reply_value);
    if (id == kNoId) {
        Kind::log_no_more(where, *session.index);
        sw_ebridge_list_for_each(0, steps.roll_back, &answer);
        return;
    }
    Kind::log_granted(where, *session.index, id);
    sw_ebridge_list_for_each(0, steps.map, &answer);
    sw_ebridge_list_for_each(0, steps.add, &answer);
}

// The users hear of the removal first, then the map items go.
template <class Kind>
void reply_remove(site where, reply<Kind> answer, sw_ebridge_list_item_visitor step)
{
    const typename Kind::app_index &app = *answer.session->index;
    typename Kind::index index = Kind::new_index(nullptr, 0);
    const int32_t rv = Kind::app2udp(&app, &index);
    const uint32_t id = Kind::id_of(index);
    Kind::log_removal(where, app, id, rv);
    sw_ebridge_list_for_each(0, step, &answer);

    typename Kind::map_item key = app_item<Kind>(app);
    const typename Kind::map_item *item = Kind::map_get(0, &key);
    if (item != nullptr && Kind::survives_removal(*item)) {
        SW_LOG_UNCHECKED_AT(where, info, Kind::kept);
        return;
    }
    Kind::map_delete(0, &key);
    Kind::log_unmapped(where, app, id);
    key = udp_item<Kind>(id);
    Kind::map_delete(0, &key);
}

template <class Kind>
bool is_whole(site where, const typename Kind::session *session)
{
    const char *missing = Kind::missing_part(session);
    if (missing != nullptr)
        SW_LOG_UNCHECKED_AT(where, error, missing);
    return missing == nullptr;
}

template <class Kind>
int32_t apply_session(site where, reply<Kind> answer, int32_t add, void (*add_step)(reply<Kind>),
                      void (*remove_step)(reply<Kind>))
{
    if (!is_whole<Kind>(where, answer.session))
        return -2;
    if (add == 0) {
        remove_step(answer);
        ++(g_diagnosis_stat.*Kind::del_replies);
        return 0;
    }
    if (answer.session->reply == 0)  // the allocator has not answered yet
        return -2;
    add_step(answer);
    ++(g_diagnosis_stat.*Kind::add_replies);
    return 0;
}

// ---- replies: what the store delivers -----------------------------------------------------------------------------

// What a notification means to this side.
template <class Kind>
struct session_change {
    enum { apply, end_or_confirmation, ignore, refuse } outcome;
    typename Kind::session *session;
    int32_t add;
};

// The session of a written record, with the reason logged when there is none.
template <class Kind>
typename Kind::session *written_session(site where, const qz_mom_notification &msg)
{
    const auto *value = static_cast<const qz_mom_hash_value *>(msg.value);
    if (value == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM, value is NULL.");
        return nullptr;
    }
    if (value->error != 0) {
        SW_LOG_AT(where, error, "Assert:MOM, error is %d.", value->error);
        return nullptr;
    }
    auto *session = reinterpret_cast<typename Kind::session *>(value->record);
    return is_whole<Kind>(where, session) ? session : nullptr;
}

template <class Kind>
session_change<Kind> read_change(site where, const qz_mom_notification &msg)
{
    using change = session_change<Kind>;
    switch (msg.cmd) {
        case QZ_MOM_CMD_SUBSCRIBED:
            return {change::end_or_confirmation, nullptr, 0};
        case QZ_MOM_CMD_HSET:
        case QZ_MOM_CMD_HMSET: {
            typename Kind::session *session = written_session<Kind>(where, msg);
            return {session != nullptr ? change::apply : change::refuse, session, 1};
        }
        case QZ_MOM_CMD_DEL:
        case QZ_MOM_CMD_EXPIRED: {
            auto *session = static_cast<typename Kind::session *>(msg.value);
            return {is_whole<Kind>(where, session) ? change::apply : change::refuse, session, 0};
        }
        default:
            return {msg.end == QZ_MOM_END_SCAN ? change::end_or_confirmation : change::ignore, nullptr, 0};
    }
}

// 0, or -2 with the reason logged.
[[gnu::noinline]] inline int32_t check_session_message(site where, const qz_mom_notification *msg, const void *args)
{
    if (msg == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM, msg is NULL.");
        return -2;
    }
    if (args == nullptr) {
        SW_LOG_AT(where, error, "Assert:MOM, args is NULL.");
        return -2;
    }
    if (msg->error != 0) {
        SW_LOG_AT(where, error, "Assert:MOM, error is %d.", msg->error);
        return -2;
    }
    return 0;
}

// What a notification of this command and end is called in the log.
template <class Kind>
const char *heard_text(const qz_mom_notification &msg)
{
    if (msg.cmd == QZ_MOM_CMD_SUBSCRIBED)
        return Kind::subscribed;
    return msg.end == QZ_MOM_END_SCAN ? Kind::scanned : Kind::heard;
}

template <class Kind>
int32_t hear_session(site where, qz_mom_handle *ctx, const qz_mom_notification *msg, void *args)
{
    if (const int32_t rv = check_session_message(where, msg, args); rv != 0)
        return rv;
    if (msg->cmd == QZ_MOM_CMD_UNSUBSCRIBED) {
        SW_LOG_AT(where, warning, "unsubscribe from DB[%d], args is %p.", msg->db, args);
        return 0;
    }
    SW_LOG_AT(where, info, "db: 0x%x, key: %s, field: %s, cmd: %d, args: %p.", msg->db, msg->key, msg->field, msg->cmd,
              args);
    using change = session_change<Kind>;
    const bool milestone = Kind::milestones_apart && msg->end == QZ_MOM_END_SCAN;
    const change heard = milestone ? change{change::end_or_confirmation, nullptr, 0} : read_change<Kind>(where, *msg);
    if (heard.outcome == change::refuse)
        return -2;
    if (heard.outcome == change::ignore)
        return 0;

    const sw_ebridge_callback_args user = *static_cast<sw_ebridge_callback_args *>(args);
    SW_LOG_UNCHECKED_AT(where, info, heard_text<Kind>(*msg), address(user.func), user.arg);
    if (user.func != nullptr)
        user.func(ctx, msg, user.arg);
    if (msg->end == QZ_MOM_END_SCAN)
        Kind::log_scan_end(where, user.func);
    if (heard.outcome == change::apply)
        Kind::session_reply(msg->db, heard.session, heard.add);
    return 0;
}

// ---- scan and subscribe -------------------------------------------------------------------------------------------

// The instance's slot for the argument pair of a database and a command, or null: four slots a side.
template <class Kind>
void **find_pair(int32_t mom_db, uint32_t cmd, sw_ebridge_list_item *user)
{
    const bool subscribe = cmd == QZ_MOM_CMD_SUBSCRIBED;
    if (user == nullptr || (!subscribe && cmd != QZ_MOM_CMD_SCAN))
        return nullptr;
    const uint32_t scan_step = subscribe ? 0 : 1;
    if (mom_db == SW_EBRIDGE_APP_DB)
        return &user->mom_ds_args[Kind::first_pair + scan_step];
    if (mom_db == SW_EBRIDGE_UDP_DB)
        return &user->mom_ds_args[Kind::first_pair + 2 + scan_step];
    return nullptr;
}

// The pair in a slot, made on first use, with the callback and its argument in it. Null without memory.
inline sw_ebridge_callback_args *fill_slot(void **slot, sw_ebridge_mom_func func, void *args)
{
    if (*slot == nullptr)
        *slot = std::calloc(1, sizeof(sw_ebridge_callback_args));
    auto *pair = static_cast<sw_ebridge_callback_args *>(*slot);
    if (pair != nullptr)
        *pair = {.arg = args, .func = func};
    return pair;
}

// A session that stands for others: those of one user, or of all when there is no name.
template <class Kind>
struct session_pattern {
    typename Kind::app_index index = Kind::new_app_index();
    typename Kind::session session = Kind::new_session();
    session_pattern() { session.index = &index; }
    explicit session_pattern(sw_ebridge_list_item &user, uint32_t type = 0) : session_pattern()
    {
        index.t_user = user.user_name;
        index.type = static_cast<int32_t>(type);
    }
    session_pattern(const session_pattern &) = delete;
    session_pattern &operator=(const session_pattern &) = delete;
};

// The slot's pair of a user for `cmd`, filled. Null with *rv set and the reason logged.
template <class Kind>
sw_ebridge_callback_args *pair_for(site where, sw_ebridge_list_item *user, int32_t mom_db, uint32_t cmd,
                                   const sw_ebridge_callback_args &wanted, const char *no_memory, int32_t *rv)
{
    void **slot = find_pair<Kind>(mom_db, cmd, user);
    if (slot == nullptr) {
        SW_LOG_AT(where, error, "Assert:ds args errors.");
        *rv = -2;
        return nullptr;
    }
    sw_ebridge_callback_args *pair = fill_slot(slot, wanted.func, wanted.arg);
    if (pair == nullptr) {
        SW_LOG_UNCHECKED_AT(where, error, no_memory);
        *rv = -4;
    }
    return pair;
}

template <class Kind>
int32_t scan_sessions(site where, const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    int32_t rv = 0;
    sw_ebridge_callback_args *pair =
        pair_for<Kind>(where, user, mom_db, QZ_MOM_CMD_SCAN, {.arg = args, .func = func}, "Assert:Malloc failed.", &rv);
    if (pair == nullptr)
        return rv;
    SW_LOG_AT(where, info, Kind::scan, user_name, mom_db, address(func), args);
    const session_pattern<Kind> pattern;
    rv = qz_mom_scan(user->mom_handle, static_cast<uint32_t>(mom_db), &pattern.session.base, 0, Kind::session_callback,
                     pair);
    if (rv != 0)
        SW_LOG_AT(where, error, "Assert:qz_mom_scan failed, rv: %d\n", rv);
    return rv;
}

template <class Kind>
int32_t subscribe_sessions(site where, const char *user_name, int32_t mom_db, sw_ebridge_mom_func func, void *args)
{
    sw_ebridge_list_item *user = find_user(where, user_name);
    if (user == nullptr)
        return -2;
    int32_t rv = 0;
    sw_ebridge_callback_args *pair = pair_for<Kind>(where, user, mom_db, QZ_MOM_CMD_SUBSCRIBED,
                                                    {.arg = args, .func = func}, Kind::subscribe_no_memory, &rv);
    if (pair == nullptr)
        return rv;
    const session_pattern<Kind> pattern;
    const uint32_t fields[] = {11};  // reply
    const qz_mom_msg_cb callbacks[] = {Kind::session_callback};
    void *const pairs[] = {pair};
    rv = qz_mom_subscribe_field(user->mom_handle, static_cast<uint32_t>(mom_db), &pattern.session.base, 0, fields,
                                callbacks, pairs, count_of(fields));
    if (rv != 0)
        SW_LOG_AT(where, error, Kind::subscribe_failed, rv);
    return rv;
}

}  // namespace sw
