// Records to items and back.
#include "ematch_fixture.hpp"

namespace
{

using namespace ematch_test;
using EmatchFromIndex = EmatchTest;
using EmatchFromEntry = EmatchTest;
using EmatchToIndex = EmatchTest;
using EmatchToEntry = EmatchTest;

// An item of the index alone, in cleared memory.
sw_ematch_item of_key(const rule &from)
{
    sw_ematch_item item = blank_item();
    EXPECT_EQ(sw_ematch_entry_index_to_db_item(&item, &from.index, 0), &item);
    return item;
}

bytes mac_of(const sw_ematch_item &item) { return {std::begin(item.mac), std::end(item.mac)}; }
bytes mask_of(const sw_ematch_item &item) { return {std::begin(item.mask), std::end(item.mask)}; }
bytes ip_of(const sw_ematch_item &item) { return {std::begin(item.ip), std::end(item.ip)}; }

// ---- index to item

TEST_F(EmatchFromIndex, FillsTheKeyAndNothingElse)
{
    sw_ematch_item expected = blank_item();
    const sw_ematch_item whole = full_item(nullptr);
    std::memcpy(static_cast<void *>(&expected), &whole, offsetof(sw_ematch_item, action_type));
    EXPECT_EQ(bytes_of(of_key(full_rule())), bytes_of(expected));
}

TEST_F(EmatchFromIndex, TakesTheUsersNameAsItIsWhenAsked)
{
    const rule from("app");
    sw_ematch_item item = blank_item();
    sw_ematch_entry_index_to_db_item(&item, &from.index, 1);
    EXPECT_EQ(name_of(item), from.index.t_user);
    item = blank_item();
    sw_ematch_entry_index_to_db_item(&item, &from.index, -1);
    EXPECT_EQ(name_of(item), from.index.t_user);
}

// The caller clears the item; what the index does not have stays as it was.
TEST_F(EmatchFromIndex, LeavesTheRestOfTheItemAlone)
{
    const rule from;
    sw_ematch_item item = spoilt_item(), expected = spoilt_item();
    sw_ematch_entry_index_to_db_item(&item, &from.index, 0);
    expected.match_type = expected.match_priority = expected.evlan1 = expected.evlan2 = expected.eport = 0;
    expected.match_flag = expected.ipv4 = expected.ip_mask = expected.frame_type = expected.ether_type = 0;
    expected.vnid = expected.label = expected.match_id = 0;
    EXPECT_EQ(bytes_of(item), bytes_of(expected));
}

TEST_F(EmatchFromIndex, TakesExtremeNumbersAsTheyAre)
{
    rule from;
    from.index.match_priority = INT32_MIN;
    from.index.match_flag = -1;
    from.index.eport = INT32_MIN;
    from.index.ip_mask = UINT32_MAX;
    const sw_ematch_item item = of_key(from);
    EXPECT_EQ(item.match_priority, INT32_MIN);
    EXPECT_EQ(item.match_flag, UINT32_MAX);
    EXPECT_EQ(item.eport, INT32_MIN);
    EXPECT_EQ(item.ip_mask, UINT32_MAX);
}

TEST_F(EmatchFromIndex, TakesSixBytesOfALongerMac)
{
    rule from;
    from.with_mac({1, 2, 3, 4, 5, 6, 7, 8, 9}).with_mask({9, 8, 7, 6, 5, 4, 3});
    EXPECT_EQ(mac_of(of_key(from)), (bytes{1, 2, 3, 4, 5, 6, 0, 0}));
    EXPECT_EQ(mask_of(of_key(from)), (bytes{9, 8, 7, 6, 5, 4, 0, 0}));
}

TEST_F(EmatchFromIndex, TakesTheBytesThatAShorterMacHas)
{
    rule from;
    from.with_mac({1, 2, 3}).with_mask({9});
    EXPECT_EQ(mac_of(of_key(from)), (bytes{1, 2, 3, 0, 0, 0, 0, 0}));
    EXPECT_EQ(mask_of(of_key(from)), (bytes{9, 0, 0, 0, 0, 0, 0, 0}));
    from.with_mac({}).with_mask({});
    EXPECT_EQ(mac_of(of_key(from)), bytes(8));
    EXPECT_EQ(mask_of(of_key(from)), bytes(8));
}

TEST_F(EmatchFromIndex, PutsAnIpv4AddressIntoTheFirstFourBytes)
{
    rule from;
    from.with_v4(ipv4_word(192, 168, 1, 254));
    EXPECT_EQ(ip_of(of_key(from)), (bytes{192, 168, 1, 254, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(of_key(from).ip_ver, 0u);
}

TEST_F(EmatchFromIndex, TakesSixteenBytesOfAnyOtherForm)
{
    rule from;
    from.with_v6(ipv6_address());
    EXPECT_EQ(ip_of(of_key(from)), ipv6_address());
    EXPECT_EQ(of_key(from).ip_ver, 1u);
    from.with_v4b(ipv6_address());
    EXPECT_EQ(ip_of(of_key(from)), ipv6_address());
    EXPECT_EQ(of_key(from).ip_ver, 1u);
}

TEST_F(EmatchFromIndex, TakesNoAddressOfAnotherLength)
{
    rule from;
    for (const size_t length : {0u, 4u, 15u, 17u}) {
        from.with_v6(bytes(length, 0xff));
        EXPECT_EQ(ip_of(of_key(from)), bytes(16)) << length;
        EXPECT_EQ(of_key(from).ip_ver, 0u) << length;
        from.with_v4b(bytes(length, 0xff));
        EXPECT_EQ(ip_of(of_key(from)), bytes(16)) << length;
        EXPECT_EQ(of_key(from).ip_ver, 0u) << length;
    }
}

TEST_F(EmatchFromIndex, TakesAnAddressThatIsNotThereAsNone)
{
    for (const auto form :
         {P_LIBPUB__IP__IP__NOT_SET, P_LIBPUB__IP__IP_V4, P_LIBPUB__IP__IP_V6, P_LIBPUB__IP__IP_V4B}) {
        rule from;
        from.with_hollow_ip(form);
        EXPECT_EQ(bytes_of(of_key(from)), bytes_of(blank_item()));
    }
}

TEST_F(EmatchFromIndex, RefusesNull)
{
    add_user({.name = "app"});
    sw_ematch_item item = spoilt_item();
    EXPECT_EQ(sw_ematch_entry_index_to_db_item(nullptr, index_of(rule()), 0), nullptr);
    EXPECT_EQ(sw_ematch_entry_index_to_db_item(&item, nullptr, 0), nullptr);
    EXPECT_EQ(bytes_of(item), bytes_of(spoilt_item()));
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(2), Each(StartsWith("Assert:"))));
}

// ---- entry to item

TEST_F(EmatchFromEntry, FillsKeyActionAndResult)
{
    EXPECT_EQ(bytes_of(converted(full_rule())), bytes_of(full_item(nullptr)));
    full_rule from;
    sw_ematch_item item = blank_item();
    sw_ematch_entry_to_db_item(&item, &from.entry, 1);
    EXPECT_EQ(name_of(item), from.index.t_user);
}

TEST_F(EmatchFromEntry, LeavesWhatIsTheTablesOwnAlone)
{
    sw_ematch_item item = spoilt_item();
    sw_ematch_entry_to_db_item(&item, entry_of(full_rule()), 0);
    EXPECT_EQ(item.user, spoilt_item().user);
    EXPECT_EQ(item.mom_db, spoilt_item().mom_db);
    EXPECT_EQ(item.current_result, spoilt_item().current_result);
    EXPECT_EQ(item.final_result, spoilt_item().final_result);
    EXPECT_EQ(item.result, fail_hw_hash);
}

TEST_F(EmatchFromEntry, RefusesNull)
{
    add_user({.name = "app"});
    sw_ematch_item item = spoilt_item();
    UBridge__EmatchEntry keyless = U_BRIDGE__EMATCH_ENTRY__INIT;
    EXPECT_EQ(sw_ematch_entry_to_db_item(nullptr, entry_of(full_rule()), 0), nullptr);
    EXPECT_EQ(sw_ematch_entry_to_db_item(&item, nullptr, 0), nullptr);
    EXPECT_EQ(sw_ematch_entry_to_db_item(&item, &keyless, 0), nullptr);
    EXPECT_EQ(bytes_of(item), bytes_of(spoilt_item()));
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(3), Each(StartsWith("Assert:"))));
}

