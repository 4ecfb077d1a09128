// Deciding among users in an order that is not that of the claims. See walks.hpp.
#include "walks.hpp"

#include <algorithm>

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
    std::ranges::stable_sort(order, {}, [&](int i) { return walk.of(claim_at(i).user); });
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

bool decided_key::is_explained_by(const walked_places &walk) const
{
    const std::vector<verdict> verdicts = decide_walked(claims, walk);
    for (size_t i = 0; i < results.size(); ++i)
        if (results[i] != NOT_COMPARED && verdicts[i].result != NOT_COMPARED && results[i] != verdicts[i].result)
            return false;
    return true;
}

namespace
{

// Puts one user at a time where most of what was decided on its keys comes out.
class placement
{
  public:
    placement(std::vector<std::string> walk, const std::vector<decided_key> &decided) : walk_(std::move(walk))
    {
        for (const decided_key &key : decided)
            for (const claim &each : key.claims)
                if (auto &keys = keys_of_[each.user]; keys.empty() || keys.back() != &key)
                    keys.push_back(&key);
    }

    // False when no other place is better.
    bool place(const std::string &user)
    {
        size_t best = unexplained(user, walk_);
        std::vector<std::string> others = walk_;
        std::erase(others, user);
        bool better = false;
        for (size_t place = 0; best != 0 && place <= others.size(); ++place) {
            std::vector<std::string> tried = others;
            tried.insert(tried.begin() + static_cast<std::ptrdiff_t>(place), user);
            const size_t left = unexplained(user, tried);
            if (left >= best)
                continue;
            best = left;
            walk_ = std::move(tried);
            better = true;
        }
        return better;
    }
    const std::vector<std::string> &walk() const { return walk_; }

  private:
    size_t unexplained(const std::string &user, const std::vector<std::string> &walk)
    {
        const walked_places at(walk);
        return static_cast<size_t>(
            std::ranges::count_if(keys_of_[user], [&](const decided_key *key) { return !key->is_explained_by(at); }));
    }

    std::vector<std::string> walk_;
    std::unordered_map<std::string, std::vector<const decided_key *>> keys_of_{};
};

}  // namespace

std::vector<std::string> walk_with(const std::vector<std::string> &others, std::vector<std::string> walk,
                                   const std::vector<decided_key> &decided)
{
    walk.insert(walk.end(), others.begin(), others.end());
    placement places(std::move(walk), decided);
    for (bool better = true; better;) {
        better = false;
        for (const std::string &user : others)
            better |= places.place(user);
    }
    return places.walk();
}

}  // namespace ebridge_tool
