// The counters and the two rings of refused requests.
#include <algorithm>

#include "twin_fixture.hpp"

namespace
{

using namespace twin_test;

template <typename Kind>
using ErrorRing = Twin<Kind>;
TYPED_TEST_SUITE(ErrorRing, kinds);

// Reset of all, whatever the kind.
using Diagnosis = EvlanTest;

using counters = std::array<uint32_t, 17>;
static_assert(sizeof(counters) == sizeof(sw_diagnosis_stat));

counters counted()
{
    counters words;
    std::memcpy(words.data(), &g_diagnosis_stat, sizeof words);
    return words;
}

template <typename Kind>
void record_errors(uint32_t count)
{
    for (uint32_t n = 1; n <= count; ++n) {
        typename Kind::map record{};
        record.kind = SW_INDEX_MAP_UDP2APP;
        record.key[0] = n;
        Kind::record_error(&record);
    }
}

template <typename Kind>
std::vector<uint32_t> ring_of()
{
    std::vector<uint32_t> ids;
    for (size_t position = 0; position < SW_EBRIDGE_ERR_RECORDS; ++position)
        ids.push_back(Kind::ring()[position].key[0]);
    return ids;
}

TYPED_TEST(ErrorRing, HasItsCounterLastOfItsSide)
{
    record_errors<TypeParam>(9);
    counters expected{};
    expected[TypeParam::error_counter] = 9;
    EXPECT_EQ(counted(), expected);
}

TYPED_TEST(ErrorRing, HoldsTheLastFive)
{
    record_errors<TypeParam>(3);
    EXPECT_THAT(ring_of<TypeParam>(), ElementsAre(1, 2, 3, 0, 0));
    sw_ebridge_reset_stat();
    record_errors<TypeParam>(7);
    EXPECT_THAT(ring_of<TypeParam>(), ElementsAre(6, 7, 3, 4, 5));
    EXPECT_EQ(g_diagnosis_stat.*TypeParam::counted_errors, 7u);
}

TYPED_TEST(ErrorRing, StoresBeforeItCounts)
{
    g_diagnosis_stat.*TypeParam::counted_errors = 13;
    record_errors<TypeParam>(1);
    EXPECT_THAT(ring_of<TypeParam>(), ElementsAre(0, 0, 0, 1, 0));
    EXPECT_EQ(g_diagnosis_stat.*TypeParam::counted_errors, 14u);
}

TYPED_TEST(ErrorRing, IsTheSideOfItsOwn)
{
    record_errors<TypeParam>(7);
    const bool evlan = std::is_same_v<TypeParam, evlans>;
    EXPECT_THAT(evlan ? ring_of<eports>() : ring_of<evlans>(), Each(0u));
}

TYPED_TEST(ErrorRing, CopiesTheWholeRecord)
{
    typename TypeParam::map record;
    std::memset(&record, 0x5a, sizeof record);
    TypeParam::record_error(&record);
    typename TypeParam::map copy = TypeParam::ring()[0];
    copy.link = record.link;
    EXPECT_EQ(std::memcmp(&copy, &record, sizeof record), 0);
}

TYPED_TEST(ErrorRing, IgnoresNull)
{
    TypeParam::record_error(nullptr);
    EXPECT_EQ(counted(), counters{});
}

TEST_F(Diagnosis, IsAllZeroAfterAReset)
{
    record_errors<evlans>(7);
    record_errors<eports>(6);
    std::memset(&g_diagnosis_stat, 0xff, sizeof g_diagnosis_stat);
    sw_ebridge_reset_stat();
    EXPECT_EQ(counted(), counters{});
    const auto zero = [](const auto *ring) {
        const auto *bytes = reinterpret_cast<const uint8_t *>(ring);
        return std::all_of(bytes, bytes + SW_EBRIDGE_ERR_RECORDS * sizeof *ring,
                           [](uint8_t byte) { return byte == 0; });
    };
    EXPECT_TRUE(zero(sw_evlan_get_err_msg_array()));
    EXPECT_TRUE(zero(sw_eport_get_err_msg_array()));
}

TEST_F(Diagnosis, BeginsAnewAfterAReset)
{
    record_errors<evlans>(2);
    record_errors<eports>(3);
    sw_ebridge_reset_stat();
    record_errors<evlans>(1);
    record_errors<eports>(1);
    EXPECT_THAT(ring_of<evlans>(), ElementsAre(1, 0, 0, 0, 0));
    EXPECT_THAT(ring_of<eports>(), ElementsAre(1, 0, 0, 0, 0));
}

TEST_F(Diagnosis, ResetLeavesTimersAndTheirCountAlone)
{
    sw_ebridge_list_item *user = add_twin();
    sw_ebridge_age_timer_create("app");
    sw_ebridge_reset_stat();
    EXPECT_EQ(user->age_timer_armed, 1);
    EXPECT_EQ(user->stat, 1);
}

}  // namespace
