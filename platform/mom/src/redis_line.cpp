// One database of a Redis server. See redis_line.hpp.
#include "redis_line.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

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
constexpr auto CONNECT_PATIENCE = 2s;
constexpr auto ANSWER_PATIENCE = 3s;
constexpr auto FIRE_INTERVAL = 200ms;
constexpr size_t MAX_KEPT = 2 * MAX_UNDER_WAY;  // calls
constexpr auto KEPT_FOR = 60s;                  // much less than the server remembers a client

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

// Words with one space between them.
template <size_t COUNT>
void split(std::string_view text, std::array<std::string, COUNT> &words)
{
    for (std::string &word : words) {
        const size_t end = std::min(text.find(' '), text.size());
        word = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
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

// Acts on the first of them and takes it off. Without memory it stays.
template <typename Item, typename Act>
std::list<Item> take_first(std::list<Item> &from, Act act)
{
    std::list<Item> taken;
    taken.splice(taken.begin(), from, from.begin());
    try {
        act(taken.front());
    } catch (const std::bad_alloc &) {
        from.splice(from.begin(), taken);
        throw;
    }
    return taken;
}

}  // namespace

redis_line::redis_line(uint32_t db, std::string client_name, link_set &links, post_office &office,
                       subscription_table &subscriptions)
    : db_(db),
      client_name_(std::move(client_name)),
      office_(office),
      subscriptions_(subscriptions),
      tables_(db, *this, office, subscriptions),
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
    return enqueue(std::move(operation));
}

int32_t redis_line::enqueue(redis_operation &&operation)
{
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

// A server may answer before it has written down what it did, or before its replicas have heard of it. So the writes that
// were done last are kept for a while. What stands before another numbered call is not: a mark or a deletion of marked
// records might have ended what it wrote.
void redis_line::keep(std::list<call> &&answered, bool done) noexcept
{
    call &newest = answered.front();
    const bool writes = done && newest.number != 0 && is_write(newest.parts.front());
    while (!kept_.empty() && newest.number != 0 && (!writes || kept_.size() >= MAX_KEPT)) {
        recycle(kept_.front().parts);
        kept_.pop_front();
    }
    if (!writes)
        return recycle(newest.parts);
    newest.awaited = false;
    newest.first_sent = newest.first_sent.value_or(newest.sent);
    for (redis_operation &each : newest.parts) {
        each.finish = nullptr;
        each.counted = {};
        if (each.refused)
            each.row = {};
    }
    kept_.splice(kept_.end(), answered);
}

// Puts what the server had answered, and does not know of, before what is under way. A server that was emptied is not
// filled again, and one that has forgotten this client cannot tell what it lacks.
void redis_line::make_again(const std::string &epoch, uint64_t last_done) noexcept
{
    if (epoch != epoch_ || (last_done == 0 && !kept_.empty() && kept_.front().number > 1))
        kept_.clear();
    const auto lost = std::ranges::find_if(kept_, [&](const call &each) { return each.number > last_done; });
    under_way_.splice(under_way_.begin(), kept_, lost, kept_.end());
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

int32_t redis_line::connect(client &from, const connection &answer)
{
    redis_operation asked;
    asked.at_once = true;
    asked.finish = [this, who = from.weak_from_this(), answer](const redis_outcome &) {
        if (const auto to = office_.attached(who))
            office_.post(*to, answer);
    };
    return enqueue(std::move(asked));  // also when the server is away: it is answered once that is back
}

void redis_line::want_lock(client &from, wanted_lock &&wanted)
{
    lockers_.reserve(lockers_.size() + 1);
    from.locks.emplace(db_, std::move(wanted));
    lockers_.push_back(from.weak_from_this());
    fire_at_ = {};
}

int32_t redis_line::unfollow(client &from, const target &of, const receiver &to)
{
    redis_operation asked;
    asked.finish = [this, who = from.weak_from_this(), of, to](const redis_outcome &) {
        const auto owner = office_.attached(who);
        if (!owner)
            return;
        auto what = make_change({db_, QZ_MOM_CMD_UNSUBSCRIBED, 0, of.keys.text(), {}, nullptr});
        office_.post(*owner, message{std::move(what), to});
        subscriptions_.remove(db_, *owner, of.keys, to);
        tables_.drop_unused(of.keys.type().name);
    };
    return put(std::move(asked));
}

void redis_line::drop_unused() noexcept
{
    tables_.drop_unused();
    std::erase_if(marks_, [this](const auto &each) { return office_.attached(each.second.owner) == nullptr; });
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
    while (!under_way_.empty() && under_way_.front().first_sent.has_value())
        kept_.splice(kept_.end(), under_way_, under_way_.begin());
    std::erase_if(under_way_, [](const call &each) {
        const auto what = each.parts.front().what;
        return what == redis_operation::kind::fire || what == redis_operation::kind::fetch;
    });
    retry_at_ = steady::now() + pause();
}

void redis_line::tick(const redis_address &to, steady::time_point now)
{
    while (!kept_.empty() && now - *kept_.front().first_sent > KEPT_FOR)
        kept_.pop_front();
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
        std::string token(tokens.substr(0, tokens.find(' ')));
        const auto to = office_.attached(who);
        if (token.empty() || to == nullptr || token == "=")
            continue;
        wanted_lock &wanted = to->locks.at(db_);
        if (wanted.announced)
            tell_lock(*to, {});
        // All that was written before the lock was given is told first. Without memory to tell of it, it is not taken for
        // given: it runs out then, and is asked for anew.
        if (token != "-")
            held_.push_back(
                {fired.position, [this, who, token](const redis_outcome &) { tell_given(who, token); }, {}});
        wanted.given = token == "-" ? std::string() : std::move(token);
    }
}

// While tables are read anew, not all of it is told yet.
void redis_line::tell_given(const std::weak_ptr<client> &who, const std::string &token)
{
    const auto holder = office_.attached(who);
    if (holder == nullptr || holder->locks.at(db_).given != token)
        return;  // closed, or lost again
    if (tables_.is_loading())
        after_loads_.push_back([this, who, token] { tell_given(who, token); });
    else
        tell_lock(*holder, token);
}

void redis_line::tell_lock(client &to, const std::string &token)
{
    lock_news news = to.locks.at(db_).news;
    news.token = token;
    office_.post(to, std::move(news));
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
    std::array<std::string, 3> said;  // the epoch, the life, and the number of the last call of ours that is known
    split(answer.more, said);
    auto &[epoch, life, last_done] = said;
    state_ = state::up;
    up_since_ = steady::now();
    make_again(epoch, number_of(last_done));
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
        tables_.load_again();
        look_for_lost_marks();
    }
    epoch_.swap(epoch);
    life_.swap(life);  // last: without memory for all this, the server says it again
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
    if (mark != nullptr && mark->to.cb != nullptr && office_.attached(mark->owner) != nullptr)
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
        if (part.mark != nullptr)
            mark_answered(part.mark->id, outcome.code);
        part.refused = own.code != QZ_MOM_OK;
        if (!made.first_sent.has_value())
            conclude(part, std::move(own));
    }
    if (made.first_sent.has_value() && std::ranges::any_of(made.parts, &redis_operation::refused))
        log_failure("writes that the server had lost are refused now, and stay lost");
    pass_over_log();  // at once: what this answer leads to may begin to follow, from here on
}

