// The thread master: who runs it, the lock around its agenda, its clock, and the C face (qz_thread.h).
#include "qz_thread.h"

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include "agenda.hpp"
#include "sleeper.hpp"

using thread_master::agenda;
using thread_master::posted_call;
using thread_master::sleeper;
using thread_master::timer_call;
using thread_master::waiting_call;
using thread_master::work;

namespace
{

constexpr int64_t forever = std::numeric_limits<int64_t>::max();
constexpr int64_t microseconds_per_second = 1'000'000;
constexpr int calls_between_looks = 64;  // at watched descriptors, while there is always something to do

// Tells threads apart by an address that each has of its own; unlike a thread number it stays right across fork().
const void *this_thread()
{
    static thread_local char identity;
    return &identity;
}

int64_t later(int64_t time, int64_t delay) { return delay > forever - time ? forever : time + delay; }

int32_t count_up(int32_t count) { return count == std::numeric_limits<int32_t>::max() ? count : count + 1; }

bool checks_wanted()
{
    const char *value = std::getenv("QZ_THREAD_CHECK");
    return value && std::string_view(value) == "1";
}

}  // namespace

// A master is owned by at most one thread at a time: its runner, or a guest, which is a thread that runs its own
// qz_thread_call_wait() function because it met no runner.
struct qz_thread_master {
  public:
    explicit qz_thread_master(qz_thread_clock clock) : driven_(clock == QZ_THREAD_CLOCK_DRIVEN) {}
    bool open() { return driven_ || sleeper_.open(); }

    int64_t now() const { return driven_ ? driven_now_.load() : thread_master::monotonic_now(); }
    int64_t next_due();
    bool owned_by_other() const;
    void check(const char *what) const;

    void post(qz_thread_call_func func, void *arg);
    void insert(int64_t delay, timer_call timer);
    void call_wait(qz_thread_call_func func, void *arg);
    bool watch(int descriptor, qz_thread_call_func func, void *arg);
    bool unwatch(int descriptor);

    int32_t run();
    void stop();
    int32_t run_pending(int32_t limit);
    int32_t advance(int64_t usec);

  private:
    enum class role { runner, guest };
    class ownership;

    bool claim_as_runner();
    void own(role as);
    void release();
    void run_as_guest(std::unique_lock<std::mutex> &lock, qz_thread_call_func func, void *arg);
    void wake_runner();

    bool call_next();
    int32_t call_due(int32_t limit);
    void sleep();
    void look();
    void post_readable() noexcept;

    const bool driven_;
    const bool checks_ = checks_wanted();
    std::atomic<int64_t> driven_now_{0};
    sleeper sleeper_;  // real clock only

    // Written under the lock; read without it by threads that ask for themselves.
    std::atomic<const void *> owner_{nullptr};
    std::atomic<pid_t> owner_number_{0};  // for messages

    std::mutex lock_;                  // of all that follows
    std::condition_variable changed_;  // an owner has left, or a waiter's call is done
    role role_ = role::runner;         // of the owner, if there is one
    bool stop_ = false;
    bool asleep_ = false;  // the runner sleeps, or is about to: whoever adds work has to wake it
    agenda agenda_;
    struct watch_call {
        qz_thread_call_func func;
        void *arg;
        bool posted = false;  // and not called yet
    };
    std::map<int, watch_call> watches_;  // by descriptor
};

// Ends ownership however the owner's scope is left.
class qz_thread_master::ownership
{
  public:
    explicit ownership(qz_thread_master &master) : master_(master) {}
    ownership(const ownership &) = delete;
    ownership &operator=(const ownership &) = delete;
    ~ownership() { master_.release(); }

  private:
    qz_thread_master &master_;
};

// ---- ownership ------------------------------------------------------------------------------------------------------

bool qz_thread_master::owned_by_other() const
{
    const void *owner = owner_.load();
    return owner && owner != this_thread();
}

void qz_thread_master::check(const char *what) const
{
    if (!checks_ || !owned_by_other())
        return;
    std::fprintf(stderr, "%s: called on thread %d while thread %d runs the thread master (QZ_THREAD_CHECK=1)\n",
                 what ? what : "(unnamed call)", static_cast<int>(gettid()), static_cast<int>(owner_number_.load()));
    std::abort();
}

void qz_thread_master::own(role as)
{
    owner_number_ = gettid();
    owner_ = this_thread();
    role_ = as;
}

void qz_thread_master::release()
{
    const std::lock_guard lock(lock_);
    owner_ = nullptr;
    changed_.notify_all();
}

// False when there is a runner, or when this very thread is inside a call of the master. Guests are brief: waited for.
bool qz_thread_master::claim_as_runner()
{
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return !owned_by_other() || role_ == role::runner; });
    if (owner_.load())
        return false;
    own(role::runner);
    return true;
}

void qz_thread_master::run_as_guest(std::unique_lock<std::mutex> &lock, qz_thread_call_func func, void *arg)
{
    own(role::guest);
    lock.unlock();
    const ownership owned(*this);
    func(arg);
}

