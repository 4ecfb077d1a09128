// The ledger finds each kind of mistake: a world in which all is well, and that world with one thing wrong.
#include <gmock/gmock.h>

#include "ledger.hpp"

namespace fault
{
namespace
{

using kind = event::kind;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr bridge_key FIRST{table::evlan, 32, 1}, SECOND{table::evlan, 32, 2}, GONE{table::evlan, 32, 3};
constexpr uint32_t ID1 = 0x20000001, ID2 = 0x20000002, ID3 = 0x20000003;
const session_name A1{"a", FIRST}, A2{"a", SECOND}, A3{"a", GONE}, B1{"b", FIRST};

// "a" holds two keys and has released a third; "b" shares the first; "all" follows both.
class Ledger : public testing::Test
{
  protected:
    Ledger()
    {
        store.sessions = store.mirrors = {{A1, ID1}, {A2, ID2}, {B1, ID1}};
        const index_map both{{{FIRST, ID1}, {SECOND, ID2}}, {{ID1, FIRST}, {ID2, SECOND}}};
        const index_map one{{{FIRST, ID1}}, {{ID1, FIRST}}};
        users = {{"a", false, {}, {{table::evlan, both}}},
                 {"b", false, {}, {{table::evlan, one}}},
                 {"all", true, {}, {{table::evlan, both}}}};
        a().events = {{kind::started, {}, 0},   {kind::requested, A3, 0}, {kind::granted, A3, ID3},
                      {kind::requested, A1, 0}, {kind::granted, A1, ID1}, {kind::released, A3, 0},
                      {kind::requested, A2, 0}, {kind::removed, A3, ID3}, {kind::granted, A2, ID2},
                      {kind::granted, A2, ID2}};
        users[1].events = {{kind::started, {}, 0}, {kind::requested, B1, 0}, {kind::granted, B1, ID1}};
        all().events = {{kind::started, {}, 0},   {kind::granted, A3, ID3}, {kind::granted, A1, ID1},
                        {kind::removed, A3, ID3}, {kind::granted, B1, ID1}, {kind::granted, A2, ID2}};
    }

    user_view &a() { return users[0]; }
    user_view &all() { return users[2]; }
    static index_map &map_of(user_view &user) { return user.maps.at(table::evlan); }
    void hear(user_view &user, kind what, const session_name &who, uint32_t id = 0)
    {
        user.events.push_back({what, who, id});
    }
    std::vector<std::string> found(const excuses &excused = {}) const { return ledger(store, users, excused); }

