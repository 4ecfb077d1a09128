// Which user of a run publishes the VLANs of which port, and what is made of what is heard and read of them; without a
// store.
#include "member_book.hpp"

#include <gmock/gmock.h>

#include <optional>

#include "config_file.hpp"
#include "evaluation.hpp"
#include "run_books.hpp"

using namespace ebridge_tool;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

// Port 0: tagged in 10 and 12, untagged in 11. Port 1: tagged in 10.
constexpr const char *TWO_PORTS = R"({"VLAN": {"Vlan10": {}, "Vlan11": {}, "Vlan12": {}}, "VLAN_MEMBER": {
    "Vlan12|one": {"tagging_mode": "tagged"}, "Vlan11|one": {"tagging_mode": "untagged"},
    "Vlan10|two": {"tagging_mode": "tagged"}, "Vlan10|one": {"tagging_mode": "tagged"}}})";

class MemberBook : public testing::Test
{
  protected:
    // The numbers of ports are those of the port table; here they come from their names.
    void open(const char *text, size_t users = 1)
    {
        std::string error;
        ASSERT_TRUE(parse_config("file", text, &config, &error)) << error;
        for (vlan_member &member : *config.vlan_members) {
            member.ifx = 100 + static_cast<uint32_t>(member.port[0]);
            member.phyid = 7U << 24 | static_cast<uint32_t>(member.port[0]);
        }
        for (size_t i = 0; config.ports && i < config.ports->size(); ++i)
            (*config.ports)[i].ifx = 100 + static_cast<uint32_t>((*config.ports)[i].key[0]);
        result = {};
        books.emplace(config, users, &result);
    }
    member_book &book() { return books->members; }

    // All went as it should.
    void settle()
    {
        for (size_t i = 0; i < book().size(); ++i) {
            const vlan_port &port = book().at(i);
            book().set(i, member_facts{.code = 0, .pvid_code = 0, .pvid = port.pvid});
            book().set(i, as_wanted(port));
        }
    }
    static member_sight as_wanted(const vlan_port &port)
    {
        return {.found = port.is_wanted(),
                .vlans = port.vlans,
                .untagged = port.untagged,
                .multicast = port.vlans,
                .claimed = port.pvid,
                .pvid = port.pvid,
                .contested = false};
    }
    void see(size_t port, const std::function<void(member_sight *)> &change)
    {
        member_sight seen = book().at(port).seen;
        change(&seen);
        book().set(port, seen);
    }
    std::vector<std::string> problems()
    {
        result.problems.clear();
        table() = {.name = "VLAN_MEMBER", .requested = table().requested};
        evaluate(book(), &result);
        return result.problems;
    }
    table_result &table() { return result.tables.back(); }

    std::vector<std::string> problems_after(
        const std::vector<std::string> &dropped, const std::function<void()> &change = [] {})
    {
        reduced = config;
        std::string error;
        for (const std::string &entry : dropped)
            EXPECT_TRUE(drop_entry(entry, &reduced, &error)) << error;
        books->restart(reduced);
        settle();
        change();
        result.problems.clear();
        result.restarted = {{.name = "VLAN"}, {.name = "VLAN_MEMBER"}};
        evaluate_restart(book(), &result);
        return result.problems;
    }

    switch_config config, reduced;
    run_result result;
    std::optional<run_books> books;
};

vlan_set set_of(const std::vector<uint32_t> &vlans)
{
    vlan_set set{};
    for (uint32_t vlan : vlans)
        set.add(vlan);
    return set;
}

}  // namespace

// ---- who publishes what -----------------------------------------------------------------------------------------------

TEST_F(MemberBook, EntriesOfAPortArePublishedTogether)
{
    open(TWO_PORTS);
    ASSERT_EQ(book().size(), 2U);
    const vlan_port &one = book().at(0);
    EXPECT_EQ(one.name, "one");
    EXPECT_THAT(one.members, ElementsAre(0U, 1U, 3U));
    EXPECT_EQ(one.vlans.text(), "10-12");
    EXPECT_EQ(one.untagged.text(), "11");
    EXPECT_EQ(one.pvid, 11);
    EXPECT_EQ(one.eport, 0x10000000U | 'o');
    EXPECT_EQ(book().at(1).vlans.text(), "10");
    EXPECT_EQ(book().at(1).pvid, 0);
    EXPECT_EQ(table().requested, 4U);
    EXPECT_THAT(result.notes, IsEmpty());
}

