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
    bool contains(const std::string &user) const { return places_.contains(user); }
    // Behind all others for a name that is not in it.
    size_t of(const std::string &user) const;

  private:
    std::unordered_map<std::string, size_t> places_{};
};

// decide() of claims in any order, and the verdicts in that order, too.
std::vector<verdict> decide_walked(const std::vector<claim> &claims, const walked_places &walk);

// The same where the walk does not tell the places of all users: in an order that leaves those of which it does as they are,
// and brings out what was heard of each claim (NOT_COMPARED: nothing). The others last, where there is none.
std::vector<verdict> decide_as_heard(const std::vector<claim> &claims, const std::vector<int32_t> &heard,
                                     const walked_places &walk);

}  // namespace ebridge_tool
