// The allocator's decisions: which id a request gets, who shares it, when it is free again, what a restart keeps.
#include "allocator.hpp"

#include <gtest/gtest.h>

#include <cstdint>

using namespace ebridged;

namespace
{

constexpr int64_t SECOND = 1'000'000;
constexpr uint32_t VLAN = 16, VXLAN = 32, L3INTF_SUB = 112, L3VPN = 128;

constexpr uint32_t any(uint32_t type) { return type << 24; }

class Allocator : public testing::Test
{
  protected:
    explicit Allocator(std::span<const id_type> types = evlan_types()) : ids(types) {}

    // Answers -1 as 0xffffffff.
    uint32_t ask(const char *holder, id_key key, uint32_t wanted)
    {
        last = ids.request(holder, key, wanted, now);
        return static_cast<uint32_t>(last.reply);
    }
    void let_go(const char *holder, id_key key) { ids.release(holder, key, now); }

    static constexpr uint32_t REFUSED = 0xffffffff;
    allocator ids;
    int64_t now = 0;
    decision last;
};

constexpr uint32_t PORT = 16, LOCAL_PORT = 17, AP = 32, VXLAN_AC = 48, VXLAN_PW = 49, MPLS_PW = 161;

class EportAllocator : public Allocator
{
  protected:
    EportAllocator() : Allocator(eport_types()) {}
};

}  // namespace

TEST_F(Allocator, AnyIdIsTheLowestOfItsType)
{
    EXPECT_EQ(ask("a", {VXLAN, 700}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ask("a", {VXLAN, 800}, any(VXLAN)), 0x20000002U);
    EXPECT_EQ(ask("a", {VLAN, 700}, any(VLAN)), 0x10000001U);
}

TEST_F(Allocator, UsersWhoAskForTheSameKeyShareItsId)
{
    EXPECT_EQ(ask("a", {VXLAN, 7}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ask("b", {VXLAN, 7}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ids.holders_of({VXLAN, 7}), 2U);
}

TEST_F(Allocator, AnIdIsFreeWhenItsLastHolderHasLetGo)
{
    ask("a", {VXLAN, 7}, any(VXLAN));
    ask("b", {VXLAN, 7}, any(VXLAN));
    let_go("a", {VXLAN, 7});
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000001U);
    EXPECT_EQ(ask("c", {VXLAN, 8}, 0x20000001), REFUSED);
    let_go("b", {VXLAN, 7});
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0U);
    EXPECT_EQ(ask("c", {VXLAN, 8}, 0x20000001), 0x20000001U);
}

TEST_F(Allocator, AskingAgainGivesTheSameIdAndHoldsOnce)
{
    EXPECT_EQ(ask("a", {VXLAN, 7}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ask("a", {VXLAN, 7}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ask("a", {VXLAN, 7}, 0x20000001), 0x20000001U);
    EXPECT_EQ(ids.holders_of({VXLAN, 7}), 1U);
}

TEST_F(Allocator, LettingGoOfWhatOneDoesNotHoldChangesNothing)
{
    ask("a", {VXLAN, 7}, any(VXLAN));
    let_go("b", {VXLAN, 7});
    let_go("a", {VXLAN, 8});
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000001U);
}

TEST_F(Allocator, AWantedIdIsGivenExactlyOrRefused)
{
    EXPECT_EQ(ask("a", {VLAN, 100}, 0x10000064), 0x10000064U);
    EXPECT_EQ(ask("b", {VLAN, 200}, 0x10000064), REFUSED);
    EXPECT_EQ(last.why, verdict::taken);
    EXPECT_EQ(ids.id_of({VLAN, 200}), 0U);
}

TEST_F(Allocator, AWantedIdThatTheKeyHoldsIsShared)
{
    ask("a", {VLAN, 100}, 0x10000064);
    EXPECT_EQ(ask("b", {VLAN, 100}, 0x10000064), 0x10000064U);
    EXPECT_EQ(ids.holders_of({VLAN, 100}), 2U);
}

TEST_F(Allocator, TheOnlyHolderMovesItsKeyToAFreeWantedId)
{
    ask("a", {VXLAN, 7}, 0x20000005);
    EXPECT_EQ(ask("a", {VXLAN, 7}, 0x20000009), 0x20000009U);
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000009U);
    EXPECT_EQ(ask("b", {VXLAN, 8}, 0x20000009), REFUSED);
    EXPECT_EQ(ask("b", {VXLAN, 8}, 0x20000005), 0x20000005U);
}

TEST_F(Allocator, ASharedKeyDoesNotMove)
{
    ask("a", {VXLAN, 7}, 0x20000005);
    ask("b", {VXLAN, 7}, any(VXLAN));
    EXPECT_EQ(ask("a", {VXLAN, 7}, 0x20000009), REFUSED);
    EXPECT_EQ(last.why, verdict::shared);
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000005U);
    EXPECT_EQ(ask("c", {VXLAN, 8}, 0x20000009), 0x20000009U);
}

