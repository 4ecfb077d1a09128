// The records of each kind. See kinds.hpp.
#include "kinds.hpp"

#include <memory>

#include "notification.hpp"

namespace ebridged
{

namespace
{

// Calls with the traits of the kind.
template <typename function>
auto with_traits(kind of, function call)
{
    return of == kind::evlan ? call(evlan_traits()) : call(eport_traits());
}

template <typename traits>
const typename traits::records &patterns()
{
    static const struct pattern_records : traits::records {
        pattern_records() { this->session.index = &this->index; }
    } all;
    return all;
}

template <typename traits, typename session_message>
bool read_name(const session_message &record, session_name *out)
{
    if (!record.index)
        return false;
    out->of = traits::of;
    out->key = traits::read_key(*record.index);
    out->user = record.index->t_user ? record.index->t_user : "";
    return true;
}

}  // namespace

const char *kind_name(kind of)
{
    return with_traits(of, [](auto traits) { return traits.name; });
}

std::span<const id_type> types_of(kind of)
{
    return with_traits(of, [](auto traits) { return traits.types(); });
}

key_words::key_words(const session_name &name)
{
    with_traits(name.of, [&](auto traits) { traits.print_key(name.key, text, sizeof text); });
}

const ProtobufCMessage *all_sessions(kind of)
{
    return with_traits(of, [](auto traits) { return &patterns<decltype(traits)>().session.base; });
}

const ProtobufCMessage *all_ranges(kind of)
{
    return with_traits(of, [](auto traits) { return &patterns<decltype(traits)>().range.base; });
}

bool read_session(kind of, const qz_mom_notification &msg, session_reading *out)
{
    return with_traits(of, [&](auto traits) {
        using its = decltype(traits);
        const auto *record = record_of(msg, patterns<its>().session);
        if (!record || !read_name<its>(*record, &out->name))
            return false;
        out->content = {record->request_value, static_cast<int32_t>(record->priority), record->request,
                        record->reply_value, record->reply};
        out->mom_db = id_word(record->mom_db);
        return true;
    });
}

bool read_session_name(kind of, const char *key_text, session_name *out)
{
    return with_traits(of, [&](auto traits) {
        using its = decltype(traits);
        const auto &pattern = patterns<its>().session;
        const auto free = [](ProtobufCMessage *each) { protobuf_c_message_free_unpacked(each, nullptr); };
        const std::unique_ptr<ProtobufCMessage, decltype(free)> message(
            qz_mom_key_parse(pattern.base.descriptor, key_text), free);
        return message && read_name<its>(*reinterpret_cast<decltype(&pattern)>(message.get()), out);
    });
}

bool read_range(kind of, const qz_mom_notification &msg, range_reading *out)
{
    return with_traits(of, [&](auto traits) {
        const auto *record = record_of(msg, patterns<decltype(traits)>().range);
        if (!record)
            return false;
        out->type = static_cast<uint32_t>(record->index);
        out->numbers = {id_word(traits.range_min(*record)) & NUMBER_MASK,
                        id_word(traits.range_max(*record)) & NUMBER_MASK};
        return true;
    });
}

session_record::session_record(const session_name &name, const session &content, uint32_t mom_db)
{
    with_traits(name.of, [&](auto traits) {
        auto &made = records_.emplace<typename decltype(traits)::records>();
        made.index.t_user = const_cast<char *>(name.user.c_str());
        traits.write_key(name.key, &made.index);
        auto &record = made.session;
        record.index = &made.index;
        record.request_value = content.request_value;
        record.priority = static_cast<UBridge__ResPriority>(content.priority);
        record.request = content.request;
        record.reply_value = content.reply_value;
        record.reply = content.reply;
        record.mom_db = static_cast<int32_t>(mom_db);
        message_ = &record.base;
    });
}

}  // namespace ebridged
