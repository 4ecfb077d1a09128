// The exported calls: each checks its arguments, encodes what it was given, and hands it to the handle's store.
#include "client.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "c_boundary.hpp"
#include "key_text.hpp"
#include "store.hpp"

namespace mom
{
namespace
{

client &client_of(qz_mom_handle *handle) { return static_cast<client &>(*handle); }

int32_t check_handle(qz_mom_handle *handle, uint32_t db)
{
    if (handle == nullptr)
        return QZ_MOM_EINVAL;
    return client_of(handle).kept_in->has_database(db) ? QZ_MOM_OK : QZ_MOM_EDB;
}

// Calls `act(client, store)` for an open handle and an existing database, on the master's thread where that is checked.
template <typename Act>
int32_t with_database(qz_mom_handle *handle, uint32_t db, const char *what, Act act)
{
    return guarded([&]() -> int32_t {
        if (const int32_t code = check_handle(handle, db))
            return code;
        if (what != nullptr)
            qz_thread_check(handle->master, what);
        client &from = client_of(handle);
        return act(from, *from.kept_in);
    });
}

enum class meaning { pattern, exact };

// The same for calls that name records: `act(client, store, target)`.
template <typename Act>
int32_t with_records(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, meaning how, const char *what,
                     Act act)
{
    return with_database(handle, db, what, [&](client &from, store &in) -> int32_t {
        if (!encodable(record))
            return QZ_MOM_EINVAL;
        auto keys = how == meaning::pattern ? key_pattern::of(*record) : key_pattern::exactly(*record);
        return keys ? act(from, in, target{db, std::move(*keys)}) : QZ_MOM_EINVAL;
    });
}

// The descriptors of the named fields, each once; nothing when one of them is unknown or the key.
std::optional<std::vector<const ProtobufCFieldDescriptor *>> data_fields(const ProtobufCMessageDescriptor &type,
                                                                         const uint32_t *numbers, uint32_t count)
{
    if (numbers == nullptr || count == 0)
        return std::nullopt;
    const auto *key = key_field(type);
    std::vector<const ProtobufCFieldDescriptor *> fields;
    fields.reserve(std::min(count, type.n_fields));
    for (uint32_t i = 0; i < count; ++i) {
        const auto *field = protobuf_c_message_descriptor_get_field(&type, numbers[i]);
        if (field == nullptr || field == key)
            return std::nullopt;
        if (std::find(fields.begin(), fields.end(), field) == fields.end())
            fields.push_back(field);
    }
    return fields;
}

int32_t write_fields(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *numbers,
                     uint32_t count, bool creates, const receiver &answer, const char *what)
{
    return with_records(handle, db, record, meaning::exact, what, [&](client &from, store &in, const target &at) {
        const auto fields = data_fields(*record->descriptor, numbers, count);
        if (!fields)
            return static_cast<int32_t>(QZ_MOM_EINVAL);
        field_write write{{}, encode_fields(*record, *fields), creates, creates};
        write.numbers.reserve(fields->size());
        for (const auto *field : *fields)
            write.numbers.push_back(field->id);
        return in.write_fields(from, at, write, answer);
    });
}

int64_t microseconds(const qz_mom_timeval &time) { return time.sec * INT64_C(1000000) + time.usec; }

bool valid(const qz_mom_timeval *time)
{
    return time != nullptr && time->sec >= 0 && time->usec >= 0 && time->usec <= 999999;
}

// What the mode of an expiry call means; nothing when it does not go with the record.
std::optional<meaning> meaning_of(int32_t mode, const ProtobufCMessage *record)
{
    const char *wanted = nullptr;
    switch (mode) {
        case QZ_MOM_EXPIRE_PATTERN:
            return meaning::pattern;
        case QZ_MOM_EXPIRE_EVLAN_SESSION:
            wanted = "u_bridge.evlan_session";
            break;
        case QZ_MOM_EXPIRE_EPORT_SESSION:
            wanted = "u_bridge.eport_session";
            break;
        default:
            return std::nullopt;
    }
    if (!encodable(record) || std::strcmp(record->descriptor->name, wanted) != 0)
        return std::nullopt;
    return meaning::exact;
}

// `set(client, store, target, microseconds)` for the call's arguments.
template <typename Set>
int32_t mark(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
             const qz_mom_timeval *delay, const char *what, Set set)
{
    if (const int32_t code = check_handle(handle, db))
        return code;
    const auto how = meaning_of(mode, record);
    if (!how || !valid(delay))
        return QZ_MOM_EINVAL;
    return with_records(handle, db, record, *how, what, [&](client &from, store &in, const target &of) {
        return set(from, in, of, microseconds(*delay));
    });
}

// With the mutex.
void watch_writes(client &who, uint32_t db, const ProtobufCMessageDescriptor &type, const backlog::watch &wanted)
{
    auto in = who.backlog_of(db, type);
    if (in == nullptr)
        in = who.backlogs.emplace_back(std::make_shared<backlog>(backlog{db, &type, &who}));
    const auto known = std::ranges::find_if(
        in->watches, [&](const backlog::watch &each) { return each.cb == wanted.cb && each.args == wanted.args; });
    if (known == in->watches.end()) {
        in->watches.push_back(wanted);
    } else {
        known->low = wanted.low;
        known->high = wanted.high;
    }
    in->update_marks();
}

bool is_lock_name(const char *name)
{
    constexpr size_t longest = 64;
    const std::string_view text = name != nullptr ? name : "";
    return !text.empty() && text.size() <= longest &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-") == text.npos;
}

int32_t open(std::string_view url, qz_thread_master *master, qz_mom_handle **out)
{
    constexpr std::string_view embedded = "mem:";
    const auto made = std::make_shared<client>();
    made->master = master;
    const int32_t code =
        url.starts_with(embedded) ? open_embedded(url.substr(embedded.size()), made) : open_redis(url, made);
    if (code == QZ_MOM_OK)
        *out = made.get();
    return code;
}

}  // namespace
}  // namespace mom