// ---- adding work ----------------------------------------------------------------------------------------------------

void qz_thread_master::wake_runner()
{
    if (asleep_)
        sleeper_.wake();
    asleep_ = false;
}

void qz_thread_master::post(qz_thread_call_func func, void *arg)
{
    const std::lock_guard lock(lock_);
    agenda_.post({.func = func, .arg = arg, .waiter = nullptr});
    wake_runner();
}

void qz_thread_master::insert(int64_t delay, timer_call timer)
{
    qz_thread_timer *counts = timer.counts;
    const std::lock_guard lock(lock_);
    const int64_t due = later(now(), delay);
    agenda_.insert(due, std::move(timer));
    if (counts)
        ++std::atomic_ref(counts->inserted);  // one object may serve several masters
    if (agenda_.next_due() == due)
        wake_runner();
}

// Queues behind the calls posted before while there is a runner; when it leaves first, the waiter runs its own call.
void qz_thread_master::call_wait(qz_thread_call_func func, void *arg)
{
    if (owner_.load() == this_thread()) {
        func(arg);
        return;
    }
    waiting_call waiter;
    bool queued = false;
    std::unique_lock lock(lock_);
    while (!waiter.done) {
        if (!owner_.load()) {
            agenda_.withdraw(&waiter);
            run_as_guest(lock, func, arg);
            return;
        }
        if (!queued && role_ == role::runner) {
            agenda_.post({.func = func, .arg = arg, .waiter = &waiter});
            queued = true;
            wake_runner();
        }
        changed_.wait(lock);
    }
}

bool qz_thread_master::watch(int descriptor, qz_thread_call_func func, void *arg)
{
    const std::lock_guard lock(lock_);
    if (driven_ || !watches_.emplace(descriptor, watch_call{.func = func, .arg = arg, .posted = false}).second)
        return false;
    const bool done = sleeper_.watch(descriptor);
    if (!done)
        watches_.erase(descriptor);
    return done;
}

bool qz_thread_master::unwatch(int descriptor)
{
    const std::lock_guard lock(lock_);
    return watches_.erase(descriptor) == 1 && sleeper_.unwatch(descriptor);
}

// ---- running --------------------------------------------------------------------------------------------------------

int64_t qz_thread_master::next_due()
{
    const std::lock_guard lock(lock_);
    return agenda_.next_due();
}

// Makes one call; false when nothing is due.
bool qz_thread_master::call_next()
{
    work next;
    {
        const std::lock_guard lock(lock_);
        next = agenda_.take(now());
        if (const auto *call = std::get_if<posted_call>(&next); call && call->descriptor >= 0) {
            if (const auto watched = watches_.find(call->descriptor); watched != watches_.end())
                watched->second.posted = false;
        }
    }
    if (const auto *call = std::get_if<posted_call>(&next)) {
        call->func(call->arg);
        if (call->waiter) {
            const std::lock_guard lock(lock_);
            call->waiter->done = true;
            changed_.notify_all();
        }
    } else if (const auto *timer = std::get_if<timer_call>(&next)) {
        if (timer->counts)
            ++std::atomic_ref(timer->counts->fired);
        qz_thread_event event{.arg = timer->arg, .master = this, .name = timer->name.c_str()};
        if (timer->func)
            timer->func(&event);
        else
            timer->plain_func(timer->arg);
    } else {
        return false;
    }
    return true;
}

int32_t qz_thread_master::call_due(int32_t limit)
{
    int32_t calls = 0;
    while ((limit <= 0 || calls < limit) && call_next())
        calls = count_up(calls);
    return calls;
}

// Sleeps unless there is something to do. Work added after the look under the lock finds asleep_ set and wakes.
void qz_thread_master::sleep()
{
    int64_t due;
    {
        const std::lock_guard lock(lock_);
        if (stop_ || agenda_.has_work(now()))
            return;
        asleep_ = true;
        due = agenda_.next_due();
    }
    sleeper_.sleep_until(due);
    const std::lock_guard lock(lock_);
    asleep_ = false;
    post_readable();
}

void qz_thread_master::look()
{
    const std::lock_guard lock(lock_);
    if (watches_.empty())
        return;
    sleeper_.look();
    post_readable();
}

// Under the lock. Without memory for a call it is found again the next time.
void qz_thread_master::post_readable() noexcept
{
    for (const int descriptor : sleeper_.readable()) {
        const auto watched = watches_.find(descriptor);
        if (watched == watches_.end() || watched->second.posted)
            continue;
        try {
            agenda_.post({.func = watched->second.func,
                          .arg = watched->second.arg,
                          .waiter = nullptr,
                          .descriptor = descriptor});
        } catch (const std::bad_alloc &) {
            return;
        }
        watched->second.posted = true;
    }
}

