// Timing of requests.
#include "grant_clock.hpp"

#include <algorithm>

namespace bench
{

void grant_clock::begin(const demand &wanted)
{
    wanted_ = wanted;
    sent_ = heard_ = 0;
    const auto count = static_cast<size_t>(wanted.count);
    sent_at_.assign(count, {});
    took_.assign(count, 0);
    start_ = clock::now();
}

int grant_clock::send()
{
    sent_at_[static_cast<size_t>(sent_)] = clock::now();
    return wanted_.first + sent_++;
}

bool grant_clock::heard(int key)
{
    const auto at = static_cast<size_t>(key - wanted_.first);
    if (key < wanted_.first || at >= took_.size() || took_[at] > 0)
        return false;
    took_[at] = std::chrono::duration<double, std::micro>(clock::now() - sent_at_[at]).count();
    ++heard_;
    return true;
}

grants grant_clock::result() const
{
    auto sorted = took_;
    std::sort(sorted.begin(), sorted.end());
    return {heard_ / seconds_since(start_), sorted[sorted.size() / 2], sorted[sorted.size() * 99 / 100]};
}

grants ask(const process &requester, const demand &wanted)
{
    for (const int number : {wanted.first, wanted.count, wanted.in_flight})
        requester.put(number);
    const double rate = requester.get();
    const double p50 = requester.get();
    return {rate, p50, requester.get()};
}

void serve_demands(const channel &parent, const std::function<grants(const demand &)> &serve)
{
    while (true) {
        demand wanted{};
        for (int *number : {&wanted.first, &wanted.count, &wanted.in_flight})
            *number = static_cast<int>(parent.get());
        const grants made = serve(wanted);
        for (const double number : {made.rate, made.p50, made.p99})
            parent.put(number);
    }
}

}  // namespace bench