using namespace mom;

extern "C" {

// ---- handles --------------------------------------------------------------------------------------------------------

int32_t qz_mom_client_open(const char *url, qz_thread_master *master, qz_mom_handle **out)
{
    if (url == nullptr || master == nullptr || out == nullptr)
        return QZ_MOM_EINVAL;
    return guarded([&] { return open(url, master, out); });
}

void qz_mom_client_close(qz_mom_handle *handle)
{
    if (handle == nullptr)
        return;
    // One of the handle's own callbacks may be making this call; it keeps the handle until it returns.
    const auto closing = client_of(handle).shared_from_this();
    closing->kept_in->close(*closing);
}

const char *qz_mom_strerror(int32_t code)
{
    switch (code) {
        case QZ_MOM_OK:
            return "success";
        case QZ_MOM_EINVAL:
            return "null or malformed argument, or a record that cannot be encoded";
        case QZ_MOM_EDB:
            return "no such database";
        case QZ_MOM_ENOMEM:
            return "no memory";
        case QZ_MOM_EFULL:
            return "a queue is at its hard limit; try again later";
        case QZ_MOM_EDOWN:
            return "the store cannot be reached";
        case QZ_MOM_EFORM:
            return "the record exists in the other form";
        case QZ_MOM_EURL:
            return "malformed URL, unknown scheme, or a map file that makes no sense";
        case QZ_MOM_EFENCED:
            return "the handle does not hold its lock";
        default:
            return "unknown code";
    }
}

int32_t qz_mom_client_connect(qz_mom_handle *handle, uint32_t db, qz_mom_connected_cb cb, void *args)
{
    return with_database(handle, db, __func__, [&](client &from, store &in) {
        return cb != nullptr ? in.connect(from, db, connection{cb, args}) : QZ_MOM_EINVAL;
    });
}

int32_t qz_mom_client_set_reconnect_cb(qz_mom_handle *handle, uint32_t db, qz_mom_reconnect_cb cb, void *args)
{
    return with_database(handle, db, __func__, [&](client &from, store &in) {
        if (cb == nullptr)
            return QZ_MOM_EINVAL;
        const std::scoped_lock lock(in.office().mutex);
        from.reconnect[db] = reconnection{cb, args, db, 0};
        return QZ_MOM_OK;
    });
}

// ---- writes ---------------------------------------------------------------------------------------------------------

int32_t qz_mom_set(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return with_records(handle, db, record, meaning::exact, __func__, [&](client &from, store &in, const target &at) {
        return in.write_whole(from, at, encode_whole(*record), receiver{cb, args});
    });
}

int32_t qz_mom_set_ahead(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record)
{
    return with_records(handle, db, record, meaning::exact, __func__, [&](client &from, store &in, const target &at) {
        return in.write_ahead(from, at, encode_whole(*record));
    });
}

int32_t qz_mom_hmset(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                     uint32_t count, qz_mom_msg_cb cb, void *args)
{
    return write_fields(handle, db, record, fields, count, true, receiver{cb, args}, __func__);
}

int32_t qz_mom_hmupdate(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, const uint32_t *fields,
                        uint32_t count, qz_mom_msg_cb cb, void *args)
{
    return write_fields(handle, db, record, fields, count, false, receiver{cb, args}, __func__);
}

int32_t qz_mom_del(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb, void *args)
{
    return with_records(handle, db, record, meaning::exact, __func__, [&](client &from, store &in, const target &at) {
        return in.remove(from, at, receiver{cb, args});
    });
}

// ---- reading and following ------------------------------------------------------------------------------------------

int32_t qz_mom_scan(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                    qz_mom_msg_cb cb, void *args)
{
    return with_records(handle, db, pattern, meaning::pattern, __func__,
                        [&](client &from, store &in, const target &of) {
                            return cb != nullptr && flags == 0 ? in.scan(from, of, receiver{cb, args}) : QZ_MOM_EINVAL;
                        });
}

int32_t qz_mom_subscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                         qz_mom_msg_cb cb, void *args)
{
    return with_records(handle, db, pattern, meaning::pattern, __func__,
                        [&](client &from, store &in, const target &of) {
                            if (cb == nullptr || flags != 0)
                                return static_cast<int32_t>(QZ_MOM_EINVAL);
                            return in.subscribe(from, db, {subscription{&from, of.keys, receiver{cb, args}, nullptr}});
                        });
}

