// The users of "ebridge run", and the loop that they live on. See session.hpp.
//
// A requester's sessions live in the application database; the observer follows their mirrors in the data-plane
// database, of all users. Where both are in one process their databases differ, so neither subscribes automatically:
// the observer subscribes and scans by hand. That one subscription serves the process: each reply is applied once, and
// both users' callbacks are called. A requester by itself follows the application database.
#include "session.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "config_file.hpp"
#include "twin_calls.hpp"

namespace ebridge_tool
{

const char *const OBSERVER = "ebridge_observer";

namespace
{

constexpr uint32_t EVLANS_OF_ALL = 2;
constexpr uint32_t EPORTS_OF_ALL = 1;
// How many requests may be open at a time, of all requesters together: more would only fill queues.
constexpr size_t MAX_OPEN = 1024;

// The library's callbacks for answers carry no argument.
session *the_session = nullptr;

uint32_t word(int32_t value) { return static_cast<uint32_t>(value); }

bool fail(std::string *error, const char *what, int32_t code)
{
    *error = std::string(what) + ": " + std::to_string(code) + ", " + qz_mom_strerror(code);
    return false;
}

// An id from what a VLAN callback is told: the number alone, or -1.
int32_t vlan_evlan_id(uint32_t type, int32_t vlan_id)
{
    return vlan_id == -1 ? -1 : static_cast<int32_t>(type << 24 | word(vlan_id));
}

}  // namespace

session::session(run_books *books, const cast &users, session_listener listener)
    : requests_(&books->requests),
      members_(&books->members),
      rules_(&books->rules),
      users_(users),
      listener_(std::move(listener))
{
    the_session = this;
}

session::~session()
{
    ssat_serve_stop(shell_);
    ebridged_stop(service_);
    the_session = nullptr;
}

bool session::open(const run_options &options, std::string *error)
{
    constexpr uint32_t DATABASES[] = {SW_EBRIDGE_APP_DB, SW_EBRIDGE_UDP_DB};
    url_ = options.store;
    patience_usec_ = options.patience_usec;
    connected_ = link_.open(url_, DATABASES, error) == 0;
    if (!connected_ || !write_ranges(options.ranges, error))
        return false;
    if (options.serve) {
        if (const int32_t code = ebridged_start(link_.handle(), nullptr, &service_); code != 0)
            return fail(error, "the allocator cannot be started", code);
    }
    ssat_serve(link_.master(), &shell_);
    return start_users(error) && follow(error) && (!users_.observer || read_back(error));
}

// ---- waiting --------------------------------------------------------------------------------------------------------

bool session::wait_until(const std::function<bool()> &condition, int64_t patience_usec)
{
    for (;;) {
        const bool was_away = link_.away_since() != 0;
        if (link_.wait_until(condition, was_away ? patience_with_store() : patience_usec))
            return true;
        if (link_.away_since() == 0 && !was_away)
            return false;
        if (link_.away_since() != 0 && qz_thread_now(master()) >= link_.away_since() + patience_usec_)
            throw store_lost(config_text::printable_url(url_) + ": the store is lost, and has not come back for " +
                             std::to_string(patience_usec_ / 1'000'000) + " s");
    }
}

// What is left of the time for which the store may be away: the rest was spent by another wait, or while this session had
// nothing to do. Enough in any case to hear of its return.
int64_t session::patience_with_store() const
{
    constexpr int64_t LOOK_USEC = 1000;
    return std::max(link_.away_since() + patience_usec_ - qz_thread_now(master()), LOOK_USEC);
}

int32_t session::patiently(const std::function<int32_t()> &call)
{
    for (;;) {
        const int32_t code = link_.patiently(call, patience_usec_);
        if (code != QZ_MOM_EDOWN || link_.away_since() == 0)
            return code;
        wait_until([this] { return link_.away_since() == 0; });
    }
}

// ---- opening --------------------------------------------------------------------------------------------------------

bool session::write_ranges(std::span<const range_setting> ranges, std::string *error)
{
    for (const range_setting &range : ranges) {
        UBridge__EvlanSessionRange evlans = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
        evlans.index = static_cast<UBridge__EvlanType>(range.type);
        evlans.evlan_id_min = static_cast<int32_t>(range.min);
        evlans.evlan_id_max = static_cast<int32_t>(range.max);
        UBridge__EportSessionRange eports = U_BRIDGE__EPORT_SESSION_RANGE__INIT;
        eports.index = static_cast<UBridge__EportType>(range.type);
        eports.eport_id_min = static_cast<int32_t>(range.min);
        eports.eport_id_max = static_cast<int32_t>(range.max);
        const ProtobufCMessage *record = range.of_eports ? &eports.base : &evlans.base;
        if (const int32_t code = qz_mom_set(link_.handle(), SW_EBRIDGE_APP_DB, record, nullptr, nullptr); code != 0)
            return fail(error, "a range cannot be written", code);
    }
    return true;
}

bool session::start_users(std::string *error)
{
    ebridge_args common{};
    common.handle = link_.handle();
    common.evlan_attr_mom_db = SW_EBRIDGE_UDP_DB;
    common.eport_attr_mom_db = SW_EBRIDGE_UDP_DB;
    common.ematch_mom_db = SW_EBRIDGE_APP_DB;

    ebridge_args requesting = common;
    requesting.mom_db = SW_EBRIDGE_APP_DB;
    requesting.vlan_reply = on_vlan<false>;
    requesting.evlan_reply = on_evlan<false>;
    requesting.eport_reply = on_eport<false>;
    requesting.ematch_reply = on_verdict;
    requesting.pvid_change = on_pvid;

    ebridge_args observing = common;
    observing.user_name = OBSERVER;
    observing.mom_db = SW_EBRIDGE_UDP_DB;
    observing.evlan_data_type = EVLANS_OF_ALL;
    observing.eport_data_type = EPORTS_OF_ALL;
    observing.vlan_reply = on_vlan<true>;
    observing.evlan_reply = on_evlan<true>;
    observing.eport_reply = on_eport<true>;
    observing.evlan_release_reply = on_evlan_removed;
    observing.eport_release_reply = on_eport_removed;

    int32_t code = 0;
    if (users_.requester != cast::NOBODY) {
        requesting.user_name = requester();
        code = sw_ebridge_init(&requesting);
    }
    if (code == 0 && users_.observer)
        code = sw_ebridge_init(&observing);
    if (code != 0)
        return fail(error, "the library cannot be initialised", code);
    // Each refusal is told in a line of this command's own; the library's goes to a log file where one is wanted.
    if (const char *folder = std::getenv("QZ_ZLOG_DIR"); folder == nullptr || *folder == '\0')
        g_sw_vlan_file_zlog_level = 0;
    return true;
}

// An observer in a process of its own follows the attributes, too: with the store's client, as the library does not.
std::vector<session::subscription> session::subscriptions()
{
    const char *follower = users_.observer ? OBSERVER : requester();
    const auto db = static_cast<int32_t>(followed_db());
    const bool requests = users_.requester != cast::NOBODY;
    std::vector<subscription> wanted;
    for (const twin_calls &twin : TWINS)
        wanted.push_back({"the sessions cannot be subscribed",
                          [=, this] { return twin.subscribe(follower, db, on_subscribed, this); }});
    if (requests && !rules_->empty())
        wanted.push_back({"the match rules cannot be subscribed",
                          [this] { return sw_ematch_subscribe(requester(), on_subscribed, this); }});
    if (requests && !members_->empty())
        wanted.push_back({"the default VLANs cannot be subscribed",
                          [this] { return sw_vlan_pvid_subscribe(requester(), on_subscribed, this); }});
    if (users_.observer && !is_both())
        for (const ProtobufCMessage *pattern : ALL_ATTRIBUTES)
            wanted.push_back({"the attributes cannot be subscribed", [=, this] {
                                  return qz_mom_subscribe(link_.handle(), SW_EBRIDGE_UDP_DB, pattern, 0, on_attributes,
                                                          this);
                              }});
    return wanted;
}

bool session::follow(std::string *error)
{
    const std::vector<subscription> wanted = subscriptions();
    for (const subscription &each : wanted)
        if (const int32_t code = patiently(each.call); code != 0)
            return fail(error, each.fault, code);
    if (wait_until([&] { return confirmed_ == wanted.size(); }))
        return users_.requester == cast::NOBODY || members_->empty() || scan_pvids(error);
    *error = "the subscription was not confirmed";
    return false;
}

// ---- requesting -----------------------------------------------------------------------------------------------------

int32_t session::send(const request &wanted)
{
    constexpr auto PRIORITY = U_BRIDGE__RES_PRIORITY__LEVEL_0;
    char *user = const_cast<char *>(requester());
    const auto type = static_cast<int32_t>(wanted.app.type);
    const auto key1 = static_cast<int32_t>(wanted.app.key1);
    const auto value = static_cast<int32_t>(wanted.wanted);
    if (wanted.as == role::vlan) {
        UBridge__VlanAppIndex index = U_BRIDGE__VLAN_APP_INDEX__INIT;
        index.user = user;
        index.type = type;
        index.keyid = key1;
        return sw_vlan_request(&index, static_cast<int32_t>(wanted.wanted & 0xffffff), PRIORITY);
    }
    if (wanted.app.kind == id_kind::evlan) {
        UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
        index.t_user = user;
        index.type = type;
        index.keyid = key1;
        return sw_evlan_request(&index, value, PRIORITY);
    }
    UBridge__EportAppIndex index = U_BRIDGE__EPORT_APP_INDEX__INIT;
    index.t_user = user;
    index.type = type;
    index.keyid1 = key1;
    index.keyid2 = static_cast<int32_t>(wanted.app.key2);
    if (wanted.as != role::port && wanted.as != role::lag)
        return sw_eport_request(&index, value, PRIORITY);
    // The id of a port is what the library translates its interface to.
    UBridge__EportIndex translated = U_BRIDGE__EPORT_INDEX__INIT;
    if (const int32_t code = sw_eport_app2udp(&index, &translated); code != 0)
        return code;
    return sw_eport_request(&index, translated.eport_id, PRIORITY);
}

void session::request_all(const run_options &options)
{
    const size_t window = std::max<size_t>(MAX_OPEN / requests_->users().size(), 2);
    size_t sent = 0;
    progress_teller progress(options, requests_->wanted() + rules_->wanted());
    const auto open_requests = [&] { return sent - std::min(sent, requests_->settled()); };
    for (size_t i : own_wanted()) {
        requester_facts facts = requests_->at(i).requester;
        facts.sent = true;
        requests_->set(i, facts);
        facts.code = patiently([&] { return send(requests_->at(i)); });
        if (facts.code != 0) {
            note(i, facts);
            continue;
        }
        ++sent;
        progress.at(requests_->settled());
        const auto has_room = [&] { return open_requests() < window / 2; };
        if (open_requests() >= window && !wait_until(has_room))
            return;
    }
    const auto all_settled = [&] {
        progress.at(requests_->settled());
        return open_requests() == 0;
    };
    wait_until(all_settled);
    progress.last(requests_->settled());
}

int32_t session::describe(const request &of)
{
    if (of.app.kind == id_kind::evlan) {
        sw_evlan_attr attr = requests_->evlan_attributes(of);
        return sw_evlan_attr_set(&attr);
    }
    sw_eport_attr attr = requests_->eport_attributes(of);
    return sw_eport_attr_set(&attr);
}

void session::describe_all()
{
    for (size_t i : own_wanted()) {
        const request &of = requests_->at(i);
        if (of.requester.reply == -1)
            continue;
        requester_facts facts = of.requester;
        facts.attr_code = patiently([&] { return describe(of); });
        requests_->set(i, facts);
    }
    wait_for_writes(SW_EBRIDGE_UDP_DB);
}

// A call that changes nothing. 0 when the store has taken it.
int32_t session::ask_for_writes(uint32_t db, qz_mom_msg_cb told)
{
    UBridge__EvlanIndex index = U_BRIDGE__EVLAN_INDEX__INIT;
    index.t_user = const_cast<char *>(requester());
    UBridge__Evlan none = U_BRIDGE__EVLAN__INIT;
    none.index = &index;
    return qz_mom_clear_expire(link_.handle(), db, &none.base, told, this);
}

// Some writes have no answer, and what is still under way when a process ends is lost. A call that has one is answered after
// them.
void session::wait_for_writes(uint32_t db)
{
    written_ = false;
    const auto note = [](qz_mom_handle *, const qz_mom_notification *, void *self) {
        static_cast<session *>(self)->written_ = true;
        static_cast<session *>(self)->happened();
        return int32_t{0};
    };
    if (patiently([&] { return ask_for_writes(db, note); }) == 0)
        wait_until([this] { return written_; });
}

// ---- what is heard --------------------------------------------------------------------------------------------------

template <typename Facts>
void session::note(size_t index, const Facts &facts)
{
    requests_->set(index, facts);
    if (listener_.changed)
        listener_.changed(this, index);
    happened();
}

// What a scan tells of a former life is no answer.
void session::answered(const app_key &key, int32_t id)
{
    const size_t index = requests_->find(key);
    if (index == requests_->size() || !requests_->at(index).requester.sent)
        return;
    requester_facts facts = requests_->at(index).requester;
    facts.answered = true;
    facts.reply = id;
    note(index, facts);
}

// Others may hold the same key: what counts is the session of the user that this run requests it with.
void session::observed(const char *user, const app_key &key, int32_t id, bool removed)
{
    const size_t index = requests_->find(key);
    if (index == requests_->size() || requests_->user_of(requests_->at(index)) != user)
        return;
    observer_facts facts = requests_->at(index).observer;
    facts.removals += removed;
    if (std::exchange(facts.heard, id) != id || removed)
        note(index, facts);
}

namespace
{

app_key key_of(const UBridge__VlanAppIndex &index) { return {id_kind::evlan, word(index.type), word(index.keyid)}; }
app_key key_of(const UBridge__EvlanAppIndex &index) { return {id_kind::evlan, word(index.type), word(index.keyid)}; }
app_key key_of(const UBridge__EportAppIndex &index)
{
    return {id_kind::eport, word(index.type), word(index.keyid1), word(index.keyid2)};
}

}  // namespace

template <bool OBSERVED>
int32_t session::on_vlan(UBridge__VlanAppIndex *index, int32_t vlan_id)
{
    const int32_t id = vlan_evlan_id(word(index->type), vlan_id);
    if (OBSERVED)
        the_session->observed(index->user, key_of(*index), id, false);
    else
        the_session->answered(key_of(*index), id);
    return 0;
}

template <bool OBSERVED>
int32_t session::on_evlan(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    if (OBSERVED)
        the_session->observed(app->t_user, key_of(*app), evlan->evlan_id, false);
    else
        the_session->answered(key_of(*app), evlan->evlan_id);
    return 0;
}

template <bool OBSERVED>
int32_t session::on_eport(UBridge__EportAppIndex *app, UBridge__EportIndex *eport)
{
    if (OBSERVED)
        the_session->observed(app->t_user, key_of(*app), eport->eport_id, false);
    else
        the_session->answered(key_of(*app), eport->eport_id);
    return 0;
}

int32_t session::on_evlan_removed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *, int32_t)
{
    the_session->observed(app->t_user, key_of(*app), -1, true);
    return 0;
}

int32_t session::on_eport_removed(UBridge__EportAppIndex *app, UBridge__EportIndex *, int32_t)
{
    the_session->observed(app->t_user, key_of(*app), -1, true);
    return 0;
}

int32_t session::on_verdict(UBridge__EmatchEntry *entry)
{
    the_session->decided(*entry);
    return 0;
}

int32_t session::on_pvid(uint32_t ifx, uint16_t new_pvid, uint16_t, sw_vlan_pvid_entry *)
{
    the_session->pvid_changed(ifx, new_pvid);
    return 0;
}

int32_t session::on_subscribed(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        ++of->confirmed_;
        of->happened();
    }
    return 0;
}

}  // namespace ebridge_tool
