// Deciding among users in an order that is not that of the claims. See walks.hpp.
#include "walks.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace ebridge_tool
{

walked_places::walked_places(const std::vector<std::string> &walk)
{
    for (const std::string &user : walk)
        places_.emplace(user, places_.size());
}

size_t walked_places::of(const std::string &user) const
{
    const auto found = places_.find(user);
    return found == places_.end() ? places_.size() : found->second;
}

std::vector<verdict> decide_walked(const std::vector<claim> &claims, const walked_places &walk)
{
    std::vector<int> order;
    for (int i = 0; i < static_cast<int>(claims.size()); ++i)
        order.push_back(i);
    const auto claim_at = [&](int i) -> const claim & { return claims[static_cast<size_t>(i)]; };
    std::ranges::stable_sort(order, {}, [&](int i) { return std::pair(walk.of(claim_at(i).user), claim_at(i).user); });
    std::vector<claim> sorted;
    for (int i : order)
        sorted.push_back(claim_at(i));
    std::vector<verdict> verdicts(claims.size());
    const std::vector<verdict> decided = decide(sorted);
    for (size_t place = 0; place < order.size(); ++place) {
        const int lost_to = decided[place].lost_to;
        verdicts[static_cast<size_t>(order[place])] = {decided[place].result,
                                                       lost_to < 0 ? -1 : order[static_cast<size_t>(lost_to)]};
    }
    return verdicts;
}

namespace
{

// A user's claim that is compared.
struct contender {
    std::string user;
    int32_t priority;
    int32_t heard;  // NOT_COMPARED: nothing
};

// Looks for a place for each of the others. They are tried one after the other, and of those of one priority any is as good
// as any other. The last word on a claim is the comparison with the one after it; on the last one, with the one before it.
class interleaving
{
  public:
    interleaving(std::vector<contender> walked, const std::vector<contender> &others) : walked_(std::move(walked))
    {
        for (const contender &each : others)
            others_[each.priority].push_back(each);
    }

    // Empty when there is none, or none was found soon enough.
    std::vector<std::string> find() { return go_on(0) ? names() : std::vector<std::string>(); }

  private:
    using state = std::tuple<size_t, std::vector<size_t>, int32_t, int32_t>;

    bool go_on(size_t walked)
    {
        if (walked == walked_.size() && is_all_placed())
            return ends_well();
        if (failed_.size() > ENOUGH || failed_.contains(state_at(walked)))
            return false;
        if (walked < walked_.size() && put(walked_[walked], [&] { return go_on(walked + 1); }))
            return true;
        for (auto &[priority, left] : others_) {
            if (left.empty())
                continue;
            const contender next = left.back();
            left.pop_back();
            if (put(next, [&] { return go_on(walked); }))
                return true;
            left.push_back(next);
        }
        failed_.insert(state_at(walked));
        return false;
    }
    // Puts it behind those that have a place, if the last of them agrees.
    template <typename Then>
    bool put(const contender &next, const Then &then)
    {
        if (!placed_.empty() && !agrees(placed_.back(), next.priority > placed_.back().priority))
            return false;
        placed_.push_back(next);
        if (then())
            return true;
        placed_.pop_back();
        return false;
    }
    bool ends_well() const
    {
        const size_t count = placed_.size();
        return count == 0 ||
               agrees(placed_.back(), count > 1 && placed_.back().priority <= placed_[count - 2].priority);
    }
    static bool agrees(const contender &of, bool lost) { return of.heard == NOT_COMPARED || (of.heard != 0) == lost; }
    bool is_all_placed() const
    {
        return std::ranges::all_of(others_, [](const auto &left) { return left.second.empty(); });
    }
    state state_at(size_t walked) const
    {
        std::vector<size_t> left;
        for (const auto &[priority, users] : others_)
            left.push_back(users.size());
        return placed_.empty() ? state(walked, left, 0, NOT_COMPARED)
                               : state(walked, left, placed_.back().priority, placed_.back().heard);
    }
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const contender &each : placed_)
            all.push_back(each.user);
        return all;
    }

    static constexpr size_t ENOUGH = 10'000;
    std::vector<contender> walked_;
    std::map<int32_t, std::vector<contender>> others_{};  // those without a place, by priority
    std::vector<contender> placed_{};
    std::set<state> failed_{};
};

}  // namespace

std::vector<verdict> decide_as_heard(const std::vector<claim> &claims, const std::vector<int32_t> &heard,
                                     const walked_places &walk)
{
    const std::vector<verdict> first = decide_walked(claims, walk);
    std::vector<contender> walked;
    std::vector<contender> others;
    for (size_t i = 0; i < claims.size(); ++i)
        if (first[i].result != NOT_COMPARED)
            (walk.contains(claims[i].user) ? walked : others).push_back({claims[i].user, claims[i].priority, heard[i]});
    std::ranges::sort(walked, {}, [&](const contender &of) { return walk.of(of.user); });
    const std::vector<std::string> order = interleaving(std::move(walked), others).find();
    return order.empty() ? first : decide_walked(claims, walked_places(order));
}

}  // namespace ebridge_tool