int32_t qz_mom_subscribe_field(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, uint32_t flags,
                               const uint32_t *fields, const qz_mom_msg_cb *cbs, void *const *args, uint32_t count)
{
    return with_records(handle, db, pattern, meaning::pattern, __func__,
                        [&](client &from, store &in, const target &of) {
                            const auto &type = *pattern->descriptor;
                            if (!data_fields(type, fields, count) || flags != 0 || cbs == nullptr ||
                                std::find(cbs, cbs + count, nullptr) != cbs + count)
                                return static_cast<int32_t>(QZ_MOM_EINVAL);
                            std::vector<subscription> added;
                            for (uint32_t i = 0; i < count; ++i) {
                                const receiver to{cbs[i], args != nullptr ? args[i] : nullptr};
                                const auto *field = protobuf_c_message_descriptor_get_field(&type, fields[i]);
                                added.push_back(subscription{&from, of.keys, to, field});
                            }
                            return in.subscribe(from, db, std::move(added));
                        });
}

int32_t qz_mom_unsubscribe(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *pattern, qz_mom_msg_cb cb,
                           void *args)
{
    return with_records(handle, db, pattern, meaning::pattern, __func__,
                        [&](client &from, store &in, const target &of) {
                            return cb != nullptr ? in.unsubscribe(from, of, receiver{cb, args}) : QZ_MOM_EINVAL;
                        });
}

// ---- expiry marks ---------------------------------------------------------------------------------------------------

int32_t qz_mom_pexpire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                       const qz_mom_timeval *delay, qz_mom_msg_cb cb, void *args)
{
    return mark(handle, db, record, mode, delay, __func__,
                [&](client &from, store &in, const target &of, int64_t usec) {
                    return in.mark(from, of, usec, receiver{cb, args});
                });
}

int32_t qz_mom_pexpire_sync(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                            const qz_mom_timeval *delay)
{
    return mark(handle, db, record, mode, delay, nullptr,
                [](client &from, store &in, const target &of, int64_t usec) { return in.mark_now(from, of, usec); });
}

int32_t qz_mom_clear_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, qz_mom_msg_cb cb,
                            void *args)
{
    return with_records(handle, db, record, meaning::exact, __func__, [&](client &from, store &in, const target &at) {
        return in.clear_mark(from, at, receiver{cb, args});
    });
}

