// Values of attribute sets, most of them at their default, from a fixed seed.
#pragma once

#include <cstdint>
#include <random>

class sparse_values
{
  public:
    explicit sparse_values(uint32_t seed) : random_(seed) {}
    uint32_t below(uint32_t end) { return static_cast<uint32_t>(random_() % end); }
    bool one_in(uint32_t n) { return below(n) == 0; }
    uint32_t word() { return one_in(3) ? static_cast<uint32_t>(random_()) : 0; }

  private:
    std::mt19937 random_;
};
