// Queues of handles and the pumps that empty them.
#include "delivery.hpp"

#include <algorithm>
#include <optional>

#include "client.hpp"
#include "mom_log.hpp"
#include "posted_calls.hpp"
#include "store.hpp"

namespace mom
{
namespace
{

// So many calls are made before other calls and timers of the master get their turn.
constexpr int batch = 64;
constexpr int64_t retry_usec = 10000;

// splitmix64: small, and the same on every machine, so that a seed found on one can be replayed on another.
uint64_t draw(uint64_t &state)
{
    state += 0x9E3779B97F4A7C15u;
    uint64_t mixed = state;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
}

void call(client &to, const message &told)
{
    const change &what = *told.what;
    qz_mom_hash_value holder{};
    qz_mom_notification note{};
    note.db = what.db;
    note.key = what.key.data();
    note.field = told.field != nullptr ? told.field->name : what.fields != nullptr ? what.fields->c_str() : "";
    note.cmd = what.cmd;
    note.end = what.end;
    note.error = what.error;
    message_room room;
    if (what.body != nullptr) {
        holder.record = decode(room, *told.type, what.key, *what.body);
        if (holder.record == nullptr)
            return log_foreign(note.key);
        const bool hash_written = what.cmd == QZ_MOM_CMD_HSET || what.cmd == QZ_MOM_CMD_HMSET;
        note.value = hash_written ? static_cast<void *>(&holder) : holder.record;
    }
    told.to.cb(&to, &note, told.to.args);
}

void call(client &to, const connection &made) { made.cb(&to, made.args); }

void call(client &to, const reconnection &event) { event.cb(&to, event.db, event.type, event.args); }

void call(client &to, const lock_news &news)
{
    {
        const std::scoped_lock lock(to.kept_in->office().mutex);
        to.locks.at(news.db).becomes(news.token);
    }
    news.cb(&to, news.db, news.token.empty() ? 0 : 1, news.args);
}

// Scans are continued by the pump itself.
void call(client &, const std::shared_ptr<scan_step> &) {}

}  // namespace

void mailbox::update_marks()
{
    if (!above && depth() >= high)
        above = true;
    else if (above && depth() <= low)
        above = false;
}

// Makes the calls of one master, a batch at a time.
class pump : public post_target, public std::enable_shared_from_this<pump>
{
  public:
    pump(qz_thread_master *master, std::weak_ptr<post_office> office, uint64_t seed)
        : state(seed), master_(master), office_(std::move(office))
    {
    }

    void open() { address_.open(weak_from_this()); }
    const qz_thread_master *master() const { return master_; }
    void run() override;
    void retry() noexcept override;
    // With the mutex. Does nothing when it is on its way already.
    void wake() noexcept;

    uint64_t state;  // of the seeded draw; with the mutex

  private:
    struct next_call {
        std::shared_ptr<client> to;
        deliveries what;  // one, or none when the queue's own mark is to be told
        qz_mom_queue_cb queue_cb = nullptr;
        void *queue_args = nullptr;
        bool above = false;
        uint32_t depth = 0;
    };

    std::optional<next_call> next(post_office &office, deliveries &used);
    std::optional<next_call> next_mark(const post_office &office) const;
    static std::optional<next_call> next_mark_of_writes(const std::shared_ptr<client> &who);
    static std::shared_ptr<client> keep(const post_office &office, const client *who);
    static void make(next_call &call_now);