    store_view store;
    std::vector<user_view> users;
};

TEST_F(Ledger, FindsNothingWhereAllIsWell) { EXPECT_THAT(found(), IsEmpty()); }

TEST_F(Ledger, FindsAnUnansweredSession)
{
    store.sessions[A3] = store.mirrors[A3] = 0;
    EXPECT_THAT(found(), ElementsAre("store: a:32:3 is not answered"));
}

TEST_F(Ledger, FindsARefusedSessionThatStays)
{
    store.sessions[A3] = store.mirrors[A3] = REFUSED;
    EXPECT_THAT(found(), ElementsAre("store: a:32:3 is refused, and still there"));
}

TEST_F(Ledger, FindsAKeyWithTwoIds)
{
    store.sessions[B1] = store.mirrors[B1] = ID3;
    EXPECT_THAT(found(), Contains("store: key 32:1 has two ids, 0x20000001 and 0x20000003"));
}

TEST_F(Ledger, FindsAnIdWithTwoKeys)
{
    store.sessions[A2] = store.mirrors[A2] = ID1;
    EXPECT_THAT(found(), Contains("store: id 0x20000001 has two keys, 32:1 and 32:2"));
}

TEST_F(Ledger, FindsMirrorsThatAreMissingOrDifferOrAreLeft)
{
    store.mirrors.erase(A1);
    store.mirrors[A2] = ID3;
    store.mirrors[A3] = ID3;
    EXPECT_THAT(found(),
                ElementsAre("store: a:32:1 has no mirror", "store: a:32:2 has 0x20000002, its mirror 0x20000003",
                            "store: the mirror of a:32:3 has no session"));
}

TEST_F(Ledger, FindsAGrantThatAUserDidNotHear)
{
    all().events.pop_back();
    EXPECT_THAT(found(), ElementsAre("all: a:32:2 with 0x20000002 is unheard"));
}

TEST_F(Ledger, FindsWhatANewLifeDidNotHearAgain)
{
    hear(all(), kind::started, {});
    EXPECT_THAT(found(), Contains("all: a:32:1 with 0x20000001 is unheard"));
}

TEST_F(Ledger, FindsAnUnheardRemoval)
{
    std::erase_if(all().events, [](const event &each) { return each.what == kind::removed; });
    EXPECT_THAT(found(), ElementsAre("all: the removal of a:32:3 is unheard"));
}

TEST_F(Ledger, FindsAnotherIdThanTheStores)
{
    hear(users[1], kind::granted, B1, ID3);
    EXPECT_THAT(found({.data_lost = true}), ElementsAre("b: was told 0x20000003 for b:32:1, the store has 0x20000001"));
}

TEST_F(Ledger, FindsATaleOfSomebodyElsesSession)
{
    hear(a(), kind::granted, B1, ID1);
    EXPECT_THAT(found(), ElementsAre("a: b:32:1 is none of its business"));
}

TEST_F(Ledger, FindsAnIndexMapThatHasTooMuch)
{
    map_of(a()).id_of[GONE] = ID3;
    map_of(a()).key_of[ID3] = GONE;
    EXPECT_THAT(found(), ElementsAre("a: its index map has 32:3 with 0x20000003, the store does not"));
}

TEST_F(Ledger, FindsAnIndexMapThatHasTooLittle)
{
    map_of(all()).id_of.erase(SECOND);
    map_of(all()).key_of.erase(ID2);
    EXPECT_THAT(found(), ElementsAre("all: its index map does not have 32:2 with 0x20000002"));
}

TEST_F(Ledger, FindsAnotherIdInAnIndexMap)
{
    map_of(a()).id_of[SECOND] = ID3;
    map_of(a()).key_of = {{ID1, FIRST}, {ID3, SECOND}};
    EXPECT_THAT(found(), ElementsAre("a: its index map has 32:2 with 0x20000003, the store 0x20000002"));
}

TEST_F(Ledger, FindsDirectionsOfAnIndexMapThatDiffer)
{
    map_of(a()).key_of.erase(ID2);
    map_of(a()).key_of[ID3] = SECOND;
    EXPECT_THAT(found(), ElementsAre("a: its index map does not lead from 0x20000002 back to 32:2",
                                     "a: its index map leads from 0x20000003 to 32:2, but not there from it"));
}

TEST_F(Ledger, ASharedKeyMayLeaveTheIndexMapWithTheFirstRelease)
{
    store.sessions.erase(A1);
    store.mirrors.erase(A1);
    map_of(a()).id_of.erase(FIRST);
    map_of(a()).key_of.erase(ID1);
    hear(a(), kind::released, A1);
    hear(a(), kind::removed, A1, ID1);
    hear(all(), kind::removed, A1, ID1);
    EXPECT_THAT(found(), IsEmpty());
    map_of(all()).id_of.erase(FIRST);
    map_of(all()).key_of.erase(ID1);
    EXPECT_THAT(found(), IsEmpty());
    hear(all(), kind::granted, B1, ID1);
    EXPECT_THAT(found(), ElementsAre("all: its index map does not have 32:1 with 0x20000001"));
}

TEST_F(Ledger, ARequestThatWasTakenBackUnansweredMayLeaveAKeyWithoutAnId)
{
    constexpr bridge_key TAKEN_BACK{table::evlan, 32, 9};
    map_of(a()).id_of[TAKEN_BACK] = 0;
    hear(a(), kind::requested, {"a", TAKEN_BACK});
    EXPECT_THAT(found(), ElementsAre("a: its index map has 32:9 with 0x0, the store does not"));
    hear(a(), kind::released, {"a", TAKEN_BACK});
    EXPECT_THAT(found(), IsEmpty());
    map_of(a()).id_of[TAKEN_BACK] = ID3;
    map_of(a()).key_of[ID3] = TAKEN_BACK;
    EXPECT_THAT(found(), ElementsAre("a: its index map has 32:9 with 0x20000003, the store does not"));
}

// Released and requested again, removed, and taken back: nobody hears of the second request.
TEST_F(Ledger, ARemovalHeardWhileAKeyIsRequestedMayLeaveItsLastId)
{
    constexpr bridge_key TAKEN_BACK{table::evlan, 32, 9};
    const session_name who{"a", TAKEN_BACK};
    map_of(a()).id_of[TAKEN_BACK] = ID3;
    for (const kind what : {kind::requested, kind::granted, kind::released, kind::requested, kind::removed})
        hear(a(), what, who, ID3);
    EXPECT_THAT(found(), Contains("a: its index map has 32:9 with 0x20000003, the store does not"));
    hear(a(), kind::released, who);
    EXPECT_THAT(found(), IsEmpty());
    for (const kind what : {kind::requested, kind::granted, kind::released, kind::removed})
        hear(a(), what, who, ID3);
    EXPECT_THAT(found(), Contains("a: its index map has 32:9 with 0x20000003, the store does not"));
}

TEST_F(Ledger, FindsAnIdThatChangedWhileItWasHeld)
{
    hear(a(), kind::granted, A2, ID3);
    hear(a(), kind::granted, A2, ID2);
    EXPECT_THAT(found(), ElementsAre("a: a:32:2 changed from 0x20000002 to 0x20000003",
                                     "a: a:32:2 changed from 0x20000003 to 0x20000002"));
    EXPECT_THAT(found({.data_lost = true}), IsEmpty());
}

TEST_F(Ledger, AnIdMayChangeAfterARelease)
{
    a().events.insert(a().events.begin() + 1, {{kind::granted, A2, ID3}, {kind::released, A2, 0}});
    all().events.insert(all().events.begin() + 1, {{kind::granted, A2, ID3}});
    // The removal is heard by nobody. Nobody but "a" knows of the release.
    EXPECT_THAT(found({.changes_merged = true}), IsEmpty());
    std::erase_if(a().events, [](const event &each) { return each.what == kind::released && each.who == A2; });
    EXPECT_THAT(found({.changes_merged = true}), ElementsAre("a: a:32:2 changed from 0x20000003 to 0x20000002",
                                                             "all: a:32:2 changed from 0x20000003 to 0x20000002"));
}

TEST_F(Ledger, FindsAnIdThatHadTwoKeysAtOnce)
{
    std::swap(all().events[3], all().events[5]);  // the removal of the third key comes last
    all().events[1].id = all().events[5].id = ID2;
    EXPECT_THAT(found(), ElementsAre("all: id 0x20000002 had two keys at once, 32:2 and 32:3"));
    EXPECT_THAT(found({.changes_merged = true}), IsEmpty());
}

// ---- eports ---------------------------------------------------------------------------------------------------------

// "a" holds an eport whose id is that of an evlan, too, and both follow it.
class LedgerOfEports : public Ledger
{
  protected:
    LedgerOfEports()
    {
        store.sessions[A] = store.mirrors[A] = ID1;
        for (user_view *user : {&a(), &all()}) {
            hear(*user, kind::granted, A, ID1);
            user->maps[table::eport] = {{{KEY, ID1}}, {{ID1, KEY}}};
        }
        users[1].maps[table::eport];
    }

