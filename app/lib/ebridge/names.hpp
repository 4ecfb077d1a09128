// User names: 31 characters and a terminator, NUL-padded, because the whole field is part of hashed keys.
#pragma once

#include <cstring>

#include "sw_ebridge.h"

namespace sw
{

[[gnu::noinline]] inline void copy_name(char (&to)[SW_EBRIDGE_NAME_SIZE], const char *from)
{
    const size_t length = strnlen(from, SW_EBRIDGE_NAME_SIZE - 1);
    std::memmove(to, from, length);  // a stored name may be handed in itself
    std::memset(to + length, 0, SW_EBRIDGE_NAME_SIZE - length);
}

inline bool same_name(const char *a, const char *b) { return a != nullptr && b != nullptr && std::strcmp(a, b) == 0; }

}  // namespace sw
