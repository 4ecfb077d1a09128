// The replaced operator new; see allocation_failure.hpp.
#include "allocation_failure.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{

std::atomic<uint64_t> left{0};  // allocations until the failing one, itself included; 0: none fails
std::atomic<uint64_t> failed{0};

bool fails()
{
    const uint64_t now = left.load();
    if (now == 0)
        return false;
    if (now == 1) {
        ++failed;
        return true;
    }
    left = now - 1;
    return false;
}

}  // namespace

void fail_allocations_from(uint64_t nth) { left = nth; }

uint64_t failed_allocations() { return failed; }

memory_for_the_test::memory_for_the_test() : left_(left.exchange(0)) {}

memory_for_the_test::~memory_for_the_test() { left = left_; }

void *operator new(std::size_t size)
{
    void *block = fails() ? nullptr : std::malloc(size ? size : 1);
    if (!block)
        throw std::bad_alloc();
    return block;
}

void operator delete(void *block) noexcept { std::free(block); }

void operator delete(void *block, std::size_t) noexcept { std::free(block); }
