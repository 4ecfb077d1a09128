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

#include "config.hpp"

namespace ebridge_tool
{

const char *const OBSERVER = "ebridge_observer";

namespace
{

constexpr uint32_t DATA_OF_ALL = 2;
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

session::session(request_book *requests, const cast &users, change_heard changed)
    : requests_(requests), users_(users), changed_(std::move(changed))
{
    the_session = this;
}

session::~session()
{
    ebridged_stop(service_);
    qz_mom_client_close(handle_);
    qz_thread_master_free(master_);
    the_session = nullptr;
}

bool session::open(const run_options &options, std::string *error)
{
    master_ = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    if (master_ == nullptr) {
        *error = "no event loop: out of memory or descriptors";
        return false;
    }
    if (!connect(options.store, error) || !write_ranges(options.ranges, error))
        return false;
    if (options.serve) {
        if (const int32_t code = ebridged_start(handle_, nullptr, &service_); code != 0)
            return fail(error, "the allocator cannot be started", code);
    }
    if (!start_users(error))
        return false;
    if (!wait_until([this] { return subscribed_; }, options.patience_usec)) {
        *error = "the subscription was not confirmed";
        return false;
    }
    return !users_.observer || scan(error);
}

bool session::connect(const std::string &store, std::string *error)
{
    constexpr int64_t PATIENCE_USEC = 4'000'000;
    const auto note = [](qz_mom_handle *, void *self) {
        static_cast<session *>(self)->connected_ = true;
        static_cast<session *>(self)->happened();
        return int32_t{0};
    };
    int32_t code = qz_mom_client_open(store.c_str(), master_, &handle_);
    if (code == 0)
        code = qz_mom_client_connect(handle_, followed_db(), note, this);
    if (code == 0 && wait_until([this] { return connected_; }, PATIENCE_USEC))
        return true;
    *error = printable(store) + ": " + qz_mom_strerror(code != 0 ? code : QZ_MOM_EDOWN);
    return false;
}

bool session::write_ranges(std::span<const range_setting> ranges, std::string *error)
{
    for (const range_setting &range : ranges) {
        UBridge__EvlanSessionRange record = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
        record.index = static_cast<UBridge__EvlanType>(range.type);
        record.evlan_id_min = static_cast<int32_t>(range.min);
        record.evlan_id_max = static_cast<int32_t>(range.max);
        if (const int32_t code = qz_mom_set(handle_, SW_EBRIDGE_APP_DB, &record.base, nullptr, nullptr); code != 0)
            return fail(error, "a range cannot be written", code);
    }
    return true;
}

bool session::start_users(std::string *error)
{
    ebridge_args requesting{};
    requesting.handle = handle_;
    requesting.mom_db = SW_EBRIDGE_APP_DB;
    requesting.vlan_reply = on_vlan_answer;
    requesting.evlan_reply = on_evlan_answer;

    ebridge_args observing{};
    observing.user_name = OBSERVER;
    observing.handle = handle_;
    observing.mom_db = SW_EBRIDGE_UDP_DB;
    observing.evlan_data_type = DATA_OF_ALL;
    observing.vlan_reply = on_vlan_observed;
    observing.evlan_reply = on_evlan_observed;

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
    if (std::getenv("QZ_ZLOG_DIR") == nullptr)
        g_sw_vlan_file_zlog_level = 0;
    const char *follower = users_.observer ? OBSERVER : requester();
    const auto db = static_cast<int32_t>(followed_db());
    if (code = sw_evlan_subscribe_with_db(follower, db, on_subscribed, this); code != 0)
        return fail(error, "the sessions cannot be subscribed", code);
    return true;
}

// ---- requesting -----------------------------------------------------------------------------------------------------

int32_t session::send(const request &wanted)
{
    char *user = const_cast<char *>(requester());
    if (wanted.type == U_BRIDGE__EVLAN_TYPE__VLAN) {
        UBridge__VlanAppIndex index = U_BRIDGE__VLAN_APP_INDEX__INIT;
        index.user = user;
        index.type = static_cast<int32_t>(wanted.type);
        index.keyid = static_cast<int32_t>(wanted.keyid);
        return sw_vlan_request(&index, static_cast<int32_t>(wanted.vid), U_BRIDGE__RES_PRIORITY__LEVEL_0);
    }
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    index.t_user = user;
    index.type = static_cast<int32_t>(wanted.type);
    index.keyid = static_cast<int32_t>(wanted.keyid);
    const auto value = static_cast<int32_t>(wanted.wanted);
    return sw_evlan_request(&index, value, U_BRIDGE__RES_PRIORITY__LEVEL_0);
}

// Sends one request, again whenever the store's queues are full. 0, or the code that it failed with.
int32_t session::send_patiently(const request &wanted, int64_t patience)
{
    for (;;) {
        const int32_t code = send(wanted);
        if (code != QZ_MOM_EFULL)
            return code;
        const size_t before = requests_->settled();
        if (!wait_until([this, before] { return requests_->settled() > before; }, patience))
            return code;
    }
}

void session::request_all(const run_options &options)
{
    const size_t window = std::max<size_t>(MAX_OPEN / requests_->users().size(), 2);
    size_t sent = 0;
    progress_teller progress(options, requests_->size());
    const auto open_requests = [&] { return sent - std::min(sent, requests_->settled()); };
    for (size_t i = 0; i < requests_->size(); ++i) {
        if (requests_->at(i).user != users_.requester)
            continue;
        const int32_t code = send_patiently(requests_->at(i), options.patience_usec);
        if (code != 0) {
            requester_facts facts = requests_->at(i).requester;
            facts.code = code;
            note(i, facts);
            continue;
        }
        ++sent;
        progress.at(requests_->settled());
        const auto has_room = [&] { return open_requests() < window / 2; };
        if (open_requests() >= window && !wait_until(has_room, options.patience_usec))
            return;
    }
    const auto all_settled = [&] {
        progress.at(requests_->settled());
        return open_requests() == 0;
    };
    wait_until(all_settled, options.patience_usec);
    progress.last(requests_->settled());
}

// ---- the loop -------------------------------------------------------------------------------------------------------

bool session::wait_until(const std::function<bool()> &condition, int64_t patience_usec)
{
    condition_ = &condition;
    quiet_since_ = qz_thread_now(master_);
    bool holds = condition();
    while (!holds && qz_thread_now(master_) < quiet_since_ + patience_usec) {
        wake_at(quiet_since_ + patience_usec);
        qz_thread_run(master_);
        holds = condition();
    }
    condition_ = nullptr;
    return holds;
}

// Makes the loop return at that time at the latest.
void session::wake_at(int64_t time)
{
    const int64_t now = qz_thread_now(master_);
    if (wake_time_ > now && wake_time_ <= time)
        return;
    wake_time_ = time;
    qz_thread_call_after(master_, std::max<int64_t>(time - now, 0), on_wake, this);  // it may have passed meanwhile
}

void session::on_wake(void *self) { qz_thread_stop(static_cast<session *>(self)->master_); }

void session::happened()
{
    quiet_since_ = qz_thread_now(master_);
    if (condition_ && (*condition_)())
        qz_thread_stop(master_);
}

// ---- what is heard --------------------------------------------------------------------------------------------------

template <typename Facts>
void session::note(size_t index, const Facts &facts)
{
    requests_->set(index, facts);
    if (changed_)
        changed_(this, index);
    happened();
}

void session::answered(uint32_t type, uint32_t keyid, int32_t id)
{
    const size_t index = requests_->find(type, keyid);
    if (index == requests_->size())
        return;
    requester_facts facts = requests_->at(index).requester;
    facts.answered = true;
    facts.reply = id;
    note(index, facts);
}

// Others may hold the same key: what counts is the session of the user that this run requests it with.
void session::observed(const char *user, uint32_t type, uint32_t keyid, int32_t id)
{
    const size_t index = requests_->find(type, keyid);
    if (index == requests_->size() || requests_->user_of(requests_->at(index)) != user)
        return;
    observer_facts facts = requests_->at(index).observer;
    if (std::exchange(facts.heard, id) != id)
        note(index, facts);
}

int32_t session::on_vlan_answer(UBridge__VlanAppIndex *index, int32_t vlan_id)
{
    the_session->answered(word(index->type), word(index->keyid), vlan_evlan_id(word(index->type), vlan_id));
    return 0;
}

int32_t session::on_evlan_answer(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    the_session->answered(word(app->type), word(app->keyid), evlan->evlan_id);
    return 0;
}

int32_t session::on_vlan_observed(UBridge__VlanAppIndex *index, int32_t vlan_id)
{
    the_session->observed(index->user, word(index->type), word(index->keyid),
                          vlan_evlan_id(word(index->type), vlan_id));
    return 0;
}

int32_t session::on_evlan_observed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    the_session->observed(app->t_user, word(app->type), word(app->keyid), evlan->evlan_id);
    return 0;
}

int32_t session::on_subscribed(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED) {
        of->subscribed_ = true;
        of->happened();
    }
    return 0;
}

