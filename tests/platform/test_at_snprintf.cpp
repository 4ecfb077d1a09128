// at_snprintf against its header: like snprintf in all that snprintf knows, plus the three address conversions.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

#include "qz_zlog.h"

namespace
{

template <typename... Values>
std::string formatted(const char *format, Values... values)
{
    std::array<char, 1024> text;
    text.fill('#');
    const int32_t length = at_snprintf(text.data(), text.size(), format, values...);
    EXPECT_EQ(std::string(text.data()).size(), static_cast<size_t>(length)) << format;
    return text.data();
}

// Both formatters give the same text and length, in a buffer that holds it, one that cuts it, and none at all.
template <typename... Values>
void expect_like_snprintf(const char *format, Values... values)
{
    for (size_t size : {size_t{1024}, size_t{5}, size_t{1}, size_t{0}}) {
        std::array<char, 1024> ours, theirs;
        ours.fill('#');
        theirs.fill('#');
        EXPECT_EQ(std::snprintf(theirs.data(), size, format, values...),
                  at_snprintf(ours.data(), size, format, values...))
            << format << " in " << size;
        EXPECT_EQ(theirs, ours) << format << " in " << size;
    }
}

}  // namespace

TEST(AtSnprintf, CopiesPlainTextAndLeavesSurplusArgumentsAlone)
{
    expect_like_snprintf("", 0);
    expect_like_snprintf("Assert:Bad index.\n", 0);
    expect_like_snprintf("100%%, %% and %%%%", 0);
}

