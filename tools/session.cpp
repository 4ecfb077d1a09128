// The two users of "ebridge run", and the loop that they live on. See session.hpp.
//
// The requester's sessions live in the application database; the observer follows their mirrors in the data-plane
// database, of all users. Their databases differ, so neither subscribes automatically: the observer subscribes and scans
// by hand. That one subscription serves the process: each reply is applied once, and both users' callbacks are called.
#include "session.hpp"

#include <cstdlib>
#include <cstring>

#include "config.hpp"

namespace ebridge_tool
{

namespace
{

constexpr const char *REQUESTER = "ebridge_run";
constexpr const char *OBSERVER = "ebridge_observer";
constexpr uint32_t DATA_OF_ALL = 2;

// The library's callbacks for answers carry no argument.
session *the_session = nullptr;

uint64_t map_key(uint32_t type, uint32_t keyid) { return static_cast<uint64_t>(type) << 32 | keyid; }

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

session::session(std::vector<request> *requests) : requests_(requests)
{
    for (size_t i = 0; i < requests->size(); ++i)
        by_key_.emplace(map_key((*requests)[i].type, (*requests)[i].keyid), i);
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
    return scan(error);
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
        code = qz_mom_client_connect(handle_, SW_EBRIDGE_APP_DB, note, this);
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
    ebridge_args requester{};
    requester.user_name = REQUESTER;
    requester.handle = handle_;
    requester.mom_db = SW_EBRIDGE_APP_DB;
    requester.vlan_reply = on_vlan_answer;
    requester.evlan_reply = on_evlan_answer;

    ebridge_args observer{};
    observer.user_name = OBSERVER;
    observer.handle = handle_;
    observer.mom_db = SW_EBRIDGE_UDP_DB;
    observer.evlan_data_type = DATA_OF_ALL;
    observer.vlan_reply = on_vlan_observed;
    observer.evlan_reply = on_evlan_observed;

    for (const ebridge_args *user : {&requester, &observer})
        if (const int32_t code = sw_ebridge_init(user); code != 0)
            return fail(error, "the library cannot be initialised", code);
    // Each refusal is told in a line of this command's own; the library's goes to a log file where one is wanted.
    if (std::getenv("QZ_ZLOG_DIR") == nullptr)
        g_sw_vlan_file_zlog_level = 0;
    if (const int32_t code = sw_evlan_subscribe_with_db(OBSERVER, SW_EBRIDGE_UDP_DB, on_subscribed, this); code != 0)
        return fail(error, "the sessions cannot be subscribed", code);
    return true;
}

int32_t session::send(const request &wanted)
{
    char *user = const_cast<char *>(REQUESTER);
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
    qz_thread_call_after(master_, time - now, on_wake, this);
}

void session::on_wake(void *self) { qz_thread_stop(static_cast<session *>(self)->master_); }

void session::happened()
{
    quiet_since_ = qz_thread_now(master_);
    if (condition_ && (*condition_)())
        qz_thread_stop(master_);
}

// ---- what is heard --------------------------------------------------------------------------------------------------

request *session::find(uint32_t type, uint32_t keyid)
{
    const auto found = by_key_.find(map_key(type, keyid));
    return found == by_key_.end() ? nullptr : &(*requests_)[found->second];
}

void session::answered(uint32_t type, uint32_t keyid, int32_t id)
{
    request *of = find(type, keyid);
    if (!of)
        return;
    const bool before = of->done();
    of->answered = true;
    of->reply = id;
    count_done(*of, before);
}

void session::observed(uint32_t type, uint32_t keyid, int32_t id)
{
    request *of = find(type, keyid);
    if (!of)
        return;
    const bool before = of->done();
    of->heard = id;
    count_done(*of, before);
}

void session::count_done(const request &changed, bool before)
{
    done_ += changed.done();
    done_ -= before;
    happened();
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
    the_session->observed(word(index->type), word(index->keyid), vlan_evlan_id(word(index->type), vlan_id));
    return 0;
}

int32_t session::on_evlan_observed(UBridge__EvlanAppIndex *app, UBridge__EvlanIndex *evlan)
{
    the_session->observed(word(app->type), word(app->keyid), evlan->evlan_id);
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
    for (request &of : *requests_)
        of.read = false;
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
    request *of = record.index ? find(word(record.index->type), word(record.index->keyid)) : nullptr;
    if (!of)
        return;
    of->read = true;
    of->read_equal = std::strcmp(record.index->t_user, REQUESTER) == 0 && record.reply == 1 &&
                     record.reply_value == of->reply && word(record.request_value) == of->wanted &&
                     record.mom_db == SW_EBRIDGE_APP_DB;
}

const char *session::difference(const request &of) const
{
    if ((of.wanted & 0xffffff) != 0 && word(of.reply) != of.wanted)
        return "granted another id than the one asked for";
    if (word(of.reply) >> 24 != of.type)
        return "granted an id of another type";
    UBridge__EvlanAppIndex app = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    app.type = static_cast<int32_t>(of.type);
    app.keyid = static_cast<int32_t>(of.keyid);
    UBridge__EvlanIndex evlan = U_BRIDGE__EVLAN_INDEX__INIT;
    if (sw_evlan_app2udp(&app, &evlan) != 0 || evlan.evlan_id != of.reply)
        return "the key does not translate to the id";
    UBridge__EvlanAppIndex back = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    if (sw_evlan_udp2app(&evlan, &back) != 0 || back.type != app.type || back.keyid != app.keyid)
        return "the id does not translate back to the key";
    if (!sw_evlan_db_get_item(0, OBSERVER, word(of.reply)))
        return "the observer has no record of the id";
    if (!of.read)
        return "the observer's scan does not find the session";
    return of.read_equal ? nullptr : "the session that the observer reads is not the one that was granted";
}

}  // namespace ebridge_tool
