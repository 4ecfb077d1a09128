// Who wins among users that want different things done with the same traffic: the decision for one key, stated apart from
// the library's, so that "ebridge run" can check what was decided and "ebridge show" can tell why.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ebridge_tool
{

// A user's rule for the key.
struct claim {
    std::string user;
    int32_t priority;
};

// In place of a result: the user has another rule for the key, of a higher priority, and only that one is compared.
constexpr int32_t NOT_COMPARED = -1;

struct verdict {
    int32_t result;  // as in the record: 0 success, 1 lost by priority; or NOT_COMPARED
    int lost_to;     // index of the claim that it lost to; -1 none

    bool operator==(const verdict &) const = default;
};

// Whether these are names of one user: the registry cuts what is longer than a name can be.
bool same_user(const std::string &a, const std::string &b);

// One verdict for each claim. Claims of one user stand together; of each user the one of the highest priority counts.
// What counts is compared with its neighbours only, so more than one can succeed.
std::vector<verdict> decide(const std::vector<claim> &in_walk_order);
// Index of the claim that the library remembers as the winner: the last one that beat the one before it, or the first.
// -1 of none.
int winner(const std::vector<claim> &in_walk_order);

// The order in which the registry of this process walks its users. It depends on which names are registered, and, where
// names share a place, on which came first: another process may walk the same users in another order.
class walk_order
{
  public:
    // Registers these names, beside those that are registered already. What is registered later is not in the order.
    explicit walk_order(const std::vector<std::string> &users);

    // Place in the walk, counted from 0; behind all others for a name that is not in it.
    size_t place(const std::string &user) const;
    // Claims of one user stay in the order in which they are.
    void sort(std::vector<claim> *claims) const;

  private:
    std::map<std::string, size_t> places_{};
};

}  // namespace ebridge_tool
