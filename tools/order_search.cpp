// Which orders of users explain their results. See order_search.hpp.
#include "order_search.hpp"

#include <algorithm>

namespace ebridge_tool
{

namespace
{

constexpr size_t MAX_USERS = 8;  // with more there are too many orders to try
constexpr int NOBODY_YET = -1;
constexpr int DIFFERS = -2;

// Builds orders from their beginning, as far as the results allow.
class search
{
  public:
    explicit search(const std::vector<contender> &contenders) : of_(contenders)
    {
        found_.lost_to.assign(of_.size(), NOBODY_YET);
        if (!of_.empty() && of_.size() <= MAX_USERS)
            extend();
        std::ranges::replace(found_.lost_to, DIFFERS, -1);
    }
    found_order take() { return std::move(found_); }

  private:
    bool beats(size_t one, size_t other) const { return of_[one].priority > of_[other].priority; }

    // The last word on one is the comparison with the one after it; on the last, with the one before it.
    bool may_follow(size_t next) const { return path_.empty() || beats(next, path_.back()) == of_[path_.back()].lost; }
    bool may_end() const
    {
        const bool loses = path_.size() > 1 && !beats(path_.back(), path_[path_.size() - 2]);
        return loses == of_[path_.back()].lost;
    }

    void extend()
    {
        if (path_.size() == of_.size()) {
            if (may_end())
                note();
            return;
        }
        for (size_t next = 0; next < of_.size(); ++next) {
            if (std::ranges::find(path_, next) != path_.end() || !may_follow(next))
                continue;
            path_.push_back(next);
            extend();
            path_.pop_back();
        }
    }

    void note()
    {
        if (found_.order.empty())
            found_.order = path_;
        for (size_t place = 0; place < path_.size(); ++place)
            if (of_[path_[place]].lost)
                note_loss(path_[place], path_[place + 1 < path_.size() ? place + 1 : place - 1]);
    }

    void note_loss(size_t loser, size_t winner)
    {
        int &known = found_.lost_to[loser];
        if (known == NOBODY_YET)
            known = static_cast<int>(winner);
        else if (known != static_cast<int>(winner))
            known = DIFFERS;
    }

    const std::vector<contender> &of_;
    std::vector<size_t> path_{};
    found_order found_{};
};

}  // namespace

found_order find_order(const std::vector<contender> &contenders) { return search(contenders).take(); }

}  // namespace ebridge_tool
