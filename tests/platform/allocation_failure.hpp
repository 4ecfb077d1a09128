// Makes an allocation of the process fail, so that the "without memory" code of a library can be seen. The program that
// links allocation_failure.cpp replaces the global operator new, for its shared libraries too.
#pragma once

#include <cstdint>

// The nth allocation from now on, and every one after it, throws std::bad_alloc; 0 ends that.
void fail_allocations_from(uint64_t nth);
// How many have failed so far.
uint64_t failed_allocations();

// As long as it lives allocations succeed, and do not count: a test's own within what it tests.
class memory_for_the_test
{
  public:
    memory_for_the_test();
    ~memory_for_the_test();
    memory_for_the_test(const memory_for_the_test &) = delete;
    memory_for_the_test &operator=(const memory_for_the_test &) = delete;

  private:
    uint64_t left_;
};

// Calls `operation` with the first, then the second ... allocation failing until it gives something else than `code`,
// and returns how many failures it reported. `operation` must be harmless to repeat.
template <typename Operation, typename Code>
uint32_t failures_reported(Operation operation, Code code)
{
    for (uint32_t nth = 1;; ++nth) {
        fail_allocations_from(nth);
        const bool failed = operation() == code;
        fail_allocations_from(0);
        if (!failed)
            return nth - 1;
    }
}