// ---- the log --------------------------------------------------------------------------------------------------------

bool redis_line::needs_log() const { return !marks_.empty() || tables_.any(); }

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
    tables_.missed();
    tables_.load_again();
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
        return tables_.tell({static_cast<int32_t>(number_of(command)), !command.ends_with('w'), key, written}, entry);
    if (command == "s")
        return tables_.tell({QZ_MOM_CMD_SET, false, key, written}, entry);
    const bool one = written.substr(0, written.find('|')).find(',') == written.npos;
    return tables_.tell({one ? QZ_MOM_CMD_HSET : QZ_MOM_CMD_HMSET, true, key, written}, entry);
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
        if (tables_.has_page()) {
            stalled_ = !tables_.tell_page();
            if (stalled_)
                return;
            continue;
        }
        if (!after_loads_.empty() && !tables_.is_loading()) {
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

void redis_line::mark_answered(const std::string &id, int32_t code)
{
    if (code != QZ_MOM_OK)
        end_of_mark(id, code);
    else if (const auto at = marks_.find(id); at != marks_.end())
        at->second.is_set = true;
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
        office_.post(*to, message{make_change(std::move(end)), at->second.to});
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
        asked.words = {id, mark.is_set ? "set" : "being set"};
        // At once: that it is there says nothing any more behind the next loss, which may come before the log has been told
        // up to here. That it is gone is told in its turn.
        asked.at_once = true;
        asked.finish = [this, id = id](const redis_outcome &found) {
            if (found.text == "gone")
                held_.push_back(
                    {found.position, [this, id](const redis_outcome &) { end_of_mark(id, QZ_MOM_OK); }, {}});
            else if (const auto at = marks_.find(id); at != marks_.end())
                at->second.looked_for = false;
        };
        queue_.push_back(std::move(asked));
        mark.looked_for = true;
    }
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
            auto taken = take_first(under_way_, [&](call &made) { answered(made, *reply); });
            keep(std::move(taken), reply->type == REDIS_REPLY_STRING);
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
