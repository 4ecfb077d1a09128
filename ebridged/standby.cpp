// Standing by and serving in turns. See standby.hpp.
#include "standby.hpp"

#include <algorithm>
#include <new>
#include <utility>

namespace ebridged
{

namespace
{

constexpr const char *LOCK = "ebridged";
constexpr int64_t RETRY_USEC = 100'000;

ebridged_options with_databases(ebridged_options options, const std::vector<uint32_t> &databases)
{
    options.databases = databases.data();
    options.database_count = static_cast<uint32_t>(databases.size());
    return options;
}

}  // namespace

standby::standby(std::string url, qz_thread_master *master, const ebridged_options &options, observer *told)
    : url_(std::move(url)),
      master_(master),
      options_(options),
      log_(&options),
      told_(told),
      served_(databases_of(&options))
{
    written_ = served_;
    if (!std::ranges::binary_search(written_, MIRROR_DB))
        written_.insert(std::ranges::upper_bound(written_, MIRROR_DB), MIRROR_DB);
}

standby::~standby()
{
    end_service();
    qz_mom_client_close(handle_);
}

int32_t standby::start()
{
    const int32_t code = open();
    if (code == QZ_MOM_OK)
        enter(state::connecting);
    return code;
}

void standby::enter(state now)
{
    now_ = now;
    told_->entered(now);
}

bool standby::get_stat(ebridged_stat *out) const
{
    if (!service_ || !arbiter_ || !resolver_)
        return false;
    service_->stat(out);
    arbiter_->stat(out);
    resolver_->stat(out);
    return true;
}

int32_t standby::open()
{
    connected_ = held_ = 0;
    away_.clear();
    resolver_.reset();  // it follows on the old one
    handle_ = nullptr;
    int32_t code = qz_mom_client_open(url_.c_str(), master_, &handle_);
    for (size_t i = 0; code == QZ_MOM_OK && i < written_.size(); ++i)
        if (code = qz_mom_client_connect(handle_, written_[i], on_connected, this); code == QZ_MOM_OK)
            code = qz_mom_client_set_reconnect_cb(handle_, written_[i], on_reconnect, this);
    if (code != QZ_MOM_OK)
        return code;
    try {
        follow();
    } catch (const std::bad_alloc &) {
        // when it serves, then
    }
    return ask();
}

// While it stands by it hears in which order pvids are set: nobody could tell it later.
void standby::follow()
{
    const ebridged_options options = with_databases(options_, served_);
    resolver_ = std::make_unique<pvid_resolver>(handle_, &options);
    resolver_->start();
}

int32_t standby::on_connected(qz_mom_handle *handle, void *args)
{
    auto *self = static_cast<standby *>(args);
    if (handle == self->handle_ && ++self->connected_ == self->written_.size() && self->service_ == nullptr)
        self->enter(state::standing_by);
    return 0;
}

int32_t standby::on_reconnect(qz_mom_handle *handle, uint32_t db, int32_t type, void *args)
{
    auto *self = static_cast<standby *>(args);
    if (handle == self->handle_ && type == QZ_MOM_RECONNECT_ERROR)
        self->away_.insert(db);
    else if (handle == self->handle_ && type == QZ_MOM_RECONNECT_DONE)
        self->away_.erase(db);
    return 0;
}

// For the next lock; with all of them it serves.
int32_t standby::ask()
{
    if (held_ == written_.size()) {
        serve();
        return QZ_MOM_OK;
    }
    const int32_t code = qz_mom_lock(handle_, written_[held_], LOCK, on_lock, this);
    if (code != QZ_MOM_OK)
        log_(EBRIDGED_LOG_ERROR, "database %u: the lock cannot be asked for: %s", written_[held_],
             qz_mom_strerror(code));
    return code;
}

int32_t standby::on_lock(qz_mom_handle *handle, uint32_t, int32_t held, void *args)
{
    auto *self = static_cast<standby *>(args);
    if (handle != self->handle_)
        return 0;
    if (held == 0) {
        self->step_down();
    } else {
        // Of a call that comes again, because serving failed for lack of memory, all are held already.
        self->held_ = std::min(self->held_ + 1, self->written_.size());
        if (self->ask() != QZ_MOM_OK)
            self->open_anew();
    }
    return 0;
}

void standby::serve()
{
    const ebridged_options options = with_databases(options_, served_);
    arbiter_.reset();
    service_.reset();
    service_ = std::make_unique<service>(handle_, &options);
    arbiter_ = std::make_unique<arbiter>(handle_, &options);
    if (resolver_ == nullptr)
        follow();
    enter(state::serving);
    service_->start();
    arbiter_->start();
    resolver_->serve();
}

void standby::end_service()
{
    resolver_.reset();
    arbiter_.reset();
    service_.reset();
}

void standby::step_down()
{
    log_(EBRIDGED_LOG_ERROR, "the store's lock is lost");
    end_service();
    enter(state::standing_by);
    open_anew();
}

// The store may be away just now: tried again until it works.
void standby::open_anew()
{
    // The new one first: the connections stay as they are.
    qz_mom_handle *const lost = handle_;
    const int32_t code = open();
    qz_mom_client_close(lost);
    if (code == QZ_MOM_OK)
        return;
    log_(EBRIDGED_LOG_DEBUG, "the store: %s", qz_mom_strerror(code));
    const auto again = [](void *self) { static_cast<standby *>(self)->open_anew(); };
    if (qz_thread_call_after(master_, RETRY_USEC, again, this) != 0)
        log_(EBRIDGED_LOG_ERROR, "no timer: this process will not serve again");
}

}  // namespace ebridged
