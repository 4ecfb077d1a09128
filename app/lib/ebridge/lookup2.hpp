// Bob Jenkins' lookup2, the hash of all keyed caches (http://burtleburtle.net/bob/hash/doobs.html).
//
// Keys are read byte by byte as little-endian words: any alignment, the same value on every target. Compilers turn each
// word into one load where the target allows it, and unroll the whole when the length is a constant.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sw
{

namespace lookup2_detail
{

struct state {
    uint32_t a, b, c;
};

constexpr uint32_t word(const uint8_t *bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// The first `count` (0 to 4) bytes of a word; the others are 0.
constexpr uint32_t partial_word(const uint8_t *bytes, size_t count)
{
    if (count >= 4)
        return word(bytes);
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value |= static_cast<uint32_t>(bytes[i]) << (8 * i);
    return value;
}

constexpr void mix(state &s)
{
    s.a -= s.b, s.a -= s.c, s.a ^= s.c >> 13;
    s.b -= s.c, s.b -= s.a, s.b ^= s.a << 8;
    s.c -= s.a, s.c -= s.b, s.c ^= s.b >> 13;
    s.a -= s.b, s.a -= s.c, s.a ^= s.c >> 12;
    s.b -= s.c, s.b -= s.a, s.b ^= s.a << 16;
    s.c -= s.a, s.c -= s.b, s.c ^= s.b >> 5;
    s.a -= s.b, s.a -= s.c, s.a ^= s.c >> 3;
    s.b -= s.c, s.b -= s.a, s.b ^= s.a << 10;
    s.c -= s.a, s.c -= s.b, s.c ^= s.b >> 15;
}

}  // namespace lookup2_detail

[[gnu::always_inline]] constexpr inline uint32_t lookup2(const uint8_t *key, size_t length, uint32_t initial = 0)
{
    using namespace lookup2_detail;
    state s{0x9e3779b9, 0x9e3779b9, initial};
    size_t left = length;
    for (; left >= 12; key += 12, left -= 12) {
        s.a += word(key);
        s.b += word(key + 4);
        s.c += word(key + 8);
        mix(s);
    }
    // The low byte of c is the length's, so the last three bytes of the tail stand one byte higher.
    s.a += partial_word(key, left);
    s.b += left > 4 ? partial_word(key + 4, left - 4) : 0;
    s.c += left > 8 ? partial_word(key + 8, left - 8) << 8 : 0;
    s.c += static_cast<uint32_t>(length);
    mix(s);
    return s.c;
}

// The hash of a key whose length is known to the compiler.
template <size_t Length>
uint32_t lookup2_of(const void *key)
{
    return lookup2(static_cast<const uint8_t *>(key), Length);
}

}  // namespace sw
