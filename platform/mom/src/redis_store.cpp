// The Redis store: its calls, and the thread that carries them out.
#include "redis_store.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>

#include "mom_log.hpp"

namespace mom
{
namespace
{

using namespace std::chrono_literals;

constexpr auto ROUND = 20ms;         // the longest time between two looks at the clock, and at what the reader does
constexpr auto STALLED_ROUND = 2ms;  // while something waits for room
constexpr auto LAST_WRITES = 2s;     // what a store that is closed has for what it has taken over
constexpr auto SYNC_PATIENCE = 5s;

struct store_table {
    std::mutex mutex;  // taken before the mutex of a store
    std::map<std::string, std::shared_ptr<redis_store>, std::less<>> stores;
};

store_table &stores()
{
    static auto *const made = new store_table;
    return *made;
}

// Unlike any other client of the server, today or later.
std::string new_client_name()
{
    std::random_device device;
    char text[40];
    std::snprintf(text, sizeof text, "%08x%08x%08x", device(), device(), device());
    return text;
}

change_ptr answer(const target &at, int32_t end, int32_t error)
{
    return make_change({at.db, QZ_MOM_CMD_NONE, end, at.keys.text(), {}, nullptr, error});
}

std::string joined(const std::vector<uint32_t> &numbers)
{
    std::string text;
    for (const uint32_t number : numbers)
        text.append(text.empty() ? "" : ",").append(std::to_string(number));
    return text;
}

// How the server is told that any value of a key field will do: no piece of a key text is "#" or "*".
std::string_view any_value(key_pattern::shape shape)
{
    switch (shape) {
        case key_pattern::shape::number:
            return "#";
        case key_pattern::shape::text:
            return "*";
        case key_pattern::shape::message:
            break;
    }
    return "";
}

// What the server needs to find the records of a target: a glob, whether it is one key, and the pieces of the key.
redis_words words_of(const target &of)
{
    if (of.keys.exact())
        return {of.keys.text(), "1"};
    redis_words words{std::string(record_name(of.keys.text())) + ":*", "0"};
    const auto &wanted = of.keys.wanted();
    for (size_t i = 0; i < wanted.size(); ++i)
        words.add(wanted[i].empty() ? any_value(of.keys.shapes()[i]) : wanted[i]);
    return words;
}

redis_operation mark_of(const target &of, int64_t delay_usec)
{
    redis_operation asked;
    asked.what = redis_operation::kind::mark;
    asked.words = words_of(of);
    asked.words.add(std::to_string(delay_usec));
    asked.mark = std::make_shared<mark_step>();
    asked.mark->in_pieces = !of.keys.exact();
    return asked;
}

}  // namespace

int32_t open_redis(std::string_view url, const std::shared_ptr<client> &who)
{
    int32_t code = QZ_MOM_OK;
    who->kept_in = redis_store::open(url, who, code);
    return code;
}

// ---- opening and closing --------------------------------------------------------------------------------------------

redis_store::redis_store(std::string url, redis_map databases)
    : url_(std::move(url)),
      databases_(std::move(databases)),
      office_(std::make_shared<post_office>()),
      wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (wake_fd_ < 0)
        throw std::bad_alloc();
}

redis_store::~redis_store() { ::close(wake_fd_); }

std::shared_ptr<redis_store> redis_store::open(std::string_view url, const std::shared_ptr<client> &who, int32_t &code)
{
    auto &all = stores();
    const std::scoped_lock lock(all.mutex);
    auto at = all.stores.find(url);
    if (at == all.stores.end()) {
        std::string fault;
        auto databases = map_of_url(url, fault);
        if (!databases) {
            if (!fault.empty())
                log_failure(fault.c_str());
            code = QZ_MOM_EURL;
            return nullptr;
        }
        auto made = std::make_shared<redis_store>(std::string(url), std::move(*databases));
        at = all.stores.emplace(std::string(url), std::move(made)).first;
    }
    auto store = at->second;
    try {
        const std::scoped_lock store_lock(store->office_->mutex);
        store->office_->attach(who);
        if (!store->thread_.joinable()) {
            store->address_.open(store);
            store->thread_ = std::thread([raw = store.get()] { raw->serve(); });
            store->office_->set_between_calls(store.get());
        }
        store->choose_reader();
    } catch (const std::exception &) {
        const std::scoped_lock store_lock(store->office_->mutex);
        store->office_->detach(*who);
        if (store->office_->clients().empty())
            all.stores.erase(at);
        throw std::bad_alloc();
    }
    return store;
}

