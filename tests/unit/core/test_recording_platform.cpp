// The recording platform itself: what the other tests believe must be true.
#include <cstdlib>

#include "core_fixture.hpp"
#include "qz_zlog.h"

namespace core_test
{
namespace
{

template <typename... Args>
std::string at(const char *text, Args... args)
{
    char out[64];
    at_snprintf(out, sizeof out, text, args...);
    return out;
}

const int kTarget = 0;

TEST(RecordingPlatform, FormatterKnowsStandardConversions)
{
    EXPECT_EQ("-7|007|1f|0x1f|x|abc|  ab", at("%d|%03u|%x|0x%x|%c|%s|%4.2s", -7, 7u, 31u, 31u, 'x', "abc", "abc"));
    EXPECT_EQ("  5|abc|123456789012|%", at("%*d|%.*s|%lld|%%", 3, 5, 3, "abcdef", 123456789012ll));
    const void *const somewhere = &kTarget;
    EXPECT_EQ(format("%p", somewhere), at("%p", somewhere));
}

TEST(RecordingPlatform, FormatterKnowsAddressesAndCopiesUnknownConversions)
{
    const uint8_t bytes[4] = {10, 1, 2, 3};
    uint32_t ipv4 = 0;
    std::memcpy(&ipv4, bytes, sizeof ipv4);
    const uint8_t mac[6] = {0, 0x1b, 2, 3, 4, 0xff};
    EXPECT_EQ("10.1.2.3 00:1b:02:03:04:ff (null)", at("%a %m %v", ipv4, mac, static_cast<const uint8_t *>(nullptr)));
    EXPECT_EQ("HASH[%] 5", at("HASH[%] %d", 5));
}

TEST(RecordingPlatform, FormatterCutsAndReturnsTheWholeLength)
{
    char out[4];
    EXPECT_EQ(6, at_snprintf(out, sizeof out, "%s", "abcdef"));
    EXPECT_STREQ("abc", out);
}

TEST(RecordingPlatform, RendersRecordsInFull)
{
    UBridge__EvlanSession session = U_BRIDGE__EVLAN_SESSION__INIT;
    EXPECT_EQ("u_bridge.evlan_session{}", recording::render(&session.base));
    UBridge__EvlanAppIndex index = U_BRIDGE__EVLAN_APP_INDEX__INIT;
    session.index = &index;
    EXPECT_EQ("u_bridge.evlan_session{index{}}", recording::render(&session.base));
    char name[] = "app";
    index.t_user = name;
    index.type = 32;
    session.priority = U_BRIDGE__RES_PRIORITY__LEVEL_2;
    session.reply_value = -1;
    EXPECT_EQ("u_bridge.evlan_session{index{t_user:\"app\" type:32} priority:2 reply_value:-1}",
              recording::render(&session.base));
}

TEST(RecordingPlatform, RendersListsAndTheChosenView)
{
    uint32_t words[] = {7, 0};
    UBridge__Bitmap bitmap = U_BRIDGE__BITMAP__INIT;
    bitmap.value = words;
    bitmap.n_value = 2;
    EXPECT_EQ("u_bridge.bitmap{value:[7 0]}", recording::render(&bitmap.base));
    UBridge__EvlanAttrUnderlay underlay = U_BRIDGE__EVLAN_ATTR_UNDERLAY__INIT;
    underlay.svl = 1;
    UBridge__Evlan evlan = U_BRIDGE__EVLAN__INIT;
    evlan.attr_case = U_BRIDGE__EVLAN__ATTR_UNDERLAY;
    evlan.underlay = &underlay;
    EXPECT_EQ("u_bridge.evlan{underlay{svl:1}}", recording::render(&evlan.base));
}

TEST(RecordingPlatform, ResultsCountFromTheirSetting)
{
    const auto del = [] { return qz_mom_del(recording::handle(), 4, nullptr, nullptr, nullptr); };
    recording::set_result("qz_mom_del", -9, 2);
    EXPECT_EQ(0, del());
    EXPECT_EQ(-9, del());
    EXPECT_EQ(0, del());
    recording::set_result("qz_mom_del", -8);
    EXPECT_EQ(-8, del());
    EXPECT_EQ(-8, del());
    recording::reset();
    EXPECT_EQ(0, del());
}

TEST(RecordingPlatform, EachResultCountsEveryCall)
{
    const auto del = [] { return qz_mom_del(recording::handle(), 4, nullptr, nullptr, nullptr); };
    recording::set_result("qz_mom_del", -7, 1);
    recording::set_result("qz_mom_del", -9, 3);
    EXPECT_EQ(-7, del());
    EXPECT_EQ(0, del());
    EXPECT_EQ(-9, del());
    EXPECT_EQ(0, del());
}

TEST(RecordingPlatform, ALookUpThatIsMadeToFailFillsItsWordAllTheSame)
{
    recording::ports() = {{33, 5, 0, 0, 0}};
    recording::set_result("libddm_get_phyid_by_ifx", 9);
    uint32_t phyid = 1;
    EXPECT_EQ(9, libddm_get_phyid_by_ifx(33, &phyid));
    EXPECT_EQ(5u, phyid);
    EXPECT_EQ(9, libddm_get_phyid_by_ifx(34, &phyid));
    recording::set_result("libddm_get_phyid_by_ifx", 0);
    EXPECT_EQ(LIBDDM_ENOENT, libddm_get_phyid_by_ifx(34, &phyid));
    EXPECT_EQ(5u, phyid);
}

TEST(RecordingPlatform, AllocationsFailByCount)
{
    recording::fail_allocation(2);
    void *first = std::malloc(8);
    void *second = std::calloc(3, 8);
    void *third = std::malloc(8);
    const uint64_t counted = recording::allocations();
    const uint64_t refused = recording::refused_bytes();
    recording::fail_allocation(0);
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(nullptr, second);
    EXPECT_NE(nullptr, third);
    EXPECT_EQ(3u, counted);
    EXPECT_EQ(24u, refused);
    recording::fail_allocation(1, true);
    void *grown = std::realloc(first, 16);
    void *later = std::malloc(8);
    recording::fail_allocation(0);
    EXPECT_EQ(nullptr, grown);
    EXPECT_EQ(nullptr, later);
    const void *wanted = third;
    EXPECT_THAT(freed_by([&] { std::free(third); }), Contains(wanted));
    if (grown == nullptr)  // as it should be; otherwise the block is gone
        std::free(first);
}

}  // namespace
}  // namespace core_test
