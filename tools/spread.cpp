// The flow of "ebridge run" over several processes. See spread.hpp.
//
// Each requester and the observer is a process with a library, a loop and a store handle of its own. What one knows of
// another it has from the store alone: they report to this process, which compares. The observer is started first, and
// the requesters once it follows the sessions.
#include "spread.hpp"

#include <poll.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include "processes.hpp"
#include "session.hpp"

namespace ebridge_tool
{

namespace
{

enum report_kind : uint32_t { FOLLOWS, ASKED, SEEN, FINISHED, FAILED, NO_STORE };
enum order : char { READ = 'r', DUMP = 'd' };

// ---- in a worker ----------------------------------------------------------------------------------------------------

void flush_reports(void *to) { static_cast<reporter *>(to)->flush(); }

bool report_failure(reporter *to, report_kind kind, const std::string &line)
{
    to->add(kind, 0, line);
    to->flush();
    return false;
}

// Runs `work`, which reports what it fails with and returns false, and reports its end.
int report_of(reporter *to, const std::function<bool()> &work)
{
    try {
        if (!work())
            return 1;
        to->add(FINISHED, 0, {});
        to->flush();
        return 0;
    } catch (const std::bad_alloc &) {
        report_failure(to, FAILED, "out of memory");
    } catch (const std::exception &failure) {
        report_failure(to, FAILED, failure.what());
    }
    return 1;
}

// A failure is reported before the session is closed: closing waits for the store a while longer.
bool open_session(session *users, const run_options &options, reporter *to)
{
    std::string error;
    return users->open(options, &error) || report_failure(to, users->store_missing() ? NO_STORE : FAILED, error);
}

int request_share(size_t user, request_book *requests, const run_options &options, reporter *to)
{
    return report_of(to, [&] {
        requests->expect_answers_only();
        session requesting(requests, {.requester = user, .observer = false}, [&](session *of, size_t index) {
            if (to->add_value(ASKED, static_cast<uint32_t>(index), requests->at(index).requester))
                qz_thread_call(of->master(), flush_reports, to);
        });
        if (!open_session(&requesting, options, to))
            return false;
        requesting.request_all(options);
        requesting.note_tables();
        for (size_t i = 0; i < requests->size(); ++i)
            if (requests->at(i).user == user)
                to->add_value(ASKED, static_cast<uint32_t>(i), requests->at(i).requester);
        return true;
    });
}

// Follows the sessions until it is told to read them.
void follow(session *observing, reporter *to)
{
    struct order_heard {
        session *observing;
        bool heard;
    } waiting{observing, false};
    std::thread listener([&waiting, to] {
        to->told();
        const auto note = [](void *of) {
            static_cast<order_heard *>(of)->heard = true;
            static_cast<order_heard *>(of)->observing->happened();
        };
        qz_thread_call(waiting.observing->master(), note, &waiting);
    });
    observing->wait_until([&waiting] { return waiting.heard; }, ENDLESS);
    listener.join();
}

int observe(request_book *requests, const run_options &options, reporter *to)
{
    const auto work = [&] {
        session observing(requests, {.requester = cast::NOBODY, .observer = true}, [&](session *of, size_t index) {
            if (to->add_value(SEEN, static_cast<uint32_t>(index), requests->at(index).observer))
                qz_thread_call(of->master(), flush_reports, to);
        });
        if (!open_session(&observing, options, to))
            return false;
        to->add(FOLLOWS, 0, {});
        to->flush();
        follow(&observing, to);
        if (std::string error; !observing.scan(&error))
            return report_failure(to, FAILED, error);
        observing.note_tables();
        for (size_t i = 0; i < requests->size(); ++i)
            to->add_value(SEEN, static_cast<uint32_t>(i), requests->at(i).observer);
        return true;
    };
    const int status = report_of(to, work);
    if (status == 0 && to->told() == DUMP)
        return dump_tables() ? 0 : 1;
    return status;
}

// ---- in the one that started them -----------------------------------------------------------------------------------

class spread_run
{
  public:
    spread_run(const run_options &options, request_book *requests)
        : options_(options), worker_options_(options), requests_(requests), progress_(options, requests->size())
    {
        worker_options_.progress = nullptr;
    }

