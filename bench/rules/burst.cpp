// Bursts of rules. See burst.hpp.
#include "burst.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <vector>

#include "ebridged.h"
#include "processes.hpp"
#include "redis_server.hpp"
#include "rule_set.hpp"
#include "running_loop.hpp"

namespace bench
{

namespace
{

constexpr int SLICE = 256;  // rules between two turns of the loop
constexpr int64_t LOOK_USEC = 5000;

using clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char *what) { throw std::runtime_error(what); }

// How much waited, at which time of a burst.
class backlog_log
{
  public:
    void note(double seconds, double changes, double keys) { all_.push_back({seconds, {changes, keys}}); }
    std::array<backlog, QUARTERS> quarters(double seconds) const
    {
        std::array<backlog, QUARTERS> most{};
        for (const entry &each : all_) {
            const auto quarter = static_cast<size_t>(QUARTERS * each.seconds / seconds);
            backlog &its = most[std::min<size_t>(quarter, QUARTERS - 1)];
            its.changes = std::max(its.changes, each.waiting.changes);
            its.keys = std::max(its.keys, each.waiting.keys);
        }
        return most;
    }

  private:
    struct entry {
        double seconds;
        backlog waiting;
    };
    std::vector<entry> all_;
};

// A handle on a store and the arbiter on it.
class decider
{
  public:
    decider(const char *url, qz_thread_master *master)
    {
        const uint32_t databases[] = {RULE_DB};
        const ebridged_options options{
            .databases = databases, .database_count = 1, .log = nullptr, .log_args = nullptr, .log_level = 0};
        if (qz_mom_client_open(url, master, &handle_) != 0 || ebridged_start(handle_, &options, &service_) != 0)
            fail("the service cannot be started");
    }
    ~decider()
    {
        ebridged_stop(service_);
        qz_mom_client_close(handle_);
    }
    decider(const decider &) = delete;
    decider &operator=(const decider &) = delete;

    qz_mom_handle *handle() const { return handle_; }
    ebridged_stat stat() const
    {
        ebridged_stat now{};
        ebridged_get_stat(service_, &now);
        return now;
    }
    uint32_t unheard() const { return qz_mom_queue_depth(handle_); }
    bool has_settled(int rules) const
    {
        const ebridged_stat now = stat();
        return now.rules == static_cast<uint32_t>(rules) && now.waiting_keys + now.waiting_results == 0 &&
               qz_mom_queue_depth(handle_) == 0;
    }