TEST_F(MemberBook, ThereIsNoTableWhereTheConfigurationHasNone)
{
    open(R"({"VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {}})");
    EXPECT_EQ(table().name, "VLAN_MEMBER");
    EXPECT_TRUE(book().empty());
    config = {};
    result = {};
    books.emplace(config, 1, &result);
    EXPECT_THAT(result.tables, IsEmpty());
}

TEST_F(MemberBook, OfSeveralUntaggedVlansTheLowestIsTheDefaultAndThatIsSaid)
{
    open(R"({"VLAN": {"Vlan9": {}, "Vlan10": {}}, "VLAN_MEMBER": {
        "Vlan10|one": {"tagging_mode": "untagged"}, "Vlan9|one": {"tagging_mode": "untagged"}}})");
    EXPECT_EQ(book().at(0).pvid, 9);
    EXPECT_EQ(book().at(0).untagged.text(), "9-10");
    EXPECT_THAT(result.notes, ElementsAre("one: untagged in several VLANs, 9-10: the lowest is its default VLAN"));
}

TEST_F(MemberBook, WhoHasRequestedThePortPublishesItsVlans)
{
    open(R"({"PORT": {"a": {}, "b": {}, "c": {}}, "VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {
        "Vlan10|c": {"tagging_mode": "tagged"}, "Vlan10|b": {"tagging_mode": "tagged"},
        "Vlan10|a": {"tagging_mode": "tagged"}}})",
         2);
    EXPECT_EQ(book().user_of(book().at(0)), "ebridge_run_1");
    EXPECT_EQ(book().user_of(book().at(1)), "ebridge_run_2");
    EXPECT_EQ(book().user_of(book().at(2)), "ebridge_run_1");
}

TEST_F(MemberBook, PortsThatNobodyHasRequestedGoToTheUsersInTurns)
{
    open(TWO_PORTS, 2);
    EXPECT_EQ(book().at(0).user, 0U);
    EXPECT_EQ(book().at(1).user, 1U);
}

TEST_F(MemberBook, PortsAreFoundByBothNumbers)
{
    open(TWO_PORTS);
    EXPECT_EQ(book().find_ifx(100 + 't'), 1U);
    EXPECT_EQ(book().find_ifx(1), book().size());
    EXPECT_EQ(book().find_eport(0x10000000U | 'o'), 0U);
    EXPECT_EQ(book().find_eport('o'), book().size());
}

// ---- what is made of it -------------------------------------------------------------------------------------------------

TEST_F(MemberBook, WhatReadsAsItWasPublishedIsVerified)
{
    open(TWO_PORTS);
    EXPECT_FALSE(book().is_settled(0));
    EXPECT_FALSE(book().is_seen());
    settle();
    EXPECT_TRUE(book().is_settled(0));
    EXPECT_TRUE(book().is_seen());
    EXPECT_THAT(problems(), IsEmpty());
    EXPECT_EQ(table().granted, 4U);
    EXPECT_EQ(table().verified, 4U);
}

TEST_F(MemberBook, VlansThatCannotBePublishedAreRefused)
{
    open(TWO_PORTS);
    settle();
    book().set(1, member_facts{.code = -3, .pvid_code = 0, .pvid = 0});
    EXPECT_FALSE(book().is_published(0));
    EXPECT_THAT(problems(),
                ElementsAre("VLAN_MEMBER|Vlan10|two: refused: the VLANs of two cannot be published, code -3"));
    EXPECT_EQ(table().refused, 1U);
    EXPECT_EQ(table().verified, 3U);
}

TEST_F(MemberBook, ADefaultVlanThatIsNotSetOrNotHeardIsToldOfWithItsEntry)
{
    const std::pair<member_facts, const char *> cases[] = {
        {{.code = 0, .pvid_code = -1, .pvid = 0}, "refused: the default VLAN cannot be set, code -1"},
        {{.code = 0, .pvid_code = 0, .pvid = 0}, "refused: nobody has made it the default VLAN"},
        {{.code = 0, .pvid_code = 0, .pvid = 12}, "differs: its user heard the default VLAN 12"}};
    open(TWO_PORTS);
    for (const auto &[facts, line] : cases) {
        settle();
        book().set(0, facts);
        EXPECT_EQ(book().is_settled(0), facts.pvid_code != 0);
        EXPECT_THAT(problems(), ElementsAre(std::string("VLAN_MEMBER|Vlan11|one: ") + line));
    }
}