    qz_thread_master *master_;
    std::weak_ptr<post_office> office_;
    post_address address_;
    bool posted_ = false;
};

void pump::wake() noexcept
{
    if (posted_)
        return;
    posted_ = address_.post(master_) == 0;
    if (!posted_)
        log_failure("the thread master takes no call; the next write tries again");
}

void pump::retry() noexcept
{
    const auto office = office_.lock();
    if (office == nullptr)
        return;
    const std::scoped_lock lock(office->mutex);
    posted_ = address_.post_after(master_, retry_usec) == 0;
    if (!posted_)
        log_failure("the thread master takes no call; the next write tries again");
}

void pump::run()
{
    const auto office = office_.lock();
    if (office == nullptr)
        return;
    deliveries used;
    for (int made = 0; made < batch; ++made) {
        auto call_now = next(*office, used);
        if (!call_now)
            return;
        try {
            make(*call_now);
        } catch (const std::bad_alloc &) {
            const std::scoped_lock lock(office->mutex);
            mailbox &box = call_now->to->box;
            box.queue.splice(box.queue.begin(), call_now->what);
            throw;
        }
        used.splice(used.end(), call_now->what);
        for (auto &each : used)
            each.what = connection{};  // what it held is released here, without the mutex
    }
    const std::scoped_lock lock(office->mutex);
    office->calls_made();
    posted_ = false;
    wake();
}

void pump::make(next_call &call_now)
{
    client &to = *call_now.to;
    if (call_now.queue_cb != nullptr)
        call_now.queue_cb(&to, call_now.above ? 1 : 0, call_now.depth, call_now.queue_args);
    for (const auto &item : call_now.what)
        std::visit([&to](const auto &what) { call(to, what); }, item.what);
}

std::shared_ptr<client> pump::keep(const post_office &office, const client *who)
{
    for (const auto &open : office.clients_) {
        if (open.get() == who)
            return open;
    }
    return nullptr;
}

std::optional<pump::next_call> pump::next_mark_of_writes(const std::shared_ptr<client> &who)
{
    for (const auto &each : who->backlogs) {
        for (backlog::watch &watch : each->watches) {
            if (watch.above == watch.told_above)
                continue;
            watch.told_above = watch.above;
            return next_call{who, {}, watch.cb, watch.args, watch.above, each->depth};
        }
    }
    who->marks_crossed = false;
    return std::nullopt;
}

std::optional<pump::next_call> pump::next_mark(const post_office &office) const
{
    for (const auto &who : office.clients_) {
        mailbox &box = who->box;
        if (who->master != master_)
            continue;
        if (box.above != box.told_above) {
            box.told_above = box.above;
            if (box.queue_cb != nullptr)
                return next_call{who, {}, box.queue_cb, box.queue_args, box.above, box.depth()};
        }
        if (who->marks_crossed) {
            if (auto mark = next_mark_of_writes(who))
                return mark;
        }
    }
    return std::nullopt;
}

// Takes what is to be called next out of its queue; nothing when all is told.
// `used` is what was called before.
std::optional<pump::next_call> pump::next(post_office &office, deliveries &used)
{
    const std::scoped_lock lock(office.mutex);
    office.recycle(used);
    while (true) {
        if (auto mark = next_mark(office))
            return mark;
        client *who = office.pick(*this);
        if (who == nullptr) {
            office.calls_made();
            who = office.pick(*this);
        }
        if (who == nullptr) {
            posted_ = false;
            return std::nullopt;
        }
        deliveries &queue = *office.turn(*who);
        if (const auto *scan = std::get_if<std::shared_ptr<scan_step>>(&queue.front().what))
            (*scan)->next(*who);
        deliveries first;
        first.splice(first.begin(), queue, queue.begin());
        who->box.update_marks();
        if (!std::holds_alternative<std::shared_ptr<scan_step>>(first.front().what))
            return next_call{keep(office, who), std::move(first)};
    }
}

void post_office::calls_made() noexcept
{
    if (between_calls_ != nullptr)
        between_calls_->all_made();
}

void post_office::add(deliveries &out, delivery &&what)
{
    if (spare_.empty()) {
        out.push_back(std::move(what));
        return;
    }
    spare_.front() = std::move(what);
    out.splice(out.end(), spare_, spare_.begin());
}

bool post_office::nothing_waits(const deliveries &out) const noexcept
{
    return std::ranges::all_of(out, [](const delivery &each) { return each.to->box.depth() == 0; });
}

void post_office::recycle(deliveries &used) noexcept
{
    constexpr size_t enough = 1024;
    if (spare_.size() < enough)
        spare_.splice(spare_.begin(), used);  // taken first: the processor still has it at hand
    else
        used.clear();
}

post_office::post_office() = default;
post_office::~post_office() = default;

pump *post_office::pump_of(const qz_thread_master *master) const noexcept
{
    for (const auto &each : pumps_) {
        if (each->master() == master)
            return each.get();
    }
    return nullptr;
}

void post_office::attach(std::shared_ptr<client> who)
{
    if (pump_of(who->master) == nullptr) {
        auto made = std::make_shared<pump>(who->master, weak_from_this(), seed_);
        made->open();
        pumps_.push_back(std::move(made));
    }
    clients_.push_back(std::move(who));
}

void post_office::detach(const client &who) noexcept
{
    const qz_thread_master *master = who.master;
    for (const auto &each : who.backlogs)
        each->watches.clear();
    std::erase_if(clients_, [&](const auto &each) { return each.get() == &who; });
    const bool served =
        std::any_of(clients_.begin(), clients_.end(), [&](const auto &each) { return each->master == master; });
    if (!served)
        std::erase_if(pumps_, [&](const auto &each) { return each->master() == master; });
}

std::shared_ptr<client> post_office::attached(const std::weak_ptr<client> &who) const noexcept
{
    auto found = who.lock();
    return std::find(clients_.begin(), clients_.end(), found) != clients_.end() ? found : nullptr;
}

bool post_office::room_for(const deliveries &out) const noexcept
{
    bool room = true;
    for (const auto &item : out)
        ++item.to->box.counted;
    for (const auto &item : out) {
        mailbox &box = item.to->box;
        room = room && (box.counted == 0 || (box.depth() < box.hard && box.counted <= box.hard - box.depth()));
        box.counted = 0;
    }
    return room;
}

void post_office::send(deliveries &out) noexcept
{
    while (!out.empty()) {
        client &to = *out.front().to;
        out.front().arrival = ++arrivals_;
        to.box.queue.splice(to.box.queue.end(), out, out.begin());
        to.box.update_marks();
        wake(to);
    }
}

void post_office::send_urgent(deliveries &out) noexcept
{
    while (!out.empty()) {
        client &to = *out.front().to;
        out.front().arrival = ++arrivals_;
        to.box.urgent.splice(to.box.urgent.end(), out, out.begin());
        wake(to);
    }
}

void post_office::wake(const client &who) noexcept
{
    if (pump *serving = pump_of(who.master))
        serving->wake();
}

void post_office::wake_waiting() noexcept
{
    for (const auto &who : clients_) {
        if (turn(*who) != nullptr || who->box.above != who->box.told_above || who->marks_crossed)
            wake(*who);
    }
}

void post_office::look_at(client &who) noexcept
{
    who.box.update_marks();
    wake(who);
}

void post_office::hold(bool held) noexcept
{
    held_ = held;
    for (const auto &each : pumps_)
        each->wake();
}

void post_office::seed(uint64_t seed) noexcept
{
    seed_ = seed;
    for (const auto &each : pumps_)
        each->state = seed;
}

// The queue from which the handle is served next; null when nothing may be delivered to it now.
deliveries *post_office::turn(client &who) const noexcept
{
    if (!who.box.urgent.empty())
        return &who.box.urgent;
    return held_ || who.box.queue.empty() ? nullptr : &who.box.queue;
}

client *post_office::pick(pump &by) const noexcept
{
    client *first = nullptr;
    size_t waiting = 0;
    for (const auto &who : clients_) {
        if (who->master != by.master() || turn(*who) == nullptr)
            continue;
        ++waiting;
        if (first == nullptr || turn(*who)->front().arrival < turn(*first)->front().arrival)
            first = who.get();
    }
    if (seed_ == 0 || waiting < 2)
        return first;
    uint64_t chosen = draw(by.state) % waiting;
    for (const auto &who : clients_) {
        if (who->master == by.master() && turn(*who) != nullptr && chosen-- == 0)
            return who.get();
    }
    return first;
}

}  // namespace mom