// ---- reading back ---------------------------------------------------------------------------------------------------

bool session::scan(std::string *error)
{
    for (size_t i = 0; i < requests_->size(); ++i) {
        observer_facts facts = requests_->at(i).observer;
        facts.found = false;
        requests_->set(i, facts);
    }
    scan_ended_ = false;
    const int32_t code = sw_evlan_data_scan_with_db(OBSERVER, SW_EBRIDGE_UDP_DB, on_scanned, this);
    if (code != 0)
        return fail(error, "the sessions cannot be scanned", code);
    constexpr int64_t PATIENCE_USEC = 30'000'000;
    if (wait_until([this] { return scan_ended_; }, PATIENCE_USEC))
        return true;
    *error = "the scan of the sessions did not end";
    return false;
}

int32_t session::on_scanned(qz_mom_handle *, const qz_mom_notification *msg, void *self)
{
    auto *of = static_cast<session *>(self);
    if (msg->end == QZ_MOM_END_SCAN) {
        of->scan_ended_ = true;
    } else if (msg->cmd == QZ_MOM_CMD_HMSET || msg->cmd == QZ_MOM_CMD_HSET) {
        const auto *hash = static_cast<const qz_mom_hash_value *>(msg->value);
        of->note_read(*reinterpret_cast<const UBridge__EvlanSession *>(hash->record));
    }
    of->happened();
    return 0;
}