TEST_F(MemberBook, WhatTheObserverReadsOtherwiseIsNamed)
{
    const std::string at = "VLAN_MEMBER|Vlan11|one: differs: ";
    const std::pair<std::function<void(member_sight *)>, std::string> cases[] = {
        {[](member_sight *seen) {
             seen->vlans = set_of({10, 12});
         },
         "the observer does not find the VLAN on the port"},
        {[](member_sight *seen) { seen->untagged = {}; }, "the observer reads that it is tagged"},
        {[](member_sight *seen) {
             seen->multicast = set_of({10, 12});
         },
         "the observer does not find the multicast mark"},
        {[](member_sight *seen) { seen->claimed = 0; },
         "the observer does not find that it was asked for as default VLAN"},
        {[](member_sight *seen) { seen->pvid = 10; }, "the observer reads the default VLAN 10"}};
    open(TWO_PORTS);
    for (const auto &[change, line] : cases) {
        settle();
        see(0, change);
        EXPECT_FALSE(book().is_seen());
        EXPECT_THAT(problems(), ElementsAre(at + line));
    }
}

TEST_F(MemberBook, ATaggedVlanThatReadsUntaggedIsNamed)
{
    open(TWO_PORTS);
    settle();
    see(1, [](member_sight *seen) { seen->untagged = set_of({10}); });
    EXPECT_THAT(problems(), ElementsAre("VLAN_MEMBER|Vlan10|two: differs: the observer reads that it is untagged"));
}

TEST_F(MemberBook, APortThatIsNotFoundIsNamedWithEachEntry)
{
    open(TWO_PORTS);
    settle();
    see(0, [](member_sight *seen) { *seen = {}; });
    EXPECT_EQ(problems().size(), 3U);
    EXPECT_EQ(result.problems[0], "VLAN_MEMBER|Vlan12|one: differs: the observer does not find the VLANs of one");
    EXPECT_EQ(table().verified, 1U);
}

TEST_F(MemberBook, VlansThatNobodyAskedForAreNamedOnce)
{
    open(TWO_PORTS);
    settle();
    see(0, [](member_sight *seen) { seen->vlans = set_of({5, 6, 7, 10, 11, 12}); });
    EXPECT_THAT(problems(), ElementsAre("VLAN_MEMBER|Vlan12|one: differs: the observer reads VLANs that nobody asked "
                                        "for: 5-7"));
}

TEST_F(MemberBook, MarksOfOtherVlansAreNamed)
{
    open(TWO_PORTS);
    settle();
    see(0, [](member_sight *seen) { seen->untagged.add(77); });
    EXPECT_THAT(problems(), ElementsAre("VLAN_MEMBER|Vlan12|one: differs: the observer reads marks of VLANs that the "
                                        "port does not carry: 77"));
}

