// One database of a Redis server. See redis_line.hpp.
#include "redis_line.hpp"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "key_text.hpp"
#include "mom_log.hpp"
#include "redis_script.hpp"

namespace mom
{
namespace
{

using namespace std::chrono_literals;

constexpr size_t ENOUGH_FOR_A_CALL = 64;  // while other calls are under way, fewer writes wait for company
constexpr size_t MAX_UNDER_WAY = 4;       // calls
constexpr uint32_t MAX_TEXTS = 4000;      // of one call: the server's side unpacks it onto a stack that ends at 8,000
constexpr uint32_t SCAN_PIECE = 64;
constexpr uint32_t SCAN_VISITS = 1024;
constexpr auto CONNECT_PATIENCE = 2s;
constexpr auto ANSWER_PATIENCE = 3s;
constexpr auto FIRE_INTERVAL = 200ms;

// What the letter that the server answers to a write means.
int32_t code_of(char letter)
{
    switch (letter) {
        case 'f':
            return QZ_MOM_EFORM;
        case 'm':
            return QZ_MOM_ENOMEM;
        case 'l':
            return QZ_MOM_EFENCED;
        default:
            return QZ_MOM_OK;
    }
}

std::string_view verb_of(redis_operation::kind kind)
{
    switch (kind) {
        case redis_operation::kind::write:
            return "write";
        case redis_operation::kind::mark:
            return "mark";
        case redis_operation::kind::sweep:
            return "sweep";
        case redis_operation::kind::fire:
            return "fire";
        case redis_operation::kind::read:
            return "read";
        case redis_operation::kind::lost_mark:
            return "left";
        case redis_operation::kind::fetch:
            break;
    }
    return {};
}

bool changes_something(const redis_operation &operation)
{
    const bool may = operation.what == redis_operation::kind::write || operation.what == redis_operation::kind::mark ||
                     operation.what == redis_operation::kind::sweep;
    return may && !(operation.row.empty() && operation.words.empty());
}

// Refusals of a server that will serve again, itself or by another in its place.
bool passes(std::string_view error)
{
    for (const std::string_view kind :
         {"READONLY", "LOADING", "MASTERDOWN", "BUSY", "NOREPLICAS", "ERR Function not found"})
        if (error.starts_with(kind))
            return true;
    return false;
}

// The server keeps this user from a command or a channel, or everybody.
bool is_denied(const redisReply &reply)
{
    return reply.type == REDIS_REPLY_ERROR &&
           (text_of(reply).starts_with("NOPERM") || text_of(reply).starts_with("ERR unknown command"));
}

std::vector<uint32_t> numbers_of(std::string_view joined)
{
    std::vector<uint32_t> numbers;
    while (!joined.empty()) {
        const size_t comma = std::min(joined.find(','), joined.size());
        numbers.push_back(static_cast<uint32_t>(number_of(joined.substr(0, comma))));
        joined.remove_prefix(std::min(comma + 1, joined.size()));
    }
    return numbers;
}

// How many values a write has sent that names these fields; one where it names none.
size_t values_of(std::string_view written)
{
    written.remove_prefix(written.find('|') + 1);
    return static_cast<size_t>(std::ranges::count(written, ',')) + 1;
}

std::vector<uint32_t> data_numbers(const ProtobufCMessageDescriptor &type)
{
    std::vector<uint32_t> numbers;
    for (unsigned i = 0; i < type.n_fields; ++i) {
        if (&type.fields[i] != key_field(type))
            numbers.push_back(type.fields[i].id);
    }
    return numbers;
}

bool is_write(const redis_operation &each) { return each.what == redis_operation::kind::write; }

// Takes a mark off, does nothing else, and nobody asks what became of it.
bool only_clears(const redis_operation &each) { return is_write(each) && each.row.begins_with('c') && !each.finish; }

// Who asks again for a record that may be marked clears the mark and writes: one write says both.
bool takes_in(redis_operation &write, const redis_operation &before)
{
    if (!only_clears(before) || !is_write(write) || !write.row.begins_with('h') ||
        !before.row.continues_in(write.row) || before.fence != write.fence)
        return false;
    write.row.begin_with('H');
    return true;
}

// So many texts it adds to a call, its fence's among them; at most.
uint32_t most_texts(const redis_operation &each) { return each.row.count() + 3; }

// The rows of all these writes. A fence holds until the next one.
void pack_writes(const std::list<redis_operation> &parts, packed_texts &rows)
{
    const packed_texts free_to_all{"f", "", ""};
    const packed_texts *fence = &free_to_all;
    for (const auto &part : parts) {
        const packed_texts &own = part.fence != nullptr ? *part.fence : free_to_all;
        if (&own != fence && own.bytes() != fence->bytes() && !part.row.empty())
            rows.append(*(fence = &own));
        rows.append(part.row);
        if (part.row.begins_with('l'))
            fence = &part.row;  // a fence with this lock says something else now
    }
}

// What could not be done, for want of room or of memory, is still the next that is read.
template <typename Act>
bool whole_or_not(row_reader &rows, Act act)
{
    const auto before = rows.here();
    try {
        if (act())
            return true;
    } catch (const std::bad_alloc &) {
        rows.go_to(before);
        throw;
    }
    rows.go_to(before);
    return false;
}

// The newest change of a block, taken back when it was not told after all.
class newest_told
{
  public:
    newest_told(change_block &block, change &&what) : made(block.add(std::move(what))), block_(&block) {}
    ~newest_told()
    {
        made.reset();
        if (block_ != nullptr)
            block_->take_back();
    }
    newest_told(const newest_told &) = delete;
    newest_told &operator=(const newest_told &) = delete;
    void keep() { block_ = nullptr; }

