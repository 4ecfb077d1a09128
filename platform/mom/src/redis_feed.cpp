// Pushed and fetched entries of a log. See redis_feed.hpp.
#include "redis_feed.hpp"

#include <algorithm>

namespace mom
{
namespace
{

using namespace std::chrono_literals;

constexpr size_t MAX_UNTOLD = 64;  // entries; while so many wait for room no more are taken
constexpr size_t FETCHED = 32;     // entries at a time
constexpr auto LINGER = 1s;        // on the channel when nobody follows any more: many scans are short

bool is_word(const redisReply *reply, std::string_view word) { return reply != nullptr && text_of(*reply) == word; }

}  // namespace

redis_feed::redis_feed(uint32_t db) : channel_name_("mom:log:" + std::to_string(db)) {}

// ---- the channel ----------------------------------------------------------------------------------------------------

void redis_feed::close()
{
    channel_ = channel::closed;
    wanted_ = fetching_ = false;
}

redis_words redis_feed::follow(bool wanted, steady::time_point now)
{
    if (wanted && !wanted_)
        behind_ = true;
    if (!wanted && wanted_)
        unwanted_since_ = now;
    wanted_ = wanted;
    if (wanted && channel_ == channel::closed) {
        channel_ = channel::asked;
        return {"SUBSCRIBE", channel_name_};
    }
    if (!wanted && channel_ == channel::open && now - unwanted_since_ > LINGER) {
        channel_ = channel::closed;
        return {"UNSUBSCRIBE", channel_name_};
    }
    return {};
}

void redis_feed::take(const redisReply &pushed)
{
    const auto *kind = element(&pushed, 0);
    if (is_word(kind, "message") && element(&pushed, 2) != nullptr)
        take_entry(text_of(*pushed.element[2]));
    else if (is_word(kind, "subscribe") && channel_ == channel::asked)
        channel_ = channel::open;
}

// ---- the entries ----------------------------------------------------------------------------------------------------

// Position, 's' (as sent) or 'r' (rows), and the texts.
void redis_feed::take_entry(std::string_view entry)
{
    const auto [position, rest] = number_and_rest(entry);
    if (!wanted_ || position <= position_ || rest.empty())
        return;
    pushed_ = position;
    if (position != position_ + 1 || behind_ || entries_.size() >= MAX_UNTOLD) {
        behind_ = true;
        return;
    }
    entries_.emplace_back(position, rest.substr(1), rest.front() == 's');
    position_ = position;
}

void redis_feed::go_to(uint64_t position)
{
    entries_.clear();
    position_ = pushed_ = position;
}

bool redis_feed::wants_fetch() const
{
    return behind_ && wanted_ && channel_ == channel::open && !fetching_ && entries_.size() < MAX_UNTOLD;
}

redis_words redis_feed::fetch(uint64_t known)
{
    fetching_ = true;
    known_ = std::max(known, pushed_);
    const std::string after = '(' + std::to_string(position_) + "-0";
    return {"XRANGE", "mom:log", after, "+", "COUNT", std::to_string(FETCHED)};
}

uint64_t redis_feed::take_fetched(const redisReply &reply)
{
    fetching_ = false;
    const uint64_t pushed = pushed_;
    uint64_t lost = 0;
    for (size_t i = 0; i < reply.elements; ++i) {
        const auto *entry = reply.element[i];
        const auto *kind = element(element(entry, 1), 0);
        const auto *texts = element(element(entry, 1), 1);
        if (texts == nullptr)
            continue;
        const uint64_t position = number_of(text_of(*entry->element[0]));
        if (position <= position_)
            continue;
        const bool is_sent = text_of(*kind).starts_with('s');
        if (position == position_ + 1) {
            entries_.emplace_back(position, text_of(*texts), is_sent);
        } else {
            std::deque<log_entry> next;  // without memory for it the gap is still to be found
            next.emplace_back(position, text_of(*texts), is_sent);
            go_to(position - 1);
            lost = position - 1;
            entries_.swap(next);
        }
        position_ = position;
    }
    if (reply.elements == 0 && known_ > position_) {
        go_to(known_);
        lost = known_;
    }
    pushed_ = std::max(pushed, position_);
    behind_ = reply.elements == FETCHED || position_ < pushed_;
    return lost;
}

}  // namespace mom