TEST_F(Allocator, AKeyOfSomebodyElseDoesNotMove)
{
    ask("a", {VXLAN, 7}, 0x20000005);
    EXPECT_EQ(ask("b", {VXLAN, 7}, 0x20000009), REFUSED);
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000005U);
}

TEST_F(Allocator, ARefusedHolderHoldsNoLonger)
{
    ask("a", {VXLAN, 7}, 0x20000005);
    ask("b", {VXLAN, 8}, 0x20000009);
    EXPECT_EQ(ask("a", {VXLAN, 7}, 0x20000009), REFUSED);
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0U);
    EXPECT_EQ(ask("c", {VXLAN, 9}, 0x20000005), 0x20000005U);
}

TEST_F(Allocator, AFreedIdIsPassedOverWhileOthersAreFree)
{
    ask("a", {VXLAN, 7}, any(VXLAN));
    let_go("a", {VXLAN, 7});
    now = 59 * SECOND;
    EXPECT_EQ(ask("a", {VXLAN, 8}, any(VXLAN)), 0x20000002U);
    now = 60 * SECOND;
    EXPECT_EQ(ask("a", {VXLAN, 9}, any(VXLAN)), 0x20000001U);
}

TEST_F(Allocator, VlanNumbersEndAt4094)
{
    for (uint32_t type : {VLAN, L3INTF_SUB}) {
        EXPECT_EQ(ask("a", {type, 4094}, any(type) | 4094), any(type) | 4094U);
        EXPECT_EQ(ask("a", {type, 4095}, any(type) | 4095), REFUSED);
        EXPECT_EQ(last.why, verdict::out_of_range);
    }
    EXPECT_EQ(ask("a", {VXLAN, 1}, any(VXLAN) | 0xffffff), any(VXLAN) | 0xffffffU);
}

TEST_F(Allocator, WhenNoneIsLeftTheAnswerIsMinusOne)
{
    ASSERT_TRUE(ids.set_range(VXLAN, 1, 2));
    ask("a", {VXLAN, 1}, any(VXLAN));
    ask("a", {VXLAN, 2}, any(VXLAN));
    EXPECT_EQ(ask("a", {VXLAN, 3}, any(VXLAN)), REFUSED);
    EXPECT_EQ(last.why, verdict::none_left);
    let_go("a", {VXLAN, 1});
    EXPECT_EQ(ask("a", {VXLAN, 3}, any(VXLAN)), 0x20000001U);
}

TEST_F(Allocator, All4094VlansCanBeGranted)
{
    for (uint32_t vid = 1; vid <= 4094; ++vid)
        ASSERT_EQ(ask("a", {VLAN, vid}, any(VLAN) | vid), any(VLAN) | vid);
    EXPECT_EQ(ask("a", {VLAN, 5000}, any(VLAN)), REFUSED);
}

TEST_F(Allocator, ATypeAbove127IsAnId)
{
    EXPECT_EQ(ask("a", {L3VPN, 3}, any(L3VPN)), 0x80000001U);
    EXPECT_EQ(ask("a", {L3VPN, 4}, 0x80abcdef), 0x80abcdefU);
}

TEST_F(Allocator, UnknownAndMismatchedTypesAreRefused)
{
    EXPECT_EQ(ask("a", {0, 1}, 0), REFUSED);
    EXPECT_EQ(ask("a", {17, 1}, any(17)), REFUSED);
    EXPECT_EQ(ask("a", {0x110, 1}, any(VLAN)), REFUSED);
    EXPECT_EQ(ask("a", {VXLAN, 1}, any(VLAN) | 5), REFUSED);
    EXPECT_EQ(last.why, verdict::bad_type);
    EXPECT_EQ(ids.size(), 0U);
}

TEST_F(Allocator, ARangeMayBeGivenInIdsOrNumbers)
{
    ASSERT_TRUE(ids.set_range(VXLAN, 0x20000064, 0x20000065));
    EXPECT_EQ(ask("a", {VXLAN, 1}, any(VXLAN)), 0x20000064U);
    ASSERT_TRUE(ids.set_range(VXLAN, 200, 201));
    EXPECT_EQ(ask("a", {VXLAN, 2}, any(VXLAN)), 0x200000c8U);
    ASSERT_TRUE(ids.reset_range(VXLAN));
    EXPECT_EQ(ask("a", {VXLAN, 3}, any(VXLAN)), 0x20000001U);
    EXPECT_FALSE(ids.set_range(5, 1, 2));
    // A VLAN number is a VLAN id, whatever a range says.
    ASSERT_TRUE(ids.set_range(VLAN, 4094, 5000));
    EXPECT_EQ(ids.request("a", {VLAN, 1, 0}, 0x10000000, 0).reply, 0x10000ffe);
    EXPECT_EQ(ids.request("a", {VLAN, 2, 0}, 0x10000000, 0).reply, -1);
    EXPECT_FALSE(ids.reset_range(5));
}