    bool run();
    // After the run: the observer, which waits for a last order.
    std::shared_ptr<worker> observer() { return std::move(members_[0].process); }
    bool store_missing() const { return store_missing_; }
    const std::string &error() const { return error_; }

  private:
    struct member {
        std::unique_ptr<worker> process;
        bool follows = false;
        bool finished = false;
    };

    bool start(const std::string &name, const std::function<int(reporter *)> &work);
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    void hear(member *from);
    void take(member *from, const received_report &report);
    void fail(const member &from, const std::string &what);
    bool failed() const { return !error_.empty(); }

    const run_options &options_;
    run_options worker_options_;
    request_book *requests_;
    progress_teller progress_;
    std::vector<member> members_;  // the observer first
    bool store_missing_ = false;
    std::string error_;
};

bool spread_run::start(const std::string &name, const std::function<int(reporter *)> &work)
{
    members_.push_back({.process = worker::start(name, work)});
    if (!members_.back().process)
        error_ = name + ": no more processes can be started";
    return !failed();
}

bool spread_run::run()
{
    const auto observing = [this](reporter *to) { return observe(requests_, worker_options_, to); };
    if (!start(OBSERVER, observing) || !wait_until([this] { return members_[0].follows; }, ENDLESS))
        return false;
    for (size_t user = 0; user < requests_->users().size(); ++user) {
        const auto requesting = [this, user](reporter *to) {
            return request_share(user, requests_, worker_options_, to);
        };
        if (!start(requests_->users()[user], requesting))
            return false;
    }
    const auto requested = [this] {
        return std::all_of(members_.begin() + 1, members_.end(), [](const member &of) { return of.finished; });
    };
    if (!wait_until(requested, ENDLESS))
        return false;
    // What the observer does not hear for so long it will never hear: that is for the evaluation to tell.
    wait_until([this] { return requests_->settled() == requests_->answered(); }, options_.patience_usec);
    progress_.last(requests_->settled());
    members_[0].process->tell(READ);
    return !failed() && wait_until([this] { return members_[0].finished; }, ENDLESS);
}

// False when somebody failed, or when nothing has been heard for `patience_usec`.
bool spread_run::wait_until(const std::function<bool()> &condition, int64_t patience_usec)
{
    while (!failed() && !condition()) {
        std::vector<pollfd> waiting;
        for (const member &of : members_)
            waiting.push_back({of.finished ? -1 : of.process->fd(), POLLIN, 0});
        const int timeout = patience_usec == ENDLESS ? -1 : static_cast<int>(patience_usec / 1000);
        if (poll(waiting.data(), waiting.size(), timeout) == 0)
            return false;
        for (size_t i = 0; i < members_.size() && !failed(); ++i)
            if (waiting[i].revents != 0)
                hear(&members_[i]);
    }
    return !failed();
}

void spread_run::hear(member *from)
{
    if (from->process->read_reports([&](const received_report &report) { take(from, report); }))
        return;
    std::string how;
    from->process->wait(&how);
    fail(*from, how);
}

void spread_run::take(member *from, const received_report &report)
{
    switch (report.kind) {
        case FOLLOWS:
            from->follows = true;
            break;
        case ASKED:
            requests_->set(report.index, report.as<requester_facts>());
            break;
        case SEEN:
            requests_->set(report.index, report.as<observer_facts>());
            break;
        case FINISHED:
            from->finished = true;
            break;
        case NO_STORE:
            store_missing_ = true;
            error_ = report.content;
            break;
        default:
            fail(*from, std::string(report.content));
    }
    progress_.at(requests_->settled());
}

void spread_run::fail(const member &from, const std::string &what) { error_ = from.process->name() + ": " + what; }

}  // namespace

bool run_spread(const run_options &options, request_book *requests, run_result *out, std::string *error)
{
    spread_run running(options, requests);
    if (!running.run()) {
        out->store_missing = running.store_missing();
        *error = running.error();
        return false;
    }
    out->dump = [observer = running.observer()] {
        std::string ignored;
        observer->tell(DUMP);
        return observer->wait(&ignored);
    };
    return true;
}

}  // namespace ebridge_tool
