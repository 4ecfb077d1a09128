// The embedded store.
#include "embedded_store.hpp"

#include <algorithm>

#include "key_text.hpp"
#include "mom_log.hpp"

namespace mom
{
namespace
{

// A piece of a scan: so many records, found among so many visited, before others get the mutex.
constexpr uint32_t piece_records = 64;
constexpr uint32_t piece_visits = 1024;
// A mark that is due waits so long for room in the queues of those who will hear of it.
constexpr int64_t full_retry_usec = 100000;

struct name_table {
    std::mutex mutex;  // taken before the mutex of a store
    std::map<std::string, std::shared_ptr<embedded_store>, std::less<>> stores;
};

name_table &names()
{
    static auto *const made = new name_table;
    return *made;
}

change_ptr plain(uint32_t db, const std::string &key, int32_t cmd, int32_t end = QZ_MOM_END_NONE)
{
    return make_change({db, cmd, end, key, {}, nullptr});
}

// The caller's own answer, where it wants one.
void add_answer(client &from, const target &at, const receiver &to, int32_t end, deliveries &out)
{
    if (to.cb != nullptr)
        out.push_back({&from, message{plain(at.db, at.keys.text(), QZ_MOM_CMD_NONE, end), to}});
}

std::shared_ptr<change> whole_write(const target &at, content &&body)
{
    auto what = make_change({at.db, QZ_MOM_CMD_SET, 0, at.keys.text(), {}, nullptr});
    what->body = std::make_shared<content>(std::move(body));
    return what;
}

}  // namespace

int32_t open_embedded(std::string_view name, const std::shared_ptr<client> &who)
{
    if (name.empty())
        return QZ_MOM_EURL;
    who->kept_in = embedded_store::open(name, who);
    return QZ_MOM_OK;
}

// ---- opening and closing --------------------------------------------------------------------------------------------

embedded_store::embedded_store(std::string name) : name_(std::move(name)), office_(std::make_shared<post_office>()) {}

std::shared_ptr<embedded_store> embedded_store::find(std::string_view name)
{
    auto &all = names();
    const std::scoped_lock lock(all.mutex);
    const auto at = all.stores.find(name);
    return at == all.stores.end() ? nullptr : at->second;
}

std::shared_ptr<embedded_store> embedded_store::open(std::string_view name, const std::shared_ptr<client> &who)
{
    auto &all = names();
    const std::scoped_lock lock(all.mutex);
    auto at = all.stores.find(name);
    std::shared_ptr<embedded_store> store;
    if (at != all.stores.end()) {
        store = at->second;
    } else {
        store = std::make_shared<embedded_store>(std::string(name));
        store->timer_.open(store->weak_from_this());
        at = all.stores.emplace(name, store).first;
    }
    try {
        const std::scoped_lock store_lock(store->office_->mutex);
        store->office_->attach(who);
    } catch (...) {
        if (store->office_->clients().empty())
            all.stores.erase(at);
        throw;
    }
    return store;
}

void embedded_store::close(client &from) noexcept
{
    auto &all = names();
    const std::scoped_lock lock(all.mutex);
    bool last = false;
    {
        const std::scoped_lock store_lock(office_->mutex);
        subscriptions_.remove_all(from);
        let_go(from);
        keep_time_without(from);
        office_->detach(from);
        last = office_->clients().empty();
        if (!marks_.empty())
            arm(marks_.begin()->first.deadline);
    }
    if (last)
        all.stores.erase(name_);
}

int32_t embedded_store::connect(client &from, uint32_t, const connection &answer)
{
    deliveries out;
    out.push_back({&from, answer});
    const std::scoped_lock lock(office_->mutex);
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    office_->send(out);
    return QZ_MOM_OK;
}

// ---- finding records ------------------------------------------------------------------------------------------------

bool embedded_store::ours(const table::value_type &entry, const target &of)
{
    if (!entry.second.foreign || parse_key(of.keys.type(), entry.first) != nullptr)
        return true;
    log_foreign(entry.first.c_str());
    return false;
}

template <typename Visit>
void embedded_store::each_match(const target &of, Visit visit)
{
    table &records = tables_[of.db];
    for (auto at = records.lower_bound(of.keys.prefix()); at != records.end() && !of.keys.past(at->first); ++at) {
        if (of.keys.match(at->first) != key_pattern::verdict::differs && ours(*at, of))
            visit(at);
    }
}

// ---- writes ---------------------------------------------------------------------------------------------------------

int32_t embedded_store::write_whole(client &from, const target &at, content &&body, const receiver &answer)
{
    const auto what = whole_write(at, std::move(body));
    const std::scoped_lock lock(office_->mutex);
    const int32_t code = refusal(from, at.db);
    return code != QZ_MOM_OK ? code : apply(at, what, nullptr, from, answer);
}

// Neither a fence nor a loss keeps it back.
int32_t embedded_store::write_ahead(client &from, const target &at, content &&body)
{
    const auto what = whole_write(at, std::move(body));
    const std::scoped_lock lock(office_->mutex);
    return apply(at, what, nullptr, from, receiver{});
}

int32_t embedded_store::write_fields(client &from, const target &at, const field_write &write, const receiver &answer)
{
    const int32_t cmd = write.numbers.size() == 1 ? QZ_MOM_CMD_HSET : QZ_MOM_CMD_HMSET;
    auto names = std::make_shared<std::string>(names_of(at.keys.type(), write.numbers));
    const auto what = make_change({at.db, cmd, 0, at.keys.text(), std::move(names), nullptr});
    const std::scoped_lock lock(office_->mutex);
    const int32_t code = refusal(from, at.db);
    return code != QZ_MOM_OK ? code : apply(at, what, &write, from, answer);
}

// With the mutex. `what` comes without content when it is a write by field: that depends on what the record holds now.
int32_t embedded_store::apply(const target &at, const std::shared_ptr<change> &what, const field_write *by_field,
                              client &from, const receiver &answer)
{
    const std::span<const uint32_t> written =
        by_field != nullptr ? std::span(by_field->numbers) : std::span<const uint32_t>();
    table &records = tables_[at.db];
    auto found = records.find(what->key);
    const bool absent = found == records.end();
    const form wanted = by_field != nullptr ? form::hash : form::whole;
    if (!absent && found->second.body->kind != wanted)
        return QZ_MOM_EFORM;
    deliveries out;
    if (!absent || by_field == nullptr || by_field->creates) {
        const content *base = absent ? nullptr : found->second.body.get();
        if (by_field != nullptr)
            what->body = std::make_shared<content>(merge(base, by_field->fields));
        subscriptions_.address(what, written, *office_, out);
    }
    add_answer(from, at, answer, QZ_MOM_END_NONE, out);
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    if (what->body != nullptr) {
        if (absent)
            found = records.emplace(std::string(what->key), record{}).first;
        found->second.body = what->body;
        found->second.foreign = false;
    }
    office_->send(out);
    if (what->body != nullptr && (by_field == nullptr || by_field->clears_mark))
        drop_mark(found->second);
    return QZ_MOM_OK;
}

// Why a write of that handle cannot be taken; or 0.
int32_t embedded_store::refusal(const client &from, uint32_t db) const
{
    if (office_->held())
        return QZ_MOM_EDOWN;
    const auto lock = from.locks.find(db);
    return lock == from.locks.end() || !lock->second.told.empty() ? QZ_MOM_OK : QZ_MOM_EFENCED;
}

change_ptr embedded_store::removal(uint32_t db, const table::value_type &entry, int32_t cmd) const
{
    return make_change({db, cmd, 0, entry.first, {}, entry.second.body});
}

void embedded_store::erase(uint32_t db, table::iterator at) noexcept
{
    drop_mark(at->second);
    tables_[db].erase(at);
}

int32_t embedded_store::remove(client &from, const target &at, const receiver &answer)
{
    deliveries out;
    const std::scoped_lock lock(office_->mutex);
    if (const int32_t code = refusal(from, at.db))
        return code;
    const auto found = tables_[at.db].find(at.keys.text());
    const bool present = found != tables_[at.db].end();
    if (present)
        subscriptions_.address(removal(at.db, *found, QZ_MOM_CMD_DEL), {}, *office_, out);
    add_answer(from, at, answer, QZ_MOM_END_NONE, out);
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    office_->send(out);
    if (present)
        erase(at.db, found);
    return QZ_MOM_OK;
}

// ---- reading and following ------------------------------------------------------------------------------------------

// A scan under way. It keeps the key that it has come to, not a place in the table, which changes meanwhile.
class embedded_scan : public scan_step, public std::enable_shared_from_this<embedded_scan>
{
  public:
    embedded_scan(embedded_store &store, const target &of, const receiver &to)
        : store_(store), of_(of), to_(to), from_(of.keys.prefix())
    {
    }

