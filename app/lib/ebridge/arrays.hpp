// Length of an array, as the 32-bit count that the platform's calls take.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sw
{

template <typename Element, size_t Length>
constexpr uint32_t count_of(const Element (&)[Length])
{
    return static_cast<uint32_t>(Length);
}

}  // namespace sw