TEST(AtSnprintf, IntegersOfEveryLength)
{
    for (const char *format : {"%d", "%i", "%5d|", "%-5d|", "%05d", "%+d", "% d", "%.3d", "%8.3d", "%hd", "%hhd"})
        for (int value : {0, 1, -1, 42, 70'000, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()})
            expect_like_snprintf(format, value);
    for (const char *format : {"%u", "%x", "%X", "%o", "%#x", "%#o", "%08x", "0x%x", "%hu", "%hhx"})
        for (unsigned value : {0U, 1U, 255U, 70'000U, std::numeric_limits<unsigned>::max()})
            expect_like_snprintf(format, value);
    expect_like_snprintf("%ld %li %lu %lx", -5'000'000L, 7L, 5'000'000UL, 0xffUL);
    expect_like_snprintf("%lld %llu %llX", std::numeric_limits<long long>::min(),
                         std::numeric_limits<unsigned long long>::max(), 0xabcdULL);
    expect_like_snprintf("%jd %ju", std::numeric_limits<intmax_t>::min(), std::numeric_limits<uintmax_t>::max());
    expect_like_snprintf("%zu %zx %zd", size_t{1} << 31, size_t{77}, ssize_t{-3});
    expect_like_snprintf("%td %tu", ptrdiff_t{-3}, ptrdiff_t{3});
}

TEST(AtSnprintf, FloatingPoint)
{
    for (const char *format :
         {"%f", "%F", "%e", "%E", "%g", "%G", "%A", "%.2f", "%10.3e|", "%-10g|", "%+.0f", "%#.0f", "%lf"})
        for (double value : {0.0, 1.5, -2.25e10, 1e-9})
            expect_like_snprintf(format, value);
    expect_like_snprintf("%Lf %.3Le", 1.5L, -2.25L);
}

TEST(AtSnprintf, TextsCharactersAndPointers)
{
    int object = 0;
    expect_like_snprintf("%s|%10s|%-10s|%.2s|%10.2s|", "name", "name", "name", "name", "name");
    expect_like_snprintf("%s", "");
    expect_like_snprintf("%c%5c|%-3c|", 'a', 'b', 'c');
    expect_like_snprintf("%ls %lc", L"wide", static_cast<wint_t>(L'w'));
    expect_like_snprintf("0x%p %20p", static_cast<void *>(&object), static_cast<void *>(nullptr));
}

TEST(AtSnprintf, WidthAndPrecisionFromTheArguments)
{
    expect_like_snprintf("%*d|%-*d|%0*d", 6, 42, 6, 42, 6, 42);
    expect_like_snprintf("%*d|", -6, 42);
    expect_like_snprintf("%.*s|%.*f", 2, "name", 3, 1.0);
    expect_like_snprintf("%*.*s|%*.*lld", 6, 2, "name", 8, 4, -5LL);
    expect_like_snprintf("%.*s|", -1, "name");
    expect_like_snprintf("%*.2f|%6.*f|", 7, 1.0, 1, 1.0);
}

TEST(AtSnprintf, ManyArgumentsKeepTheirPlaces)
{
    expect_like_snprintf("%d %s %f %lld %c %zu %x %g %s %u %ld %hhd %p", 1, "two", 3.0, 4LL, '5', size_t{6}, 7U, 8.0,
                         "nine", 10U, 11L, 12, static_cast<void *>(nullptr));
}

TEST(AtSnprintf, Ipv4InMemoryOrder)
{
    EXPECT_EQ("10.1.2.254", formatted("%a", inet_addr("10.1.2.254")));
    EXPECT_EQ("<0.0.0.0> 7 <255.255.255.255>", formatted("<%a> %d <%a>", uint32_t{0}, 7, ~uint32_t{0}));
}

TEST(AtSnprintf, Ipv6InItsShortForm)
{
    unsigned char address[16];
    for (const char *text : {"::", "::1", "2001:db8::1", "fe80::1:2:3:4", "1:2:3:4:5:6:7:8"}) {
        ASSERT_EQ(1, inet_pton(AF_INET6, text, address));
        EXPECT_EQ(std::string(text) + ".", formatted("%v.", static_cast<const void *>(address)));
    }
}

TEST(AtSnprintf, MacInSixPairs)
{
    const unsigned char mac[] = {0x00, 0x1A, 0x2b, 0x3c, 0x4d, 0xfe};
    EXPECT_EQ("mac 00:1a:2b:3c:4d:fe!", formatted("mac %m!", mac));
}

TEST(AtSnprintf, NullAddressesPrintNull)
{
    EXPECT_EQ("(null) (null)",
              formatted("%v %m", static_cast<const void *>(nullptr), static_cast<const void *>(nullptr)));
}

TEST(AtSnprintf, AddressesMixWithTheOthersArguments)
{
    const unsigned char mac[] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ("1 127.0.0.1 x 01:02:03:04:05:06 2.5 -9",
              formatted("%d %a %s %m %.1f %lld", 1, inet_addr("127.0.0.1"), "x", mac, 2.5, -9LL));
}

TEST(AtSnprintf, UnknownConversionIsCopiedAndTakesNoArgument)
{
    EXPECT_EQ("Assert:HASH[%] init failed. 7", formatted("Assert:HASH[%] init failed. %d", 7));
    EXPECT_EQ("%k %y %5.3k %*k 7", formatted("%k %y %5.3k %*k %d", 7));
    EXPECT_EQ("%1$d 7", formatted("%1$d %d", 7));
    EXPECT_EQ("%lls %hf %Ld %zs 7", formatted("%lls %hf %Ld %zs %d", 7));
    EXPECT_EQ("%-% 7", formatted("%-% %d", 7));
}

TEST(AtSnprintf, AddressConversionsTakeNoFlagsWidthPrecisionOrLength)
{
    EXPECT_EQ("%5a %-v %.2m %la 7", formatted("%5a %-v %.2m %la %d", 7));
}

TEST(AtSnprintf, NeverWritesIntoTheArguments) { EXPECT_EQ("a%nb 7", formatted("a%nb %d", 7)); }

TEST(AtSnprintf, UnfinishedConversionIsCopied)
{
    EXPECT_EQ("100%", formatted("100%"));
    EXPECT_EQ("x %-08.3l", formatted("x %-08.3l"));
}

TEST(AtSnprintf, ConversionOfEndlessFlagsIsCopied)
{
    const std::string endless = "%" + std::string(200, '0') + "d";
    EXPECT_EQ(endless + " 7", formatted((endless + " %d").c_str(), 7));
}

TEST(AtSnprintf, CutsAddressesToTheSizeAndReturnsTheWholeLength)
{
    char text[8] = "#######";
    EXPECT_EQ(18, at_snprintf(text, 6, "%m.", "\1\2\3\4\5\6"));
    EXPECT_STREQ("01:02", text);
    EXPECT_EQ('#', text[6]);
    const unsigned char address[16] = {0x20, 0x01, 0x0d, 0xb8};
    EXPECT_EQ(12, at_snprintf(text, 4, "%v %d", static_cast<const void *>(address), 7));
    EXPECT_STREQ("200", text);
    EXPECT_EQ(4, at_snprintf(text, 4, "a%kb"));
    EXPECT_STREQ("a%k", text);
}

TEST(AtSnprintf, SizeZeroAndNullTextOnlyCount)
{
    char text[] = "untouched";
    EXPECT_EQ(7, at_snprintf(text, 0, "%a", uint32_t{0}));
    EXPECT_STREQ("untouched", text);
    EXPECT_EQ(7, at_snprintf(nullptr, 10, "%a", uint32_t{0}));
}

TEST(AtSnprintf, ReportsWhatCannotBeFormatted)
{
    char text[16] = "before";
    EXPECT_EQ(-1, at_snprintf(text, sizeof text, "a%lcb", static_cast<wint_t>(0x20ac)));  // not in the C locale
    EXPECT_STREQ("ab", text);
    EXPECT_EQ(-1, at_snprintf(text, sizeof text, nullptr));
    EXPECT_STREQ("", text);
}