TEST_F(Allocator, ARangeFromZeroNeverGivesNumberZero)
{
    ASSERT_TRUE(ids.set_range(VXLAN, 0, 1));
    EXPECT_EQ(ask("a", {VXLAN, 1}, any(VXLAN)), 0x20000001U);
    EXPECT_EQ(ask("a", {VXLAN, 2}, any(VXLAN)), REFUSED);
}

TEST_F(Allocator, ANarrowedRangeLeavesGrantedIdsAlone)
{
    ask("a", {VXLAN, 1}, 0x20000100);
    ASSERT_TRUE(ids.set_range(VXLAN, 1, 16));
    EXPECT_EQ(ask("a", {VXLAN, 1}, any(VXLAN)), 0x20000100U);
    EXPECT_EQ(ask("b", {VXLAN, 1}, 0x20000100), 0x20000100U);
}

TEST_F(Allocator, TheSecondKeyWordTellsKeysApart)
{
    EXPECT_NE(ask("a", {VXLAN, 1, 1}, any(VXLAN)), ask("a", {VXLAN, 1, 2}, any(VXLAN)));
}

TEST_F(Allocator, AdoptedGrantsStay)
{
    ASSERT_TRUE(ids.adopt("a", {VXLAN, 7}, 0x20000003));
    ASSERT_TRUE(ids.adopt("b", {VXLAN, 7}, 0x20000003));
    ASSERT_TRUE(ids.adopt("b", {VXLAN, 7}, 0x20000003));
    EXPECT_EQ(ids.holders_of({VXLAN, 7}), 2U);
    EXPECT_EQ(ask("a", {VXLAN, 7}, any(VXLAN)), 0x20000003U);
    for (uint32_t key : {1U, 2U, 3U})
        EXPECT_NE(ask("c", {VXLAN, key}, any(VXLAN)), 0x20000003U);
}

TEST_F(Allocator, AdoptingOutsideTheRangeKeepsTheId)
{
    ASSERT_TRUE(ids.set_range(VXLAN, 1, 10));
    EXPECT_TRUE(ids.adopt("a", {VXLAN, 7}, 0x20000100));
    EXPECT_EQ(ask("a", {VXLAN, 7}, any(VXLAN)), 0x20000100U);
}

TEST_F(Allocator, AnIdIsAdoptedForOneKeyOnly)
{
    ASSERT_TRUE(ids.adopt("a", {VXLAN, 7}, 0x20000003));
    EXPECT_FALSE(ids.adopt("b", {VXLAN, 8}, 0x20000003));
    EXPECT_EQ(ids.id_of({VXLAN, 8}), 0U);
    EXPECT_EQ(ids.id_of({VXLAN, 7}), 0x20000003U);
}

TEST_F(Allocator, AKeyIsAdoptedWithOneIdOnly)
{
    ASSERT_TRUE(ids.adopt("a", {VXLAN, 7}, 0x20000003));
    EXPECT_FALSE(ids.adopt("b", {VXLAN, 7}, 0x20000004));
    EXPECT_EQ(ids.holders_of({VXLAN, 7}), 1U);
    EXPECT_EQ(ask("c", {VXLAN, 9}, 0x20000004), 0x20000004U);
}

TEST_F(Allocator, NonsenseIsNotAdopted)
{
    EXPECT_FALSE(ids.adopt("a", {VXLAN, 7}, 0x10000003));
    EXPECT_FALSE(ids.adopt("a", {VXLAN, 7}, 0x20000000));
    EXPECT_FALSE(ids.adopt("a", {5, 7}, 0x05000001));
    EXPECT_EQ(ids.size(), 0U);
}

TEST_F(Allocator, EveryVerdictHasAText)
{
    for (verdict v : {verdict::granted, verdict::bad_type, verdict::out_of_range, verdict::taken, verdict::shared,
                      verdict::none_left})
        EXPECT_STRNE(verdict_text(v), "unknown");
}

TEST_F(EportAllocator, EveryTypeHasNumbersOfItsOwnUpTo24Bits)
{
    for (uint32_t type : {16U, 17U, 32U, 48U, 49U, 64U, 65U, 80U, 81U, 96U, 97U, 112U, 113U, 128U, 144U, 160U, 161U}) {
        EXPECT_EQ(ask("a", {type, 1, 2}, any(type)), any(type) | 1U);
        EXPECT_EQ(ask("a", {type, 1, 3}, any(type) | 0xffffff), any(type) | 0xffffffU);
    }
    EXPECT_EQ(ids.size(), 34U);
}