void session::note_read(const UBridge__EvlanSession &record)
{
    if (!record.index)
        return;
    const size_t index = requests_->find(word(record.index->type), word(record.index->keyid));
    if (index == requests_->size() || requests_->user_of(requests_->at(index)) != record.index->t_user)
        return;
    observer_facts facts = requests_->at(index).observer;
    facts.found = true;
    facts.request_value = record.request_value;
    facts.reply_value = record.reply_value;
    facts.reply = record.reply;
    facts.mom_db = record.mom_db;
    requests_->set(index, facts);
}

// ---- what the library holds -----------------------------------------------------------------------------------------

namespace
{

translation translate(const request &of, int32_t id)
{
    translation made;
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.type = static_cast<int32_t>(of.type);
    app.keyid = static_cast<int32_t>(of.keyid);
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    if (sw_evlan_app2udp(&app, &evlan) == 0)
        made.id = evlan.evlan_id;
    evlan.evlan_id = id;
    UBridge__EvlanAppIndex back = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    made.back = sw_evlan_udp2app(&evlan, &back) == 0 && back.type == app.type && back.keyid == app.keyid;
    return made;
}

}  // namespace

void session::note_tables()
{
    for (size_t i = 0; i < requests_->size(); ++i) {
        requester_facts asked = requests_->at(i).requester;
        if (asked.reply != -1) {
            asked.map = translate(requests_->at(i), asked.reply);
            requests_->set(i, asked);
        }
        observer_facts seen = requests_->at(i).observer;
        if (seen.heard != -1) {
            seen.map = translate(requests_->at(i), seen.heard);
            seen.held = sw_evlan_db_get_item(0, OBSERVER, word(seen.heard)) != nullptr;
            requests_->set(i, seen);
        }
    }
}

bool dump_tables()
{
    sw_ebridge_list_item_ut_dump();
    sw_evlan_db_ut_dump(0, 0, 0);
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

}  // namespace ebridge_tool