// ---- item to index

// A record to be filled, with room for a name and for those addresses that it was given.
struct destination : rule {
    destination()
    {
        std::memset(name, 0x5a, sizeof name - 1);
        index.t_user = name;
    }
    char name[40] = {};
};

sw_ebridge_list_item named(const char *name)
{
    sw_ebridge_list_item owner{};
    strncpy(owner.user_name, name, sizeof owner.user_name - 1);
    return owner;
}

TEST_F(EmatchToIndex, FillsEveryFieldAndPointsIntoTheItem)
{
    sw_ebridge_list_item owner = named("app");
    const sw_ematch_item item = full_item(&owner);
    destination to;
    to.with_mac({}).with_mask({1, 2, 3}).with_v4(7);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 1), 0);
    full_rule expected;
    expected.entry = to.entry;
    expected.entry.index = &expected.index;
    EXPECT_EQ(to.rendered(), expected.rendered());
    EXPECT_EQ(to.index.mac->data.data, item.mac);
    EXPECT_EQ(to.index.mac->data.len, 6u);
    EXPECT_EQ(to.index.mask->data.data, item.mask);
    EXPECT_EQ(to.index.mask->data.len, 6u);
}

TEST_F(EmatchToIndex, WritesTheFormOfTheAddressThatTheItemHas)
{
    sw_ematch_item item = full_item(nullptr);
    destination to;
    to.with_v4(0);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.ip->ip_case, P_LIBPUB__IP__IP_V4);
    EXPECT_EQ(to.index.ip->v4->data, full_address());
    item = converted(rule().with_v6(ipv6_address()));
    to.with_v6({});
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.ip->ip_case, P_LIBPUB__IP__IP_V6);
    EXPECT_EQ(to.index.ip->v6->data.data, item.ip);
    EXPECT_EQ(to.index.ip->v6->data.len, 16u);
}

