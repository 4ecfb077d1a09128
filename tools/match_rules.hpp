// What becomes of an access list: an ACL rule is expressed as match rules, none, one or several.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config.hpp"
#include "sw_ebridge.h"

namespace ebridge_tool
{

// The levels of a match rule, in which all priorities of a configuration have to find a place. Where these are 0 to 7
// they are the levels themselves; else those that occur, in their order, are cut into eight parts as equal as can be.
// So up to eight of them keep their order whole, and of more none ever changes places with another.
class priority_levels
{
  public:
    explicit priority_levels(const std::vector<acl_rule> &rules);
    int32_t of(uint32_t priority) const;

  private:
    std::vector<uint32_t> occurring_;  // sorted; empty: priorities are levels
};

// A rule without its user.
struct expressed_rule {
    std::vector<sw_ematch_item> rules;  // one for each of its ports, or one for all; users are null
    std::string reason;                 // why there is none
};
expressed_rule express(const acl_rule &rule, const priority_levels &levels);

}  // namespace ebridge_tool
