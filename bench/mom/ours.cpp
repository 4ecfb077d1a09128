// Writers, subscribers and readers on the store client.
#include "ours.hpp"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "u_bridge.pb-c.h"

namespace bench
{
namespace
{

constexpr uint32_t FIELDS[] = {6, 7, 8};
constexpr int ANSWERED_TOGETHER = 128;  // writes of which the last asks for an answer
constexpr int MAX_UNANSWERED = 32 * ANSWERED_TOGETHER;

// A session as an application requests it; without a key, the pattern of all.
class session_message
{
  public:
    session_message() { record_.index = &index_; }
    explicit session_message(int key) : session_message()
    {
        index_.t_user = user_;
        index_.type = U_BRIDGE__EVLAN_TYPE__VXLAN;
        index_.keyid = key;
        record_.request_value = 5;
        record_.request = 1;
    }
    session_message(const session_message &) = delete;
    session_message &operator=(const session_message &) = delete;

    const ProtobufCMessage *message() const { return &record_.base; }

  private:
    UBridge__EvlanAppIndex index_ = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    UBridge__EvlanSession record_ = U_BRIDGE__EVLAN_SESSION__INIT;
    char user_[4] = "app";
};

void must(int32_t code)
{
    if (code != QZ_MOM_OK)
        throw std::runtime_error(qz_mom_strerror(code));
}

}  // namespace

endpoint::endpoint(const std::string &url) : master_(qz_thread_master_create(QZ_THREAD_CLOCK_REAL))
{
    must(qz_mom_client_open(url.c_str(), master_, &handle_));
    const qz_mom_timeval none{0, 0};
    const session_message absent(-1);  // a call that waits for the connection, and finds nothing to mark
    must(qz_mom_pexpire_sync(handle_, DB, absent.message(), QZ_MOM_EXPIRE_EVLAN_SESSION, &none));
}

endpoint::~endpoint()
{
    qz_mom_client_close(handle_);
    qz_thread_master_free(master_);
}

int32_t endpoint::on_answer(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto &self = *static_cast<endpoint *>(args);
    auto &writing = self.writing_;
    writing.answered = std::min(writing.answered + ANSWERED_TOGETHER, writing.count);
    if (msg->error != QZ_MOM_OK)
        writing.code = msg->error;
    self.write_more();
    if (writing.code != QZ_MOM_OK || writing.answered == writing.count)
        qz_thread_stop(self.master_);
    return 0;
}

void endpoint::write_more()
{
    auto &at = writing_;
    while (at.code == QZ_MOM_OK && at.sent < at.count && at.sent - at.answered < MAX_UNANSWERED) {
        const session_message written(at.sent++ % at.keys);
        const bool asks = at.sent % ANSWERED_TOGETHER == 0 || at.sent == at.count;
        at.code =
            qz_mom_hmset(handle_, DB, written.message(), FIELDS, std::size(FIELDS), asks ? on_answer : nullptr, this);
    }
}

void endpoint::write(int count, int keys)
{
    writing_ = {count, keys, 0, 0, QZ_MOM_OK};
    write_more();
    if (writing_.code == QZ_MOM_OK)
        qz_thread_run(master_);
    must(writing_.code);
}

int32_t endpoint::on_change(qz_mom_handle *, const qz_mom_notification *msg, void *args)
{
    auto &self = *static_cast<endpoint *>(args);
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED)
        self.confirmed_ = true;
    else if (msg->value != nullptr)
        ++self.heard_;
    if (msg->cmd == QZ_MOM_CMD_SUBSCRIBED || msg->end != 0 || (self.wanted_ != 0 && self.heard_ >= self.wanted_))
        qz_thread_stop(self.master_);
    return 0;
}

int endpoint::scan()
{
    const session_message any;
    heard_ = 0;
    must(qz_mom_scan(handle_, DB, any.message(), 0, on_change, this));
    qz_thread_run(master_);
    return std::exchange(heard_, 0);
}

void endpoint::follow()
{
    const session_message any;
    must(qz_mom_subscribe(handle_, DB, any.message(), 0, on_change, this));
    qz_thread_run(master_);
    if (!confirmed_)
        throw std::runtime_error("a subscription was not confirmed");
    scan();
}

void endpoint::hear(int count)
{
    wanted_ = count;
    if (heard_ < wanted_)
        qz_thread_run(master_);
    if (heard_ != wanted_)
        throw std::runtime_error("a subscriber has not heard each change once");
    heard_ = wanted_ = 0;
}

process start_writer(const std::string &url, int count, int keys)
{
    return process([=](const channel &parent) {
        endpoint self(url);
        self.write(std::min(count, keys) / 2, keys);
        parent.put();
        parent.get();
        self.write(count, keys);
        parent.put();
        parent.get();
    });
}

process start_subscriber(const std::string &url, int count)
{
    return process([=](const channel &parent) {
        endpoint self(url);
        self.follow();
        parent.put();
        parent.get();
        self.hear(count);
        parent.put();
        parent.get();
    });
}

}  // namespace bench
