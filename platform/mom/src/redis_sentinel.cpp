// Asking sentinels. See redis_sentinel.hpp.
#include "redis_sentinel.hpp"

#include <charconv>

#include "mom_log.hpp"

namespace mom
{
namespace
{

using namespace std::chrono_literals;

constexpr auto SENTINEL_PATIENCE = 500ms;  // of one sentinel, from connecting to its answer

// What a sentinel names: host and port. False when that makes no sense.
bool read_master(const redisReply &reply, redis_address &out)
{
    const auto *host = element(&reply, 0);
    const auto *port = element(&reply, 1);
    if (host == nullptr || port == nullptr || host->type != REDIS_REPLY_STRING || port->type != REDIS_REPLY_STRING)
        return false;
    const std::string_view digits = text_of(*port);
    const auto read = std::from_chars(digits.data(), digits.data() + digits.size(), out.port);
    out.host = text_of(*host);
    return read.ec == std::errc() && read.ptr == digits.data() + digits.size() && !out.host.empty() && out.port != 0;
}

}  // namespace

redis_guide::redis_guide(std::shared_ptr<const redis_instance> to, link_set &links)
    : to_(std::move(to)), server_(to_->server), link_(links)
{
    if (!to_->sentinels.empty()) {
        server_.path.clear();
        server_.master_only = true;
        current_ = to_->sentinels.size() - 1;  // the first one is the next
    }
}

redis_guide::answer redis_guide::look(std::chrono::steady_clock::time_point now)
{
    if (to_->sentinels.empty())
        return answer::known;
    if (link_.is_open() && take_reply())
        return end(answer::known);
    if (link_.is_open() && now - since_ > SENTINEL_PATIENCE)
        give_up_on_sentinel("no answer");
    if (link_.is_open())
        return answer::asking;
    if (asked_ < to_->sentinels.size()) {
        ask_next(now);
        return answer::asking;
    }
    if (!complained_)
        log_failure(("no sentinel names the master of " + to_->group + "; " + complaint_).c_str());
    complained_ = true;
    return end(answer::nobody);
}

// One who named a server is not asked first the next time: the server was lost since, or could not be reached.
void redis_guide::ask_next(std::chrono::steady_clock::time_point now)
{
    current_ = (current_ + 1) % to_->sentinels.size();
    ++asked_;
    since_ = now;
    if (!link_.open(to_->sentinels[current_]))
        return give_up_on_sentinel("it cannot be opened");
    link_.send({"SENTINEL", "get-master-addr-by-name", to_->group});
}

// True when the master is known.
bool redis_guide::take_reply()
{
    bool broken = false;
    const auto reply = link_.next(broken);
    if (!broken && reply == nullptr)
        return false;
    if (!broken && read_master(*reply, server_)) {
        complained_ = false;
        return true;
    }
    const bool says_why = !broken && reply->type == REDIS_REPLY_ERROR;
    give_up_on_sentinel(says_why ? std::string(text_of(*reply)) : "it names none");
    return false;
}

void redis_guide::give_up_on_sentinel(const std::string &why)
{
    const redis_address &sentinel = to_->sentinels[current_];
    complaint_ = sentinel.host + ":" + std::to_string(sentinel.port) + ": " + why;
    link_.close();
}

redis_guide::answer redis_guide::end(answer with)
{
    stop();
    return with;
}

void redis_guide::stop()
{
    link_.close();
    asked_ = 0;
}

void redis_guide::step()
{
    if (link_.is_open() && !link_.step())
        give_up_on_sentinel("the connection is lost");
}

}  // namespace mom