    void next(client &to) override;

  private:
    void add(const embedded_store::table::value_type &entry, client &to, deliveries &out) const;

    embedded_store &store_;
    const target of_;
    const receiver to_;
    std::string from_;  // the first key not visited yet
};

void embedded_scan::add(const embedded_store::table::value_type &entry, client &to, deliveries &out) const
{
    const auto &body = entry.second.body;
    const int32_t cmd = body->kind == form::hash ? QZ_MOM_CMD_HMSET : QZ_MOM_CMD_SET;
    auto what = make_change({of_.db, cmd, 0, entry.first, {}, body});
    out.push_back({&to, message{std::move(what), to_, &of_.keys.type()}});
}

void embedded_scan::next(client &to)
{
    const uint32_t room = to.box.hard > to.box.depth() ? to.box.hard - to.box.depth() : 1;
    const uint32_t most = std::min(piece_records, room);
    const auto &records = store_.tables_[of_.db];
    deliveries out;
    auto at = records.lower_bound(from_);
    for (uint32_t visits = 0; visits < piece_visits && out.size() < most; ++visits, ++at) {
        if (at == records.end() || of_.keys.past(at->first))
            break;
        if (of_.keys.match(at->first) != key_pattern::verdict::differs && embedded_store::ours(*at, of_))
            add(*at, to, out);
    }
    if (at == records.end() || of_.keys.past(at->first)) {
        add_answer(to, of_, to_, QZ_MOM_END_SCAN, out);
    } else {
        std::string reached = at->first;
        out.push_back({&to, shared_from_this()});
        from_.swap(reached);
    }
    store_.office_->send(out);
}

int32_t embedded_store::scan(client &from, const target &of, const receiver &to)
{
    deliveries out;
    out.push_back({&from, std::make_shared<embedded_scan>(*this, of, to)});
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    office_->send(out);
    return QZ_MOM_OK;
}

int32_t embedded_store::subscribe(client &from, uint32_t db, std::vector<subscription> &&added)
{
    const auto &first = added.front();
    deliveries out;
    out.push_back(
        {&from, message{plain(db, first.pattern.text(), QZ_MOM_CMD_SUBSCRIBED), first.to, nullptr, first.field}});
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    subscriptions_.add(db, std::move(added));
    office_->send(out);
    return QZ_MOM_OK;
}

int32_t embedded_store::unsubscribe(client &from, const target &of, const receiver &to)
{
    deliveries out;
    out.push_back({&from, message{plain(of.db, of.keys.text(), QZ_MOM_CMD_UNSUBSCRIBED), to}});
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    subscriptions_.remove(of.db, from, of.keys, to);
    office_->send(out);
    return QZ_MOM_OK;
}

// ---- expiry marks ---------------------------------------------------------------------------------------------------

int64_t embedded_store::now() const noexcept
{
    const auto &open = office_->clients();
    return open.empty() ? clock_offset_ : qz_thread_now(open.front()->master) + clock_offset_;
}

void embedded_store::drop_mark(record &of) noexcept
{
    if (of.mark.number == 0)
        return;
    const auto node = marks_.extract(of.mark);
    of.mark = {};
    const auto &call = node.mapped().call;
    if (call == nullptr || --call->left != 0)
        return;
    if (const auto owner = call->owner.lock(); owner != nullptr)
        office_->send(call->end);
}

int32_t embedded_store::mark(client &from, const target &of, int64_t delay_usec, const receiver &end)
{
    const auto call = std::make_shared<expiry_call>();
    call->owner = from.weak_from_this();
    add_answer(from, of, end, QZ_MOM_END_EXPIRY, call->end);
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    if (!office_->room_for(call->end))
        return QZ_MOM_EFULL;
    marks fresh;
    std::vector<record *> marked;
    const int64_t deadline = now() + delay_usec;
    each_match(of, [&](table::iterator at) {
        fresh.emplace_hint(fresh.end(), mark_id{deadline, ++last_mark_}, expiry_mark{of.db, &at->first, call});
        marked.push_back(&at->second);
    });
    call->left = marked.size();
    auto id = fresh.begin();
    for (record *each : marked) {
        drop_mark(*each);
        each->mark = (id++)->first;
    }
    marks_.merge(fresh);
    if (marked.empty())
        office_->send(call->end);
    fire_due();
    return QZ_MOM_OK;
}

int32_t embedded_store::clear_mark(client &from, const target &at, const receiver &answer)
{
    deliveries out;
    add_answer(from, at, answer, QZ_MOM_END_NONE, out);
    const std::scoped_lock lock(office_->mutex);
    if (const int32_t code = refusal(from, at.db))
        return code;
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    const auto found = tables_[at.db].find(at.keys.text());
    if (found != tables_[at.db].end())
        drop_mark(found->second);
    office_->send(out);
    return QZ_MOM_OK;
}

int32_t embedded_store::remove_marked(client &from, const target &of, const receiver &end)
{
    deliveries out;
    deliveries answer;
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    std::vector<table::iterator> marked;
    each_match(of, [&](table::iterator at) {
        if (at->second.mark.number == 0)
            return;
        marked.push_back(at);
        subscriptions_.address(removal(of.db, *at, QZ_MOM_CMD_DEL), {}, *office_, out);
    });
    add_answer(from, of, end, QZ_MOM_END_EXPIRY, out);
    if (!office_->room_for(out))
        return QZ_MOM_EFULL;
    if (end.cb != nullptr)
        answer.splice(answer.end(), out, std::prev(out.end()));
    office_->send(out);
    for (const auto &at : marked)
        erase(of.db, at);
    office_->send(answer);
    return QZ_MOM_OK;
}

// Removes the record whose mark is the first to fire; false when one who would hear of it has no room.
bool embedded_store::expire_first()
{
    const auto &first = marks_.begin()->second;
    const uint32_t db = first.db;
    const auto at = tables_[db].find(*first.key);
    deliveries out;
    subscriptions_.address(removal(db, *at, QZ_MOM_CMD_EXPIRED), {}, *office_, out);
    if (!office_->room_for(out))
        return false;
    office_->send(out);
    erase(db, at);
    return true;
}

void embedded_store::fire_due() noexcept
{
    const int64_t time = now();
    bool stuck = false;
    try {
        while (!stuck && !marks_.empty() && marks_.begin()->first.deadline <= time)
            stuck = !expire_first();
    } catch (const std::bad_alloc &) {
        stuck = true;
    }
    if (!marks_.empty())
        arm(stuck ? time + full_retry_usec : marks_.begin()->first.deadline);
}

// Makes sure that a timer fires at that time or before; the one that is early arms the next. So a mark that is cleared
// and set again, as most are, costs no timer.
void embedded_store::arm(int64_t at) noexcept
{
    if (office_->clients().empty() || (!armed_.empty() && *armed_.begin() <= at))
        return;
    const int64_t delay = std::max<int64_t>(0, at - now());
    if (timer_.post_after(office_->clients().front()->master, delay) != 0)
        return log_failure("the thread master takes no timer for expiry marks");
    try {
        armed_.insert(at);
    } catch (const std::bad_alloc &) {
        // The timer will come all the same; it only is not known to be on its way.
    }
}

void embedded_store::run()
{
    const std::scoped_lock lock(office_->mutex);
    if (!armed_.empty())
        armed_.erase(armed_.begin());  // timers fire in the order of their times
    fire_due();
}

// run() never runs out of memory: it arms itself anew instead.
void embedded_store::retry() noexcept {}

// Marks fire by the clock of the oldest handle. When that leaves, the next one's goes on from the same time. Timers that
// the old master still has may come; they find nothing due.
void embedded_store::keep_time_without(const client &leaving) noexcept
{
    const auto &open = office_->clients();
    if (open.front().get() != &leaving)
        return;
    armed_.clear();
    if (open.size() > 1)
        clock_offset_ = now() - qz_thread_now(open[1]->master);
}

// ---- locks ----------------------------------------------------------------------------------------------------------

int32_t embedded_store::lock(client &from, uint32_t db, const std::string &name, const lock_news &news)
{
    lock_queue last;
    last.push_back({&from, {}});
    last.back().news.push_back({&from, lock_news{news.cb, news.args, db, "held"}});
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return QZ_MOM_EDOWN;
    auto &queue = locks_[{db, name}];
    if (!from.locks.try_emplace(db, wanted_lock{name, {}, {}, {}, false, news}).second)
        return QZ_MOM_EINVAL;
    queue.splice(queue.end(), last);
    if (queue.size() == 1)
        give(queue);
    return QZ_MOM_OK;
}

// The first in the queue holds the lock now.
void embedded_store::give(lock_queue &queue) noexcept { office_->send(queue.front().news); }

void embedded_store::let_go(const client &leaving) noexcept
{
    for (const auto &[db, wanted] : leaving.locks) {
        const auto at = locks_.find({db, wanted.name});
        const bool held = at->second.front().who == &leaving;
        at->second.remove_if([&](const lock_seat &seat) { return seat.who == &leaving; });
        if (at->second.empty())
            locks_.erase(at);
        else if (held)
            give(at->second);
    }
}

// ---- controls -------------------------------------------------------------------------------------------------------

void embedded_store::seed(uint64_t seed)
{
    const std::scoped_lock lock(office_->mutex);
    office_->seed(seed);
}

deliveries embedded_store::reconnections(int32_t type) const
{
    deliveries out;
    for (const auto &who : office_->clients()) {
        for (const auto &[db, event] : who->reconnect)
            out.push_back({who.get(), reconnection{event.cb, event.args, db, type}});
    }
    return out;
}

void embedded_store::lose()
{
    const std::scoped_lock lock(office_->mutex);
    if (office_->held())
        return;
    auto out = reconnections(QZ_MOM_RECONNECT_ERROR);
    office_->send_urgent(out);
    office_->hold(true);
}

void embedded_store::restore()
{
    const std::scoped_lock lock(office_->mutex);
    if (!office_->held())
        return;
    auto out = reconnections(QZ_MOM_RECONNECT_DONE);
    office_->send_urgent(out);
    office_->hold(false);
}

void embedded_store::put_raw(uint32_t db, std::string_view key, content &&body)
{
    const auto made = std::make_shared<content>(std::move(body));
    const std::scoped_lock lock(office_->mutex);
    record &at = tables_[db][std::string(key)];
    at.body = made;
    at.foreign = true;
}

int32_t embedded_store::count(uint32_t db)
{
    const std::scoped_lock lock(office_->mutex);
    return static_cast<int32_t>(tables_[db].size());
}

}  // namespace mom
