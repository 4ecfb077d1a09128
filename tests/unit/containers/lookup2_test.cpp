// The hash of the keyed caches against values published for lookup2 with initial value 0.
#include "lookup2.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string_view>

namespace
{

uint32_t hash_of(std::string_view text, uint32_t initial = 0)
{
    return sw::lookup2(reinterpret_cast<const uint8_t *>(text.data()), text.size(), initial);
}

struct published {
    std::string_view text;
    uint32_t hash;
};

constexpr published PUBLISHED[] = {
    {"", 0xbd49d10d},
    {"a", 0x29eec818},
    {"ab", 0x9879ac41},
    {"abc", 0x251e4793},
    {"abcd", 0x5ae61fa5},
    {"abcde", 0x03a96866},
    {"abcdef", 0xde922732},
    {"abcdefg", 0xb9e6762c},
    {"abcdefgh", 0x053f775e},
    {"abcdefghi", 0x3a7b0a5f},
    {"abcdefghij", 0xc9cac242},
    {"abcdefghijk", 0xe52b8e4c},
    {"abcdefghijkl", 0x0b1b3ea5},
    {"abcdefghijklm", 0x3122b031},
    {"abcdefghijklmn", 0xfec330e0},
    {"abcdefghijklmno", 0x11dccf31},
    {"abcdefghijklmnop", 0xfa1ecf51},
    {"hello, world", 0x37a0e989},
    {"foobar", 0x9d3ffa02},
};

TEST(Lookup2, GivesThePublishedValues)
{
    for (const published &p : PUBLISHED)
        EXPECT_EQ(hash_of(p.text), p.hash) << '"' << p.text << '"';
}

// The definition, word by word, for the lengths of the cached keys.
uint32_t by_definition(const uint8_t *key, size_t length)
{
    uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = 0;
    const auto mix = [&] {
        a = (a - b - c) ^ c >> 13;
        b = (b - c - a) ^ a << 8;
        c = (c - a - b) ^ b >> 13;
        a = (a - b - c) ^ c >> 12;
        b = (b - c - a) ^ a << 16;
        c = (c - a - b) ^ b >> 5;
        a = (a - b - c) ^ c >> 3;
        b = (b - c - a) ^ a << 10;
        c = (c - a - b) ^ b >> 15;
    };
    const auto word = [&](size_t i) {
        return key[i] | static_cast<uint32_t>(key[i + 1]) << 8 | static_cast<uint32_t>(key[i + 2]) << 16 |
               static_cast<uint32_t>(key[i + 3]) << 24;
    };
    size_t i = 0;
    for (; i + 12 <= length; i += 12) {
        a += word(i), b += word(i + 4), c += word(i + 8);
        mix();
    }
    if (length - i >= 4)
        a += word(i);
    if (length - i >= 8)
        b += word(i + 4);
    c += static_cast<uint32_t>(length);
    mix();
    return c;
}

template <size_t Length>
void expect_definition()
{
    std::array<uint8_t, Length> key;
    for (size_t i = 0; i < Length; ++i)
        key[i] = static_cast<uint8_t>(0xf3 - 7 * i);
    EXPECT_EQ(sw::lookup2_of<Length>(key.data()), by_definition(key.data(), Length)) << Length;
}

TEST(Lookup2, FollowsTheDefinitionAtTheLengthsOfTheCachedKeys)
{
    expect_definition<4>();   // final mix alone
    expect_definition<16>();  // a block, one word of tail
    expect_definition<20>();  // a block, two words
    expect_definition<32>();  // two blocks, two words
    expect_definition<36>();  // blocks alone
    expect_definition<92>();
    expect_definition<96>();
}

TEST(Lookup2, IsTheSameAtEveryAlignment)
{
    alignas(8) uint8_t space[64];
    const uint32_t expected = hash_of("a key of thirty-two bytes, here.");
    for (size_t shift = 0; shift < 8; ++shift) {
        std::memcpy(space + shift, "a key of thirty-two bytes, here.", 32);
        EXPECT_EQ(sw::lookup2_of<32>(space + shift), expected) << shift;
    }
}

TEST(Lookup2, DependsOnTheInitialValue) { EXPECT_NE(hash_of("abc", 1), hash_of("abc")); }

TEST(Lookup2, WorksInConstantExpressions)
{
    constexpr uint8_t text[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm'};
    static_assert(sw::lookup2(text, 0) == 0xbd49d10d);
    static_assert(sw::lookup2(text, 13) == 0x3122b031);
}

}  // namespace