void redis_store::close(client &from) noexcept
{
    auto &all = stores();
    const std::scoped_lock lock(all.mutex);
    {
        std::unique_lock store_lock(office_->mutex);
        subscriptions_.remove_all(from);
        let_go(from);
        office_->detach(from);
        from.box.queue.clear();  // a scan that waits there would keep its table
        for (const auto &[db, each] : served_)
            each->line.drop_unused();
        choose_reader();
        if (!office_->clients().empty())
            return;
        wait_for(store_lock, LAST_WRITES, [this] { return is_settled(); });
        office_->set_between_calls(nullptr);
        address_.close();
        stop_ = true;
        wake();
    }
    thread_.join();
    all.stores.erase(url_);
}

// The master of the handle that has been open the longest reads. Where it cannot, the store's thread does.
void redis_store::choose_reader() noexcept
{
    qz_thread_master *wanted = office_->clients().empty() ? nullptr : office_->clients().front()->master;
    if (wanted == reader_)
        return;
    if (reader_ != nullptr)
        qz_thread_unwatch(reader_, links_.descriptor());
    reader_ = wanted != nullptr && address_.watch(wanted, links_.descriptor()) == 0 ? wanted : nullptr;
    reader_is_late_ = false;
    unread_at_.reset();
    wake();
}

// Without memory for it the server lets the lock go by itself, a little later.
void redis_store::let_go(const client &leaving) noexcept
{
    try {
        for (const auto &[db, wanted] : leaving.locks) {
            redis_operation asked;
            asked.row = {"l", wanted.name, wanted.given};
            if (!wanted.given.empty())
                line(db).put(std::move(asked));
        }
    } catch (const std::bad_alloc &) {
        log_failure("a lock is left to run out");
    }
}

// ---- calls ----------------------------------------------------------------------------------------------------------

redis_line &redis_store::line(uint32_t db)
{
    if (const auto at = served_.find(db); at != served_.end())
        return at->second->line;
    std::unique_ptr<served_database> made(new served_database{
        redis_line(db, new_client_name(), links_, *office_, subscriptions_), redis_guide(databases_.at(db), links_)});
    return served_.emplace(db, std::move(made)).first->second->line;
}

void redis_store::wake() noexcept
{
    if (woken_)
        return;
    woken_ = true;
    const uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) < 0 && errno != EAGAIN)
        log_failure("the store's thread cannot be woken");
}

// Sees to it that somebody sends what a line was given. Within callbacks that is the master, when they are over; one that
// writes on and on must not wait for that.
int32_t redis_store::taken_over(client &from, const redis_line &by, int32_t code) noexcept
{
    if (code != QZ_MOM_OK)
        return code;
    if (!by.is_up())
        wake();
    else if (by.has_full_call())
        talk(true);
    else if (by.may_send())
        office_->wake(from);
    return code;
}

std::function<void(const redis_outcome &)> redis_store::answer_to(client &from, const target &at, const receiver &to,
                                                                  int32_t end)
{
    if (to.cb == nullptr)
        return {};
    return [this, who = from.weak_from_this(), at, to, end](const redis_outcome &done) {
        const auto owner = office_->attached(who);
        if (owner == nullptr)
            return;
        deliveries out;
        out.push_back({owner.get(), message{answer(at, end, done.code), to}});
        if (end == QZ_MOM_END_NONE)
            --owner->owed;
        office_->send(out);
    };
}

// What the log leads to never passes a handle's limit, and waits there in a flood. What the handle asks for may come on top
// of that, up to as much again.
template <typename Ask>
int32_t redis_store::ask(client &from, uint32_t db, Ask what)
{
    const std::scoped_lock lock(office_->mutex);
    if (from.box.depth() / 2 >= from.box.hard)
        return QZ_MOM_EFULL;
    redis_line &asked = line(db);
    return taken_over(from, asked, what(asked));
}

int32_t redis_store::connect(client &from, uint32_t db, const connection &answer)
{
    return ask(from, db, [&](redis_line &asked) { return asked.connect(from, answer); });
}

// A fenced handle's write carries what the server is to find at its lock.
int32_t redis_store::put_write(client &from, const target &at, packed_texts &&row, const receiver &to)
{
    redis_operation write;
    const std::scoped_lock lock(office_->mutex);
    if (to.cb != nullptr && from.box.depth() + from.owed >= from.box.hard)
        return QZ_MOM_EFULL;
    write.finish = answer_to(from, at, to, QZ_MOM_END_NONE);
    write.row = std::move(row);
    if (const auto fence = from.locks.find(at.db); fence != from.locks.end()) {
        wanted_lock &held = fence->second;
        if (held.told.empty())
            return QZ_MOM_EFENCED;
        if (held.fence == nullptr)
            held.fence = std::make_shared<const packed_texts>(packed_texts{"f", held.name, held.told});
        write.fence = held.fence;
    }
    redis_line &asked = line(at.db);
    const int32_t code = asked.put(std::move(write));
    if (code == QZ_MOM_OK)
        asked.count_newest(from.backlog_of(at.db, at.keys.type()));
    if (code == QZ_MOM_OK && to.cb != nullptr)
        ++from.owed;
    return taken_over(from, asked, code);
}

