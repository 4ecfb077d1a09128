// The order of posted calls and timers; see agenda.hpp.
#include "agenda.hpp"

#include <algorithm>

namespace thread_master
{

void agenda::post(posted_call call)
{
    call.sequence = next_sequence_;
    posted_.push_back(call);
    ++next_sequence_;
}

void agenda::insert(int64_t due, timer_call timer)
{
    timers_.emplace(timer_key{due, next_sequence_}, std::move(timer));
    ++next_sequence_;
}

void agenda::withdraw(const waiting_call *waiter)
{
    const auto of_waiter = [waiter](const posted_call &call) { return call.waiter == waiter; };
    const auto found = std::find_if(posted_.begin(), posted_.end(), of_waiter);
    if (found != posted_.end())
        posted_.erase(found);
}

work agenda::take(int64_t now)
{
    work found = take_of_round();
    if (!std::holds_alternative<std::monostate>(found))
        return found;
    round_sequence_ = next_sequence_;
    round_now_ = now;
    return take_of_round();
}

// Looking at the first of each is enough: sequences in posted_ grow, and a timer inserted during the round is due at
// round_now_ or later and stands behind the round's own.
work agenda::take_of_round()
{
    if (!posted_.empty() && posted_.front().sequence < round_sequence_) {
        const posted_call call = posted_.front();
        posted_.pop_front();
        return call;
    }
    if (!timers_.empty()) {
        const auto [due, sequence] = timers_.begin()->first;
        if (due <= round_now_ && sequence < round_sequence_)
            return std::move(timers_.extract(timers_.begin()).mapped());
    }
    return {};
}

}  // namespace thread_master
