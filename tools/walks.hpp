// Deciding among users in the order in which another process walks them.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "verdicts.hpp"

namespace ebridge_tool
{

// Places of users in a walk.
class walked_places
{
  public:
    explicit walked_places(const std::vector<std::string> &walk);
    // Behind all others for a name that is not in it.
    size_t of(const std::string &user) const;

  private:
    std::unordered_map<std::string, size_t> places_{};
};

// decide() of claims in any order, and the verdicts in that order, too.
std::vector<verdict> decide_walked(const std::vector<claim> &claims, const walked_places &walk);

// What was decided on a key.
struct decided_key {
    std::vector<claim> claims;
    std::vector<int32_t> results;  // of each; NOT_COMPARED where it is not known, or nothing was decided

    // Whether that is what comes out when users are walked so.
    bool is_explained_by(const walked_places &walk) const;
};

// A walk with some others in it, placed where they explain what was decided, or as much of it as can be found.
std::vector<std::string> walk_with(const std::vector<std::string> &others, std::vector<std::string> walk,
                                   const std::vector<decided_key> &decided);

}  // namespace ebridge_tool