    static constexpr bridge_key KEY{table::eport, 48, 1, 2}, OTHER{table::eport, 48, 1, 3};
    const session_name A{"a", KEY};
};

TEST_F(LedgerOfEports, IsCleanWhereAnEvlanHasTheSameId) { EXPECT_THAT(found(), IsEmpty()); }

TEST_F(LedgerOfEports, FindsAnIdWithTwoKeysOfWhichTheLastNumberDiffers)
{
    store.sessions[{"b", OTHER}] = store.mirrors[{"b", OTHER}] = ID1;
    EXPECT_THAT(found(), Contains("store: id 0x20000001 has two keys, 48:1:2 and 48:1:3"));
}

TEST_F(LedgerOfEports, FindsWhatIsUnheardOrUnansweredOrNotMirrored)
{
    store.sessions[{"b", OTHER}] = 0;
    store.sessions[{"a", OTHER}] = store.mirrors[{"a", OTHER}] = ID2;
    EXPECT_THAT(found(), testing::IsSupersetOf({"store: b:48:1:3 is not answered", "store: b:48:1:3 has no mirror",
                                                "a: a:48:1:3 with 0x20000002 is unheard",
                                                "all: a:48:1:3 with 0x20000002 is unheard"}));
}

TEST_F(LedgerOfEports, FindsAnIdThatChangedWhileItWasHeld)
{
    hear(a(), kind::granted, A, ID3);
    hear(a(), kind::granted, A, ID1);
    EXPECT_THAT(found(), Contains("a: a:48:1:2 changed from 0x20000001 to 0x20000003"));
}

TEST_F(LedgerOfEports, FindsAnIndexMapThatHasTooMuch)
{
    users[1].maps[table::eport].id_of[KEY] = ID1;
    EXPECT_THAT(found(), Contains("b: its index map has 48:1:2 with 0x20000001, the store does not"));
}

TEST_F(LedgerOfEports, AUserWithoutAnIndexMapOfEportsIsNotAskedForOne)
{
    a().maps.erase(table::eport);
    EXPECT_THAT(found(), IsEmpty());
}

// Unlike an evlan, an eport goes with its removal, however often it is requested.
TEST_F(LedgerOfEports, ARemovalHeardWhileAKeyIsRequestedLeavesNoId)
{
    for (const kind what :
         {kind::requested, kind::granted, kind::released, kind::requested, kind::removed, kind::released})
        hear(a(), what, {"a", OTHER}, ID3);
    a().maps[table::eport].id_of[OTHER] = 0;
    EXPECT_THAT(found(), IsEmpty());
    a().maps[table::eport].id_of[OTHER] = ID3;
    EXPECT_THAT(found(), Contains("a: its index map has 48:1:3 with 0x20000003, the store does not"));
}

}  // namespace
}  // namespace fault
