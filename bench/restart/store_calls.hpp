// Counts what the library asks of the store client: the program defines the calls itself, and hands each on to the real
// one.
#pragma once

#include <array>
#include <cstdint>

namespace bench
{

enum store_call { SCAN, SUBSCRIBE, HMSET, SET, CLEAR_EXPIRE, DEL, PEXPIRE, DEL_EXPIRE, STORE_CALLS };
inline constexpr std::array<const char *, STORE_CALLS> STORE_CALL_NAMES{
    "scan", "subscribe", "hmset", "set", "clear_expire", "del", "pexpire", "del_expire"};

using call_counts = std::array<uint64_t, STORE_CALLS>;

// Of this process, since it was asked last.
call_counts take_call_counts();

}  // namespace bench
