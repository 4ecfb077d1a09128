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

#include "config_file.hpp"
#include "evaluation.hpp"
#include "processes.hpp"
#include "session.hpp"

namespace ebridge_tool
{

using config_text::printable;

namespace
{

enum report_kind : uint32_t {
    FOLLOWS,        // the observer
    ASKED,          // requester_facts of a request
    RULE_ASKED,     // rule_facts of a match rule
    MEMBERS_ASKED,  // member_facts of a port in VLANs
    SEEN,           // observer_facts of a request
    DESCRIBED,      // described_id: attributes were read
    READ_ANEW,      // what was told of attributes before counts no more
    HAS_READ,       // all that there is was told
    MEMBERS_SEEN,   // member_sight of a port in VLANs
    RULE_SEEN,      // rule_sight of a match rule
    OTHER_RULE,     // other_rule
    STRANGER,       // the key text of a session, match rule or port's VLANs that nobody has asked for
    REFRESHED,      // all that is wanted was asked for again
    PHASE,          // what a restart is at
    NOT_DELETED,    // why a restart has left something
    SETTLED,        // all is requested and published, and after a restart deleted; verdicts may still change
    FINISHED,
    FAILED,
    NO_STORE
};
enum order : char { READ = 'r', DELETE = 'd', FINISH = 'f', DUMP = 'p' };

struct described_id {
    held_id of;
    bool there;
    attributes content;
};

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
    } catch (const store_lost &lost) {
        report_failure(to, NO_STORE, lost.what());
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

void report_asked(const request_book &requests, size_t user, reporter *to)
{
    for (size_t i = 0; i < requests.size(); ++i)
        if (requests.at(i).user == user && !requests.at(i).dropped)
            to->add_value(ASKED, static_cast<uint32_t>(i), requests.at(i).requester);
}

void report_members(const member_book &members, size_t user, reporter *to)
{
    for (size_t i = 0; i < members.size(); ++i)
        if (members.at(i).user == user)
            to->add_value(MEMBERS_ASKED, static_cast<uint32_t>(i), members.at(i).asked);
}

void report_published(const run_books &books, size_t user, reporter *to)
{
    const rule_book &rules = books.rules;
    for (size_t i = 0; i < rules.size(); ++i)
        if (rules.at(i).user == user && !rules.at(i).dropped)
            to->add_value(RULE_ASKED, static_cast<uint32_t>(i), rules.at(i).asked);
    report_members(books.members, user, to);
}

void report_phase(const char *what, reporter *to)
{
    to->add(PHASE, 0, what);
    to->flush();
}

// Runs the loop until it is told what to do.
char wait_for_order(session *users, reporter *to)
{
    struct order_heard {
        session *users;
        bool heard;
    } waiting{users, false};
    char what = 0;
    std::thread listener([&waiting, &what, to] {
        what = to->told();
        const auto note = [](void *of) {
            static_cast<order_heard *>(of)->heard = true;
            static_cast<order_heard *>(of)->users->happened();
        };
        qz_thread_call(waiting.users->master(), note, &waiting);
    });
    users->look_until([&waiting] { return waiting.heard; }, ENDLESS);
    listener.join();
    return what;
}

// What a restarted application does: marks, asks again, deletes. All of them ask before any of them deletes: eport keys
// that several have had are taken out of the maps of all by the first one who lets go.
bool request_again(session *requesting, const run_options &options, reporter *to)
{
    std::string error;
    if (!requesting->mark_all(&error))
        return report_failure(to, FAILED, error);
    report_phase("marked", to);
    requesting->request_all(options);
    requesting->describe_all();
    requesting->publish_members();
    requesting->add_rules();
    to->add(REFRESHED, 0, {});
    report_phase("refreshed", to);
    if (wait_for_order(requesting, to) != DELETE)
        return true;
    report_phase(options.delete_now ? "deleting" : "deleting, by the age timer of 40 s", to);
    if (!requesting->delete_marked(options, &error))
        to->add(NOT_DELETED, 0, error);
    requesting->wait_for_pvids();
    requesting->wait_for_verdicts(options);
    return true;
}

// Goes on hearing verdicts until nobody publishes any more, and reports what came of everything.
bool finish_share(session *requesting, size_t user, bool again, const run_books &books, reporter *to)
{
    report_published(books, user, to);
    to->add(SETTLED, 0, {});
    to->flush();
    if (wait_for_order(requesting, to) != FINISH)
        return true;
    requesting->remove_order_rules();
    if (std::string error; again && !requesting->read_own(&error))
        return report_failure(to, FAILED, error);
    requesting->note_tables();
    report_asked(books.requests, user, to);
    report_members(books.members, user, to);
    return true;
}

int request_share(size_t user, bool again, run_books *books, const run_options &options, reporter *to)
{
    return report_of(to, [&] {
        books->requests.wait_for(request_book::patience::answered);
        const auto changed = [&](session *of, size_t index) {
            if (to->add_value(ASKED, static_cast<uint32_t>(index), books->requests.at(index).requester))
                qz_thread_call(of->master(), flush_reports, to);
        };
        const auto decided = [&](session *of, size_t index) {
            if (to->add_value(RULE_ASKED, static_cast<uint32_t>(index), books->rules.at(index).asked))
                qz_thread_call(of->master(), flush_reports, to);
        };
        session requesting(books, {.requester = user, .observer = false}, {.changed = changed, .decided = decided});
        if (!open_session(&requesting, options, to))
            return false;
        if (again && !request_again(&requesting, options, to))
            return false;
        if (!again) {
            requesting.request_all(options);
            requesting.describe_all();
            requesting.publish_members();
            requesting.publish_rules(options);
            requesting.wait_for_pvids();
        }
        if (!finish_share(&requesting, user, again, *books, to))
            return false;
        if (!options.restarted || again)
            return true;
        // Lives on until it is killed.
        to->add(FINISHED, 0, {});
        to->flush();
        to->told();
        return true;
    });
}

// Reads everything, and reports it.
bool read_and_report(session *observing, const run_books &books, reporter *to)
{
    const auto &[requests, members, rules] = books;
    to->add(READ_ANEW, 0, {});
    if (std::string error; !observing->read_back(&error))
        return report_failure(to, FAILED, error);
    observing->note_tables();
    for (size_t i = 0; i < requests.size(); ++i)
        to->add_value(SEEN, static_cast<uint32_t>(i), requests.at(i).observer);
    for (size_t i = 0; i < members.size(); ++i)
        to->add_value(MEMBERS_SEEN, static_cast<uint32_t>(i), members.at(i).seen);
    for (size_t i = 0; i < rules.size(); ++i)
        to->add_value(RULE_SEEN, static_cast<uint32_t>(i), rules.at(i).seen);
    for (const other_rule &other : rules.others())
        to->add_value(OTHER_RULE, 0, other);
    for (const std::string &key : observing->strangers())
        to->add(STRANGER, 0, key);
    to->add(HAS_READ, 0, {});
    to->flush();
    return true;
}

int observe(run_books *books, const run_options &options, reporter *to)
{
    char order = 0;
    const int status = report_of(to, [&] {
        const auto changed = [&](session *of, size_t index) {
            if (to->add_value(SEEN, static_cast<uint32_t>(index), books->requests.at(index).observer))
                qz_thread_call(of->master(), flush_reports, to);
        };
        const auto described = [&](session *of, const held_id &id, const attributes *found) {
            const described_id report{id, found != nullptr, found ? *found : attributes{}};
            if (to->add_value(DESCRIBED, 0, report))
                qz_thread_call(of->master(), flush_reports, to);
        };
        session observing(books, {.requester = cast::NOBODY, .observer = true},
                          {.changed = changed, .described = described});
        if (!open_session(&observing, options, to))
            return false;
        to->add(FOLLOWS, 0, {});
        to->flush();
        while ((order = wait_for_order(&observing, to)) == READ)
            if (!read_and_report(&observing, *books, to))
                return false;
        return true;
    });
    if (status == 0 && order == DUMP)
        return dump_tables() ? 0 : 1;
    return status;
}

// ---- in the one that started them -----------------------------------------------------------------------------------

class spread_run
{
  public:
    spread_run(const run_options &options, run_books *books)
        : options_(options),
          worker_options_(options),
          books_(books),
          requests_(&books->requests),
          vlan_ports_(&books->members),
          rules_(&books->rules),
          progress_(options, requests_->size() + rules_->size())
    {
        worker_options_.progress = nullptr;
        requests_->wait_for(request_book::patience::described);
    }

    bool run();
    // Kills the requesters, and starts them again with less.
    bool restart();
    // After the run: the observer, which waits for a last order.
    std::shared_ptr<worker> observer() { return std::move(members_[0].process); }
    bool store_missing() const { return store_missing_; }
    const std::string &error() const { return error_; }
    // After a restart: what is left or went wrong, apart from entries.
    std::vector<std::string> remarks() const;

  private:
    struct member {
        std::unique_ptr<worker> process;
        bool follows = false;   // the observer
        bool has_read = false;  // all that it was told to
        bool refreshed = false;
        bool settled = false;
        bool finished = false;  // and reports no more
    };

    bool start(const std::string &name, const std::function<int(reporter *)> &work);
    bool start_requesters(bool again);
    bool wait_for_requesters(bool member::*state);
    bool finish_requesters();
    bool read_back();
    bool settle_rules();
    bool settle_default_vlans();
    size_t answered() const { return requests_->settled() + rules_->settled(); }
    bool wait_until(const std::function<bool()> &condition, int64_t patience_usec);
    void hear(member *from);
    void take(member *from, const received_report &report);
    void fail(const member &from, const std::string &what);
    bool failed() const { return !error_.empty(); }

    const run_options &options_;
    run_options worker_options_;
    run_books *books_;
    request_book *requests_;
    member_book *vlan_ports_;
    rule_book *rules_;
    progress_teller progress_;
    std::vector<member> members_;  // the observer first
    std::vector<std::string> strangers_;
    std::vector<std::string> not_deleted_;
    bool rules_decided_ = false;  // those that tell the order may go: no verdict counts any more
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

// Returns when they have done their work.
bool spread_run::start_requesters(bool again)
{
    for (size_t user = 0; user < requests_->users().size(); ++user) {
        const auto requesting = [this, user, again](reporter *to) {
            return request_share(user, again, books_, worker_options_, to);
        };
        if (!start(requests_->users()[user], requesting))
            return false;
    }
    if (again) {
        if (!wait_for_requesters(&member::refreshed))
            return false;
        for (size_t i = 1; i < members_.size(); ++i)
            members_[i].process->tell(DELETE);
    }
    return wait_for_requesters(&member::settled);
}

// With all that they have published in the store, and decided.
bool spread_run::finish_requesters()
{
    if (!read_back() || !settle_rules())
        return false;
    rules_decided_ = true;
    for (size_t i = 1; i < members_.size(); ++i)
        members_[i].process->tell(FINISH);
    return wait_for_requesters(&member::finished) && (rules_->empty() || read_back()) && settle_default_vlans();
}

bool spread_run::wait_for_requesters(bool member::*state)
{
    const auto all = [&] {
        return std::all_of(members_.begin() + 1, members_.end(), [state](const member &of) { return of.*state; });
    };
    return wait_until(all, ENDLESS);
}

bool spread_run::read_back()
{
    // What the observer does not hear for so long it will never hear: that is for the evaluation to tell.
    const auto heard = [this] { return requests_->settled() == requests_->answered() && requests_->left() == 0; };
    wait_until(heard, options_.patience_usec);
    progress_.last(answered());
    members_[0].has_read = false;
    members_[0].process->tell(READ);
    return !failed() && wait_until([this] { return members_[0].has_read; }, ENDLESS);
}

// The table that is read is not the one that the requesters heard: it may change a little later.
bool spread_run::settle_default_vlans()
{
    constexpr int TRIES = 20;
    for (int tries = 0; tries < TRIES && !vlan_ports_->is_seen(); ++tries)
        if (wait_until([] { return false; }, 100'000); !read_back())
            return false;
    return !failed();
}

// Waits until the verdicts are those of the calculation, whose order of the users may not have been heard of yet.
bool spread_run::settle_rules()
{
    if (rules_->empty())
        return true;
    constexpr int64_t QUIET_USEC = 200'000;
    constexpr int64_t ENOUGH_USEC = 5'000'000;
    const auto as_calculated = [this] { return rules_->as_calculated() == rules_->wanted(); };
    // What has not come yet was waited for long enough.
    const bool all_heard = rules_->settled() == rules_->wanted();
    const int64_t patience = all_heard ? std::min(ENOUGH_USEC, options_.patience_usec) : 0;
    rules_->calculate();
    for (int64_t quiet = 0; quiet < patience && !wait_until(as_calculated, QUIET_USEC) && !failed();
         quiet += QUIET_USEC)
        rules_->calculate();
    progress_.last(answered());
    return !failed();
}

bool spread_run::run()
{
    const auto observing = [this](reporter *to) { return observe(books_, worker_options_, to); };
    return start(OBSERVER, observing) && wait_until([this] { return members_[0].follows; }, ENDLESS) &&
           start_requesters(false) && finish_requesters();
}

bool spread_run::restart()
{
    members_.erase(members_.begin() + 1, members_.end());
    books_->restart(*options_.restarted);
    rules_decided_ = false;
    if (!start_requesters(true) || !finish_requesters())
        return false;
    // Sessions and attributes that nobody counts on may go a little later in database 8.
    constexpr int TRIES = 20;
    for (int tries = 0; tries < TRIES && not_deleted_.empty() && !remarks().empty(); ++tries) {
        wait_until([] { return false; }, 100'000);
        if (!read_back())
            return false;
    }
    return true;
}

std::vector<std::string> spread_run::remarks() const
{
    std::vector<std::string> all = not_deleted_;
    for (const std::string &key : strangers_)
        all.push_back(key + ": is left over");
    for (std::string &line : left_attributes(*requests_))
        all.push_back(std::move(line));
    return all;
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
        case RULE_ASKED:
            if (!rules_decided_)
                rules_->set(report.index, report.as<rule_facts>());
            break;
        case MEMBERS_ASKED:
            vlan_ports_->set(report.index, report.as<member_facts>());
            break;
        case MEMBERS_SEEN:
            vlan_ports_->set(report.index, report.as<member_sight>());
            break;
        case RULE_SEEN:
            rules_->set(report.index, report.as<rule_sight>());
            break;
        case OTHER_RULE:
            rules_->add_other(report.as<other_rule>());
            break;
        case SEEN:
            requests_->set(report.index, report.as<observer_facts>());
            break;
        case DESCRIBED: {
            const auto read = report.as<described_id>();
            requests_->set(read.of, read.there ? &read.content : nullptr);
            break;
        }
        case READ_ANEW:
            requests_->forget_attributes();
            rules_->forget_others();
            strangers_.clear();
            break;
        case HAS_READ:
            from->has_read = true;
            break;
        case STRANGER:
            strangers_.emplace_back(report.content);
            break;
        case REFRESHED:
            from->refreshed = true;
            break;
        case PHASE:
            if (options_.phase)
                options_.phase((from->process->name() + ": " + std::string(report.content)).c_str());
            break;
        case NOT_DELETED:
            not_deleted_.push_back(from->process->name() + ": " + std::string(report.content));
            break;
        case SETTLED:
            from->settled = true;
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
    progress_.at(answered());
}

void spread_run::fail(const member &from, const std::string &what) { error_ = from.process->name() + ": " + what; }

}  // namespace

bool run_spread(const run_options &options, run_books *books, run_result *out, std::string *error)
{
    spread_run running(options, books);
    if (!running.run()) {
        out->store_missing = running.store_missing();
        *error = running.error();
        return false;
    }
    evaluate(books->requests, out);
    evaluate(books->members, out);
    evaluate(books->rules, out);
    if (options.restarted) {
        if (!running.restart()) {
            out->store_missing = running.store_missing();
            *error = running.error();
            return false;
        }
        evaluate_restart(books->requests, out);
        evaluate_restart(books->members, out);
        evaluate_restart(books->rules, out);
        for (std::string &line : running.remarks())
            out->problems.push_back(printable(line));
    }
    out->dump = [observer = running.observer()] {
        std::string ignored;
        observer->tell(DUMP);
        return observer->wait(&ignored);
    };
    return true;
}

}  // namespace ebridge_tool