TEST_F(MemberBook, ADefaultVlanThatNobodyAskedForIsNamed)
{
    open(TWO_PORTS);
    settle();
    see(1, [](member_sight *seen) { seen->claimed = seen->pvid = 10; });
    EXPECT_THAT(problems(), ElementsAre("VLAN_MEMBER|Vlan10|two: differs: the observer reads that the default VLAN 10 "
                                        "is asked for"));
    see(1, [](member_sight *seen) { seen->claimed = 0; });
    EXPECT_THAT(problems(), ElementsAre("VLAN_MEMBER|Vlan10|two: differs: the observer reads the default VLAN 10"));
    see(1, [](member_sight *seen) { seen->contested = true; });
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(MemberBook, AnotherUsersDefaultVlanIsNoMistakeWhereNoneIsWanted)
{
    open(TWO_PORTS);
    settle();
    see(1, [](member_sight *seen) { seen->pvid = 77; });
    EXPECT_FALSE(book().is_seen());
    see(1, [](member_sight *seen) { seen->contested = true; });
    EXPECT_TRUE(book().is_seen());
}

// ---- after a restart ----------------------------------------------------------------------------------------------------

TEST_F(MemberBook, WhatWasDroppedIsNotPublishedAgain)
{
    open(TWO_PORTS);
    EXPECT_THAT(problems_after({"VLAN_MEMBER|Vlan11|one", "VLAN_MEMBER|Vlan10|two"}), IsEmpty());
    EXPECT_EQ(book().at(0).vlans.text(), "10,12");
    EXPECT_EQ(book().at(0).pvid, 0);
    EXPECT_FALSE(book().at(1).is_wanted());
    EXPECT_EQ(result.restarted[1].kept, 2U);
    EXPECT_EQ(result.restarted[1].unchanged, 2U);
    EXPECT_EQ(result.restarted[1].dropped, 2U);
    EXPECT_EQ(result.restarted[1].gone, 2U);
}

TEST_F(MemberBook, WithAVlanItsMembersAreDropped)
{
    open(TWO_PORTS);
    EXPECT_THAT(problems_after({"VLAN|Vlan10"}), IsEmpty());
    EXPECT_EQ(book().at(0).vlans.text(), "11-12");
    EXPECT_FALSE(book().at(1).is_wanted());
    EXPECT_EQ(result.restarted[1].gone, 2U);
}

TEST_F(MemberBook, WithAPortItsMembershipsAreDropped)
{
    open(R"({"PORT": {"a": {}}, "VLAN": {"Vlan10": {}}, "VLAN_MEMBER": {"Vlan10|a": {"tagging_mode": "tagged"}}})");
    EXPECT_THAT(problems_after({"PORT|a"}), IsEmpty());
    EXPECT_FALSE(book().at(0).is_wanted());
}

TEST_F(MemberBook, WhatWasDroppedAndIsThereIsNamed)
{
    open(TWO_PORTS);
    EXPECT_THAT(problems_after({"VLAN_MEMBER|Vlan12|one"},
                               [this] { see(0, [](member_sight *seen) {
                                            seen->vlans = set_of({10, 11, 12});
                                        }); }),
                ElementsAre("VLAN_MEMBER|Vlan12|one: dropped: the VLAN is still on the port"));
    EXPECT_EQ(result.restarted[1].gone, 0U);
    EXPECT_THAT(
        problems_after({"VLAN_MEMBER|Vlan11|one"}, [this] { see(0, [](member_sight *seen) { seen->claimed = 11; }); }),
        ElementsAre("VLAN_MEMBER|Vlan11|one: dropped: it is still asked for as default VLAN"));
}

TEST_F(MemberBook, WhatNobodyAskedForIsNamedAlsoWhereEntriesWereDropped)
{
    open(TWO_PORTS);
    const auto five = [](member_sight *seen) { seen->vlans.add(5); };
    EXPECT_THAT(
        problems_after({"VLAN_MEMBER|Vlan12|one"}, [&] { see(0, five); }),
        ElementsAre("VLAN_MEMBER|Vlan11|one: kept: differs: the observer reads VLANs that nobody asked for: 5"));
    EXPECT_THAT(problems_after({"VLAN_MEMBER|Vlan10|two"}, [&] { see(1, five); }),
                ElementsAre("VLAN_MEMBER|Vlan10|two: dropped: the observer reads VLANs that nobody asked for: 5"));
    EXPECT_THAT(
        problems_after({"VLAN_MEMBER|Vlan11|one"}, [&] { see(0, [](member_sight *seen) { seen->pvid = 11; }); }),
        ElementsAre("VLAN_MEMBER|Vlan11|one: dropped: it is still the default VLAN"));
}

TEST_F(MemberBook, WhatIsKeptHasToReadEqual)
{
    open(TWO_PORTS);
    EXPECT_THAT(
        problems_after({"VLAN_MEMBER|Vlan12|one"}, [this] { see(0, [](member_sight *seen) { seen->untagged = {}; }); }),
        ElementsAre("VLAN_MEMBER|Vlan11|one: kept: differs: the observer reads that it is tagged"));
    EXPECT_THAT(problems_after({}, [this] { book().set(1, member_facts{.code = -3, .pvid_code = 0, .pvid = 0}); }),
                ElementsAre("VLAN_MEMBER|Vlan10|two: kept: refused: the VLANs of two cannot be published, code -3"));
}
