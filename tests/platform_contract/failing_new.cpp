// Replaces operator new. In a file of its own, so that no compiler pairs its parts with what it has inlined elsewhere.
#include "failing_new.hpp"

#include <cstdlib>
#include <new>

namespace contract
{

constinit std::atomic<int64_t> allocations_left = -1;

}  // namespace contract

// Counts one more, if there may be one more.
static bool is_allowed()
{
    int64_t left = contract::allocations_left;
    while (left > 0 && !contract::allocations_left.compare_exchange_weak(left, left - 1)) {
    }
    return left != 0;
}

void *operator new(size_t size)
{
    if (!is_allowed())
        throw std::bad_alloc();
    void *memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void *memory) noexcept { std::free(memory); }

void operator delete(void *memory, size_t) noexcept { std::free(memory); }