  private:
    qz_mom_handle *handle_ = nullptr;
    ebridged_service *service_ = nullptr;
};

void put_backlog(const channel &to, const std::array<backlog, QUARTERS> &most)
{
    for (const backlog &each : most) {
        to.put(each.changes);
        to.put(each.keys);
    }
}

double own_processor()
{
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

// ---- one process ----------------------------------------------------------------------------------------------------

burst run_embedded(int rules)
{
    qz_thread_master *const master = qz_thread_master_create(QZ_THREAD_CLOCK_DRIVEN);
    const decider arbiter("mem:rules_bench", master);
    qz_mom_handle *users = nullptr;
    if (qz_mom_client_open("mem:rules_bench", master, &users) != 0)
        fail("the store cannot be opened");
    for (int user = 0; user < USERS; ++user)
        register_user(users, user);
    qz_thread_run_pending(master, 0);

    burst made;
    backlog_log waiting;
    const auto start = clock::now();
    const double processor = own_processor();
    for (int i = 0; i < rules; ++i) {
        if (sw_ematch_entry_add(&rule_message(i % USERS, i / USERS).entry()) != 0)
            fail("a rule was refused");
        if ((i + 1) % SLICE != 0)
            continue;
        waiting.note(seconds_since(start), arbiter.unheard(), arbiter.stat().waiting_keys);
        qz_thread_run_pending(master, 0);
    }
    while (!arbiter.has_settled(rules))
        qz_thread_advance(master, 1000);
    made.seconds = seconds_since(start);
    made.processor = made.application_processor = own_processor() - processor;
    made.calculations = static_cast<double>(arbiter.stat().calculations);
    made.results = static_cast<double>(arbiter.stat().results);
    made.waiting = waiting.quarters(made.seconds);
    audit found;
    found.start(users);
    while (!found.done())
        qz_thread_run_pending(master, 0);
    found.check(rules);
    return made;
}

// ---- processes ------------------------------------------------------------------------------------------------------

// Writes its rules, a slice at a time, as long as the store takes them, and then all of them again, so many times.
struct publisher {
    qz_thread_master *master;
    int user;
    int rules;
    int writes;
    int next = 0;

    static void turn(void *arg)
    {
        auto *self = static_cast<publisher *>(arg);
        for (int i = 0; i < SLICE && self->next < self->writes; ++i, ++self->next) {
            if (sw_ematch_entry_add(&rule_message(self->user, self->next % self->rules).entry()) != 0)
                break;
        }
        if (self->next < self->writes)
            qz_thread_call_after(self->master, self->next % SLICE == 0 ? 0 : 1000, turn, self);
    }
};

// Begins when it is told to, and says when the store has taken all.
void be_a_user(const channel &parent, const std::string &url, int user, int rules, int times)
{
    running_loop loop;
    qz_mom_handle *handle = nullptr;
    loop.call([&] {
        if (qz_mom_client_open(url.c_str(), loop.master, &handle) != 0)
            fail("the store cannot be opened");
        register_user(handle, user);
    });
    const rule_message nobody(USERS, 0);
    const qz_mom_timeval delay{1000, 0};
    const auto wait_for_store = [&] {
        // As long as much is written it takes longer than such a call waits.
        while (qz_mom_pexpire_sync(handle, RULE_DB, &nobody.entry().base, QZ_MOM_EXPIRE_PATTERN, &delay) != 0) {
        }
    };
    wait_for_store();
    parent.put();
    parent.get();
    publisher all{loop.master, user, rules, rules * times};
    loop.call([&] { publisher::turn(&all); });
    loop.wait_for([&] { return all.next == all.writes; });
    wait_for_store();
    parent.put();
    parent.get();
    loop.call([&] { qz_mom_client_close(handle); });
}

// Looks at the arbiter every now and then until it has settled.
struct observer {
    const decider *arbiter;
    qz_thread_master *master;
    int rules;
    bool all_written = false;
    clock::time_point start = {};
    backlog_log waiting = {};
    double settled = 0;

    static void look(void *arg)
    {
        auto *self = static_cast<observer *>(arg);
        const double now = seconds_since(self->start);
        self->waiting.note(now, self->arbiter->unheard(), self->arbiter->stat().waiting_keys);
        if (self->all_written && self->arbiter->has_settled(self->rules))
            self->settled = now;
        else
            qz_thread_call_after(self->master, LOOK_USEC, look, self);
    }
};

// Its clock begins when it is told to; once it is told that all is written, it says what it has seen when it has settled.
void be_the_arbiter(const channel &parent, const std::string &url, int rules)
{
    running_loop loop;
    std::unique_ptr<decider> arbiter;
    loop.call([&] { arbiter = std::make_unique<decider>(url.c_str(), loop.master); });
    loop.wait_for([&] { return arbiter->stat().deciding != 0; });
    parent.put();
    parent.get();
    observer seen{arbiter.get(), loop.master, rules};
    loop.call([&] {
        seen.start = clock::now();
        observer::look(&seen);
    });
    parent.get();
    loop.call([&] { seen.all_written = true; });
    loop.wait_for([&] { return seen.settled > 0; });
    parent.put(seen.settled);
    const ebridged_stat stat = arbiter->stat();
    parent.put(static_cast<double>(stat.calculations));
    parent.put(static_cast<double>(stat.results));
    put_backlog(parent, seen.waiting.quarters(seen.settled));
    parent.get();
    audit found;
    loop.call([&] { found.start(arbiter->handle()); });
    loop.wait_for([&] { return found.done(); });
    found.check(rules);
    parent.put();
    loop.call([&] { arbiter.reset(); });
}

void take_results(const process &arbiter, burst *made)
{
    made->seconds = arbiter.get();
    made->calculations = arbiter.get();
    made->results = arbiter.get();
    for (backlog &most : made->waiting)
        most = {arbiter.get(), arbiter.get()};
}

}  // namespace

burst burst_on_embedded_store(int rules)
{
    const process alone([rules](const channel &parent) {
        const burst made = run_embedded(rules);
        for (const double value : {made.seconds, made.calculations, made.results})
            parent.put(value);
        put_backlog(parent, made.waiting);
        parent.put(made.processor);
    });
    burst made;
    take_results(alone, &made);
    made.processor = made.application_processor = alone.get();
    return made;
}

burst burst_on_redis(int rules, int times, bool decided)
{
    const support::redis_server server("appendonly no\n");  // no file is measured
    const std::string url = server.url();
    std::vector<process> users;
    std::vector<pid_t> user_pids;
    for (int user = 0; user < USERS; ++user) {
        users.emplace_back([=](const channel &parent) { be_a_user(parent, url, user, rules / USERS, times); });
        users.back().get();
        user_pids.push_back(users.back().pid());
    }
    std::unique_ptr<process> arbiter;
    if (decided) {
        arbiter = std::make_unique<process>([=](const channel &parent) { be_the_arbiter(parent, url, rules); });
        arbiter->get();
    }
    const auto used = [](const std::vector<pid_t> &of) { return processor_seconds(of); };
    const double by_users = used(user_pids), by_server = used({server.pid()});
    const double by_arbiter = decided ? used({arbiter->pid()}) : 0;
    burst made;
    const auto start = clock::now();
    if (decided)
        arbiter->put();
    for (const process &user : users)
        user.put();
    for (const process &user : users)
        user.get();
    made.seconds = seconds_since(start);
    if (decided) {
        arbiter->put();
        take_results(*arbiter, &made);
        made.arbiter_bytes = resident(arbiter->pid()).peak;
    }
    made.application_processor = used(user_pids) - by_users;
    made.server_processor = used({server.pid()}) - by_server;
    made.service_processor = decided ? used({arbiter->pid()}) - by_arbiter : 0;
    made.processor = made.application_processor + made.server_processor + made.service_processor;
    if (decided) {
        arbiter->put();
        arbiter->get();
    }
    return made;
}

}  // namespace bench
