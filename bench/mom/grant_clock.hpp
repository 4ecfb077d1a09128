// What the requesters of both sides share: which request goes next, how many are in flight, how long each took.
#pragma once

#include <chrono>
#include <functional>
#include <vector>

#include "grants.hpp"

namespace bench
{

class grant_clock
{
  public:
    void begin(const demand &wanted);
    bool may_send() const { return sent_ < wanted_.count && sent_ - heard_ < wanted_.in_flight; }
    // The key to request now.
    int send();
    // False for what was not asked for.
    bool heard(int key);
    bool over() const { return heard_ == wanted_.count; }
    grants result() const;

  private:
    using clock = std::chrono::steady_clock;

    demand wanted_{};
    int sent_ = 0;
    int heard_ = 0;
    clock::time_point start_;
    std::vector<clock::time_point> sent_at_;
    std::vector<double> took_;  // microseconds; 0: not heard yet
};

// A requester's life: one demand after the other, for as long as the parent wants.
void serve_demands(const channel &parent, const std::function<grants(const demand &)> &serve);

}  // namespace bench