TEST_F(EportAllocator, BothNumbersOfAKeyTellKeysApart)
{
    EXPECT_EQ(ask("a", {VXLAN_AC, 1, 2}, any(VXLAN_AC)), 0x30000001U);
    EXPECT_EQ(ask("a", {VXLAN_AC, 1, 3}, any(VXLAN_AC)), 0x30000002U);
    EXPECT_EQ(ask("a", {VXLAN_AC, 2, 2}, any(VXLAN_AC)), 0x30000003U);
    EXPECT_EQ(ask("b", {VXLAN_AC, 1, 2}, any(VXLAN_AC)), 0x30000001U);
}

TEST_F(EportAllocator, PortsAndAggregatePortsMayAskForIdsOfEither)
{
    EXPECT_EQ(ask("a", {AP, 0, 5}, any(PORT) | 1), 0x10000001U);
    EXPECT_EQ(ask("a", {PORT, 0, 6}, any(AP) | 3), 0x20000003U);
    EXPECT_EQ(ask("a", {PORT, 0, 7}, any(PORT) | 1), REFUSED);
    EXPECT_EQ(last.why, verdict::taken);
    EXPECT_EQ(ask("a", {AP, 0, 8}, any(PORT)), 0x10000002U);
    EXPECT_EQ(ask("b", {AP, 0, 8}, any(AP)), 0x10000002U);  // what it has
}

TEST_F(EportAllocator, AnIdOfTheOtherTypeIsFreeAgainAsWhatItIs)
{
    ask("a", {AP, 0, 5}, any(PORT) | 1);
    let_go("a", {AP, 0, 5});
    EXPECT_EQ(ask("a", {PORT, 0, 6}, any(PORT) | 1), 0x10000001U);
    EXPECT_EQ(ask("a", {AP, 0, 7}, any(AP)), 0x20000001U);
}

TEST_F(EportAllocator, TheOnlyHolderMovesItsKeyFromTypeToType)
{
    ask("a", {PORT, 0, 5}, any(PORT));
    EXPECT_EQ(ask("a", {PORT, 0, 5}, any(AP) | 9), 0x20000009U);
    EXPECT_EQ(ask("a", {PORT, 0, 6}, any(PORT) | 1), 0x10000001U);
    EXPECT_EQ(ask("a", {AP, 0, 7}, any(AP) | 9), REFUSED);
}

TEST_F(EportAllocator, AnyOtherMixtureOfTypesIsRefused)
{
    const std::pair<uint32_t, uint32_t> mixtures[] = {{PORT, LOCAL_PORT}, {LOCAL_PORT, PORT},   {LOCAL_PORT, AP},
                                                      {AP, LOCAL_PORT},   {PORT, VXLAN_AC},     {VXLAN_AC, PORT},
                                                      {VXLAN_AC, AP},     {VXLAN_AC, VXLAN_PW}, {VXLAN_AC, 0},
                                                      {PORT, 0},          {MPLS_PW, 1}};
    for (const auto &[type, other] : mixtures) {
        EXPECT_EQ(ask("a", {type, 1, 1}, any(other) | 5), REFUSED) << type << ' ' << other;
        EXPECT_EQ(last.why, verdict::bad_type);
    }
    EXPECT_EQ(ask("a", {0, 1, 1}, 5), REFUSED);
    EXPECT_EQ(ids.size(), 0U);
}

TEST_F(EportAllocator, RangesBoundWhatTheOtherTypeIsGiven)
{
    ASSERT_TRUE(ids.set_range(PORT, 1, 48));
    EXPECT_EQ(ask("a", {AP, 0, 5}, any(PORT) | 49), REFUSED);
    EXPECT_EQ(last.why, verdict::out_of_range);
    EXPECT_EQ(ask("a", {AP, 0, 5}, any(AP) | 49), 0x20000031U);
    ASSERT_TRUE(ids.reset_range(PORT));
    EXPECT_EQ(ask("a", {AP, 0, 6}, any(PORT) | 49), 0x10000031U);
    EXPECT_FALSE(ids.set_range(18, 1, 2));
}

TEST_F(EportAllocator, GrantsOfTheOtherTypeAreAdopted)
{
    EXPECT_TRUE(ids.adopt("a", {AP, 0, 5}, 0x10000001));
    EXPECT_FALSE(ids.adopt("a", {PORT, 0, 6}, 0x10000001));
    EXPECT_FALSE(ids.adopt("a", {LOCAL_PORT, 0, 6}, 0x10000002));
    EXPECT_FALSE(ids.adopt("a", {VXLAN_AC, 0, 6}, 0x10000002));
    EXPECT_EQ(ask("a", {PORT, 0, 7}, any(PORT)), 0x10000002U);
    EXPECT_EQ(ids.size(), 2U);
}
