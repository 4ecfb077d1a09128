// An operator new that fails on demand, for this program and the libraries that it loads.
#ifndef PLATFORM_CONTRACT_FAILING_NEW_HPP
#define PLATFORM_CONTRACT_FAILING_NEW_HPP

#include <cstdint>

namespace contract
{

// Allocations that still succeed; below 0 all do.
extern int64_t allocations_left;

}  // namespace contract
#endif