int32_t redis_store::write_whole(client &from, const target &at, content &&body, const receiver &to)
{
    return put_write(from, at, {"s", at.keys.text(), body.bytes}, to);
}

int32_t redis_store::write_ahead(client &from, const target &at, content &&body)
{
    redis_operation notice;
    notice.row = {"s", at.keys.text(), body.bytes};
    notice.ahead = true;
    const std::scoped_lock lock(office_->mutex);
    redis_line &asked = line(at.db);
    return taken_over(from, asked, asked.put(std::move(notice)));
}

int32_t redis_store::write_fields(client &from, const target &at, const field_write &fields, const receiver &to)
{
    std::string numbers = joined(fields.numbers);
    if (!std::ranges::equal(fields.numbers, fields.fields, {}, {}, &encoded_field::number)) {
        std::vector<uint32_t> written;
        for (const auto &field : fields.fields)
            written.push_back(field.number);
        numbers += '|' + joined(written);
    }
    packed_texts row{fields.creates ? "h" : "u", at.keys.text(), numbers};
    for (const auto &field : fields.fields)
        row.add(field.bytes);
    return put_write(from, at, std::move(row), to);
}

int32_t redis_store::remove(client &from, const target &at, const receiver &to)
{
    return put_write(from, at, {"d", at.keys.text()}, to);
}

int32_t redis_store::clear_mark(client &from, const target &at, const receiver &to)
{
    return put_write(from, at, {"c", at.keys.text()}, to);
}

int32_t redis_store::scan(client &from, const target &of, const receiver &to)
{
    return ask(from, of.db, [&](redis_line &asked) { return asked.scan(from, of, to); });
}

int32_t redis_store::subscribe(client &from, uint32_t db, std::vector<subscription> &&added)
{
    return ask(from, db, [&](redis_line &asked) { return asked.follow(std::move(added)); });
}

int32_t redis_store::unsubscribe(client &from, const target &of, const receiver &to)
{
    return ask(from, of.db, [&](redis_line &asked) { return asked.unfollow(from, of, to); });
}

int32_t redis_store::mark(client &from, const target &of, int64_t delay_usec, const receiver &end)
{
    redis_operation asked = mark_of(of, delay_usec);
    asked.mark->owner = from.weak_from_this();
    asked.mark->end = answer(of, QZ_MOM_END_EXPIRY, QZ_MOM_OK);
    asked.mark->to = end;
    return ask(from, of.db, [&](redis_line &by) { return by.put(std::move(asked)); });
}

int32_t redis_store::mark_now(client &, const target &of, int64_t delay_usec)
{
    const auto answered = std::make_shared<std::optional<int32_t>>();
    redis_operation asked = mark_of(of, delay_usec);
    asked.at_once = true;
    asked.finish = [this, answered](const redis_outcome &done) {
        *answered = done.code;
        drained_.notify_all();
    };
    std::unique_lock lock(office_->mutex);
    if (const int32_t code = line(of.db).put(std::move(asked)); code != QZ_MOM_OK)
        return code;
    return wait_for(lock, SYNC_PATIENCE, [&answered] { return answered->has_value(); }) ? **answered : QZ_MOM_EDOWN;
}

int32_t redis_store::remove_marked(client &from, const target &of, const receiver &end)
{
    redis_operation asked;
    asked.what = redis_operation::kind::sweep;
    asked.words = words_of(of);
    asked.finish = answer_to(from, of, end, QZ_MOM_END_EXPIRY);
    return ask(from, of.db, [&](redis_line &by) { return by.put(std::move(asked)); });
}

int32_t redis_store::lock(client &from, uint32_t db, const std::string &name, const lock_news &news)
{
    const std::scoped_lock lock(office_->mutex);
    auto &asked = line(db);
    if (from.locks.contains(db))
        return QZ_MOM_EINVAL;
    asked.want_lock(from, wanted_lock{name, {}, {}, {}, false, news});
    wake();
    return QZ_MOM_OK;
}

template <typename Done>
bool redis_store::wait_for(std::unique_lock<std::mutex> &lock, steady::duration patience, Done done)
{
    ++waiting_;
    wake();
    const bool over = drained_.wait_for(lock, patience, done);
    --waiting_;
    return over;
}

