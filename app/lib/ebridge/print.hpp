// Where dumps and operator messages go: to the debug-shell client whose handler runs, or else to standard output.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "ssat.h"

namespace sw
{

// Returns the printed length.
__attribute__((format(printf, 1, 2))) inline int32_t print(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int32_t length = ssat_vprint(format, args);
    va_end(args);
    return length;
}

// The non-zero words of a bitmap from the highest to the lowest, each with the bits it covers, and a newline.
inline void print_bitmap(const uint32_t *words, uint32_t count)
{
    for (uint32_t i = count; i-- > 0;) {
        if (words[i] != 0)
            print("bmp[%d]:0x%08x(pos:%d-%d), ", static_cast<int>(i), words[i], static_cast<int>(i * 32 + 31),
                  static_cast<int>(i * 32));
    }
    print("\n");
}

// The rules between the records of a dump.
inline constexpr char kRule81[] = "---------------------------------------------------------------------------------\n";
inline constexpr char kRule100[] =
    "----------------------------------------------------------------------------------------------------\n";
static_assert(sizeof kRule81 == 81 + 2 && sizeof kRule100 == 100 + 2);

}  // namespace sw
