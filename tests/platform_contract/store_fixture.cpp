// Handles, listeners and time for the store tests.
#include "store_fixture.hpp"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ostream>

#include "spread_store.hpp"

namespace contract
{
namespace
{

// Longer than any store needs; reached only by a test that has failed.
constexpr std::chrono::seconds patience(40);  // a sentinel takes 10 and more to demote a master that lives

std::shared_ptr<ProtobufCMessage> copy(const ProtobufCMessage *record)
{
    if (record == nullptr)
        return nullptr;
    std::vector<uint8_t> bytes(protobuf_c_message_get_packed_size(record) + 1);
    const size_t size = protobuf_c_message_pack(record, bytes.data());
    auto *made = protobuf_c_message_unpack(record->descriptor, nullptr, size, bytes.data());
    return {made, [](ProtobufCMessage *message) { protobuf_c_message_free_unpacked(message, nullptr); }};
}

const ProtobufCMessage *record_of(const qz_mom_notification &msg)
{
    if (msg.value == nullptr)
        return nullptr;
    if (msg.cmd == QZ_MOM_CMD_HSET || msg.cmd == QZ_MOM_CMD_HMSET) {
        const auto *holder = static_cast<const qz_mom_hash_value *>(msg.value);
        EXPECT_EQ(0, holder->error);
        return holder->record;
    }
    return static_cast<const ProtobufCMessage *>(msg.value);
}

bool tells_of_record(const heard &each)
{
    return each.cmd == QZ_MOM_CMD_SET || each.cmd == QZ_MOM_CMD_DEL || each.cmd == QZ_MOM_CMD_HSET ||
           each.cmd == QZ_MOM_CMD_HMSET || each.cmd == QZ_MOM_CMD_EXPIRED;
}

support::spread_store &store_map()
{
    static support::spread_store store;
    return store;
}

void stop(void *master) { qz_thread_stop(static_cast<qz_thread_master *>(master)); }

}  // namespace

std::string store_url()
{
    const char *given = std::getenv("EBRIDGE_CONTRACT_URL");
    const std::string url = given == nullptr ? "mem:contract" : given;
    if (url == "redis")
        return store_server().url();
    if (url == "map")
        return store_map().url();
    if (url == "sentinel")
        return store_group().url();
    return url;
}

support::redis_server &store_server()
{
    static support::redis_server server;  // each test is a process, so each has one
    return server;
}

support::redis_group &store_group()
{
    static support::redis_group group;
    return group;
}

int32_t listener::hear(qz_mom_handle *handle, const qz_mom_notification *msg, void *args)
{
    auto &self = *static_cast<listener *>(args);
    self.all.push_back({msg->db, msg->key, msg->field, msg->cmd, msg->end, msg->error, copy(record_of(*msg))});
    if (self.also)
        self.also(handle, *msg);
    return 0;
}

size_t listener::count(int32_t cmd) const
{
    return static_cast<size_t>(
        std::count_if(all.begin(), all.end(), [&](const auto &each) { return each.cmd == cmd; }));
}

size_t listener::ends(int32_t end) const
{
    return static_cast<size_t>(
        std::count_if(all.begin(), all.end(), [&](const auto &each) { return each.end == end; }));
}

std::vector<heard> listener::changes() const
{
    std::vector<heard> found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found), tells_of_record);
    return found;
}

std::vector<int32_t> listener::commands() const
{
    std::vector<int32_t> found;
    for (const auto &each : all)
        found.push_back(each.cmd);
    return found;
}

void PrintTo(const session &what, std::ostream *to)
{
    *to << "{" << what.user << " " << what.type << " " << what.keyid << ": request " << what.request << "/"
        << what.request_value << ", reply " << what.reply << "/" << what.reply_value << "}";
}

session session_of(const ProtobufCMessage &record)
{
    const auto &it = reinterpret_cast<const UBridge__EvlanSession &>(record);
    return {it.index->t_user, it.index->type, it.index->keyid, it.request_value, it.request, it.reply_value, it.reply};
}