// ---- talking to the servers -----------------------------------------------------------------------------------------

// Without memory what was being done may be half done: begin again as after a lost connection.
template <typename Act>
void redis_store::with_each(Act act) noexcept
{
    try {
        for (auto &[db, each] : served_)
            act(*each);
    } catch (const std::bad_alloc &) {
        for (auto &[db, each] : served_) {
            each->guide.stop();
            each->line.lose("no memory");
        }
    }
}

// With the mutex. What may take time (looking up the name of a host) is left to the store's thread.
bool redis_store::talk(bool listen) noexcept
{
    bool heard = false;
    if (listen) {
        heard = links_.look();
        with_each([](served_database &each) {
            each.line.step();
            each.guide.step();
        });
    }
    with_each([now = steady::now()](served_database &each) { each.line.work(now); });
    return heard;
}

// It connects: what comes next is for the store's thread to do.
bool redis_store::is_on_the_way(served_database &each) { return each.line.is_connecting() || each.guide.is_asking(); }

void redis_store::all_made() noexcept { talk(false); }

void redis_store::run()
{
    const std::scoped_lock lock(office_->mutex);
    if (stop_)
        return;
    const bool heard = talk(true);
    ++rounds_;
    reader_is_late_ = reader_is_late_ && !heard;
    if (std::ranges::any_of(served_, [](const auto &each) { return is_on_the_way(*each.second); }))
        wake();
}

// ---- the store's thread ---------------------------------------------------------------------------------------------

void redis_store::serve()
{
    while (turn()) {
    }
}

bool redis_store::is_settled() const
{
    return std::ranges::all_of(served_, [](const auto &each) { return each.second->line.settled(); });
}

// Whether the store's thread reads now.
bool redis_store::reads() const
{
    return reader_ == nullptr || reader_is_late_ || waiting_ > 0 || std::ranges::any_of(served_, [](const auto &each) {
               return each.second->line.stalled() || is_on_the_way(*each.second);
           });
}

// Connects where the server is now; who asks for that first comes back later.
void redis_store::advance(served_database &of, steady::time_point now)
{
    if (of.line.wants_server(now)) {
        switch (of.guide.look(now)) {
            case redis_guide::answer::asking:
                return;
            case redis_guide::answer::nobody:
                return of.line.lose("no master is known");
            case redis_guide::answer::known:
                break;
        }
    }
    of.line.tick(of.guide.server(), now);
}

// Waits for something to happen, then does all that it leads to. False: it was told to stop.
bool redis_store::turn()
{
    bool reading = false, stalled = false;
    {
        const std::scoped_lock lock(office_->mutex);
        reading = reads();
        stalled = std::ranges::any_of(served_, [](const auto &each) { return each.second->line.stalled(); });
    }
    pollfd waited[] = {{wake_fd_, POLLIN, 0}, {reading ? links_.descriptor() : -1, POLLIN, 0}};
    const bool in_time = poll(waited, 2, static_cast<int>((stalled ? STALLED_ROUND : ROUND).count())) > 0;
    uint64_t count = 0;
    if ((waited[0].revents & POLLIN) != 0 && read(wake_fd_, &count, sizeof count) < 0)
        log_failure("the store's thread cannot read what woke it");
    pollfd links{links_.descriptor(), POLLIN, 0};
    const bool unread = !reading && !in_time && poll(&links, 1, 0) > 0;

    std::unique_lock lock(office_->mutex);
    woken_ = false;
    if (stop_)
        return false;
    // On a busy machine something is nearly always unread: it may have come just now. The reader is late when that is so
    // at two looks in a row, and it did not come by in between.
    const auto seen = unread ? std::optional(rounds_) : std::nullopt;
    reader_is_late_ = reader_is_late_ || (seen && seen == unread_at_);
    unread_at_ = seen;
    talk(true);
    // After what has come: an answer that was read late is an answer.
    with_each([now = steady::now()](served_database &each) {
        advance(each, now);
        each.line.flush();
    });
    office_->wake_waiting();
    if (office_->clients().empty() && is_settled())
        drained_.notify_all();
    look_up_names(lock);
    return true;
}

void redis_store::look_up_names(std::unique_lock<std::mutex> &lock) noexcept
{
    try {
        for (const auto &name : links_.take_unknown()) {
            lock.unlock();
            std::string address = look_up(name);
            lock.lock();
            if (!address.empty())
                links_.found(name, std::move(address));
        }
    } catch (const std::bad_alloc &) {
        // The next attempt to connect asks for it again.
        if (!lock.owns_lock())
            lock.lock();
    }
}

}  // namespace mom
