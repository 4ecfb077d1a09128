// An operator new that fails on demand, for this program and the libraries that it loads.
#ifndef PLATFORM_CONTRACT_FAILING_NEW_HPP
#define PLATFORM_CONTRACT_FAILING_NEW_HPP

#include <atomic>
#include <cstdint>

namespace contract
{

// Allocations that still succeed; below 0 all do.
extern std::atomic<int64_t> allocations_left;

}  // namespace contract
#endif