std::vector<session> sessions(const std::vector<heard> &all)
{
    std::vector<session> found;
    for (const auto &each : all) {
        const bool readable = each.record != nullptr &&
                              each.record->descriptor == &u_bridge__evlan_session__descriptor &&
                              reinterpret_cast<const UBridge__EvlanSession &>(*each.record).index != nullptr;
        EXPECT_TRUE(readable) << "no session in command " << each.cmd << " of " << each.key;
        if (readable)
            found.push_back(session_of(*each.record));
    }
    return found;
}

int32_t state_by_two_hands(const session &what)
{
    const int32_t ahead = what.request_value - what.reply_value;
    EXPECT_TRUE(ahead == 0 || ahead == 1) << testing::PrintToString(what);
    return what.request_value + what.reply_value;
}

session_record::session_record(const session &what)
    : user_(what.user), index_(U_BRIDGE__EVLAN_APP_INDEX__INIT), record_(U_BRIDGE__EVLAN_SESSION__INIT)
{
    index_.t_user = user_.data();
    index_.type = what.type;
    index_.keyid = what.keyid;
    record_.index = &index_;
    record_.request_value = what.request_value;
    record_.request = what.request;
    record_.reply_value = what.reply_value;
    record_.reply = what.reply;
}

evlan_record::evlan_record(const std::string &user, int32_t evlan_id, int32_t class_id)
    : user_(user), index_(U_BRIDGE__EVLAN_INDEX__INIT), record_(U_BRIDGE__EVLAN__INIT)
{
    index_.t_user = user_.data();
    index_.evlan_id = evlan_id;
    record_.index = &index_;
    record_.class_id = class_id;
}

// Each handle follows records that only settle() writes: what it has heard of them, it has heard all before. Answers to
// calls may come another way than changes do, so the answer to that write is waited for, too.
struct StoreTest::fence {
    qz_mom_handle *handle;
    listener heard_by;
    listener answered;
};

StoreTest::StoreTest()
    : driven_(store_url().starts_with("mem:")),
      master_(qz_thread_master_create(driven_ ? QZ_THREAD_CLOCK_DRIVEN : QZ_THREAD_CLOCK_REAL))
{
}

StoreTest::~StoreTest()
{
    while (!handles_.empty())
        close(handles_.back());
    qz_thread_master_free(master_);
}

qz_mom_handle *StoreTest::open(const std::string &url)
{
    qz_mom_handle *handle = nullptr;
    EXPECT_EQ(0, qz_mom_client_open(url.c_str(), master_, &handle));
    EXPECT_EQ(master_, qz_mom_handle_master(handle));
    handles_.push_back(handle);
    fences_.push_back(std::make_unique<fence>(fence{handle, {}, {}}));
    UBridge__EvlanSessionRange pattern = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    pattern.index = U_BRIDGE__EVLAN_TYPE__L3VPN;
    EXPECT_EQ(0, qz_mom_subscribe(handle, app_db, &pattern.base, 0, listener::hear, &fences_.back()->heard_by));
    return handle;
}

void StoreTest::close(qz_mom_handle *handle)
{
    const auto at = std::find(handles_.begin(), handles_.end(), handle);
    fences_.erase(fences_.begin() + (at - handles_.begin()));
    handles_.erase(at);
    qz_mom_client_close(handle);
}

// First everybody posts, and waits for his answer. Then one posts what all have to hear: what the store tells of whatever
// was done before is behind them then. Who reads tables anew, after a loss, may hear it twice, and of another table later.
void StoreTest::settle()
{
    post_fences(fences_.size());
    run_until(
        [&] { return std::ranges::none_of(fences_, [](const auto &each) { return each->answered.all.empty(); }); });
    if (HasFatalFailure())
        return;
    post_fences(std::min<size_t>(1, fences_.size()));
    const auto reached = [&](const heard &each) {
        return each.record != nullptr &&
               reinterpret_cast<const UBridge__EvlanSessionRange &>(*each.record).evlan_id_min == fence_number_;
    };
    run_until([&] {
        return std::ranges::all_of(fences_, [&](const auto &each) {
            return std::ranges::any_of(each->heard_by.all, reached) && !each->answered.all.empty();
        });
    });
    for (const auto &each : fences_)
        each->heard_by.all.clear();
}

