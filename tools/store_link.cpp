// A store on a loop of its own. See store_link.hpp.
#include "store_link.hpp"

#include <algorithm>

#include "config_file.hpp"

namespace ebridge_tool
{

store_link::~store_link()
{
    qz_mom_client_close(handle_);
    qz_thread_master_free(master_);
}

int32_t store_link::open(const std::string &url, std::span<const uint32_t> databases, std::string *error)
{
    constexpr int64_t PATIENCE_USEC = 4'000'000;
    const auto note = [](qz_mom_handle *, void *self) {
        ++static_cast<store_link *>(self)->connected_;
        static_cast<store_link *>(self)->happened();
        return int32_t{0};
    };
    master_ = qz_thread_master_create(QZ_THREAD_CLOCK_REAL);
    if (master_ == nullptr) {
        *error = "no event loop: out of memory or descriptors";
        return QZ_MOM_ENOMEM;
    }
    int32_t code = qz_mom_client_open(url.c_str(), master_, &handle_);
    for (size_t i = 0; code == 0 && i < databases.size(); ++i) {
        code = qz_mom_client_set_reconnect_cb(handle_, databases[i], on_connection, this);
        if (code == 0)
            code = qz_mom_client_connect(handle_, databases[i], note, this);
    }
    if (code == 0 && !wait_until([&] { return connected_ == databases.size(); }, PATIENCE_USEC))
        code = QZ_MOM_EDOWN;
    if (code != 0)
        *error = config_text::printable_url(url) + ": " + qz_mom_strerror(code);
    return code;
}

int32_t store_link::on_connection(qz_mom_handle *, uint32_t db, int32_t type, void *self)
{
    auto *of = static_cast<store_link *>(self);
    const uint64_t bit = uint64_t{1} << (db % 64);  // a store that can be lost has 16
    if (of->lost_ == 0)
        of->away_since_ = qz_thread_now(of->master_);
    if (type == QZ_MOM_RECONNECT_ERROR)
        of->lost_ |= bit;
    if (type == QZ_MOM_RECONNECT_DONE) {
        of->lost_ &= ~bit;
        of->happened();
    }
    return 0;
}

bool store_link::wait_until(const std::function<bool()> &condition, int64_t patience_usec)
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

int32_t store_link::patiently(const std::function<int32_t()> &call, int64_t patience)
{
    constexpr int64_t PAUSE_USEC = 20'000;
    const int64_t give_up = qz_thread_now(master_) + (waited_in_vain_ ? 0 : patience);
    for (;;) {
        const int32_t code = call();
        const bool later = code == QZ_MOM_EFULL || code == QZ_MOM_EDOWN;
        if (!later || qz_thread_now(master_) >= give_up) {
            waited_in_vain_ = later;
            return code;
        }
        wait_until([this, before = happenings_] { return happenings_ != before; }, std::min(PAUSE_USEC, patience));
    }
}

// Makes the loop return at that time at the latest.
void store_link::wake_at(int64_t time)
{
    const int64_t now = qz_thread_now(master_);
    if (wake_time_ > now && wake_time_ <= time)
        return;
    wake_time_ = time;
    qz_thread_call_after(master_, std::max<int64_t>(time - now, 0), on_wake, this);  // it may have passed meanwhile
}

void store_link::on_wake(void *self) { qz_thread_stop(static_cast<store_link *>(self)->master_); }

void store_link::happened()
{
    ++happenings_;
    quiet_since_ = qz_thread_now(master_);
    if (condition_ && (*condition_)())
        qz_thread_stop(master_);
}

}  // namespace ebridge_tool