TEST_F(EmatchToIndex, TakesAnyVersionButZeroForSix)
{
    sw_ematch_item item = full_item(nullptr);
    item.ip_ver = 2;
    destination to;
    to.with_v6({});
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.ip->ip_case, P_LIBPUB__IP__IP_V6);
    EXPECT_EQ(to.index.ip->v6->data.data, item.ip);
}

// The caller may leave open which form it will be, if the message for it is there.
TEST_F(EmatchToIndex, SetsTheFormOfAnAddressThatHasNone)
{
    const sw_ematch_item item = full_item(nullptr);
    destination to;
    to.with_v4(0);
    to.index.ip->ip_case = P_LIBPUB__IP__IP__NOT_SET;
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.ip->ip_case, P_LIBPUB__IP__IP_V4);
    EXPECT_EQ(to.index.ip->v4->data, full_address());
}

// Sixteen bytes do not fit where four are expected: nothing is written then.
TEST_F(EmatchToIndex, RefusesAnAddressThatHasNoRoomForTheItems)
{
    add_user({.name = "app"});
    const sw_ematch_item v4 = full_item(nullptr), v6 = converted(full_rule().with_v6(ipv6_address()));
    destination to;
    const std::string untouched = to.with_v4(7).rendered();
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &v6, 0), -2);
    EXPECT_EQ(to.rendered(), untouched);
    EXPECT_EQ(sw_ematch_copy_entry(&to.entry, &v6, 0), -2);
    EXPECT_EQ(to.rendered(), untouched);
    to.with_v6({});
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &v4, 0), -2);
    to.with_hollow_ip(P_LIBPUB__IP__IP_V4);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &v4, 0), -2);
    EXPECT_THAT(errors(), testing::AllOf(SizeIs(4), Each(StartsWith("Assert:"))));
}

TEST_F(EmatchToIndex, FillsTheAddressesThatTheDestinationHasAndMakesNone)
{
    const sw_ematch_item item = full_item(nullptr);
    destination to;
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.mac, nullptr);
    EXPECT_EQ(to.index.mask, nullptr);
    EXPECT_EQ(to.index.ip, nullptr);
    EXPECT_EQ(to.index.match_id, item.match_id);
    to.with_mask({});
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 0), 0);
    EXPECT_EQ(to.index.mac, nullptr);
    EXPECT_EQ(to.index.mask->data.data, item.mask);
}

TEST_F(EmatchToIndex, CopiesTheNameWhenAskedAndWhenThereIsOne)
{
    sw_ebridge_list_item owner = named("somebody");
    destination to;
    const sw_ematch_item of_somebody = full_item(&owner), of_nobody = full_item(nullptr);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &of_somebody, 0), 0);
    EXPECT_EQ(to.name[0], 0x5a);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &of_nobody, 1), 0);
    EXPECT_EQ(to.name[0], 0x5a);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &of_somebody, 1), 0);
    EXPECT_EQ(to.index.t_user, to.name);
    EXPECT_STREQ(to.name, "somebody");
}

TEST_F(EmatchToIndex, WritesAtMost32BytesOfAName)
{
    char endless[64];
    std::memset(endless, 'n', sizeof endless);
    endless[sizeof endless - 1] = '\0';
    sw_ematch_item item = full_item(nullptr);
    item.user = static_cast<sw_ebridge_list_item *>(static_cast<void *>(endless));
    destination to;
    EXPECT_EQ(sw_ematch_index_copy(&to.index, &item, 1), 0);
    EXPECT_EQ(to.name, std::string(31, 'n'));
    EXPECT_EQ(to.name[32], 0x5a);
}