int32_t qz_mom_del_expire(qz_mom_handle *handle, uint32_t db, const ProtobufCMessage *record, int32_t mode,
                          qz_mom_msg_cb cb, void *args)
{
    if (const int32_t code = check_handle(handle, db))
        return code;
    const auto how = meaning_of(mode, record);
    if (!how)
        return QZ_MOM_EINVAL;
    return with_records(handle, db, record, *how, __func__, [&](client &from, store &in, const target &of) {
        return in.remove_marked(from, of, receiver{cb, args});
    });
}

// ---- locks ----------------------------------------------------------------------------------------------------------

int32_t qz_mom_lock(qz_mom_handle *handle, uint32_t db, const char *name, qz_mom_lock_cb cb, void *args)
{
    return with_database(handle, db, __func__, [&](client &from, store &in) {
        if (cb == nullptr || !is_lock_name(name))
            return static_cast<int32_t>(QZ_MOM_EINVAL);
        return in.lock(from, db, name, lock_news{cb, args, db, {}});
    });
}

// ---- bounds ---------------------------------------------------------------------------------------------------------

int32_t qz_mom_set_queue_limits(qz_mom_handle *handle, uint32_t low, uint32_t high, uint32_t hard)
{
    if (handle == nullptr || low >= high || high > hard)
        return QZ_MOM_EINVAL;
    client &who = client_of(handle);
    const std::scoped_lock lock(who.kept_in->office().mutex);
    who.box.low = low;
    who.box.high = high;
    who.box.hard = hard;
    who.kept_in->office().look_at(who);
    return QZ_MOM_OK;
}

int32_t qz_mom_set_queue_cb(qz_mom_handle *handle, qz_mom_queue_cb cb, void *args)
{
    if (handle == nullptr)
        return QZ_MOM_EINVAL;
    client &who = client_of(handle);
    const std::scoped_lock lock(who.kept_in->office().mutex);
    if (who.box.queue_cb != cb || who.box.queue_args != args)
        who.box.told_above = false;  // whoever listens begins with the high mark
    who.box.queue_cb = cb;
    who.box.queue_args = args;
    who.kept_in->office().look_at(who);
    return QZ_MOM_OK;
}

uint32_t qz_mom_queue_depth(qz_mom_handle *handle)
{
    if (handle == nullptr)
        return 0;
    client &who = client_of(handle);
    const std::scoped_lock lock(who.kept_in->office().mutex);
    return who.box.depth();
}

int32_t qz_mom_watch_writes(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *type, uint32_t low,
                            uint32_t high, qz_mom_queue_cb cb, void *args)
{
    return with_database(handle, db, nullptr, [&](client &who, store &in) -> int32_t {
        if (type == nullptr || cb == nullptr || low >= high)
            return QZ_MOM_EINVAL;
        const std::scoped_lock lock(in.office().mutex);
        watch_writes(who, db, *type, {low, high, cb, args});
        return QZ_MOM_OK;
    });
}

uint32_t qz_mom_writes_waiting(qz_mom_handle *handle, uint32_t db, const ProtobufCMessageDescriptor *type)
{
    if (handle == nullptr || type == nullptr)
        return 0;
    const client &who = client_of(handle);
    const std::scoped_lock lock(who.kept_in->office().mutex);
    const auto found = who.backlog_of(db, *type);
    return found != nullptr ? found->depth : 0;
}

// ---- key texts ------------------------------------------------------------------------------------------------------

int32_t qz_mom_key_text(const ProtobufCMessage *record, char *text, size_t size)
{
    return guarded([&]() -> int32_t {
        const auto key = encodable(record) ? key_text(*record) : std::nullopt;
        if (!key || (text == nullptr && size != 0))
            return QZ_MOM_EINVAL;
        return std::snprintf(text, size, "%s", key->c_str());
    });
}

ProtobufCMessage *qz_mom_key_parse(const ProtobufCMessageDescriptor *type, const char *text)
{
    if (type == nullptr || text == nullptr)
        return nullptr;
    ProtobufCMessage *record = nullptr;
    guarded([&]() -> int32_t {
        record = parse_key(*type, text).release();
        return QZ_MOM_OK;
    });
    return record;
}

}  // extern "C"