    change_ptr made;

  private:
    change_block *block_;
};

// Acts on the first of them and takes it off. Without memory it stays.
template <typename Item, typename Act>
void take_first(std::list<Item> &from, Act act)
{
    std::list<Item> taken;
    taken.splice(taken.begin(), from, from.begin());
    try {
        act(taken.front());
    } catch (const std::bad_alloc &) {
        from.splice(from.begin(), taken);
        throw;
    }
}

}  // namespace

// A scan reads the replica piece by piece, each in its turn in the queue. It keeps the slot that it has come to.
class replica_scan : public scan_step, public std::enable_shared_from_this<replica_scan>
{
  public:
    replica_scan(redis_line &line, std::string name, const target &of, const receiver &to)
        : line_(line), name_(std::move(name)), of_(of), to_(to)
    {
    }

    void next(client &to) override;

  private:
    bool collect(replica &records, uint32_t room, size_t &at, std::vector<const replica::record *> &found) const;
    void tell(const std::vector<const replica::record *> &found, client &to, deliveries &out) const;

    redis_line &line_;
    const std::string name_;
    const target of_;
    const receiver to_;
    size_t next_ = 0;  // slot
};

// The next piece, of so many at the most. True: there is no more behind it.
bool replica_scan::collect(replica &records, uint32_t room, size_t &at,
                           std::vector<const replica::record *> &found) const
{
    if (of_.keys.exact()) {
        if (const auto *record = records.find(of_.keys.text()))
            found.push_back(record);
        return true;
    }
    found.reserve(room);
    for (uint32_t seen = 0; seen < SCAN_VISITS && found.size() < room && at < records.slots(); ++seen, ++at) {
        const auto *record = records.slot(at);
        if (record != nullptr && of_.keys.match(record->key) != key_pattern::verdict::differs)
            found.push_back(record);
    }
    return at >= records.slots();
}

void replica_scan::tell(const std::vector<const replica::record *> &found, client &to, deliveries &out) const
{
    size_t size = 0;
    for (const auto *record : found)
        size += record->key.size() + 1;
    const auto told = std::make_shared<change_block>(size);
    for (const auto *record : found) {
        const int32_t cmd = record->body->kind == form::hash ? QZ_MOM_CMD_HMSET : QZ_MOM_CMD_SET;
        auto what = told->add({of_.db, cmd, 0, record->key, {}, record->body});
        line_.office_.add(out, {&to, message{std::move(what), to_, &of_.keys.type()}});
    }
}

void replica_scan::next(client &to)
{
    deliveries out;
    bool over = true;
    size_t at = next_;
    if (const auto in = line_.followed_.find(name_); in != line_.followed_.end()) {
        const uint32_t room = to.box.hard > to.box.depth() ? to.box.hard - to.box.depth() : 1;
        std::vector<const replica::record *> found;
        over = collect(in->second.records, std::min(SCAN_PIECE, room), at, found);
        tell(found, to, out);
    }
    if (over) {
        auto end = make_change({of_.db, 0, QZ_MOM_END_SCAN, of_.keys.text(), {}, nullptr});
        out.push_back({&to, message{std::move(end), to_}});
    } else {
        out.push_back({&to, shared_from_this()});
    }
    next_ = at;
    line_.office_.send(out);
    if (over)
        line_.scan_ended(*this, name_);
}

redis_line::redis_line(uint32_t db, std::string client_name, link_set &links, post_office &office,
                       subscription_table &subscriptions)
    : db_(db),
      client_name_(std::move(client_name)),
      office_(office),
      subscriptions_(subscriptions),
      link_(links),
      feed_(db),
      random_(static_cast<uint32_t>(std::hash<std::string>()(client_name_) | 1))
{
}

// ---- calls ----------------------------------------------------------------------------------------------------------

int32_t redis_line::put_ahead(redis_operation &&operation)
{
    const auto at = std::ranges::find_if(queue_, [](const redis_operation &each) { return !each.ahead; });
    if (std::distance(queue_.begin(), at) >= static_cast<ptrdiff_t>(MAX_AHEAD))
        return QZ_MOM_EFULL;
    queue_.insert(at, std::move(operation));
    return QZ_MOM_OK;
}

int32_t redis_line::put(redis_operation &&operation)
{
    if (operation.ahead)
        return put_ahead(std::move(operation));
    if (state_ != state::up && was_up_)
        return QZ_MOM_EDOWN;
    if (!queue_.empty() && takes_in(operation, queue_.back())) {
        queue_.back() = std::move(operation);
        return QZ_MOM_OK;
    }
    if (queue_.size() >= MAX_QUEUED)
        return QZ_MOM_EFULL;
    if (spare_.empty()) {
        queue_.push_back(std::move(operation));
    } else {
        spare_.front() = std::move(operation);
        queue_.splice(queue_.end(), spare_, spare_.begin());
    }
    return QZ_MOM_OK;
}

// What was answered leaves its memory to what comes next, up to a few calls' worth.
void redis_line::recycle(std::list<redis_operation> &parts) noexcept
{
    if (spare_.size() >= MAX_UNDER_WAY * MAX_WRITES)
        return;
    for (redis_operation &each : parts)
        each.clear();
    spare_.splice(spare_.begin(), parts);
}

template <typename News>
void redis_line::post(client &to, News what)
{
    deliveries out;
    out.push_back({&to, std::move(what)});
    office_.send(out);
}

int32_t redis_line::connect(client &from, const connection &answer)
{
    redis_operation asked;
    asked.at_once = true;
    asked.finish = [this, who = from.weak_from_this(), answer](const redis_outcome &) {
        if (const auto to = office_.attached(who))
            post(*to, answer);
    };
    return put(std::move(asked));
}

void redis_line::want_lock(client &from, wanted_lock &&wanted)
{
    lockers_.reserve(lockers_.size() + 1);
    from.locks.emplace(db_, std::move(wanted));
    lockers_.push_back(from.weak_from_this());
    fire_at_ = {};
}

// What needs the table to be known. Where nobody has asked for it yet its first page comes in the same call: the server
// tells whole records from there on until the last page, and parts of them before.
int32_t redis_line::put_for_table(const ProtobufCMessageDescriptor &type, redis_operation &&asked)
{
    const std::string name = type.name;
    followed &in = followed_[name];
    in.type = &type;
    ++in.awaited;
    int32_t code = QZ_MOM_ENOMEM;
    try {
        const bool begins = !in.loaded && in.loading == 0;
        redis_operation put_now = begins ? first_step(name, last_load_ + 1) : redis_operation();
        put_now.finish = [this, name, page = std::move(put_now.finish),
                          answer = std::move(asked.finish)](const redis_outcome &outcome) {
            if (page)
                page(outcome);
            answer(outcome);
            answered_for_table(name);
        };
        code = put(std::move(put_now));
        if (code == QZ_MOM_OK && begins)
            in.loading = in.good_from = ++last_load_;
    } catch (const std::bad_alloc &) {
        code = QZ_MOM_ENOMEM;
    }
    if (code != QZ_MOM_OK) {
        --in.awaited;
        drop_unused(name);
    }
    return code;
}

void redis_line::answered_for_table(const std::string &name)
{
    const auto in = followed_.find(name);
    in->second.begun = true;
    --in->second.awaited;
    drop_unused(name);
}

int32_t redis_line::follow(std::vector<subscription> &&added)
{
    redis_operation asked;
    const auto &type = added.front().pattern.type();
    const auto shared = std::make_shared<std::vector<subscription>>(std::move(added));
    asked.finish = [this, who = shared->front().owner->weak_from_this(), shared](const redis_outcome &) {
        if (office_.attached(who))
            activate(*shared);
    };
    return put_for_table(type, std::move(asked));
}

void redis_line::activate(std::vector<subscription> added)
{
    const subscription &first = added.front();
    auto what = make_change({db_, QZ_MOM_CMD_SUBSCRIBED, 0, first.pattern.text(), {}, nullptr});
    deliveries out;
    out.push_back({first.owner, message{std::move(what), first.to, nullptr, first.field}});
    subscriptions_.add(db_, std::move(added));
    office_.send(out);
}

int32_t redis_line::unfollow(client &from, const target &of, const receiver &to)
{
    redis_operation asked;
    asked.finish = [this, who = from.weak_from_this(), of, to](const redis_outcome &) {
        const auto owner = office_.attached(who);
        if (!owner)
            return;
        auto what = make_change({db_, QZ_MOM_CMD_UNSUBSCRIBED, 0, of.keys.text(), {}, nullptr});
        post(*owner, message{std::move(what), to});
        subscriptions_.remove(db_, *owner, of.keys, to);
        drop_unused(of.keys.type().name);
    };
    return put(std::move(asked));
}

int32_t redis_line::scan(client &from, const target &of, const receiver &to)
{
    redis_operation asked;
    asked.finish = [this, wanted = waiting_scan{from.weak_from_this(), of, to}](const redis_outcome &) {
        followed &in = followed_.find(wanted.of.keys.type().name)->second;
        if (in.loaded && in.loading == 0)
            start_scan(in, wanted);
        else
            in.scans.push_back(wanted);
    };
    return put_for_table(of.keys.type(), std::move(asked));
}

void redis_line::start_scan(followed &in, const waiting_scan &scan)
{
    const auto from = office_.attached(scan.from);
    if (!from)
        return;
    const auto step = std::make_shared<replica_scan>(*this, in.type->name, scan.of, scan.to);
    std::erase_if(in.running, [](const auto &each) { return each.expired(); });
    in.running.push_back(step);
    post(*from, step);
}

void redis_line::scan_ended(const replica_scan &scan, const std::string &name)
{
    if (const auto in = followed_.find(name); in != followed_.end())
        std::erase_if(in->second.running, [&](const auto &each) { return each.lock().get() == &scan; });
    drop_unused(name);
}

// A table that nobody follows and no scan reads is not kept.
bool redis_line::is_used(const std::string &name, followed &in)
{
    std::erase_if(in.running, [](const auto &each) { return each.expired(); });
    std::erase_if(in.scans, [this](const auto &each) { return office_.attached(each.from) == nullptr; });
    return in.awaited != 0 || !in.scans.empty() || !in.running.empty() || subscriptions_.any(db_, name);
}

void redis_line::drop_unused(const std::string &name)
{
    if (const auto at = followed_.find(name); at != followed_.end() && !is_used(name, at->second))
        followed_.erase(at);
}

void redis_line::drop_unused() noexcept
{
    for (auto at = followed_.begin(); at != followed_.end();)
        at = is_used(at->first, at->second) ? std::next(at) : followed_.erase(at);
}

bool redis_line::settled() const
{
    const auto changes = [](const call &each) { return each.number != 0; };
    return state_ == state::down || (queue_.empty() && std::ranges::none_of(under_way_, changes));
}

// ---- the connections ------------------------------------------------------------------------------------------------

steady::duration redis_line::pause()
{
    const auto longest = 20ms * (1 << std::min(failures_, 6u));
    ++failures_;
    return longest / 2 + longest * (random_() % 1000) / 2000;
}

void redis_line::report(int32_t type)
{
    deliveries out;
    for (const auto &who : office_.clients()) {
        if (const auto event = who->reconnect.find(db_); event != who->reconnect.end())
            out.push_back({who.get(), reconnection{event->second.cb, event->second.args, db_, type}});
    }
    office_.send_urgent(out);
}

// Without memory for it the next tick reports it.
void redis_line::report_loss() noexcept
{
    try {
        if (loss_untold_)
            report(QZ_MOM_RECONNECT_ERROR);
        loss_untold_ = false;
    } catch (const std::bad_alloc &) {
        log_failure("no memory to tell of a lost connection; trying again later");
    }
}

void redis_line::lose(const char *why) noexcept
{
    link_.close();
    feed_.close();
    if (state_ == state::up) {
        char text[160];
        std::snprintf(text, sizeof text, "the connection to database %u is lost: %s", db_, why);
        log_failure(text);
        loss_untold_ = true;
        report_loss();
    }
    state_ = state::down;
    firing_ = false;
    std::erase_if(under_way_, [](const call &each) {
        const auto what = each.parts.front().what;
        return what == redis_operation::kind::fire || what == redis_operation::kind::fetch;
    });
    retry_at_ = steady::now() + pause();
}

void redis_line::tick(const redis_address &to, steady::time_point now)
{
    if (wants_server(now)) {
        connecting_since_ = now;
        state_ = state::connecting;
        greetings_ = 0;
        if (!link_.open(to))
            return lose("it cannot be opened");
    }
    report_loss();
    if (state_ == state::connecting) {
        if (link_.connected() && greetings_ == 0)
            greet(to);
        if (now - connecting_since_ > CONNECT_PATIENCE)
            return lose("no answer to the greeting");
    }
    if (state_ != state::up)
        return;
    if (now - up_since_ > CONNECT_PATIENCE)
        failures_ = 0;
    if (!under_way_.empty() && now - under_way_.front().sent > ANSWER_PATIENCE)
        return lose("no answer");
    if (!firing_ && now >= fire_at_)
        fire(now);
}

// The clock's work on the server: marks that are due, locks that are held or asked for.
void redis_line::fire(steady::time_point now)
{
    firing_ = true;
    redis_operation asked;
    asked.what = redis_operation::kind::fire;
    asked.at_once = true;
    std::erase_if(lockers_, [this](const auto &who) { return office_.attached(who) == nullptr; });
    for (const auto &who : lockers_) {
        const wanted_lock &wanted = who.lock()->locks.at(db_);
        asked.words.add(wanted.name);
        asked.words.add(wanted.given);
    }
    asked.finish = [this, lockers = lockers_](const redis_outcome &done) {
        firing_ = false;
        if (done.code == QZ_MOM_OK && done.more.substr(0, done.more.find(' ')) != epoch_)
            return lose("the store was emptied");
        feed_.reaches(done.position);
        fire_at_ = steady::now() + (done.text == "more" ? 0ms : FIRE_INTERVAL);
        take_tokens(lockers, done);
    };
    ask_at_once(std::move(asked), now);
}

// The answer's tokens, one a lock: "=" held as before, "-" another's, else held anew.
void redis_line::take_tokens(const std::vector<std::weak_ptr<client>> &asked, const redis_outcome &fired)
{
    std::string_view tokens = fired.more;
    for (const auto &who : asked) {
        tokens.remove_prefix(std::min(tokens.find(' '), tokens.size() - 1) + 1);
        const std::string token(tokens.substr(0, tokens.find(' ')));
        const auto to = office_.attached(who);
        if (token.empty() || to == nullptr || token == "=")
            continue;
        wanted_lock &wanted = to->locks.at(db_);
        if (wanted.announced)
            tell_lock(*to, {});
        wanted.given = token == "-" ? std::string() : token;
        // All that was written before the lock was given is told first.
        if (!wanted.given.empty())
            held_.push_back(
                {fired.position, [this, who, token](const redis_outcome &) { tell_given(who, token); }, {}});
    }
}

bool redis_line::is_loading() const
{
    return std::ranges::any_of(followed_, [](const auto &each) { return each.second.loading != 0; });
}

// While tables are read anew, not all of it is told yet.
void redis_line::tell_given(const std::weak_ptr<client> &who, const std::string &token)
{
    const auto holder = office_.attached(who);
    if (holder == nullptr || holder->locks.at(db_).given != token)
        return;  // closed, or lost again
    if (is_loading())
        after_loads_.push_back([this, who, token] { tell_given(who, token); });
    else
        tell_lock(*holder, token);
}

void redis_line::tell_lock(client &to, const std::string &token)
{
    lock_news news = to.locks.at(db_).news;
    news.token = token;
    post(to, std::move(news));
    to.locks.at(db_).announced = !token.empty();
}

void redis_line::step()
{
    if (link_.is_open() && !link_.step())
        lose("the server closed it");
}

void redis_line::greet(const redis_address &to)
{
    link_.send_hello(to);
    link_.send({"SELECT", std::to_string(db_)});
    greetings_ += 2;
    if (to.master_only)
        link_.send({"ROLE"}), ++greetings_;
    link_.send({"FUNCTION", "LOAD", REDIS_LIBRARY});
    link_.send({"FCALL", REDIS_FUNCTION, "0", "hello", std::to_string(db_), client_name_, "0", "0", life_,
                std::to_string(std::max(answered_, feed_.position()))});
    greetings_ += 2;
}

void redis_line::take_greeting(const redisReply &reply)
{
    // That the server has the function already is as good.
    if (reply.type == REDIS_REPLY_ERROR && text_of(reply).find("already exists") == std::string_view::npos) {
        if (failures_ == 0)
            log_failure(("database " + std::to_string(db_) + ": " + std::string(text_of(reply))).c_str());
        return lose("the greeting was refused");
    }
    --greetings_;
    if (const auto *role = element(&reply, 0); greetings_ == 2 && role != nullptr && text_of(*role) != "master")
        return lose("it is not a master");
    if (greetings_ == 0)
        serve(reply);
}

// The connection is ready: what was under way is asked again, and the log goes on.
void redis_line::serve(const redisReply &hello)
{
    if (hello.type != REDIS_REPLY_STRING)
        return lose("the greeting was not understood");
    const side_answer answer(text_of(hello));
    const uint64_t now_at = answer.position;
    const std::string_view both = answer.more;
    const size_t space = std::min(both.find(' '), both.size());
    state_ = state::up;
    up_since_ = steady::now();
    for (call &each : under_way_) {
        redis_operation &first = each.parts.front();
        // A cursor means nothing to another server, neither this one nor the one that an earlier server has answered.
        if (first.what == redis_operation::kind::mark)
            first.mark->cursor = "0", first.mark->anew = true;
        transmit(each);
    }
    if (life_.empty()) {
        feed_.go_to(now_at);
        told_ = now_at;
    } else if (answer.text != "on") {
        for (held &each : held_)
            each.position = 0;
        answered_ = now_at;
        feed_.go_to(now_at);
        restart_at(now_at);
    } else {
        answered_ = std::max(answered_, now_at);
        load_again();
        look_for_lost_marks();
    }
    epoch_ = both.substr(0, space);
    life_ =
        both.substr(std::min(space + 1, both.size()));  // last: without memory for all this, the server says it again
    if (was_up_)
        report(QZ_MOM_RECONNECT_DONE);
    was_up_ = true;
}

// ---- asking ---------------------------------------------------------------------------------------------------------

void redis_line::transmit(call &made)
{
    const redis_operation &first = made.parts.front();
    made.sent = steady::now();
    if (first.what == redis_operation::kind::fetch)
        return link_.send(first.words);
    const auto numbered = std::ranges::find_if(under_way_, [](const call &each) { return each.number != 0; });
    const uint64_t oldest = numbered != under_way_.end() ? numbered->number : made.number;
    redis_words words{"FCALL", REDIS_FUNCTION, "0"};
    if (first.what == redis_operation::kind::write) {
        packed_texts writes{std::to_string(db_), client_name_};
        writes.add_number(made.number);
        writes.add_number(oldest);
        pack_writes(made.parts, writes);
        words.add(writes.bytes());
    } else {
        words.add(verb_of(first.what));
        words.append({std::to_string(db_), client_name_, std::to_string(made.number), std::to_string(oldest)});
        words.append(first.words);
    }
    if (first.what == redis_operation::kind::mark)
        words.append({first.mark->id, first.mark->cursor, first.mark->deadline});
    link_.send(words);
    if (first.step != nullptr)
        first.step->begin(link_);
}

void redis_line::ask_at_once(redis_operation &&operation, steady::time_point now)
{
    call made;
    made.sent = now;
    made.parts.push_back(std::move(operation));
    transmit(made);
    under_way_.push_back(std::move(made));
}

bool redis_line::may_send() const
{
    if (state_ != state::up)
        return true;  // the thread has to look
    if (queue_.empty() || under_way_.size() >= MAX_UNDER_WAY || marking_)
        return false;
    return under_way_.empty() || !is_write(queue_.front()) || queue_.size() >= ENOUGH_FOR_A_CALL;
}

bool redis_line::has_full_call() const
{
    // What only clears a mark is likely to be taken in by the next write.
    return !queue_.empty() && queue_.size() % MAX_WRITES == 0 && !only_clears(queue_.back());
}

// What goes next, in one call. Without memory it is still in the queue.
std::list<redis_line::call> redis_line::next_call(steady::time_point now)
{
    redis_operation &first = queue_.front();
    // What only asks for the position stands in a call without writes: a call has one position.
    const bool changes = changes_something(first);
    const auto joins = [&](const redis_operation &each) {
        return is_write(each) && changes_something(each) == changes;
    };
    std::list<call> made(1);
    call &next = made.front();
    mark_step *const mark = first.mark.get();
    if (mark != nullptr)
        mark->id = client_name_ + ':' + std::to_string(last_call_ + 1);
    if (mark != nullptr && mark->to.cb != nullptr)
        marks_.emplace(mark->id, waiting_mark{mark->owner, mark->end, mark->to});

    next.sent = now;
    marking_ = mark != nullptr && mark->in_pieces;
    if (changes)
        next.number = ++last_call_;
    uint32_t texts = 0;
    do {
        next.awaited = next.awaited || (queue_.front().finish && !queue_.front().at_once);
        texts += most_texts(queue_.front());
        next.parts.splice(next.parts.end(), queue_, queue_.begin());
    } while (is_write(first) && next.parts.size() < MAX_WRITES && !queue_.empty() && joins(queue_.front()) &&
             texts + most_texts(queue_.front()) <= MAX_TEXTS);
    return made;
}

void redis_line::send_queued(steady::time_point now)
{
    while (may_send() && !queue_.empty()) {
        under_way_.splice(under_way_.end(), next_call(now));
        transmit(under_way_.back());
    }
}

void redis_line::conclude(redis_operation &part, redis_outcome &&outcome)
{
    if (!part.finish) {
        if (outcome.code != QZ_MOM_OK)
            log_failure(("a write failed: " + std::string(qz_mom_strerror(outcome.code))).c_str());
    } else if (part.at_once) {
        part.finish(outcome);
    } else {
        held &kept = held_.emplace_back();
        kept.position = outcome.position;
        kept.finish = std::move(part.finish);
        kept.outcome = std::move(outcome);
    }
}

// It stays under way, and is made again.
bool redis_line::is_refused_for_now(const call &made, const redisReply &reply)
{
    return reply.type == REDIS_REPLY_ERROR &&
           (passes(text_of(reply)) || made.parts.front().what == redis_operation::kind::fetch);
}

// True: the mark's next piece is on its way, as a call of its own. Without memory the last one is as it was.
bool redis_line::mark_goes_on(const call &made, const redis_outcome &outcome)
{
    const mark_step *const before = made.parts.front().mark.get();
    if (before == nullptr || !before->in_pieces)
        return false;
    const std::string_view answer = outcome.text == "again" ? outcome.more : outcome.text;
    if (!answer.starts_with('m')) {
        marking_ = false;
        return false;
    }
    std::list<call> next{made};
    next.front().number = ++last_call_;
    auto &mark = next.front().parts.front().mark;
    mark = std::make_shared<mark_step>(*before);
    mark_step &piece = *mark;
    const size_t space = std::min(answer.find(' '), answer.size() - 1);
    piece.deadline = answer.substr(space + 1);
    piece.cursor = piece.anew ? "0" : answer.substr(1, space - 1);
    piece.anew = false;
    transmit(next.front());
    under_way_.splice(under_way_.end(), next);
    return true;
}

void redis_line::answered(call &made, const redisReply &reply)
{
    redis_outcome outcome;
    std::string_view letters;
    if (const auto &step = made.parts.front().step; step != nullptr) {
        outcome.position = step->position();
    } else if (reply.type == REDIS_REPLY_ERROR) {
        log_failure(("database " + std::to_string(db_) + ": " + std::string(text_of(reply))).c_str());
        outcome.code = QZ_MOM_EDOWN;
        outcome.position = told_;
    } else if (made.parts.front().what == redis_operation::kind::fetch) {
        return take_fetched(reply);
    } else if (reply.type == REDIS_REPLY_STRING) {
        const side_answer answer(text_of(reply));
        outcome.position = answered_ = answer.position;
        outcome.text = answer.text;
        outcome.more = answer.more;
        letters = outcome.text == "again" ? outcome.more : outcome.text;
    }
    if (mark_goes_on(made, outcome))
        return;
    const bool by_letter = is_write(made.parts.front());
    for (auto &part : made.parts) {
        redis_outcome own = by_letter ? redis_outcome{outcome.code, outcome.position, {}, {}} : outcome;
        if (by_letter && !part.row.empty() && !letters.empty()) {
            own.code = code_of(letters.front());
            letters.remove_prefix(1);
        }
        if (part.mark != nullptr && outcome.code != QZ_MOM_OK)
            end_of_mark(part.mark->id, outcome.code);
        conclude(part, std::move(own));
    }
    pass_over_log();  // at once: what this answer leads to may begin to follow, from here on
}

// ---- the log --------------------------------------------------------------------------------------------------------

bool redis_line::needs_log() const
{
    return !marks_.empty() || std::ranges::any_of(followed_, [](const auto &each) { return each.second.begun; });
}

void redis_line::fetch_missed(steady::time_point now)
{
    if (const redis_words channel = feed_.follow(needs_log(), now); !channel.empty())
        link_.send(channel);
    if (stalled_ || !feed_.wants_fetch())
        return;
    redis_operation asked;
    asked.what = redis_operation::kind::fetch;
    asked.words = feed_.fetch(answered_);
    ask_at_once(std::move(asked), now);
}

void redis_line::take_fetched(const redisReply &reply)
{
    if (const uint64_t lost = feed_.take_fetched(reply)) {
        log_failure("changes have left the log before they were read; the followed tables are read anew");
        restart_at(lost);
        try {
            report(QZ_MOM_RECONNECT_MISSED);
        } catch (const std::bad_alloc &) {
            log_failure("no memory to tell of it");
        }
    }
}

// The log does not lead on from where it was heard to: what is followed is compared anew.
void redis_line::restart_at(uint64_t position)
{
    told_ = position;
    for (auto &[name, in] : followed_) {
        in.again = in.begun;  // all of them first: without memory for the rest the next connection finds that
        if (in.begun)
            in.good_from = last_load_ + 1;
    }
    load_again();
    look_for_lost_marks();
}

// Tells of the next row. False when one who would hear of it has no room.
bool redis_line::tell_next(log_entry &entry)
{
    row_reader &rows = entry.rows;
    const std::string_view command = rows.text();
    const std::string_view key = rows.text();
    if (command == "f" || command == "l") {
        rows.skip(1);
        return true;
    }
    if (command == "end") {
        end_of_mark(std::string(key), QZ_MOM_OK);
        rows.skip(2);
        return true;
    }
    if (command == "c")
        return true;
    const std::string_view written = command == "s" ? std::string_view() : rows.text();
    if (!entry.as_sent)
        return tell({static_cast<int32_t>(number_of(command)), !command.ends_with('w'), key, written}, entry);
    if (command == "s")
        return tell({QZ_MOM_CMD_SET, false, key, written}, entry);
    const bool one = written.substr(0, written.find('|')).find(',') == written.npos;
    return tell({one ? QZ_MOM_CMD_HSET : QZ_MOM_CMD_HMSET, true, key, written}, entry);
}

void redis_line::note_written(followed &in, std::string_view written) const
{
    if (in.written == written)
        return;
    const size_t named = std::min(written.find('|'), written.size());
    auto numbers = numbers_of(written.substr(0, named));
    auto fields = named == written.size() ? numbers : numbers_of(written.substr(named + 1));
    auto names = std::make_shared<std::string>(names_of(*in.type, numbers));
    in.written = written;
    in.numbers = std::move(numbers);
    in.fields = std::move(fields);
    in.names = std::move(names);
}

// Null: it is not ours.
std::shared_ptr<const content> redis_line::take_content(const told_row &row, size_t fields, log_entry &entry)
{
    if (!entry.as_sent)
        return entry.rows.body();
    if (row.cmd == QZ_MOM_CMD_SET)
        return std::make_shared<const content>(content{form::whole, std::string(entry.rows.text())});
    return entry.rows.values(fields);
}

bool redis_line::tell(const told_row &row, log_entry &entry)
{
    const auto at = followed_.find(record_name(row.key));
    if (at == followed_.end() || !at->second.begun) {
        entry.as_sent ? entry.rows.skip(values_of(row.written)) : entry.rows.skip_body();
        return true;
    }
    followed &in = at->second;
    note_written(in, row.written);
    in.records.fetch_entry(row.key);
    auto body = take_content(row, in.fields.size(), entry);
    if (body == nullptr) {
        log_foreign(std::string(row.key).c_str());
        return true;
    }
    auto *known = in.records.find(row.key);
    if (row.is_part && !row.written.empty()) {
        if (in.loading != 0 && (known == nullptr || known->seen < in.good_from))
            return true;  // a page is still to show it
        body = merge(known != nullptr ? known->body.get() : nullptr, std::move(body), in.fields);
    }
    if (entry.told == nullptr)
        entry.told = std::make_shared<change_block>(entry.bytes.size());
    newest_told what(*entry.told, {db_, row.cmd, 0, row.key, row.written.empty() ? nullptr : in.names, body});
    deliveries out;
    subscriptions_.address(what.made, in.numbers, office_, out);
    if (!has_room(out))
        return false;
    if (row.cmd == QZ_MOM_CMD_DEL || row.cmd == QZ_MOM_CMD_EXPIRED) {
        if (known != nullptr)
            in.records.erase(*known);
    } else if (known != nullptr) {
        known->body = body;
        known->seen = in.loading;
    } else {
        in.records.put(row.key, body).seen = in.loading;
    }
    office_.send(out);
    what.keep();
    return true;
}

// An answer that is under way may stand before whatever is behind the newest position that is known from an answer.
bool redis_line::may_tell(uint64_t position) const
{
    return position <= answered_ || std::ranges::none_of(under_way_, [](const call &each) { return each.awaited; });
}

// Everything in its order, as far as there is room.
void redis_line::tell_all()
{
    stalled_ = false;
    while (true) {
        if (page_ != nullptr) {
            stalled_ = !take_rows();
            if (stalled_)
                return;
            continue;
        }
        if (!after_loads_.empty() && !is_loading()) {
            take_first(after_loads_, [](const auto &act) { act(); });
            continue;
        }
        if (!held_.empty() && held_.front().position <= told_) {
            take_first(held_, [](const held &each) { each.finish(each.outcome); });
            continue;
        }
        if (feed_.is_empty() || !may_tell(feed_.front().position))
            return;
        log_entry &entry = feed_.front();
        while (!entry.rows.at_end()) {
            stalled_ = !whole_or_not(entry.rows, [&] { return tell_next(entry); });
            if (stalled_)
                return;
        }
        if (entry.rows.broken())
            log_foreign("mom:log");
        told_ = entry.position;
        feed_.pop();
    }
}

// `error`: why the server has refused the call.
void redis_line::end_of_mark(const std::string &id, int32_t error)
{
    const auto at = marks_.find(id);
    if (at == marks_.end())
        return;
    if (const auto to = office_.attached(at->second.owner)) {
        change end = *at->second.end;
        end.error = error;
        post(*to, message{make_change(std::move(end)), at->second.to});
    }
    marks_.erase(at);
}

// The ends of expiry calls may have been among what was not read, and marks among what a server has lost: they make no
// entry of the log.
void redis_line::look_for_lost_marks()
{
    for (auto &[id, mark] : marks_) {
        if (mark.looked_for)
            continue;
        redis_operation asked;
        asked.what = redis_operation::kind::lost_mark;
        asked.words = {id};
        asked.finish = [this, id = id](const redis_outcome &found) {
            if (found.text == "gone")
                end_of_mark(id, QZ_MOM_OK);
            else if (const auto at = marks_.find(id); at != marks_.end())
                at->second.looked_for = false;
        };
        queue_.push_back(std::move(asked));
        mark.looked_for = true;
    }
}

// ---- the replica ----------------------------------------------------------------------------------------------------

redis_line::record_page::record_page(table_step &read, bool last, const ProtobufCMessageDescriptor &type)
    : name(read.name),
      load(read.load),
      is_last(last),
      records(read.take_records()),
      numbers(data_numbers(type)),
      names(std::make_shared<std::string>(names_of(type, numbers)))
{
}

void redis_line::load(const std::string &name)
{
    queue_.push_back(first_step(name, last_load_ + 1));
    followed_[name].loading = ++last_load_;
}

// A cursor means nothing to another server. What was written meanwhile may have been told in parts, and passed over.
void redis_line::load_again()
{
    for (auto &[name, in] : followed_) {
        if (!in.begun || (in.loading == 0 && !in.again))
            continue;
        in.again = true;
        load(name);
    }
}

redis_operation redis_line::operation_of(std::shared_ptr<table_step> step)
{
    redis_operation asked;
    asked.what = redis_operation::kind::read;
    asked.words = {step->cursor == table_step::START ? "begin" : "go on", step->name};
    asked.finish = [this, step](const redis_outcome &) { take_page(*step); };
    asked.step = std::move(step);
    return asked;
}

redis_operation redis_line::first_step(const std::string &name, uint64_t number)
{
    return operation_of(
        std::make_shared<table_step>(name, number, std::string(table_step::START), std::vector<table_step::wanted>()));
}

void redis_line::take_page(table_step &read)
{
    const auto at = followed_.find(read.name);
    if (at == followed_.end() || at->second.loading == 0)
        return say_read(read.name);
    if (at->second.loading != read.load)
        return;
    if (read.was_refused()) {
        load(read.name);
        return lose("a page of records was refused");
    }
    if (read.has_lapsed()) {
        at->second.again = true;
        return load(read.name);
    }
    const bool is_last = read.next_cursor().empty() && read.found().empty() && read.doubtful().empty();
    is_last ? say_read(read.name) : read_on(at->second, read);
    page_ = std::make_unique<record_page>(read, is_last, *at->second.type);
}

// Reads what was found, and what is of another form than was believed.
void redis_line::read_on(followed &in, const table_step &read)
{
    std::vector<table_step::wanted> keys = read.doubtful();
    if (!keys.empty())
        in.whole = keys.front().whole;
    keys.reserve(keys.size() + read.found().size());
    for (const std::string &key : read.found())
        keys.push_back({key, in.whole, false});
    queue_.push_back(
        operation_of(std::make_shared<table_step>(read.name, read.load, read.next_cursor(), std::move(keys))));
}

// The server need not tell whole records any more.
void redis_line::say_read(const std::string &name)
{
    redis_operation said;
    said.what = redis_operation::kind::read;
    said.words = {"end", name};
    queue_.push_back(std::move(said));
}

// False: one who would hear of what is left of the page has no room for it.
bool redis_line::take_rows()
{
    record_page &page = *page_;
    const auto at = followed_.find(page.name);
    if (at == followed_.end() || at->second.loading != page.load) {
        page_.reset();
        return true;
    }
    for (; page.next_record < page.records.size(); ++page.next_record) {
        if (!take_row(at->second))
            return false;
    }
    if (page.is_last && !sweep(at->second))
        return false;
    if (page.is_last)
        finish_load(at->second);
    page_.reset();
    return true;
}

// A record as it is. Who has missed changes is told of each, also when it is as it was known: it may have been written
// anew, as who asks once more for what he has does, and waits for his answer.
bool redis_line::take_row(followed &in)
{
    const auto &[key, body] = page_->records[page_->next_record];
    if (page_->next_record + 2 < page_->records.size())
        in.records.fetch_entry(page_->records[page_->next_record + 2].key);
    if (body == nullptr) {
        log_foreign(key.c_str());
        return true;
    }
    deliveries out;
    if (in.again) {
        const int32_t cmd = body->kind == form::hash ? QZ_MOM_CMD_HMSET : QZ_MOM_CMD_SET;
        subscriptions_.address(make_change({db_, cmd, 0, key, page_->names, body}), page_->numbers, office_, out);
    }
    if (!has_room(out))
        return false;
    in.records.put(key, body).seen = in.loading;
    office_.send(out);
    return true;
}

// What no page has shown is gone.
bool redis_line::sweep(followed &in)
{
    for (size_t &at = page_->next_slot; at < in.records.slots(); ++at) {
        auto *record = in.records.slot(at);
        if (record == nullptr || record->seen == in.loading)
            continue;
        deliveries out;
        subscriptions_.address(make_change({db_, QZ_MOM_CMD_DEL, 0, record->key, {}, record->body}), {}, office_, out);
        if (!has_room(out))
            return false;
        office_.send(out);
        in.records.erase(*record);
    }
    return true;
}

bool redis_line::has_room(const deliveries &out) const { return office_.room_for(out) || office_.nothing_waits(out); }

void redis_line::finish_load(followed &in)
{
    while (!in.scans.empty()) {
        start_scan(in, in.scans.front());
        in.scans.erase(in.scans.begin());
    }
    in.loading = 0;
    in.loaded = true;
    in.again = false;
    drop_unused(in.type->name);
}

// Nobody who follows anything waits for the log: what the newest answers lead to is done at once.
void redis_line::pass_over_log()
{
    if (needs_log() || !feed_.is_idle())
        return;
    feed_.go_to(answered_);
    told_ = answered_;
    tell_all();
}

// ---- a round --------------------------------------------------------------------------------------------------------

void redis_line::work(steady::time_point now)
{
    bool broken = false;
    while (link_.is_open()) {
        const auto reply = link_.next(broken);
        if (broken)
            return lose("what came is no reply");
        if (reply == nullptr)
            break;
        if (link_.was_pushed()) {
            feed_.take(*reply);
        } else if (greetings_ > 0) {
            take_greeting(*reply);
        } else if (feed_.is_asking() && is_denied(*reply)) {
            return lose(std::string(text_of(*reply)).c_str());
        } else if (!under_way_.empty()) {
            call &front = under_way_.front();
            if (is_refused_for_now(front, *reply))
                return lose(std::string(text_of(*reply)).c_str());
            if (table_step *step = front.parts.front().step.get(); step != nullptr) {
                step->take(*reply, link_.map());
                answered_ = std::max(answered_, step->position());
                if (!step->is_over())
                    continue;
            }
            take_first(under_way_, [&](call &made) {
                answered(made, *reply);
                recycle(made.parts);
            });
        }
    }
    tell_all();
    if (told_ < answered_)
        pass_over_log();
    if (state_ == state::up) {
        send_queued(now);
        fetch_missed(now);
    }
    flush();
}

void redis_line::flush()
{
    if (link_.is_open() && !link_.flush())
        lose("the server closed it");
}

}  // namespace mom