// By the first `count` handles.
void StoreTest::post_fences(size_t count)
{
    UBridge__EvlanSessionRange post = U_BRIDGE__EVLAN_SESSION_RANGE__INIT;
    post.index = U_BRIDGE__EVLAN_TYPE__L3VPN;
    post.evlan_id_min = ++fence_number_;
    for (size_t i = 0; i < count; ++i) {
        fences_[i]->answered.all.clear();
        int32_t code = QZ_MOM_EDOWN;
        run_until([&] {
            code = qz_mom_set(fences_[i]->handle, app_db, &post.base, listener::hear, &fences_[i]->answered);
            return code != QZ_MOM_EDOWN || !may_be_away_;
        });
        ASSERT_EQ(0, code);
    }
}

void StoreTest::run_once()
{
    if (driven_) {
        qz_thread_run_pending(master_, 0);
        return;
    }
    qz_thread_call_after(master_, 1000, stop, master_);
    qz_thread_run(master_);
}

void StoreTest::run_until(const std::function<bool()> &done)
{
    const auto give_up = std::chrono::steady_clock::now() + patience;
    while (!done()) {
        run_once();
        if (std::chrono::steady_clock::now() > give_up) {
            FAIL() << "what was waited for has not come";
        }
    }
}

void StoreTest::pass_time(int64_t milliseconds)
{
    if (driven_) {
        qz_thread_advance(master_, milliseconds * 1000);
        return;
    }
    qz_thread_call_after(master_, milliseconds * 1000, stop, master_);
    qz_thread_run(master_);
}

int32_t StoreTest::hmset(qz_mom_handle *by, const session &what, const std::vector<uint32_t> &fields)
{
    return qz_mom_hmset(by, app_db, session_record(what).message(), fields.data(), static_cast<uint32_t>(fields.size()),
                        nullptr, nullptr);
}

int32_t StoreTest::hmupdate(qz_mom_handle *by, const session &what, const std::vector<uint32_t> &fields)
{
    return qz_mom_hmupdate(by, app_db, session_record(what).message(), fields.data(),
                           static_cast<uint32_t>(fields.size()), nullptr, nullptr);
}

int32_t StoreTest::del(qz_mom_handle *by, const session &what)
{
    return qz_mom_del(by, app_db, session_record(what).message(), nullptr, nullptr);
}

int32_t StoreTest::set(qz_mom_handle *by, const evlan_record &what)
{
    return qz_mom_set(by, app_db, what.message(), nullptr, nullptr);
}

int32_t StoreTest::follow(qz_mom_handle *by, const session &pattern, listener &to)
{
    return qz_mom_subscribe(by, app_db, session_record(pattern).message(), 0, listener::hear, &to);
}

int32_t StoreTest::follow_field(qz_mom_handle *by, const session &pattern, uint32_t field, listener &to)
{
    const qz_mom_msg_cb cb = listener::hear;
    void *const args = &to;
    return qz_mom_subscribe_field(by, app_db, session_record(pattern).message(), 0, &field, &cb, &args, 1);
}

int32_t StoreTest::follow_evlans(qz_mom_handle *by, listener &to)
{
    return qz_mom_subscribe(by, app_db, evlan_record("", 0).message(), 0, listener::hear, &to);
}

int32_t StoreTest::expire(qz_mom_handle *by, const session &what, int32_t mode, qz_mom_timeval delay, listener &to)
{
    return qz_mom_pexpire(by, app_db, session_record(what).message(), mode, &delay, listener::hear, &to);
}

std::vector<session> StoreTest::scan(qz_mom_handle *by, const session &pattern)
{
    listener found;
    EXPECT_EQ(0, qz_mom_scan(by, app_db, session_record(pattern).message(), 0, listener::hear, &found));
    run_until([&] { return found.ends(QZ_MOM_END_SCAN) == 1; });
    auto all = sessions(found.changes());
    std::ranges::sort(all);
    return all;
}

}  // namespace contract