int32_t qz_thread_master::run()
{
    if (driven_)
        return QZ_THREAD_EINVAL;
    if (!claim_as_runner())
        return QZ_THREAD_EBUSY;
    const ownership owned(*this);
    for (int calls = 0;;) {
        {
            const std::lock_guard lock(lock_);
            if (std::exchange(stop_, false))
                return 0;
        }
        if (!call_next()) {
            sleep();
            calls = 0;
        } else if (++calls == calls_between_looks) {
            look();
            calls = 0;
        }
    }
}

void qz_thread_master::stop()
{
    const std::lock_guard lock(lock_);
    stop_ = true;
    wake_runner();
}

int32_t qz_thread_master::run_pending(int32_t limit)
{
    if (!claim_as_runner())
        return QZ_THREAD_EBUSY;
    const ownership owned(*this);
    look();
    return call_due(limit);
}

int32_t qz_thread_master::advance(int64_t usec)
{
    if (!driven_ || usec < 0)
        return QZ_THREAD_EINVAL;
    if (!claim_as_runner())
        return QZ_THREAD_EBUSY;
    const ownership owned(*this);
    const int64_t end = later(now(), usec);
    int32_t calls = 0;
    while (call_next())
        calls = count_up(calls);
    for (int64_t due = next_due(); due >= 0 && due <= end; due = next_due()) {
        driven_now_ = due;
        while (call_next())
            calls = count_up(calls);
    }
    driven_now_ = end;
    return calls;
}

// ---- C face ---------------------------------------------------------------------------------------------------------

namespace
{

// Only memory can run out inside; the rest is checked before.
template <typename Function>
int32_t guarded(Function function)
{
    try {
        function();
        return 0;
    } catch (const std::bad_alloc &) {
        return QZ_THREAD_ENOMEM;
    }
}

}  // namespace

qz_thread_master *qz_thread_master_create(enum qz_thread_clock clock)
{
    try {
        auto master = std::make_unique<qz_thread_master>(clock);
        return master->open() ? master.release() : nullptr;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void qz_thread_master_free(qz_thread_master *master) { delete master; }

int32_t qz_thread_run(qz_thread_master *master) { return master ? master->run() : QZ_THREAD_EINVAL; }

void qz_thread_stop(qz_thread_master *master)
{
    if (master)
        master->stop();
}

int32_t qz_thread_run_pending(qz_thread_master *master, int32_t limit)
{
    return master ? master->run_pending(limit) : QZ_THREAD_EINVAL;
}

int32_t qz_thread_advance(qz_thread_master *master, int64_t usec)
{
    return master ? master->advance(usec) : QZ_THREAD_EINVAL;
}

int64_t qz_thread_now(const qz_thread_master *master) { return master ? master->now() : 0; }

int64_t qz_thread_next_due(qz_thread_master *master) { return master ? master->next_due() : -1; }

int32_t qz_thread_insert_timer(qz_thread_master *master, qz_thread_timer *timer, qz_thread_func func, void *arg,
                               int32_t seconds, const char *name)
{
    if (!master || !func || seconds < 0)
        return QZ_THREAD_EINVAL;
    return guarded([&] {
        master->insert(seconds * microseconds_per_second,
                       {.func = func, .plain_func = nullptr, .arg = arg, .counts = timer, .name = name ? name : ""});
    });
}

int32_t qz_thread_call_after(qz_thread_master *master, int64_t usec, qz_thread_call_func func, void *arg)
{
    if (!master || !func || usec < 0)
        return QZ_THREAD_EINVAL;
    return guarded([&] {
        master->insert(usec, {.func = nullptr, .plain_func = func, .arg = arg, .counts = nullptr, .name = {}});
    });
}

int32_t qz_thread_call(qz_thread_master *master, qz_thread_call_func func, void *arg)
{
    if (!master || !func)
        return QZ_THREAD_EINVAL;
    return guarded([&] { master->post(func, arg); });
}

int32_t qz_thread_call_wait(qz_thread_master *master, qz_thread_call_func func, void *arg)
{
    if (!master || !func)
        return QZ_THREAD_EINVAL;
    return guarded([&] { master->call_wait(func, arg); });
}

int32_t qz_thread_watch(qz_thread_master *master, int descriptor, qz_thread_call_func func, void *arg)
{
    if (!master || !func || descriptor < 0)
        return QZ_THREAD_EINVAL;
    bool watched = false;
    const int32_t code = guarded([&] { watched = master->watch(descriptor, func, arg); });
    return code != 0 || watched ? code : QZ_THREAD_EINVAL;
}

int32_t qz_thread_unwatch(qz_thread_master *master, int descriptor)
{
    return master && master->unwatch(descriptor) ? 0 : QZ_THREAD_EINVAL;
}

int32_t qz_thread_is_master_thread(const qz_thread_master *master)
{
    return master && !master->owned_by_other() ? 1 : 0;
}

void qz_thread_check(const qz_thread_master *master, const char *what)
{
    if (master)
        master->check(what);
}
