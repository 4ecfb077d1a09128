// What a session of "ebridge run" reads back: the store's records, and the tables of the library. See session.hpp.
#include <algorithm>
#include <cstdio>

#include "session.hpp"
#include "twin_calls.hpp"

namespace ebridge_tool
{

namespace
{

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

bool fail(std::string *error, const char *what, int32_t code)
{
    *error = std::string(what) + ": " + std::to_string(code) + ", " + qz_mom_strerror(code);
    return false;
}

UBridge__EvlanIndex any_evlan_index = U_BRIDGE__EVLAN_INDEX__INIT;
UBridge__EportIndex any_eport_index = U_BRIDGE__EPORT_INDEX__INIT;

template <typename Record, typename Index>
Record pattern_of(Record record, Index *index)
{
    record.index = index;
    return record;
}

const UBridge__Evlan any_evlan = pattern_of<UBridge__Evlan>(U_BRIDGE__EVLAN__INIT, &any_evlan_index);
UBridge__EmatchIndex any_rule_index = U_BRIDGE__EMATCH_INDEX__INIT;
const UBridge__EmatchEntry any_rule = pattern_of<UBridge__EmatchEntry>(U_BRIDGE__EMATCH_ENTRY__INIT, &any_rule_index);
const UBridge__Eport any_eport = pattern_of<UBridge__Eport>(U_BRIDGE__EPORT__INIT, &any_eport_index);

}  // namespace

const ProtobufCMessage *const ALL_ATTRIBUTES[2] = {&any_evlan.base, &any_eport.base};

// ---- scans ----------------------------------------------------------------------------------------------------------

bool session::wait_for_ends(int wanted, const char *what, std::string *error)
{
    if (wait_until([this, wanted] { return ended_ == wanted; }, std::max(patience_usec_, SCAN_PATIENCE_USEC)))
        return true;
    *error = std::string("the scan of the ") + what + " did not end";
    return false;
}

bool session::scan_sessions(const char *user, std::string *error)
{
    ended_ = 0;
    for (const twin_calls &twin : TWINS) {
        const auto scan = [&] { return twin.scan(user, static_cast<int32_t>(followed_db()), on_scanned, this); };
        if (const int32_t code = patiently(scan); code != 0)
            return fail(error, "the sessions cannot be scanned", code);
    }
    return wait_for_ends(std::size(TWINS), "sessions", error);
}

bool session::scan_attributes(std::string *error)
{
    ended_ = 0;
    for (const ProtobufCMessage *pattern : ALL_ATTRIBUTES) {
        const auto scan = [&] {
            return qz_mom_scan(link_.handle(), SW_EBRIDGE_UDP_DB, pattern, 0, on_attributes_read, this);
        };
        if (const int32_t code = patiently(scan); code != 0)
            return fail(error, "the attributes cannot be scanned", code);
    }
    return wait_for_ends(std::size(ALL_ATTRIBUTES), "attributes", error);
}

bool session::scan_rules(std::string *error)
{
    for (size_t i = 0; i < rules_->size(); ++i)
        rules_->set(i, rule_sight());
    rules_->forget_others();
    ended_ = 0;
    const auto scan = [&] {
        return qz_mom_scan(link_.handle(), SW_EBRIDGE_APP_DB, &any_rule.base, 0, on_rules_read, this);
    };
    if (const int32_t code = patiently(scan); code != 0)
        return fail(error, "the match rules cannot be scanned", code);
    return wait_for_ends(1, "match rules", error);
}

bool session::read_back(std::string *error)
{
    for (size_t i = 0; i < requests_->size(); ++i) {
        observer_facts facts = requests_->at(i).observer;
        facts.found = false;
        requests_->set(i, facts);
    }
    strangers_.clear();
    if (!scan_sessions(OBSERVER, error) || !scan_members(error) || !scan_rules(error))
        return false;
    if (is_both())
        return true;
    requests_->forget_attributes();
    return scan_attributes(error);
}

int32_t session::on_scanned(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    const bool written = msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET;
    if (msg->end == QZ_MOM_END_SCAN)
        ++of->ended_;
    else if (written && of->users_.observer)
        of->note_session(*static_cast<const qz_mom_hash_value *>(msg->value)->record, msg->key);
    of->happened();
    return 0;
}

namespace
{

// A session as it was read, of either kind.
struct read_session {
    app_key key;
    const char *user;
    observer_facts facts;
};

template <typename Session>
observer_facts facts_of(const Session &record)
{
    observer_facts facts;
    facts.found = true;
    facts.request_value = record.request_value;
    facts.reply_value = record.reply_value;
    facts.reply = record.reply;
    facts.mom_db = record.mom_db;
    return facts;
}

std::optional<read_session> read(const ProtobufCMessage &message)
{
    if (message.descriptor == &u_bridge__evlan_session__descriptor) {
        const auto &record = reinterpret_cast<const UBridge__EvlanSession &>(message);
        if (record.index)
            return read_session{{id_kind::evlan, word(record.index->type), word(record.index->keyid)},
                                record.index->t_user,
                                facts_of(record)};
    } else {
        const auto &record = reinterpret_cast<const UBridge__EportSession &>(message);
        if (record.index)
            return read_session{
                {id_kind::eport, word(record.index->type), word(record.index->keyid1), word(record.index->keyid2)},
                record.index->t_user,
                facts_of(record)};
    }
    return std::nullopt;
}

}  // namespace

void session::note_session(const ProtobufCMessage &record, const char *key)
{
    const std::optional<read_session> found = read(record);
    if (!found || requests_->find_user(found->user) == requests_->users().size())
        return;
    const size_t index = requests_->find(found->key);
    if (index == requests_->size() || requests_->user_of(requests_->at(index)) != found->user) {
        strangers_.emplace_back(key);
        return;
    }
    observer_facts facts = requests_->at(index).observer;
    facts.found = true;
    facts.request_value = found->facts.request_value;
    facts.reply_value = found->facts.reply_value;
    facts.reply = found->facts.reply;
    facts.mom_db = found->facts.mom_db;
    requests_->set(index, facts);
}

// ---- attributes -----------------------------------------------------------------------------------------------------

namespace
{

struct read_attributes {
    const char *user;
    id_kind kind;
    int32_t id;
    attributes content;
};

std::optional<read_attributes> read_record(const ProtobufCMessage &message)
{
    if (message.descriptor == &u_bridge__evlan__descriptor) {
        const auto &record = reinterpret_cast<const UBridge__Evlan &>(message);
        if (record.index)
            return read_attributes{record.index->t_user, id_kind::evlan, record.index->evlan_id, attributes_of(record)};
    } else {
        const auto &record = reinterpret_cast<const UBridge__Eport &>(message);
        if (record.index)
            return read_attributes{record.index->t_user, id_kind::eport, record.index->eport_id, attributes_of(record)};
    }
    return std::nullopt;
}

}  // namespace

void session::note_attributes(const qz_mom_notification &msg)
{
    const bool gone = msg.cmd == QZ_MOM_CMD_DEL || msg.cmd == QZ_MOM_CMD_EXPIRED;
    if ((!gone && msg.cmd != QZ_MOM_CMD_SET) || !msg.value)
        return;
    const auto found = read_record(*static_cast<const ProtobufCMessage *>(msg.value));
    const size_t user = found ? requests_->find_user(found->user) : requests_->users().size();
    if (user == requests_->users().size())
        return;
    const held_id of{found->kind, user, found->id};
    requests_->set(of, gone ? nullptr : &found->content);
    if (listener_.described)
        listener_.described(this, of, gone ? nullptr : &found->content);
}

int32_t session::on_attributes(qz_mom_handle *handle, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    of->note_attributes(*msg);
    of->happened();
    return on_subscribed(handle, msg, self);
}

int32_t session::on_attributes_read(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    of->ended_ += msg->end == QZ_MOM_END_SCAN;
    of->note_attributes(*msg);
    of->happened();
    return 0;
}

// ---- what the library holds -----------------------------------------------------------------------------------------

namespace
{

translation translate_evlan(const app_key &key, int32_t id)
{
    translation made;
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.type = static_cast<int32_t>(key.type);
    app.keyid = static_cast<int32_t>(key.key1);
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    if (sw_evlan_app2udp(&app, &evlan) == 0)
        made.id = evlan.evlan_id;
    evlan.evlan_id = id;
    UBridge__EvlanAppIndex back = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    made.back = sw_evlan_udp2app(&evlan, &back) == 0 && back.type == app.type && back.keyid == app.keyid;
    return made;
}

// The way back of a port tells its interface and no type.
translation translate_eport(const app_key &key, int32_t id)
{
    translation made;
    UBridge__EportAppIndex app = U_BRIDGE__EPORT_APP_INDEX__INIT;
    app.type = static_cast<int32_t>(key.type);
    app.keyid1 = static_cast<int32_t>(key.key1);
    app.keyid2 = static_cast<int32_t>(key.key2);
    UBridge__EportIndex eport = U_BRIDGE__EPORT_INDEX__INIT;
    if (sw_eport_app2udp(&app, &eport) == 0)
        made.id = eport.eport_id;
    eport.eport_id = id;
    UBridge__EportAppIndex back = U_BRIDGE__EPORT_APP_INDEX__INIT;
    back.type = app.type;
    made.back = sw_eport_udp2app(&eport, &back) == 0 && back.type == app.type && back.keyid1 == app.keyid1 &&
                back.keyid2 == app.keyid2;
    return made;
}

translation translate(const app_key &key, int32_t id)
{
    return key.kind == id_kind::evlan ? translate_evlan(key, id) : translate_eport(key, id);
}

bool holds(id_kind kind, const char *user, int32_t id)
{
    return kind == id_kind::evlan ? sw_evlan_db_get_item(0, user, word(id)) != nullptr
                                  : sw_eport_db_get_item(0, user, word(id)) != nullptr;
}

std::optional<attributes> merged(id_kind kind, int32_t id)
{
    if (kind == id_kind::evlan) {
        const sw_evlan_attr *all = sw_evlan_attr_merge(word(id));
        return all ? std::optional(attributes_of(*all)) : std::nullopt;
    }
    const sw_eport_attr *all = sw_eport_attr_merge(word(id));
    return all ? std::optional(attributes_of(*all)) : std::nullopt;
}

}  // namespace

void session::note_tables()
{
    for (size_t i = 0; i < requests_->size(); ++i) {
        const request &of = requests_->at(i);
        const int32_t granted = of.requester.reply;
        if (granted != -1 && of.user == users_.requester) {
            requester_facts asked = of.requester;
            asked.map = translate(of.app, granted);
            asked.held = holds(of.app.kind, requester(), granted);
            requests_->set(i, asked);
        }
        if (of.observer.heard != -1 && users_.observer) {
            observer_facts seen = of.observer;
            seen.map = translate(of.app, seen.heard);
            seen.held = of.app.kind == id_kind::evlan && holds(of.app.kind, OBSERVER, seen.heard);
            requests_->set(i, seen);
        }
        if (granted == -1 || !is_both())
            continue;
        const std::optional<attributes> all = merged(of.app.kind, granted);
        requests_->set({of.app.kind, of.user, granted}, all ? &*all : nullptr);
    }
}

bool dump_tables()
{
    sw_ebridge_list_item_ut_dump();
    sw_evlan_db_ut_dump(0, 0, 0);
    sw_eport_res_db_ut_dump(0, 0);
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

}  // namespace ebridge_tool
