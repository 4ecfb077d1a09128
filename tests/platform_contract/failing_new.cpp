// Replaces operator new. In a file of its own, so that no compiler pairs its parts with what it has inlined elsewhere.
#include "failing_new.hpp"

#include <cstdlib>
#include <new>

namespace contract
{

int64_t allocations_left = -1;

}  // namespace contract

void *operator new(size_t size)
{
    if (contract::allocations_left == 0)
        throw std::bad_alloc();
    if (contract::allocations_left > 0)
        --contract::allocations_left;
    void *memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void *memory) noexcept { std::free(memory); }

void operator delete(void *memory, size_t) noexcept { std::free(memory); }