TEST_F(EmatchToIndex, RefusesNull)
{
    add_user({.name = "app"});
    const sw_ematch_item item = full_item(nullptr);
    destination to;
    const std::string untouched = to.with_v4(7).rendered();
    EXPECT_EQ(sw_ematch_index_copy(nullptr, &item, 0), -2);
    EXPECT_EQ(sw_ematch_index_copy(&to.index, nullptr, 0), -2);
    EXPECT_EQ(sw_ematch_index_copy(nullptr, nullptr, 0), -2);
    EXPECT_EQ(to.rendered(), untouched);
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_index_copy: Assert:Bad dst EMATCH index.\n",
                                     "error sw_ematch_index_copy: Assert:Bad src EMATCH index.\n",
                                     "error sw_ematch_index_copy: Assert:Bad dst EMATCH index.\n"));
}

// What a fresh index has for a name is one text for all records, and cannot be written.
TEST_F(EmatchToIndex, RefusesToWriteANameWhereThereIsNoRoom)
{
    sw_ebridge_list_item *app = add_user({.name = "app"});
    const sw_ematch_item item = full_item(app);
    for (char *nowhere : {static_cast<char *>(nullptr), const_cast<char *>(protobuf_c_empty_string)}) {
        UBridge__EmatchIndex fresh = U_BRIDGE__EMATCH_INDEX__INIT;
        fresh.t_user = nowhere;
        EXPECT_EQ(sw_ematch_index_copy(&fresh, &item, 1), -2);
        EXPECT_EQ(fresh.match_type, 0);
        EXPECT_EQ(sw_ematch_index_copy(&fresh, &item, 0), 0);
        EXPECT_EQ(fresh.match_type, item.match_type);
    }
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_index_copy: Assert:Bad dst EMATCH index.\n",
                                     "error sw_ematch_index_copy: Assert:Bad dst EMATCH index.\n"));
}

TEST_F(EmatchToIndex, UndoesTheConversionOfAnIndex)
{
    const full_rule from;
    const sw_ematch_item item = of_key(from);
    destination to;
    to.with_mac({}).with_mask({}).with_v4(0);
    sw_ematch_index_copy(&to.index, &item, 0);
    EXPECT_EQ(bytes_of(of_key(to)), bytes_of(item));
    rule v6;
    v6.with_v6(ipv6_address());
    const sw_ematch_item v6_item = of_key(v6);
    to.with_v6({});
    sw_ematch_index_copy(&to.index, &v6_item, 0);
    EXPECT_EQ(bytes_of(of_key(to)), bytes_of(v6_item));
}

// ---- item to entry

TEST_F(EmatchToEntry, FillsKeyAndActionButNotTheResult)
{
    sw_ebridge_list_item owner = named("app");
    const sw_ematch_item item = full_item(&owner);
    destination to;
    to.with_mac({}).with_mask({}).with_v4(0);
    to.entry.result = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    EXPECT_EQ(sw_ematch_copy_entry(&to.entry, &item, 1), 0);
    full_rule expected;
    expected.entry.result = U_BRIDGE__MATCH_RESULT__FAIL_PRIORITY;
    EXPECT_EQ(to.rendered(), expected.rendered());
}

TEST_F(EmatchToEntry, CopiesNoNameUnlessAsked)
{
    sw_ebridge_list_item owner = named("app");
    const sw_ematch_item item = full_item(&owner);
    destination to;
    EXPECT_EQ(sw_ematch_copy_entry(&to.entry, &item, 0), 0);
    EXPECT_EQ(to.name[0], 0x5a);
}

TEST_F(EmatchToEntry, RefusesNull)
{
    add_user({.name = "app"});
    const sw_ematch_item item = full_item(nullptr);
    UBridge__EmatchEntry keyless = U_BRIDGE__EMATCH_ENTRY__INIT;
    EXPECT_EQ(sw_ematch_copy_entry(&keyless, nullptr, 0), -2);
    EXPECT_EQ(sw_ematch_copy_entry(nullptr, &item, 0), -2);
    EXPECT_EQ(sw_ematch_copy_entry(&keyless, &item, 0), -2);
    EXPECT_EQ(sw_ematch_copy_entry(nullptr, nullptr, 0), -2);
    EXPECT_THAT(trace(), ElementsAre("error sw_ematch_copy_entry: Assert:Bad src EMATCH.\n",
                                     "error sw_ematch_copy_entry: Assert:Bad dst EMATCH.\n",
                                     "error sw_ematch_copy_entry: Assert:Bad dst EMATCH index.\n",
                                     "error sw_ematch_copy_entry: Assert:Bad src EMATCH.\n"));
    EXPECT_EQ(keyless.action_type, U_BRIDGE__EMATCH_ACTION_TYPE__UNUSED);
}

}  // namespace
